// Conversions between text and numbers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace morvek {

// --- decimal parsing ---
// Decimal digits in [p, pend), with spaces and TABs allowed around them, no sign, at most max.
// On overflow the result is false and out holds the digits read so far.
bool parse_unsigned_val(const char *p, const char *pend, uint16_t &out, uint16_t max);
bool parse_unsigned_val(const char *p, const char *pend, uint32_t &out, uint32_t max);
bool parse_unsigned_val(const char *p, const char *pend, uint64_t &out, uint64_t max);
// --- end decimal parsing ---

}  // namespace morvek
