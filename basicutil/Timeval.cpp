#include "basicutil/Timeval.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "basicutil/BasicConversions.h"
#include "basicutil/CrashLog.h"
#include "basicutil/Logger.h"
#include "basicutil/Str.h"
#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// The results the processor's truncating conversion gives, spelled out so that NaN and values
// out of range behave the same in every build (a plain cast would be undefined behaviour).
int64_t truncToInt64(double x) {
  if (!(x > -9223372036854775808.0 - 1.0 && x < 9223372036854775808.0)) return INT64_MIN;
  return static_cast<int64_t>(x);
}

int32_t truncToInt32(double x) {
  if (!(x > -2147483649.0 && x < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(x);
}

std::atomic<uint64_t> cached_now_word{0};

}  // namespace

Timeval Timeval::now() {
  struct timeval tv;
  if (gettimeofday(&tv, nullptr) != 0) abort();
  return Timeval(static_cast<int64_t>(tv.tv_sec), static_cast<int32_t>(tv.tv_usec));
}

Timeval Timeval::fromDouble(double x) {
  // 2^63: NaN fails both tests and goes on like any other value.
  if (x >= 9223372036854775808.0) return MAX_TIME;
  if (x <= -9223372036854775808.0) return MIN_TIME;
  double whole;
  double frac = modf(x, &whole);
  Timeval t;
  t._tv.tv_sec = truncToInt64(whole);
  if (frac < 0) {
    // Kept on purpose: the fraction's magnitude is used as is, so -1.25 becomes {-2, 250000}.
    t._tv.tv_sec -= 1;
    t._tv.tv_usec = truncToInt32(frac * -1000000.0);
  } else {
    t._tv.tv_usec = truncToInt32(frac * 1000000.0);
  }
  if (t._tv.tv_usec >= USEC_PER_SEC) {
    t._tv.tv_usec -= USEC_PER_SEC;
    t._tv.tv_sec += 1;
  }
  return t;
}

uint64_t Timeval::secondsToUsec(double seconds) {
  double usec = seconds * 1e6;
  if (!(usec >= 0)) return 0;
  if (usec >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(usec);
}

Timeval &Timeval::addSplit(uint64_t seconds, uint32_t usec) {
  // seconds is below 2^45 (a 64-bit microsecond count), so neither bound can overflow.
  if (_tv.tv_sec > MAX_SECONDS - static_cast<int64_t>(seconds)) return *this = MAX_TIME;
  _tv.tv_sec += static_cast<int64_t>(seconds);
  _tv.tv_usec += static_cast<int32_t>(usec);
  if (_tv.tv_usec >= USEC_PER_SEC) {
    MV_ASSERT(_tv.tv_usec < 2000000);
    if (_tv.tv_sec == MAX_SECONDS) return *this = MAX_TIME;
    _tv.tv_sec += 1;
    _tv.tv_usec -= USEC_PER_SEC;
  }
  return *this;
}

Timeval &Timeval::subtractSplit(uint64_t seconds, uint32_t usec) {
  if (_tv.tv_sec < MIN_SECONDS + static_cast<int64_t>(seconds)) return *this = MIN_TIME;
  _tv.tv_sec -= static_cast<int64_t>(seconds);
  _tv.tv_usec -= static_cast<int32_t>(usec);
  if (_tv.tv_usec < 0) {
    MV_ASSERT(_tv.tv_usec >= -1000000);
    if (_tv.tv_sec == MIN_SECONDS) return *this = MIN_TIME;
    _tv.tv_sec -= 1;
    _tv.tv_usec += USEC_PER_SEC;
  }
  return *this;
}

Timeval &Timeval::addUsec(uint64_t usec) {
  return addSplit(usec / USEC_PER_SEC, static_cast<uint32_t>(usec % USEC_PER_SEC));
}

Timeval &Timeval::_add(uint64_t msec) {
  return addSplit(msec / 1000, static_cast<uint32_t>(msec % 1000) * 1000);
}

Timeval &Timeval::addSeconds(uint32_t seconds) {
  if (_tv.tv_sec > MAX_SECONDS - static_cast<int64_t>(seconds)) return *this = MAX_TIME;
  _tv.tv_sec += seconds;
  return *this;
}

Timeval &Timeval::subtractUsec(uint64_t usec) {
  return subtractSplit(usec / USEC_PER_SEC, static_cast<uint32_t>(usec % USEC_PER_SEC));
}

Timeval &Timeval::_subtract(uint64_t msec) {
  return subtractSplit(msec / 1000, static_cast<uint32_t>(msec % 1000) * 1000);
}

Timeval &Timeval::subtractSeconds(uint32_t seconds) {
  if (_tv.tv_sec < MIN_SECONDS + static_cast<int64_t>(seconds)) return *this = MIN_TIME;
  _tv.tv_sec -= seconds;
  return *this;
}

Timeval &Timeval::snapSeconds(int64_t span) {
  if (span >= 2) _tv.tv_sec -= _tv.tv_sec % span;
  _tv.tv_usec = 0;
  return *this;
}

Timeval &Timeval::snapMillisecond(int32_t span) {
  MV_ASSERT(span < 1000);
  _tv.tv_usec -= _tv.tv_usec % (span * 1000);
  return *this;
}

void Timeval::setCachedNow() {
  Timeval t = now();
  uint64_t word =
      (static_cast<uint64_t>(t._tv.tv_sec) << 30) + static_cast<uint64_t>(t._tv.tv_usec) * 1000;
  cached_now_word.store(word, std::memory_order_relaxed);
}

Timeval Timeval::cachedNow() {
  uint64_t word = cached_now_word.load(std::memory_order_relaxed);
  if (word == 0) return now();
  return Timeval(static_cast<int64_t>(word >> 30),
                 static_cast<int32_t>((word & 0x3FFFFFF8) / 1000));
}

int64_t usecDifference(const Timeval &a, const Timeval &b) {
  uint64_t secs = static_cast<uint64_t>(a._tv.tv_sec) - static_cast<uint64_t>(b._tv.tv_sec);
  uint64_t usec =
      secs * 1000000u + static_cast<uint64_t>(static_cast<int64_t>(a._tv.tv_usec) - b._tv.tv_usec);
  return static_cast<int64_t>(usec);
}

int64_t msecDifferenceRoundedUp(const Timeval &a, const Timeval &b) {
  return static_cast<int64_t>(static_cast<uint64_t>(usecDifference(a, b)) + 999) / 1000;
}

double secondsDifference(const Timeval &a, const Timeval &b) {
  bool negative = a < b;
  const Timeval &big = negative ? b : a;
  const Timeval &small = negative ? a : b;
  uint64_t secs = static_cast<uint64_t>(big._tv.tv_sec) - static_cast<uint64_t>(small._tv.tv_sec);
  double d = static_cast<double>(secs) + (big._tv.tv_usec - small._tv.tv_usec) * 1e-6;
  return negative ? -d : d;
}

void sleepMilliseconds(uint32_t ms) { usleep(ms * 1000u); }

// ---------------------------------------------------------------------------------------------
// MonotonicTime

namespace {

Logger monotonic_thread_logger("Thread");

constexpr uint32_t MAX_SECS = 0xFFFFFFFFu;
constexpr int32_t ONE_BILLION_AS_TVNSECS_TYPE = MonotonicTime::ONE_BILLION_AS_TVNSECS_TYPE;
constexpr int32_t BILLION = ONE_BILLION_AS_TVNSECS_TYPE;

// 0 until the decision is made; then read without a lock.
std::atomic<int> clock_decision{0};

MonotonicTime::ClockDecision computeClockDecision() {
  struct timespec ts;
  bool works = clock_gettime(CLOCK_MONOTONIC, &ts) == 0;
  return MonotonicTime::decideClock(getenv("MORVEK_USE_MONOTONIC_CLOCK"), works);
}

struct TimespecDifference {
  uint32_t sec;
  unsigned nsec;
};

// The later minus the earlier; true when a is the earlier one.
bool subtract_timespec(const MonotonicTime &a, const MonotonicTime &b, TimespecDifference *rvp) {
  bool a_earlier = a < b;
  const MonotonicTime &later = a_earlier ? b : a;
  const MonotonicTime &earlier = a_earlier ? a : b;
  uint32_t sec = later._ts.tv_sec - earlier._ts.tv_sec;
  int64_t nsec = static_cast<int64_t>(later._ts.tv_nsec) - earlier._ts.tv_nsec;
  if (nsec < 0) {
    nsec += BILLION;
    sec -= 1;
  }
  rvp->sec = sec;
  rvp->nsec = static_cast<unsigned>(nsec);
  MV_ASSERT(rvp->nsec < (unsigned)ONE_BILLION_AS_TVNSECS_TYPE);
  return a_earlier;
}

DurationDescription makeDescription(const char *unit, bool negative, bool is_integer,
                                    uint64_t integer, double value) {
  DurationDescription d;
  d.unit = unit;
  d.unit_len = strlen(unit);
  d.negative = negative;
  d.is_integer = is_integer;
  if (is_integer) {
    d.value = integer;
  } else {
    memcpy(&d.value, &value, sizeof d.value);
  }
  return d;
}

}  // namespace

double DurationDescription::asDouble() const {
  if (is_integer) return static_cast<double>(value);
  double d;
  memcpy(&d, &value, sizeof d);
  return d;
}

DurationDescription Timeval::describeDifference(const Timeval &a, const Timeval &b) {
  const bool negative = a < b;
  const Timeval &big = negative ? b : a;
  const Timeval &small = negative ? a : b;
  const uint64_t magnitude = static_cast<uint64_t>(usecDifference(big, small));
  const double d = static_cast<double>(magnitude);
  if (magnitude >= 8000000001ull) return makeDescription(" hours", negative, false, 0, d / 3.6e9);
  if (magnitude >= 3000001) return makeDescription(" seconds", negative, false, 0, d / 1e6);
  if (magnitude >= 3001) {
    const bool whole = a._tv.tv_usec % 1000 == 0 && b._tv.tv_usec % 1000 == 0;
    return makeDescription(" milliseconds", negative, whole, magnitude / 1000, d / 1000);
  }
  return makeDescription(" microseconds", negative, true, magnitude, 0);
}

DurationDescription Timeval::describeSince(const Timeval &a) {
  return describeDifference(now(), a);
}

void appendDescription(Str &out, const DurationDescription &description) {
  if (description.negative) out.push_back('-');
  if (description.is_integer) {
    appendNumber(out, description.value);
    out.append(description.unit, description.unit_len - (description.value == 1 ? 1 : 0));
    return;
  }
  const double v = description.asDouble();
  const int precision = v >= 99.5 ? 1 : v >= 9.95 ? 2 : 3;
  out.appendf("%5.*f", precision, v);
  out.append(description.unit, description.unit_len);
}

MonotonicTime::ClockDecision MonotonicTime::decideClock(const char *env_value,
                                                        bool monotonic_clock_works) {
  if (env_value != nullptr && env_value[0] != '\0' && strchr("FNfn0", env_value[0]) != nullptr) {
    return CLOCK_MONOTONIC_DISABLED;
  }
  return monotonic_clock_works ? CLOCK_MONOTONIC_IN_USE : CLOCK_MONOTONIC_UNAVAILABLE;
}

MonotonicTime::ClockDecision MonotonicTime::clockDecision() {
  int d = clock_decision.load(std::memory_order_relaxed);
  if (__builtin_expect(d != 0, 1)) return static_cast<ClockDecision>(d);
  static const ClockDecision decided = computeClockDecision();
  clock_decision.store(decided, std::memory_order_relaxed);
  return decided;
}

MonotonicTime MonotonicTime::now() {
  struct timespec ts;
  if (clockDecision() == CLOCK_MONOTONIC_IN_USE) {
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
      threadFatalError("clock_gettime(CLOCK_MONOTONIC)", errno);
    }
  } else if (clock_gettime(CLOCK_REALTIME, &ts) != 0) {
    // The fall-back is the wall clock, not a steady one.
    threadFatalError("clock_gettime(CLOCK_REALTIME)", errno);
  }
  return MonotonicTime(static_cast<uint32_t>(ts.tv_sec), static_cast<int32_t>(ts.tv_nsec));
}

// Whole seconds and a nanosecond part below one second, saturating at either end.
MonotonicTime &MonotonicTime::addSplit(uint32_t secs, int32_t nsec) {
  if (_ts.tv_sec > MAX_SECS - secs) return *this = highest();
  _ts.tv_sec += secs;
  _ts.tv_nsec += nsec;
  if (_ts.tv_nsec >= ONE_BILLION_AS_TVNSECS_TYPE) {
    MV_ASSERT(_ts.tv_nsec < 2 * ONE_BILLION_AS_TVNSECS_TYPE);
    if (_ts.tv_sec == MAX_SECS) return *this = highest();
    _ts.tv_sec += 1;
    _ts.tv_nsec -= ONE_BILLION_AS_TVNSECS_TYPE;
  }
  return *this;
}

MonotonicTime &MonotonicTime::subtractSplit(uint32_t secs, int32_t nsec) {
  if (_ts.tv_sec < secs) return *this = lowest();
  _ts.tv_sec -= secs;
  _ts.tv_nsec -= nsec;
  if (_ts.tv_nsec < 0) {
    MV_ASSERT(_ts.tv_nsec >= -ONE_BILLION_AS_TVNSECS_TYPE);
    if (_ts.tv_sec == 0) return *this = lowest();
    _ts.tv_sec -= 1;
    _ts.tv_nsec += ONE_BILLION_AS_TVNSECS_TYPE;
  }
  return *this;
}

MonotonicTime &MonotonicTime::addSeconds(uint32_t n) {
  if (static_cast<uint32_t>(n + n) < n) return *this = highest();
  _ts.tv_sec += n;
  return *this;
}

MonotonicTime &MonotonicTime::addMilliseconds(uint64_t n) {
  if (n > MAX_ADD_MILLISECONDS) return *this = highest();
  return addSplit(static_cast<uint32_t>(n / 1000), static_cast<int32_t>(n % 1000) * 1000000);
}

MonotonicTime &MonotonicTime::addNanoseconds(uint64_t n) {
  if (n > MAX_ADD_NANOSECONDS) return *this = highest();
  return addSplit(static_cast<uint32_t>(n / BILLION), static_cast<int32_t>(n % BILLION));
}

MonotonicTime &MonotonicTime::subtractSeconds(uint32_t n) {
  if (_ts.tv_sec < n) return *this = lowest();
  _ts.tv_sec -= n;
  return *this;
}

MonotonicTime &MonotonicTime::subtractMilliseconds(uint64_t n) {
  if (n > MAX_ADD_MILLISECONDS) return *this = lowest();
  return subtractSplit(static_cast<uint32_t>(n / 1000), static_cast<int32_t>(n % 1000) * 1000000);
}

MonotonicTime &MonotonicTime::subtractNanoseconds(uint64_t n) {
  if (n > MAX_ADD_NANOSECONDS) return *this = lowest();
  return subtractSplit(static_cast<uint32_t>(n / BILLION), static_cast<int32_t>(n % BILLION));
}

double MonotonicTime::differenceInSeconds(const MonotonicTime &a, const MonotonicTime &b) {
  TimespecDifference diff;
  bool negative = subtract_timespec(a, b, &diff);
  double d = static_cast<double>(diff.sec) + diff.nsec * 1e-9;
  return negative ? -d : d;
}

int64_t MonotonicTime::differenceInMilliseconds(const MonotonicTime &a, const MonotonicTime &b) {
  TimespecDifference diff;
  bool negative = subtract_timespec(a, b, &diff);
  int64_t ms = static_cast<int64_t>(diff.sec) * 1000 + diff.nsec / 1000000;
  return negative ? -ms : ms;
}

DurationDescription MonotonicTime::describeDifference(const MonotonicTime &a,
                                                      const MonotonicTime &b) {
  TimespecDifference diff;
  bool negative = subtract_timespec(a, b, &diff);
  double d = static_cast<double>(diff.sec) + diff.nsec * 1e-9;
  uint64_t total_ns = static_cast<uint64_t>(diff.sec) * BILLION + diff.nsec;
  if (d > 8000.0) return makeDescription(" hours", negative, false, 0, d / 3600.0);
  if (d > 3.0) return makeDescription(" seconds", negative, false, 0, d);
  if (d > 0.003) {
    bool whole = a._ts.tv_nsec % 1000000 == 0 && b._ts.tv_nsec % 1000000 == 0;
    return makeDescription(" milliseconds", negative, whole, total_ns / 1000000, d * 1000.0);
  }
  if (d > 0.000003) {
    bool whole = a._ts.tv_nsec % 1000 == 0 && b._ts.tv_nsec % 1000 == 0;
    return makeDescription(" microseconds", negative, whole, total_ns / 1000, d * 1e6);
  }
  return makeDescription(" nanoseconds", negative, true, total_ns, 0);
}

DurationDescription MonotonicTime::describeSince(const MonotonicTime &a) {
  return describeDifference(now(), a);
}

void MonotonicTime::appendTo(Str &out) const {
  out.appendf("%lld.%09u", static_cast<long long>(_ts.tv_sec), static_cast<unsigned>(_ts.tv_nsec));
}

void MonotonicTime::logWhetherMonotonicClockIsUsed(Logger &logger) {
  const char *text = nullptr;
  switch (clockDecision()) {
    case CLOCK_MONOTONIC_IN_USE:
      text = "using CLOCK_MONOTONIC";
      logger.info("%s", text);
      break;
    case CLOCK_MONOTONIC_DISABLED:
      text = "CLOCK_MONOTONIC support explicitly disabled";
      logger.warn("%s", text);
      break;
    case CLOCK_MONOTONIC_UNAVAILABLE:
      text = "CLOCK_MONOTONIC support not available";
      logger.warn("%s", text);
      break;
    default:
      MV_ASSERT(0);
  }
  addCrashLogNote(text);  // a literal: the permanent form keeps the pointer
}

void MonotonicTime::reinitializeAfterFork() {
  Thread::assertNotMultithreadedYet();
  if (clockDecision() == CLOCK_MONOTONIC_IN_USE) {
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) {
      monotonic_thread_logger.fatal("Couldn't reinitialize MonotonicTime after fork()!");
      abort();
    }
  }
  Thread::reinitializeAfterFork();
}

