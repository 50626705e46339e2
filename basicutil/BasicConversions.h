// Conversions between numbers and text, and the encoders that make text safe elsewhere.
//
// The parsers are strict (trailing garbage fails, a negative number is no unsigned number),
// leave errno and the locale alone, and read a length-bounded text that needs no terminator;
// fetchInBase is the one family that goes through the C library and touches errno.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "basicutil/Str.h"

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

// Writes v so that its last digit lands just before end, two digits at a time; returns where
// the first digit went.
template <class U>
inline char *writeDigitsBackward(char *end, U v) {
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
  return p;
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

// ---------------------------------------------------------------------------------------------
// Text to numbers

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
// The n (1 to 8) bytes at p in the low bytes of a word, the first lowest, zeros above. Two
// loads that may overlap, so that nothing past the n bytes is read: short texts go to word and
// vector code whole.
inline uint64_t loadLowBytes(const void *p, size_t n) {
  const char *c = static_cast<const char *>(p);
  uint32_t lo, hi;
  if (n >= 4) {
    memcpy(&lo, c, 4);
    memcpy(&hi, c + n - 4, 4);
    return uint64_t(hi) << 8 * (n - 4) | lo;
  }
  uint16_t lo2, hi2;
  if (n >= 2) {
    memcpy(&lo2, c, 2);
    memcpy(&hi2, c + n - 2, 2);
    return uint64_t(hi2) << 8 * (n - 2) | lo2;
  }
  return static_cast<unsigned char>(*c);
}
#endif

namespace decimal_detail {

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
// Eight digits in a word, first digit in the low byte, as a number; false when a byte isn't a
// digit. The tests can't carry between bytes once every high nibble is 3.
inline bool parseEightDigits(uint64_t w, uint64_t &out) {
  constexpr uint64_t ones = 0x0101010101010101u;
  if ((w & ones * 0xF0) != ones * 0x30 || ((w + ones * 6) & ones * 0xF0) != ones * 0x30)
    return false;
  w -= ones * '0';
  w = (w * 10 + (w >> 8)) & 0x00FF00FF00FF00FFu;
  w = (w * 100 + (w >> 16)) & 0x0000FFFF0000FFFFu;
  out = (w * 10000 + (w >> 32)) & 0xFFFFFFFFu;
  return true;
}

template <class T>
inline T loadBytes(const char *p) {
  T v;
  memcpy(&v, p, sizeof v);
  return v;
}

// The n (1 to 8) bytes at p as the last bytes of a word that '0's fill in front.
inline uint64_t digitWord(const char *p, size_t n) {
  const unsigned pad = 8 * static_cast<unsigned>(8 - n);
  return loadLowBytes(p, n) << pad | (0x3030303030303030u & ((uint64_t(1) << pad) - 1));
}
#endif

// The usual text: 1 to 19 digits and nothing else, which can't overflow 64 bits. False for
// anything else, which the full parsers then take. Inline, since the call would cost as much.
inline bool parseDigitsOnly(const char *p, size_t n, uint64_t &out) {
  if (n - 1 >= 19) return false;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  uint64_t v = 0, e;
  if (n > 8) {
    if (n > 16) {
      if (!parseEightDigits(loadBytes<uint64_t>(p), v)) return false;
      p += 8;
      n -= 8;
    }
    const size_t head = n - 8;
    if (!parseEightDigits(digitWord(p, head), e)) return false;
    constexpr uint64_t pow10[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
    v = v * pow10[head] + e;
    p += head;
    if (!parseEightDigits(loadBytes<uint64_t>(p), e)) return false;
    out = v * 100000000 + e;
    return true;
  }
  if (!parseEightDigits(digitWord(p, n), e)) return false;
  out = e;
  return true;
#else
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) {
    const unsigned d = static_cast<unsigned char>(p[i]) - unsigned{'0'};
    if (d > 9) return false;
    v = v * 10 + d;
  }
  out = v;
  return true;
#endif
}

bool signedFetchFull(const char *data, size_t len, int16_t &out);
bool signedFetchFull(const char *data, size_t len, int32_t &out);
bool signedFetchFull(const char *data, size_t len, int64_t &out);

template <class S>
inline bool signedFetch(const char *data, size_t len, S &out) {
  using U = std::make_unsigned_t<S>;
  uint64_t v;
  if (data != nullptr && len != 0) {
    if (data[0] == '-') {
      if (parseDigitsOnly(data + 1, len - 1, v) &&
          v <= uint64_t(U(std::numeric_limits<S>::max())) + 1) {
        out = static_cast<S>(U(0) - static_cast<U>(v));
        return true;
      }
    } else if (parseDigitsOnly(data, len, v) && v <= uint64_t(std::numeric_limits<S>::max())) {
      out = static_cast<S>(v);
      return true;
    }
  }
  return signedFetchFull(data, len, out);
}

}  // namespace decimal_detail

// Decimal with an optional leading '-', blanks (space, TAB) around. "- 1" is -1: blanks after
// the sign have always been accepted, and stay so. On failure out is unchanged.
inline bool do_signed_fetch(const char *data, size_t len, int16_t &out) {
  return decimal_detail::signedFetch(data, len, out);
}
inline bool do_signed_fetch(const char *data, size_t len, int32_t &out) {
  return decimal_detail::signedFetch(data, len, out);
}
inline bool do_signed_fetch(const char *data, size_t len, int64_t &out) {
  return decimal_detail::signedFetch(data, len, out);
}

// Through strtol and friends, so base 0 takes "0x" and "0" prefixes, and the signed forms take
// '+' and '-'. Leading whitespace by the C library's table; trailing text fails. The unsigned
// forms refuse '-', which strtoull would wrap. Sets errno; on failure out is unchanged.
bool fetchInBase(StrSegment text, int32_t &out, int base);
bool fetchInBase(StrSegment text, int64_t &out, int base);
bool fetchInBase(StrSegment text, uint32_t &out, int base);
bool fetchInBase(StrSegment text, uint64_t &out, int base);
inline bool fetchInBase(StrSegment text, long long &out, int base) {
  int64_t v;
  if (!fetchInBase(text, v, base)) return false;
  out = v;
  return true;
}
inline bool fetchInBase(StrSegment text, unsigned long long &out, int base) {
  uint64_t v;
  if (!fetchInBase(text, v, base)) return false;
  out = v;
  return true;
}

// The value converted when nothing is lost: a whole number within the target's range, where the
// 64-bit ranges stop at the integers a double holds exactly (2^53). NaN and 1.5 are false.
bool doubleToInteger(double value, int16_t &out);
bool doubleToInteger(double value, int32_t &out);
bool doubleToInteger(double value, int64_t &out);
bool doubleToInteger(double value, uint16_t &out);
bool doubleToInteger(double value, uint32_t &out);
bool doubleToInteger(double value, uint64_t &out);

// "t", "true", "yes", "1" and "f", "false", "no", "0", caselessly and without blanks.
bool parseBool(const char *data, size_t len, bool &out);
bool parseBoolOr(const char *data, size_t len, bool defaultIfEmpty, bool defaultIfBad);

// A count of bytes with an optional unit ("10", "4 KiB", "2 megabytes"). parseByteSize reads
// "kB", "MB", ... as powers of 1000, parseByteSizeBinary as powers of 1024; the "i" units are
// binary in both. A product too large for 64 bits wraps: the callers' limits are far below.
bool parseByteSize(const char *data, size_t len, uint64_t &out);
bool parseByteSizeBinary(const char *data, size_t len, uint64_t &out);

// ---------------------------------------------------------------------------------------------
// Numbers to text

template <class T>
concept AppendableInteger = std::is_integral_v<T> && !std::is_same_v<T, bool>;

template <AppendableInteger T>
inline void appendNumber(Str &out, T value) {
  char buf[DECIMAL_I64_MAX_CHARS];
  size_t n;
  if constexpr (std::is_signed_v<T>) {
    if constexpr (sizeof(T) <= 4) {
      n = writeDecimalI32(buf, static_cast<int32_t>(value));
    } else {
      n = writeDecimalI64(buf, static_cast<int64_t>(value));
    }
  } else if constexpr (sizeof(T) <= 4) {
    n = writeDecimalU32(buf, static_cast<uint32_t>(value));
  } else {
    n = writeDecimalU64(buf, static_cast<uint64_t>(value));
  }
  out.append(buf, n);
}

// Shortest digits that read back as the same double, in plain decimal ("0.1", "1500", "-2.5");
// "NaN", "Infinity" or "-Infinity" otherwise.
void appendDouble(Str &out, double value);

// Lower- or upper-case hex digits, no prefix; a width pads with zeros on the left.
void appendHex(Str &out, uint64_t value, int width = 0);
void appendHexUpper(Str &out, uint64_t value, int width = 0);

// A byte count and the unit it came in. A hint that is a power of two (or 0) asks for binary
// units, any other (1000, say) for decimal ones.
struct ByteSize {
  static constexpr uint64_t BINARY = 1024;
  static constexpr uint64_t DECIMAL = 1000;

  uint64_t value;
  uint64_t unit_hint = 0;
};

// The largest unit that fits, then the quotient: "1KiB", "1.500KiB", "999B", "2.500MB".
void appendByteSize(Str &out, ByteSize size);

// ---------------------------------------------------------------------------------------------
// Encoders and quoting

// Standard alphabet. Whitespace is an error, padding is optional, and text after padding makes
// the result false; what was decoded before a failure stays appended.
bool base64Decode(Str &out, const char *data, size_t len);

// Percent-encoding of every byte outside "A-Za-z0-9-_.~", with capital hex digits.
void urlEncode(Str &out, const char *data, size_t len);
Str urlEncoded(StrSegment text);
// A string with nothing to encode costs one scan and no copy.
void urlEncodeInPlace(Str &s);
// '+' is a space and "%XX" a byte; a '%' without two hex digits stays. The decoded text is kept
// only when it is valid UTF-8, and the result says whether the string now is.
bool urlDecodeInPlace(Str &s);

// A term of the search language: quoted when a byte is outside set (with '"' and, unless
// keepBackslashes, '\\' escaped), when it is one of the operators AND, OR, NOT, IN, or when
// force is set. Empty text is "\"\"".
Str searchQuoted(StrSegment str, const ByteSet &set = BYTESET_IDENTIFIER, bool force = false,
                 bool keepBackslashes = false);

// A CSV field: in double quotes, with '"' doubled, when it holds ',', CR, LF or '"'.
void csvQuoteAppend(Str &out, const char *data, size_t len);

// TAB, CR and LF as "\\t", "\\r", "\\n"; backslashes aren't escaped, so this is for display only.
Str escapeControls(StrSegment str);

// For log messages: TAB becomes a space, LF and CR "\\n" and "\\r", other bytes outside
// 0x20..0x7E "\\xHH". Printable text is left untouched, without a copy.
void makePrintableInPlace(Str &s);

void appendBigEndian32(Str &out, uint32_t v);
void appendBigEndian64(Str &out, uint64_t v);

// Seven bits a byte, least significant first, bit 7 set on all but the last. The out-of-line
// part takes values of 128 and up, so that the common one-byte case stays inline.
void _appendBase128(Str &out, uint64_t v);
inline void appendBase128(Str &out, uint64_t v) {
  if (v < 128) {
    out.push_back(static_cast<char>(v));
  } else {
    _appendBase128(out, v);
  }
}

}  // namespace morvek

