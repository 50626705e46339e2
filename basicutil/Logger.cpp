#include "basicutil/Logger.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <map>
#include <mutex>

#include "basicutil/LogFileAppender.h"
#include "basicutil/LogInternal.h"
#include "basicutil/LogSuppressor.h"
#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

const char *const LEVEL_NAMES[] = {"DEBUG", "INFO",  "NOTICE", "WARN", "ERROR",
                                   "CRIT",  "ALERT", "FATAL",  "EMERG"};
const int COARSE_LEVELS[] = {1, 2, 2, 3, 4, 4, 4, 5, 4};

// The channels this thread is delivering on right now. A message that comes back to one of them
// from inside its own delivery (an observer logging to its own channel) would deadlock on the
// channel mutex; it goes to emergencyLog instead.
struct DeliveryMark {
  const LogChannel *channel;
  DeliveryMark *prev;
};
constinit thread_local DeliveryMark *delivering = nullptr;

class ScopedDeliveryMark {
 public:
  explicit ScopedDeliveryMark(const LogChannel *c) : _mark{c, delivering} { delivering = &_mark; }
  ~ScopedDeliveryMark() { delivering = _mark.prev; }
  static bool active(const LogChannel *c) {
    for (const DeliveryMark *m = delivering; m != nullptr; m = m->prev) {
      if (m->channel == c) return true;
    }
    return false;
  }

 private:
  DeliveryMark _mark;
};

constinit std::atomic<bool> logger_initialized{false};
constinit std::atomic<bool> quiet_stderr{false};
constinit std::atomic<bool> start_time_set{false};
Timeval start_time;  // written once, before start_time_set

// Everything below is made on first use and never freed: global Loggers in other files may run
// before this file's static initialisers, and log from static destructors after them.
struct ChannelTable {
  PthreadMutex mutex;  // a leaf: nothing else is locked while it is held
  std::map<Str, LogChannel *, std::less<>> channels;
};

ChannelTable &channelTable() {
  static ChannelTable *table = new ChannelTable;
  return *table;
}

LogChannel *defaultInternalChannel() {
  static LogChannel *channel = new LogChannel;
  return channel;
}

Logger &internalLogger() {
  static Logger *logger = new Logger("Logger");
  return *logger;
}

struct ChannelDefaults {
  int level;
  bool level_explicit;
  std::vector<LogAppender *> appenders;
};

ChannelDefaults rootDefaults() {
  LogChannel *root = Logger::rootChannel();
  LogMutexScope lock(root->mutex);
  return {root->level.load(std::memory_order_relaxed), root->level_explicit, root->appenders};
}

LogChannel *findOrCreateChannelLocked(ChannelTable &t, StrSegment name,
                                      const ChannelDefaults &defaults) {
  auto it = t.channels.find(name.view());
  if (it != t.channels.end()) return it->second;
  LogChannel *c = new LogChannel;
  c->level.store(defaults.level, std::memory_order_relaxed);
  c->level_explicit = defaults.level_explicit;
  c->appenders = defaults.appenders;
  t.channels.emplace(Str(name), c);
  return c;
}

LogChannel *findOrCreateChannel(StrSegment name) {
  // The root is read first and unlocked: no channel mutex is ever held with the table's.
  ChannelDefaults defaults = rootDefaults();
  ChannelTable &t = channelTable();
  LogMutexScope lock(&t.mutex);
  return findOrCreateChannelLocked(t, name, defaults);
}

std::vector<LogChannel *> allChannels() {
  ChannelTable &t = channelTable();
  LogMutexScope lock(&t.mutex);
  std::vector<LogChannel *> out;
  out.reserve(t.channels.size());
  for (auto &entry : t.channels) out.push_back(entry.second);
  return out;
}

// Bytes below 128 that aren't printable in the "C" locale, tab excepted; fixed, so it is made
// at compile time rather than under a guard at first use.
constexpr std::array<bool, 256> ESCAPE_TABLE = [] {
  std::array<bool, 256> t{};
  for (int i = 0; i < 128; ++i) t[i] = (i < 0x20 && i != '\t') || i == 0x7f;
  return t;
}();

