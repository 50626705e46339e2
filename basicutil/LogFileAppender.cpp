#include "basicutil/LogFileAppender.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "basicutil/BasicConversions.h"
#include "basicutil/LogFormat.h"
#include "basicutil/LogInternal.h"
#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// The path is looked at again only after this many seconds.
constexpr int64_t PATH_CHECK_SECONDS = 5;

struct AppenderTable {
  PthreadMutex mutex;  // a leaf
  std::map<Str, LogFileAppender *, std::less<>> appenders;
};

AppenderTable &appenderTable() {
  static AppenderTable *t = new AppenderTable;
  return *t;
}

std::vector<LogFileAppender *> namedAppenders() {
  AppenderTable &t = appenderTable();
  LogMutexScope lock(&t.mutex);
  std::vector<LogFileAppender *> out;
  for (auto &e : t.appenders) out.push_back(e.second);
  return out;
}

// A decimal integer as configurations write it: digits with no leading zero ("0" alone is
// fine), optionally followed by white space.
bool parseConfigDecimal(StrSegment v, uint64_t &out) {
  if (v.empty() || v[0] < '0' || v[0] > '9') return false;
  size_t i = 0;
  uint64_t n = 0;
  for (; i < v.size() && v[i] >= '0' && v[i] <= '9'; ++i) {
    if (n > (UINT64_MAX - 9) / 10) return false;
    n = n * 10 + static_cast<uint64_t>(v[i] - '0');
  }
  if (v[0] == '0' && i > 1) return false;
  for (; i < v.size(); ++i) {
    if (v[i] != ' ' && v[i] != '\t' && v[i] != '\r' && v[i] != '\n') return false;
  }
  out = n;
  return true;
}

Str suffixed(const Str &path, uint32_t suffix) {
  if (suffix == 0) return path;
  Str s(path);
  s.appendf(".%u", suffix);
  return s;
}

}  // namespace

void do_replacement(Str *v, StrSegment from, StrSegment to, Str &scratch) {
  if (from.empty() || v->size() < from.size()) return;
  MV_ASSERT(v->size() >= from.size());
  size_t p = StrSegment(*v).find(from);
  if (p == StrSegment::npos) return;
  scratch.clear();
  size_t done = 0;
  while (p != StrSegment::npos) {
    MV_ASSERT(p < v->size());
    MV_ASSERT(p + from.size() <= v->size());
    scratch.append(v->data() + done, p - done);
    scratch.append(to.data(), to.size());
    done = p + from.size();
    p = StrSegment(*v).find(from, done);
  }
  scratch.append(v->data() + done, v->size() - done);
  v->swap(scratch);
}

LogFileAppender::LogFileAppender()
    : _serialization(LOG_SERIALIZATION_TEXT),
      _maxMessageSize(LOG_DEFAULT_MAX_MESSAGE_SIZE),
      _bufferSize(LOG_DEFAULT_MAX_MESSAGE_SIZE),
      _mutex(new PthreadMutex),
      _owns_fd(true) {}

LogFileAppender::LogFileAppender(int fd)
    : _fd(fd),
      _serialization(LOG_SERIALIZATION_TEXT),
      _maxMessageSize(LOG_DEFAULT_MAX_MESSAGE_SIZE),
      _bufferSize(LOG_DEFAULT_MAX_MESSAGE_SIZE),
      _layout(LogFormat::defaultLayout()),
      _mutex(new PthreadMutex),
      _owns_fd(false) {}

LogFileAppender::~LogFileAppender() {
  {
    LogMutexScope lock(_mutex);
    writePending();
    if (!_owns_fd || _path.empty()) _fd.release();
    _fd.closeQuietly();
  }
  setLayout(nullptr);
  delete _mutex;
}

LogFileAppender *LogFileAppender::root() {
  return static_cast<LogFileAppender *>(Logger::rootAppender());
}

