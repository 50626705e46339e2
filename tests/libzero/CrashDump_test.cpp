// Each case runs the crash-victim program, which installs the crash logger into a temporary
// directory and dies as told; the test reads the crash log it leaves.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "testutil.h"

namespace {

struct Crash {
  testutil::RunResult run;
  std::vector<std::string> logs;  // contents of each crash-*.log
  std::string log() const { return logs.empty() ? std::string() : logs[0]; }
};

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> crashLogsIn(const std::string &dir) {
  std::vector<std::string> logs;
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) return logs;
  while (struct dirent *e = readdir(d)) {
    std::string name = e->d_name;
    if (name.rfind("crash-", 0) == 0 && name.size() > 4 &&
        name.compare(name.size() - 4, 4, ".log") == 0) {
      logs.push_back(readFile(dir + "/" + name));
    }
  }
  closedir(d);
  return logs;
}

Crash runVictim(const std::string &mode, const std::string &dir = testutil::makeTempDir(),
                const std::string &arg = "") {
  Crash c;
  std::vector<std::string> argv = {CRASH_VICTIM_PATH, mode, dir};
  if (!arg.empty()) argv.push_back(arg);
  c.run = testutil::runToCompletion(argv, 20000);
  if (dir != "-") c.logs = crashLogsIn(dir);
  return c;
}

// Each marker appears, after the one before it.
void expectInOrder(const std::string &text, const std::vector<std::string> &markers) {
  size_t at = 0;
  for (const std::string &m : markers) {
    size_t found = text.find(m, at);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: \"" << m << "\" in\n" << text;
    at = found + m.size();
  }
}

// The blocks every report has, in their order, with the victim's notes and scopes.
const std::vector<std::string> REPORT_BLOCKS = {
    "Received fatal signal ",
    " Cause:\n",
    " Crashing thread: ",
    " Registers:\n    RIP:  [0x",
    "    FS:  [0x",
    "\n OS: Linux\n Arch: x86-64\n\n Backtrace (NOTE: symbols may be wrong -- dladdr() sees "
    "only exported symbols):\n",
    " ELF images:\n  00 [0x",
    "crash-victim\n",
    "\n Linux / ",
    "Last errno: ",
    "Threads running: ",
    "Runtime: ",
    "victim mode ",
    "\na permanent note\n",
    "\nx86 CPUID registers:\n         0: ",
    "  80000000: ",
    "terminating...\n"};

// The thread sanitizer runs signal handlers from its own frames, later, and keeps a stack
// overflow to itself.
#if defined(__SANITIZE_THREAD__)
constexpr bool THREAD_SANITIZER = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool THREAD_SANITIZER = true;
#else
constexpr bool THREAD_SANITIZER = false;
#endif
#else
constexpr bool THREAD_SANITIZER = false;
#endif

// False in sanitizer builds, whose allocator takes the place of glibc's.
bool plainAllocator() {
  return testutil::runToCompletion({CRASH_VICTIM_PATH, "can-watch-malloc", "-"}).status == 0;
}

bool diedBy(int status, int sig) { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }

std::string lineAfter(const std::string &text, const std::string &prefix) {
  size_t p = text.find(prefix);
  if (p == std::string::npos) return "";
  p += prefix.size();
  return text.substr(p, text.find('\n', p) - p);
}