// --- decimal parsing ---
namespace morvek {

// Decimal digits between optional blanks (space, TAB), nothing else: no sign. Fails when the
// value would exceed max, leaving the partial value in out.
bool parse_unsigned_val(const char *p, const char *pend, uint64_t &out, uint64_t max);
inline bool parse_unsigned_val(const char *p, const char *pend, uint32_t &out, uint32_t max) {
  uint64_t v = 0;
  bool ok = parse_unsigned_val(p, pend, v, max);
  out = static_cast<uint32_t>(v);
  return ok;
}
inline bool parse_unsigned_val(const char *p, const char *pend, uint16_t &out, uint16_t max) {
  uint64_t v = 0;
  bool ok = parse_unsigned_val(p, pend, v, max);
  out = static_cast<uint16_t>(v);
  return ok;
}

// The typed forms; on failure out is unchanged.
template <class U>
requires std::is_unsigned_v<U> &&(sizeof(U) >= 2) &&
    (!std::is_same_v<U, bool>)inline bool parse_unsigned_val(const char *data, size_t len, U &out) {
  uint64_t v;
  if (decimal_detail::parseDigitsOnly(data, len, v) && v <= std::numeric_limits<U>::max()) {
    out = static_cast<U>(v);
    return true;
  }
  if (!parse_unsigned_val(data, data + len, v, std::numeric_limits<U>::max())) return false;
  out = static_cast<U>(v);
  return true;
}

}  // namespace morvek
// --- end decimal parsing ---

