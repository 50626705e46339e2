// The program seen from outside, as its parent process sees it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "testutil.h"

namespace {

const std::string kUsage = "No arguments were provided, expected '--run'\n";

long long monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

TEST(ProgramUsage, EveryWrongCommandLinePrintsUsageAndExitsZero) {
  const std::vector<std::vector<std::string>> lines = {
      {MORVEK_CHILD_PATH},
      {MORVEK_CHILD_PATH, "--run", "--run"},
      {MORVEK_CHILD_PATH, "--run", "x"},
      {MORVEK_CHILD_PATH, "--RUN"},
      {MORVEK_CHILD_PATH, "--run "},
      {MORVEK_CHILD_PATH, "-run"},
      {MORVEK_CHILD_PATH, "--ru"},
      {MORVEK_CHILD_PATH, "--runx"},
      {MORVEK_CHILD_PATH, ""},
  };
  for (const auto &argv : lines) {
    SCOPED_TRACE(argv.size() > 1 ? "arg: '" + argv[1] + "'" : "no argument");
    testutil::RunResult r = testutil::runToCompletion(argv, 5000);
    ASSERT_TRUE(WIFEXITED(r.status));
    EXPECT_EQ(WEXITSTATUS(r.status), 0);
    EXPECT_EQ(r.out, kUsage);
    EXPECT_EQ(r.err, "");
  }
}

// Reads cycles from both pipes: indices run on without gaps, each line arrives whole, and the
// standard-output line of a cycle is out before its standard-error line.
TEST(ProgramRun, WritesNumberedLinesInOrderAndDiesCleanlyOnSignal) {
  testutil::ChildProcess child = testutil::spawnWithPipes({MORVEK_CHILD_PATH, "--run"});
  for (int idx = 0; idx < 3; ++idx) {
    std::string out, err;
    ASSERT_TRUE(testutil::readLine(child.out_fd, out, 3000)) << "cycle " << idx;
    long long out_at = monotonicMs();
    ASSERT_TRUE(testutil::readLine(child.err_fd, err, 3000)) << "cycle " << idx;
    EXPECT_EQ(out, "Message from stdout,idx=" + std::to_string(idx));
    EXPECT_EQ(err, "Message from stderr,idx=" + std::to_string(idx));
    // The next stdout line cannot have started yet: its index is one more, ~500 ms later.
    EXPECT_LT(monotonicMs() - out_at, 400);
  }
  ASSERT_EQ(kill(child.pid, SIGTERM), 0);
  int status = testutil::waitWithTimeout(child.pid, 3000);
  ASSERT_NE(status, -1);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  close(child.out_fd);
  close(child.err_fd);
}

// A reader that polls the pipe between the two halves of a line must find nothing: the first
// half waits in the stream's buffer until the line is complete.
TEST(ProgramRun, HalfLinesNeverReachThePipe) {
  testutil::ChildProcess child = testutil::spawnWithPipes({MORVEK_CHILD_PATH, "--run"});
  std::string line;
  ASSERT_TRUE(testutil::readLine(child.out_fd, line, 3000));
  // Now between cycles: the pipe stays empty for a while, then a whole line arrives at once.
  char buf[128];
  ssize_t n;
  do {
    n = read(child.out_fd, buf, sizeof buf);
  } while (n < 0 && errno == EINTR);
  ASSERT_GT(n, 0);
  std::string chunk(buf, static_cast<size_t>(n));
  EXPECT_EQ(chunk, "Message from stdout,idx=1\n");
  kill(child.pid, SIGKILL);
  testutil::waitWithTimeout(child.pid, 3000);
  close(child.out_fd);
  close(child.err_fd);
}

// The short-limit build ends its worker after 2.5 s; main notices within its 1 s poll.
TEST(ProgramRun, ExitsZeroSoonAfterTheLimit) {
  long long start = monotonicMs();
  testutil::RunResult r = testutil::runToCompletion({MORVEK_CHILD_SHORT_PATH, "--run"}, 10000);
  long long elapsed = monotonicMs() - start;
  ASSERT_TRUE(WIFEXITED(r.status)) << "status " << r.status;
  EXPECT_EQ(WEXITSTATUS(r.status), 0);
  // Cycles start at 0, 500, ..., 2000 ms; the last ends at ~2500 ms, main sees it by ~3500 ms.
  EXPECT_GE(elapsed, 2500);
  EXPECT_LE(elapsed, 4800);
  EXPECT_EQ(r.out,
            "Message from stdout,idx=0\nMessage from stdout,idx=1\nMessage from stdout,idx=2\n"
            "Message from stdout,idx=3\nMessage from stdout,idx=4\n");
  EXPECT_EQ(r.err,
            "Message from stderr,idx=0\nMessage from stderr,idx=1\nMessage from stderr,idx=2\n"
            "Message from stderr,idx=3\nMessage from stderr,idx=4\n");
}

}  // namespace
