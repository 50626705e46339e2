// Floating-point text from the shortest round-trip digits, rounded in decimal. Nothing here
// allocates: the crash sink uses the same objects as the Str sink.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "basicutil/PrintfFormat.h"
#include "basicutil/Str.h"

namespace morvek {

inline bool double_is_finite(double x) { return std::isfinite(x); }

// The shortest decimal digits that read back as the same double: value = 0.digits * 10^point.
struct DoubleToStringShortest {
  char digits[18];
  bool negative;
  int length;
  int point;

  DoubleToStringShortest() : digits{'0', 0}, negative(false), length(1), point(1) {}
  explicit DoubleToStringShortest(double x) { set(x); }
  // x must be finite.
  void set(double x);

  // Rounds to n places behind the point, ties to even on the digits.
  void roundToPlaces(int n);

  // Plain decimal text, never with an exponent: "-0.00125", "1500", "2.5".
  size_t plainTextLength() const;
  // Writes the plain text and a NUL when dst_size allows; returns plainTextLength() either way.
  size_t writePlainText(char *dst, size_t dst_size) const;
  void appendPlainText(Str &out) const;
};

// "Infinity", "-Infinity" or "NaN"; x must not be finite.
StrSegment get_nonfinite_double_repl(double x);

// A double printed to a number of significant figures and of places behind the point.
struct DoubleWithSignificantFigures {
  static constexpr uint16_t MAX_SIGFIGS = 65535;    // no limit
  static constexpr uint16_t MAX_PRECISION = 65535;  // no limit
  double value;
  uint16_t sigfigs;
  uint16_t precision;

  explicit DoubleWithSignificantFigures(double v, uint16_t sf = MAX_SIGFIGS,
                                        uint16_t prec = MAX_PRECISION)
      : value(v), sigfigs(sf), precision(prec) {}
};

// Rounds digits by dsf's limits (neither may be "no limit"); ties go toward positive infinity.
void roundForSigfigsAndPrecision(DoubleToStringShortest &digits,
                                 const DoubleWithSignificantFigures &dsf);
bool shouldRoundAwayFromZero(const DoubleToStringShortest &digits, unsigned orig_length);

void append_stringified(Str &out, const DoubleToStringShortest &d);
void append_stringified(Str &out, const DoubleWithSignificantFigures &dsf);
void crashlog_write(crash_log_writer *w, const DoubleToStringShortest &d) noexcept;
void crashlog_write(crash_log_writer *w, const DoubleWithSignificantFigures &dsf) noexcept;

// Whole-text parses: true with a finite value only when every byte was consumed.
bool parseDoubleAllowingSpaces(const char *text, size_t len, double &out);  // blanks around
bool parseDoubleStrict(const char *text, size_t len, double &out);

// True when %g shows these digits with an exponent.
bool wouldRepresentUsingExponent(const PrintfFormatAtom &atom, const DoubleToStringShortest &d);

// ---- Rendered objects for %e, %f, %g, %a and the non-finite values. ----

struct PrintfNonfiniteFloatingPointRenderingBuffer {
  char _buf[4];
  size_t _used;
  PrintfNonfiniteFloatingPointRenderingBuffer(const PrintfFormatAtom &atom, double x);
};

// Rounds *d in place for the atom.
struct PrintfRenderedExponentialFloat {
  size_t left_blanks = 0;
  char sign = 0;
  size_t zeros = 0;
  const DoubleToStringShortest *cdtssp;
  size_t digits_after_dot = PrintfFormatAtom::NOT_SET;
  size_t trailing_zeros = 0;
  char exponent_letter;
  char exponent_sign;
  char exponent_digits[4];
  size_t exponent_len = 0;
  size_t right_blanks = 0;

  PrintfRenderedExponentialFloat(const PrintfFormatAtom &atom, DoubleToStringShortest *d);
  size_t size() const;
};

// Rounds *d in place for the atom.
struct PrintfRenderedNormalFloat {
  size_t left_blanks = 0;
  char sign = 0;
  size_t zeros = 0;
  const DoubleToStringShortest *cdtssp;
  size_t digits_before_dot = 0;
  bool use_commas = false;
  size_t integer_zeros = 0;  // zeros that complete the integer part after its digits
  size_t zeros_after_dot = 0;
  size_t digits_after_dot = PrintfFormatAtom::NOT_SET;
  size_t trailing_zeros = 0;
  size_t right_blanks = 0;

  PrintfRenderedNormalFloat(const PrintfFormatAtom &atom, DoubleToStringShortest *d);
  size_t integerPartSize() const;
  size_t size() const;
};

struct PrintfRenderedHexFloat {
  size_t left_blanks = 0;
  char sign = 0;
  const char *prefix;  // "0x" or "0X"
  size_t zeros = 0;
  char leading_digit;
  char hex_digits[14];
  size_t hex_digit_count = PrintfFormatAtom::NOT_SET;  // NOT_SET: no dot
  size_t trailing_zeros = 0;
  char p_letter;
  char exponent_sign;
  char exponent_digits[5];
  size_t exponent_len = 0;
  size_t right_blanks = 0;

