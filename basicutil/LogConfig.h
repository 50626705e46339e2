// Log configuration files: a line-oriented properties syntax in the manner of log4cpp.
//
//   # comments run from "#" to the end of the line; <!-- these --> may span lines
//   rootCategory = INFO, main
//   category.DateParser = DEBUG, main, buffered
//   appender.main = RollingFileAppender          (the class name is ignored)
//   appender.main.fileName = @LOGDIR@/app.log     (@LOGDIR@ from the request's substitutions)
//   appender.main.maxFileSize = 10485760
//   appender.main.maxBackupIndex = 5
//   appender.main.layout = PatternLayout
//   appender.main.layout.ConversionPattern = %d{ISO8601} %p %c %m%n
//   [staging]                                    (read only when the request names it)
//
// Keys may carry a leading "log4cpp.". Next to "app.cfg", a file "app-local.cfg" is read as
// well if it exists, and may override anything. Lines that can't be understood never stop the
// reading: they are reported, with file and line, through the log that was just built.
#pragma once

#include <cstdint>
#include <set>

#include "basicutil/LogFileAppender.h"
#include "basicutil/Str.h"

namespace morvek {

class ReadableUnicodeStream;

struct LogConfigRequest {
  Str path;
  const char *section = nullptr;  // null: lines after the first "[...]" are ignored
  LogSubstitutions substitutions;
  // An appender whose raw fileName contains one of these starts suspended.
  std::set<Str, std::less<>> suspended_paths;
  // False: appenders with no file are silent, and nothing goes to descriptor 2.
  bool allow_stderr = true;
  uint32_t allowed_properties = LOG_PROP_ALL;
};

// One line kept for later: a category, the root category, or an error to report.
struct DeferredLogConf {
  const char *file = nullptr;  // null: the request's path
  uint32_t line = 0;
  Str text;
  DeferredLogConf *next = nullptr;
  int error_type = LOG_CONF_PARSE_ERROR;

  static constexpr int LOG_CONF_PARSE_ERROR = 0;
  static constexpr int LOG_CONF_UNTERMINATED_COMMENT = 1;
};

// A singly linked list that owns its entries; new ones go to the tail.
class DeferredLogConfList {
 public:
  DeferredLogConfList() = default;
  ~DeferredLogConfList();
  DeferredLogConfList(const DeferredLogConfList &) = delete;
  DeferredLogConfList &operator=(const DeferredLogConfList &) = delete;

  void push(DeferredLogConf *dlc);
  DeferredLogConf *head() const { return _head; }

 private:
  DeferredLogConf *_head = nullptr;
  DeferredLogConf **_tail = &_head;
};

// Reads the file and its "-local" companion, rebuilds channels and appenders from them, calls
// Logger::initialize and then reports what it could not understand. True when nothing was
// reported. A file that can't be opened leaves logging at its defaults.
bool parse_log_cfg_file(const LogConfigRequest &request);

// One file's lines: appender lines take effect at once, the root category and category lines
// are kept for later (root holds at most one entry: the last one wins), and so are errors.
void parse_one_log_cfg_file(ReadableUnicodeStream &file, const char *path,
                            const LogConfigRequest &request, DeferredLogConfList &root,
                            DeferredLogConfList &errors, DeferredLogConfList &categories);

// The items of a category's value: level names, "buffered", and appender names (the first
// replaces the channel's list). False when an appender name is unknown; the rest still apply.
bool apply_log_category_value(LogChannel *channel, StrSegment value);

}  // namespace morvek
