#include "basicutil/FileDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <thread>
#include <vector>

#include "testutil.h"

#ifndef __has_feature
#define __has_feature(x) 0
#endif

using namespace morvek;

namespace {

struct TempDir {
  std::string path = testutil::makeTempDir();
  ~TempDir() { std::filesystem::remove_all(path); }
  std::string write(const std::string &name, const std::string &content) {
    std::string p = path + "/" + name;
    FileDescriptor(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)
        .write(content.data(), content.size());
    return p;
  }
};

std::string pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = char((i * 31 + i / 251) & 0xFF);
  return s;
}

std::atomic<int> g_signals{0};

// SIGALRM at the calling thread every 200 microseconds, by a handler without SA_RESTART. The
// handler stays installed: a signal already on its way must not meet the default action.
struct InterruptingTimer {
  timer_t timer{};
  InterruptingTimer() {
    struct sigaction sa {};
    sa.sa_handler = [](int) { ++g_signals; };
    sigaction(SIGALRM, &sa, nullptr);
    struct sigevent sev {};
    sev.sigev_notify = SIGEV_THREAD_ID;
    sev.sigev_signo = SIGALRM;
    sev._sigev_un._tid = gettid();
    EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &sev, &timer), 0);
    struct itimerspec its = {{0, 200000}, {0, 200000}};
    EXPECT_EQ(timer_settime(timer, 0, &its, nullptr), 0);
  }
  ~InterruptingTimer() { timer_delete(timer); }
};

TEST(FileDescriptorLifecycle, CloseMoveAndErrno) {
  auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
  int a[2], b[2];
  ASSERT_EQ(pipe(a), 0);
  ASSERT_EQ(pipe(b), 0);
  FileDescriptor target(a[0]), source(b[0]);
  target = std::move(source);
  EXPECT_FALSE(isOpen(a[0]));  // the target's descriptor went first
  FileDescriptor &alias = target;
  target = std::move(alias);
  EXPECT_TRUE(target.fd() == b[0] && isOpen(b[0]));
  errno = EDOM;
  EXPECT_TRUE(target.closeQuietly());
  EXPECT_EQ(errno, EDOM);
  EXPECT_TRUE(target.close() && source.close());  // closed twice, and never valid: true
  {
    FileDescriptor w(a[1]), w2(b[1]);
    errno = EILSEQ;
  }
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_FALSE(isOpen(a[1]));
  EXPECT_DEATH(
      {
        FileDescriptor fd(dup(2));
        ::close(fd.fd());
        fd.close();
      },
      "rv \\|\\| get_errno\\(\\) != EBADF");
}

// A slow peer on the other end of a pipe while SIGALRM keeps interrupting: EINTR never shows.
TEST(FileDescriptorIo, SignalsDuringReadAndWriteDoNotShow) {
  const std::string data = pattern(1 << 20);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  FileDescriptor in(p[0]), out(p[1]);
  std::string got(data.size(), '\0');
  auto interrupted = [&](auto io, auto peer) {
    std::thread t(peer);
    int before = g_signals;
    ssize_t n;
    {
      InterruptingTimer timer;
      n = io();
    }
    t.join();
    EXPECT_GT(g_signals, before);
    EXPECT_EQ(n, ssize_t(data.size()));
    EXPECT_TRUE(got.substr(0, data.size()) == data);
  };
  interrupted([&] { return in.read(got.data(), data.size()); },
              [&] {
                for (size_t off = 0; off < data.size(); off += 4096, usleep(300))
                  EXPECT_EQ(::write(p[1], data.data() + off, 4096), 4096);
              });
  got.clear();
  interrupted(
      [&] {
        ssize_t n = out.write(data.data(), data.size());
        out.close();  // the reader's end of file
        return n;
      },
      [&] {
        char buf[4096];
        for (ssize_t r; (r = ::read(p[0], buf, sizeof buf)) > 0; usleep(100)) got.append(buf, r);
      });
}

