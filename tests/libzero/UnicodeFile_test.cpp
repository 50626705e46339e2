// Reading and writing text files in the five Unicode encoding forms.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"

namespace {

std::string B(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

struct Source {
  std::string data;
  size_t pos = 0;
  static int get(void *user) {
    auto *s = static_cast<Source *>(user);
    return s->pos < s->data.size() ? static_cast<unsigned char>(s->data[s->pos++]) : EOF;
  }
};

// A reader over bytes; release is the destructor's.
struct Reader {
  Source src;
  utrans_read_file ufil;
  explicit Reader(std::string bytes, uint32_t encoding = 0, uint32_t mode = 0) {
    src.data = std::move(bytes);
    utrans_init_read(&ufil, &src, Source::get);
    ufil.common.encoding = encoding;
    ufil.common.error_mode = mode;
  }
  ~Reader() { utrans_release(&ufil); }
  std::vector<int32_t> codepoints() {
    std::vector<int32_t> out;
    for (int32_t cp; (cp = utrans_read_codepoint(&ufil)) != EOF;) out.push_back(cp);
    return out;
  }
  std::string utf8() {
    std::string out;
    for (int c; (c = utrans_getc_utf8(&ufil)) != EOF;) out.push_back(static_cast<char>(c));
    return out;
  }
  std::vector<std::string> lines() {
    std::vector<std::string> out;
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

// ---------------------------------------------------------------------------
// Encoding detection

TEST(UnicodeFileReader, GuessEncoding) {
  struct Case {
    std::string bytes;
    uint32_t encoding;
  };
  const std::vector<Case> cases = {
      {"", UTRANS_ENC_EMPTY},
      {"abc", UTRANS_ENC_UTF8},
      {B({0xEF, 0xBB, 0xBF, 'a'}), 0x8000 | UTRANS_ENC_UTF8},
      {B({0x00, 0x00, 0xFE, 0xFF}), 0x8000 | UTRANS_ENC_UTF32BE},
      {B({0xFF, 0xFE, 0, 0, 'a', 0, 0, 0}), 0x8000 | UTRANS_ENC_UTF32LE},
      {B({0xFF, 0xFE, 0, 0, 0, 0, 0x11, 0}), 0x8000 | UTRANS_ENC_UTF16LE},  // word > 0x10FFFF
      {B({0xFF, 0xFE, 0, 0, 0, 0, 0, 0}), 0x8000 | UTRANS_ENC_UTF16LE},     // first word 0
      {B({0xFF, 0xFE, 0, 0, 'a', 0, 0}), 0x8000 | UTRANS_ENC_UTF16LE},      // under 8 bytes
      {B({0xFE, 0xFF, 0, 'a'}), 0x8000 | UTRANS_ENC_UTF16BE},
      {B({0xFF, 0xFE, 'a', 0}), 0x8000 | UTRANS_ENC_UTF16LE},
      {B({'a', 0, 'b', 0, 'c', 0, 'd', 0}), UTRANS_ENC_UTF8},  // the weak rule, as it stands
      {B({0xEF, 0xBB}), UTRANS_ENC_UTF8},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(utrans_guess_encoding(reinterpret_cast<const unsigned char *>(c.bytes.data()),
                                    c.bytes.size()),
              c.encoding)
        << testing::PrintToString(c.bytes);
  }
}

TEST(UnicodeFileReader, MarksOverruleTheCallerAndAreNotText) {
  Reader empty("");
  EXPECT_EQ(utrans_read_rawbyte(&empty.ufil), EOF);
  EXPECT_EQ(empty.ufil.common.encoding, uint32_t{UTRANS_ENC_EMPTY});
  EXPECT_EQ(utrans_getc_utf8(&empty.ufil), EOF);

  EXPECT_EQ(Reader(B({0xEF, 0xBB, 0xBF, 'a'})).utf8(), "a");
  EXPECT_EQ(Reader(B({0xEF, 0xBB, 0xBF, 'a'})).codepoints(), (std::vector<int32_t>{0xFEFF, 'a'}));

  Reader marked(B({0xFF, 0xFE, 'a', 0}), UTRANS_ENC_UTF8 | UTRANS_ENC_FLAG_CRLF);
  EXPECT_EQ(marked.utf8(), "a");
  EXPECT_EQ(marked.ufil.common.encoding, 0x8000u | 0x4000u | UTRANS_ENC_UTF16LE);

  // Without a mark the caller's choice stands.
  EXPECT_EQ(Reader(B({'a', 0, 0xAC, 0x20}), UTRANS_ENC_UTF16LE).utf8(), "a\xE2\x82\xAC");
  EXPECT_EQ(Reader(B({0, 0, 0, 'a', 0, 1, 0xF6, 0}), UTRANS_ENC_UTF32BE).codepoints(),
            (std::vector<int32_t>{'a', 0x1F600}));
  // Marks inside the text are dropped on the UTF-8 side as well.
  EXPECT_EQ(Reader("a\xEF\xBB\xBF"
                   "b")
                .utf8(),
            "ab");
}

// ---------------------------------------------------------------------------
// Invalid input and the error modes

TEST(UnicodeFileReader, ErrorModes) {
  struct Case {
    std::string bytes;
    uint32_t encoding;
    std::vector<int32_t> ignore, mark;
  };
  const int32_t R = 0xFFFD;
  const std::vector<Case> cases = {
      {B({0x00, 0xD8, 'a', 0}), UTRANS_ENC_UTF16LE, {'a'}, {R, 'a'}},
      {B({0x00, 0xDC, 'a', 0}), UTRANS_ENC_UTF16LE, {'a'}, {R, 'a'}},
      {B({0x00, 0xD8, 0x00, 0xD8, 0x00, 0xDC}), UTRANS_ENC_UTF16LE, {0x10000}, {R, 0x10000}},
      {B({0xD8, 0x3D, 0xDE, 0x00}), UTRANS_ENC_UTF16BE, {0x1F600}, {0x1F600}},
      {B({0x00, 0xD8}), UTRANS_ENC_UTF16LE, {}, {R}},
      {B({'a', 0, 'b'}), UTRANS_ENC_UTF16LE, {'a'}, {'a', R}},
      {B({0xE2, 0x28, 0xA1}), UTRANS_ENC_UTF8, {'('}, {R, '(', R}},
      {B({0xF0, 0x9F, 0x98, 'x'}), UTRANS_ENC_UTF8, {'x'}, {R, R, R, 'x'}},
      {B({0xE2, 0x82}), UTRANS_ENC_UTF8, {}, {R}},
      {B({0xC0, 0x80, 'z'}), UTRANS_ENC_UTF8, {'z'}, {R, R, 'z'}},
      {B({0xF4, 0x90, 0x80, 0x80}), UTRANS_ENC_UTF8, {}, {R}},
      {B({0xED, 0xA0, 0x80, 0xED, 0xB0, 0x80}), UTRANS_ENC_UTF8, {0x10000}, {0x10000}},
      {B({0xE0, 0x80, 0x80}), UTRANS_ENC_UTF8, {0}, {0}},  // overlong forms pass this decoder
      {B({0, 0xD8, 0, 0, 'a', 0, 0, 0}), UTRANS_ENC_UTF32LE, {'a'}, {R, 'a'}},
      {B({0, 0, 0x11, 0, 'a', 0, 0, 0}), UTRANS_ENC_UTF32LE, {'a'}, {R, 'a'}},
      {B({'a', 0, 0, 0, 'b', 0}), UTRANS_ENC_UTF32LE, {'a'}, {'a', R}},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(Reader(c.bytes, c.encoding, UTRANS_ERRORMODE_IGNORE_INVALID).codepoints(), c.ignore)
        << testing::PrintToString(c.bytes);
    EXPECT_EQ(Reader(c.bytes, c.encoding, UTRANS_ERRORMODE_MARK_INVALID).codepoints(), c.mark)
        << testing::PrintToString(c.bytes);
  }
  EXPECT_DEATH(Reader(B({0, 0xD8}), UTRANS_ENC_UTF16LE, 2).codepoints(),
               "ufil->common.error_mode == UTRANS_ERRORMODE_MARK_INVALID");
  EXPECT_DEATH(Reader("a", 9).codepoints(),
               "\\(ufil->common.encoding & 0xFF\\) == UTRANS_ENC_UTF32BE");
}

// ---------------------------------------------------------------------------
// Lines

TEST(UnicodeFileReader, LineEndsAndTheCrLfFlag) {
  Reader r("a\r\nb\nc\r\n");
  EXPECT_EQ(r.lines(), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(r.ufil.rline.crlf_lines, 2u);
  EXPECT_EQ(r.ufil.rline.lf_lines, 1u);
  EXPECT_TRUE(r.ufil.common.encoding & UTRANS_ENC_FLAG_CRLF);

  Reader blank("\r\n\n\nlast\r");
  EXPECT_EQ(blank.lines(), (std::vector<std::string>{"", "", "", "last"}));
  EXPECT_EQ(blank.ufil.rline.crlf_lines, 2u);
  EXPECT_EQ(blank.ufil.rline.lf_lines, 2u);
  EXPECT_FALSE(blank.ufil.common.encoding & UTRANS_ENC_FLAG_CRLF);  // a tie leaves it

  Reader cleared("x\r\ny\nz\n", UTRANS_ENC_UTF8 | UTRANS_ENC_FLAG_CRLF);
  cleared.lines();
  EXPECT_FALSE(cleared.ufil.common.encoding & UTRANS_ENC_FLAG_CRLF);

  Reader empty("");
  size_t len = 99;
  EXPECT_EQ(utrans_readline_utf8(&empty.ufil, &len), nullptr);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(utrans_readline_utf8(&empty.ufil, nullptr), nullptr);
}

TEST(UnicodeFileReader, LongLinesAndCharactersAcrossTheLookAhead) {
  std::string text;
  std::vector<std::string> expected;
  for (size_t n : {0, 1, 61, 62, 63, 64, 127, 128, 129, 300, 5000}) {
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

// ---------------------------------------------------------------------------
// Writer

TEST(UnicodeFileWriter, MarksLineEndsAndEncodings) {
  EXPECT_EQ(Writer(UTRANS_ENC_UTF8 | UTRANS_ENC_FLAG_BOM).utf8("a").utf8("b").out,
            "\xEF\xBB\xBF"
            "ab");
  EXPECT_EQ(Writer().utf8("a\nb").out, "a\nb");
  EXPECT_EQ(Writer(UTRANS_ENC_FLAG_CRLF).utf8("a\nb\r\nc\r\r\n").out, "a\r\nb\r\nc\r\r\n");
  EXPECT_EQ(Writer(UTRANS_ENC_UTF16BE).utf8("\xF0\x90\x80\x80").out, B({0xD8, 0x00, 0xDC, 0x00}));
  EXPECT_EQ(Writer(UTRANS_ENC_UTF16LE | UTRANS_ENC_FLAG_BOM).utf8("\xC3\xA9").out,
            B({0xFF, 0xFE, 0xE9, 0x00}));
  EXPECT_EQ(Writer(UTRANS_ENC_UTF32LE | UTRANS_ENC_FLAG_BOM).utf8("\xF0\x9F\x98\x80").out,
            B({0xFF, 0xFE, 0, 0, 0x00, 0xF6, 0x01, 0}));

  Writer raw(UTRANS_ENC_UTF32BE | UTRANS_ENC_FLAG_BOM);
  utrans_write_rawbyte(&raw.ufil, 0x41);
  EXPECT_EQ(raw.out, B({0, 0, 0xFE, 0xFF, 0x41}));
  EXPECT_DEATH(Writer(UTRANS_ENC_UTF32BE).utf8("a"),
               "\\(ufil->common.encoding & 0xFF\\) == UTRANS_ENC_UTF16BE");
  Writer w;
  EXPECT_DEATH(utrans_write_codepoint(&w.ufil, 0x110000), "cp <= 0x10FFFF");
  EXPECT_DEATH(utrans_write_rawbyte(&w.ufil, 256), "by <= 0xFF");
}

TEST(UnicodeFileWriter, BadUtf8FollowsTheErrorMode) {
  struct Case {
    std::string in, ignore, mark;
  };
  const std::string R = "\xEF\xBF\xBD";
  const std::vector<Case> cases = {
      {B({0xC3, 'a'}), "a", R + "a"},
      {B({0x80, 'b'}), "b", R + "b"},
      {B({0xE2, 0x82, 0xC3, 0xA9}), "\xC3\xA9", R + "\xC3\xA9"},
      {B({0xF4, 0x90, 0x80, 0x80, 'c'}), "c", R + "c"},
      {B({0xFF}), "", R},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(Writer(0, UTRANS_ERRORMODE_IGNORE_INVALID).utf8(c.in).out, c.ignore);
    EXPECT_EQ(Writer(0, UTRANS_ERRORMODE_MARK_INVALID).utf8(c.in).out, c.mark);
  }
  // CR, then a broken sequence, then LF: the replacement sits between, so CR LF is written.
  EXPECT_EQ(Writer(UTRANS_ENC_FLAG_CRLF, 1).utf8(B({'\r', 0xC3, '\n'})).out, "\r" + R + "\r\n");
}

TEST(UnicodeFileWriter, CharactersSplitAcrossCalls) {
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  for (size_t cut1 = 0; cut1 <= text.size(); ++cut1)
    for (size_t cut2 = cut1; cut2 <= text.size(); ++cut2) {
      Writer w(UTRANS_ENC_UTF16BE);
      w.utf8(text.substr(0, cut1)).utf8(text.substr(cut1, cut2 - cut1)).utf8(text.substr(cut2));
      Reader r(w.out, UTRANS_ENC_UTF16BE);
      ASSERT_EQ(r.utf8(), text) << cut1 << "," << cut2;
    }
}

// ---------------------------------------------------------------------------
// Round trips: what the writer writes, the reader reads back with the same flags

TEST(UnicodeFileRoundTrip, EveryWritableEncodingWithAndWithoutMarksAndCrLf) {
  const std::vector<std::string> lines = {"plain ASCII",
                                          "",
                                          "caf\xC3\xA9 \xE2\x82\xAC 5",
                                          "\xF0\x9F\x98\x80\xF0\x90\x80\x80",
                                          std::string(200, 'w'),
                                          "\xE4\xB8\x80\xE4\xBA\x8C\xE4\xB8\x89",
                                          "last"};
  std::string text;
  for (const std::string &l : lines) text += l + "\n";
  std::mt19937 rng(3);
  for (uint32_t enc :
       {UTRANS_ENC_UTF8, UTRANS_ENC_UTF16LE, UTRANS_ENC_UTF16BE, UTRANS_ENC_UTF32LE}) {
    for (uint32_t flags : {0u, 0x8000u, 0x4000u, 0xC000u}) {
      Writer w(enc | flags);
      for (size_t pos = 0; pos < text.size();) {
        const size_t n = std::min<size_t>(rng() % 9, text.size() - pos);
        w.utf8(text.substr(pos, n));
        pos += n;
      }
      // A mark lets the reader find the encoding itself; without one it must be told.
      const bool marked = flags & 0x8000;
      Reader r(w.out, marked ? uint32_t{UTRANS_ENC_AUTO} : enc);
      SCOPED_TRACE(testing::Message() << "encoding " << enc << " flags " << flags);
      EXPECT_EQ(r.lines(), lines);
      EXPECT_EQ(r.ufil.common.encoding, enc | flags);

      // The reader's word carried to a new writer reproduces the file byte for byte.
      Writer again(r.ufil.common.encoding);
      again.utf8(text);
      EXPECT_EQ(again.out, w.out);
    }
  }
}

TEST(UnicodeFileRoundTrip, ThroughStdioStreams) {
  FILE *fp = tmpfile();
  ASSERT_NE(fp, nullptr);
  utrans_write_file w;
  utrans_init_write_stdio(&w, fp);
  w.common.encoding = UTRANS_ENC_UTF16BE | UTRANS_ENC_FLAG_BOM | UTRANS_ENC_FLAG_CRLF;
  utrans_write_utf8(&w, "one\ntw\xC3\xB6\n", 8);
  rewind(fp);
  utrans_read_file r;
  utrans_init_read_stdio(&r, fp);
  EXPECT_STREQ(utrans_readline_utf8(&r, nullptr), "one");
  EXPECT_STREQ(utrans_readline_utf8(&r, nullptr), "tw\xC3\xB6");
  EXPECT_EQ(utrans_readline_utf8(&r, nullptr), nullptr);
  EXPECT_EQ(r.common.encoding, w.common.encoding);
  utrans_release(&r);
  fclose(fp);
}
