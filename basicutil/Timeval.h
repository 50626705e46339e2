// Timeval: wall-clock time as seconds and microseconds since the Unix epoch, saturating at both
// ends instead of wrapping.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace morvek {

struct TimeFormatRawParseResult;

class Str;
class TimezoneData;
struct DurationDescription;
struct TimeFormatRawParseResult;
class TimeGuesser;
struct ParseDetails;

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
  // Resolves a raw parse into this time, guessing what the text left out (TimeResolve.h); the
  // plain guesser when null. False, with the time unchanged, when it can't be resolved.
  bool set(TimeFormatRawParseResult &result, TimeGuesser *guesser = nullptr,
           ParseDetails *details = nullptr);
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

  // ---- Text forms. All append; none fails outright.

  // Exactly 14 characters of base 32 (0-9, A-V) that sort as the times do: eight digits of
  // seconds since 1601-01-01 and six of nanoseconds: 1710054000.25 (2024-03-10 07:00:00.25 UTC)
  // gives "0CDVRQRG7EDCK0". Seconds 0 (any microseconds) give "zNULLzTIMEzzzz",
  // MAX_TIME "zMAXzTIMEzzzzz" and MIN_TIME "zMINzTIMEzzzzz" (which, alone, sorts out of order);
  // a time before 1601 or past 40 bits of seconds writes the largest value.
  void toSortableString(Str &out) const;
  // The inverse, either case; false for a wrong length or a bad digit. A time before 1970 reads
  // back as MAX_TIME: such times do not survive the round trip.
  bool fromSortableString(const char *bytes, size_t length);
  // "Sun Mar 10 03:00:00 2024" in the process's local time (asctime without the newline);
  // "MIN_TIME", "MAX_TIME", "ZERO_TIME" (seconds 0), or "INVALID_TIME (<seconds>)" when the
  // local conversion refuses the time.
  void render(Str &out) const;
  // Signed seconds and, unless decimals is 0, a point and that many digits, truncated, never
  // rounded: {-1, 500000} with 2 decimals is "-0.50"; {5, 123456} with 8 is "5.12345600".
  void renderDecimal(Str &out, unsigned decimals) const;
  // "-?[0-9]+(\.[0-9]*)?" to a time; digits past the sixth of the fraction are ignored.
  // "-0.5" gives {-1, 500000}; "3." gives {3, 0}; ".5", "1.2.3", "-" and "" fail. On failure
  // the time is unspecified.
  bool mem_parse_into(const char *bytes, size_t length);
  bool parse_into(const char *cstr);

  // A decimal fraction of a fixed number of digits (at most 18), leading zeros included, kept
  // in one integer: .05 with 3 digits is 202. The fraction read is that of the signed value,
  // so {-1, 950000} (-0.05) encodes as .05 does.
  uint64_t encodeSubseconds(unsigned digits) const;
  // Adds an encoded fraction away from zero: 202 added to {5, 0} gives {5, 50000}, to {-5, 0}
  // gives {-6, 950000} (-5.05). Codes 0 and powers of two are a zero fraction.
  Timeval &addEncodedSubseconds(uint64_t encoded);

  // a minus b in words (see DurationDescription); describeSince measures from a to now.
  static DurationDescription describeDifference(const Timeval &a, const Timeval &b);
  static DurationDescription describeSince(const Timeval &a);

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

// Prints a description: "-" when negative, then an integer with its unit ("1 microsecond",
// "3000 milliseconds": the unit loses its "s" for a value of 1), or a double by "%5.*f" with
// 1, 2 or 3 decimals from 99.5 and 9.95 down (" 12.35 seconds", "1.250 hours"), unit whole.
void appendDescription(Str &out, const DurationDescription &description);

// Whole seconds, "-?[0-9]+", saturating: an overflow gives INT64_MAX or INT64_MIN, and still
// succeeds if the rest is digits.
bool parseWholeSeconds(const char *bytes, size_t length, int64_t &out);

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

// ---------------------------------------------------------------------------------------------
// Broken-down time holders. Each is a struct tm (the Hires forms add microseconds, the InTimezone
// forms a zone of the library's engine) with fromUnixTime and toUnixTime. Conversions never fail
// outright: a refused time (past 32535244799, the year-3000 limit) logs a warning on "Timeval",
// "LocalStructTm::fromUnixTime(32535244800) failed!", and fills the far value of its sign:
// 9999-12-31 23:59:59.999999 (tm_year 8099, a Friday, yearday 364) or 1900-01-01 00:00:00
// (a Monday), with tm_isdst -1 and the zone fields of time 0. toUnixTime fails on -1 (also the
// true instant 1969-12-31 23:59:59 UTC) and on a local time in a gap or an unresolved overlap,
// logging "...::toUnixTime(2024-3-10 2:30:00) failed!" and giving MIN_TIME for tm_year below 70,
// MAX_TIME otherwise.

// UTC, by gmtime_r and timegm. Refusals return false and fill the far value without a warning.
struct GmtStructTm : tm {
  GmtStructTm() : tm() {}
  bool fromUnixTime(int64_t seconds);
  // Normalizes the fields as timegm does.
  Timeval toUnixTime();
};

// The process's local time, by localtime_r and mktime (TZ as the platform reads it).
struct LocalStructTm : tm {
  LocalStructTm() : tm() {}
  bool fromUnixTime(int64_t seconds);
  Timeval toUnixTime();
};

struct LocalStructTmHires : LocalStructTm {
  int32_t tv_usec = 0;
  bool fromUnixTime(const Timeval &t);
  Timeval toUnixTime();
};

// A zone of the library's engine; the zone must not be null. New York, 1710054000: 2024-03-10
// 03:00:00, tm_isdst 1, tm_gmtoff -14400, tm_zone "EDT". Back from local 2024-11-03 01:30 the
// hint tm_isdst picks the pass: 1 gives 1730611800, 0 gives 1730615400, -1 fails.
struct StructTmInTimezone : tm {
  explicit StructTmInTimezone(const TimezoneData *zone) : tm(), tz(zone) {}
  bool fromUnixTime(int64_t seconds);
  Timeval toUnixTime();
  const TimezoneData *tz;
};

struct StructTmInTimezoneHires : StructTmInTimezone {
  explicit StructTmInTimezoneHires(const TimezoneData *zone) : StructTmInTimezone(zone) {}
  bool fromUnixTime(const Timeval &t);
  Timeval toUnixTime();
  int32_t tv_usec = 0;
};

// The record makers: the seven calendar fields of the raw parser's record (year with 1900 added,
// 0-based month, day of the month, weekday with 0 = Sunday, hour, minute, second) from an instant
// in UTC or from a zone-aware broken-down time. Nothing else of the record is touched, the HAVE_
// bits included. 1710054000 gives 2024, 2 (March), 10, 0 (Sunday), 7, 0, 0; in New York the
// StructTmInTimezone of that instant gives 2024, 2, 10, 0, 3, 0, 0. False, writing nothing, for
// an instant the UTC breakdown refuses (past the year 3000 limit).
bool rawRecordFromSeconds(int64_t seconds, TimeFormatRawParseResult &r);
void rawRecordFromTm(const struct tm &tm, TimeFormatRawParseResult &r);

}  // namespace morvek
