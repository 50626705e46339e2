#include "basicutil/UnicodeStream.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "basicutil/FileDescriptor.h"
#include "testutil.h"

using namespace morvek;
using Lines = std::vector<std::string>;

namespace {

struct ScratchFile {
  std::string dir = testutil::makeTempDir(), path = dir + "/f";
  ~ScratchFile() { std::filesystem::remove_all(dir); }
  std::string bytes() const {
    Str s;
    FileDescriptor(path.c_str()).readAll(s);
    return s;
  }
  off_t size() const { return static_cast<off_t>(bytes().size()); }
};

Lines readLines(ReadableUnicodeStream &in) {
  Lines out;
  Str line("stale");
  while (in.getLine(line)) out.push_back(line);
  EXPECT_TRUE(line.empty());
  return out;
}

void writeLines(const std::string &path, uint32_t encoding, const Lines &lines) {
  WritableUnicodeFileStar out(path.c_str(), "w", encoding);
  for (const auto &l : lines) out.printf("%s\n", l.c_str());
}

struct StringSink : WritableUnicodeStream {
  std::string bytes;
  void write_byte(int b) override { bytes.push_back(static_cast<char>(b)); }
};

}  // namespace

// The reader reports the encoding word a file was written with, and rewriting with that word
// reproduces the file.
TEST(UnicodeStream, RoundTripsInEveryWritableEncoding) {
  const Lines text = {"plain", "", "caf\xC3\xA9 \xE2\x82\xAC", "\xF0\x9F\x98\x80 astral"};
  for (uint32_t enc : {UTRANS_ENC_UTF8, UTRANS_ENC_UTF16LE, UTRANS_ENC_UTF16BE, UTRANS_ENC_UTF32LE})
    for (uint32_t flags : {0u, 0x8000u, 0x4000u, 0xC000u}) {
      SCOPED_TRACE(testing::Message() << "encoding " << enc << " flags " << flags);
      ScratchFile f, again;
      writeLines(f.path, enc | flags, text);
      ReadableUnicodeFileStar in(f.path.c_str());
      // Without a mark only UTF-8 is recognised, so the caller names the others.
      if (!(flags & UTRANS_ENC_FLAG_BOM)) in.setEncoding(enc);
      EXPECT_EQ(readLines(in), text);
      EXPECT_EQ(in.encoding(), enc | flags);
      writeLines(again.path, in.encoding(), text);
      EXPECT_EQ(again.bytes(), f.bytes());
    }
}

TEST(UnicodeStream, ReadsWholeFilesAroundOneBuffer) {
  const std::string a511(511, 'a'), bad = "a\xE2\x28\xA1z";
  struct Case {
    std::string bytes;
    uint32_t mode;
    Lines lines;
  } cases[] = {
      {a511 + "\n", 0, {a511}},
      {a511 + "a", 0, {a511 + "a"}},
      {a511 + "\r\nb", 0, {a511, "b"}},  // CR and LF in different refills
      {std::string("\0\0\xFE\xFF\0\0\0a\0\0\0\n", 12), 0, {"a"}},
      {bad, UTRANS_ERRORMODE_IGNORE_INVALID, {"a(z"}},
      {bad, UTRANS_ERRORMODE_MARK_INVALID, {"a\xEF\xBF\xBD(\xEF\xBF\xBDz"}},
  };
  for (const auto &c : cases) {
    ScratchFile f;
    FileStar(f.path.c_str(), "w").write(c.bytes.data(), c.bytes.size());
    ReadableUnicodeFileStar in(f.path.c_str());
    in.setErrorMode(c.mode);
    EXPECT_EQ(readLines(in), c.lines);
  }
  ScratchFile f;
  ReadableUnicodeFileStar dir(f.dir.c_str());  // a read error is the end
  EXPECT_TRUE(dir.valid() && readLines(dir).empty());
}

// Characters, surrogate pairs and CR LF at every offset around the 512-byte refills of the
// writer and the reader.
TEST(UnicodeStream, TextStraddlingTheBufferBoundary) {
  for (uint32_t enc : {UTRANS_ENC_UTF8, UTRANS_ENC_UTF16LE, UTRANS_ENC_UTF32LE}) {
    size_t unit = enc == UTRANS_ENC_UTF8 ? 1 : enc == UTRANS_ENC_UTF16LE ? 2 : 4;
    for (size_t offset = 496; offset < 520; offset += unit) {
      Lines text = {std::string(offset / unit, 'x') + "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "z"};
      ScratchFile f;
      writeLines(f.path, enc | UTRANS_ENC_FLAG_BOM | UTRANS_ENC_FLAG_CRLF, text);
      ReadableUnicodeFileStar in(f.path.c_str());
      ASSERT_EQ(readLines(in), text) << enc << " " << offset;
    }
  }
}

// Only full buffers reach the (unbuffered) file; the rest waits for flush or destruction.
TEST(UnicodeStream, WritesReachTheFileIn512ByteBlocks) {
  for (size_t n : {511, 512, 1100}) {
    ScratchFile f;
    FileStar fs(f.path.c_str(), "w");
    ASSERT_EQ(setvbuf(fs.get(), nullptr, _IONBF, 0), 0);
    {
      WritableUnicodeFileStar out(std::move(fs));
      out.write(std::string(n, 'z').c_str());
      EXPECT_EQ(f.size(), static_cast<off_t>(n / 512 * 512)) << n;
      EXPECT_TRUE(out.flush());
      EXPECT_EQ(f.size(), static_cast<off_t>(n));
      out.write("!");
    }
    EXPECT_EQ(f.size(), static_cast<off_t>(n + 1));
  }
  WritableUnicodeFileStar nowhere, full("/dev/full", "w");
  nowhere.write("dropped");
  EXPECT_FALSE(nowhere.flush());
  full.write(std::string(2000, 'q').c_str());  // failing blocks are dropped without a word
  EXPECT_FALSE(full.flush());
}

TEST(UnicodeStream, FormattedTextGoesThroughTheEncoding) {
  StringSink sink;
  sink.setEncoding(UTRANS_ENC_UTF16BE | UTRANS_ENC_FLAG_CRLF);
  sink.printf("%s=%d\r\n", "\xC3\xA9", 42);  // an explicit CR is not doubled
  EXPECT_EQ(sink.bytes, std::string("\0\xE9\0=\0\x34\0\x32\0\r\0\n", 12));
}
