#include "basicutil/BasicConversions.h"

#include "libzero/fatal-assert.h"

namespace morvek {

const char DECIMAL_DIGIT_PAIRS[200] = {
    '0', '0', '0', '1', '0', '2', '0', '3', '0', '4', '0', '5', '0', '6', '0', '7', '0', '8', '0',
    '9', '1', '0', '1', '1', '1', '2', '1', '3', '1', '4', '1', '5', '1', '6', '1', '7', '1', '8',
    '1', '9', '2', '0', '2', '1', '2', '2', '2', '3', '2', '4', '2', '5', '2', '6', '2', '7', '2',
    '8', '2', '9', '3', '0', '3', '1', '3', '2', '3', '3', '3', '4', '3', '5', '3', '6', '3', '7',
    '3', '8', '3', '9', '4', '0', '4', '1', '4', '2', '4', '3', '4', '4', '4', '5', '4', '6', '4',
    '7', '4', '8', '4', '9', '5', '0', '5', '1', '5', '2', '5', '3', '5', '4', '5', '5', '5', '6',
    '5', '7', '5', '8', '5', '9', '6', '0', '6', '1', '6', '2', '6', '3', '6', '4', '6', '5', '6',
    '6', '6', '7', '6', '8', '6', '9', '7', '0', '7', '1', '7', '2', '7', '3', '7', '4', '7', '5',
    '7', '6', '7', '7', '7', '8', '7', '9', '8', '0', '8', '1', '8', '2', '8', '3', '8', '4', '8',
    '5', '8', '6', '8', '7', '8', '8', '8', '9', '9', '0', '9', '1', '9', '2', '9', '3', '9', '4',
    '9', '5', '9', '6', '9', '7', '9', '8', '9', '9'};

const uint64_t DECIMAL_POW10_MINUS_1[20] = {0ull,
                                            9ull,
                                            99ull,
                                            999ull,
                                            9999ull,
                                            99999ull,
                                            999999ull,
                                            9999999ull,
                                            99999999ull,
                                            999999999ull,
                                            9999999999ull,
                                            99999999999ull,
                                            999999999999ull,
                                            9999999999999ull,
                                            99999999999999ull,
                                            999999999999999ull,
                                            9999999999999999ull,
                                            99999999999999999ull,
                                            999999999999999999ull,
                                            9999999999999999999ull};

// --- decimal parsing ---
namespace {

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

template <typename T>
bool parseUnsigned(const char *p, const char *pend, T &out, T max) {
  if (p == pend) return false;
  while (p < pend && isBlank(*p)) ++p;
  if (p == pend || !isDigit(*p)) return false;
  T value = 0;
  out = 0;
  for (; p < pend && isDigit(*p); ++p) {
    T digit = static_cast<T>(*p - '0');
    // value * 10 + digit <= max, asked without overflowing.
    if (value > max / 10 || digit > max - value * 10) return false;
    value = static_cast<T>(value * 10 + digit);
    out = value;
  }
  for (; p < pend; ++p) {
    if (!isBlank(*p)) return false;
  }
  MV_ASSERT(p == pend);
  return true;
}

}  // namespace

bool parse_unsigned_val(const char *p, const char *pend, uint16_t &out, uint16_t max) {
  return parseUnsigned(p, pend, out, max);
}
bool parse_unsigned_val(const char *p, const char *pend, uint32_t &out, uint32_t max) {
  return parseUnsigned(p, pend, out, max);
}
bool parse_unsigned_val(const char *p, const char *pend, uint64_t &out, uint64_t max) {
  return parseUnsigned(p, pend, out, max);
}
// --- end decimal parsing ---

}  // namespace morvek