  PrintfRenderedHexFloat(const PrintfFormatAtom &atom, double x);
  size_t size() const;
};

void append_stringified(Str &out, const PrintfRenderedExponentialFloat &r);
void append_stringified(Str &out, const PrintfRenderedNormalFloat &r);
void append_stringified(Str &out, const PrintfRenderedHexFloat &r);
void crashlog_write(crash_log_writer *w, const PrintfRenderedExponentialFloat &r) noexcept;
void crashlog_write(crash_log_writer *w, const PrintfRenderedNormalFloat &r) noexcept;
void crashlog_write(crash_log_writer *w, const PrintfRenderedHexFloat &r) noexcept;

namespace printf_detail {

template <class W>
void emit(W &w, const PrintfRenderedExponentialFloat &r) {
  w.fill(' ', r.left_blanks);
  if (r.sign) w.put(r.sign);
  w.fill('0', r.zeros);
  w.put(r.cdtssp->digits[0]);
  if (r.digits_after_dot != PrintfFormatAtom::NOT_SET) {
    w.put('.');
    w.write(r.cdtssp->digits + 1, r.digits_after_dot);
    w.fill('0', r.trailing_zeros);
  }
  w.put(r.exponent_letter);
  w.put(r.exponent_sign);
  w.write(r.exponent_digits, r.exponent_len);
  w.fill(' ', r.right_blanks);
}

template <class W>
void emitGroupedInteger(W &w, const char *digits, size_t n, size_t z) {
  size_t chunk = print_with_commas_first_chunk_size(n, z, digits[0]);
  size_t at = 0;  // position in the n + z digit run
  size_t total = n + z;
  bool first = true;
  while (at < total) {
    if (!first) w.put(',');
    first = false;
    size_t end = at + chunk;
    if (at < n) {
      size_t from_digits = (end <= n ? end : n) - at;
      w.write(digits + at, from_digits);
      if (end > n) w.fill('0', end - n);
    } else {
      w.fill('0', chunk);
    }
    at = end;
    chunk = 3;
  }
}

template <class W>
void emit(W &w, const PrintfRenderedNormalFloat &r) {
  const DoubleToStringShortest &d = *r.cdtssp;
  w.fill(' ', r.left_blanks);
  if (r.sign) w.put(r.sign);
  w.fill('0', r.zeros);
  if (r.digits_before_dot == 0) {
    w.put('0');
  } else if (r.use_commas) {
    emitGroupedInteger(w, d.digits, r.digits_before_dot, r.integer_zeros);
  } else {
    w.write(d.digits, r.digits_before_dot);
    w.fill('0', r.integer_zeros);
  }
  if (r.digits_after_dot != PrintfFormatAtom::NOT_SET) {
    w.put('.');
    w.fill('0', r.zeros_after_dot);
    w.write(d.digits + r.digits_before_dot, r.digits_after_dot);
    w.fill('0', r.trailing_zeros);
  }
  w.fill(' ', r.right_blanks);
}

template <class W>
void emit(W &w, const PrintfRenderedHexFloat &r) {
  w.fill(' ', r.left_blanks);
  if (r.sign) w.put(r.sign);
  w.write(r.prefix, 2);
  w.fill('0', r.zeros);
  w.put(r.leading_digit);
  if (r.hex_digit_count != PrintfFormatAtom::NOT_SET) {
    w.put('.');
    w.write(r.hex_digits, r.hex_digit_count);
    w.fill('0', r.trailing_zeros);
  }
  w.put(r.p_letter);
  w.put(r.exponent_sign);
  w.write(r.exponent_digits, r.exponent_len);
  w.fill(' ', r.right_blanks);
}

}  // namespace printf_detail

// Renders a double for a float atom and hands the rendered object to put, a callable taking
// each of the rendered types above and PrintfRenderedText.
template <class Put>
void printfDoubleValue(const PrintfFormatAtom &atom, double x, Put &&put) {
  if (!double_is_finite(x)) {
    PrintfNonfiniteFloatingPointRenderingBuffer nf(atom, x);
    put(PrintfRenderedText(atom, nf._buf, nf._used));
    return;
  }
  if (atom.conversion == PrintfFormatAtom::CONV_FLOAT_HEX) {
    put(PrintfRenderedHexFloat(atom, x));
    return;
  }
  DoubleToStringShortest d(x);
  switch (atom.conversion) {
    case PrintfFormatAtom::CONV_FLOAT_EXPONENT:
      put(PrintfRenderedExponentialFloat(atom, &d));
      return;
    case PrintfFormatAtom::CONV_FLOAT_FIXED:
      put(PrintfRenderedNormalFloat(atom, &d));
      return;
    default:
      MV_ASSERT(atom.conversion == PrintfFormatAtom::CONV_FLOAT_CHOOSE);
      if (wouldRepresentUsingExponent(atom, d)) {
        PrintfRenderedExponentialFloat e(atom, &d);
        // Rounding can carry the point back into the fixed range (9.9999e-05 to 0.0001).
        if (wouldRepresentUsingExponent(atom, d)) {
          put(e);
          return;
        }
      }
      put(PrintfRenderedNormalFloat(atom, &d));
      return;
  }
}

}  // namespace morvek
