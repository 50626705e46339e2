// LogFormat: a conversion pattern of the log4cpp kind, compiled once and then used by any number
// of threads to turn one message into one record. A layout is shared by every appender that
// names it; rendering happens before the appender takes its lock.
//
// Conversions: %m message, %n newline, %c logger name, %p level name, %t thread name, %T thread
// id, %r milliseconds and %R seconds since the start time, %u processor time, %d{...} the time
// of the message, %% a percent sign. Each may carry "0" (zero fill) or "-" (pad on the right),
// a minimum width and "." with a maximum width: "%-8p" gives "WARN    ", "%.3p" gives "WAR".
//
// Dates: "%d{%H:%M:%S,%l}" of 2024-03-10 14:05:09.250 local time gives "14:05:09,250"; the
// words DATE ("10 Mar 2024 14:05:09,250"), ISO8601 and the empty braces ("2024-03-10
// 14:05:09,250") and ABSOLUTE ("14:05:09,250") stand for the usual forms. In New York that
// night 02:30 does not exist (the clocks jump from 02:00 to 03:00) and a message at 07:30 UTC
// shows "03:30:00,000"; on 2024-11-03 05:30 and 06:30 UTC both show "01:30:00,000".
//
// Messages longer than the limit are cut to a head and a tail with " ...{skipping N bytes}... "
// between them, so that one runaway message can't flood a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "basicutil/Str.h"

namespace morvek {

struct LogEvent;
struct LogDateFormat;

enum LogFormatKind : uint32_t {
  LFMT_MESSAGE = 0,
  LFMT_LITERAL = 1,
  LFMT_LOGGER = 2,
  LFMT_LEVEL = 3,
  LFMT_THREAD_NAME = 4,
  LFMT_THREAD_ID = 5,
  LFMT_MILLISECONDS = 6,
  LFMT_SECONDS = 7,
  LFMT_CLOCK = 8,
  LFMT_DATE = 9,
};

constexpr uint32_t LOG_SERIALIZATION_TEXT = 1;
constexpr uint32_t LOG_SERIALIZATION_JSON = 2;
constexpr uint64_t LOG_DEFAULT_MAX_MESSAGE_SIZE = 16384;

struct LogFormatAtom {
  uint32_t kind;
  const char *text;     // literals: into the pattern
  LogDateFormat *date;  // dates: owned
  size_t text_len;
  uint32_t min_width = 0;
  uint32_t max_width = NO_MAX_WIDTH;
  char fill = ' ';  // '0' after the flag "0"; 0 after "-", which pads on the right

  static constexpr uint32_t NO_MAX_WIDTH = 0xFFFFFFFF;
};

class LogFormat {
 public:
  // Never fails: unknown conversions render nothing.
  explicit LogFormat(StrSegment pattern);
  ~LogFormat();
  LogFormat(const LogFormat &) = delete;
  LogFormat &operator=(const LogFormat &) = delete;

  // Appends one record for the event, with message the escaped text. serialization is
  // LOG_SERIALIZATION_TEXT or LOG_SERIALIZATION_JSON; in JSON, "%d %p %c %m%n" gives
  // {"datetime":"...","log_level":"WARN","component":"Disk","data":MESSAGE}\n with the message
  // as it stands, unquoted.
  void render(Str &out, const LogEvent &event, uint32_t serialization, uint64_t maxMessageSize,
              StrSegment message) const;

  // Exactly trimTo bytes of message (msgsize > trimTo >= 45): head, a marker naming the count
  // of skipped bytes, tail. A head that ends in backslashes loses them, so that no escape is
  // left dangling; the result is then shorter by their number.
  static void renderTrimmedTo(Str &out, StrSegment message, size_t msgsize, size_t trimTo);

  // The shared layouts, made on first use and never freed: "%m%n", BasicLayout
  // "%R %p %c %m%n" and SimpleLayout "%-8p: %m%n".
  static const LogFormat *defaultLayout();
  static const LogFormat *basicLayout();
  static const LogFormat *simpleLayout();
  static bool isShared(const LogFormat *f);

  const Str &pattern() const { return _pattern; }
  const std::vector<LogFormatAtom> &atoms() const { return _atoms; }

 private:
  void renderAtom(Str &out, const LogFormatAtom &a, const LogEvent &event, bool json,
                  uint64_t maxMessageSize, StrSegment message, struct tm *tm_cache,
                  bool &have_tm) const;

  Str _pattern;
  std::vector<LogFormatAtom> _atoms;
};

}  // namespace morvek
