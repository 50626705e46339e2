// Timeval text forms, descriptions of differences, the compact fraction code and the broken-down
// holders.
#include <sys/time.h>
#include <time.h>

#include <cstdio>
#include <cstring>

#include "basicutil/BasicConversions.h"
#include "basicutil/Logger.h"
#include "basicutil/Str.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

Logger timeval_logger("Timeval");

// Seconds from 1601-01-01 to 1970-01-01.
constexpr uint64_t EPOCH_1601 = 11644473600ull;
constexpr uint64_t MAX_SORTABLE_SECONDS = 0xFFFFFFFFFFull;
constexpr uint64_t FRAC_START_DIGIT = 100000;
constexpr unsigned MAX_ENCODED_DIGITS = 18;

constexpr char SORTABLE_DIGITS[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
constexpr char SORTABLE_NULL[] = "zNULLzTIMEzzzz";
constexpr char SORTABLE_MIN[] = "zMINzTIMEzzzzz";
constexpr char SORTABLE_MAX[] = "zMAXzTIMEzzzzz";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int sortableDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'V') return c - 'A' + 10;
  if (c >= 'a' && c <= 'v') return c - 'a' + 10;
  return -1;
}

bool equalsIgnoringCase(const char *bytes, const char *word, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    char c = bytes[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    char w = word[i];
    if (w >= 'A' && w <= 'Z') w = static_cast<char>(w - 'A' + 'a');
    if (c != w) return false;
  }
  return true;
}

// The fraction of the signed value: {-2, 250000} is -1.75, whose fraction is 750000.
uint32_t signedFraction(const Timeval &t) {
  const int32_t us = t._tv.tv_usec;
  return static_cast<uint32_t>(t._tv.tv_sec < 0 && us != 0 ? Timeval::USEC_PER_SEC - us : us);
}

// The far values a refused conversion gives, by the sign of the seconds.
void fillFarValue(struct tm &tm, bool past) {
  tm.tm_sec = past ? 0 : 59;
  tm.tm_min = past ? 0 : 59;
  tm.tm_hour = past ? 0 : 23;
  tm.tm_mday = past ? 1 : 31;
  tm.tm_mon = past ? 0 : 11;
  tm.tm_year = past ? 0 : 8099;
  tm.tm_wday = past ? 1 : 5;
  tm.tm_yday = past ? 0 : 364;
  tm.tm_isdst = -1;
}

bool secondsToTm(int64_t seconds, struct tm &tm, bool local) {
  if (seconds > MAX_BROKEN_DOWN_TIME) return false;
  const time_t t = static_cast<time_t>(seconds);
  return (local ? localtime_r(&t, &tm) : gmtime_r(&t, &tm)) == &tm;
}

void warnFromUnixTime(const char *form, int64_t seconds) {
  timeval_logger.warn("%s(%lld) failed!", form, static_cast<long long>(seconds));
}

// The platform's conversions, failing as one when they refuse or give -1.
bool platformFromUnixTime(struct tm &tm, int64_t seconds, bool local, const char *form) {
  if (secondsToTm(seconds, tm, local)) return true;
  if (form != nullptr) warnFromUnixTime(form, seconds);
  secondsToTm(0, tm, local);
  fillFarValue(tm, seconds < 0);
  return false;
}

// -1 is a failure even where it is a true instant: callers can't tell the two apart.
Timeval finishToUnixTime(int64_t result, const struct tm &given, const char *form, int32_t usec) {
  if (result != -1) return Timeval(result, usec);
  timeval_logger.warn("%s(%d-%d-%d %d:%02d:%02d) failed!", form, given.tm_year + 1900,
                      given.tm_mon + 1, given.tm_mday, given.tm_hour, given.tm_min, given.tm_sec);
  return given.tm_year < 70 ? MIN_TIME : MAX_TIME;
}

Timeval platformToUnixTime(struct tm &tm, bool local, const char *form, int32_t usec) {
  struct tm copy = tm;
  const int64_t result = local ? mktime(&copy) : timegm(&copy);
  if (result != -1) tm = copy;
  return finishToUnixTime(result, tm, form, usec);
}