LogFileAppender *LogFileAppender::find(StrSegment name, bool create) {
  if (name == "rootAppender") return root();
  AppenderTable &t = appenderTable();
  LogMutexScope lock(&t.mutex);
  auto it = t.appenders.find(name.view());
  if (it != t.appenders.end()) return it->second;
  if (!create) return nullptr;
  auto *a = new LogFileAppender;
  t.appenders.emplace(Str(name), a);
  return a;
}

void LogFileAppender::setLayout(const LogFormat *layout) {
  if (_layout != nullptr && _layout != layout && !LogFormat::isShared(_layout)) delete _layout;
  _layout = layout;
}

size_t LogFileAppender::pendingSize() {
  LogMutexScope lock(_mutex);
  return _pending.size();
}

void LogFileAppender::report(int level, const char *format, ...) {
  Str text;
  va_list ap;
  va_start(ap, format);
  Logger::vformat(text, errno, nullptr, format, ap);
  va_end(ap);
  Logger::logInternal(this, level, "%s", text.c_str());
}

// ---------------------------------------------------------------------------------------------
// Writing

void LogFileAppender::append(const LogEvent &event, LoggerEscaped &message,
                             const std::vector<LogObserver *> *observers, bool buffered) {
  if (_to_devnull.load(std::memory_order_acquire)) return;
  // The record is built before the lock: a slow layout never holds up other writers.
  // Each thread renders into a buffer of its own that keeps its capacity; a record logged from
  // inside this one (an observer that logs) gets a fresh one.
  static thread_local Str tls_record;
  static thread_local bool tls_busy = false;
  Str local;
  bool reuse = !tls_busy;
  Str &record = reuse ? tls_record : local;
  record.clear();
  struct Release {
    bool active;
    ~Release() {
      if (active) tls_busy = false;
    }
  } release{reuse};
  tls_busy = true;
  const LogFormat *layout = _layout != nullptr ? _layout : LogFormat::defaultLayout();
  layout->render(record, event, _serialization, _maxMessageSize, message._escape(_escape));

  // Observers see the line before the lock: one that logs through this same appender (from
  // another channel) must not find the mutex held by its own thread.
  if (observers != nullptr) {
    for (LogObserver *o : *observers) o->observeLogLine(record);
  }

  LogMutexScope lock(_mutex);
  if (_to_devnull.load(std::memory_order_relaxed)) return;
  int64_t t = event.time.seconds();
  if (_fd.valid() && !_path.empty() &&
      !(_last_check <= t && t <= _last_check + PATH_CHECK_SECONDS)) {
    struct stat st;
    if (::stat(_path.c_str(), &st) == 0 && st.st_ino == _inode) {
      _last_check = t;
    } else {
      _fd.closeQuietly();  // moved or removed by somebody else
    }
  }
  if (!_fd.valid()) {
    if (!open_file() || !statOpenFile(t)) return;
  }
  _pending.append(record);
  if (buffered && _pending.size() < _bufferSize) return;
  writePending();
  if (_maxFileSize >= 1 && _currentSize > _maxFileSize) rotateFile(t);
}

// With the mutex held. Pending is cleared only by a whole write.
void LogFileAppender::writePending() {
  if (_pending.empty() || !_fd.valid()) return;
  ssize_t n = _fd.write(_pending.data(), _pending.size());
  if (n < 0 || static_cast<size_t>(n) != _pending.size()) {
    if (n > 0) {
      // A short write (the disk filled up mid-record): take the partial tail back out, so that
      // the file never holds half a line and the whole record goes out later.
      if (::ftruncate(_fd.fd(), static_cast<off_t>(_currentSize)) != 0) {
        _pending.erase(0, static_cast<size_t>(n));
        _currentSize += n;
      }
      errno = ENOSPC;
    }
    if (!_path.empty()) {
      report(LOG_ERROR, "Error writing to \"%s\": %m", _path.c_str());
      _fd.closeQuietly();
    } else {
      // A descriptor that can't be reopened (a closed stderr) would hold records forever.
      _pending.clear();
    }
    return;
  }
  _pending.clear();
  _currentSize += n;
}

