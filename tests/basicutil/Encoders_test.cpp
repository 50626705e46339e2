// Base64 decoding, URL encoding, quoting and the binary appenders.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "basicutil/BasicConversions.h"
#include "basicutil/UnicodeCodepoint.h"

namespace {

using morvek::Str;
using morvek::StrSegment;

// A plain encoder, so decoding is checked against an independent writer of the format.
std::string referenceBase64(const std::string &in, bool pad) {
  static const char *A = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 3 <= in.size(); i += 3) {
    uint32_t v =
        uint32_t(uint8_t(in[i])) << 16 | uint32_t(uint8_t(in[i + 1])) << 8 | uint8_t(in[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out.push_back(A[(v >> s) & 63]);
  }
  const size_t rest = in.size() - i;
  if (rest != 0) {
    uint32_t v = uint32_t(uint8_t(in[i])) << 16;
    if (rest == 2) v |= uint32_t(uint8_t(in[i + 1])) << 8;
    out.push_back(A[(v >> 18) & 63]);
    out.push_back(A[(v >> 12) & 63]);
    if (rest == 2) out.push_back(A[(v >> 6) & 63]);
    if (pad) out.append(rest == 1 ? "==" : "=");
  }
  return out;
}

TEST(Base64Decode, MatchesReferenceEncoderForEveryLength) {
  std::mt19937 rng(7);
  for (size_t len = 0; len <= 64; ++len) {
    for (int round = 0; round < 8; ++round) {
      std::string bytes;
      for (size_t k = 0; k < len; ++k) bytes.push_back(static_cast<char>(rng()));
      for (bool pad : {true, false}) {
        const std::string text = referenceBase64(bytes, pad);
        Str out("pre");
        ASSERT_TRUE(morvek::base64Decode(out, text.data(), text.size())) << text;
        ASSERT_EQ(out, "pre" + bytes) << text;
      }
    }
  }
}

TEST(Base64Decode, PaddingWhitespaceAndGarbage) {
  struct Case {
    const char *text;
    bool ok;
    const char *decoded;  // what is appended either way
  } cases[] = {{"QQ=", true, "A"},       {"QQ===", true, "A"},   {"Q Q=", false, ""},
               {"QQ==QQ==", false, "A"}, {"Q", false, ""},       {"QUJDQ", false, "ABC"},
               {"QUJD\n", false, "ABC"}, {"QUI=x", false, "AB"}, {"QU*D", false, "A"},
               {"=", false, ""}};
  for (const Case &c : cases) {
    Str out;
    EXPECT_EQ(morvek::base64Decode(out, c.text, strlen(c.text)), c.ok) << c.text;
    EXPECT_EQ(out, c.decoded) << c.text;
  }
}

TEST(UrlEncoding, SafeSetAndCapitalHex) {
  EXPECT_EQ(morvek::urlEncoded("\xC3\xA9"), "%C3%A9");
  EXPECT_EQ(morvek::urlEncoded("~-_.AZaz09"), "~-_.AZaz09");
  EXPECT_EQ(morvek::urlEncoded(StrSegment("/+%\0", 4)), "%2F%2B%25%00");
  // A long unsafe run crosses the encoder's internal batch.
  EXPECT_EQ(morvek::urlEncoded(std::string(40, '/')).size(), 120u);

  Str changed("a&b");
  morvek::urlEncodeInPlace(changed);
  EXPECT_EQ(changed, "a%26b");
}

TEST(UrlEncoding, DecodeKeepsOnlyValidUtf8) {
  struct Case {
    const char *in;
    bool ok;
    const char *after;
  } cases[] = {{"a+b%20c", true, "a b c"}, {"100%", true, "100%"}, {"%FF", false, "%FF"},
               {"%zz", true, "%zz"},       {"%4", true, "%4"},     {"%c3%A9", true, "\xC3\xA9"},
               {"%%41", true, "%A"}};
  for (const Case &c : cases) {
    Str s(c.in);
    EXPECT_EQ(morvek::urlDecodeInPlace(s), c.ok) << c.in;
    EXPECT_EQ(s, c.after) << c.in;
  }
}

TEST(UrlEncoding, RoundTripsRandomUtf8) {
  std::mt19937 rng(11);
  for (int round = 0; round < 2000; ++round) {
    Str text;
    const int n = static_cast<int>(rng() % 12);
    for (int k = 0; k < n; ++k) {
      uint32_t cp = rng() % 4 == 0 ? 0x20 + rng() % 0x5F : rng() % 0x110000;
      if (cp >= 0xD800 && cp < 0xE000) cp = 'x';
      if (cp < 0x80) {
        text.push_back(static_cast<char>(cp));
      } else {
        morvek::Utf8CodepointWriter w;
        text.append(w.data(), w._set(cp));
      }
    }
    ASSERT_TRUE(morvek::isValidUtf8(text));
    Str encoded = morvek::urlEncoded(text);
    ASSERT_EQ(encoded.find_first_of(StrSegment("+ ")), Str::npos);
    ASSERT_TRUE(morvek::urlDecodeInPlace(encoded));
    ASSERT_EQ(encoded, text);
  }
}

TEST(Quoting, SearchTermsCsvControlsAndPrintable) {
  struct Case {
    const char *in;
    const char *want;
  } search[] = {{"and", "and"},         {"IN", "\"IN\""},       {"INTO", "INTO"},
                {"a\"b", "\"a\\\"b\""}, {"a\\b", "\"a\\\\b\""}, {"", "\"\""}};
  for (const Case &c : search) EXPECT_EQ(morvek::searchQuoted(c.in), c.want) << c.in;
  EXPECT_EQ(morvek::searchQuoted("abc", morvek::BYTESET_IDENTIFIER, true), "\"abc\"");
  EXPECT_EQ(morvek::searchQuoted("a\\b\"", morvek::BYTESET_IDENTIFIER, false, true),
            "\"a\\b\\\"\"");
  EXPECT_EQ(morvek::searchQuoted("a.b", morvek::BYTESET_IDENTIFIER_WITH_DOT), "a.b");

  Case csv[] = {{"a\"b", "\"a\"\"b\""}, {"a,b", "\"a,b\""}, {"ab", "ab"}, {"\r", "\"\r\""}};
  for (const Case &c : csv) {
    Str out("|");
    morvek::csvQuoteAppend(out, c.in, strlen(c.in));
    EXPECT_EQ(out, std::string("|") + c.want) << c.in;
  }

  EXPECT_EQ(morvek::escapeControls("a\tb\r\nc\\n\x01"), "a\\tb\\r\\nc\\n\x01");

  Case printable[] = {{"\t\xC3\xA9", " \\xC3\\xA9"},
                      {"ok\nnext\r\x7F", "ok\\nnext\\r\\x7F"},
                      {"all printable ~", "all printable ~"}};
  for (const Case &c : printable) {
    Str s(c.in);
    morvek::makePrintableInPlace(s);
    EXPECT_EQ(s, c.want) << c.in;
  }
}

TEST(BinaryAppenders, BigEndianAndBase128) {
  Str out;
  morvek::appendBigEndian32(out, 0x01020304);
  morvek::appendBigEndian64(out, 0x05060708090A0B0Cull);
  EXPECT_EQ(out, "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C");

  struct Case {
    uint64_t v;
    std::string bytes;
  } cases[] = {{127, "\x7F"}, {128, "\x80\x01"}, {UINT64_MAX, std::string(9, '\xFF') + "\x01"}};
  for (const Case &c : cases) {
    Str b;
    morvek::appendBase128(b, c.v);
    EXPECT_EQ(b, c.bytes) << c.v;
  }
}

TEST(BinaryAppendersDeathTest, Base128TailRefusesSmallValues) {
  Str out;
  EXPECT_DEATH(morvek::_appendBase128(out, 127), "v >= 128");
}

}  // namespace