inline bool escapeTable(unsigned char c) { return ESCAPE_TABLE[c]; }

}  // namespace

// The lists of loggers waiting for their channel, and of those to refresh on reconfiguration.
struct LoggerInitData {
  PthreadMutex mutex;
  Logger *uninitialized_loggers = nullptr;
  Logger *might_need_reinit_loggers = nullptr;

  static LoggerInitData *get() {
    static LoggerInitData *data = new LoggerInitData;
    return data;
  }
  static void unlink(Logger **list, Logger *logger) {
    for (Logger **pp = list; *pp != nullptr; pp = &(*pp)->_next) {
      if (*pp == logger) {
        *pp = logger->_next;
        return;
      }
    }
  }
};

const char *logLevelName(int level) {
  return level >= 0 && level <= LOG_EMERG ? LEVEL_NAMES[level] : "???";
}

bool logLevelFromName(StrSegment name, int &level) {
  for (int i = 0; i <= LOG_EMERG; ++i) {
    if (name.view() == LEVEL_NAMES[i]) {
      level = i;
      return true;
    }
  }
  return false;
}

LogObserver::~LogObserver() = default;
LogFormatCallback::~LogFormatCallback() = default;
void LogFormatCallback::prepend(Str &) {}
void LogFormatCallback::append(Str &) {}
LogAppender::~LogAppender() = default;
Logger::iterate_channels_callback::~iterate_channels_callback() = default;

LogChannel::LogChannel()
    : level(LOG_INFO), level_explicit(false), buffered(false), mutex(new PthreadMutex) {}

// ---------------------------------------------------------------------------------------------
// Escaping

StrSegment LoggerEscaped::_escape(bool escape_all) {
  if (_bypass) return _unescaped;
  if (!_escaped.empty()) return _escaped;
  if (_unescaped.empty()) return _unescaped;
  auto qualifies = [escape_all](unsigned char c) {
    return escape_all ? escapeTable(c) : (c == '\r' || c == '\n');
  };
  size_t i = 0;
  while (i < _unescaped.size() && !qualifies(static_cast<unsigned char>(_unescaped[i]))) ++i;
  if (i == _unescaped.size()) return _unescaped;
  MV_ASSERT(!_escapedStorage.has_value());
  Str &out = _escapedStorage.emplace();
  out.reserve(_unescaped.size() + 16);
  out.append(_unescaped.data(), i);
  static const char hex[] = "0123456789abcdef";
  for (; i < _unescaped.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(_unescaped[i]);
    if (!qualifies(c)) {
      out.push_back(static_cast<char>(c));
    } else if (c == '\r') {
      out.append("\\r");
    } else if (c == '\n') {
      out.append("\\n");
    } else {
      out.append("\\x");
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 15]);
    }
  }
  _escaped = out.segment();
  return _escaped;
}

// ---------------------------------------------------------------------------------------------
// Construction and initialisation

Logger::Logger(const char *name) { construct(name); }

Logger::Logger(const char *name, bool suppress, int period_seconds, int max_similar) {
  construct(name);
  if (suppress) {
    _suppressor = new LogSuppressor(this, static_cast<uint32_t>(std::max(period_seconds, 0)),
                                    static_cast<uint32_t>(std::max(max_similar, 0)));
  }
}

Logger::Logger(const char *name, LogChannel *channel)
    : _name(name),
      _name_len(strlen(name)),
      _channel(channel),
      _next(nullptr),
      _suppressor(nullptr) {
  MV_ASSERT((reinterpret_cast<uintptr_t>(this) & LoggerStreamAccumulator::DYNAMIC_FLAG) == 0);
  MV_ASSERT(channel != nullptr);
}