bool LogFileAppender::open_file() {
  if (_path.empty()) return false;
  if (!_owns_fd) _fd.release();
  _fd.closeQuietly();
  _owns_fd = true;
  if (_fd.open(_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {
    if (_open_failed) {
      report(LOG_DEBUG, "Successfully opened \"%s\" now.", _path.c_str());
      _open_failed = false;
    }
    return true;
  }
  if (!_open_failed) {
    report(LOG_ERROR, "Failed opening \"%s\": %m", _path.c_str());
    _open_failed = true;
  }
  return false;
}

bool LogFileAppender::statOpenFile(int64_t now_seconds) {
  struct stat st;
  if (::fstat(_fd.fd(), &st) != 0) {
    report(LOG_ERROR, "Error calling fstat on \"%s\": %m", _path.c_str());
    _fd.closeQuietly();
    return false;
  }
  _currentSize = st.st_size;
  _inode = st.st_ino;
  _last_check = now_seconds;
  return true;
}

void LogFileAppender::rotateFile(int64_t now_seconds) {
  _fd.closeQuietly();
  uint32_t suffix = 0;
  while (suffix < _maxBackupIndex && ::access(suffixed(_path, suffix).c_str(), F_OK) == 0) {
    ++suffix;
  }
  if (suffix >= _maxBackupIndex) {
    MV_ASSERT(suffix == _maxBackupIndex);
    Str oldest = suffixed(_path, suffix);
    if (::unlink(oldest.c_str()) != 0 && errno != ENOENT) {
      report(LOG_WARN, "Error unlinking \"%s\": %m", oldest.c_str());
    }
  }
  for (uint32_t n = suffix; n >= 1; --n) {
    Str from = suffixed(_path, n - 1), to = suffixed(_path, n);
    if (::rename(from.c_str(), to.c_str()) != 0) {
      report(LOG_WARN, "Error renaming \"%s\" to \"%s\": %m", from.c_str(), to.c_str());
    }
  }
  if (open_file()) {
    if (statOpenFile(now_seconds)) return;
  }
  report(LOG_ERROR, "Error opening \"%s\": %m", _path.c_str());
}

// ---------------------------------------------------------------------------------------------
// Configuration

void LogFileAppender::resetToDefaults(int fd) {
  LogMutexScope lock(_mutex);
  writePending();
  _pending.clear();
  if (_fd.fd() == fd || !_owns_fd) _fd.release();
  _fd.closeQuietly();
  _fd = FileDescriptor(fd);
  _owns_fd = false;
  _path.clear();
  _rawPath.clear();
  _maxFileSize = _currentSize = 0;
  _maxBackupIndex = 0;
  _to_devnull.store(false);
  _open_failed = _suspended = false;
  setLayout(LogFormat::defaultLayout());
  _maxMessageSize = _bufferSize = LOG_DEFAULT_MAX_MESSAGE_SIZE;
  _serialization = LOG_SERIALIZATION_TEXT;
  _escape = true;
}

bool LogFileAppender::setProperty(StrSegment key, StrSegment raw_value, uint32_t allowed,
                                  const LogSubstitutions &substitutions,
                                  const std::set<Str, std::less<>> &suspended_paths) {
  Str value(raw_value), scratch;
  for (const auto &[from, to] : substitutions) do_replacement(&value, from, to, scratch);
  struct Key {
    const char *name;
    uint32_t bit;
  };
  static const Key KEYS[] = {
      {"maxFileSize", LOG_PROP_MAX_FILE_SIZE},
      {"maxBackupIndex", LOG_PROP_MAX_BACKUP_INDEX},
      {"layout", LOG_PROP_LAYOUT},
      {"layout.ConversionPattern", LOG_PROP_CONVERSION_PATTERN},
      {"fileName", LOG_PROP_FILE_NAME},
      {"serialization", LOG_PROP_SERIALIZATION},
      {"maxMessageSize", LOG_PROP_MAX_MESSAGE_SIZE},
      {"bufferSize", LOG_PROP_BUFFER_SIZE},
      {"escape", LOG_PROP_ESCAPE},
  };
  uint32_t bit = 0;
  for (const Key &k : KEYS) {
    if (key == k.name) bit = k.bit;
  }
  if (bit == 0 || (allowed & bit) == 0) return false;
  bool restricted = allowed != LOG_PROP_ALL;

  LogMutexScope lock(_mutex);
  uint64_t n = 0;
  switch (bit) {
    case LOG_PROP_MAX_FILE_SIZE:
    case LOG_PROP_MAX_BACKUP_INDEX:
    case LOG_PROP_MAX_MESSAGE_SIZE: {
      if (!parseConfigDecimal(value, n)) return false;
      uint64_t current = bit == LOG_PROP_MAX_FILE_SIZE      ? uint64_t(_maxFileSize)
                         : bit == LOG_PROP_MAX_BACKUP_INDEX ? _maxBackupIndex
                                                            : _maxMessageSize;
      if (restricted && n < current) return false;
      if (bit == LOG_PROP_MAX_FILE_SIZE) {
        if (n > uint64_t(INT64_MAX)) return false;
        _maxFileSize = static_cast<int64_t>(n);
      } else if (bit == LOG_PROP_MAX_BACKUP_INDEX) {
        if (n > UINT32_MAX) return false;
        _maxBackupIndex = static_cast<uint32_t>(n);
      } else {
        _maxMessageSize = n;
      }
      return true;
    }
    case LOG_PROP_LAYOUT:
      if (value == "PatternLayout") return true;
      if (value == "BasicLayout") {
        setLayout(LogFormat::basicLayout());
      } else if (value == "SimpleLayout") {
        setLayout(LogFormat::simpleLayout());
      } else {
        return false;
      }
      return true;
    case LOG_PROP_CONVERSION_PATTERN:
      setLayout(new LogFormat(value));
      return true;
    case LOG_PROP_FILE_NAME:
      if (!_owns_fd) _fd.release();
      _fd.closeQuietly();
      _owns_fd = true;
      _path = value;
      _rawPath = raw_value;
      for (const Str &s : suspended_paths) {
        if (StrSegment(_rawPath).find(s) != StrSegment::npos) _suspended = true;
      }
      return true;
    case LOG_PROP_SERIALIZATION:
      if (value != "JSON") {
        Logger::logInternal(nullptr, LOG_ERROR, "Invalid serialization='%s'", value.c_str());
        return false;
      }
      _serialization = LOG_SERIALIZATION_JSON;
      return true;
    case LOG_PROP_BUFFER_SIZE:
      if (!parseByteSize(value.data(), value.size(), n)) return false;
      _bufferSize = n;
      return true;
    case LOG_PROP_ESCAPE: {
      bool b;
      if (!parseBool(value.data(), value.size(), b)) {
        Logger::logInternal(nullptr, LOG_ERROR, "Invalid escape='%s'", value.c_str());
        return false;
      }
      _escape = b;
      return true;
    }
  }
  return false;
}

void LogFileAppender::suspend(StrSegment substring) {
  if (_to_devnull.load() || _suspended) return;
  if (StrSegment(_rawPath).find(substring) == StrSegment::npos) return;
  LogMutexScope lock(_mutex);
  if (!_owns_fd) _fd.release();
  _fd.closeQuietly();
  _to_devnull.store(true);
  _suspended = true;
}

void LogFileAppender::unsuspend(const LogSubstitutions &substitutions) {
  if (!_suspended) return;
  MV_ASSERT(_to_devnull.load());
  MV_ASSERT(!_fd.valid());
  Str path(_rawPath), scratch;
  for (const auto &[from, to] : substitutions) do_replacement(&path, from, to, scratch);
  LogMutexScope lock(_mutex);
  _path = path;
  open_file();
  _fd.closeQuietly();
  _suspended = false;
  _to_devnull.store(false);
}

void LogFileAppender::fixUp(const char *name, bool allow_stderr) {
  if (_layout == nullptr) {
    const LogFormat *root_layout = root()->_layout;
    setLayout(new LogFormat(root_layout != nullptr ? root_layout->pattern() : Str("%m%n")));
  }
  if (_path.empty()) {
    if (!allow_stderr) {
      _to_devnull.store(true);
      return;
    }
    if (!_fd.valid()) {
      report(LOG_WARN, "Appender \"%s\" has no filename, assuming stderr", name);
      _fd = FileDescriptor(2);
      _owns_fd = false;
    }
    if (_maxBackupIndex != 0) {
      report(LOG_WARN,
             "Appender \"%s\" has maxBackupIndex set without specifying a filename, ignoring",
             name);
      _maxBackupIndex = 0;
    }
    if (_maxFileSize > 0) {
      report(LOG_WARN,
             "Appender \"%s\" has maxFileSize set without specifying a filename, ignoring", name);
      _maxFileSize = 0;
    }
  }
  if (_maxBackupIndex != 0 && _maxFileSize == 0) {
    report(LOG_WARN,
           "Appender \"%s\" has maxBackupIndex set without specifying maxFileSize, ignoring", name);
    _maxBackupIndex = 0;
  }
  if (_serialization != LOG_SERIALIZATION_TEXT && _serialization != LOG_SERIALIZATION_JSON) {
    report(LOG_WARN,
           "Appender \"%s\" has _serialization set to non-normative value, BUG!, ignoring "
           "pointedly.",
           name);
    _serialization = LOG_SERIALIZATION_TEXT;
  }
  if (_suspended) {
    _to_devnull.store(true);
  } else if (!_path.empty()) {
    // A missing directory or an unwritable file shows up now, not at the first message.
    LogMutexScope lock(_mutex);
    open_file();
    _fd.closeQuietly();
  }
}

void LogFileAppender::resetAll(bool delete_named) {
  Thread::assertNotMultithreadedYet();
  root()->resetToDefaults(2);
  AppenderTable &t = appenderTable();
  std::map<Str, LogFileAppender *, std::less<>> old;
  {
    LogMutexScope lock(&t.mutex);
    if (delete_named) {
      old.swap(t.appenders);
    } else {
      old = t.appenders;
    }
  }
  for (auto &[name, a] : old) {
    if (delete_named) {
      delete a;
    } else if (!a->_path.empty()) {
      LogMutexScope lock(a->_mutex);
      a->writePending();
      a->_fd.closeQuietly();
    }
  }
}

void LogFileAppender::suspendAll(StrSegment substring) {
  for (LogFileAppender *a : namedAppenders()) a->suspend(substring);
}

void LogFileAppender::unsuspendAll(const LogSubstitutions &substitutions) {
  for (LogFileAppender *a : namedAppenders()) a->unsuspend(substitutions);
}

void LogFileAppender::fixUpAll(bool allow_stderr) {
  AppenderTable &t = appenderTable();
  std::vector<std::pair<Str, LogFileAppender *>> all;
  {
    LogMutexScope lock(&t.mutex);
    for (auto &e : t.appenders) all.emplace_back(e.first, e.second);
  }
  for (auto &[name, a] : all) a->fixUp(name.c_str(), allow_stderr);
}

bool LogFileAppender::setPropertyAt(const char *name, StrSegment key, StrSegment value,
                                    uint32_t allowed) {
  static const LogSubstitutions no_substitutions;
  static const std::set<Str, std::less<>> no_paths;
  if (name != nullptr) {
    LogFileAppender *a = find(name, false);
    return a != nullptr && a->setProperty(key, value, allowed, no_substitutions, no_paths);
  }
  bool ok = true;
  for (LogFileAppender *a : namedAppenders()) {
    ok = a->setProperty(key, value, allowed, no_substitutions, no_paths) && ok;
  }
  return ok;
}

}  // namespace morvek