bool zoneFromUnixTime(StructTmInTimezone &tm, int64_t seconds, const char *form) {
  MV_ASSERT(tm.tz != nullptr);
  // The limit is on the instant, whatever the zone's offset makes of it.
  if (seconds <= MAX_BROKEN_DOWN_TIME && tm.tz->breakDown(seconds, tm)) return true;
  warnFromUnixTime(form, seconds);
  tm.tz->breakDown(0, tm);
  fillFarValue(tm, seconds < 0);
  return false;
}

Timeval zoneToUnixTime(StructTmInTimezone &tm, const char *form, int32_t usec) {
  MV_ASSERT(tm.tz != nullptr);
  const struct tm given = tm;
  return finishToUnixTime(tm.tz->toUnixTime(tm), given, form, usec);
}

}  // namespace

// ---- Sortable form

void Timeval::toSortableString(Str &out) const {
  if (_tv.tv_sec == 0) {
    out.append(SORTABLE_NULL, 14);
    return;
  }
  if (*this == MAX_TIME) {
    out.append(SORTABLE_MAX, 14);
    return;
  }
  if (*this == MIN_TIME) {
    out.append(SORTABLE_MIN, 14);
    return;
  }
  int32_t usec = _tv.tv_usec > 999999 ? 999999 : _tv.tv_usec < 0 ? 0 : _tv.tv_usec;
  uint64_t secs = static_cast<uint64_t>(_tv.tv_sec) + EPOCH_1601;  // before 1601 wraps high
  uint64_t nsec = static_cast<uint64_t>(usec) * 1000;
  if (secs > MAX_SORTABLE_SECONDS) {
    secs = MAX_SORTABLE_SECONDS;
    nsec = 999999999;
  }
  char buf[14];
  for (int i = 0; i < 8; ++i) buf[i] = SORTABLE_DIGITS[(secs >> (35 - 5 * i)) & 31];
  for (int i = 0; i < 6; ++i) buf[8 + i] = SORTABLE_DIGITS[(nsec >> (25 - 5 * i)) & 31];
  out.append(buf, sizeof buf);
}

bool Timeval::fromSortableString(const char *bytes, size_t length) {
  if (length != 14) return false;
  if (bytes[0] == 'z' || bytes[0] == 'Z') {
    static constexpr struct {
      const char *word;
      Timeval value;
    } words[] = {{SORTABLE_NULL, ZERO_TIME}, {SORTABLE_MIN, MIN_TIME}, {SORTABLE_MAX, MAX_TIME}};
    for (const auto &w : words) {
      if (equalsIgnoringCase(bytes, w.word, 14)) {
        *this = w.value;
        return true;
      }
    }
  }
  uint64_t secs = 0, nsec = 0;
  for (size_t i = 0; i < 14; ++i) {
    const int d = sortableDigitValue(bytes[i]);
    if (d < 0) return false;
    uint64_t &part = i < 8 ? secs : nsec;
    part = part << 5 | static_cast<uint64_t>(d);
  }
  if (nsec > 999999999) return false;
  if (secs < EPOCH_1601) {
    *this = MAX_TIME;
    return true;
  }
  // May give 1000000 microseconds (from the clamped maximum); no carry is made.
  *this =
      Timeval(static_cast<int64_t>(secs - EPOCH_1601), static_cast<int32_t>((nsec + 500) / 1000));
  return true;
}

// ---- Readable and decimal forms

void Timeval::render(Str &out) const {
  if (*this == MIN_TIME) {
    out.append("MIN_TIME");
    return;
  }
  if (*this == MAX_TIME) {
    out.append("MAX_TIME");
    return;
  }
  if (_tv.tv_sec == 0) {
    out.append("ZERO_TIME");
    return;
  }
  struct tm tm;
  char buf[64];
  if (!secondsToTm(_tv.tv_sec, tm, true) || asctime_r(&tm, buf) == nullptr) {
    out.append("INVALID_TIME (");
    appendNumber(out, _tv.tv_sec);
    out.push_back(')');
    return;
  }
  size_t n = strlen(buf);
  if (n > 0 && buf[n - 1] == '\n') --n;
  out.append(buf, n);
}