TEST(CrashDump, FatalSignalsLeaveOneCompleteReport) {
  struct Case {
    const char *mode;
    int sig;
    const char *cause;
  } cases[] = {
      {"segv-null", SIGSEGV, "   No memory mapped at address [0x0000000000000000].\n"},
      {"segv-wild", SIGSEGV, "   No memory mapped at address [0x000000005A5A0000].\n"},
      {"segv-readonly", SIGSEGV, "   Memory access denied at address [0x"},
      {"stack-overflow", SIGSEGV, "   No memory mapped at address [0x"},
      {"sigbus", SIGBUS, "   Non-existent accessed physical address at address [0x"},
      {"sigill", SIGILL, "   Illegal operand for opcode at address [0x"},
      {"sigfpe", SIGFPE, "   Integer division by zero at address [0x"},
      {"abort", SIGABRT, "   Signal sent by PID "},
      {"heap-corruption", SIGABRT, "   Signal sent by PID "},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    if (strcmp(c.mode, "heap-corruption") == 0 && !plainAllocator()) continue;
    if (strcmp(c.mode, "stack-overflow") == 0 && THREAD_SANITIZER) continue;
    Crash crash = runVictim(c.mode);
    EXPECT_TRUE(diedBy(crash.run.status, c.sig)) << crash.run.status << "\n" << crash.run.err;
    ASSERT_EQ(crash.logs.size(), 1u);
    const std::string log = crash.log();
    EXPECT_EQ(log.rfind("[build ", 0), 0u);
    EXPECT_NE(log.find("Received fatal signal " + std::to_string(c.sig) + " ("), std::string::npos);
    expectInOrder(log, {" Cause:\n", c.cause});
    expectInOrder(log, REPORT_BLOCKS);
    EXPECT_EQ(lineAfter(log, " Crashing thread: "), "MainThread");
    // Scopes of the dying thread in push order; a popped scope is gone.
    expectInOrder(log, {"\nouter scope\n", "\ninner scope\n", "\nx86 CPUID"});
    EXPECT_EQ(log.find("popped scope"), std::string::npos);
    EXPECT_EQ(log.substr(log.size() - 15), "terminating...\n");
    if (c.sig != SIGABRT && !THREAD_SANITIZER) {
      // The backtrace starts at the faulting instruction, below the handler's own frames.
      EXPECT_EQ(lineAfter(log, "    RIP:  ").substr(0, 20),
                lineAfter(log, "only exported symbols):\n  ").substr(0, 20));
    }
  }
}

TEST(CrashDump, HeapCorruptionIsStillReported) {
  if (!plainAllocator()) GTEST_SKIP() << "the sanitizer's allocator reports this itself";
  Crash crash = runVictim("heap-corruption");
  EXPECT_NE(crash.run.err.find("double free"), std::string::npos) << crash.run.err;
  ASSERT_EQ(crash.logs.size(), 1u);
  EXPECT_NE(crash.log().find("terminating...\n"), std::string::npos);
}