void Logger::construct(const char *name) {
  MV_ASSERT((reinterpret_cast<uintptr_t>(this) & LoggerStreamAccumulator::DYNAMIC_FLAG) == 0);
  MV_ASSERT(name != nullptr);
  _name_len = strlen(name);
  _channel.store(nullptr, std::memory_order_relaxed);
  _next = nullptr;
  _suppressor = nullptr;
  LoggerInitData *initPtr = LoggerInitData::get();
  LogMutexScope lock(&initPtr->mutex);
  if (logger_initialized.load(std::memory_order_acquire)) {
    _channel.store(findOrCreateChannel(StrSegment(name, _name_len)), std::memory_order_release);
    _next = initPtr->might_need_reinit_loggers;
    initPtr->might_need_reinit_loggers = this;
  } else {
    _next = initPtr->uninitialized_loggers;
    initPtr->uninitialized_loggers = this;
  }
  // Last: a set name is what says the constructor has run.
  _name = name;
}

Logger::~Logger() {
  // Channels outlive handles and the fields stay as they are (a static destructor may still log
  // through a global handle); only the lists must forget a handle that goes away.
  LoggerInitData *initPtr = LoggerInitData::get();
  LogMutexScope lock(&initPtr->mutex);
  LoggerInitData::unlink(&initPtr->uninitialized_loggers, this);
  LoggerInitData::unlink(&initPtr->might_need_reinit_loggers, this);
}

void Logger::flushSuppressed() {
  if (_suppressor != nullptr) _suppressor->flushSuppressed();
}

bool Logger::shouldEscape() const { return true; }
bool Logger::shouldTrim() const { return true; }

void Logger::initialize() {
  LoggerInitData *initPtr = LoggerInitData::get();
  LogMutexScope lock(&initPtr->mutex);
  MV_ASSERT(initPtr->uninitialized_loggers == nullptr ||
            initPtr->might_need_reinit_loggers == nullptr);
  if (!start_time_set.load(std::memory_order_acquire)) {
    start_time = Timeval::now();
    start_time_set.store(true, std::memory_order_release);
  }
  for (Logger *l : {initPtr->might_need_reinit_loggers, initPtr->uninitialized_loggers}) {
    for (; l != nullptr; l = l->_next) {
      l->_channel.store(findOrCreateChannel(StrSegment(l->_name, l->_name_len)),
                        std::memory_order_release);
    }
  }
  if (initPtr->uninitialized_loggers != nullptr) {
    initPtr->might_need_reinit_loggers = initPtr->uninitialized_loggers;
    initPtr->uninitialized_loggers = nullptr;
  }
  logger_initialized.store(true, std::memory_order_release);
}

bool Logger::isInitialized() { return logger_initialized.load(std::memory_order_acquire); }

Timeval Logger::getStartTime() {
  return start_time_set.load(std::memory_order_acquire) ? start_time : Timeval();
}

LogAppender *Logger::rootAppender() {
  static LogFileAppender *appender = new LogFileAppender(2);
  return appender;
}

LogChannel *Logger::channelFor(StrSegment name) { return findOrCreateChannel(name); }

void Logger::resetChannels() {
  Thread::assertNotMultithreadedYet();
  // Old records stay valid for handles that still point at them, but must not reach
  // appenders that the new configuration is about to delete.
  std::vector<LogChannel *> old = allChannels();
  old.push_back(rootChannel());
  for (LogChannel *c : old) {
    LogMutexScope lock(c->mutex);
    c->appenders.clear();
    c->buffered = false;
  }
  {
    // Forgotten by name, kept all the same: a handle may still point at one.
    static std::vector<LogChannel *> *retired = new std::vector<LogChannel *>;
    ChannelTable &t = channelTable();
    LogMutexScope lock(&t.mutex);
    for (auto &entry : t.channels) retired->push_back(entry.second);
    t.channels.clear();
  }
  LogChannel *root = rootChannel();
  root->level.store(LOG_INFO, std::memory_order_relaxed);
  root->level_explicit = false;
}

LogChannel *Logger::rootChannel() {
  static LogChannel *channel = new LogChannel;
  return channel;
}

LoggerSimple::LoggerSimple(const char *name) : Logger(name, new LogChannel) {}
bool LoggerSimple::shouldEscape() const { return false; }
bool LoggerSimple::shouldTrim() const { return false; }

// ---------------------------------------------------------------------------------------------
// The message path

MORVEK_LOGGER_EARLY void Logger::log(int level, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vlogAt(level, nullptr, format, ap);
  va_end(ap);
}

