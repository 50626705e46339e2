// Timeval: wall-clock time as seconds and microseconds since the Unix epoch, saturating at both
// ends instead of wrapping.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

namespace morvek {

class Timeval {
 public:
  static constexpr int64_t MAX_SECONDS = INT64_MAX;
  static constexpr int64_t MIN_SECONDS = INT64_MIN;
  static constexpr int32_t USEC_PER_SEC = 1000000;

  struct Fields {
    int64_t tv_sec;
    int32_t tv_usec;  // 0..999999 also before the epoch: -1.25 s is {-2, 750000}
  };

  constexpr Timeval() : _tv{0, 0} {}
  constexpr Timeval(int64_t sec, int32_t usec) : _tv{sec, usec} {}

  static Timeval now();
  static Timeval fromDouble(double seconds);
  static uint64_t secondsToUsec(double seconds);

  int64_t seconds() const { return _tv.tv_sec; }
  int32_t microseconds() const { return _tv.tv_usec; }

  bool isMin() const { return _tv.tv_sec == MIN_SECONDS && _tv.tv_usec == 0; }
  bool isMax() const { return _tv.tv_sec == MAX_SECONDS && _tv.tv_usec == USEC_PER_SEC - 1; }
  void setMin() { _tv = {MIN_SECONDS, 0}; }
  void setMax() { _tv = {MAX_SECONDS, USEC_PER_SEC - 1}; }

  bool operator<(const Timeval &o) const {
    return _tv.tv_sec < o._tv.tv_sec || (_tv.tv_sec == o._tv.tv_sec && _tv.tv_usec < o._tv.tv_usec);
  }
  bool operator<=(const Timeval &o) const { return !(o < *this); }
  bool operator>(const Timeval &o) const { return o < *this; }
  bool operator>=(const Timeval &o) const { return !(*this < o); }
  bool operator==(const Timeval &o) const {
    return _tv.tv_sec == o._tv.tv_sec && _tv.tv_usec == o._tv.tv_usec;
  }
  bool operator!=(const Timeval &o) const { return !(*this == o); }
  // -1, 0 or 1.
  int compare(const Timeval &o) const { return *this < o ? -1 : (o < *this ? 1 : 0); }

  double toDouble() const { return _tv.tv_usec * 1e-6 + static_cast<double>(_tv.tv_sec); }

  // Saturating arithmetic.
  Timeval &addUsec(uint64_t usec);
  Timeval &_add(uint64_t msec);
  Timeval &addSeconds(uint32_t seconds);
  Timeval &subtractUsec(uint64_t usec);
  Timeval &_subtract(uint64_t msec);
  Timeval &subtractSeconds(uint32_t seconds);

  // Rounds down to a multiple of span seconds (span >= 2); always clears the microseconds.
  Timeval &snapSeconds(int64_t span);
  // Rounds the microseconds down to a multiple of span milliseconds; span must be below 1000.
  Timeval &snapMillisecond(int32_t span);

  // The cached clock: one 64-bit word set by setCachedNow, read without a system call.
  static void setCachedNow();
  static Timeval cachedNow();

  Fields _tv;

 private:
  Timeval &addSplit(uint64_t seconds, uint32_t usec);
  Timeval &subtractSplit(uint64_t seconds, uint32_t usec);
};

inline constexpr Timeval MIN_TIME{INT64_MIN, 0};
inline constexpr Timeval MAX_TIME{INT64_MAX, 999999};
inline constexpr Timeval ZERO_TIME{0, 0};

// a minus b in microseconds, wrapping rather than saturating.
int64_t usecDifference(const Timeval &a, const Timeval &b);
// a minus b in milliseconds, the microsecond remainder rounded up.
int64_t msecDifferenceRoundedUp(const Timeval &a, const Timeval &b);
// a minus b in seconds; negative when a is less than b.
double secondsDifference(const Timeval &a, const Timeval &b);

// One usleep of ms * 1000 microseconds, the product taken in 32 bits (it wraps above 4294967 ms).
// A sleep cut short by a signal is not resumed.
void sleepMilliseconds(uint32_t ms);

// ---------------------------------------------------------------------------------------------
// Monotonic time: elapsed time from a steady clock where there is one, for intervals only.

class Logger;
class Str;

// A difference of two times in words: the unit, and a value read as an integer or a double.
struct DurationDescription {
  const char *unit;
  size_t unit_len;
  uint64_t value;  // the bits of a double unless is_integer
  bool negative;
  bool is_integer;

  double asDouble() const;
};

class MonotonicTime {
 public:
  static constexpr int32_t ONE_BILLION_AS_TVNSECS_TYPE = 1000000000;
  static constexpr uint64_t MAX_ADD_MILLISECONDS = 4294967294999ull;
  static constexpr uint64_t MAX_ADD_NANOSECONDS = 4294967294999999999ull;

  // Which clock now() reads; decided once, at first use.
  enum ClockDecision : int {
    CLOCK_MONOTONIC_IN_USE = 1,
    CLOCK_MONOTONIC_DISABLED = 2,
    CLOCK_MONOTONIC_UNAVAILABLE = 3,
  };

