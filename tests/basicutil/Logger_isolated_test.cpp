// The logger before initialisation, in a process of its own: a global handle used before its own
// constructor, loggers that exist before initialize and must work after it, and the internal
// and emergency paths. The cases run in order and share the process-wide state.
#include <gtest/gtest.h>

#include "basicutil/Logger.h"
#include "testutil.h"

using namespace morvek;

namespace isolated_logger_test {

std::string early_output;
int early_errno = 0;
extern Logger late_logger;  // defined below, so constructed after EarlyUser ran

struct EarlyUser {
  MORVEK_LOGGER_EARLY EarlyUser() {
    testutil::StderrCapture cap;
    errno = EACCES;
    // DEBUG as well: before the constructor there is no channel and no level test.
    late_logger.debug("early %d: %m", 7);
    early_errno = errno;
    LoggerStreamAccumulator *s = late_logger.info_stream();
    LogStream(s) << "streamed " << 8;
    late_logger.info_end(s);
    late_logger.warn(StrSegment("segment"));
    early_output = cap.finish();
  }
};
EarlyUser early_user;
Logger late_logger("LateLogger");
Logger early_logger("EarlyChannel");

TEST(LoggerBeforeInit, HandleUsedBeforeItsConstructorWritesEmergencyLines) {
  EXPECT_EQ(early_output,
            "DEBUG - early 7: Permission denied\nINFO - streamed 8\nWARN - segment\n");
  EXPECT_TRUE(early_errno == EACCES && late_logger.isConstructed());
}

TEST(LoggerBeforeInit, RootChannelDecidesUntilInitializeThenEachHandleHasItsOwn) {
  ASSERT_FALSE(Logger::isInitialized());
  EXPECT_EQ(early_logger.getChannel(), Logger::rootChannel());
  // A named level waits for initialize; meanwhile the root channel's INFO holds.
  EXPECT_TRUE(Logger::setLevel("EarlyChannel", "DEBUG"));
  EXPECT_EQ(Logger::getCoarseLevel("EarlyChannel"), 0);
  testutil::StderrCapture cap;
  early_logger.debug("hidden");
  early_logger.info("shown %s", "before");
  EXPECT_EQ(cap.finish(), "shown before\n");
  struct Recorder : LogObserver {
    std::vector<std::string> lines;
    void observeLogLine(const Str &line) override { lines.push_back(line); }
  } rec;
  EXPECT_DEATH(Logger::registerLogObserver(&early_logger, &rec), "lc");

  // Nothing is called on the handles: initialize alone gives them their channels.
  Logger::initialize();
  ASSERT_TRUE(Logger::isInitialized());
  EXPECT_TRUE(early_logger.getChannel() != Logger::rootChannel() &&
              late_logger.getChannel() != Logger::rootChannel());
  EXPECT_TRUE(early_logger.isDebugEnabled() && !late_logger.isDebugEnabled());
  EXPECT_EQ(Logger::getCoarseLevel("EarlyChannel"), 1);

  // Same name, same channel; made after initialize, it has it at once.
  static Logger twin("EarlyChannel");
  EXPECT_EQ(twin.getChannel(), early_logger.getChannel());
  {
    Logger temporary("Temporary");  // leaves the lists again when it goes
  }
  // A second initialize refreshes every handle and loses none.
  Logger::initialize();
  EXPECT_TRUE(twin.getChannel() == early_logger.getChannel() && early_logger.isDebugEnabled());

  ScopedLogObserverRegistration reg(&early_logger, &rec);
  {
    // Moving the scope keeps exactly one registration.
    ScopedLogObserverRegistration moved(std::move(reg));
    testutil::StderrCapture cap;
    early_logger.debug("now %s", "visible");
    EXPECT_EQ(cap.finish(), "now visible\n");
  }
  testutil::StderrCapture quiet;
  early_logger.info("after the scope");
  quiet.finish();
  EXPECT_EQ(rec.lines, std::vector<std::string>{"now visible\n"});
}

TEST(LoggerBeforeInit, InternalReportsAvoidTheFailedAppender) {
  testutil::StderrCapture cap;
  errno = EINTR;
  Logger::logInternal(nullptr, LOG_ERROR, "to the root: %m");
  Logger::logInternal(Logger::rootAppender(), LOG_ERROR, "root failed");
  Logger::logInternal(nullptr, LOG_DEBUG, "below the level");
  int after = errno;
  Logger::setQuietStderr(true);
  Logger::emergencyLog(LOG_FATAL, "quiet");
  Logger::emergencyLog(42, "quiet too");
  Logger::setQuietStderr(false);
  Logger::emergencyLog(42, "odd level");
  EXPECT_EQ(cap.finish(),
            "to the root: Interrupted system call\nERROR - root failed\n??? - odd level\n");
  EXPECT_EQ(after, EINTR);
}

}  // namespace isolated_logger_test
