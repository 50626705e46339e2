// Each case runs the crash-victim program, which installs the crash logger into a temporary
// directory and dies as told; the test reads the crash log it leaves.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
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

Crash runVictim(const std::string &mode, const std::string &dir = testutil::makeTempDir(),
                const std::string &arg = "") {
  Crash c;
  std::vector<std::string> argv = {CRASH_VICTIM_PATH, mode, dir};
  if (!arg.empty()) argv.push_back(arg);
  c.run = testutil::runToCompletion(argv, 20000);
  if (dir == "-") return c;
  for (const auto &e : std::filesystem::directory_iterator(dir)) {
    const std::string name = e.path().filename();
    if (name.rfind("crash-", 0) == 0 && e.path().extension() == ".log") {
      std::stringstream ss;
      ss << std::ifstream(e.path(), std::ios::binary).rdbuf();
      c.logs.push_back(ss.str());
    }
  }
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
    // clang-format off
    "Received fatal signal ", " Cause:\n", " Crashing thread: ", " Registers:\n    RIP:  [0x",
    "    FS:  [0x",
    "\n OS: Linux\n Arch: x86-64\n\n Backtrace (NOTE: symbols may be wrong -- dladdr() sees "
    "only exported symbols):\n",
    " ELF images:\n  00 [0x", "crash-victim\n", "\n Linux / ", "Last errno: ", "Threads running: ",
    "Runtime: ", "victim mode ", "\na permanent note\n", "\nx86 CPUID registers:\n         0: ",
    "  80000000: ", "terminating...\n",
    // clang-format on
};

// The thread sanitizer runs signal handlers from its own frames, later, and keeps a stack
// overflow to itself.
#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
constexpr bool THREAD_SANITIZER = true;
#else
constexpr bool THREAD_SANITIZER = false;
#endif

// False in sanitizer builds, whose allocator takes the place of glibc's.
bool plainAllocator() {
  return testutil::runToCompletion({CRASH_VICTIM_PATH, "can-watch-malloc", "-"}).status == 0;
}

bool diedBy(int status, int sig) { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }

// Runs the victim and expects it killed by sig, leaving one crash log (none when told "-").
Crash crashBy(int sig, const std::string &mode, const std::string &dir = testutil::makeTempDir(),
              const std::string &arg = "") {
  Crash c = runVictim(mode, dir, arg);
  EXPECT_TRUE(diedBy(c.run.status, sig)) << mode << ": " << c.run.status << "\n" << c.run.err;
  EXPECT_EQ(c.logs.size(), dir == "-" ? 0u : 1u) << mode << "\n" << c.run.err;
  return c;
}

std::string lineAfter(const std::string &text, const std::string &prefix) {
  size_t p = text.find(prefix);
  if (p == std::string::npos) return "";
  p += prefix.size();
  return text.substr(p, text.find('\n', p) - p);
}

