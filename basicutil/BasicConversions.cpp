#include "basicutil/BasicConversions.h"

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

namespace {

// Entry t is 10^t - 1: a value above it has more than t digits.
constexpr uint64_t POW10_MINUS_1[20] = {0ull,
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

}  // namespace

unsigned decimalDigitCountU32(uint32_t v) {
  if (v < 10) return 1;
  // The bit length gives the digit count to within one; the table settles it.
  unsigned t = static_cast<unsigned>((__builtin_clz(v) * -19 + 653) >> 6);
  return t + (v > POW10_MINUS_1[t] ? 1 : 0);
}

unsigned decimalDigitCountU64(uint64_t v) {
  if (v < 10) return 1;
  unsigned t = static_cast<unsigned>((__builtin_clzll(v) * -19 + 1261) >> 6);
  return t + (v > POW10_MINUS_1[t] ? 1 : 0);
}

size_t writeDecimalU32(char *dst, uint32_t v) {
  unsigned n = decimalDigitCountU32(v);
  writeDigitsBackward(dst + n, v);
  return n;
}

size_t writeDecimalU64(char *dst, uint64_t v) {
  if (v <= UINT32_MAX) return writeDecimalU32(dst, static_cast<uint32_t>(v));
  unsigned n = decimalDigitCountU64(v);
  writeDigitsBackward(dst + n, v);
  return n;
}

size_t writeDecimalI32(char *dst, int32_t v) {
  if (v >= 0) return writeDecimalU32(dst, static_cast<uint32_t>(v));
  *dst = '-';
  return 1 + writeDecimalU32(dst + 1, 0u - static_cast<uint32_t>(v));
}

size_t writeDecimalI64(char *dst, int64_t v) {
  if (v >= 0) return writeDecimalU64(dst, static_cast<uint64_t>(v));
  *dst = '-';
  return 1 + writeDecimalU64(dst + 1, 0ull - static_cast<uint64_t>(v));
}

}  // namespace morvek
