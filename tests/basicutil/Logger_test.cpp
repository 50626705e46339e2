// The logger after initialisation, on a process with its MainThread: errno, levels, the per-thread
// scratch under nesting, streams, escaping and the fatal path of a thread primitive.
#include "basicutil/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <stdexcept>

#include "basicutil/Thread.h"
#include "testutil.h"

#ifndef __has_feature
#define __has_feature(x) 0
#endif

using namespace morvek;
using testing::ElementsAre;

namespace {

struct Recorder : LogObserver {
  std::vector<std::string> lines;
  void observeLogLine(const Str &line) override { lines.push_back(line); }
};

// Runs its function on every line it sees.
struct Hook : LogObserver {
  std::function<void(const Str &)> f;
  explicit Hook(std::function<void(const Str &)> fn) : f(std::move(fn)) {}
  void observeLogLine(const Str &line) override { f(line); }
};

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override { Logger::initialize(); }
};

// An appender that fails the way a broken file would: errno changed, then an exception.
struct FailingAppender : LogAppender {
  void append(const LogEvent &, LoggerEscaped &, const std::vector<LogObserver *> *,
              bool) override {
    errno = EIO;
    throw std::runtime_error("disk on fire");
  }
};

TEST_F(LoggerTest, ErrnoSurvivesEveryOutcomeAndPercentMShowsTheCallers) {
  static Logger ok("LoggerErrnoOk"), off("LoggerErrnoOff"), broken("LoggerErrnoBroken");
  static FailingAppender failing;
  Logger::setLevel("LoggerErrnoOff", "ERROR");
  Logger::addAppender("LoggerErrnoBroken", &failing);
  Recorder rec;
  ScopedLogObserverRegistration reg(&ok, &rec);

  struct Case {
    Logger *logger;
    const char *expect_on_stderr;
  } cases[] = {
      {&ok, "open: No such file or directory\n"},
      {&off, ""},
      {&broken, "WARN - open: No such file or directory\n"},
  };
  for (const Case &c : cases) {
    testutil::StderrCapture cap;
    errno = ENOENT;
    c.logger->warn("open: %m");
    int after = errno;
    EXPECT_EQ(cap.finish(), c.expect_on_stderr) << c.logger->getName();
    EXPECT_EQ(after, ENOENT) << c.logger->getName();
  }
  EXPECT_THAT(rec.lines, ElementsAre("open: No such file or directory\n"));

  // A closed descriptor 2: the write fails with EBADF, and the caller must not see it.
  int saved = dup(2);
  close(2);
  errno = ERANGE;
  ok.error("nobody hears this: %m");
  int after = errno;
  dup2(saved, 2);
  close(saved);
  EXPECT_EQ(after, ERANGE);
}

TEST_F(LoggerTest, LevelsPerChannelAndForTheUnconfigured) {
  static Logger probe("LoggerLevelProbe"), other("LoggerLevelOther");
  Recorder rec;
  ScopedLogObserverRegistration r1(&probe, &rec), r2(&other, &rec);
  Str previous;
  EXPECT_TRUE(Logger::setLevel("LoggerLevelProbe", "WARN", &previous) && previous == "INFO");
  EXPECT_FALSE(Logger::setLevel("LoggerLevelProbe", "warn") || Logger::setLevel(nullptr, "LOUD"));

  testutil::StderrCapture cap;
  probe.info("p-info");
  probe.warn("p-warn");
  other.info("o-info");
  other.debug("o-debug");
  // Unnamed: only channels never set explicitly follow.
  EXPECT_TRUE(Logger::setLevel(nullptr, "DEBUG"));
  probe.info("p-info-2");
  other.debug("o-debug-2");
  EXPECT_TRUE(Logger::setLevel(nullptr, "INFO"));
  cap.finish();
  EXPECT_THAT(rec.lines, ElementsAre("p-warn\n", "o-info\n", "o-debug-2\n"));
  EXPECT_TRUE(probe.isEnabledFor(LOG_WARN) && !other.isDebugEnabled());

  // The coarse scale of a channel's level, and 0 for a channel that does not exist.
  std::string coarse;
  for (const char *level :
       {"DEBUG", "INFO", "NOTICE", "WARN", "ERROR", "CRIT", "ALERT", "FATAL", "EMERG"}) {
    Logger::setLevel("LoggerCoarse", level);
    coarse += std::to_string(Logger::getCoarseLevel("LoggerCoarse"));
  }
  EXPECT_EQ(coarse, "122344454");
  EXPECT_EQ(Logger::getCoarseLevel("LoggerNoSuchChannel"), 0);
  EXPECT_STREQ(logLevelName(-1), "???");

  struct Lister : Logger::iterate_channels_callback {
    std::vector<std::string> seen;
    void visit(const Str &name, const char *level, bool) override {
      if (name.rfind("LoggerLevel", 0) == 0) seen.push_back(name + "=" + level);
    }
  } lister;
  Logger::iterate_channels(lister);
  EXPECT_THAT(lister.seen, ElementsAre("LoggerLevelOther=INFO", "LoggerLevelProbe=WARN"));
}

struct Decorate : LogFormatCallback {
  Logger *side;
  explicit Decorate(Logger *s) : side(s) {}
  void prepend(Str &m) override {
    side->warn("from prepend %d", 1);
    m.append("[pre]");
  }
  void append(Str &m) override {
    side->warn("from append %d", 2);
    m.append("[post]");
  }
};

void logWithCallback(Logger &l, LogFormatCallback *cb, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  l.vwarn(cb, fmt, ap);
  va_end(ap);
}

