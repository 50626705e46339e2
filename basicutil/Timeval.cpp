#include "basicutil/Timeval.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>

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

}  // namespace morvek