TEST(CrashDump, UncaughtExceptionsAreReported) {
  struct Case {
    const char *mode;
    const char *stderr_text;
    const char *report;
    const char *thread;
  } cases[] = {
      {"thread-exception",
       "terminate called after throwing an instance of 'N6morvek15ThreadExceptionE'\n"
       "  what():  worker gave up\n",
       "\n  typeinfo=0x", "victimworker"},
      {"terminate", "terminate called without an active exception\n",
       " C++ exception handling was triggered while no exception active!\n", "MainThread"},
      {"throw-int",
       "terminate called after throwing an instance of 'i'\n"
       "  Exception type doesn't inherit from std::exception!\n",
       ", name=i\n  Exception did not appear to be a std::exception subclass!\n", "MainThread"},
      {"throw-bad-alloc",
       "terminate called after throwing an instance of 'St9bad_alloc'\n"
       "  Memory allocation failed\n",
       "\n  Exception indicates memory allocation failure\n", "MainThread"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    Crash crash = runVictim(c.mode);
    EXPECT_TRUE(diedBy(crash.run.status, SIGABRT)) << crash.run.status;
    EXPECT_NE(crash.run.err.find(c.stderr_text), std::string::npos) << crash.run.err;
    ASSERT_EQ(crash.logs.size(), 1u);
    const std::string log = crash.log();
    expectInOrder(log, {"\n Linux / ", c.report, "Last errno: "});
    EXPECT_EQ(lineAfter(log, " Crashing thread: "), c.thread);
  }
  Crash te = runVictim("thread-exception");
  expectInOrder(te.log(), {" C++ exception:\n  exception_addr=0x",
                           ", name=N6morvek15ThreadExceptionE", "\n  what(): worker gave up\n"});
}

TEST(CrashDump, WorkerThreadShowsItsDescriptionAndScopes) {
  Crash crash = runVictim("thread-segv");
  EXPECT_TRUE(diedBy(crash.run.status, SIGSEGV));
  const std::string log = crash.log();
  EXPECT_EQ(lineAfter(log, " Crashing thread: "), "victimworker");
  expectInOrder(
      log, {"Threads running: 2\n", "\na permanent note\n", "Thread: \"victimworker\", did_join=",
            ", main_thread=N, token=", "\nworker scope\n", "\nx86 CPUID"});
  // The main thread's scopes belong to another thread's list.
  EXPECT_EQ(log.find("outer scope"), std::string::npos);

  Crash fatal = runVictim("thread-fatal");
  EXPECT_TRUE(diedBy(fatal.run.status, SIGABRT));
  expectInOrder(fatal.log(),
                {"Dying on fatal thread error 22 from pthread_mutex_lock, thread victimworker\n",
                 "Thread: \"victimworker\""});
}

TEST(CrashDump, HandlerAllocatesNothing) {
  if (!plainAllocator()) GTEST_SKIP() << "allocator interposition is not available in this build";
  Crash check = runVictim("alloc-check");
  ASSERT_TRUE(WIFEXITED(check.run.status) && WEXITSTATUS(check.run.status) == 99);
  ASSERT_NE(check.run.err.find("ALLOCATION DURING CRASH REPORT"), std::string::npos);

  Crash crash = runVictim("no-malloc");
  EXPECT_EQ(crash.run.err.find("ALLOCATION DURING CRASH REPORT"), std::string::npos);
  EXPECT_TRUE(diedBy(crash.run.status, SIGSEGV)) << crash.run.status;
  ASSERT_EQ(crash.logs.size(), 1u);
  expectInOrder(crash.log(), REPORT_BLOCKS);
}

TEST(CrashDump, ReportAtTheDescriptorLimit) {
  Crash crash = runVictim("fd-limit");
  EXPECT_TRUE(diedBy(crash.run.status, SIGSEGV));
  ASSERT_EQ(crash.logs.size(), 1u);
  EXPECT_EQ(crash.log().rfind("(Out of file descriptors!)\n[build ", 0), 0u);
  expectInOrder(crash.log(), REPORT_BLOCKS);
}

TEST(CrashDump, ReportToStandardError) {
  Crash crash = runVictim("segv-null", "-");
  EXPECT_TRUE(diedBy(crash.run.status, SIGSEGV));
  expectInOrder(crash.run.err, REPORT_BLOCKS);
}

TEST(CrashDump, CorruptNotationListIsCutShort) {
  Crash crash = runVictim("corrupt-list");
  EXPECT_TRUE(diedBy(crash.run.status, SIGSEGV));
  const std::string log = crash.log();
  expectInOrder(log, {"\nL\nL\n",
                      "Max crashlog notation count exceeded (1024), probably linked list of "
                      "notations corrupted. breaking out.\n",
                      "outer scope\n", "terminating...\n"});
  // The count starts from the root: three real notes (one empty), then the looping entry.
  size_t loops = 0;
  for (size_t p = log.find("\nL\n"); p != std::string::npos; p = log.find("\nL\n", p + 2)) ++loops;
  EXPECT_EQ(loops, 1021u);
}

TEST(CrashDump, LoopingReportExitsWith87) {
  Crash crash = runVictim("looping");
  ASSERT_TRUE(WIFEXITED(crash.run.status)) << crash.run.status;
  EXPECT_EQ(WEXITSTATUS(crash.run.status), 87);
  const std::string log = crash.log();
  const std::string tail =
      "Crash log has overflowed the allowed limit (512kB), truncated.\n"
      "Crash log writes still attempted after 3 seconds, maybe something is looping?\n";
  ASSERT_GT(log.size(), tail.size());
  EXPECT_EQ(log.substr(log.size() - tail.size()), tail);
}

TEST(CrashDump, OverflowingReportIsTruncated) {
  Crash crash = runVictim("overflow");
  EXPECT_TRUE(diedBy(crash.run.status, SIGSEGV));
  const std::string log = crash.log();
  const std::string last = "Crash log has overflowed the allowed limit (512kB), truncated.\n";
  ASSERT_GT(log.size(), last.size());
  EXPECT_EQ(log.substr(log.size() - last.size()), last);
  EXPECT_LT(log.size(), 524288u + last.size());
  EXPECT_GT(log.size(), 524288u - 10240u);
}

// Writes `size` bytes of numbered 40-byte lines (the first line may be longer) and crashes with
// abort, or with std::terminate when terminate is set.
Crash crashWithStderrFile(const std::string &content, bool terminate = false) {
  std::string dir = testutil::makeTempDir();
  std::ofstream(dir + "/stderr.txt", std::ios::binary) << content;
  return runVictim("stderr-tail", dir, terminate ? "terminate" : "");
}

std::string numberedLines(int count) {
  std::string s;
  for (int i = 0; i < count; ++i) {
    char num[16];
    snprintf(num, sizeof num, "line %03d ", i % 1000);
    s += num + std::string(30, '.') + "\n";
  }
  return s;
}

TEST(CrashDump, StderrTail) {
  const std::string heading =
      " Last few lines of stderr (may contain info on assertion failure, but also could be "
      "old):\n";
  std::string lines = numberedLines(20);
  ASSERT_EQ(lines.size(), 800u);

  // 800 bytes: whole.
  std::string log = crashWithStderrFile(lines).log();
  std::string want = heading;
  for (int i = 0; i < 20; ++i) want += "    " + numberedLines(i + 1).substr(40 * i);
  expectInOrder(log, {"\n Linux / ", "\n" + want + "\nLast errno: "});

  // 801 bytes: the tail starts behind the first newline after the seek.
  log = crashWithStderrFile("X" + lines).log();
  std::string want801 = heading;
  for (int i = 1; i < 20; ++i) want801 += "    " + numberedLines(i + 1).substr(40 * i);
  expectInOrder(log, {"\n" + want801 + "\nLast errno: "});
  EXPECT_EQ(log.find("line 000"), std::string::npos);

  // Filtering: NUL and CR dropped, tab to blank, other bytes to "?", empty lines skipped.
  log = crashWithStderrFile(std::string("a\tb\r\n\n\x01z\0y\xff\nlast", 16)).log();
  expectInOrder(log, {heading + "    a b\n    ?zy?\n    last\n\nLast errno: "});

  // An empty file, and an exception report that takes precedence, leave the block out.
  EXPECT_EQ(crashWithStderrFile("").log().find(heading), std::string::npos);
  log = crashWithStderrFile(lines, true).log();
  EXPECT_NE(log.find(" C++ exception handling was triggered"), std::string::npos);
  EXPECT_EQ(log.find(heading), std::string::npos);
}

// Not a check: the time from the fatal signal to the process's death, for the record.
TEST(CrashDump, TimeFromSignalToDeath) {
  std::vector<double> ms;
  for (int i = 0; i < 5; ++i) {
    std::string dir = testutil::makeTempDir();
    testutil::ChildProcess child = testutil::spawnWithPipes({CRASH_VICTIM_PATH, "segv-null", dir});
    std::string line;
    ASSERT_TRUE(testutil::readLine(child.out_fd, line, 10000));
    long long dying_ns = std::stoll(line.substr(line.find(' ', 6) + 1));
    // The pipes close when the process is gone.
    char buf[4096];
    for (int fd : {child.out_fd, child.err_fd}) {
      while (read(fd, buf, sizeof buf) > 0) {
      }
    }
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    long long gone_ns = ts.tv_sec * 1000000000LL + ts.tv_nsec;
    close(child.out_fd);
    close(child.err_fd);
    EXPECT_TRUE(diedBy(testutil::waitWithTimeout(child.pid, 10000), SIGSEGV));
    ms.push_back(static_cast<double>(gone_ns - dying_ns) / 1e6);
  }
  std::sort(ms.begin(), ms.end());
  RecordProperty("median_ms", std::to_string(ms[ms.size() / 2]));
  printf("signal to death: median %.2f ms (min %.2f, max %.2f)\n", ms[ms.size() / 2], ms.front(),
         ms.back());
}

}  // namespace