TEST_F(LoggerTest, NestedMessagesOnTheSameThreadTakeTheLocalPath) {
  static Logger outer("LoggerNestOuter"), inner("LoggerNestInner");
  Recorder outer_rec, inner_rec;
  // Logs to another channel from inside delivery; the outer message must come out intact
  // although the thread's scratch was in use.
  Hook relay([&](const Str &line) { inner.warn("saw: %.5s", line.c_str()); });
  // Logs to the channel being delivered on: must neither deadlock nor be lost.
  Hook loop([&](const Str &) { inner.warn("loop"); });
  ScopedLogObserverRegistration a(&outer, &outer_rec), b(&outer, &relay), c(&inner, &inner_rec),
      d(&inner, &loop);

  testutil::StderrCapture cap;
  outer.warn("outer message %s", "with a tail long enough to need the heap in the scratch");
  Decorate deco(&inner);
  logWithCallback(outer, &deco, "body %d", 42);
  std::string err = cap.finish();

  EXPECT_THAT(outer_rec.lines,
              ElementsAre("outer message with a tail long enough to need the heap in the scratch\n",
                          "[pre]body 42[post]\n"));
  EXPECT_THAT(inner_rec.lines,
              ElementsAre("saw: outer\n", "from prepend 1\n", "from append 2\n", "saw: [pre]\n"));
  size_t loops = 0;
  for (size_t at = 0; (at = err.find("WARN - loop\n", at)) != std::string::npos; ++at) ++loops;
  EXPECT_EQ(loops, 4u) << err;
  EXPECT_EQ(Thread::perThreadScratch()->_log_buffer.inst_and_flag, 0u);
}

TEST_F(LoggerTest, StreamsUseTheScratchOrTheHeap) {
  static Logger s("LoggerStream");
  Recorder rec;
  ScopedLogObserverRegistration reg(&s, &rec);
  testutil::StderrCapture cap;

  LoggerStreamAccumulator *none = s.debug_stream();
  EXPECT_EQ(none, nullptr);
  LogStream(none) << "ignored" << 1;  // a null accumulator takes nothing
  s.debug_end(none);

  // While the scratch is held, a second stream lives on the heap, and a printf message is still
  // logged whole.
  LoggerStreamAccumulator *first = s.info_stream(), *second = s.warn_stream();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->inst_and_flag & LoggerStreamAccumulator::DYNAMIC_FLAG, 0u);
  EXPECT_NE(second->inst_and_flag & LoggerStreamAccumulator::DYNAMIC_FLAG, 0u);
  LogStream(first) << "n=" << 42 << ", s=" << Str("str") << ", u=" << 7u;
  LogStream(second) << "second";
  s.info("plain %d", 3);
  s.warn_end(second);
  s.info_end(first);
  LoggerStreamAccumulator *empty = s.info_stream();
  s.info_end(empty);  // nothing to log
  cap.finish();
  EXPECT_THAT(rec.lines, ElementsAre("plain 3\n", "second\n", "n=42, s=str, u=7\n"));
}

TEST_F(LoggerTest, DebugSplitLinesAndEscaping) {
  static Logger d("LoggerSplit");
  static LoggerSimple simple("LoggerSimpleProbe");
  Logger::setLevel("LoggerSplit", "DEBUG");
  Recorder rec, simple_rec;
  ScopedLogObserverRegistration r1(&d, &rec), r2(&simple, &simple_rec);
  testutil::StderrCapture cap;
  const char data[] = "one\r\ntwo\n\n\rthree";
  d.debugSplitLines(data, sizeof data - 1);
  d.info("a\nb\tc%cd", 1);
  simple.info("raw\nline");
  std::string err = cap.finish();
  EXPECT_THAT(rec.lines, ElementsAre("one\n", "two\n", "three\n", "a\\nb\tc\\x01d\n"));
  EXPECT_THAT(simple_rec.lines, ElementsAre("raw\nline\n"));
  EXPECT_EQ(err, "one\ntwo\nthree\na\\nb\tc\\x01d\nraw\nline\n");

  const struct {
    const char *in;
    size_t len;
    bool escape_all;
    const char *out;
  } escapes[] = {
      {"nul\0byte", 8, true, "nul\\x00byte"},
      {"bell\a", 5, false, "bell\a"},
      {"utf8 \xc3\xa9", 7, true, "utf8 \xc3\xa9"},
  };
  for (const auto &e : escapes) {
    LoggerEscaped esc(StrSegment(e.in, e.len), true);
    std::string first(esc._escape(e.escape_all).view());
    EXPECT_EQ(first, e.out) << e.in;
    // Once escaped, the first appender's choice holds for the others.
    if (first != std::string(e.in, e.len)) {
      EXPECT_EQ(std::string(esc._escape(!e.escape_all).view()), e.out) << e.in;
    }
  }
  LoggerEscaped bypass(StrSegment("x\ny"), false);
  EXPECT_EQ(std::string(bypass._escape(true).view()), "x\ny");
}

TEST_F(LoggerTest, FatalPathOfABrokenPrimitiveWritesTwiceAndAborts) {
  const char *line =
      "Fatal thread error: pthread_mutex_destroy: Device or resource busy; 1 threads active, in "
      "MainThread\n";
  // Once straight to descriptor 2, once through the "Thread" channel on the root appender.
  // ThreadSanitizer reports the destroy of a locked mutex before we do.
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
  std::string expected = std::string("\n") + line + line + "$";
#else
  std::string expected = std::string("^") + line + line + "$";
#endif
  EXPECT_EXIT(
      {
        PthreadMutex m;
        m.lock();
        m.~PthreadMutex();
      },
      testing::KilledBySignal(SIGABRT), expected);
}

}  // namespace