MORVEK_LOGGER_EARLY void Logger::vlogAt(int level, LogFormatCallback *cb, const char *format,
                                        va_list ap) {
  int saved_errno = errno;
  if (!isConstructed()) {
    // Used from a static initialiser before our own constructor ran: no channel, no level.
    try {
      Str text;
      text.vappendf(format, ap);
      emergencyLog(level, text);
    } catch (...) {
    }
    errno = saved_errno;
    return;
  }
  if (!isEnabledFor(level)) return;
  if (_suppressor != nullptr) {
    try {
      _suppressor->log(level, saved_errno, cb, format, ap);
    } catch (...) {
    }
    errno = saved_errno;
    return;
  }
  LogEvent event{Timeval::now(), this, level};
  finish_vlog(event, saved_errno, cb, format, ap);
  errno = saved_errno;
}

namespace {

// Holds the thread's scratch for one message; released on every way out.
class ScopedClaim {
 public:
  ScopedClaim(LoggerStreamAccumulator &acc, const Logger *logp) : _acc(acc) {
    uintptr_t word = reinterpret_cast<uintptr_t>(logp);
    MV_ASSERT(logp != nullptr);
    MV_ASSERT((word & LoggerStreamAccumulator::DYNAMIC_FLAG) == 0);
    _acc.inst_and_flag = word;
    _acc._text.clear();
  }
  ~ScopedClaim() {
    _acc._text.clear();
    _acc.inst_and_flag = 0;
  }
  ScopedClaim(const ScopedClaim &) = delete;
  ScopedClaim &operator=(const ScopedClaim &) = delete;

 private:
  LoggerStreamAccumulator &_acc;
};

}  // namespace

void Logger::finish_vlog(const LogEvent &event, int saved_errno, LogFormatCallback *cb,
                         const char *format, va_list ap) {
  if (Thread *thr = Thread::getCurrent()) {
    per_thread_state *scratchp = thr->getScratch();
    MV_ASSERT(scratchp != nullptr);
    LoggerStreamAccumulator &acc = scratchp->_log_buffer;
    if (acc.inst_and_flag == 0) {
      ScopedClaim claim(acc, this);
      finish_vlog_s(&acc._text, event, saved_errno, cb, format, ap);
      return;
    }
  }
  // The scratch is busy (a message is being built while this one arrives) or there is none.
  try {
    Str local;
    finish_vlog_s(&local, event, saved_errno, cb, format, ap);
  } catch (...) {
  }
}

void Logger::finish_vlog_s(Str *scratchp, const LogEvent &event, int saved_errno,
                           LogFormatCallback *cb, const char *format, va_list ap) {
  MV_ASSERT(scratchp->empty());
  try {
    if (cb != nullptr) {
      errno = saved_errno;
      cb->prepend(*scratchp);
    }
    errno = saved_errno;
    scratchp->vappendf(format, ap);
    if (cb != nullptr) {
      errno = saved_errno;
      cb->append(*scratchp);
    }
  } catch (...) {
    // Whatever was rendered still goes out.
  }
  try {
    deliver(event, *scratchp);
  } catch (...) {
    emergencyLog(event.level, *scratchp);
  }
}

void Logger::deliver(const LogEvent &event, StrSegment message) {
  LogChannel *c = getChannel();
  if (ScopedDeliveryMark::active(c)) {
    emergencyLog(event.level, message);
    return;
  }
  ScopedDeliveryMark mark(c);
  LoggerEscaped escaped(message, shouldEscape());
  // Further appenders are served without the channel mutex, from a copy of the list.
  LogAppender *rest[8];
  size_t nrest = 0;
  std::vector<LogAppender *> more;
  bool buffered;
  {
    LogMutexScope lock(c->mutex);
    buffered = c->buffered;
    if (c->appenders.empty()) {
      rootAppender()->append(event, escaped, &c->observers, buffered);
      return;
    }
    c->appenders[0]->append(event, escaped, &c->observers, buffered);
    for (size_t i = 1; i < c->appenders.size(); ++i) {
      if (nrest < 8) {
        rest[nrest++] = c->appenders[i];
      } else {
        more.push_back(c->appenders[i]);
      }
    }
  }
  for (size_t i = 0; i < nrest; ++i) rest[i]->append(event, escaped, nullptr, buffered);
  for (LogAppender *a : more) a->append(event, escaped, nullptr, buffered);
}