// A worker's overflow needs the worker's own alternate stack; a signal from outside has no
// faulting instruction to re-run, yet must end the process all the same.
TEST(CrashDump, FatalSignalsLeaveOneCompleteReport) {
  struct Case {
    const char *mode, *arg;
    int sig;
    const char *cause, *thread = "MainThread", *stderr_text = "";
  } cases[] = {
      {"segv-wild", "", SIGSEGV, "   No memory mapped at address [0x000000005A5A0000].\n"},
      {"segv-readonly", "", SIGSEGV, "   Memory access denied at address [0x"},
      {"stack-overflow", "", SIGSEGV, "   No memory mapped at address [0x"},
      {"sigbus", "", SIGBUS, "   Non-existent accessed physical address at address [0x"},
      {"sigill", "", SIGILL, "   Illegal operand for opcode at address [0x"},
      {"sigfpe", "", SIGFPE, "   Integer division by zero at address [0x"},
      {"abort", "", SIGABRT, "   Signal sent by PID "},
      {"heap-corruption", "", SIGABRT, "   Signal sent by PID ", "MainThread", "double free"},
      {"thread-stack-overflow", "", SIGSEGV, " at address [0x", "victimworker"},
      {"sent", "7", SIGBUS, "   Signal sent by PID "},
      {"sent", "q4", SIGILL, "   Signal sent by PID "},
  };
  const bool plain_allocator = plainAllocator();
  for (const Case &c : cases) {
    const std::string mode = c.mode;
    SCOPED_TRACE(mode + " " + c.arg);
    if (mode == "heap-corruption" && !plain_allocator) continue;
    if (mode.find("stack-overflow") != std::string::npos && THREAD_SANITIZER) continue;
    Crash crash = crashBy(c.sig, c.mode, testutil::makeTempDir(), c.arg);
    EXPECT_NE(crash.run.err.find(c.stderr_text), std::string::npos) << crash.run.err;
    const std::string log = crash.log();
    const std::string sig = "Received fatal signal " + std::to_string(c.sig) + " (";
    expectInOrder(log, {sig, " Cause:\n", c.cause, "\nvictim mode " + mode + "\n"});
    expectInOrder(log, REPORT_BLOCKS);
    EXPECT_EQ(lineAfter(log, " Crashing thread: "), c.thread);
    EXPECT_EQ(log.substr(log.size() - 15), "terminating...\n");
    if (mode == "sent" || mode == "thread-stack-overflow") continue;
    EXPECT_EQ(log.rfind("[build ", 0), 0u);
    // Scopes of the dying thread in push order; a popped scope is gone.
    expectInOrder(log, {"\nouter scope\n", "\ninner scope\n", "\nx86 CPUID"});
    EXPECT_EQ(log.find("popped scope"), std::string::npos);
    if (c.sig != SIGABRT && !THREAD_SANITIZER) {
      // The backtrace starts at the faulting instruction, below the handler's own frames.
      EXPECT_EQ(lineAfter(log, "    RIP:  ").substr(0, 20),
                lineAfter(log, "only exported symbols):\n  ").substr(0, 20));
    }
  }
}

