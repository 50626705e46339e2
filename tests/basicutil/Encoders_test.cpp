// Base64 decoding, URL encoding, quoting and the binary appenders.
#include <gtest/gtest.h>

#include <string>

#include "basicutil/BasicConversions.h"

namespace {

using morvek::Str;
using morvek::StrSegment;

TEST(Base64Decode, WholeAlphabet) {
  using namespace std::string_literals;
  // Every symbol once: each table entry and every bit of the regrouping shows in the result.
  const char *all = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  Str out("pre");
  ASSERT_TRUE(morvek::base64Decode(out, all, 64));
  EXPECT_EQ(out,
            "pre\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f\x41\x14\x93\x51\x55\x97\x61"
            "\x96\x9b\x71\xd7\x9f\x82\x18\xa3\x92\x59\xa7\xa2\x9a\xab\xb2\xdb\xaf\xc3\x1c\xb3"
            "\xd3\x5d\xb7\xe3\x9e\xbb\xf3\xdf\xbf"s);
}

TEST(Base64Decode, PaddingWhitespaceAndGarbage) {
  struct Case {
    const char *text;
    bool ok;
    const char *decoded;  // what is appended either way
  } cases[] = {{"QQ", true, "A"},      {"QUI", true, "AB"},     {"QQ=", true, "A"},
               {"QQ===", true, "A"},   {"Q Q=", false, ""},     {"QQ==QQ==", false, "A"},
               {"Q", false, ""},       {"QUJDQ", false, "ABC"}, {"QUJD\n", false, "ABC"},
               {"QUI=x", false, "AB"}, {"QU*D", false, "A"},    {"=", false, ""}};
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
  } cases[] = {{"a+b%20c", true, "a b c"}, {"100%", true, "100%"},
               {"%FF", false, "%FF"},      {"%zz", true, "%zz"},
               {"%4", true, "%4"},         {"%c3%A9", true, "\xC3\xA9"},
               {"%%41", true, "%A"},       {"%2f%3a%3F%39", true, "/:?9"},
               {"\xff", false, "\xff"}};
  for (const Case &c : cases) {
    Str s(c.in);
    EXPECT_EQ(morvek::urlDecodeInPlace(s), c.ok) << c.in;
    EXPECT_EQ(s, c.after) << c.in;
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
