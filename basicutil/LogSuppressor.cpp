#include "basicutil/LogSuppressor.h"

#include "basicutil/LogInternal.h"
#include "basicutil/Logger.h"

namespace morvek {

namespace {

// Seconds and microseconds, the plain print of a time value.
void appendTimeval(Str &out, const Timeval &t) {
  out.appendf("%lld.%06d", static_cast<long long>(t.seconds()), t.microseconds());
}

}  // namespace

LogSuppressor::LogSuppressor(Logger *logger, uint32_t period_seconds, uint32_t max_similar)
    : _logger(logger),
      _max_similar(max_similar),
      _period_seconds(period_seconds),
      _clock(&Timeval::now) {}

void LogSuppressor::setClock(Clock clock) {
  LogMutexScope lock(&_mutex);
  _clock = clock != nullptr ? clock : &Timeval::now;
}

size_t LogSuppressor::entryCount() {
  LogMutexScope lock(&_mutex);
  return _messages.size();
}

void LogSuppressor::log(int level, int saved_errno, LogFormatCallback *cb, const char *format,
                        va_list ap) {
  LogMutexScope lock(&_mutex);
  Str text;
  Logger::vformat(text, saved_errno, cb, format, ap);
  std::string_view key(format);
  auto it = _messages.find(key);
  if (it == _messages.end()) {
    LogSuppressedMessage m{Str(key), text, level, 0, _max_similar, _period_seconds, MAX_TIME};
    it = _messages.emplace(Str(key), std::move(m)).first;
  }
  // Every message on the channel ages all entries: that is what brings reports out.
  Timeval now = _clock();
  for (auto e = _messages.begin(); e != _messages.end();) {
    if (step(e->second, e == it ? &text : nullptr, now)) {
      e = _messages.erase(e);
    } else {
      ++e;
    }
  }
}

bool LogSuppressor::step(LogSuppressedMessage &entry, const Str *text, const Timeval &now) {
  bool fresh = text != nullptr && !text->empty();
  if (fresh) ++entry.count;
  StrSegment shown = fresh ? StrSegment(*text) : StrSegment(entry.text);
  bool expired = !entry.first.isMax() && now > entry.first &&
                 usecDifference(now, entry.first) / 1000000 > int64_t(entry.period_seconds);
  if (!fresh && !expired) return false;
  if (expired || entry.count <= entry.max_similar) {
    if (entry.count > entry.max_similar) {
      report(entry, shown, entry.count - entry.max_similar);
      return true;
    }
    _logger->deliverSegment(entry.level, shown);
    entry.first = MAX_TIME;
    return false;
  }
  if (now < entry.first) entry.first = now;
  return false;
}

void LogSuppressor::report(const LogSuppressedMessage &entry, StrSegment text, uint32_t held) {
  Str line(text);
  line.appendf("\n\t\t\t\t%u similar messages suppressed.  First occurred at: ", held);
  appendTimeval(line, entry.first);
  _logger->deliverSegment(entry.level, line);
}

void LogSuppressor::flushSuppressed() {
  LogMutexScope lock(&_mutex);
  for (auto &[format, entry] : _messages) {
    if (entry.count == 0) continue;
    if (entry.count > entry.max_similar) {
      report(entry, entry.text, entry.count - entry.max_similar);
    } else {
      _logger->deliverSegment(entry.level, entry.text);
    }
  }
  _messages.clear();
}

}  // namespace morvek