  struct Fields {
    uint32_t tv_sec;
    int32_t tv_nsec;  // 0 to 999999999
  };

  constexpr MonotonicTime() : _ts{0, 0} {}
  constexpr MonotonicTime(uint32_t sec, int32_t nsec) : _ts{sec, nsec} {}
  static constexpr MonotonicTime lowest() { return MonotonicTime(0, 0); }
  static constexpr MonotonicTime highest() { return MonotonicTime(0xFFFFFFFFu, 999999999); }

  static MonotonicTime now();
  static ClockDecision clockDecision();
  // The same classification the decision makes of MORVEK_USE_MONOTONIC_CLOCK.
  static ClockDecision decideClock(const char *env_value, bool monotonic_clock_works);

  uint32_t seconds() const { return _ts.tv_sec; }
  int32_t nanoseconds() const { return _ts.tv_nsec; }

  // Saturating at both ends, except that addSeconds wraps a sum that overflows 32 bits unless
  // the argument itself is 0x80000000 or more: kept as it always behaved.
  MonotonicTime &addSeconds(uint32_t n);
  MonotonicTime &addMilliseconds(uint64_t n);
  MonotonicTime &addNanoseconds(uint64_t n);
  MonotonicTime &subtractSeconds(uint32_t n);
  MonotonicTime &subtractMilliseconds(uint64_t n);
  MonotonicTime &subtractNanoseconds(uint64_t n);

  friend bool operator==(const MonotonicTime &a, const MonotonicTime &b) {
    return a._ts.tv_sec == b._ts.tv_sec && a._ts.tv_nsec == b._ts.tv_nsec;
  }
  friend auto operator<=>(const MonotonicTime &a, const MonotonicTime &b) {
    if (auto c = a._ts.tv_sec <=> b._ts.tv_sec; c != 0) return c;
    return a._ts.tv_nsec <=> b._ts.tv_nsec;
  }

  // a minus b; negative when a is earlier.
  static double differenceInSeconds(const MonotonicTime &a, const MonotonicTime &b);
  static int64_t differenceInMilliseconds(const MonotonicTime &a, const MonotonicTime &b);
  static DurationDescription describeDifference(const MonotonicTime &a, const MonotonicTime &b);
  static DurationDescription describeSince(const MonotonicTime &a);

  // "%lld.%09u": seconds, then nanoseconds.
  void appendTo(Str &out) const;

  // INFO when the steady clock is in use, WARN when it is not.
  static void logWhetherMonotonicClockIsUsed(Logger &logger);
  // For a forked child, before it starts any thread.
  static void reinitializeAfterFork();

  Fields _ts;

 private:
  MonotonicTime &addSplit(uint32_t secs, int32_t nsec);
  MonotonicTime &subtractSplit(uint32_t secs, int32_t nsec);
};

// ---------------------------------------------------------------------------------------------
// Durations: an unsigned 64-bit count of milliseconds, written as a number and a unit.

class CrashLogWriter;

// A count of zero ("0s") is accepted only with this flag.
constexpr unsigned DURATION_ALLOW_ZERO = 1u;
// A bare number fails; the rule always holds, the flag names it for callers that spell it out.
constexpr unsigned DURATION_REQUIRE_UNIT = 2u;

// "30s", "5 minutes", "2 qtrs", "hour" (one of it, with DURATION_ALLOW_ZERO): a count and a
// unit from us to years, months being 30 days and years 365. On failure out_ms is unchanged.
bool parseDuration(uint64_t &out_ms, const Str &text, unsigned flags);
// The same with zero allowed.
bool parseDuration(const char *bytes, size_t length, uint64_t &out_ms);

// "1 day, 2 hours, 1 millisecond"; "0 milliseconds" for 0. Appends.
void durationToWords(Str &out, uint64_t ms);

// Seconds with an optional fraction ("12", "0.25", ".5") to milliseconds, rounded to nearest;
// a positive fraction never rounds to 0, and a whole part too large saturates (stored at once,
// even when the syntax then fails).
bool mem_parse_into(const char *bytes, size_t length, uint64_t &out_ms);

// "%llu.%03u" of seconds and milliseconds, "%llu.%09lu" of seconds and nanoseconds. Append.
void printMilliseconds(Str &out, uint64_t ms);
void printNanoseconds(Str &out, uint64_t ns);
void printMilliseconds(CrashLogWriter &out, uint64_t ms);
void printNanoseconds(CrashLogWriter &out, uint64_t ns);

// The smallest count of milliseconds that covers n microseconds. Near the top, where adding 999
// would wrap, the answer is fixed: UINT64_MAX for UINT64_MAX, 18446744073709552 below it.
inline uint64_t usecToMsecRoundedUp(uint64_t n) {
  if (n > UINT64_MAX - 999) return n == UINT64_MAX ? UINT64_MAX : 18446744073709552ull;
  return (n + 999) / 1000;
}

}  // namespace morvek
