// Reading and writing text files in the five Unicode encoding forms.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"

namespace {

using CPs = std::vector<int32_t>;
using Lines = std::vector<std::string>;
constexpr uint32_t BOM = UTRANS_ENC_FLAG_BOM, CRLF = UTRANS_ENC_FLAG_CRLF;

std::string B(std::initializer_list<int> bytes) { return std::string(bytes.begin(), bytes.end()); }

// A reader over bytes; release is the destructor's.
struct Reader {
  std::string data;
  size_t pos = 0;
  utrans_read_file ufil;
  explicit Reader(std::string bytes, uint32_t encoding = 0, uint32_t mode = 0) : data(bytes) {
    utrans_init_read(&ufil, this, [](void *user) {
      auto *r = static_cast<Reader *>(user);
      return r->pos < r->data.size() ? static_cast<unsigned char>(r->data[r->pos++]) : EOF;
    });
    ufil.common.encoding = encoding;
    ufil.common.error_mode = mode;
  }
  ~Reader() { utrans_release(&ufil); }
  CPs codepoints() {
    CPs out;
    for (int32_t cp; (cp = utrans_read_codepoint(&ufil)) != EOF;) out.push_back(cp);
    return out;
  }
  std::string utf8() {
    std::string out;
    for (int c; (c = utrans_getc_utf8(&ufil)) != EOF;) out.push_back(static_cast<char>(c));
    return out;
  }
  Lines lines() {
    Lines out;
    size_t len;
    while (const char *line = utrans_readline_utf8(&ufil, &len)) {
      EXPECT_EQ(strlen(line), len);
      out.emplace_back(line, len);
    }
    EXPECT_EQ(len, 0u);
    return out;
  }
};

struct Writer {
  std::string out;
  utrans_write_file ufil;
  explicit Writer(uint32_t encoding = 0, uint32_t mode = 0) {
    utrans_init_write(&ufil, this, [](void *user, int by) {
      static_cast<Writer *>(user)->out.push_back(static_cast<char>(by));
    });
    ufil.common.encoding = encoding;
    ufil.common.error_mode = mode;
  }
  Writer &utf8(const std::string &s) {
    utrans_write_utf8(&ufil, s.data(), static_cast<ptrdiff_t>(s.size()));
    return *this;
  }
};

}  // namespace

TEST(UnicodeFileReader, GuessEncodingAndMarks) {
  // 32-bit little-endian needs eight bytes and a second word that fits; "a\0b\0" without a mark
  // stays UTF-8 (the weak rule, as it stands).
  const std::vector<std::pair<std::string, uint32_t>> cases = {
      // clang-format off
      {"", UTRANS_ENC_EMPTY}, {B({0xEF, 0xBB}), UTRANS_ENC_UTF8},
      {B({0xEF, 0xBB, 0xBF, 'a'}), BOM | UTRANS_ENC_UTF8}, {B({0x00, 0x00, 0xFE, 0xFF}), BOM | UTRANS_ENC_UTF32BE},
      {B({0xFF, 0xFE, 0, 0, 'a', 0, 0, 0}), BOM | UTRANS_ENC_UTF32LE},
      {B({0xFF, 0xFE, 0, 0, 0, 0, 0x11, 0}), BOM | UTRANS_ENC_UTF16LE},
      {B({0xFF, 0xFE, 0, 0, 'a', 0, 0}), BOM | UTRANS_ENC_UTF16LE},
      {B({0xFE, 0xFF, 0, 'a'}), BOM | UTRANS_ENC_UTF16BE}, {B({'a', 0, 'b', 0, 'c', 0, 'd', 0}), UTRANS_ENC_UTF8},
      // clang-format on
  };
  for (const auto &[bytes, encoding] : cases)
    EXPECT_EQ(
        utrans_guess_encoding(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size()),
        encoding)
        << testing::PrintToString(bytes);

  // A mark is no text on the UTF-8 side, wherever it is, but a code point of its own.
  EXPECT_EQ(Reader(B({0xEF, 0xBB, 0xBF, 'a', 0xEF, 0xBB, 0xBF, 'b'})).utf8(), "ab");
  EXPECT_EQ(Reader(B({0xEF, 0xBB, 0xBF, 'a'})).codepoints(), (CPs{0xFEFF, 'a'}));
  // A mark overrules the caller; without one the caller's choice stands.
  Reader marked(B({0xFF, 0xFE, 'a', 0}), UTRANS_ENC_UTF8 | CRLF);
  EXPECT_EQ(marked.utf8(), "a");
  EXPECT_EQ(marked.ufil.common.encoding, BOM | CRLF | UTRANS_ENC_UTF16LE);
  EXPECT_EQ(Reader(B({0, 0, 0, 'a', 0, 1, 0xF6, 0}), UTRANS_ENC_UTF32BE).codepoints(),
            (CPs{'a', 0x1F600}));
}

