#include "basicutil/FileStar.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "basicutil/FileDescriptor.h"
#include "testutil.h"

using morvek::FileStar;
using morvek::Str;
using morvek::Timeval;
using Lines = std::vector<std::string>;

namespace {

class ScratchFile {
 public:
  ScratchFile() : _dir(testutil::makeTempDir()), _path(_dir + "/f") {}
  ~ScratchFile() {
    unlink(_path.c_str());
    rmdir(_dir.c_str());
  }
  const char *path() const { return _path.c_str(); }
  void write(const std::string &content) {
    morvek::FileDescriptor fd(path(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_EQ(fd.write(content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
  std::string read() {
    morvek::FileDescriptor fd(path());
    Str s;
    fd.readAll(s);
    return s;
  }

 private:
  std::string _dir, _path;
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
  f.write(content);
  FileStar in(f.path(), "r");
  EXPECT_TRUE(in.valid());
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
      {"one empty line", "\n", {""}},
      {"only CR LF", "\r\n", {""}},
      {"empty lines", "\n\r\n\n", {"", "", ""}},
      {"no final newline", "a\nbc", {"a", "bc"}},
      {"CR LF", "one\r\ntwo\r\n", {"one", "two"}},
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

TEST(FileStarReadline, TrailingCarriageReturnAtTheEndDependsOnSeekability) {
  // A seekable stream keeps what came before the end of the file; the byte-wise reader treats
  // the end like a newline.
  EXPECT_EQ(linesFromFile("a\nb\r"), (Lines{"a", "b\r"}));
  EXPECT_EQ(linesFromPipe("a\nb\r"), (Lines{"a", "b"}));
  std::string long_cr = run(255, 0) + "\r";
  EXPECT_EQ(linesFromPipe(long_cr), (Lines{run(255, 0)}));
}

TEST(FileStarReadline, ContinuesAfterMixedReads) {
  ScratchFile f;
  f.write("head\nline two\nrest");
  FileStar in(f.path(), "r");
  char buf[5];
  ASSERT_EQ(in.read(buf, 5), 5);
  Str line;
  EXPECT_TRUE(in.readline(line));
  EXPECT_EQ(line, "line two");
  EXPECT_TRUE(in.readline(line));
  EXPECT_EQ(line, "rest");
  EXPECT_FALSE(in.readline(line));
  EXPECT_EQ(in.read(buf, 5), 0);
}

TEST(FileStarLifecycle, ClosingQuietlyKeepsErrnoEvenWhenTheFlushFails) {
  {
    FileStar out("/dev/full", "w");
    ASSERT_TRUE(out.valid());
    EXPECT_EQ(out.write("abc", 3), 3);  // buffered
    errno = EDOM;
    EXPECT_FALSE(out.closeQuietly());
    EXPECT_EQ(errno, EDOM);
    EXPECT_FALSE(out.valid());
    EXPECT_TRUE(out.close());
  }
  {
    FileStar out("/dev/full", "w");
    out.write("abc", 3);
    errno = EILSEQ;
  }
  EXPECT_EQ(errno, EILSEQ);
  {
    FileStar out("/dev/full", "w");
    out.write("abc", 3);
    errno = 0;
    EXPECT_FALSE(out.close());
    EXPECT_EQ(errno, ENOSPC);
  }
}

TEST(FileStarLifecycle, MoveClosesTheTarget) {
  ScratchFile f;
  f.write("x");
  FileStar a(f.path(), "r"), b(f.path(), "r");
  int a_fd = fileno(a.get());
  FILE *b_fp = b.get();
  a = std::move(b);
  EXPECT_EQ(fcntl(a_fd, F_GETFD), -1);
  EXPECT_EQ(a.get(), b_fp);
  EXPECT_FALSE(b.valid());
  FileStar &alias = a;
  a = std::move(alias);
  EXPECT_EQ(a.get(), b_fp);
}

TEST(FileStarLifecycleDeathTest, LosingTheDescriptorIsFatal) {
  EXPECT_DEATH(
      {
        FileStar out("/dev/null", "w");
        out.write("abc", 3);
        ::close(fileno(out.get()));
        out.close();
      },
      "ok \\|\\| get_errno\\(\\) != EBADF");
}

TEST(FileStarIo, ReadAndWriteCounts) {
  ScratchFile f;
  {
    FileStar out(f.path(), "w");
    EXPECT_EQ(out.write("hello", 5), 5);
    EXPECT_EQ(out.write("", 0), 0);
    char buf[4];
    EXPECT_EQ(out.read(buf, sizeof buf), -1);  // not open for reading
  }
  FileStar in(f.path(), "r");
  char buf[16];
  EXPECT_EQ(in.read(buf, sizeof buf), 5);
  EXPECT_EQ(in.read(buf, sizeof buf), 0);
  EXPECT_EQ(in.write("x", 1), -1);  // not open for writing
  EXPECT_FALSE(in.hasStaleError());
  Timeval mtime;
  EXPECT_TRUE(in.modificationTime(mtime));
  EXPECT_GT(mtime.seconds(), 0);
  EXPECT_FALSE(FileStar().modificationTime(mtime));
  EXPECT_FALSE(FileStar("/nonexistent/file", "r").valid());
}

TEST(FileStarIo, NumberWriters) {
  ScratchFile f;
  {
    FileStar out(f.path(), "w");
    static char buffer[64];
    out.setBuffer(buffer, sizeof buffer);
    out.writeSigned(INT32_MIN);
    out.write("|", 1);
    out.writeSigned(INT64_MIN);
    out.write("|", 1);
    out.writeUnsigned(UINT32_MAX);
    out.write("|", 1);
    out.writeUnsigned(UINT64_MAX);
    out.write("|", 1);
    out.writeHex(uint32_t{0xdeadbeef});
    out.write("|", 1);
    out.writeHex(uint64_t{0});
    out.write("|", 1);
    out.writeHex(UINT64_MAX);
    out.write("|", 1);
    out.writeDouble(0.001);
    out.write("|", 1);
    out.writeDouble(-1e22);
    out.write("|", 1);
    EXPECT_EQ(out.writeFormat("%s=%u", "n", 7u), 3);
  }
  EXPECT_EQ(f.read(),
            "-2147483648|-9223372036854775808|4294967295|18446744073709551615|deadbeef|0|"
            "ffffffffffffffff|0.001|-10000000000000000000000|n=7");
}

}  // namespace
