#include "basicutil/HexDumper.h"

#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

constexpr char HEX[] = "0123456789abcdef";

char *putOffset(char *d, size_t offset) {
  for (int shift = 28; shift >= 0; shift -= 4) *d++ = HEX[(offset >> shift) & 15];
  return d;
}

}  // namespace

HexDumper::~HexDumper() = default;

void HexDumper::do_dump(const void *data, size_t size) {
  const unsigned char *bytes = static_cast<const unsigned char *>(data);
  // Offset, 2 blanks, 16 columns of 3, 1 more blank, " |", 16 characters, "|" and a NUL.
  char buf[8 + 2 + 16 * 3 + 1 + 2 + 16 + 1 + 1];
  for (size_t offset = 0; offset < size; offset += 16) {
    size_t n = size - offset < 16 ? size - offset : 16;
    char *d = putOffset(buf, offset);
    *d++ = ' ';
    *d++ = ' ';
    for (size_t i = 0; i < 16; ++i) {
      if (i < n) {
        *d++ = HEX[bytes[offset + i] >> 4];
        *d++ = HEX[bytes[offset + i] & 15];
      } else {
        *d++ = ' ';
        *d++ = ' ';
      }
      *d++ = ' ';
      if (i == 7) *d++ = ' ';
    }
    *d++ = ' ';
    *d++ = '|';
    for (size_t i = 0; i < n; ++i) {
      unsigned char c = bytes[offset + i];
      *d++ = (c >= 0x20 && c <= 0x7e) ? static_cast<char>(c) : '.';
    }
    *d++ = '|';
    MV_ASSERT(d < &buf[sizeof(buf)]);
    *d = '\0';
    outputLine(buf, static_cast<size_t>(d - buf));
  }
  char *d = putOffset(buf, size);
  *d = '\0';
  outputLine(buf, 8);
}

void HexDumper_to_Str::outputLine(const char *line, size_t len) {
  _out->append(line, len);
  _out->push_back('\n');
}

void HexDumper_to_StrVector::outputLine(const char *line, size_t len) {
  _out->emplace_back(line, len);
}

void HexDumper_to_Logger::outputLine(const char *line, size_t) { _out->error("%s", line); }

void HexDumper_to_CrashLog::outputLine(const char *line, size_t len) noexcept {
  if (_wrote_line) _out->do_write(_out, "\n", 1);
  _wrote_line = true;
  _out->do_write(_out, line, len);
}

void hexDumpToStr(Str &out, const void *data, size_t size) {
  HexDumper_to_Str dumper(&out);
  dumper.do_dump(data, size);
}

void hexDumpToStrVector(StrVector &out, const void *data, size_t size) {
  HexDumper_to_StrVector dumper(&out);
  dumper.do_dump(data, size);
}

void hexDumpToLogger(Logger &out, const void *data, size_t size) {
  HexDumper_to_Logger dumper(&out);
  dumper.do_dump(data, size);
}

void hexDumpToCrashLog(crash_log_writer *out, const void *data, size_t size) noexcept {
  HexDumper_to_CrashLog dumper(out);
  dumper.do_dump(data, size);
}

}  // namespace morvek
