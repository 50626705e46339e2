#include "basicutil/PrintFloatingPoint.h"

#include <double-conversion/double-to-string.h>
#include <double-conversion/string-to-double.h>

#include <cstring>

#include "basicutil/BasicConversions.h"

namespace morvek {

namespace {

// A cut can leave zeros at the end ("10001" kept to three is "100"); they carry no information,
// and %g must not show them.
void dropTrailingZeros(DoubleToStringShortest &d) {
  while (d.length > 1 && d.digits[d.length - 1] == '0') --d.length;
  d.digits[d.length] = '\0';
}

void setOne(DoubleToStringShortest &d, char digit, int point) {
  d.digits[0] = digit;
  d.digits[1] = '\0';
  d.length = 1;
  d.point = point;
}

}  // namespace

void DoubleToStringShortest::set(double x) {
  MV_ASSERT(double_is_finite(x));
  bool sign = false;
  double_conversion::DoubleToStringConverter::DoubleToAscii(
      x, double_conversion::DoubleToStringConverter::SHORTEST, 0, digits, sizeof(digits), &sign,
      &length, &point);
  negative = sign;
  MV_ASSERT(length > 0);
  MV_ASSERT(length < (int)sizeof(digits));
  MV_ASSERT(digits[length] == '\0');
}

void DoubleToStringShortest::roundToPlaces(int n) {
  int pos = point + n;
  if (pos < 0 || pos >= length) return;
  char c = digits[pos];
  bool last = pos == length - 1;
  length = pos;
  if (c < '5' || (c == '5' && last && (pos == 0 || (digits[pos - 1] - '0') % 2 == 0))) {
    // Down, ties to even on the digits.
    if (pos == 0) {
      setOne(*this, '0', 1);
    } else {
      dropTrailingZeros(*this);
    }
    return;
  }
  if (pos == 0) {
    setOne(*this, '1', point + 1);
    return;
  }
  while (length > 0 && digits[length - 1] == '9') --length;
  if (length == 0) {
    setOne(*this, '1', point + 1);
    return;
  }
  ++digits[length - 1];
  digits[length] = '\0';
}

size_t DoubleToStringShortest::plainTextLength() const {
  size_t n = negative ? 1 : 0;
  if (point >= length) return n + static_cast<size_t>(point);
  if (point <= 0) return n + 2 + static_cast<size_t>(-point) + static_cast<size_t>(length);
  return n + static_cast<size_t>(length) + 1;
}

namespace {

template <class W>
void emitPlain(W &w, const DoubleToStringShortest &d) {
  if (d.negative) w.put('-');
  if (d.point >= d.length) {
    w.write(d.digits, static_cast<size_t>(d.length));
    w.fill('0', static_cast<size_t>(d.point - d.length));
  } else if (d.point <= 0) {
    w.write("0.", 2);
    w.fill('0', static_cast<size_t>(-d.point));
    w.write(d.digits, static_cast<size_t>(d.length));
  } else {
    w.write(d.digits, static_cast<size_t>(d.point));
    w.put('.');
    w.write(d.digits + d.point, static_cast<size_t>(d.length - d.point));
  }
}

}  // namespace

size_t DoubleToStringShortest::writePlainText(char *dst, size_t dst_size) const {
  size_t n = plainTextLength();
  if (n < dst_size) {
    printf_detail::MemoryWriter w{dst};
    emitPlain(w, *this);
    dst[n] = '\0';
  }
  return n;
}

void DoubleToStringShortest::appendPlainText(Str &out) const {
  size_t old = out.size();
  out.resize(old + plainTextLength());
  printf_detail::MemoryWriter w{out.data() + old};
  emitPlain(w, *this);
}

StrSegment get_nonfinite_double_repl(double x) {
  MV_ASSERT(!double_is_finite(x));
  if (x != x) return 0 > x ? StrSegment("-NaN", 4) : StrSegment("NaN", 3);
  return 0 > x ? StrSegment("-Infinity", 9) : StrSegment("Infinity", 8);
}

bool shouldRoundAwayFromZero(const DoubleToStringShortest &d, unsigned orig_length) {
  MV_ASSERT(((unsigned)d.length) < orig_length);
  char first_digit = d.digits[d.length];
  MV_ASSERT(first_digit >= '0' && first_digit <= '9');
  if (first_digit != '5') return first_digit > '5';
  return !d.negative || orig_length > static_cast<unsigned>(d.length) + 1;
}

void roundForSigfigsAndPrecision(DoubleToStringShortest &d,
                                 const DoubleWithSignificantFigures &dsf) {
  MV_ASSERT(dsf.sigfigs != DoubleWithSignificantFigures::MAX_SIGFIGS);
  MV_ASSERT(dsf.precision != DoubleWithSignificantFigures::MAX_PRECISION);
  int round_ptr;
  if (d.point >= dsf.sigfigs) {
    round_ptr = d.point;
    MV_ASSERT(round_ptr >= 0);
  } else {
    round_ptr = d.point + dsf.precision;
    if (dsf.sigfigs < round_ptr) round_ptr = dsf.sigfigs;
    if (round_ptr < 0) {
      setOne(d, '0', 1);
      return;
    }
  }
  if (round_ptr >= d.length) return;
  MV_ASSERT(round_ptr < (int)(sizeof(d.digits) / sizeof(d.digits[0])));
  unsigned orig_length = static_cast<unsigned>(d.length);
  d.length = round_ptr;
  bool up = shouldRoundAwayFromZero(d, orig_length);
  if (!up) {
    if (round_ptr == 0) {
      setOne(d, '0', 1);
    } else {
      d.digits[d.length] = '\0';
    }
    return;
  }
  for (int i = round_ptr - 1; i >= 0; --i) {
    char old_ch = d.digits[i];
    if (old_ch == '9') {
      d.digits[i] = '0';
      continue;
    }
    MV_ASSERT(old_ch >= '0' && old_ch <= '8');
    d.digits[i] = static_cast<char>(old_ch + 1);
    d.digits[d.length] = '\0';
    return;
  }
  setOne(d, '1', d.point + 1);
}

namespace {

// Rounds a copy of dsf's digits as asked; the non-finite values pass through as text.
template <class W>
void emitSignificant(W &w, const DoubleWithSignificantFigures &dsf) {
  if (!double_is_finite(dsf.value)) {
    StrSegment repl = get_nonfinite_double_repl(dsf.value);
    w.write(repl._data, repl._len);
    return;
  }
  DoubleToStringShortest d(dsf.value);
  if (dsf.sigfigs != DoubleWithSignificantFigures::MAX_SIGFIGS ||
      dsf.precision != DoubleWithSignificantFigures::MAX_PRECISION) {
    DoubleWithSignificantFigures limits = dsf;
    if (limits.sigfigs == DoubleWithSignificantFigures::MAX_SIGFIGS) limits.sigfigs -= 1;
    if (limits.precision == DoubleWithSignificantFigures::MAX_PRECISION) limits.precision -= 1;
    roundForSigfigsAndPrecision(d, limits);
  }
  emitPlain(w, d);
}

}  // namespace

void append_stringified(Str &out, const DoubleToStringShortest &d) { d.appendPlainText(out); }

void append_stringified(Str &out, const DoubleWithSignificantFigures &dsf) {
  // Bounded: a sign, "0.", 324 zeros and 17 digits at the most.
  char buf[400];
  printf_detail::MemoryWriter w{buf};
  emitSignificant(w, dsf);
  out.append(buf, static_cast<size_t>(w.p - buf));
}

void crashlog_write(crash_log_writer *h, const DoubleToStringShortest &d) noexcept {
  printf_detail::CrashWriter w{h};
  emitPlain(w, d);
}

void crashlog_write(crash_log_writer *h, const DoubleWithSignificantFigures &dsf) noexcept {
  printf_detail::CrashWriter w{h};
  emitSignificant(w, dsf);
}

namespace {

const double_conversion::StringToDoubleConverter &spacedConverter() {
  static const double_conversion::StringToDoubleConverter conv(
      double_conversion::StringToDoubleConverter::ALLOW_LEADING_SPACES |
          double_conversion::StringToDoubleConverter::ALLOW_TRAILING_SPACES,
      NAN, NAN, nullptr, nullptr);
  return conv;
}

const double_conversion::StringToDoubleConverter &strictConverter() {
  static const double_conversion::StringToDoubleConverter conv(0, NAN, NAN, nullptr, nullptr);
  return conv;
}

bool parseWith(const double_conversion::StringToDoubleConverter &conv, const char *text, size_t len,
               double &out) {
  if (len > 0x7fffffff) return false;
  int processed = 0;
  double v = conv.StringToDouble(text, static_cast<int>(len), &processed);
  if (static_cast<size_t>(processed) != len || !double_is_finite(v)) return false;
  out = v;
  return true;
}

}  // namespace

bool parseDoubleAllowingSpaces(const char *text, size_t len, double &out) {
  if (!text) return false;
  return parseWith(spacedConverter(), text, len, out);
}

bool parseDoubleStrict(const char *text, size_t len, double &out) {
  if (!text) text = "";
  return parseWith(strictConverter(), text, len, out);
}

// ---- printf conversions ----

bool wouldRepresentUsingExponent(const PrintfFormatAtom &atom, const DoubleToStringShortest &d) {
  MV_ASSERT(atom.conversion == PrintfFormatAtom::CONV_FLOAT_CHOOSE);
  long p = atom.precision == PrintfFormatAtom::NOT_SET ? 6 : static_cast<long>(atom.precision);
  if (p == 0) p = 1;
  return d.point < -3 || d.point > p;
}

PrintfNonfiniteFloatingPointRenderingBuffer::PrintfNonfiniteFloatingPointRenderingBuffer(
    const PrintfFormatAtom &atom, double x)
    : _used(0) {
  StrSegment repl = get_nonfinite_double_repl(x);
  MV_ASSERT(!repl.empty());
  const char *s = repl._data;
  if (*s == '-') {
    _buf[_used++] = '-';
    ++s;
  } else if (atom.sign_nonnegative == PrintfFormatAtom::SIGN_NONNEGATIVE_SPACE) {
    _buf[_used++] = ' ';
  } else if (atom.sign_nonnegative == PrintfFormatAtom::SIGN_NONNEGATIVE_PLUS) {
    _buf[_used++] = '+';
  }
  bool upper = atom_upper_case(atom);
  for (int i = 0; i < 3; ++i, ++s) {
    MV_ASSERT(s <= repl.end());
    char c = *s;
    c = upper ? static_cast<char>(c & ~0x20) : static_cast<char>(c | 0x20);
    _buf[_used++] = c;
  }
  MV_ASSERT(_used <= sizeof(_buf));
}

namespace {

size_t widthShortfall(const PrintfFormatAtom &atom, size_t total) {
  return (atom.width != PrintfFormatAtom::NOT_SET && atom.width > total) ? atom.width - total : 0;
}

void distributePadding(const PrintfFormatAtom &atom, size_t padding_needed, size_t &left,
                       size_t &zeros, size_t &right) {
  if (padding_needed == 0) return;
  switch (atom.padding) {
    case PrintfFormatAtom::PAD_LEFT_SPACES:
      left += padding_needed;
      break;
    case PrintfFormatAtom::PAD_RIGHT_SPACES:
      right += padding_needed;
      break;
    default:
      MV_ASSERT(atom.padding == PrintfFormatAtom::PAD_LEFT_ZEROS);
      zeros += padding_needed;
      break;
  }
}

// Sign of a finite number: "-", or what the atom asks of a nonnegative one.
void signFor(const PrintfFormatAtom &atom, bool negative, char &sign, size_t &left_blanks) {
  if (negative) {
    sign = '-';
  } else if (atom.sign_nonnegative == PrintfFormatAtom::SIGN_NONNEGATIVE_SPACE) {
    left_blanks = 1;
  } else if (atom.sign_nonnegative == PrintfFormatAtom::SIGN_NONNEGATIVE_PLUS) {
    sign = '+';
  }
}

size_t defaultedPrecision(const PrintfFormatAtom &atom) {
  return atom.precision == PrintfFormatAtom::NOT_SET ? 6 : atom.precision;
}

// A precision so large that no double has digits there; keeps int arithmetic safe.
constexpr size_t PRECISION_CLAMP = 1000;

}  // namespace

PrintfRenderedExponentialFloat::PrintfRenderedExponentialFloat(const PrintfFormatAtom &atom,
                                                               DoubleToStringShortest *d)
    : cdtssp(d) {
  bool choose = atom.conversion == PrintfFormatAtom::CONV_FLOAT_CHOOSE;
  size_t dd = defaultedPrecision(atom);
  if (choose && dd > 0) --dd;
  signFor(atom, d->negative, sign, left_blanks);
  int places = static_cast<int>(dd < PRECISION_CLAMP ? dd : PRECISION_CLAMP) - d->point + 1;
  d->roundToPlaces(places);
  MV_ASSERT(cdtssp->length >= 1);

  size_t real = static_cast<size_t>(d->length) - 1;
  if (dd > 0) {
    if (real < dd) {
      if (choose && !atom_alt_form(atom)) {
        digits_after_dot = real == 0 ? PrintfFormatAtom::NOT_SET : real;
      } else {
        digits_after_dot = real;
        trailing_zeros = dd - real;
      }
    } else {
      digits_after_dot = dd;
    }
  } else if (atom_alt_form(atom)) {
    digits_after_dot = 0;
  }
  MV_ASSERT(1 + ((digits_after_dot == (size_t)-1) ? 0 : digits_after_dot) <=
            (size_t)cdtssp->length);

  exponent_letter = atom_upper_case(atom) ? 'E' : 'e';
  int e = d->point - 1;
  exponent_sign = e < 0 ? '-' : '+';
  unsigned mag = static_cast<unsigned>(e < 0 ? -e : e);
  if (mag < 10) exponent_digits[exponent_len++] = '0';
  exponent_len += writeDecimalU32(exponent_digits + exponent_len, mag);

  size_t total = size();
  distributePadding(atom, widthShortfall(atom, total), left_blanks, zeros, right_blanks);
}

size_t PrintfRenderedExponentialFloat::size() const {
  size_t n = left_blanks + (sign ? 1 : 0) + zeros + exponent_len + 3 + right_blanks;
  if (digits_after_dot != PrintfFormatAtom::NOT_SET) n += 1 + digits_after_dot + trailing_zeros;
  return n;
}

PrintfRenderedNormalFloat::PrintfRenderedNormalFloat(const PrintfFormatAtom &atom,
                                                     DoubleToStringShortest *d)
    : cdtssp(d) {
  bool choose = atom.conversion == PrintfFormatAtom::CONV_FLOAT_CHOOSE;
  signFor(atom, d->negative, sign, left_blanks);
  size_t p = defaultedPrecision(atom);
  if (p > PRECISION_CLAMP) {
    // Past any digit a double has: only trailing zeros grow.
    if (!choose || atom_alt_form(atom)) trailing_zeros = p - PRECISION_CLAMP;
    p = PRECISION_CLAMP;
  }
  long P = static_cast<long>(p);
  if (choose) {
    if (P == 0) P = 1;
    d->roundToPlaces(static_cast<int>(P - d->point));
    P = d->point > P ? 0 : P - d->point;
  } else {
    d->roundToPlaces(static_cast<int>(P));
  }
  const int length = d->length;
  const int point = d->point;

  if (point < 1) {
    digits_before_dot = 0;
  } else if (point >= length) {
    digits_before_dot = static_cast<size_t>(length);
    integer_zeros = static_cast<size_t>(point - length);
  } else {
    digits_before_dot = static_cast<size_t>(point);
  }
  size_t int_digits = digits_before_dot == 0 ? 1 : digits_before_dot + integer_zeros;
  if (atom_group_digits(atom) && int_digits >= 4) use_commas = true;

  if (P > 0) {
    size_t want = static_cast<size_t>(P);
    size_t zeros_ad = point < 0 ? static_cast<size_t>(-point) : 0;
    size_t avail = static_cast<size_t>(length) - digits_before_dot;
    if (zeros_ad >= want) {
      zeros_after_dot = want;
      digits_after_dot = 0;
    } else if (zeros_ad + avail > want) {
      zeros_after_dot = zeros_ad;
      digits_after_dot = want - zeros_ad;
    } else {
      zeros_after_dot = zeros_ad;
      digits_after_dot = avail;
      if (choose && !atom_alt_form(atom)) {
        if (zeros_after_dot + digits_after_dot == 0) digits_after_dot = PrintfFormatAtom::NOT_SET;
      } else {
        trailing_zeros += want - zeros_ad - avail;
      }
    }
  } else if (atom_alt_form(atom)) {
    digits_after_dot = 0;
  }
  if (digits_after_dot == PrintfFormatAtom::NOT_SET) trailing_zeros = 0;
  MV_ASSERT(digits_before_dot + ((digits_after_dot == (size_t)-1) ? 0 : digits_after_dot) <=
            (size_t)cdtssp->length);

  distributePadding(atom, widthShortfall(atom, size()), left_blanks, zeros, right_blanks);
}

size_t PrintfRenderedNormalFloat::integerPartSize() const {
  if (digits_before_dot == 0) return 1;
  size_t n = digits_before_dot + integer_zeros;
  return use_commas ? (n * 4 - 1) / 3 : n;
}

size_t PrintfRenderedNormalFloat::size() const {
  size_t n = left_blanks + (sign ? 1 : 0) + zeros + integerPartSize() + right_blanks;
  if (digits_after_dot != PrintfFormatAtom::NOT_SET)
    n += 1 + zeros_after_dot + digits_after_dot + trailing_zeros;
  return n;
}

PrintfRenderedHexFloat::PrintfRenderedHexFloat(const PrintfFormatAtom &atom, double x) {
  uint64_t bits;
  memcpy(&bits, &x, sizeof bits);
  bool upper = atom_upper_case(atom);
  const char *hex = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  signFor(atom, (bits >> 63) != 0, sign, left_blanks);
  prefix = upper ? "0X" : "0x";
  p_letter = upper ? 'P' : 'p';

  unsigned e = static_cast<unsigned>((bits >> 52) & 0x7ff);
  uint64_t m = bits & ((uint64_t(1) << 52) - 1);
  int exponent = e != 0 ? static_cast<int>(e) - 1023 : (m != 0 ? -1022 : 0);
  leading_digit = e != 0 ? '1' : '0';

  size_t count = 0;
  for (int s = 48; s >= 0; s -= 4) hex_digits[count++] = hex[(m >> s) & 15];
  while (count > 0 && hex_digits[count - 1] == '0') --count;
  MV_ASSERT(count <= sizeof(hex_digits) - 1);

  if (atom.precision != PrintfFormatAtom::NOT_SET && atom.precision < count) {
    size_t keep = atom.precision;
    unsigned first_dropped = static_cast<unsigned>((m >> (48 - 4 * keep)) & 15);
    count = keep;
    if (first_dropped >= 8) {
      // Away from zero on the bits, carrying backward into the leading digit.
      char *rp = hex_digits + count;
      bool carry = true;
      while (carry && rp > hex_digits) {
        --rp;
        MV_ASSERT(rp >= hex_digits);
        if (*rp == 'f' || *rp == 'F') {
          *rp = '0';
        } else {
          *rp = *rp == '9' ? (upper ? 'A' : 'a') : static_cast<char>(*rp + 1);
          carry = false;
        }
      }
      if (carry) ++leading_digit;
    }
  } else if (atom.precision != PrintfFormatAtom::NOT_SET) {
    trailing_zeros = atom.precision - count;
  }
  if (count > 0 || trailing_zeros > 0 || atom_alt_form(atom)) hex_digit_count = count;

  exponent_sign = exponent < 0 ? '-' : '+';
  exponent_len =
      writeDecimalU32(exponent_digits, static_cast<uint32_t>(exponent < 0 ? -exponent : exponent));

  distributePadding(atom, widthShortfall(atom, size()), left_blanks, zeros, right_blanks);
}

size_t PrintfRenderedHexFloat::size() const {
  size_t n = left_blanks + (sign ? 1 : 0) + zeros + exponent_len + 5 + right_blanks;
  if (hex_digit_count != PrintfFormatAtom::NOT_SET) n += 1 + hex_digit_count + trailing_zeros;
  return n;
}

void append_stringified(Str &out, const PrintfRenderedExponentialFloat &r) {
  printf_detail::appendRendered(out, r);
}
void append_stringified(Str &out, const PrintfRenderedNormalFloat &r) {
  printf_detail::appendRendered(out, r);
}
void append_stringified(Str &out, const PrintfRenderedHexFloat &r) {
  printf_detail::appendRendered(out, r);
}
void crashlog_write(crash_log_writer *w, const PrintfRenderedExponentialFloat &r) noexcept {
  printf_detail::crashRendered(w, r);
}
void crashlog_write(crash_log_writer *w, const PrintfRenderedNormalFloat &r) noexcept {
  printf_detail::crashRendered(w, r);
}
void crashlog_write(crash_log_writer *w, const PrintfRenderedHexFloat &r) noexcept {
  printf_detail::crashRendered(w, r);
}

}  // namespace morvek
