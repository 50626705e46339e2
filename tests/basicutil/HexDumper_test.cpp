#include "basicutil/HexDumper.h"

#include <gtest/gtest.h>

#include <string>

#include "basicutil/PrintHexBytes.h"

using morvek::Str;
using morvek::StrVector;

namespace {

struct RecordingWriter {
  crash_log_writer handle{&RecordingWriter::write};
  std::string text;
  static void write(crash_log_writer *h, const char *bytes, size_t len) {
    reinterpret_cast<RecordingWriter *>(h)->text.append(bytes, len);
  }
};

TEST(HexDumper, LinesAndTotal) {
  StrVector none;
  morvek::hexDumpToStrVector(none, "", 0);
  EXPECT_EQ(none, (StrVector{"00000000"}));

  std::string sixteen = "0123456789ABCDEF";
  StrVector one;
  morvek::hexDumpToStrVector(one, sixteen.data(), 16);
  EXPECT_EQ(one, (StrVector{"00000000  30 31 32 33 34 35 36 37  38 39 41 42 43 44 45 46  "
                            "|0123456789ABCDEF|",
                            "00000010"}));

  std::string seventeen =
      "\x01\x7f\x80 ~\t\n\xff"
      "abcdefgh"
      "Z";
  StrVector two;
  morvek::hexDumpToStrVector(two, seventeen.data(), 17);
  ASSERT_EQ(two.size(), 3u);
  EXPECT_EQ(two[0],
            "00000000  01 7f 80 20 7e 09 0a ff  61 62 63 64 65 66 67 68  |... ~...abcdefgh|");
  EXPECT_EQ(two[1], "00000010  5a" + std::string(1 + 3 * 15 + 1 + 1, ' ') + "|Z|");
  EXPECT_EQ(two[1].size(), two[0].size() - 15);
  EXPECT_EQ(two[2], "00000011");
}

TEST(HexDumper, SinksFrameLinesTheirOwnWay) {
  const char data[] = "abc";
  Str s;
  morvek::hexDumpToStr(s, data, 3);
  RecordingWriter w;
  morvek::hexDumpToCrashLog(&w.handle, data, 3);
  // Same lines: a newline after each in a Str, only between them in the crash log.
  EXPECT_EQ(s.back(), '\n');
  EXPECT_EQ(w.text + "\n", s);
  EXPECT_EQ(w.text.find("00000003"), w.text.size() - 8);
}

TEST(PrintHexBytes, AppendAndParseBack) {
  const unsigned char bytes[] = {0x00, 0xab, 0x7f, 0xF0};
  Str lower, upper;
  morvek::appendHexBytes(lower, bytes, 4);
  morvek::appendHexBytesUpper(upper, bytes, 4);
  EXPECT_EQ(lower, "00ab7ff0");
  EXPECT_EQ(upper, "00AB7FF0");
  RecordingWriter w;
  std::string many(100, '\x5a');
  morvek::crashlogWriteHexBytes(&w.handle, many.data(), many.size());
  std::string want;
  for (int i = 0; i < 100; ++i) want += "5a";
  EXPECT_EQ(w.text, want);

  unsigned char out[4] = {};
  EXPECT_TRUE(morvek::parse_from_hex("00aB7Ff0", 8, out, 4));
  EXPECT_EQ(0, memcmp(out, bytes, 4));
  unsigned char one = 0;
  EXPECT_TRUE(morvek::parse_from_hex("aB", 2, &one, 1));
  EXPECT_EQ(one, 0xAB);
  for (const char *bad : {"0g", "g0", "a", "abc", ":0", "@0", "`0", "0G", "  "})
    EXPECT_FALSE(morvek::parse_from_hex(bad, strlen(bad), &one, 1)) << bad;
  EXPECT_FALSE(morvek::parse_from_hex("abc", 3, out, 2));
  EXPECT_DEATH(morvek::parse_from_hex("", 0, out, 0), "destp_bytes > 0");
}

}  // namespace
