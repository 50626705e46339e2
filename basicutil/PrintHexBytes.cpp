#include "basicutil/PrintHexBytes.h"

#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

void appendHex(Str &out, const void *data, size_t size, const char *hex) {
  const unsigned char *p = static_cast<const unsigned char *>(data);
  size_t old = out.size();
  out.resize(old + 2 * size);
  char *d = out.data() + old;
  for (size_t i = 0; i < size; ++i) {
    *d++ = hex[p[i] >> 4];
    *d++ = hex[p[i] & 15];
  }
}

inline bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// For a known hex digit: the letters of both cases have the value of their low three bits + 9.
inline unsigned hexValue(char c) {
  return c < ':' ? static_cast<unsigned>(c - '0') : static_cast<unsigned>((c & 7) + 9);
}

}  // namespace

void appendHexBytes(Str &out, const void *data, size_t size) {
  appendHex(out, data, size, "0123456789abcdef");
}

void appendHexBytesUpper(Str &out, const void *data, size_t size) {
  appendHex(out, data, size, "0123456789ABCDEF");
}

void crashlogWriteHexBytes(crash_log_writer *w, const void *data, size_t size) noexcept {
  static const char HEX[] = "0123456789abcdef";
  const unsigned char *p = static_cast<const unsigned char *>(data);
  char buf[64];
  size_t used = 0;
  for (size_t i = 0; i < size; ++i) {
    buf[used++] = HEX[p[i] >> 4];
    buf[used++] = HEX[p[i] & 15];
    if (used == sizeof buf) {
      w->do_write(w, buf, used);
      used = 0;
    }
  }
  if (used) w->do_write(w, buf, used);
}

bool parse_from_hex(const char *text, size_t text_size, void *dest, size_t dest_size) {
  size_t destp_bytes = dest_size;
  MV_ASSERT(destp_bytes > 0);
  if (text_size != 2 * dest_size) return false;
  unsigned char *d = static_cast<unsigned char *>(dest);
  for (size_t i = 0; i < dest_size; ++i) {
    char hi = text[2 * i];
    char lo = text[2 * i + 1];
    if (!isHexDigit(hi) || !isHexDigit(lo)) return false;
    d[i] = static_cast<unsigned char>(hexValue(hi) << 4 | hexValue(lo));
  }
  return true;
}

}  // namespace morvek