namespace morvek {

// The fetch with a fallback: the default when the text doesn't parse.
template <class T>
requires std::is_integral_v<T> &&(sizeof(T) >= 2) && (!std::is_same_v<T, bool>)inline T
    fetchOr(const char *data, size_t len, T defaultValue) {
  if constexpr (std::is_signed_v<T>) {
    using Fixed = std::conditional_t<sizeof(T) == 2, int16_t,
                                     std::conditional_t<sizeof(T) == 4, int32_t, int64_t>>;
    Fixed v = 0;
    return do_signed_fetch(data, len, v) ? static_cast<T>(v) : defaultValue;
  } else {
    uint64_t v = 0;
    if (data == nullptr) return defaultValue;
    return parse_unsigned_val(data, data + len, v, std::numeric_limits<T>::max())
               ? static_cast<T>(v)
               : defaultValue;
  }
}

template <class T>
requires std::is_integral_v<T> &&(sizeof(T) >= 4) && (!std::is_same_v<T, bool>)inline T
    fetchInBaseOr(StrSegment text, T defaultValue, int base) {
  using Fixed =
      std::conditional_t<std::is_signed_v<T>, std::conditional_t<sizeof(T) == 4, int32_t, int64_t>,
                         std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>;
  Fixed v = 0;
  return fetchInBase(text, v, base) ? static_cast<T>(v) : defaultValue;
}

}  // namespace morvek
