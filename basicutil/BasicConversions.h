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

// Number of decimal digits of v (1 for 0), without a division loop.
unsigned decimalDigitCountU32(uint32_t v);
unsigned decimalDigitCountU64(uint64_t v);

// Write v in decimal at dst, with no terminator, and return the number of bytes written.
// A negative value is written with a leading "-".
size_t writeDecimalU32(char *dst, uint32_t v);
size_t writeDecimalU64(char *dst, uint64_t v);
size_t writeDecimalI32(char *dst, int32_t v);
size_t writeDecimalI64(char *dst, int64_t v);

}  // namespace morvek
