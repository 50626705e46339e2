// Conversions between numbers and text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace morvek {

// "00" "01" ... "99": two digits per table lookup.
extern const char DECIMAL_DIGIT_PAIRS[200];

// Largest output of the decimal writers below ("-9223372036854775808" and "18446744073709551615").
constexpr size_t DECIMAL_U64_MAX_DIGITS = 20;
constexpr size_t DECIMAL_I64_MAX_CHARS = 20;
constexpr size_t DECIMAL_U32_MAX_DIGITS = 10;
constexpr size_t DECIMAL_I32_MAX_CHARS = 11;

// Entry t is 10^t - 1: a value above it has more than t digits.
extern const uint64_t DECIMAL_POW10_MINUS_1[20];

// Number of decimal digits of v (1 for 0). The bit length gives the count to within one, and
// one table lookup settles it: no division loop.
inline unsigned decimalDigitCountU32(uint32_t v) {
  if (v < 10) return 1;
  unsigned t = static_cast<unsigned>((__builtin_clz(v) * -19 + 653) >> 6);
  return t + (v > DECIMAL_POW10_MINUS_1[t] ? 1 : 0);
}

inline unsigned decimalDigitCountU64(uint64_t v) {
  if (v < 10) return 1;
  unsigned t = static_cast<unsigned>((__builtin_clzll(v) * -19 + 1261) >> 6);
  return t + (v > DECIMAL_POW10_MINUS_1[t] ? 1 : 0);
}

namespace decimal_detail {

// Writes v so that its last digit lands just before end, two digits at a time.
template <class U>
inline void writeDigitsBackward(char *end, U v) {
  char *p = end;
  while (v >= 100) {
    unsigned pair = static_cast<unsigned>(v % 100) * 2;
    v /= 100;
    p -= 2;
    p[0] = DECIMAL_DIGIT_PAIRS[pair];
    p[1] = DECIMAL_DIGIT_PAIRS[pair + 1];
  }
  if (v >= 10) {
    unsigned pair = static_cast<unsigned>(v) * 2;
    p -= 2;
    p[0] = DECIMAL_DIGIT_PAIRS[pair];
    p[1] = DECIMAL_DIGIT_PAIRS[pair + 1];
  } else {
    *--p = static_cast<char>('0' + v);
  }
}

}  // namespace decimal_detail

// Write v in decimal at dst, with no terminator, and return the number of bytes written.
// A negative value is written with a leading "-".
inline size_t writeDecimalU32(char *dst, uint32_t v) {
  unsigned n = decimalDigitCountU32(v);
  decimal_detail::writeDigitsBackward(dst + n, v);
  return n;
}

inline size_t writeDecimalU64(char *dst, uint64_t v) {
  if (v <= UINT32_MAX) return writeDecimalU32(dst, static_cast<uint32_t>(v));
  unsigned n = decimalDigitCountU64(v);
  decimal_detail::writeDigitsBackward(dst + n, v);
  return n;
}

inline size_t writeDecimalI32(char *dst, int32_t v) {
  if (v >= 0) return writeDecimalU32(dst, static_cast<uint32_t>(v));
  *dst = '-';
  return 1 + writeDecimalU32(dst + 1, 0u - static_cast<uint32_t>(v));
}

inline size_t writeDecimalI64(char *dst, int64_t v) {
  if (v >= 0) return writeDecimalU64(dst, static_cast<uint64_t>(v));
  *dst = '-';
  return 1 + writeDecimalU64(dst + 1, 0ull - static_cast<uint64_t>(v));
}
// --- decimal parsing ---
// Decimal digits in [p, pend), with spaces and TABs allowed around them, no sign, at most max.
// On overflow the result is false and out holds the digits read so far.
bool parse_unsigned_val(const char *p, const char *pend, uint16_t &out, uint16_t max);
bool parse_unsigned_val(const char *p, const char *pend, uint32_t &out, uint32_t max);
bool parse_unsigned_val(const char *p, const char *pend, uint64_t &out, uint64_t max);
// --- end decimal parsing ---

}  // namespace morvek
