// Random bytes through the Unicode file reader in every encoding and error mode, and what it
// reads back through the writer.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "basicutil/UnicodeCodepoint.h"
#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"

namespace {

struct Source {
  const uint8_t *data;
  size_t len, pos;
  static int get(void *user) {
    auto *s = static_cast<Source *>(user);
    return s->pos < s->len ? s->data[s->pos++] : EOF;
  }
};

void check(bool ok) {
  if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static const uint32_t encodings[] = {UTRANS_ENC_AUTO,    UTRANS_ENC_UTF8,    UTRANS_ENC_UTF16LE,
                                       UTRANS_ENC_UTF16BE, UTRANS_ENC_UTF32LE, UTRANS_ENC_UTF32BE};
  const uint32_t encoding = encodings[data[0] % 6] | (data[0] & 0x40 ? UTRANS_ENC_FLAG_CRLF : 0);
  const uint32_t mode = data[0] >> 7;
  const int how = (data[0] >> 3) % 3;
  Source src{data + 1, size - 1, 0};
  utrans_read_file r;
  utrans_init_read(&r, &src, Source::get);
  r.common.encoding = encoding;
  r.common.error_mode = mode;

  std::vector<int32_t> cps;
  if (how == 0) {
    for (int32_t cp; (cp = utrans_read_codepoint(&r)) != EOF;) {
      check(cp >= 0 && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF));
      cps.push_back(cp);
    }
  } else if (how == 1) {
    std::string text;
    for (int c; (c = utrans_getc_utf8(&r)) != EOF;) text.push_back(static_cast<char>(c));
    check(morvek::isValidUtf8(text.data(), text.size()));
    check(text.find("\xEF\xBB\xBF") == std::string::npos);
  } else {
    size_t len, lines = 0;
    while (const char *line = utrans_readline_utf8(&r, &len)) {
      check(strlen(line) <= len && memchr(line, '\n', len) == nullptr);
      check(morvek::isValidUtf8(line, len));
      ++lines;
    }
    check(r.rline.lf_lines + r.rline.crlf_lines == lines);
  }
  const uint32_t settled = r.common.encoding & UTRANS_ENC_MASK;
  utrans_release(&r);

  // What was read writes back and reads again the same, where the encoding can take code points
  // and the text doesn't begin with what reads as a byte-order mark.
  if (how != 0 || settled < UTRANS_ENC_UTF8 || settled == UTRANS_ENC_UTF32BE) return 0;
  std::string bytes;
  utrans_write_file w;
  utrans_init_write(&w, &bytes, [](void *user, int by) {
    static_cast<std::string *>(user)->push_back(char(by));
  });
  w.common.encoding = settled;
  for (int32_t cp : cps) utrans_write_codepoint(&w, cp);
  const unsigned char *written = reinterpret_cast<const unsigned char *>(bytes.data());
  if (utrans_guess_encoding(written, bytes.size()) & UTRANS_ENC_FLAG_BOM) return 0;
  Source again{reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), 0};
  utrans_init_read(&r, &again, Source::get);
  r.common.encoding = settled;
  r.common.error_mode = UTRANS_ERRORMODE_MARK_INVALID;
  for (int32_t cp : cps) check(utrans_read_codepoint(&r) == cp);
  check(utrans_read_codepoint(&r) == EOF);
  utrans_release(&r);
  return 0;
}