MORVEK_LOGGER_EARLY void Logger::logSegment(int level, StrSegment text) {
  int saved_errno = errno;
  if (!isConstructed()) {
    emergencyLog(level, text);
    errno = saved_errno;
    return;
  }
  if (!isEnabledFor(level)) return;
  deliverSegment(level, text);
  errno = saved_errno;
}

void Logger::deliverSegment(int level, StrSegment text) {
  int saved_errno = errno;
  LogEvent event{Timeval::now(), this, level};
  try {
    deliver(event, text);
  } catch (...) {
    emergencyLog(level, text);
  }
  errno = saved_errno;
}

void Logger::debugSplitLines(const char *data, size_t size) {
  if (!isDebugEnabled()) return;
  size_t start = 0;
  for (size_t i = 0; i <= size; ++i) {
    if (i == size || data[i] == '\n' || data[i] == '\r') {
      if (i > start) logSegment(LOG_DEBUG, StrSegment(data + start, i - start));
      start = i + 1;
    }
  }
}

void Logger::format(Str &out, const char *fmt, ...) {
  int errnum = errno;
  va_list ap;
  va_start(ap, fmt);
  vformat(out, errnum, nullptr, fmt, ap);
  va_end(ap);
}

void Logger::formatWithErrno(Str &out, int errnum, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vformat(out, errnum, nullptr, fmt, ap);
  va_end(ap);
}

void Logger::vformat(Str &out, int errnum, LogFormatCallback *cb, const char *fmt, va_list ap) {
  int saved_errno = errno;
  if (cb != nullptr) {
    errno = errnum;
    cb->prepend(out);
  }
  errno = errnum;
  out.vappendf(fmt, ap);
  if (cb != nullptr) {
    errno = errnum;
    cb->append(out);
  }
  errno = saved_errno;
}

void Logger::emergencyLog(int level, StrSegment text) {
  if (quiet_stderr.load(std::memory_order_relaxed)) return;
  int saved_errno = errno;
  try {
    Str buf;
    const char *name = logLevelName(level);
    buf.reserve(strlen(name) + 3 + text.size() + 1);
    buf.append(name);
    buf.append(" - ");
    buf.append(text.data(), text.size());
    buf.push_back('\n');
    ssize_t ignored = ::write(2, buf.data(), buf.size());
    (void)ignored;
  } catch (...) {
  }
  errno = saved_errno;
}

void Logger::logInternal(LogAppender *skip, int level, const char *format, ...) {
  int saved_errno = errno;
  Logger &self = internalLogger();
  LogChannel *c = self._channel.load(std::memory_order_acquire);
  if (c == nullptr) c = defaultInternalChannel();
  if (c->level.load(std::memory_order_relaxed) > level) return;
  try {
    Str text;
    va_list ap;
    va_start(ap, format);
    text.vappendf(format, ap);
    va_end(ap);
    bool received = false;
    if (!ScopedDeliveryMark::active(c)) {
      ScopedDeliveryMark mark(c);
      LogEvent event{Timeval::now(), &self, level};
      LoggerEscaped escaped(text, self.shouldEscape());
      std::vector<LogAppender *> targets;
      bool buffered;
      {
        LogMutexScope lock(c->mutex);
        targets = c->appenders;
        buffered = c->buffered;
      }
      if (targets.empty()) targets.push_back(rootAppender());
      for (LogAppender *a : targets) {
        if (a == skip) continue;
        LogMutexScope lock(c->mutex);
        a->append(event, escaped, &c->observers, buffered);
        received = true;
      }
    }
    if (!received) emergencyLog(level, text);
  } catch (...) {
  }
  errno = saved_errno;
}

// ---------------------------------------------------------------------------------------------
// Stream style