// ---------------------------------------------------------------------------------------------
// Durations

namespace {

struct DurationUnit {
  const char *name;
  uint64_t ms;  // 0 for microseconds, which divide
};

constexpr DurationUnit DURATION_UNITS[] = {
    {"us", 0},
    {"ms", 1},
    {"cs", 10},
    {"ds", 100},
    {"s", 1000},
    {"sec", 1000},
    {"second", 1000},
    {"secs", 1000},
    {"seconds", 1000},
    {"m", 60000},
    {"min", 60000},
    {"minute", 60000},
    {"mins", 60000},
    {"minutes", 60000},
    {"h", 3600000},
    {"hr", 3600000},
    {"hour", 3600000},
    {"hrs", 3600000},
    {"hours", 3600000},
    {"d", 86400000},
    {"day", 86400000},
    {"days", 86400000},
    {"w", 604800000},
    {"week", 604800000},
    {"weeks", 604800000},
    {"mon", 2592000000},
    {"month", 2592000000},
    {"months", 2592000000},
    {"q", 7776000000},
    {"qtr", 7776000000},
    {"quarter", 7776000000},
    {"qtrs", 7776000000},
    {"quarters", 7776000000},
    {"y", 31536000000},
    {"yr", 31536000000},
    {"year", 31536000000},
    {"yrs", 31536000000},
    {"years", 31536000000},
};

// Keeps errno as the caller had it: the C conversions below are an implementation detail.
class SavedErrno {
 public:
  SavedErrno() : _saved(errno) {}
  ~SavedErrno() { errno = _saved; }