TEST(FileDescriptorIo, ReadLargerThanOneCallTakesEverything) {
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "the thread sanitizer would shadow every byte of the 2 GiB buffer";
#endif
  TempDir dir;
  std::string path = dir.path + "/sparse";
  const size_t size = (size_t(1) << 31) + (32 << 20), cap = size + 4096;
  const std::pair<off_t, char> marks[] = {
      {0, 'A'}, {0x7FFFFFFE, 'B'}, {0x7FFFFFFF, 'C'}, {off_t(size - 1), 'D'}};
  {
    FileDescriptor fd(path.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_TRUE(fd.truncateTo(size));
    for (auto [off, c] : marks) ASSERT_EQ(pwrite(fd.fd(), &c, 1, off), 1);
  }
  void *mem = mmap(nullptr, cap, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(mem, MAP_FAILED);
  char *buf = static_cast<char *>(mem);
  EXPECT_EQ(FileDescriptor(path.c_str()).read(buf, cap), ssize_t(size));
  for (auto [off, c] : marks) EXPECT_EQ(buf[off], c) << off;
  EXPECT_EQ(buf[0x80000000], '\0');
  munmap(mem, cap);
}

TEST(FileDescriptorIo, PartialCountsAndErrors) {
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  FileDescriptor r(p[0]), w(p[1]);
  char buf[64];
  EXPECT_EQ(r.read(buf, sizeof buf), -1);  // an error before any byte: the error
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(w.write("0123456789", 10), 10);
  EXPECT_EQ(r.read(buf, sizeof buf), 10);  // bytes, then an error: the count
}

// Each writev on a sequenced-packet socket is one message, so the messages count the calls.
TEST(FileDescriptorIo, WritevGoesOutInBatchesOf1024) {
  const std::string all = pattern(2500 * 8);
  auto vectors = [&](size_t count, bool varied) {
    std::vector<struct iovec> iov;
    for (size_t i = 0, off = 0; i < count; off += iov.back().iov_len, ++i)
      iov.push_back({const_cast<char *>(all.data()) + off, varied ? 1 + i % 5 : 8});
    return iov;
  };
  for (size_t count : {1024, 2049}) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    FileDescriptor out(sv[0]), in(sv[1]);
    std::vector<struct iovec> iov = vectors(count, true);
    std::vector<size_t> expected(count / 1024 + (count % 1024 != 0), 0), sizes;
    size_t total = 0;
    for (size_t i = 0; i < count; ++i) expected[i / 1024] += iov[i].iov_len;
    for (size_t e : expected) total += e;
    EXPECT_EQ(out.writev(iov.data(), iov.size()), ssize_t(total));
    out.close();
    std::string got, buf(65536, '\0');
    for (ssize_t n; (n = recv(in.fd(), buf.data(), buf.size(), 0)) > 0; got.append(buf, 0, n))
      sizes.push_back(n);
    EXPECT_EQ(sizes, expected);
    EXPECT_TRUE(got == all.substr(0, total));
  }
  // A short batch ends the call with what went out; nothing at all is the error.
  int p[2];
  ASSERT_EQ(pipe2(p, O_NONBLOCK), 0);
  ASSERT_EQ(fcntl(p[1], F_SETPIPE_SZ, 4096), 4096);
  FileDescriptor r(p[0]), w(p[1]);
  std::vector<struct iovec> iov = vectors(2500, false);
  EXPECT_EQ(w.writev(iov.data(), iov.size()), 4096);
  EXPECT_EQ(w.writev(iov.data(), iov.size()), -1);
  EXPECT_EQ(errno, EAGAIN);
  std::string got(8192, '\0');
  EXPECT_EQ(r.read(got.data(), got.size()), 4096);
  EXPECT_TRUE(got.substr(0, 4096) == all.substr(0, 4096));
}

TEST(FileDescriptorIo, CopiesAndQueries) {
  TempDir dir;
  const std::string data = pattern(3 * 8192 + 5);
  std::string src_path = dir.write("src", data);
  FileDescriptor src(src_path.c_str());
  errno = 0;
  EXPECT_FALSE(src.copyTo(FileDescriptor("/dev/full", O_WRONLY).fd()));
  EXPECT_EQ(errno, ENOSPC);
  ASSERT_EQ(chmod(src_path.c_str(), 0640), 0);  // kept through the umask
  ASSERT_TRUE(src.seek(0));
  mode_t old_mask = umask(022);
  EXPECT_TRUE(src.copyToPath((dir.path + "/dst").c_str()));
  umask(old_mask);
  struct stat st;
  ASSERT_EQ(stat((dir.path + "/dst").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  Str copied("prefix");  // appended to
  EXPECT_TRUE(FileDescriptor((dir.path + "/dst").c_str()).readAll(copied));
  EXPECT_TRUE(copied == "prefix" + data);

  FileDescriptor fd(dir.write("q", "hello world").c_str(), O_RDWR);
  struct timespec times[2] = {{1000, 0}, {1234567890, 123456789}};
  ASSERT_EQ(futimens(fd.fd(), times), 0);
  Timeval mtime;
  EXPECT_TRUE(fd.modificationTime(mtime));
  EXPECT_EQ(mtime, Timeval(1234567890, 123456));
  EXPECT_EQ(fd.seekToEnd(), 11);
  EXPECT_TRUE(fd.truncateTo(5));
  uint64_t sz = 0;
  EXPECT_TRUE(fd.tell() == 5 && fd.size(sz) && sz == 5);
}

TEST(FileDescriptorText, NumbersAreDecimalAndDoublesPlain) {
  // clang-format off
  const std::pair<double, std::string> doubles[] = {
      {-0.0, "-0."}, {-2.5, "-2.5"}, {1.25e-7, "0.000000125"}, {1e21, "1000000000000000000000."},
      {5e-324, "0." + std::string(323, '0') + "5"},
      {std::nan(""), "NaN"}, {-HUGE_VAL, "-Infinity"}};
  // clang-format on
  TempDir dir;
  std::string expected;
  {
    FileDescriptor fd((dir.path + "/n").c_str(), O_WRONLY | O_CREAT, 0644);
    for (const auto &[x, text] : doubles)
      fd.writeDouble(x), fd.writeString("|"), expected += text + "|";
    fd.writeSigned(INT64_MIN);
    fd.writeUnsigned(UINT64_MAX);
    EXPECT_EQ(fd.writeFormat("|%d-%s", 42, "x"), 5);
  }
  Str text;
  EXPECT_TRUE(FileDescriptor((dir.path + "/n").c_str()).readAll(text));
  EXPECT_EQ(text, expected + "-922337203685477580818446744073709551615|42-x");
}

TEST(FileDescriptorEtag, EncodesTimeInodeAndSize) {
  struct stat a = {}, b = {};
  a.st_mtim = {1, 500000};
  a.st_ino = 2;
  a.st_size = 3;
  b.st_mtim = {1700000000, 999999999};
  b.st_ino = UINT64_MAX;
  Str s("x");
  appendEtag(s, a);
  appendEtag(s, b);
  EXPECT_EQ(s,
            "xs-AQAAAAAAAAD0AQAAAAAAAAIAAAAAAAAAAwAAAAAAAAA"
            "s-APFTZQAAAAA/Qg8AAAAAAP//////////AAAAAAAAAAA");
}

TEST(MappedFileTest, MapsWholeFilesAndRefusesEmptyOnes) {
  TempDir dir;
  const std::string data = pattern(10000);
  FileDescriptor fd(dir.write("m", data).c_str()), empty(dir.write("e", "").c_str());
  MappedFile map(fd.fd());
  ASSERT_TRUE(map.valid());
  EXPECT_TRUE(map.segment().view() == data);
  EXPECT_FALSE(map.mapFile(empty.fd()));
  EXPECT_FALSE(map.valid());
}

}  // namespace