void Timeval::renderDecimal(Str &out, unsigned decimals) const {
  char buf[DECIMAL_I64_MAX_CHARS + 8];
  size_t n;
  uint32_t fraction;
  if (_tv.tv_sec < 0 && _tv.tv_usec != 0) {
    buf[0] = '-';
    n = 1 + writeDecimalU64(buf + 1, static_cast<uint64_t>(-(_tv.tv_sec + 1)));
    fraction = static_cast<uint32_t>(USEC_PER_SEC - _tv.tv_usec);
  } else {
    n = writeDecimalI64(buf, _tv.tv_sec);
    fraction = static_cast<uint32_t>(_tv.tv_usec);
  }
  if (decimals != 0) {
    // Six digits of the fraction, most significant first; those past decimals are dropped.
    buf[n] = '.';
    for (size_t i = 6; i >= 1; --i, fraction /= 10)
      buf[n + i] = static_cast<char>('0' + fraction % 10);
    n += 1 + (decimals < 6 ? decimals : 6);
  }
  out.append(buf, n);
  if (decimals > 6) out.append(decimals - 6, '0');
}

bool Timeval::mem_parse_into(const char *bytes, size_t length) {
  const char *p = bytes;
  const char *const end = bytes + length;
  if (length == 0) return false;
  const bool negative = *p == '-';
  if (negative) ++p;
  const char *const int_start = p;
  while (p < end && isDigit(*p)) ++p;
  if (p == int_start) return false;
  const char *const int_end = p;
  uint64_t fracPart = 0;
  if (p < end && *p == '.') {
    uint64_t weight = FRAC_START_DIGIT;
    for (++p; p < end; ++p) {
      if (!isDigit(*p)) return false;
      fracPart += static_cast<uint64_t>(*p - '0') * weight;
      weight /= 10;
    }
    MV_ASSERT(fracPart < (FRAC_START_DIGIT * 10));
  }
  if (p != end) return false;
  uint64_t whole;
  if (!parse_unsigned_val(int_start, int_end, whole, UINT64_MAX)) return false;
  constexpr uint64_t NEGATIVE_LIMIT = 9223372036854775808ull;
  if (!negative) {
    if (whole > static_cast<uint64_t>(INT64_MAX)) return false;
    *this = Timeval(static_cast<int64_t>(whole), static_cast<int32_t>(fracPart));
  } else if (fracPart == 0) {
    if (whole > NEGATIVE_LIMIT) return false;
    *this = Timeval(static_cast<int64_t>(0 - whole), 0);
  } else {
    if (whole + 1 > NEGATIVE_LIMIT) return false;
    *this = Timeval(static_cast<int64_t>(0 - (whole + 1)),
                    static_cast<int32_t>(USEC_PER_SEC - fracPart));
  }
  return true;
}

bool Timeval::parse_into(const char *cstr) { return mem_parse_into(cstr, strlen(cstr)); }

bool parseWholeSeconds(const char *bytes, size_t length, int64_t &out) {
  const char *p = bytes;
  const char *const end = bytes + length;
  const bool negative = p < end && *p == '-';
  if (negative) ++p;
  if (p == end) return false;
  uint64_t magnitude = 0;
  const uint64_t limit = negative ? 9223372036854775808ull : static_cast<uint64_t>(INT64_MAX);
  bool saturated = false;
  for (; p < end; ++p) {
    if (!isDigit(*p)) return false;
    uint64_t next;
    if (saturated || __builtin_mul_overflow(magnitude, 10u, &next) ||
        __builtin_add_overflow(next, static_cast<uint64_t>(*p - '0'), &next) || next > limit) {
      saturated = true;
      continue;
    }
    magnitude = next;
  }
  if (saturated) {
    out = negative ? INT64_MIN : INT64_MAX;
  } else {
    out = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
  }
  return true;
}

