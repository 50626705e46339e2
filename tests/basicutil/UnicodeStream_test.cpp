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

class UnicodeStream : public testing::Test {
 protected:
  std::string dir = testutil::makeTempDir();
  int files = 0;
  ~UnicodeStream() override { std::filesystem::remove_all(dir); }
  std::string fresh() { return dir + "/" + std::to_string(files++); }

  static std::string bytes(const std::string &path) {
    Str s;
    FileDescriptor(path.c_str()).readAll(s);
    return s;
  }
  static void writeLines(const std::string &path, uint32_t encoding, const Lines &lines) {
    WritableUnicodeFileStar out(path.c_str(), "w", encoding);
    for (const auto &l : lines) out.printf("%s\n", l.c_str());
  }
  // Reads the file back; `found` gets the encoding word in force.
  static Lines readLines(const std::string &path, uint32_t *found = nullptr) {
    ReadableUnicodeFileStar in(path.c_str());
    Lines out;
    Str line("stale");
    while (in.getLine(line)) out.push_back(line);
    EXPECT_TRUE(line.empty());
    if (found) *found = in.encoding();
    return out;
  }
};

// The encodings are the records' business; here a surrogate pair and a CR LF straddle the
// 512-byte refills of the writer and the reader (in separate refills for CR and LF), and the word
// given to the writer comes back.
TEST_F(UnicodeStream, RoundTripsStraddlingTheBufferBoundary) {
  const uint32_t enc = UTRANS_ENC_UTF16LE | UTRANS_ENC_FLAG_BOM | UTRANS_ENC_FLAG_CRLF;
  const Lines text = {std::string(254, 'x') + "\xF0\x9F\x98\x80", std::string(252, 'y'), "z"};
  const std::string path = fresh();
  writeLines(path, enc, text);
  uint32_t found = 0;
  EXPECT_EQ(readLines(path, &found), text);
  EXPECT_EQ(found, enc);
}

TEST_F(UnicodeStream, WholeFilesAroundOneBuffer) {
  const std::string a511(511, 'a');
  const std::vector<std::pair<std::string, Lines>> cases = {
      // clang-format off
      {a511 + "\n", {a511}}, {a511 + "a", {a511 + "a"}},
      {a511 + "\r\nb", {a511, "b"}},  // CR and LF in different refills
      {std::string("\0\0\xFE\xFF\0\0\0a\0\0\0\n", 12), {"a"}},
      // clang-format on
  };
  for (const auto &[in, lines] : cases) {
    const std::string path = fresh();
    FileStar(path.c_str(), "w").write(in.data(), in.size());
    EXPECT_EQ(readLines(path), lines);
  }
  EXPECT_EQ(readLines(dir), Lines{});  // a read error is the end
}

// Only full buffers reach the (unbuffered) file; the rest waits for flush or destruction.
TEST_F(UnicodeStream, WritesReachTheFileIn512ByteBlocks) {
  for (size_t n : {511, 512, 1100}) {
    const std::string path = fresh();
    FileStar fs(path.c_str(), "w");
    ASSERT_EQ(setvbuf(fs.get(), nullptr, _IONBF, 0), 0);
    {
      WritableUnicodeFileStar out(std::move(fs));
      out.write(std::string(n, 'z').c_str());
      EXPECT_EQ(bytes(path).size(), n / 512 * 512) << n;
      EXPECT_TRUE(out.flush());
      EXPECT_EQ(bytes(path).size(), n);
      out.write("!");
    }
    EXPECT_EQ(bytes(path).size(), n + 1);
  }
  WritableUnicodeFileStar nowhere, full("/dev/full", "w");
  nowhere.write("dropped");
  EXPECT_FALSE(nowhere.flush());
  full.write(std::string(2000, 'q').c_str());  // failing blocks are dropped without a word
  EXPECT_FALSE(full.flush());

  struct StringSink : WritableUnicodeStream {
    std::string bytes;
    void write_byte(int b) override { bytes.push_back(static_cast<char>(b)); }
  } sink;
  sink.setEncoding(UTRANS_ENC_UTF16BE | UTRANS_ENC_FLAG_CRLF);
  sink.printf("%s=%d\r\n", "\xC3\xA9", 42);  // an explicit CR is not doubled
  EXPECT_EQ(sink.bytes, std::string("\0\xE9\0=\0\x34\0\x32\0\r\0\n", 12));
}

}  // namespace
