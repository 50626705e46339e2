// LogSuppressor: holds back repeats of one message on a Logger built with suppress set. Two
// messages are the same when their printf format strings are; the arguments don't matter. The
// first max_similar of them pass; the rest are counted, and once period_seconds have gone by
// since the first held one, one line reports how many were held back. There is no timer: the
// report rides on the next message of the same channel, whatever its format.
//
// With max_similar 10 and period_seconds 300 ("DateParserVerbose"): 25 warnings "bad date %s"
// in a minute give lines 1 to 10; the 26th, six minutes later, comes out as its own text
// followed by "\n\t\t\t\t16 similar messages suppressed.  First occurred at: " and the time
// of the 11th.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <map>

#include "basicutil/Str.h"
#include "basicutil/Thread.h"
#include "basicutil/Timeval.h"

namespace morvek {

class Logger;
class LogFormatCallback;

// The setting of the "DateParserVerbose" channel.
constexpr int LOG_SUPPRESS_VERBOSE_PERIOD_SECONDS = 300;
constexpr int LOG_SUPPRESS_VERBOSE_MAX_SIMILAR = 10;

struct LogSuppressedMessage {
  Str format;
  Str text;  // as rendered at first sight
  int level;
  uint32_t count;  // occurrences since the last report
  uint32_t max_similar;
  uint32_t period_seconds;
  Timeval first;  // first held-back occurrence; MAX_TIME when nothing is held
};

class LogSuppressor {
 public:
  using Clock = Timeval (*)();

  LogSuppressor(Logger *logger, uint32_t period_seconds, uint32_t max_similar);
  LogSuppressor(const LogSuppressor &) = delete;
  LogSuppressor &operator=(const LogSuppressor &) = delete;

  // A printf-style message whose level already passed: rendered with saved_errno for %m, then
  // passed, counted or reported. Delivery happens with this suppressor's mutex held.
  void log(int level, int saved_errno, LogFormatCallback *cb, const char *format, va_list ap)
      __attribute__((format(printf, 5, 0)));

  // Logs every entry with a count once more, with its report when it went over the limit, and
  // forgets them all.
  void flushSuppressed();

  // Where "now" comes from; tests step a clock of their own.
  void setClock(Clock clock);

  size_t entryCount();

 private:
  // True when the entry is to be removed.
  bool step(LogSuppressedMessage &entry, const Str *text, const Timeval &now);
  void report(const LogSuppressedMessage &entry, StrSegment text, uint32_t held);

  Logger *_logger;
  PthreadMutex _mutex;
  std::map<Str, LogSuppressedMessage, std::less<>> _messages;
  uint32_t _max_similar;
  uint32_t _period_seconds;
  Clock _clock;
};

}  // namespace morvek
