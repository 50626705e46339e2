#include "basicutil/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "testutil.h"

using morvek::FileDescriptor;
using morvek::MappedFile;
using morvek::Str;
using morvek::Timeval;

namespace {

class TempDir {
 public:
  TempDir() : _path(testutil::makeTempDir()) {}
  ~TempDir() {
    for (const auto &f : _files) unlink(f.c_str());
    rmdir(_path.c_str());
  }
  std::string file(const std::string &name) {
    _files.push_back(_path + "/" + name);
    return _files.back();
  }
  std::string write(const std::string &name, const std::string &content) {
    std::string p = file(name);
    FileDescriptor fd(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_EQ(fd.write(content.data(), content.size()), static_cast<ssize_t>(content.size()));
    return p;
  }

 private:
  std::string _path;
  std::vector<std::string> _files;
};

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
  return s;
}

std::string slurp(int fd) {
  std::string out;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return out;
    out.append(buf, static_cast<size_t>(n));
  }
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

std::atomic<int> g_signal_count{0};
void countSignal(int) { g_signal_count.fetch_add(1, std::memory_order_relaxed); }

// Fires SIGALRM at the calling thread every 200 microseconds, with a handler that does not
// restart interrupted calls. The handler stays installed afterwards: a signal already on its way
// must not find the default action.
class InterruptingTimer {
 public:
  InterruptingTimer() {
    struct sigaction sa {};
    sa.sa_handler = countSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGALRM, &sa, nullptr);
    struct sigevent sev {};
    sev.sigev_notify = SIGEV_THREAD_ID;
    sev.sigev_signo = SIGALRM;
    sev._sigev_un._tid = gettid();
    EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &sev, &_timer), 0);
    struct itimerspec its {};
    its.it_value.tv_nsec = 200000;
    its.it_interval.tv_nsec = 200000;
    EXPECT_EQ(timer_settime(_timer, 0, &its, nullptr), 0);
  }
  ~InterruptingTimer() { timer_delete(_timer); }

 private:
  timer_t _timer{};
};

TEST(FileDescriptorLifecycle, CloseIsIdempotentAndInvalidatesTheObject) {
  FileDescriptor none;
  EXPECT_TRUE(none.close());
  EXPECT_TRUE(none.close());

  int p[2];
  ASSERT_EQ(pipe(p), 0);
  FileDescriptor r(p[0]), w(p[1]);
  EXPECT_TRUE(r.close());
  EXPECT_FALSE(r.valid());
  EXPECT_FALSE(isOpen(p[0]));
  EXPECT_TRUE(r.close());
  EXPECT_EQ(w.release(), p[1]);
  EXPECT_FALSE(w.valid());
  EXPECT_TRUE(isOpen(p[1]));
  ::close(p[1]);
}

TEST(FileDescriptorLifecycle, MoveClosesTheTargetFirstAndSelfMoveChangesNothing) {
  int a[2], b[2];
  ASSERT_EQ(pipe(a), 0);
  ASSERT_EQ(pipe(b), 0);
  FileDescriptor target(a[0]), source(b[0]);
  target = std::move(source);
  EXPECT_FALSE(isOpen(a[0]));
  EXPECT_EQ(target.fd(), b[0]);
  EXPECT_EQ(source.fd(), -1);

  FileDescriptor &alias = target;
  target = std::move(alias);
  EXPECT_EQ(target.fd(), b[0]);
  EXPECT_TRUE(isOpen(b[0]));

  FileDescriptor constructed(std::move(target));
  EXPECT_EQ(constructed.fd(), b[0]);
  EXPECT_FALSE(target.valid());
  ::close(a[1]);
  ::close(b[1]);
}

TEST(FileDescriptorLifecycle, ClosingQuietlyKeepsErrno) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  {
    FileDescriptor fd(p[0]);
    errno = EDOM;
    EXPECT_TRUE(fd.closeQuietly());
    EXPECT_EQ(errno, EDOM);
    errno = ERANGE;
    EXPECT_TRUE(fd.closeQuietly());
    EXPECT_EQ(errno, ERANGE);
  }
  {
    FileDescriptor fd(p[1]);
    errno = EILSEQ;
  }
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_FALSE(isOpen(p[1]));
}

