// Suppression of repeated messages, driven by a clock the test steps by hand.
#include "basicutil/LogSuppressor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "basicutil/Logger.h"
#include "testutil.h"

using namespace morvek;
using testing::ElementsAre;

namespace {

Timeval fake_now(1700000000, 0);
Timeval fakeClock() { return fake_now; }

struct Recorder : LogObserver {
  std::vector<std::string> lines;
  void observeLogLine(const Str &line) override { lines.push_back(line); }
};

// A suppressed channel with its own observer, quiet on descriptor 2.
struct Suppressed {
  Logger &log;
  Recorder rec;
  ScopedLogObserverRegistration reg;
  testutil::StderrCapture cap;
  explicit Suppressed(Logger &l) : log((Logger::initialize(), l)), reg(&l, &rec) {
    log.getSuppressor()->setClock(&fakeClock);
    fake_now = Timeval(1700000000, 0);
  }
  ~Suppressed() {
    log.flushSuppressed();
    cap.finish();
  }
};

std::string held(const char *text, int count, long long first_sec) {
  char buf[160];
  snprintf(buf, sizeof buf,
           "%s\\n\t\t\t\t%d similar messages suppressed.  First occurred at: %lld.000000\n", text,
           count, first_sec);
  return buf;
}

TEST(LogSuppressor, FirstMaxSimilarPassThenTheRestAreHeldAndReportedAfterThePeriod) {
  static Logger verbose("LogSuppressVerbose", true, LOG_SUPPRESS_VERBOSE_PERIOD_SECONDS,
                        LOG_SUPPRESS_VERBOSE_MAX_SIMILAR);
  Suppressed s(verbose);
  for (int i = 1; i <= 25; ++i) {
    fake_now = Timeval(1700000000 + i, 0);
    verbose.warn("bad date %d", i);
  }
  ASSERT_EQ(s.rec.lines.size(), 10u);
  EXPECT_EQ(s.rec.lines[9], "bad date 10\n");
  // Exactly the period after the 11th is not yet past it; one second more is.
  fake_now = Timeval(1700000011 + 300, 999999);
  verbose.info("other %d", 0);
  EXPECT_EQ(s.rec.lines.size(), 11u);
  fake_now = Timeval(1700000011 + 301, 0);
  verbose.warn("bad date %d", 26);
  // The 26th shows its own text, counts itself among the held, and the time is the 11th's.
  EXPECT_EQ(s.rec.lines.back(), held("bad date 26", 16, 1700000011));
  // The entry is gone: the next occurrence starts again from one.
  verbose.warn("bad date %d", 27);
  EXPECT_EQ(s.rec.lines.back(), "bad date 27\n");
  EXPECT_EQ(verbose.getSuppressor()->entryCount(), 2u);
}

TEST(LogSuppressor, AnotherFormatAfterThePeriodBringsOutTheStoredText) {
  static Logger l("LogSuppressOther", true, 60, 2);
  Suppressed s(l);
  for (int i = 0; i < 5; ++i) l.error("disk %s full", i == 0 ? "A" : "B");
  fake_now.addSeconds(30);
  l.info("tick");  // not yet expired: no report
  fake_now.addSeconds(31);
  l.info("tick");
  EXPECT_THAT(s.rec.lines, ElementsAre("disk A full\n", "disk B full\n", "tick\n",
                                       held("disk A full", 3, 1700000000), "tick\n"));
}

TEST(LogSuppressor, NothingExpiresWhileNothingIsHeldAndFlushReportsTheRest) {
  static Logger l("LogSuppressFlush", true, 1, 3);
  Suppressed s(l);
  l.warn("a %d", 1);
  fake_now.addSeconds(1000);
  l.warn("b %d", 1);
  for (int i = 0; i < 4; ++i) l.warn("b %d", 2);
  // The clock moving back does not make anything expire.
  fake_now.subtractSeconds(500);
  l.warn("a %d", 2);
  l.warn("a %d", 3);  // exactly at the limit: still plain at the flush
  l.flushSuppressed();
  EXPECT_EQ(l.getSuppressor()->entryCount(), 0u);
  // The flush logs the under-limit entry once more, the other with its report.
  EXPECT_THAT(s.rec.lines, ElementsAre("a 1\n", "b 1\n", "b 2\n", "b 2\n", "a 2\n", "a 3\n",
                                       "a 1\n", held("b 1", 2, 1700001000)));
}

TEST(LogSuppressor, OnlyPrintfFormsAreCountedAndErrnoSurvives) {
  static Logger l("LogSuppressForms", true, 60, 1);
  Suppressed s(l);
  for (int i = 0; i < 3; ++i) l.warn(StrSegment("segment"));
  errno = ENOENT;
  l.warn("open: %m");
  l.warn("open: %m");
  EXPECT_EQ(errno, ENOENT);
  l.debug("below the level %d", 1);  // never reaches the suppressor
  EXPECT_THAT(s.rec.lines, ElementsAre("segment\n", "segment\n", "segment\n",
                                       "open: No such file or directory\n"));
}

}  // namespace
