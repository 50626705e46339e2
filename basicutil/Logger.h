// Logger: a named log channel handle, declared as a global object in each source file. Handles
// share a LogChannel (level, appenders, observers) that lives for the whole process.
//
// A global Logger may be used before its own constructor has run, and before the log system is
// initialised; both cases are handled here, which shapes the layout of the class.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <vector>

#include "basicutil/Str.h"
#include "basicutil/Timeval.h"

namespace morvek {

class Logger;
class LogSuppressor;
class PthreadMutex;

enum LogLevel {
  LOG_DEBUG = 0,
  LOG_INFO = 1,
  LOG_NOTICE = 2,
  LOG_WARN = 3,
  LOG_ERROR = 4,
  LOG_CRIT = 5,
  LOG_ALERT = 6,
  LOG_FATAL = 7,
  LOG_EMERG = 8,
};

// "DEBUG" ... "EMERG"; "???" outside 0 to 8.
const char *logLevelName(int level);
// Exact, upper-case names only.
bool logLevelFromName(StrSegment name, int &level);

// Sees every finished line delivered through a channel it is registered on.
class LogObserver {
 public:
  virtual ~LogObserver();
  virtual void observeLogLine(const Str &line) = 0;
};

// Hooks around the rendering of one message: prepend runs before the format is rendered into
// the message, append after.
class LogFormatCallback {
 public:
  virtual ~LogFormatCallback();
  virtual void prepend(Str &message);
  virtual void append(Str &message);
};

// One message on its way to the appenders.
struct LogEvent {
  Timeval time;
  const Logger *logger;
  int level;
};

// The escaping state of one message across all appenders that receive it: done once, at the
// first appender that asks, whose setting then holds for the others.
class LoggerEscaped {
 public:
  LoggerEscaped(StrSegment message, bool should_escape)
      : _unescaped(message), _bypass(!should_escape) {}
  LoggerEscaped(const LoggerEscaped &) = delete;
  LoggerEscaped &operator=(const LoggerEscaped &) = delete;

  // With escape_all, every control byte below 128 but tab is escaped; otherwise CR and LF only.
  StrSegment _escape(bool escape_all);

  StrSegment _unescaped;
  StrSegment _escaped;
  std::optional<Str> _escapedStorage;
  bool _bypass;
};

// Where finished records go. The channel calls append with its mutex held for the first
// appender only; observers, when given, must see the finished line.
class LogAppender {
 public:
  virtual ~LogAppender();
  virtual void append(const LogEvent &event, LoggerEscaped &message,
                      const std::vector<LogObserver *> *observers, bool buffered) = 0;
};

// One record per channel name, never freed.
class LogChannel {
 public:
  LogChannel();
  LogChannel(const LogChannel &) = delete;
  LogChannel &operator=(const LogChannel &) = delete;

  std::atomic<int> level;  // plain loads and stores: read without a lock on every call
  bool level_explicit;
  bool buffered;
  std::vector<LogAppender *> appenders;  // empty: the root appender
  std::vector<LogObserver *> observers;
  PthreadMutex *mutex;  // guards the lists and serialises delivery to the first appender
};

class LoggerStreamAccumulator;

// A global Logger may be called before its constructor ran (from another file's static
// initialiser); the entry points handle that on purpose, so the sanitizer's check of the vtable
// pointer at member calls is off for them.
#define MORVEK_LOGGER_EARLY __attribute__((no_sanitize("vptr")))

class Logger {
 public:
  explicit Logger(const char *name);
  // With suppress, repeats of one format beyond max_similar are held back and reported once
  // period_seconds have passed (LogSuppressor).
  Logger(const char *name, bool suppress, int period_seconds, int max_similar);
  // A handle on a channel of its own: never in the table, never configured.
  Logger(const char *name, LogChannel *channel);
  virtual ~Logger();
  Logger(const Logger &) = delete;
  Logger &operator=(const Logger &) = delete;

  virtual bool shouldEscape() const;
  virtual bool shouldTrim() const;

  const char *getName() const { return _name; }
  size_t getNameLength() const { return _name_len; }
  // The channel this handle delivers to: its own once initialised, the root channel before.
  MORVEK_LOGGER_EARLY LogChannel *getChannel() const {
    LogChannel *c = _channel.load(std::memory_order_acquire);
    return c != nullptr ? c : rootChannel();
  }
  MORVEK_LOGGER_EARLY bool isEnabledFor(int level) const {
    return getChannel()->level.load(std::memory_order_relaxed) <= level;
  }
  bool isDebugEnabled() const { return isEnabledFor(LOG_DEBUG); }