MORVEK_LOGGER_EARLY LoggerStreamAccumulator *Logger::openStream(int level) {
  if (!isConstructed()) {
    return LoggerStreamAccumulator::get(
        reinterpret_cast<const Logger *>(LoggerStreamAccumulator::NOT_YET_CONSTRUCTED));
  }
  if (!isEnabledFor(level)) return nullptr;
  return LoggerStreamAccumulator::get(this);
}

void Logger::endStream(LoggerStreamAccumulator *acc, int level) {
  if (acc != nullptr) LoggerStreamAccumulator::do_log(acc, level);
}

LoggerStreamAccumulator *LoggerStreamAccumulator::get(const Logger *logp) {
  uintptr_t word = reinterpret_cast<uintptr_t>(logp);
  MV_ASSERT(logp != nullptr);
  MV_ASSERT((word & DYNAMIC_FLAG) == 0);
  if (Thread *thr = Thread::getCurrent()) {
    per_thread_state *scratchp = thr->getScratch();
    MV_ASSERT(scratchp != nullptr);
    LoggerStreamAccumulator &acc = scratchp->_log_buffer;
    uintptr_t old_logger = acc.inst_and_flag;
    if (old_logger == 0) {
      acc.inst_and_flag = word;
      acc._text.clear();
      return &acc;
    }
    MV_ASSERT((old_logger & DYNAMIC_FLAG) == 0);
  }
  LoggerStreamAccumulator *acc = new LoggerStreamAccumulator;
  acc->inst_and_flag = word | DYNAMIC_FLAG;
  return acc;
}

void LoggerStreamAccumulator::do_log(LoggerStreamAccumulator *acc, int level) {
  MV_ASSERT(acc != nullptr);
  MV_ASSERT(acc->inst_and_flag != 0);
  uintptr_t inst = acc->inst_and_flag & ~DYNAMIC_FLAG;
  if (!acc->_text.empty()) {
    if (inst == NOT_YET_CONSTRUCTED) {
      Logger::emergencyLog(level, acc->_text);
    } else {
      // The level was tested when the stream was opened.
      reinterpret_cast<Logger *>(inst)->deliverSegment(level, acc->_text);
    }
  }
  discard(acc);
}

void LoggerStreamAccumulator::discard(LoggerStreamAccumulator *acc) {
  if (acc->inst_and_flag & DYNAMIC_FLAG) {
    delete acc;
  } else {
    acc->inst_and_flag = 0;
  }
}

LoggerStreamAccumulator &LoggerStreamAccumulator::operator<<(long long v) {
  _text.appendf("%lld", v);
  return *this;
}

LoggerStreamAccumulator &LoggerStreamAccumulator::operator<<(unsigned long long v) {
  _text.appendf("%llu", v);
  return *this;
}

