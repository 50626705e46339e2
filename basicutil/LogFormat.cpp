#include "basicutil/LogFormat.h"

#include <time.h>

#include <algorithm>
#include <ctime>

#include "basicutil/BasicConversions.h"
#include "basicutil/Logger.h"
#include "basicutil/Thread.h"
#include "basicutil/TimeFormat.h"
#include "basicutil/TimeRender.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

const char DEFAULT_DATE_FORMAT[] = "%Y-%m-%d %H:%M:%S,%l";
constexpr uint32_t MAX_MIN_WIDTH = 65536;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Dates: a compiled TimeFormat rendered for the record's local time by the library's renderer.

struct LogDateFormat {
  TimeFormat format;
};

namespace {

void renderLogDate(Str &out, const LogDateFormat &f, const struct tm &tm, int32_t usec) {
  render(f.format, out, tm, usec, TIME_RENDER_LOCAL);
}

// The platform's conversion takes a process-wide lock and looks at the zone each time; records
// come many to a second, so each thread keeps its last second's result.
void localTimeCached(int64_t seconds, struct tm *tm) {
  struct Cache {
    int64_t seconds = INT64_MIN;
    struct tm tm;
  };
  static thread_local Cache cache;
  if (cache.seconds != seconds) {
    time_t secs = static_cast<time_t>(seconds);
    if (localtime_r(&secs, &cache.tm) == nullptr) memset(&cache.tm, 0, sizeof cache.tm);
    cache.seconds = seconds;
  }
  *tm = cache.tm;
}

LogDateFormat *makeLogDate(const char *brace, size_t len) {
  StrSegment text(brace, len);
  if (text.empty() || text == "ISO8601") {
    text = DEFAULT_DATE_FORMAT;
  } else if (text == "DATE") {
    text = "%d %b %Y %H:%M:%S,%l";
  } else if (text == "ABSOLUTE") {
    text = "%H:%M:%S,%l";
  }
  auto *f = new LogDateFormat;
  if (!f->format.set(text)) f->format.set(DEFAULT_DATE_FORMAT);
  return f;
}

// ---------------------------------------------------------------------------------------------

void appendFilled(Str &out, StrSegment v, const LogFormatAtom &a) {
  size_t n = v.size();
  if (n > a.max_width) {
    out.append(v.data(), a.max_width);
  } else if (n < a.min_width) {
    if (a.fill == 0) {
      out.append(v.data(), n);
      out.append(a.min_width - n, ' ');
    } else {
      out.append(a.min_width - n, a.fill);
      out.append(v.data(), n);
    }
  } else {
    out.append(v.data(), n);
  }
}

void appendFilledNumber(Str &out, long long v, const LogFormatAtom &a) {
  char buf[24];
  appendFilled(out, StrSegment(buf, writeDecimalI64(buf, v)), a);
}

uint32_t parseWidth(const char *&p, const char *end) {
  uint64_t v = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    v = v * 10 + static_cast<uint64_t>(*p - '0');
    if (v > 0xFFFFFFFE) v = 0xFFFFFFFE;
  }
  return static_cast<uint32_t>(v);
}

}  // namespace

