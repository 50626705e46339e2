// Timeval: wall-clock time as seconds and microseconds since the Unix epoch, saturating at both
// ends instead of wrapping.
#pragma once

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

}  // namespace morvek