TEST(UnicodeFileReader, ErrorModes) {
  const int32_t R = 0xFFFD;
  const auto U16LE = UTRANS_ENC_UTF16LE, U8 = UTRANS_ENC_UTF8, U32LE = UTRANS_ENC_UTF32LE;
  struct Case {
    std::string bytes;
    uint32_t encoding;
    CPs ignore, mark;
  };
  const std::vector<Case> cases = {
      // clang-format off
      {B({0x00, 0xDC, 'a', 0}), U16LE, {'a'}, {R, 'a'}},
      {B({0x00, 0xD8, 0x00, 0xD8, 0x00, 0xDC}), U16LE, {0x10000}, {R, 0x10000}},
      {B({0x00, 0xD8}), U16LE, {}, {R}},            {B({'a', 0, 'b'}), U16LE, {'a'}, {'a', R}},
      {B({0xF0, 0x9F, 0x98, 'x'}), U8, {'x'}, {R, R, R, 'x'}},
      {B({0xE2, 0x82}), U8, {}, {R}},               {B({0xC0, 0x80, 'z'}), U8, {'z'}, {R, R, 'z'}},
      {B({0xF4, 0x90, 0x80, 0x80}), U8, {}, {R}},
      {B({0xED, 0xA0, 0x80, 0xED, 0xB0, 0x80}), U8, {0x10000}, {0x10000}},
      {B({0xE0, 0x80, 0x80}), U8, {0}, {0}},  // overlong forms pass this decoder
      {B({0, 0, 0x11, 0, 'a', 0, 0, 0}), U32LE, {'a'}, {R, 'a'}},
      {B({'a', 0, 0, 0, 'b', 0}), U32LE, {'a'}, {'a', R}},
      // clang-format on
  };
  for (const Case &c : cases) {
    EXPECT_EQ(Reader(c.bytes, c.encoding, UTRANS_ERRORMODE_IGNORE_INVALID).codepoints(), c.ignore)
        << testing::PrintToString(c.bytes);
    EXPECT_EQ(Reader(c.bytes, c.encoding, UTRANS_ERRORMODE_MARK_INVALID).codepoints(), c.mark)
        << testing::PrintToString(c.bytes);
  }
}

TEST(UnicodeFileReader, LinesAndTheCrLfFlag) {
  // The flag follows the majority of line ends; a tie leaves it as it was.
  struct Case {
    std::string text;
    uint32_t encoding;
    Lines lines;
    bool flag;
  } cases[] = {
      {"a\r\nb\nc\r\n", 0, {"a", "b", "c"}, true},
      {"\r\n\n\nlast\r", 0, {"", "", "", "last"}, false},
      {"x\r\ny\n", UTRANS_ENC_UTF8 | CRLF, {"x", "y"}, true},
  };
  for (const Case &c : cases) {
    Reader r(c.text, c.encoding);
    EXPECT_EQ(r.lines(), c.lines);
    EXPECT_EQ((r.ufil.common.encoding & CRLF) != 0, c.flag) << testing::PrintToString(c.text);
  }
  // Long lines, and characters across the look-ahead buffer.
  std::string text;
  Lines expected;
  for (size_t n : {0, 63, 64, 129, 5000}) {
    std::string line(n, 'x');
    for (size_t i = 7; i < n; i += 13) line.replace(i, 1, "\xE2\x82\xAC");
    expected.push_back(line);
    text += line + "\n";
  }
  EXPECT_EQ(Reader(text).lines(), expected);
  for (size_t pad = 60; pad < 66; ++pad) {
    const std::string s = std::string(pad, 'p') + "\xF0\x9F\x98\x80" + "end";
    EXPECT_EQ(Reader(s).utf8(), s) << pad;
  }
}

