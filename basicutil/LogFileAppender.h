// LogFileAppender: the one place where log records meet the file system. The root appender
// writes to descriptor 2 from static construction on; the configuration makes named appenders,
// each owning one file (mode 0644) that it rotates when it grows past maxFileSize: "app.log"
// becomes "app.log.1", "app.log.1" becomes "app.log.2" and so on up to maxBackupIndex, the
// oldest falling off the end.
//
// A record that fails to write (a full disk) stays pending and goes out in front of the next
// one; a file that something else moved or removed (logrotate) is noticed by its inode, tested
// at most every 5 seconds on the back of a call, and opened again under its name. There is no
// timer and no thread: everything happens inside append.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <set>

#include "basicutil/FileDescriptor.h"
#include "basicutil/Logger.h"
#include "basicutil/Str.h"

namespace morvek {

class LogFormat;
class PthreadMutex;

// Literal text and its replacement in configuration values, applied in map order.
using LogSubstitutions = std::map<Str, Str, std::less<>>;

// Replaces each from in *v by to, left to right, never rescanning inserted text. Leaves *v
// alone when from does not occur; scratch is working space.
void do_replacement(Str *v, StrSegment from, StrSegment to, Str &scratch);

// Bits of allowed_properties, one for each appender property.
enum LogPropertyBit : uint32_t {
  LOG_PROP_MAX_FILE_SIZE = 1,
  LOG_PROP_MAX_BACKUP_INDEX = 2,
  LOG_PROP_LAYOUT = 4,
  LOG_PROP_CONVERSION_PATTERN = 8,
  LOG_PROP_FILE_NAME = 16,
  LOG_PROP_SERIALIZATION = 32,
  LOG_PROP_MAX_MESSAGE_SIZE = 64,
  LOG_PROP_BUFFER_SIZE = 128,
  LOG_PROP_ESCAPE = 256,
  LOG_PROP_ALL = 511,
};

class LogFileAppender : public LogAppender {
 public:
  // A named appender: no file, no layout until configured.
  LogFileAppender();
  // Writing to fd, which it does not own, with the default layout.
  explicit LogFileAppender(int fd);
  ~LogFileAppender() override;

  // Renders outside the lock, then writes (or holds back, when buffered and below bufferSize),
  // after reopening a file that was moved or removed, and rotates a file grown past
  // maxFileSize. Failures are reported through Logger::logInternal, never to the caller.
  void append(const LogEvent &event, LoggerEscaped &message,
              const std::vector<LogObserver *> *observers, bool buffered) override;

  // Shifts base -> .1 -> .2 ... up to the first free slot (removing .maxBackupIndex when there
  // is none) and opens a fresh base file. The caller holds the mutex.
  void rotateFile(int64_t now_seconds);

  // Writes out what is pending, closes the file unless it is fd, and starts over on fd with
  // the default layout and sizes.
  void resetToDefaults(int fd);

  // One property of a configuration line, after substitutions; false when refused. With
  // allowed other than LOG_PROP_ALL the size limits may only grow.
  bool setProperty(StrSegment key, StrSegment value, uint32_t allowed,
                   const LogSubstitutions &substitutions,
                   const std::set<Str, std::less<>> &suspended_paths);

  // Closes and silences the appender when its raw path contains substring; pending is kept.
  void suspend(StrSegment substring);
  // Recomputes the path from the raw one, checks that it opens, and lets appends through.
  void unsuspend(const LogSubstitutions &substitutions);

  // After configuration: a layout for every appender, stderr (or silence) for one with no file,
  // settings that make no sense dropped with a warning, and a trial open of the file.
  void fixUp(const char *name, bool allow_stderr);

  // The table of named appenders; "rootAppender" is always the root.
  static LogFileAppender *root();
  static LogFileAppender *find(StrSegment name, bool create);
  // Root back to descriptor 2, named ones closed (and with delete_named deleted and forgotten).
  // Only before the first thread has started.
  static void resetAll(bool delete_named);
  static void suspendAll(StrSegment substring);
  static void unsuspendAll(const LogSubstitutions &substitutions);
  static void fixUpAll(bool allow_stderr);
  // Null name: every named appender. False when refused (for any of them).
  static bool setPropertyAt(const char *name, StrSegment key, StrSegment value,
                            uint32_t allowed = LOG_PROP_ALL);

  const Str &getPath() const { return _path; }
  const LogFormat *getLayout() const { return _layout; }
  int64_t getMaxFileSize() const { return _maxFileSize; }
  uint32_t getMaxBackupIndex() const { return _maxBackupIndex; }
  uint64_t getMaxMessageSize() const { return _maxMessageSize; }
  uint64_t getBufferSize() const { return _bufferSize; }
  uint32_t getSerialization() const { return _serialization; }
  bool getEscape() const { return _escape; }
  bool isSilenced() const { return _to_devnull.load(); }
  size_t pendingSize();

 private:
  bool open_file();
  bool statOpenFile(int64_t now_seconds);
  void writePending();
  void setLayout(const LogFormat *layout);
  void report(int level, const char *format, ...) __attribute__((format(printf, 3, 4)));

  FileDescriptor _fd;
  Str _path;
  Str _rawPath;
  int64_t _maxFileSize = 0;
  int64_t _currentSize = 0;
  uint32_t _maxBackupIndex = 0;
  uint32_t _serialization;
  uint64_t _maxMessageSize;
  uint64_t _bufferSize;
  const LogFormat *_layout = nullptr;
  PthreadMutex *_mutex;
  std::atomic<bool> _to_devnull{false};
  bool _open_failed = false;
  bool _suspended = false;
  bool _escape = true;
  bool _owns_fd;  // false for a descriptor handed in (2)
  uint64_t _inode = 0;
  int64_t _last_check = 0;
  Str _pending;
};

}  // namespace morvek
