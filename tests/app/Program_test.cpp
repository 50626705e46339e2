// The program seen from outside, as its parent process sees it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "testutil.h"

namespace {

const std::string kUsage = "No arguments were provided, expected '--run'\n";

long long monotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

TEST(ProgramUsage, EveryWrongCommandLinePrintsUsageAndExitsZero) {
  const std::vector<std::string> lines[] = {{},       {"--run", "--run"}, {"--RUN"},
                                            {"--ru"}, {"--runx"},         {""}};
  for (std::vector<std::string> argv : lines) {
    SCOPED_TRACE(argv.empty() ? "no argument" : "arg: '" + argv[0] + "'");
    argv.insert(argv.begin(), MORVEK_CHILD_PATH);
    testutil::RunResult r = testutil::runToCompletion(argv, 5000);
    EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.status;
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
  // A reader polling the pipe between the two halves of a line finds nothing: the first half
  // waits in the stream's buffer until the line is complete, and then arrives with it at once.
  char buf[128];
  ssize_t n;
  do {
    n = read(child.out_fd, buf, sizeof buf);
  } while (n < 0 && errno == EINTR);
  EXPECT_EQ(std::string(buf, static_cast<size_t>(std::max<ssize_t>(n, 0))),
            "Message from stdout,idx=3\n");
  ASSERT_EQ(kill(child.pid, SIGTERM), 0);
  int status = testutil::waitWithTimeout(child.pid, 3000);
  EXPECT_TRUE(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
  close(child.out_fd);
  close(child.err_fd);
}

// The short-limit build ends its worker after 2.5 s; main notices within its 1 s poll.
TEST(ProgramRun, ExitsZeroSoonAfterTheLimit) {
  long long start = monotonicMs();
  testutil::RunResult r = testutil::runToCompletion({MORVEK_CHILD_SHORT_PATH, "--run"}, 10000);
  long long elapsed = monotonicMs() - start;
  EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.status;
  // Cycles start at 0, 500, ..., 2000 ms; the last ends at ~2500 ms, main sees it by ~3500 ms.
  EXPECT_TRUE(elapsed >= 2500 && elapsed <= 4800) << elapsed;
  EXPECT_EQ(r.out,
            "Message from stdout,idx=0\nMessage from stdout,idx=1\nMessage from stdout,idx=2\n"
            "Message from stdout,idx=3\nMessage from stdout,idx=4\n");
  EXPECT_EQ(r.err,
            "Message from stderr,idx=0\nMessage from stderr,idx=1\nMessage from stderr,idx=2\n"
            "Message from stderr,idx=3\nMessage from stderr,idx=4\n");
}

}  // namespace