TEST(CrashDump, UncaughtExceptionsAreReported) {
  struct Case {
    const char *mode;
    const char *stderr_text;
    std::vector<std::string> report;
    const char *thread;
  } cases[] = {
      {"thread-exception",
       "terminate called after throwing an instance of 'N6morvek15ThreadExceptionE'\n"
       "  what():  worker gave up\n",
       {" C++ exception:\n  exception_addr=0x", "\n  typeinfo=0x",
        ", name=N6morvek15ThreadExceptionE", "\n  what(): worker gave up\n"},
       "victimworker"},
      {"terminate",
       "terminate called without an active exception\n",
       {" C++ exception handling was triggered while no exception active!\n"},
       "MainThread"},
      {"throw-int",
       "terminate called after throwing an instance of 'i'\n"
       "  Exception type doesn't inherit from std::exception!\n",
       {", name=i\n  Exception did not appear to be a std::exception subclass!\n"},
       "MainThread"},
      {"throw-bad-alloc",
       "terminate called after throwing an instance of 'St9bad_alloc'\n"
       "  Memory allocation failed\n",
       {"\n  Exception indicates memory allocation failure\n"},
       "MainThread"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    Crash crash = crashBy(SIGABRT, c.mode);
    EXPECT_NE(crash.run.err.find(c.stderr_text), std::string::npos) << crash.run.err;
    std::vector<std::string> markers = {"\n Linux / "};
    markers.insert(markers.end(), c.report.begin(), c.report.end());
    markers.push_back("Last errno: ");
    expectInOrder(crash.log(), markers);
    EXPECT_EQ(lineAfter(crash.log(), " Crashing thread: "), c.thread);
  }
}

TEST(CrashDump, WorkerThreadShowsItsDescriptionAndScopes) {
  const std::string log = crashBy(SIGSEGV, "thread-segv").log();
  EXPECT_EQ(lineAfter(log, " Crashing thread: "), "victimworker");
  expectInOrder(
      log, {"Threads running: 2\n", "\na permanent note\n", "Thread: \"victimworker\", did_join=",
            ", main_thread=N, token=", "\nworker scope\n", "\nx86 CPUID"});
  // The main thread's scopes belong to another thread's list.
  EXPECT_EQ(log.find("outer scope"), std::string::npos);

  expectInOrder(crashBy(SIGABRT, "thread-fatal").log(),
                {"Dying on fatal thread error 22 from pthread_mutex_lock, thread victimworker\n",
                 "Thread: \"victimworker\""});
}

// Without allocation, at the descriptor limit, and to standard error: the report is whole.
TEST(CrashDump, ReportWithoutHeapDescriptorsOrFile) {
  if (plainAllocator()) {
    Crash check = runVictim("alloc-check");  // the watch itself works
    ASSERT_TRUE(WIFEXITED(check.run.status) && WEXITSTATUS(check.run.status) == 99);
    ASSERT_NE(check.run.err.find("ALLOCATION DURING CRASH REPORT"), std::string::npos);
    Crash crash = crashBy(SIGSEGV, "no-malloc");
    EXPECT_EQ(crash.run.err.find("ALLOCATION DURING CRASH REPORT"), std::string::npos);
    expectInOrder(crash.log(), REPORT_BLOCKS);
  }
  Crash crash = crashBy(SIGSEGV, "fd-limit");
  EXPECT_EQ(crash.log().rfind("(Out of file descriptors!)\n[build ", 0), 0u);
  expectInOrder(crash.log(), REPORT_BLOCKS);

  crash = crashBy(SIGSEGV, "segv-null", "-");
  expectInOrder(crash.run.err, REPORT_BLOCKS);
}

TEST(CrashDump, CorruptLoopingAndOverflowingReportsAreCut) {
  std::string log = crashBy(SIGSEGV, "corrupt-list").log();
  expectInOrder(log, {"\nL\nL\n",
                      "Max crashlog notation count exceeded (1024), probably linked list of "
                      "notations corrupted. breaking out.\n",
                      "outer scope\n", "terminating...\n"});
  // The count starts from the root: three real notes (one empty), then the looping entry.
  size_t loops = 0;
  for (size_t p = log.find("\nL\n"); p != std::string::npos; p = log.find("\nL\n", p + 2)) ++loops;
  EXPECT_EQ(loops, 1021u);

  const std::string overflowed = "Crash log has overflowed the allowed limit (512kB), truncated.\n";
  Crash crash = runVictim("looping");
  ASSERT_TRUE(WIFEXITED(crash.run.status)) << crash.run.status;
  EXPECT_EQ(WEXITSTATUS(crash.run.status), 87);
  const std::string tail =
      overflowed +
      "Crash log writes still attempted after 3 seconds, maybe something is looping?\n";
  log = crash.log();
  EXPECT_TRUE(log.ends_with(tail)) << log.substr(log.size() - std::min(log.size(), 300ul));

  log = crashBy(SIGSEGV, "overflow").log();
  EXPECT_TRUE(log.ends_with(overflowed)) << log.substr(log.size() - std::min(log.size(), 300ul));
  EXPECT_LT(log.size(), 524288u + overflowed.size());
  EXPECT_GT(log.size(), 524288u - 10240u);
}

// Crashes after standard error went to a file with the given content: by abort, or by
// std::terminate when `terminate` is set.
std::string logWithStderrFile(const std::string &content, bool terminate = false) {
  std::string dir = testutil::makeTempDir();
  std::ofstream(dir + "/stderr.txt", std::ios::binary) << content;
  return runVictim("stderr-tail", dir, terminate ? "terminate" : "").log();
}

TEST(CrashDump, StderrTail) {
  const std::string heading =
      " Last few lines of stderr (may contain info on assertion failure, but also could be "
      "old):\n";
  // 20 numbered lines of 40 bytes: 800 bytes, shown whole. With one byte more, the tail starts
  // behind the first newline after the seek.
  std::string lines, shown;
  for (int i = 0; i < 20; ++i) {
    char line[48];
    snprintf(line, sizeof line, "line %03d %s\n", i, std::string(30, '.').c_str());
    lines += line;
    shown += std::string("    ") + line;
  }
  ASSERT_EQ(lines.size(), 800u);
  expectInOrder(logWithStderrFile(lines),
                {"\n Linux / ", "\n" + heading + shown + "\nLast errno: "});
  const std::string log = logWithStderrFile("X" + lines);
  expectInOrder(log, {"\n" + heading + shown.substr(44) + "\nLast errno: "});
  EXPECT_EQ(log.find("line 000"), std::string::npos);

  // An empty file, and an exception report that takes precedence, leave the block out.
  EXPECT_EQ(logWithStderrFile("").find(heading), std::string::npos);
  const std::string with_exception = logWithStderrFile(lines, true);
  EXPECT_NE(with_exception.find(" C++ exception handling was triggered"), std::string::npos);
  EXPECT_EQ(with_exception.find(heading), std::string::npos);
}

}  // namespace