LoggerStreamAccumulator &LoggerStreamAccumulator::operator<<(double v) {
  _text.appendf("%g", v);
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Run-time control

void Logger::clearAppenders(const char *channel_name) {
  std::vector<LogChannel *> targets;
  if (channel_name != nullptr) {
    ChannelTable &t = channelTable();
    LogMutexScope lock(&t.mutex);
    auto it = t.channels.find(std::string_view(channel_name));
    if (it != t.channels.end()) targets.push_back(it->second);
  } else {
    targets = allChannels();
    targets.push_back(rootChannel());
  }
  for (LogChannel *c : targets) {
    LogMutexScope lock(c->mutex);
    c->appenders.clear();
  }
}

void Logger::addAppender(const char *channel_name, LogAppender *appender) {
  LogChannel *c = channel_name != nullptr ? findOrCreateChannel(channel_name) : rootChannel();
  LogMutexScope lock(c->mutex);
  c->appenders.push_back(appender);
}

bool Logger::setLevel(const char *channel_name, const char *level_name, Str *previous_level_name) {
  int level;
  if (level_name == nullptr || !logLevelFromName(level_name, level)) return false;
  ChannelDefaults defaults = rootDefaults();
  ChannelTable &t = channelTable();
  LogMutexScope lock(&t.mutex);
  if (channel_name != nullptr) {
    LogChannel *c = findOrCreateChannelLocked(t, channel_name, defaults);
    if (previous_level_name) *previous_level_name = logLevelName(c->level.load());
    c->level.store(level, std::memory_order_relaxed);
    c->level_explicit = true;
    return true;
  }
  LogChannel *root = rootChannel();
  if (previous_level_name) *previous_level_name = logLevelName(root->level.load());
  if (!root->level_explicit) root->level.store(level, std::memory_order_relaxed);
  for (auto &entry : t.channels) {
    if (!entry.second->level_explicit) entry.second->level.store(level, std::memory_order_relaxed);
  }
  return true;
}

bool Logger::setLevelOnAllChannels(const char *level_name) {
  int level;
  if (level_name == nullptr || !logLevelFromName(level_name, level)) return false;
  ChannelTable &t = channelTable();
  LogMutexScope lock(&t.mutex);
  LogChannel *root = rootChannel();
  root->level.store(level, std::memory_order_relaxed);
  root->level_explicit = true;
  for (auto &entry : t.channels) {
    entry.second->level.store(level, std::memory_order_relaxed);
    entry.second->level_explicit = true;
  }
  return true;
}

int Logger::getCoarseLevel(StrSegment channel_name) {
  if (!isInitialized()) return 0;
  ChannelTable &t = channelTable();
  LogMutexScope lock(&t.mutex);
  auto it = t.channels.find(channel_name.view());
  if (it == t.channels.end()) return 0;
  int level = it->second->level.load(std::memory_order_relaxed);
  return level >= 0 && level <= LOG_EMERG ? COARSE_LEVELS[level] : 0;
}

void Logger::iterate_channels(iterate_channels_callback &callback) {
  struct Entry {
    Str name;
    int level;
    bool buffered;
  };
  std::vector<Entry> entries;
  {
    ChannelTable &t = channelTable();
    LogMutexScope lock(&t.mutex);
    for (auto &e : t.channels) {
      entries.push_back({e.first, e.second->level.load(), e.second->buffered});
    }
  }
  // Called with no lock held, so that the callback may change levels.
  for (const Entry &e : entries) callback.visit(e.name, logLevelName(e.level), e.buffered);
}

void Logger::setQuietStderr(bool quiet) { quiet_stderr.store(quiet); }
bool Logger::getQuietStderr() { return quiet_stderr.load(); }

// ---------------------------------------------------------------------------------------------
// Observers

void Logger::registerLogObserver(Logger *logger, LogObserver *observer) {
  MV_ASSERT(observer);
  LogChannel *lc = logger->_channel.load(std::memory_order_acquire);
  MV_ASSERT(lc);
  LogMutexScope lock(lc->mutex);
  lc->observers.push_back(observer);
}

void Logger::unregisterLogObserver(Logger *logger, LogObserver *observer) {
  MV_ASSERT(observer);
  LogChannel *lc = logger->_channel.load(std::memory_order_acquire);
  MV_ASSERT(lc);
  LogMutexScope lock(lc->mutex);
  for (auto it = lc->observers.begin(); it != lc->observers.end(); ++it) {
    if (*it == observer) {
      lc->observers.erase(it);
      return;
    }
  }
}

ScopedLogObserverRegistration::ScopedLogObserverRegistration(Logger *logger, LogObserver *observer)
    : _logger(logger), _observer(observer) {
  MV_ASSERT(_logger);
  MV_ASSERT(_observer);
  Logger::registerLogObserver(_logger, _observer);
}

ScopedLogObserverRegistration::ScopedLogObserverRegistration(
    ScopedLogObserverRegistration &&other) noexcept
    : _logger(other._logger), _observer(other._observer) {
  other._logger = nullptr;
}

ScopedLogObserverRegistration &ScopedLogObserverRegistration::operator=(
    ScopedLogObserverRegistration &&other) noexcept {
  if (this != &other) {
    if (_logger != nullptr) Logger::unregisterLogObserver(_logger, _observer);
    _logger = other._logger;
    _observer = other._observer;
    other._logger = nullptr;
  }
  return *this;
}

ScopedLogObserverRegistration::~ScopedLogObserverRegistration() {
  if (_logger != nullptr) Logger::unregisterLogObserver(_logger, _observer);
}

}  // namespace morvek
