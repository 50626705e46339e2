#include "basicutil/FileStar.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "basicutil/FileDescriptor.h"
#include "testutil.h"

using namespace morvek;
using Lines = std::vector<std::string>;

namespace {

struct ScratchFile {
  std::string dir = testutil::makeTempDir(), path = dir + "/f";
  ~ScratchFile() { std::filesystem::remove_all(dir); }
  std::string read() {
    Str s;
    FileDescriptor(path.c_str()).readAll(s);
    return s;
  }
};

Lines readAllLines(FileStar &in) {
  Lines out;
  Str line("stale");
  while (in.readline(line)) out.push_back(line);
  EXPECT_TRUE(line.empty());
  return out;
}

Lines linesFromFile(const std::string &content) {
  ScratchFile f;
  FileStar(f.path.c_str(), "w").write(content.data(), content.size());
  FileStar in(f.path.c_str(), "r");
  return readAllLines(in);
}

// The same bytes through a pipe, written in small pieces so that lines straddle reads.
Lines linesFromPipe(const std::string &content) {
  int p[2];
  EXPECT_EQ(pipe(p), 0);
  std::thread writer([&] {
    for (size_t off = 0; off < content.size(); off += 100) {
      size_t n = std::min<size_t>(100, content.size() - off);
      EXPECT_EQ(::write(p[1], content.data() + off, n), static_cast<ssize_t>(n));
    }
    ::close(p[1]);
  });
  FileStar in(fdopen(p[0], "r"));
  Lines lines = readAllLines(in);
  writer.join();
  return lines;
}

std::string run(size_t n, char seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (seed + i) % 26);
  return s;
}

TEST(FileStarReadline, FileAndPipeGiveTheSameLines) {
  using namespace std::string_literals;
  struct Case {
    const char *name;
    std::string input;
    Lines lines;
  };
  std::vector<Case> cases = {
      {"empty input", "", {}},
      {"empty lines", "\n\r\n\n", {"", "", ""}},
      {"no final newline", "a\nbc", {"a", "bc"}},
      {"CR inside a line stays", "a\rb\n\rc\n", {"a\rb", "\rc"}},
      {"only the last CR goes", "x\r\r\n", {"x\r"}},
      {"embedded NUL", "ab\0cd\n\0\nef\n"s, {"ab\0cd"s, "\0"s, "ef"}},
      {"NUL at the end of a chunk",
       run(254, 0) + "\0"s + run(100, 1) + "\n",
       {run(254, 0) + "\0"s + run(100, 1)}},
  };
  // Lengths around the 255-byte pieces the reader works in, with both line ends.
  for (size_t len : {0, 1, 254, 255, 256, 257, 510, 511, 512, 1000}) {
    std::string lf, crlf;
    Lines expected;
    for (char seed = 0; seed < 3; ++seed) {
      lf += run(len, seed) + "\n";
      crlf += run(len, seed) + "\r\n";
      expected.push_back(run(len, seed));
    }
    cases.push_back({"LF lines", lf, expected});
    cases.push_back({"CR LF lines", crlf, expected});
    if (len > 0) cases.push_back({"no final newline", lf.substr(0, lf.size() - 1), expected});
  }
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << ", " << c.input.size() << " bytes");
    EXPECT_EQ(linesFromFile(c.input), c.lines);
    EXPECT_EQ(linesFromPipe(c.input), c.lines);
  }
}

TEST(FileStarReadline, LastLineWithoutNewlineDependsOnSeekability) {
  using namespace std::string_literals;
  // A seekable stream keeps a final carriage return and drops a final NUL; one that can't tell
  // its position treats the end like a newline.
  EXPECT_EQ(linesFromFile("a\nb\r"), (Lines{"a", "b\r"}));
  EXPECT_EQ(linesFromPipe("a\nb\r"), (Lines{"a", "b"}));
  EXPECT_EQ(linesFromPipe(run(255, 0) + "\r"), (Lines{run(255, 0)}));
  EXPECT_EQ(linesFromFile("a\nb\0"s), (Lines{"a", "b"}));
  EXPECT_EQ(linesFromPipe("a\nb\0"s), (Lines{"a", "b\0"s}));
  EXPECT_EQ(linesFromFile("a\n\0"s), (Lines{"a"}));
  EXPECT_EQ(linesFromPipe("a\n\0"s), (Lines{"a", "\0"s}));
}

// Lines come through the stream itself: a seek, a pushed-back byte and the offsets after each
// line are the stream's, and after a line cut off at the end, what is appended follows it.
TEST(FileStarReadline, FollowsTheStream) {
  ScratchFile f;
  FileStar(f.path.c_str(), "w").write("one\ntwo\r\nthr", 13);
  FileStar in(f.path.c_str(), "r");
  FILE *fp = in.get();
  Str line;
  auto next = [&] { return in.readline(line) ? std::string(line) : std::string("<none>"); };
  EXPECT_EQ(next(), "one");
  EXPECT_EQ(ftello(fp), 4);
  ASSERT_EQ(fseeko(fp, 1, SEEK_SET), 0);
  EXPECT_EQ(next(), "ne");
  ASSERT_EQ(ungetc('X', fp), 'X');
  EXPECT_EQ(next(), "Xtwo");
  EXPECT_EQ(ftello(fp), 9);
  EXPECT_EQ(next(), "thr");
  EXPECT_EQ(next(), "<none>");
  FileStar(f.path.c_str(), "a").write("ee\nfour\n", 8);
  clearerr(fp);
  EXPECT_EQ(next(), "ee");
  EXPECT_EQ(next(), "four");
  EXPECT_EQ(ftello(fp), 21);
  EXPECT_EQ(next(), "<none>");
}

TEST(FileStarLifecycle, ClosingKeepsErrnoEvenWhenTheFlushFails) {
  FileStar out("/dev/full", "w");
  EXPECT_EQ(out.write("abc", 3), 3);  // buffered until the close
  errno = EDOM;
  EXPECT_FALSE(out.closeQuietly());
  EXPECT_EQ(errno, EDOM);
  EXPECT_TRUE(out.close());  // already closed
  {
    FileStar dying("/dev/full", "w");
    dying.write("abc", 3);
    errno = EILSEQ;
  }
  EXPECT_EQ(errno, EILSEQ);
  out.open("/dev/full", "w");
  out.write("abc", 3);
  EXPECT_TRUE(!out.close() && errno == ENOSPC);
  EXPECT_DEATH(
      {
        FileStar lost("/dev/null", "w");
        lost.write("abc", 3);
        ::close(fileno(lost.get()));
        lost.close();
      },
      "ok \\|\\| get_errno\\(\\) != EBADF");
}

TEST(FileStarText, NumbersAndFormats) {
  ScratchFile f;
  {
    FileStar out(f.path.c_str(), "w");
    static char buffer[64];
    out.setBuffer(buffer, sizeof buffer);
    out.writeSigned(INT32_MIN), out.writeSigned(INT64_MIN);
    out.writeUnsigned(UINT32_MAX), out.writeUnsigned(UINT64_MAX);
    out.writeHex(uint32_t{0xdeadbeef}), out.writeHex(UINT64_MAX);
    out.writeDouble(0.001), out.writeDouble(-1e22);
    EXPECT_EQ(out.writeFormat("|%s=%u", "n", 7u), 4);
  }
  EXPECT_EQ(f.read(),
            "-2147483648-922337203685477580842949672951844674407370955161"
            "5deadbeefffffffffffffffff0.001-10000000000000000000000.|n=7");
}

}  // namespace