TEST(UnicodeFileWriter, MarksLineEndsEncodingsAndBadInput) {
  EXPECT_EQ(Writer(UTRANS_ENC_UTF8 | BOM).utf8("a").utf8("b").out, "\xEF\xBB\xBF" + B({'a', 'b'}));
  EXPECT_EQ(Writer(CRLF).utf8("a\nb\r\nc\r\r\n").out, "a\r\nb\r\nc\r\r\n");
  EXPECT_EQ(Writer(UTRANS_ENC_UTF16BE).utf8("\xF0\x90\x80\x80").out, B({0xD8, 0x00, 0xDC, 0x00}));
  EXPECT_EQ(Writer(UTRANS_ENC_UTF16LE | BOM).utf8("\xC3\xA9").out, B({0xFF, 0xFE, 0xE9, 0x00}));
  EXPECT_EQ(Writer(UTRANS_ENC_UTF32LE | BOM).utf8("\xF0\x9F\x98\x80").out,
            B({0xFF, 0xFE, 0, 0, 0x00, 0xF6, 0x01, 0}));
  Writer raw(UTRANS_ENC_UTF32BE | BOM);
  utrans_write_rawbyte(&raw.ufil, 0x41);
  EXPECT_EQ(raw.out, B({0, 0, 0xFE, 0xFF, 0x41}));
  Writer w;
  EXPECT_DEATH(utrans_write_codepoint(&w.ufil, 0x110000), "cp <= 0x10FFFF");

  const std::string R = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::string, std::string>> bad = {
      // clang-format off
      {B({0xC3, 'a'}), "a"}, {B({0x80, 'b'}), "b"}, {B({0xE2, 0x82, 0xC3, 0xA9}), "\xC3\xA9"},
      {B({0xF4, 0x90, 0x80, 0x80, 'c'}), "c"}, {B({0xFF}), ""},
      // clang-format on
  };
  for (const auto &[in, rest] : bad) {
    EXPECT_EQ(Writer(0, UTRANS_ERRORMODE_IGNORE_INVALID).utf8(in).out, rest);
    EXPECT_EQ(Writer(0, UTRANS_ERRORMODE_MARK_INVALID).utf8(in).out, R + rest);
  }
  // CR, then a broken sequence, then LF: the replacement sits between, so CR LF is written.
  EXPECT_EQ(Writer(CRLF, 1).utf8(B({'\r', 0xC3, '\n'})).out, "\r" + R + "\r\n");
}

// What the writer writes, the reader reads back with the same flags.
TEST(UnicodeFileRoundTrip, EveryWritableEncodingWithAndWithoutMarksAndCrLf) {
  const Lines lines = {"", "caf\xC3\xA9 \xE2\x82\xAC 5", "\xF0\x9F\x98\x80\xF0\x90\x80\x80",
                       std::string(200, 'w'), "last"};
  std::string text;
  for (const std::string &l : lines) text += l + "\n";
  for (uint32_t enc :
       {UTRANS_ENC_UTF8, UTRANS_ENC_UTF16LE, UTRANS_ENC_UTF16BE, UTRANS_ENC_UTF32LE}) {
    for (uint32_t flags : {0u, BOM, CRLF, BOM | CRLF}) {
      Writer w(enc | flags);
      w.utf8(text);
      // A mark lets the reader find the encoding itself; without one it must be told.
      Reader r(w.out, flags & BOM ? uint32_t{UTRANS_ENC_AUTO} : enc);
      SCOPED_TRACE(testing::Message() << "encoding " << enc << " flags " << flags);
      EXPECT_EQ(r.lines(), lines);
      EXPECT_EQ(r.ufil.common.encoding, enc | flags);
    }
  }
  // Characters split across calls at every pair of cuts.
  const std::string mixed = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  for (size_t cut1 = 0; cut1 <= mixed.size(); ++cut1)
    for (size_t cut2 = cut1; cut2 <= mixed.size(); ++cut2) {
      Writer w(UTRANS_ENC_UTF16BE);
      w.utf8(mixed.substr(0, cut1)).utf8(mixed.substr(cut1, cut2 - cut1)).utf8(mixed.substr(cut2));
      ASSERT_EQ(Reader(w.out, UTRANS_ENC_UTF16BE).utf8(), mixed) << cut1 << "," << cut2;
    }
  // Through stdio streams.
  FILE *fp = tmpfile();
  ASSERT_NE(fp, nullptr);
  utrans_write_file fw;
  utrans_init_write_stdio(&fw, fp);
  fw.common.encoding = UTRANS_ENC_UTF16BE | BOM | CRLF;
  utrans_write_utf8(&fw, "one\ntw\xC3\xB6\n", 8);
  rewind(fp);
  utrans_read_file fr;
  utrans_init_read_stdio(&fr, fp);
  EXPECT_STREQ(utrans_readline_utf8(&fr, nullptr), "one");
  EXPECT_STREQ(utrans_readline_utf8(&fr, nullptr), "tw\xC3\xB6");
  EXPECT_EQ(utrans_readline_utf8(&fr, nullptr), nullptr);
  EXPECT_EQ(fr.common.encoding, fw.common.encoding);
  utrans_release(&fr);
  fclose(fp);
}