TEST(FileDescriptorLifecycleDeathTest, LosingTrackOfADescriptorIsFatal) {
  EXPECT_DEATH(
      {
        int p[2];
        if (pipe(p) != 0) return;
        FileDescriptor fd(p[0]);
        ::close(p[0]);
        fd.close();
      },
      "rv \\|\\| get_errno\\(\\) != EBADF");
}

TEST(FileDescriptorIo, SignalsDuringReadAndWriteDoNotShow) {
  // The rig itself: a plain read on an empty pipe is interrupted.
  {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    InterruptingTimer timer;
    char c;
    EXPECT_EQ(::read(p[0], &c, 1), -1);
    EXPECT_EQ(errno, EINTR);
    ::close(p[0]);
    ::close(p[1]);
  }

  const std::string data = pattern(1 << 20);
  {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FileDescriptor in(p[0]);
    std::thread writer([&] {
      for (size_t off = 0; off < data.size(); off += 4096) {
        EXPECT_EQ(::write(p[1], data.data() + off, 4096), 4096);
        usleep(300);
      }
      ::close(p[1]);
    });
    std::string got(data.size() + 100, '\0');
    int before = g_signal_count.load();
    ssize_t n;
    {
      InterruptingTimer timer;
      n = in.read(got.data(), got.size());
    }
    writer.join();
    EXPECT_GT(g_signal_count.load(), before);
    ASSERT_EQ(n, static_cast<ssize_t>(data.size()));
    got.resize(static_cast<size_t>(n));
    EXPECT_TRUE(got == data);
  }
  {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FileDescriptor out(p[1]);
    std::string got;
    std::thread reader([&] {
      char buf[4096];
      for (;;) {
        ssize_t n = ::read(p[0], buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
        usleep(100);
      }
      ::close(p[0]);
    });
    int before = g_signal_count.load();
    ssize_t n;
    {
      InterruptingTimer timer;
      n = out.write(data.data(), data.size());
    }
    out.close();
    reader.join();
    EXPECT_GT(g_signal_count.load(), before);
    EXPECT_EQ(n, static_cast<ssize_t>(data.size()));
    EXPECT_TRUE(got == data);
  }
}

TEST(FileDescriptorIo, ReadLargerThanOneCallTakesEverything) {
  TempDir dir;
  std::string path = dir.file("sparse");
  const size_t size = (size_t(1) << 31) + (32 << 20);
  {
    FileDescriptor fd(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_TRUE(fd.truncateTo(size));
    // Markers on both sides of the first call's limit and at the very end.
    const std::pair<off_t, char> marks[] = {
        {0, 'A'}, {0x7FFFFFFE, 'B'}, {0x7FFFFFFF, 'C'}, {off_t(size - 1), 'D'}};
    for (auto [off, c] : marks) ASSERT_EQ(pwrite(fd.fd(), &c, 1, off), 1);
  }
  const size_t cap = size + 4096;
  void *mem = mmap(nullptr, cap, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(mem, MAP_FAILED);
  char *buf = static_cast<char *>(mem);
  FileDescriptor fd(path.c_str());
  ASSERT_TRUE(fd.valid());
  EXPECT_EQ(fd.read(buf, cap), static_cast<ssize_t>(size));
  EXPECT_EQ(buf[0], 'A');
  EXPECT_EQ(buf[1], '\0');
  EXPECT_EQ(buf[0x7FFFFFFE], 'B');
  EXPECT_EQ(buf[0x7FFFFFFF], 'C');
  EXPECT_EQ(buf[0x80000000], '\0');
  EXPECT_EQ(buf[size - 1], 'D');
  munmap(mem, cap);
}

TEST(FileDescriptorIo, PartialResultsAndErrors) {
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  FileDescriptor r(p[0]), w(p[1]);
  char buf[64];
  // Nothing there: the error itself.
  EXPECT_EQ(r.read(buf, sizeof buf), -1);
  EXPECT_EQ(errno, EAGAIN);
  // Some there, then the error: the count.
  ASSERT_EQ(w.write("0123456789", 10), 10);
  EXPECT_EQ(r.read(buf, sizeof buf), 10);
  EXPECT_EQ(w.write("x", 0), 0);
  // The end of the file ends the loop without an error.
  ASSERT_EQ(w.write("abc", 3), 3);
  w.close();
  EXPECT_EQ(r.read(buf, sizeof buf), 3);
  EXPECT_EQ(r.read(buf, sizeof buf), 0);
  // A closed object reports EBADF rather than touching some other descriptor.
  EXPECT_EQ(w.write("x", 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(FileDescriptorIo, ReadAllAppendsFromFilesAndPipes) {
  TempDir dir;
  const std::string data = pattern(3 * 8192 + 17);
  std::string path = dir.write("all", data);
  FileDescriptor fd(path.c_str());
  Str s("prefix");
  EXPECT_TRUE(fd.readAll(s));
  EXPECT_TRUE(s == "prefix" + data);

  int p[2];
  ASSERT_EQ(pipe(p), 0);
  std::thread writer([&] {
    FileDescriptor w(p[1]);
    w.write(data.data(), data.size());
  });
  FileDescriptor r(p[0]);
  Str t;
  EXPECT_TRUE(r.readAll(t));
  writer.join();
  EXPECT_TRUE(t == data);

  FileDescriptor bad;
  EXPECT_FALSE(bad.readAll(t));
}

// Each writev on a sequenced-packet socket is one message, so the messages count the calls.
TEST(FileDescriptorIo, WritevGoesOutInBatchesOf1024) {
  struct Case {
    size_t vectors;
    std::vector<size_t> messages;
  };
  const Case cases[] = {{1, {1}}, {1024, {1024}}, {1025, {1024, 1}}, {2500, {1024, 1024, 452}}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.vectors);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    FileDescriptor out(sv[0]), in(sv[1]);
    std::string all = pattern(c.vectors * 5);
    std::vector<struct iovec> iov;
    std::vector<size_t> expected_sizes;
    size_t off = 0, total = 0;
    for (size_t m : c.messages) {
      size_t bytes = 0;
      for (size_t i = 0; i < m; ++i) {
        size_t len = 1 + (iov.size() % 5);  // varied, so a misplaced batch shows
        iov.push_back({all.data() + off, len});
        off += len;
        bytes += len;
      }
      expected_sizes.push_back(bytes);
      total += bytes;
    }
    EXPECT_EQ(out.writev(iov.data(), iov.size()), static_cast<ssize_t>(total));
    out.close();
    std::string got;
    std::vector<size_t> sizes;
    std::vector<char> buf(1 << 16);
    for (;;) {
      ssize_t n = recv(in.fd(), buf.data(), buf.size(), 0);
      if (n <= 0) break;
      sizes.push_back(static_cast<size_t>(n));
      got.append(buf.data(), static_cast<size_t>(n));
    }
    EXPECT_EQ(sizes, expected_sizes);
    EXPECT_TRUE(got == all.substr(0, total));
  }
}

TEST(FileDescriptorIo, WritevStopsAtAShortBatch) {
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  ASSERT_GE(fcntl(p[1], F_SETPIPE_SZ, 4096), 4096);
  int capacity = fcntl(p[1], F_GETPIPE_SZ);
  FileDescriptor r(p[0]), w(p[1]);
  std::string all = pattern(2500 * 8);
  std::vector<struct iovec> iov;
  for (size_t i = 0; i < 2500; ++i) iov.push_back({all.data() + i * 8, 8});
  ssize_t n = w.writev(iov.data(), iov.size());
  EXPECT_EQ(n, capacity);
  std::string got = slurp(r.fd());
  EXPECT_TRUE(got == all.substr(0, static_cast<size_t>(capacity)));
  // Full before the first batch: the error.
  EXPECT_EQ(w.write(all.data(), capacity), capacity);
  EXPECT_EQ(w.writev(iov.data(), iov.size()), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(FileDescriptorIo, CopyToAFullDeviceIsEnospc) {
  TempDir dir;
  std::string path = dir.write("src", pattern(20000));
  FileDescriptor src(path.c_str());
  FileDescriptor full("/dev/full", O_WRONLY);
  ASSERT_TRUE(full.valid());
  errno = 0;
  EXPECT_FALSE(src.copyTo(full.fd()));
  EXPECT_EQ(errno, ENOSPC);
}

TEST(FileDescriptorIo, CopyToPathKeepsContentAndPermissionBits) {
  TempDir dir;
  const std::string data = pattern(3 * 8192 + 5);
  std::string src_path = dir.write("src", data);
  std::string dst_path = dir.file("dst");
  ASSERT_EQ(chmod(src_path.c_str(), 0640), 0);
  mode_t old_mask = umask(022);
  FileDescriptor src(src_path.c_str());
  EXPECT_TRUE(src.copyToPath(dst_path.c_str()));
  umask(old_mask);
  struct stat st;
  ASSERT_EQ(stat(dst_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  FileDescriptor dst(dst_path.c_str());
  EXPECT_TRUE(slurp(dst.fd()) == data);

  FileDescriptor none;
  EXPECT_FALSE(none.copyToPath(dst_path.c_str()));
  EXPECT_FALSE(src.copyToPath((dir.file("missing") + "/x").c_str()));
}

TEST(FileDescriptorQueries, SizeTypeTimeAndPosition) {
  TempDir dir;
  std::string path = dir.write("q", "hello world");
  FileDescriptor fd(path.c_str(), O_RDWR);
  uint64_t sz = 0;
  EXPECT_TRUE(fd.size(sz));
  EXPECT_EQ(sz, 11u);
  EXPECT_TRUE(fd.isRegularFile());
  EXPECT_FALSE(fd.isDirectory());

  struct timespec times[2] = {{1000, 0}, {1234567890, 123456789}};
  ASSERT_EQ(futimens(fd.fd(), times), 0);
  Timeval mtime;
  EXPECT_TRUE(fd.modificationTime(mtime));
  EXPECT_EQ(mtime, Timeval(1234567890, 123456));

  EXPECT_EQ(fd.seekToEnd(), 11);
  EXPECT_TRUE(fd.seek(6));
  EXPECT_EQ(fd.tell(), 6);
  EXPECT_TRUE(fd.truncateTo(5));
  EXPECT_EQ(fd.tell(), 5);
  EXPECT_TRUE(fd.size(sz));
  EXPECT_EQ(sz, 5u);
  EXPECT_TRUE(fd.setMode(0600));
  EXPECT_TRUE(fd.sync());

  FileDescriptor d(dir.file("").c_str(), O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(d.isDirectory());
  EXPECT_FALSE(d.isRegularFile());

  FileDescriptor none;
  EXPECT_FALSE(none.isRegularFile());
  EXPECT_FALSE(none.isDirectory());
  EXPECT_FALSE(none.size(sz));
  EXPECT_FALSE(none.modificationTime(mtime));
  EXPECT_EQ(none.tell(), -1);
  EXPECT_FALSE(FileDescriptor("/nonexistent/file").valid());
  FileDescriptor nb;
  EXPECT_TRUE(nb.openReadNonBlocking(path.c_str()));
  EXPECT_TRUE(fcntl(nb.fd(), F_GETFL) & O_NONBLOCK);
}

TEST(FileDescriptorText, NumbersAndFormats) {
  struct Case {
    double x;
    const char *text;
  };
  const Case doubles[] = {
      {0.0, "0"},
      {-0.0, "-0"},
      {1.0, "1"},
      {-2.5, "-2.5"},
      {0.1, "0.1"},
      {123.456, "123.456"},
      {1.5e-7, "0.00000015"},
      {1e21, "1000000000000000000000"},
      {123e10, "1230000000000"},
      {std::nan(""), "NaN"},
      {HUGE_VAL, "Infinity"},
      {-HUGE_VAL, "-Infinity"},
  };
  TempDir dir;
  std::string path = dir.file("numbers");
  {
    FileDescriptor fd(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (const Case &c : doubles) {
      fd.writeDouble(c.x);
      fd.writeString("|");
    }
    fd.writeSigned(INT64_MIN);
    fd.writeString("|");
    fd.writeSigned(-7);
    fd.writeString("|");
    fd.writeUnsigned(UINT64_MAX);
    fd.writeString("|");
    fd.writeUnsigned(0);
    fd.writeString(nullptr);
    EXPECT_EQ(fd.writeFormat("|%d-%s|", 42, "x"), 6);
  }
  std::string expected;
  for (const Case &c : doubles) expected += std::string(c.text) + "|";
  expected += "-9223372036854775808|-7|18446744073709551615|0|42-x|";
  FileDescriptor in(path.c_str());
  EXPECT_EQ(slurp(in.fd()), expected);
}

TEST(FileDescriptorText, ExtremeDoublesStayPlain) {
  TempDir dir;
  std::string path = dir.file("extreme");
  {
    FileDescriptor fd(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    fd.writeDouble(5e-324);
    fd.writeString("|");
    fd.writeDouble(-1.7976931348623157e308);
  }
  FileDescriptor in(path.c_str());
  std::string text = slurp(in.fd());
  std::string tiny = "0." + std::string(323, '0') + "5";
  std::string huge = "-17976931348623157" + std::string(292, '0');
  EXPECT_EQ(text, tiny + "|" + huge);
}

TEST(FileDescriptorEtag, EncodesTimeInodeAndSize) {
  struct Case {
    int64_t sec;
    long nsec;
    uint64_t ino;
    int64_t size;
    const char *etag;
  };
  const Case cases[] = {
      {1, 500000, 2, 3, "s-AQAAAAAAAAD0AQAAAAAAAAIAAAAAAAAAAwAAAAAAAAA"},
      {1700000000, 999999999, UINT64_MAX, 0, "s-APFTZQAAAAA/Qg8AAAAAAP//////////AAAAAAAAAAA"},
  };
  for (const Case &c : cases) {
    struct stat st {};
    st.st_mtim.tv_sec = c.sec;
    st.st_mtim.tv_nsec = c.nsec;
    st.st_ino = c.ino;
    st.st_size = c.size;
    Str s("x");
    morvek::appendEtag(s, st);
    EXPECT_EQ(s, std::string("x") + c.etag);
  }

  TempDir dir;
  std::string path = dir.write("e", "abc");
  FileDescriptor fd(path.c_str(), O_RDWR);
  Str before, after;
  EXPECT_TRUE(fd.appendEtag(before));
  ASSERT_EQ(fd.seekToEnd(), 3);
  ASSERT_EQ(fd.write("d", 1), 1);
  EXPECT_TRUE(fd.appendEtag(after));
  EXPECT_NE(before, after);
  EXPECT_FALSE(FileDescriptor().appendEtag(after));
}

TEST(MappedFileTest, MapsWholeFilesAndRefusesEmptyOnes) {
  TempDir dir;
  const std::string data = pattern(10000);
  std::string path = dir.write("m", data);
  FileDescriptor fd(path.c_str());
  MappedFile map(fd.fd());
  ASSERT_TRUE(map.valid());
  EXPECT_EQ(map.length(), data.size());
  EXPECT_TRUE(map.segment().view() == data);

  // Remapping replaces the old mapping.
  std::string empty_path = dir.write("empty", "");
  FileDescriptor empty(empty_path.c_str());
  EXPECT_FALSE(map.mapFile(empty.fd()));
  EXPECT_FALSE(map.valid());
  EXPECT_FALSE(MappedFile(-1).valid());
}

}  // namespace
