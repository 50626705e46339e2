#include "basicutil/CrashLog.h"

namespace morvek {

namespace {
constexpr char HEX_DIGITS[] = "0123456789abcdef";
}

void CrashLogWriter::writeUnsigned(uint64_t v) {
  char buf[20];
  size_t i = sizeof buf;
  do {
    buf[--i] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  write(buf + i, sizeof buf - i);
}

void CrashLogWriter::writeSigned(int64_t v) {
  if (v < 0) {
    writeChar('-');
    writeUnsigned(0 - static_cast<uint64_t>(v));
  } else {
    writeUnsigned(static_cast<uint64_t>(v));
  }
}

void CrashLogWriter::writeHex(uint64_t v) {
  char buf[16];
  size_t i = sizeof buf;
  do {
    buf[--i] = HEX_DIGITS[v & 15];
    v >>= 4;
  } while (v != 0);
  write(buf + i, sizeof buf - i);
}

void CrashLogWriter::writeHexBytes(const void *bytes, size_t len) {
  const unsigned char *p = static_cast<const unsigned char *>(bytes);
  for (size_t i = 0; i < len; ++i) {
    char pair[2] = {HEX_DIGITS[p[i] >> 4], HEX_DIGITS[p[i] & 15]};
    write(pair, 2);
  }
}

}  // namespace morvek