LogFormat::LogFormat(StrSegment pattern) : _pattern(pattern) {
  const char *p = _pattern.data();
  const char *end = p + _pattern.size();
  while (p < end) {
    if (*p != '%') {
      const char *lit = p;
      while (p < end && *p != '%') ++p;
      // "%%" keeps its first "%" in the literal and resumes behind the second.
      bool percent = p + 1 < end && p[1] == '%';
      if (percent) ++p;
      size_t n = static_cast<size_t>(p - lit);
      _atoms.push_back({LFMT_LITERAL, lit, nullptr, n, uint32_t(n), uint32_t(n)});
      if (percent) ++p;
      continue;
    }
    if (p + 1 < end && p[1] == '%') {
      _atoms.push_back({LFMT_LITERAL, p, nullptr, 1, 1, 1});
      p += 2;
      continue;
    }
    MV_ASSERT(*p == '%');
    ++p;
    LogFormatAtom a{LFMT_LITERAL, nullptr, nullptr, 0};
    if (p < end && *p == '0') {
      a.fill = '0';
      ++p;
    } else if (p < end && *p == '-') {
      a.fill = 0;
      ++p;
    }
    // A minimum width pads with real bytes: a typo of many digits must not eat the memory.
    a.min_width = std::min<uint32_t>(parseWidth(p, end), MAX_MIN_WIDTH);
    if (p < end && *p == '.') {
      ++p;
      a.max_width = parseWidth(p, end);
    }
    if (p >= end) break;
    char letter = *p++;
    const char *brace = nullptr;
    size_t brace_len = 0;
    if (p < end && *p == '{') {
      const char *close = static_cast<const char *>(memchr(p, '}', static_cast<size_t>(end - p)));
      if (close == nullptr) break;
      brace = p + 1;
      brace_len = static_cast<size_t>(close - brace);
      p = close + 1;
    }
    switch (letter) {
      case 'm':
        a.kind = LFMT_MESSAGE;
        break;
      case 'n':
        a.text = "\n";
        a.text_len = 1;
        a.min_width = a.max_width = 1;
        break;
      case 'c':
        a.kind = LFMT_LOGGER;
        break;
      case 'p':
        a.kind = LFMT_LEVEL;
        break;
      case 't':
        a.kind = LFMT_THREAD_NAME;
        break;
      case 'T':
        a.kind = LFMT_THREAD_ID;
        break;
      case 'r':
        a.kind = LFMT_MILLISECONDS;
        break;
      case 'R':
        a.kind = LFMT_SECONDS;
        break;
      case 'u':
        a.kind = LFMT_CLOCK;
        break;
      case 'd':
        // A bare %d takes the default form rather than failing.
        a.kind = LFMT_DATE;
        a.date = makeLogDate(brace, brace_len);
        break;
      default:
        continue;
    }
    _atoms.push_back(a);
  }
}

LogFormat::~LogFormat() {
  for (LogFormatAtom &a : _atoms) delete a.date;
}

const LogFormat *LogFormat::defaultLayout() {
  static const LogFormat *f = new LogFormat("%m%n");
  return f;
}
const LogFormat *LogFormat::basicLayout() {
  static const LogFormat *f = new LogFormat("%R %p %c %m%n");
  return f;
}
const LogFormat *LogFormat::simpleLayout() {
  static const LogFormat *f = new LogFormat("%-8p: %m%n");
  return f;
}
bool LogFormat::isShared(const LogFormat *f) {
  return f == defaultLayout() || f == basicLayout() || f == simpleLayout();
}

void LogFormat::render(Str &out, const LogEvent &event, uint32_t serialization,
                       uint64_t maxMessageSize, StrSegment message) const {
  bool json = serialization == LOG_SERIALIZATION_JSON;
  size_t start = out.size();
  if (json) out.push_back('{');
  struct tm tm;
  bool have_tm = false;
  for (const LogFormatAtom &a : _atoms) {
    if (a.kind > LFMT_DATE) {
      out.resize(start);
      out.append("_atoms array invalid!");
      return;
    }
    renderAtom(out, a, event, json, maxMessageSize, message, &tm, have_tm);
  }
}

