#include "basicutil/HexDumper.h"

#include <gtest/gtest.h>

#include <string>

#include "basicutil/PrintHexBytes.h"
#include "testutil.h"

using morvek::Str;
using morvek::StrVector;

namespace {

StrVector dump(const std::string &bytes) {
  StrVector v;
  morvek::hexDumpToStrVector(v, bytes.data(), bytes.size());
  return v;
}

TEST(HexDumper, LinesTotalAndSinks) {
  EXPECT_EQ(dump(""), (StrVector{"00000000"}));
  EXPECT_EQ(dump("0123456789ABCDEF"),
            (StrVector{"00000000  30 31 32 33 34 35 36 37  38 39 41 42 43 44 45 46  "
                       "|0123456789ABCDEF|",
                       "00000010"}));
  // A short last line keeps its text column where a full line has it.
  EXPECT_EQ(
      dump("\x01\x7f\x80 ~\t\n\xff"
           "abcdefghZ"),
      (StrVector{"00000000  01 7f 80 20 7e 09 0a ff  61 62 63 64 65 66 67 68  |... ~...abcdefgh|",
                 "00000010  5a" + std::string(48, ' ') + "|Z|", "00000011"}));

  // Same lines: a newline after each in a Str, only between them in the crash log.
  Str s;
  morvek::hexDumpToStr(s, "abc", 3);
  testutil::CollectingWriter w;
  morvek::hexDumpToCrashLog(&w.handle, "abc", 3);
  EXPECT_EQ(w.text + "\n", s);
  EXPECT_EQ(w.text.find("00000003"), w.text.size() - 8);
}

TEST(PrintHexBytes, AppendAndParseBack) {
  const unsigned char bytes[] = {0x00, 0xab, 0x7f, 0xF0};
  Str lower, upper;
  morvek::appendHexBytes(lower, bytes, 4);
  morvek::appendHexBytesUpper(upper, bytes, 4);
  EXPECT_EQ(lower + upper, "00ab7ff000AB7FF0");
  // The crash-log form goes through a small buffer: 100 bytes need several writes.
  testutil::CollectingWriter w;
  morvek::crashlogWriteHexBytes(&w.handle, std::string(100, 'Z').data(), 100);
  std::string want;
  while (want.size() < 200) want += "5a";
  EXPECT_EQ(w.text, want);

  unsigned char out[4] = {}, one = 0;
  EXPECT_TRUE(morvek::parse_from_hex("00aB7Ff0", 8, out, 4));
  EXPECT_EQ(0, memcmp(out, bytes, 4));
  for (const char *bad : {"0g", "g0", "a", "abc", ":0", "@0", "`0", "0G", "  "})
    EXPECT_FALSE(morvek::parse_from_hex(bad, strlen(bad), &one, 1)) << bad;
  EXPECT_FALSE(morvek::parse_from_hex("abc", 3, out, 2));
  EXPECT_DEATH(morvek::parse_from_hex("", 0, out, 0), "destp_bytes > 0");
}

}  // namespace