// ---- Fraction code

uint64_t Timeval::encodeSubseconds(unsigned digits) const {
  if (digits == 0) return 1;
  if (digits > MAX_ENCODED_DIGITS) digits = MAX_ENCODED_DIGITS;
  const uint32_t fraction = signedFraction(*this);
  unsigned z = 0;
  for (uint32_t w = FRAC_START_DIGIT; w != 0 && z < digits && fraction / w % 10 == 0; w /= 10) ++z;
  if (z == digits) return uint64_t(1) << digits;
  uint64_t number = 0;
  uint32_t weight = FRAC_START_DIGIT;
  for (unsigned i = 0; i < z; ++i) weight /= 10;
  for (unsigned i = z; i < digits; ++i) {
    number = number * 10 + (weight == 0 ? 0 : fraction / weight % 10);
    weight /= 10;
  }
  return (number * 2 + 1) << z;
}

Timeval &Timeval::addEncodedSubseconds(uint64_t encoded) {
  if ((encoded & (encoded - 1)) == 0) return *this;  // 0 or a power of two: no fraction
  MV_ASSERT(encoded > 0);
  const unsigned z = static_cast<unsigned>(__builtin_ctzll(encoded));
  encoded >>= z;
  MV_ASSERT(encoded > 1);
  encoded >>= 1;
  int places = static_cast<int>(z + decimalDigitCountU64(encoded));
  for (; places < 6; ++places) encoded *= 10;
  for (; places > 6; --places) encoded /= 10;
  MV_ASSERT(encoded < 1000000);
  if (encoded != 0 && _tv.tv_sec < 0) {
    if (_tv.tv_sec == MIN_SECONDS) return *this = MIN_TIME;
    _tv.tv_sec -= 1;
    encoded = USEC_PER_SEC - encoded;
  }
  return addUsec(encoded);
}

// ---- Broken-down holders

bool GmtStructTm::fromUnixTime(int64_t seconds) {
  return platformFromUnixTime(*this, seconds, false, nullptr);
}

Timeval GmtStructTm::toUnixTime() {
  return platformToUnixTime(*this, false, "GmtStructTm::toUnixTime", 0);
}

bool LocalStructTm::fromUnixTime(int64_t seconds) {
  return platformFromUnixTime(*this, seconds, true, "LocalStructTm::fromUnixTime");
}

Timeval LocalStructTm::toUnixTime() {
  return platformToUnixTime(*this, true, "LocalStructTm::toUnixTime", 0);
}

bool LocalStructTmHires::fromUnixTime(const Timeval &t) {
  const bool ok =
      platformFromUnixTime(*this, t._tv.tv_sec, true, "LocalStructTmHires::fromUnixTime");
  tv_usec = ok ? t._tv.tv_usec : t._tv.tv_sec < 0 ? 0 : 999999;
  return ok;
}

Timeval LocalStructTmHires::toUnixTime() {
  return platformToUnixTime(*this, true, "LocalStructTmHires::toUnixTime", tv_usec);
}

bool StructTmInTimezone::fromUnixTime(int64_t seconds) {
  return zoneFromUnixTime(*this, seconds, "StructTmInTimezone::fromUnixTime");
}

Timeval StructTmInTimezone::toUnixTime() {
  return zoneToUnixTime(*this, "StructTmInTimezone::toUnixTime", 0);
}

bool StructTmInTimezoneHires::fromUnixTime(const Timeval &t) {
  const bool ok = zoneFromUnixTime(*this, t._tv.tv_sec, "StructTmInTimezoneHires::fromUnixTime");
  tv_usec = ok ? t._tv.tv_usec : t._tv.tv_sec < 0 ? 0 : 999999;
  return ok;
}

Timeval StructTmInTimezoneHires::toUnixTime() {
  return zoneToUnixTime(*this, "StructTmInTimezoneHires::toUnixTime", tv_usec);
}

}  // namespace morvek