 private:
  int _saved;
};

void writeZeroPadded(char *dst, uint64_t v, unsigned width) {
  for (unsigned i = width; i-- > 0;) {
    dst[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
}

// whole "." fraction, the fraction zero-padded to width digits.
size_t formatFixedPoint(char *buf, uint64_t whole, uint64_t fraction, unsigned width) {
  size_t n = writeDecimalU64(buf, whole);
  buf[n++] = '.';
  writeZeroPadded(buf + n, fraction, width);
  return n + width;
}

}  // namespace

bool parseDuration(uint64_t &out_ms, const Str &text, unsigned flags) {
  if (text.empty()) return false;
  SavedErrno keep;
  const char *const start = text.c_str();
  if (strtod(start, nullptr) < 0) return false;
  errno = 0;
  char *end = nullptr;
  uint64_t count = strtoull(start, &end, 10);
  if (count == ULLONG_MAX && errno == ERANGE) return false;
  if (count == 0 && (flags & DURATION_ALLOW_ZERO) == 0) return false;
  if (end == start) count = 1;

  StrSegment unitText =
      StrSegment(end, static_cast<size_t>(text.data() + text.size() - end)).trimmed(BYTESET_BLANKS);
  if (unitText.empty()) return false;
  char unit[16];
  if (unitText._len >= sizeof(unit)) return false;
  for (size_t i = 0; i < unitText._len; ++i) {
    const char c = unitText._data[i];
    unit[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  const StrSegment name(unit, unitText._len);
  for (const DurationUnit &u : DURATION_UNITS) {
    if (!name.equals(u.name)) continue;
    if (u.ms == 0) {
      out_ms = count / 1000;
      return true;
    }
    const uint64_t product = count * u.ms;
    if (product < count) return false;
    out_ms = product;
    return true;
  }
  return false;
}

bool parseDuration(const char *bytes, size_t length, uint64_t &out_ms) {
  return parseDuration(out_ms, Str(bytes, length), DURATION_ALLOW_ZERO);
}

void durationToWords(Str &out, uint64_t ms) {
  if (ms == 0) {
    out.append("0 milliseconds");
    return;
  }
  static constexpr struct {
    const char *name;
    uint64_t ms;
  } WORD_UNITS[] = {
      {"day", 86400000}, {"hour", 3600000}, {"minute", 60000}, {"second", 1000}, {"millisecond", 1},
  };
  bool first = true;
  for (const auto &u : WORD_UNITS) {
    if (ms < u.ms) continue;
    const uint64_t n = ms / u.ms;
    ms -= n * u.ms;
    if (!first) out.append(", ");
    first = false;
    appendNumber(out, n);
    out.push_back(' ');
    out.append(u.name);
    if (n >= 2) out.push_back('s');
    if (ms == 0) break;
  }
}

bool mem_parse_into(const char *bytes, size_t length, uint64_t &out_ms) {
  if (bytes == nullptr || length == 0) return false;
  constexpr uint64_t MAX_WHOLE_SECONDS = UINT64_MAX / 1000;  // 18446744073709551
  const char *p = bytes;
  const char *const pend = bytes + length;
  uint64_t whole = 0;
  bool saturated = false;
  bool anyDigit = false;
  for (; p < pend && *p >= '0' && *p <= '9'; ++p) {
    anyDigit = true;
    if (saturated) continue;
    whole = whole * 10 + static_cast<uint64_t>(*p - '0');
    if (whole > MAX_WHOLE_SECONDS) {
      saturated = true;
      out_ms = UINT64_MAX;
    }
  }
  uint64_t fraction = 0;
  unsigned fractionDigits = 0;
  bool nonZeroFraction = false;
  if (p < pend && *p == '.') {
    for (++p; p < pend && *p >= '0' && *p <= '9'; ++p) {
      anyDigit = true;
      if (*p != '0') nonZeroFraction = true;
      if (fractionDigits < 4) {
        fraction = fraction * 10 + static_cast<uint64_t>(*p - '0');
        ++fractionDigits;
      }
    }
  }
  if (p != pend || !anyDigit) return false;
  MV_ASSERT(p == pend);
  if (saturated) return true;
  for (; fractionDigits < 4; ++fractionDigits) fraction *= 10;
  const uint64_t fractionMs = (fraction + 5) / 10;
  const uint64_t wholeMs = whole * 1000;
  uint64_t result = wholeMs + fractionMs;
  if (result < wholeMs) result = UINT64_MAX;
  if (fractionMs == 0 && whole == 0 && nonZeroFraction) result = 1;
  out_ms = result;
  return true;
}

void printMilliseconds(Str &out, uint64_t ms) {
  char buf[DECIMAL_U64_MAX_DIGITS + 4];
  out.append(buf, formatFixedPoint(buf, ms / 1000, ms % 1000, 3));
}

void printNanoseconds(Str &out, uint64_t ns) {
  char buf[DECIMAL_U64_MAX_DIGITS + 10];
  out.append(buf, formatFixedPoint(buf, ns / 1000000000, ns % 1000000000, 9));
}

void printMilliseconds(CrashLogWriter &out, uint64_t ms) {
  char buf[DECIMAL_U64_MAX_DIGITS + 4];
  out.write(buf, formatFixedPoint(buf, ms / 1000, ms % 1000, 3));
}

void printNanoseconds(CrashLogWriter &out, uint64_t ns) {
  char buf[DECIMAL_U64_MAX_DIGITS + 10];
  out.write(buf, formatFixedPoint(buf, ns / 1000000000, ns % 1000000000, 9));
}

}  // namespace morvek