  // Each family: printf-style, a segment as it stands, an exception's what(), a va_list, a
  // va_list with a callback, and the stream pair. The va_list forms have their own names so that
  // a literal 0 argument can never be taken for a va_list.
#define MORVEK_LOGGER_FAMILY(name, lvl)                                                          \
  MORVEK_LOGGER_EARLY void name(const char *format, ...) __attribute__((format(printf, 2, 3))) { \
    if (isEnabledFor(lvl) || !isConstructed()) {                                                 \
      va_list ap;                                                                                \
      va_start(ap, format);                                                                      \
      vlogAt(lvl, nullptr, format, ap);                                                          \
      va_end(ap);                                                                                \
    }                                                                                            \
  }                                                                                              \
  MORVEK_LOGGER_EARLY void name(StrSegment text) { logSegment(lvl, text); }                      \
  MORVEK_LOGGER_EARLY void name(const std::exception &e) {                                       \
    logSegment(lvl, StrSegment(e.what()));                                                       \
  }                                                                                              \
  MORVEK_LOGGER_EARLY void v##name(const char *format, va_list ap)                               \
      __attribute__((format(printf, 2, 0))) {                                                    \
    vlogAt(lvl, nullptr, format, ap);                                                            \
  }                                                                                              \
  MORVEK_LOGGER_EARLY void v##name(LogFormatCallback *cb, const char *format, va_list ap)        \
      __attribute__((format(printf, 3, 0))) {                                                    \
    vlogAt(lvl, cb, format, ap);                                                                 \
  }                                                                                              \
  MORVEK_LOGGER_EARLY LoggerStreamAccumulator *name##_stream() { return openStream(lvl); }       \
  MORVEK_LOGGER_EARLY void name##_end(LoggerStreamAccumulator *acc) { endStream(acc, lvl); }
  MORVEK_LOGGER_FAMILY(debug, LOG_DEBUG)
  MORVEK_LOGGER_FAMILY(info, LOG_INFO)
  MORVEK_LOGGER_FAMILY(warn, LOG_WARN)
  MORVEK_LOGGER_FAMILY(error, LOG_ERROR)
  MORVEK_LOGGER_FAMILY(fatal, LOG_FATAL)
#undef MORVEK_LOGGER_FAMILY

  // Any level, for the levels that have no family of their own.
  MORVEK_LOGGER_EARLY void log(int level, const char *format, ...)
      __attribute__((format(printf, 3, 4)));
  // The whole printf path: level test, rendering with the caller's errno for %m, delivery.
  // errno is the same afterwards.
  MORVEK_LOGGER_EARLY void vlogAt(int level, LogFormatCallback *cb, const char *format, va_list ap)
      __attribute__((format(printf, 4, 0)));
  MORVEK_LOGGER_EARLY void logSegment(int level, StrSegment text);

  // With suppression (the constructor's suppress): what is held, null otherwise.
  LogSuppressor *getSuppressor() const { return _suppressor; }
  // Logs what the suppressor holds and forgets it; nothing without one.
  void flushSuppressed();

  // When DEBUG is on, each non-empty line (split at "\n" or "\r") is a DEBUG message.
  void debugSplitLines(const char *data, size_t size);

  // Message text: the format rendered with the given (or the current) errno for %m.
  static void format(Str &out, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
  static void formatWithErrno(Str &out, int errnum, const char *fmt, ...)
      __attribute__((format(printf, 3, 4)));
  static void vformat(Str &out, int errnum, LogFormatCallback *cb, const char *fmt, va_list ap)
      __attribute__((format(printf, 4, 0)));

  // Straight to descriptor 2 as "LEVEL - text\n" in one write, unless quiet_stderr is set. The
  // path of last resort: no level test, no channel, no lock.
  static void emergencyLog(int level, StrSegment text);

  // The log system's own reports, kept away from the appender that failed.
  static void logInternal(LogAppender *skip, int level, const char *format, ...)
      __attribute__((format(printf, 3, 4)));

  // Gives every logger made so far its channel; later ones find theirs at construction.
  static void initialize();
  static bool isInitialized();
  static Timeval getStartTime();

  // Run-time control. A null name means every channel.
  static void clearAppenders(const char *channel_name);
  static void addAppender(const char *channel_name, LogAppender *appender);
  // Null name: every channel whose level was never set explicitly, staying so. A name: that
  // channel, found or created, now explicit. False for an unknown level name.
  static bool setLevel(const char *channel_name, const char *level_name,
                       Str *previous_level_name = nullptr);
  static bool setLevelOnAllChannels(const char *level_name);
  // 0 when absent or before initialisation; else the coarse number of the channel's level.
  static int getCoarseLevel(StrSegment channel_name);

  class iterate_channels_callback {
   public:
    virtual ~iterate_channels_callback();
    virtual void visit(const Str &name, const char *level_name, bool buffered) = 0;
  };
  // In name order.
  static void iterate_channels(iterate_channels_callback &callback);

  static void setQuietStderr(bool quiet);
  static bool getQuietStderr();

  // The LogFileAppender on descriptor 2 that serves every channel without appenders of its own.
  static LogAppender *rootAppender();
  // Before a new configuration: every channel is forgotten (handles keep working on the old
  // records until initialize gives them new ones) and the root channel starts over. Only
  // before the first thread has started.
  static void resetChannels();
  // The channel of that name, made (as a copy of the root channel) when there is none yet.
  static LogChannel *channelFor(StrSegment name);
  static LogChannel *rootChannel();

  static void registerLogObserver(Logger *logger, LogObserver *observer);
  static void unregisterLogObserver(Logger *logger, LogObserver *observer);

  // False only for storage whose constructor has not run yet (a global used too early).
  MORVEK_LOGGER_EARLY bool isConstructed() const { return _name != nullptr; }

 private:
  friend class LoggerStreamAccumulator;
  friend struct LoggerInitData;
  friend class LogSuppressor;

  void construct(const char *name);
  MORVEK_LOGGER_EARLY LoggerStreamAccumulator *openStream(int level);
  void endStream(LoggerStreamAccumulator *acc, int level);
  void finish_vlog(const LogEvent &event, int saved_errno, LogFormatCallback *cb,
                   const char *format, va_list ap) __attribute__((format(printf, 5, 0)));
  void finish_vlog_s(Str *scratchp, const LogEvent &event, int saved_errno, LogFormatCallback *cb,
                     const char *format, va_list ap) __attribute__((format(printf, 6, 0)));
  void deliver(const LogEvent &event, StrSegment message);
  void deliverSegment(int level, StrSegment text);

  const char *_name;
  size_t _name_len;
  std::atomic<LogChannel *> _channel;
  Logger *_next;
  LogSuppressor *_suppressor;
};

// Messages neither escaped nor trimmed, on a private INFO channel outside configuration.
class LoggerSimple : public Logger {
 public:
  explicit LoggerSimple(const char *name);
  bool shouldEscape() const override;
  bool shouldTrim() const override;
};

// The text of a stream-style message. inst_and_flag holds the Logger with DYNAMIC_FLAG in its low
// bit when the accumulator is on the heap; the value 2 stands for a logger whose constructor had
// not run, whose text goes to emergencyLog. Each thread's scratch holds one that is reused.
class LoggerStreamAccumulator {
 public:
  static constexpr uintptr_t DYNAMIC_FLAG = 1;
  static constexpr uintptr_t NOT_YET_CONSTRUCTED = 2;