void LogFormat::renderAtom(Str &out, const LogFormatAtom &a, const LogEvent &event, bool json,
                           uint64_t maxMessageSize, StrSegment message, struct tm *tm,
                           bool &have_tm) const {
  auto keyed = [&](const char *key, StrSegment value) {
    if (json) out.append(key);
    appendFilled(out, value, a);
    if (json) out.append("\",");
  };
  switch (a.kind) {
    case LFMT_MESSAGE: {
      if (json) out.append("\"data\":");
      size_t n = message.size();
      bool trim = event.logger == nullptr || event.logger->shouldTrim();
      if (a.max_width == LogFormatAtom::NO_MAX_WIDTH) {
        size_t trimTo = maxMessageSize < 800 ? 100 : maxMessageSize / 8;
        if (n > maxMessageSize && trim && n > trimTo) {
          renderTrimmedTo(out, message, n, trimTo);
        } else {
          appendFilled(out, message, a);
        }
      } else if (n > a.max_width) {
        if (a.max_width < 45) {
          out.append(message.data(), a.max_width);
        } else {
          renderTrimmedTo(out, message, n, a.max_width);
        }
      } else {
        appendFilled(out, message, a);
      }
      if (json) out.push_back('}');
      break;
    }
    case LFMT_LITERAL:
      if (!json || (a.text_len > 0 && a.text[0] == '\n')) {
        appendFilled(out, StrSegment(a.text, a.text_len), a);
      }
      break;
    case LFMT_LOGGER:
      keyed("\"component\":\"", event.logger != nullptr ? StrSegment(event.logger->getName(),
                                                                     event.logger->getNameLength())
                                                        : StrSegment());
      break;
    case LFMT_LEVEL:
      keyed("\"log_level\":\"", logLevelName(event.level));
      break;
    case LFMT_DATE: {
      if (!have_tm) {
        localTimeCached(event.time.seconds(), tm);
        have_tm = true;
      }
      if (a.min_width == 0 && a.max_width == LogFormatAtom::NO_MAX_WIDTH) {
        if (json) out.append("\"datetime\":\"");
        renderLogDate(out, *a.date, *tm, event.time.microseconds());
        if (json) out.append("\",");
      } else {
        Str text;
        renderLogDate(text, *a.date, *tm, event.time.microseconds());
        keyed("\"datetime\":\"", text);
      }
      break;
    }
    case LFMT_THREAD_NAME: {
      Thread *thr = Thread::getCurrent();
      StrSegment name = thr != nullptr ? StrSegment(thr->getName()) : StrSegment();
      if (name.size() > 100 && a.max_width == LogFormatAtom::NO_MAX_WIDTH) {
        renderTrimmedTo(out, name, name.size(), 100);
      } else {
        appendFilled(out, name, a);
      }
      break;
    }
    case LFMT_THREAD_ID:
      appendFilledNumber(out, static_cast<long long>(Thread::getCurrentThreadId()), a);
      break;
    case LFMT_MILLISECONDS:
    case LFMT_SECONDS: {
      long long ms = msecDifferenceRoundedUp(event.time, Logger::getStartTime());
      appendFilledNumber(out, a.kind == LFMT_SECONDS ? ms / 1000 : ms, a);
      break;
    }
    case LFMT_CLOCK:
      appendFilledNumber(out, static_cast<long long>(clock()), a);
      break;
  }
}

void LogFormat::renderTrimmedTo(Str &out, StrSegment message, size_t msgsize, size_t trimTo) {
  MV_ASSERT(msgsize > trimTo);
  MV_ASSERT(trimTo >= 45);
  // The marker's length depends on the count in it: iterate to a fixed point.
  char buf[46];
  size_t buflen = 0;
  size_t skipped = msgsize - trimTo;
  for (;;) {
    char digits[24];
    size_t nd = writeDecimalU64(digits, skipped);
    static const char head[] = " ...{skipping ", tail[] = " bytes}... ";
    buflen = 0;
    memcpy(buf, head, sizeof head - 1), buflen += sizeof head - 1;
    memcpy(buf + buflen, digits, nd), buflen += nd;
    memcpy(buf + buflen, tail, sizeof tail - 1), buflen += sizeof tail - 1;
    MV_ASSERT(trimTo > buflen);
    size_t next = msgsize - (trimTo - buflen);
    if (next == skipped) break;
    skipped = next;
  }
  MV_ASSERT(buflen < trimTo);
  size_t keep = trimTo - buflen;
  size_t emit_left, emit_right;
  if (keep >= 64) {
    emit_right = keep / 4;
    emit_left = keep - emit_right;
  } else {
    emit_right = 0;
    emit_left = keep + 4;
    buflen -= 4;  // ends in "bytes}"
  }
  MV_ASSERT(emit_left + buflen + emit_right == trimTo);
  size_t head = out.size();
  out.append(message.data(), emit_left);
  while (out.size() > head && out.back() == '\\') out.pop_back();
  out.append(buf, buflen);
  out.append(message.data() + msgsize - emit_right, emit_right);
}

}  // namespace morvek
