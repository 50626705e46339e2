#include "basicutil/BasicConversions.h"

#include "libzero/fatal-assert.h"

namespace morvek {

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