  LoggerStreamAccumulator() = default;
  LoggerStreamAccumulator(const LoggerStreamAccumulator &) = delete;
  LoggerStreamAccumulator &operator=(const LoggerStreamAccumulator &) = delete;

  static LoggerStreamAccumulator *get(const Logger *logp);
  // Logs the text (nothing when empty) and releases the accumulator.
  static void do_log(LoggerStreamAccumulator *acc, int level);
  // Releases without logging.
  static void discard(LoggerStreamAccumulator *acc);

  LoggerStreamAccumulator &operator<<(StrSegment s) {
    _text.append(s.data(), s.size());
    return *this;
  }
  LoggerStreamAccumulator &operator<<(const char *s) { return *this << StrSegment(s); }
  LoggerStreamAccumulator &operator<<(const Str &s) { return *this << s.segment(); }
  LoggerStreamAccumulator &operator<<(char c) {
    _text.push_back(c);
    return *this;
  }
  LoggerStreamAccumulator &operator<<(long long v);
  LoggerStreamAccumulator &operator<<(unsigned long long v);
  LoggerStreamAccumulator &operator<<(int v) { return *this << static_cast<long long>(v); }
  LoggerStreamAccumulator &operator<<(long v) { return *this << static_cast<long long>(v); }
  LoggerStreamAccumulator &operator<<(unsigned v) {
    return *this << static_cast<unsigned long long>(v);
  }
  LoggerStreamAccumulator &operator<<(unsigned long v) {
    return *this << static_cast<unsigned long long>(v);
  }
  LoggerStreamAccumulator &operator<<(double v);

  Str _text;
  uintptr_t inst_and_flag = 0;
};

// Insertions through the pointer a *_stream() call gave: a null pointer ignores them, and an
// insertion that throws discards the accumulator and nulls the pointer.
//   auto *s = log.debug_stream(); LogStream(s) << "n=" << n; log.debug_end(s);
class LogStream {
 public:
  explicit LogStream(LoggerStreamAccumulator *&acc) : _acc(acc) {}
  template <typename T>
  LogStream &operator<<(const T &value) {
    if (_acc == nullptr) return *this;
    try {
      *_acc << value;
    } catch (...) {
      LoggerStreamAccumulator::discard(_acc);
      _acc = nullptr;
    }
    return *this;
  }

 private:
  LoggerStreamAccumulator *&_acc;
};

// Registers an observer for its lifetime. Movable: the source gives up its logger.
class ScopedLogObserverRegistration {
 public:
  ScopedLogObserverRegistration(Logger *logger, LogObserver *observer);
  ScopedLogObserverRegistration(ScopedLogObserverRegistration &&other) noexcept;
  ScopedLogObserverRegistration &operator=(ScopedLogObserverRegistration &&other) noexcept;
  ~ScopedLogObserverRegistration();

 private:
  Logger *_logger;
  LogObserver *_observer;
};

}  // namespace morvek
