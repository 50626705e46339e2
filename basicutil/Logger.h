// Logger: a named log channel, declared as a global object in each source file.
#pragma once

#include <cstdarg>

namespace morvek {

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

class Logger {
 public:
  explicit Logger(const char *name);
  Logger(const Logger &) = delete;
  Logger &operator=(const Logger &) = delete;

  const char *getName() const { return _name; }
  bool isEnabled(int level) const { return level >= _level; }
  void setLevel(int level) { _level = level; }
  int getLevel() const { return _level; }

#define MORVEK_LOGGER_LEVEL_METHOD(method, level)                              \
  void method(const char *format, ...) __attribute__((format(printf, 2, 3))) { \
    if (!isEnabled(level)) return;                                             \
    va_list ap;                                                                \
    va_start(ap, format);                                                      \
    vlog(level, format, ap);                                                   \
    va_end(ap);                                                                \
  }
  MORVEK_LOGGER_LEVEL_METHOD(debug, LOG_DEBUG)
  MORVEK_LOGGER_LEVEL_METHOD(info, LOG_INFO)
  MORVEK_LOGGER_LEVEL_METHOD(notice, LOG_NOTICE)
  MORVEK_LOGGER_LEVEL_METHOD(warn, LOG_WARN)
  MORVEK_LOGGER_LEVEL_METHOD(error, LOG_ERROR)
  MORVEK_LOGGER_LEVEL_METHOD(crit, LOG_CRIT)
  MORVEK_LOGGER_LEVEL_METHOD(alert, LOG_ALERT)
  MORVEK_LOGGER_LEVEL_METHOD(fatal, LOG_FATAL)
  MORVEK_LOGGER_LEVEL_METHOD(emerg, LOG_EMERG)
#undef MORVEK_LOGGER_LEVEL_METHOD

  void log(int level, const char *format, ...) __attribute__((format(printf, 3, 4)));
  // Renders and delivers one record; errno is the same afterwards, and %m shows the caller's.
  void vlog(int level, const char *format, va_list ap) __attribute__((format(printf, 3, 0)));

 private:
  const char *_name;
  int _level;
};

}  // namespace morvek
