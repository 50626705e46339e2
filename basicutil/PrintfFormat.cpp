#include "basicutil/PrintfFormat.h"

#include <cerrno>
#include <cstring>

#include "basicutil/BasicConversions.h"
#include "basicutil/PrintFloatingPoint.h"

#if defined(__GLIBC__)
// The XSI strerror_r, which glibc hides under the GNU one; it reports unknown numbers as failure.
extern "C" int __xpg_strerror_r(int errnum, char *buf, size_t buflen) noexcept;
#endif

namespace morvek {

// ---- Parsing ----

namespace {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Decimal digits at p, saturating well below anything that could wrap a size.
size_t readNumber(const char *&p, const char *end) {
  size_t v = 0;
  while (p < end && isDigit(*p)) {
    v = v * 10 + static_cast<size_t>(*p - '0');
    if (v > 0x7fffffff) v = 0x7fffffff;
    ++p;
  }
  return v;
}

// p is at an "I": is this "%I64d"-style text rather than an "I" to be ignored?
bool looks_like_windows_I_format_followed_by_specifier(const char *p, const char *end) {
  ++p;
  if (end - p >= 2 && ((p[0] == '3' && p[1] == '2') || (p[0] == '6' && p[1] == '4'))) p += 2;
  if (p == end) return false;
  switch (*p) {
    case 'X':
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
      return true;
    default:
      return false;
  }
}

}  // namespace

bool PrintfFormatAtom::getNext(StrSegment &format, unsigned options) {
  clear();
  const char *p = format._data;
  const char *const end = p + format._len;
  if (p == end) return false;

  if (*p != '%') {
    const char *q = static_cast<const char *>(memchr(p, '%', static_cast<size_t>(end - p)));
    if (!q) q = end;
    text = p;
    text_len = static_cast<uint64_t>(q - p);
    format = StrSegment(q, static_cast<size_t>(end - q));
    return true;
  }

  const char *const start = p++;
  // A conversion cut off by the end of the text leaves only its "%".
  auto truncated = [&] {
    clear();
    text = start;
    text_len = 1;
    format = StrSegment(end, 0);
    return true;
  };
  // Unknown conversions print as they stand, from the "%" through the offending byte.
  auto constant_through = [&](const char *last) {
    clear();
    text = start;
    text_len = static_cast<uint64_t>(last + 1 - start);
    format = StrSegment(last + 1, static_cast<size_t>(end - (last + 1)));
    return true;
  };

  for (bool more_flags = true; more_flags;) {
    if (p == end) return truncated();
    switch (*p) {
      case ' ':
        if (sign_nonnegative == SIGN_NONNEGATIVE_NONE) sign_nonnegative = SIGN_NONNEGATIVE_SPACE;
        ++p;
        break;
      case '+':
        sign_nonnegative = SIGN_NONNEGATIVE_PLUS;
        ++p;
        break;
      case '-':
        padding = PAD_RIGHT_SPACES;
        ++p;
        break;
      case '0':
        if (padding == PAD_LEFT_SPACES) padding = PAD_LEFT_ZEROS;
        ++p;
        break;
      case '#':
        flags |= FLAG_ALT_FORM;
        ++p;
        break;
      case '\'':
        flags |= FLAG_GROUP_DIGITS;
        ++p;
        break;
      case '*':
        flags |= FLAG_VARIABLE_WIDTH;
        ++p;
        more_flags = false;
        break;
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7':
      case '8':
      case '9':
        width = readNumber(p, end);
        more_flags = false;
        break;
      case 'I':
        if (looks_like_windows_I_format_followed_by_specifier(p, end)) {
          more_flags = false;
        } else {
          ++p;
        }
        break;
      default:
        more_flags = false;
        break;
    }
  }

  if (p == end) return truncated();
  if (*p == '.') {
    ++p;
    if (p == end) return truncated();
    if (isDigit(*p)) {
      precision = readNumber(p, end);
    } else if (*p == '*') {
      flags |= FLAG_VARIABLE_PRECISION;
      ++p;
    } else {
      precision = 0;
    }
  }

  if (p == end) return truncated();
  arg_size = 4;
  switch (*p) {
    case 'h':
      if (end - p >= 2 && p[1] == 'h') {
        arg_size = 1;
        p += 2;
      } else {
        arg_size = 2;
        ++p;
      }
      break;
    case 'l':
      arg_size = 8;
      p += (end - p >= 2 && p[1] == 'l') ? 2 : 1;
      break;
    case 'q':
    case 'j':
    case 't':
      arg_size = 8;
      ++p;
      break;
    case 'z':
      if (!(options & PRINTF_OPT_Z_STRING)) {
        arg_size = 8;
        ++p;
      }
      break;
    case 'I':
      ++p;
      if (end - p >= 2 && p[0] == '3' && p[1] == '2') {
        p += 2;
      } else if (end - p >= 2 && p[0] == '6' && p[1] == '4') {
        arg_size = 8;
        p += 2;
      }
      break;
    case 'w':
      if (end - p >= 2 && (p[1] == 'S' || p[1] == 'c' || p[1] == 's')) {
        if (end - p < 3) return truncated();
        arg_size = 8;
        p += 3;
      }
      break;
    default:
      break;
  }

  if (p == end) return truncated();
  const char *const conv_byte = p;
  bool integer_tail = true;
  switch (*p) {
    case 'd':
    case 'i':
      conversion = CONV_SIGNED_DECIMAL;
      break;
    case 'u':
      conversion = CONV_UNSIGNED_DECIMAL;
      break;
    case 'X':
      flags |= FLAG_UPPER_CASE;
      [[fallthrough]];
    case 'x':
      conversion = CONV_UNSIGNED_HEX;
      break;
    case 'o':
      conversion = CONV_UNSIGNED_OCTAL;
      break;
    case 'p':
      if (options & PRINTF_OPT_POINTER) {
        conversion = CONV_POINTER;
        flags |= FLAG_ALT_FORM;
        arg_size = 8;
        integer_tail = false;
      } else {
        conversion = CONV_UNSIGNED_HEX;
        flags |= FLAG_UPPER_CASE;
      }
      break;
    case 'E':
    case 'F':
    case 'G':
    case 'A':
      flags |= FLAG_UPPER_CASE;
      [[fallthrough]];
    case 'e':
    case 'f':
    case 'g':
    case 'a': {
      static constexpr Conversion FLOATS[] = {
          CONV_FLOAT_HEX,      CONV_CONSTANT_STRING, CONV_CONSTANT_STRING, CONV_CONSTANT_STRING,
          CONV_FLOAT_EXPONENT, CONV_FLOAT_FIXED,     CONV_FLOAT_CHOOSE};
      conversion = FLOATS[(*p | 0x20) - 'a'];
      arg_size = 8;
      integer_tail = false;
      break;
    }
    case 'c':
      conversion = CONV_CHARACTER;
      arg_size = 4;
      integer_tail = false;
      break;
    case 's':
      conversion = CONV_STRING;
      arg_size = 8;
      integer_tail = false;
      break;
    case 'z':  // only reached with PRINTF_OPT_Z_STRING; otherwise "z" was a length modifier
      conversion = CONV_STRING;
      arg_size = 8;
      integer_tail = false;
      break;
    case 'm':
      if (!(options & PRINTF_OPT_ERRNO)) return constant_through(conv_byte);
      conversion = CONV_ERRNO;
      arg_size = 0;
      integer_tail = false;
      break;
    case '%': {
      // "%-5%" is "%" too: whatever stood between the two is dropped.
      clear();
      text = start;
      text_len = 1;
      ++p;
      format = StrSegment(p, static_cast<size_t>(end - p));
      return true;
    }
    default:
      return constant_through(conv_byte);
  }
  ++p;

  if (integer_tail) {
    if (conversion != CONV_SIGNED_DECIMAL) sign_nonnegative = SIGN_NONNEGATIVE_NONE;
    if ((precision != NOT_SET || (flags & FLAG_VARIABLE_PRECISION)) && padding == PAD_LEFT_ZEROS)
      padding = PAD_LEFT_SPACES;
  }
  format = StrSegment(p, static_cast<size_t>(end - p));
  return true;
}

void PrintfFormatAtom::setVariableWidth(int w) {
  MV_ASSERT(width == (size_t)-1);
  if (w < 0) {
    padding = PAD_RIGHT_SPACES;
    width = static_cast<size_t>(0u - static_cast<unsigned>(w));
  } else {
    width = static_cast<size_t>(w);
  }
  flags &= ~uint32_t(FLAG_VARIABLE_WIDTH);
}

void PrintfFormatAtom::setVariablePrecision(int p) {
  MV_ASSERT(precision == (size_t)-1);
  if (p >= 0) precision = static_cast<size_t>(p);
  flags &= ~uint32_t(FLAG_VARIABLE_PRECISION);
}

void append_stringified(Str &out, const PrintfFormatAtom &atom) {
  if (atom.isConstant()) {
    const char *p = atom.text;
    const char *end = p + atom.text_len;
    for (; p < end; ++p) {
      if (*p == '%') out.push_back('%');
      out.push_back(*p);
    }
    return;
  }
  static const char LETTERS[] = "dduuxXooeEfFgGaAccssmmpp";
  out.push_back('%');
  if (atom_alt_form(atom) && atom.conversion != PrintfFormatAtom::CONV_POINTER) out.push_back('#');
  if (atom_group_digits(atom) && (atom.conversion == PrintfFormatAtom::CONV_SIGNED_DECIMAL ||
                                  atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_DECIMAL ||
                                  atom.conversion == PrintfFormatAtom::CONV_FLOAT_FIXED ||
                                  atom.conversion == PrintfFormatAtom::CONV_FLOAT_CHOOSE))
    out.push_back('\'');
  switch (atom.sign_nonnegative) {
    case PrintfFormatAtom::SIGN_NONNEGATIVE_NONE:
      break;
    case PrintfFormatAtom::SIGN_NONNEGATIVE_SPACE:
      out.push_back(' ');
      break;
    default:
      MV_ASSERT(atom.sign_nonnegative == PrintfFormatAtom::SIGN_NONNEGATIVE_PLUS);
      out.push_back('+');
      break;
  }
  switch (atom.padding) {
    case PrintfFormatAtom::PAD_LEFT_SPACES:
      break;
    case PrintfFormatAtom::PAD_RIGHT_SPACES:
      out.push_back('-');
      break;
    default:
      MV_ASSERT(atom.padding == PrintfFormatAtom::PAD_LEFT_ZEROS);
      out.push_back('0');
      break;
  }
  char num[DECIMAL_U64_MAX_DIGITS];
  if (atom.flags & PrintfFormatAtom::FLAG_VARIABLE_WIDTH) {
    out.push_back('*');
  } else if (atom.width != PrintfFormatAtom::NOT_SET) {
    out.append(num, writeDecimalU64(num, atom.width));
  }
  if (atom.flags & PrintfFormatAtom::FLAG_VARIABLE_PRECISION) {
    out.append(".*");
  } else if (atom.precision != PrintfFormatAtom::NOT_SET) {
    out.push_back('.');
    out.append(num, writeDecimalU64(num, atom.precision));
  }
  switch (atom.conversion) {
    case PrintfFormatAtom::CONV_FLOAT_EXPONENT:
    case PrintfFormatAtom::CONV_FLOAT_FIXED:
    case PrintfFormatAtom::CONV_FLOAT_CHOOSE:
    case PrintfFormatAtom::CONV_FLOAT_HEX:
      out.push_back('l');
      break;
    case PrintfFormatAtom::CONV_SIGNED_DECIMAL:
    case PrintfFormatAtom::CONV_UNSIGNED_DECIMAL:
    case PrintfFormatAtom::CONV_UNSIGNED_HEX:
    case PrintfFormatAtom::CONV_UNSIGNED_OCTAL:
      if (atom.arg_size == 1) out.append("hh");
      if (atom.arg_size == 2) out.push_back('h');
      if (atom.arg_size == 8) out.push_back('l');
      break;
    default:
      break;
  }
  unsigned idx = (static_cast<unsigned>(atom.conversion) - 1) * 2 + (atom_upper_case(atom) ? 1 : 0);
  out.push_back(LETTERS[idx]);
}

// ---- Integers and pointers ----

// At most 20 digits go in, and callers start with room for them, so the check can follow.
void PrintfDigitBuffer::addU64(uint64_t v) {
  _p += writeDecimalU64(_p, v);
  MV_ASSERT(_p <= &_buf[sizeof(_buf)]);
}

void PrintfDigitBuffer::addU32(uint32_t v) {
  _p += writeDecimalU32(_p, v);
  MV_ASSERT(_p <= &_buf[sizeof(_buf)]);
}

void PrintfDigitBuffer::addCommaSeparators() {
  size_t digits = size();
  MV_ASSERT(digits >= 1);
  MV_ASSERT(data()[0] >= '0' && data()[0] <= '9');
  if (digits < 4) return;
  size_t new_digits = (digits * 4 - 1) / 3;
  MV_ASSERT(new_digits <= sizeof(_buf));
  char *s = _buf + digits;
  char *d = _buf + new_digits;
  MV_ASSERT(d > s);
  while (d > s) {
    s -= 3;
    d -= 3;
    memmove(d, s, 3);
    *--d = ',';
  }
  _p = _buf + new_digits;
}

namespace {

size_t widthShortfall(const PrintfFormatAtom &atom, size_t total) {
  return (atom.width != PrintfFormatAtom::NOT_SET && atom.width > total) ? atom.width - total : 0;
}

// Puts the padding a number needs where its atom says.
void distributePadding(const PrintfFormatAtom &atom, size_t padding_needed, size_t &left,
                       size_t &zeros, size_t &right) {
  if (padding_needed == 0) return;
  MV_ASSERT(padding_needed > 0);
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

constexpr char LOWER_HEX[] = "0123456789abcdef";
constexpr char UPPER_HEX[] = "0123456789ABCDEF";

}  // namespace

PrintfRenderedText::PrintfRenderedText(const PrintfFormatAtom &atom, const char *d, size_t n)
    : left_blanks(0), data(d), len(n), right_blanks(0) {
  size_t pad = widthShortfall(atom, n);
  if (atom.padding == PrintfFormatAtom::PAD_RIGHT_SPACES) {
    right_blanks = pad;
  } else {
    left_blanks = pad;
  }
}

PrintfRenderedSignedInteger::PrintfRenderedSignedInteger(const PrintfFormatAtom &atom,
                                                         int64_t value) {
  if (value < 0) {
    sign = '-';
    digits.addU64(0ull - static_cast<uint64_t>(value));
  } else if (value == 0 && atom.precision == 0) {
    // Nothing at all, not even the sign.
  } else {
    digits.addU64(static_cast<uint64_t>(value));
    switch (atom.sign_nonnegative) {
      case PrintfFormatAtom::SIGN_NONNEGATIVE_NONE:
        break;
      case PrintfFormatAtom::SIGN_NONNEGATIVE_SPACE:
        // A blank rather than a sign: zero and right padding leave it leftmost.
        left_blanks = 1;
        break;
      case PrintfFormatAtom::SIGN_NONNEGATIVE_PLUS:
        sign = '+';
        break;
      default:
        MV_ASSERT(atom.sign_nonnegative == PrintfFormatAtom::SIGN_NONNEGATIVE_NONE);
    }
  }
  if (atom_group_digits(atom) && digits.size() > 0) digits.addCommaSeparators();
  if (atom.precision != PrintfFormatAtom::NOT_SET && atom.precision > digits.size())
    zeros = atom.precision - digits.size();
  size_t total = left_blanks + zeros + (sign ? 1 : 0) + digits.size();
  distributePadding(atom, widthShortfall(atom, total), left_blanks, zeros, right_blanks);
}

PrintfRenderedUnsignedInteger::PrintfRenderedUnsignedInteger(const PrintfFormatAtom &atom,
                                                             uint64_t value) {
  MV_ASSERT(atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_DECIMAL ||
            atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_OCTAL ||
            atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_HEX ||
            atom.conversion == PrintfFormatAtom::CONV_POINTER);
  if (value == 0) {
    if (atom.precision != 0 ||
        (atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_OCTAL && atom_alt_form(atom)))
      digits.push_back('0');
  } else if (atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_DECIMAL) {
    digits.addU64(value);
    if (atom_group_digits(atom)) digits.addCommaSeparators();
  } else if (atom.conversion == PrintfFormatAtom::CONV_UNSIGNED_OCTAL) {
    if (atom_alt_form(atom)) digits.push_back('0');
    int shift = 63;  // highest group of three bits that isn't zero
    while (shift > 0 && (value >> shift) == 0) shift -= 3;
    for (; shift >= 0; shift -= 3)
      digits.push_back(static_cast<char>('0' + ((value >> shift) & 7)));
  } else {
    const char *hex = atom_upper_case(atom) ? UPPER_HEX : LOWER_HEX;
    if (atom_alt_form(atom)) {
      prefix = atom_upper_case(atom) ? "0X" : "0x";
      prefix_len = 2;
    }
    int shift = (63 - __builtin_clzll(value)) & ~3;
    for (; shift >= 0; shift -= 4) digits.push_back(hex[(value >> shift) & 15]);
  }
  if (atom.precision != PrintfFormatAtom::NOT_SET && atom.precision > digits.size())
    zeros = atom.precision - digits.size();
  size_t total = left_blanks + prefix_len + zeros + digits.size();
  distributePadding(atom, widthShortfall(atom, total), left_blanks, zeros, right_blanks);
}

PrintfFormatAtom printfDefaultPointerAtom() {
  PrintfFormatAtom atom;
  atom.conversion = PrintfFormatAtom::CONV_POINTER;
  atom.flags = PrintfFormatAtom::FLAG_ALT_FORM;
  atom.arg_size = 8;
  return atom;
}

PrintfRenderedUnsignedInteger printfPointerValue(const PrintfFormatAtom &atom, uintptr_t value) {
  MV_ASSERT(atom.conversion == PrintfFormatAtom::CONV_POINTER);
  MV_ASSERT(atom_alt_form(atom));
  if (value != 0) return PrintfRenderedUnsignedInteger(atom, value);
  // Null is text, not a number: blanks only, never zeros, and no precision.
  PrintfRenderedText text(atom, "(nil)", 5);
  PrintfRenderedUnsignedInteger r;
  r.left_blanks = text.left_blanks;
  r.prefix = text.data;
  r.prefix_len = text.len;
  r.right_blanks = text.right_blanks;
  return r;
}

size_t print_with_commas_first_chunk_size(size_t n, size_t z, char first_byte) {
  MV_ASSERT(n > 0);
  size_t neg = first_byte == '-' ? 1 : 0;
  return neg + (n + z - neg + 2) % 3 + 1;
}

void append_stringified(Str &out, const PrintfRenderedText &r) {
  printf_detail::appendRendered(out, r);
}
void append_stringified(Str &out, const PrintfRenderedSignedInteger &r) {
  printf_detail::appendRendered(out, r);
}
void append_stringified(Str &out, const PrintfRenderedUnsignedInteger &r) {
  printf_detail::appendRendered(out, r);
}
void crashlog_write(crash_log_writer *w, const PrintfRenderedText &r) noexcept {
  printf_detail::crashRendered(w, r);
}
void crashlog_write(crash_log_writer *w, const PrintfRenderedSignedInteger &r) noexcept {
  printf_detail::crashRendered(w, r);
}
void crashlog_write(crash_log_writer *w, const PrintfRenderedUnsignedInteger &r) noexcept {
  printf_detail::crashRendered(w, r);
}
void crashlog_write(crash_log_writer *w, const char *cstr) noexcept {
  crashlog_write(w, cstr, strlen(cstr));
}

namespace printf_detail {

const char APPEND_IN_PLACE_ROOM[APPEND_IN_PLACE_MAX] = {};

void CrashWriter::fill(char c, size_t n) {
  static const char BLANKS[32] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                  ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                  ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  static const char ZEROS[32] = {'0', '0', '0', '0', '0', '0', '0', '0', '0', '0', '0',
                                 '0', '0', '0', '0', '0', '0', '0', '0', '0', '0', '0',
                                 '0', '0', '0', '0', '0', '0', '0', '0', '0', '0'};
  MV_ASSERT(c == ' ' || c == '0');
  const char *src = c == ' ' ? BLANKS : ZEROS;
  while (n > 0) {
    size_t chunk = n < sizeof(BLANKS) ? n : sizeof(BLANKS);
    h->do_write(h, src, chunk);
    n -= chunk;
  }
}

}  // namespace printf_detail

// ---- Drivers ----

namespace {

const char *errnoText(int errnum, char *buf, size_t size) {
#if defined(__GLIBC__)
  int rc = __xpg_strerror_r(errnum, buf, size);
#else
  int rc = strerror_r(errnum, buf, size);
#endif
  return rc == 0 ? buf : "UNKNOWN ERROR";
}

struct StrSink {
  Str &out;
  void constant(const char *p, size_t n) { out.append(p, n); }
  void beginConversion() {}
  void text(const char *p, size_t n) { out.append(p, n); }
  template <class Write>
  void inPlace(Write write) {
    printf_detail::appendInPlace(out, write);
  }
  template <class R>
  void put(const R &r) {
    printf_detail::appendRendered(out, r);
  }
};

// The caller's errno, read only once something could change it. Rendering bare conversions
// into a Str that has room touches nothing that sets errno, and reading it costs a call.
class LazyErrno {
 public:
  void keep() {
    if (_where == nullptr) {
      _where = &errno;
      _saved = *_where;
    }
  }
  int saved() {
    keep();
    return _saved;
  }
  ~LazyErrno() {
    if (_where != nullptr) *_where = _saved;
  }

 private:
  int *_where = nullptr;
  int _saved = 0;
};

// A StrSink that keeps errno before an append that could allocate.
struct LazyErrnoStrSink {
  StrSink plain;
  LazyErrno &err;
  void room(size_t n) {
    if (plain.out.capacity() - plain.out.size() < n) err.keep();
  }
  void constant(const char *p, size_t n) {
    room(n);
    plain.constant(p, n);
  }
  void beginConversion() {}
  void text(const char *p, size_t n) {
    room(n);
    plain.text(p, n);
  }
  template <class Write>
  void inPlace(Write write) {
    room(printf_detail::APPEND_IN_PLACE_MAX);
    plain.inPlace(write);
  }
};

template <class Sink>
Sink &fullSink(Sink &sink) {
  return sink;
}
StrSink &fullSink(LazyErrnoStrSink &sink) { return sink.plain; }
int savedErrno(int saved_errno) { return saved_errno; }
int savedErrno(LazyErrno &err) { return err.saved(); }

struct StrVectorSink {
  StrVector &out;
  void constant(const char *, size_t) {}
  void beginConversion() { out.emplace_back(); }
  void text(const char *p, size_t n) { out.back().append(p, n); }
  template <class Write>
  void inPlace(Write write) {
    printf_detail::appendInPlace(out.back(), write);
  }
  template <class R>
  void put(const R &r) {
    printf_detail::appendRendered(out.back(), r);
  }
};

struct CrashSink {
  crash_log_writer *h;
  void constant(const char *p, size_t n) {
    if (n) h->do_write(h, p, n);
  }
  void beginConversion() {}
  void text(const char *p, size_t n) { constant(p, n); }
  template <class Write>
  void inPlace(Write write) {
    char buf[printf_detail::APPEND_IN_PLACE_MAX];
    constant(buf, write(buf));
  }
  template <class R>
  void put(const R &r) {
    printf_detail::crashRendered(h, r);
  }
};

template <class Sink>
__attribute__((noinline)) void renderErrno(Sink &sink, const PrintfFormatAtom &atom,
                                           int saved_errno) {
  char buf[1000];
  const char *msg =
      errnoText(saved_errno == PRINTF_CURRENT_ERRNO ? errno : saved_errno, buf, sizeof buf);
  size_t n = strlen(msg);
  if (atom.precision != PrintfFormatAtom::NOT_SET && atom.precision < n) n = atom.precision;
  sink.put(PrintfRenderedText(atom, msg, n));
}

template <class Sink>
inline void renderAtom(Sink &sink, const PrintfFormatAtom &atom, va_list *ap, int saved_errno);

// The "*" arguments are filled into a copy; the common case copies nothing.
template <class Sink>
__attribute__((noinline)) void renderVariableAtom(Sink &sink, const PrintfFormatAtom &atom,
                                                  va_list *ap, int saved_errno) {
  PrintfFormatAtom filled = atom;
  if (filled.flags & PrintfFormatAtom::FLAG_VARIABLE_WIDTH)
    filled.setVariableWidth(va_arg(*ap, int));
  if (filled.flags & PrintfFormatAtom::FLAG_VARIABLE_PRECISION)
    filled.setVariablePrecision(va_arg(*ap, int));
  renderAtom(sink, filled, ap, saved_errno);
}

template <class Sink>
inline void renderAtom(Sink &sink, const PrintfFormatAtom &atom, va_list *ap, int saved_errno) {
  if (atom.flags &
      (PrintfFormatAtom::FLAG_VARIABLE_WIDTH | PrintfFormatAtom::FLAG_VARIABLE_PRECISION)) {
    renderVariableAtom(sink, atom, ap, saved_errno);
    return;
  }
  switch (atom.conversion) {
    case PrintfFormatAtom::CONV_CONSTANT_STRING:
      sink.constant(atom.text, atom.text_len);
      return;
    case PrintfFormatAtom::CONV_SIGNED_DECIMAL: {
      // Sizes 1 and 2 read a whole int and are not narrowed.
      int64_t v = atom.arg_size > 4 ? static_cast<int64_t>(va_arg(*ap, long long))
                                    : static_cast<int64_t>(va_arg(*ap, int));
      sink.beginConversion();
      sink.put(PrintfRenderedSignedInteger(atom, v));
      return;
    }
    case PrintfFormatAtom::CONV_UNSIGNED_DECIMAL:
    case PrintfFormatAtom::CONV_UNSIGNED_HEX:
    case PrintfFormatAtom::CONV_UNSIGNED_OCTAL: {
      uint64_t v = atom.arg_size > 4 ? static_cast<uint64_t>(va_arg(*ap, unsigned long long))
                                     : static_cast<uint64_t>(va_arg(*ap, unsigned int));
      sink.beginConversion();
      sink.put(PrintfRenderedUnsignedInteger(atom, v));
      return;
    }
    case PrintfFormatAtom::CONV_FLOAT_EXPONENT:
    case PrintfFormatAtom::CONV_FLOAT_FIXED:
    case PrintfFormatAtom::CONV_FLOAT_CHOOSE:
    case PrintfFormatAtom::CONV_FLOAT_HEX: {
      double v = va_arg(*ap, double);
      sink.beginConversion();
      printfDoubleValue(atom, v, [&](const auto &r) { sink.put(r); });
      return;
    }
    case PrintfFormatAtom::CONV_CHARACTER: {
      char c = static_cast<char>(va_arg(*ap, int));
      sink.beginConversion();
      sink.put(PrintfRenderedText(atom, &c, 1));
      return;
    }
    case PrintfFormatAtom::CONV_STRING: {
      const char *s = va_arg(*ap, const char *);
      size_t n =
          atom.precision != PrintfFormatAtom::NOT_SET ? strnlen(s, atom.precision) : strlen(s);
      sink.beginConversion();
      sink.put(PrintfRenderedText(atom, s, n));
      return;
    }
    case PrintfFormatAtom::CONV_ERRNO:
      sink.beginConversion();
      renderErrno(sink, atom, saved_errno);
      return;
    case PrintfFormatAtom::CONV_POINTER: {
      uintptr_t v = reinterpret_cast<uintptr_t>(va_arg(*ap, void *));
      sink.beginConversion();
      sink.put(printfPointerValue(atom, v));
      return;
    }
  }
  MV_ASSERT(atom.conversion <= PrintfFormatAtom::CONV_POINTER);
}

// A "%d", "%i" or "%u" value, with or without "l" or "ll". Magnitudes by unsigned negation, so
// that the most negative values have one too.
struct BareInteger {
  bool negative;
  uint64_t magnitude;
  size_t write(char *dst) const {
    *dst = '-';
    return negative + writeDecimalU64(dst + negative, magnitude);
  }
};

inline BareInteger readBareInteger(char conversion, bool wide, va_list *ap) {
  if (conversion == 'u')
    return {false, wide ? va_arg(*ap, unsigned long long) : va_arg(*ap, unsigned)};
  const long long v = wide ? va_arg(*ap, long long) : va_arg(*ap, int);
  const uint64_t magnitude = static_cast<unsigned long long>(v);
  return {v < 0, v < 0 ? 0 - magnitude : magnitude};
}

// The walks read the caller's own list through a pointer. The variadic entry points hand in the
// list they started; copying it first would cost a store-forwarding stall on every call.
// A conversion with no flags, width or precision ("%d", "%lu", "%s") renders exactly as its bare
// digits or text, so it skips the atom and its fill bookkeeping. q is just past the "%"; end is
// null for a NUL-terminated format. Returns the bytes consumed from q, or 0 to leave the
// conversion to the full parser.
template <class Sink>
__attribute__((always_inline)) inline size_t renderBare(Sink &sink, const char *q, const char *end,
                                                        va_list *ap) {
  const char *const start = q;
  bool wide = false;
  if (*q == 'l') {
    wide = true;
    if (++q != end && *q == 'l') ++q;
    if (q == end) return 0;
  }
  BareInteger value;
  switch (*q) {
    case 'd':
    case 'i':
    case 'u':
      value = readBareInteger(*q, wide, ap);
      break;
    case 's': {
      const char *s = va_arg(*ap, const char *);
      sink.beginConversion();
      sink.text(s, strlen(s));
      return static_cast<size_t>(q + 1 - start);
    }
    default:
      return 0;
  }
  sink.beginConversion();
  // All three meet at one append, which the compiler then inlines once.
  sink.inPlace([value](char *dst) { return value.write(dst); });
  return static_cast<size_t>(q + 1 - start);
}

// Parses and renders the one atom at p; returns where the next one starts.
template <class Sink>
__attribute__((noinline)) const char *walkOneAtom(Sink &sink, const char *p, const char *end,
                                                  va_list *ap, int saved_errno) {
  StrSegment rest(p, static_cast<size_t>(end - p));
  PrintfFormatAtom atom;
  atom.getNext(rest, PRINTF_OPT_DEFAULT);
  renderAtom(sink, atom, ap, saved_errno);
  return rest._data;
}

template <class Sink>
void walkFormat(Sink &sink, StrSegment format, va_list *ap, int saved_errno) {
  const char *p = format._data;
  const char *const end = p + format._len;
  while (p != end) {
    if (*p != '%') {
      const char *q = static_cast<const char *>(memchr(p, '%', static_cast<size_t>(end - p)));
      if (!q) q = end;
      sink.constant(p, static_cast<size_t>(q - p));
      p = q;
      continue;
    }
    if (end - p >= 2) {
      if (size_t used = renderBare(sink, p + 1, end, ap)) {
        p += 1 + used;
        continue;
      }
    }
    p = walkOneAtom(sink, p, end, ap, saved_errno);
  }
}

// The C-string entry points: bare conversions and literal text are taken before the format's
// length is known; anything else hands the rest to walkFormat.
template <class Sink, class Errno>
__attribute__((always_inline)) inline void walkCString(Sink &sink, const char *p, va_list *ap,
                                                       Errno &&saved_errno) {
  while (*p) {
    if (*p != '%') {
      const char *q = strchrnul(p, '%');
      sink.constant(p, static_cast<size_t>(q - p));
      p = q;
      continue;
    }
    size_t used = renderBare(sink, p + 1, nullptr, ap);
    if (used == 0) return walkFormat(fullSink(sink), StrSegment(p), ap, savedErrno(saved_errno));
    p += 1 + used;
  }
}

template <class Sink>
void walkAtoms(Sink &sink, const std::vector<PrintfFormatAtom> &atoms, va_list *ap,
               int saved_errno) {
  for (const PrintfFormatAtom &atom : atoms) renderAtom(sink, atom, ap, saved_errno);
}

template <class Sink>
void walkAtomsCopy(Sink &sink, const std::vector<PrintfFormatAtom> &atoms, va_list ap,
                   int saved_errno) {
  va_list copy;
  va_copy(copy, ap);
  walkAtoms(sink, atoms, &copy, saved_errno);
  va_end(copy);
}

template <class Sink>
void walkFormatCopy(Sink &sink, StrSegment format, va_list ap, int saved_errno) {
  va_list copy;
  va_copy(copy, ap);
  walkFormat(sink, format, &copy, saved_errno);
  va_end(copy);
}

}  // namespace

void vappendPrintf(Str &out, StrSegment format, va_list ap, int saved_errno) {
  StrSink sink{out};
  walkFormatCopy(sink, format, ap, saved_errno);
}

void vappendPrintfToVector(StrVector &out, StrSegment format, va_list ap, int saved_errno) {
  StrVectorSink sink{out};
  walkFormatCopy(sink, format, ap, saved_errno);
}

void appendPrintfToVector(StrVector &out, const char *format, ...) {
  int saved_errno = errno;
  va_list ap;
  va_start(ap, format);
  StrVectorSink sink{out};
  walkCString(sink, format, &ap, saved_errno);
  va_end(ap);
  errno = saved_errno;
}

void vprintfToCrashLog(crash_log_writer *writer, StrSegment format, va_list ap,
                       int saved_errno) noexcept {
  CrashSink sink{writer};
  walkFormatCopy(sink, format, ap, saved_errno);
}

void printfToCrashLog(crash_log_writer *writer, const char *format, ...) noexcept {
  int saved_errno = errno;
  va_list ap;
  va_start(ap, format);
  CrashSink sink{writer};
  walkCString(sink, format, &ap, saved_errno);
  va_end(ap);
  errno = saved_errno;
}

void PrintfFormat::compile(const char *format, unsigned options) {
  compile(format, strlen(format), options);
}

void PrintfFormat::compile(const char *format, size_t len, unsigned options) {
  _atoms.clear();
  std::shared_ptr<char[]> copy = std::make_shared_for_overwrite<char[]>(len + 1);
  memcpy(copy.get(), format, len);
  copy[len] = '\0';
  _text = copy;
  StrSegment view(copy.get(), len);
  PrintfFormatAtom atom;
  while (atom.getNext(view, options)) _atoms.push_back(atom);
}

size_t PrintfFormat::argumentCount() const {
  size_t n = 0;
  for (const PrintfFormatAtom &atom : _atoms) n += atom.argumentCount();
  return n;
}

void PrintfFormat::renderTo(Str *out, ...) const {
  int saved_errno = errno;
  va_list ap;
  va_start(ap, out);
  StrSink sink{*out};
  walkAtoms(sink, _atoms, &ap, saved_errno);
  va_end(ap);
  errno = saved_errno;
}

void PrintfFormat::vrender(Str &out, va_list ap, int saved_errno) const {
  StrSink sink{out};
  walkAtomsCopy(sink, _atoms, ap, saved_errno);
}

void PrintfFormat::vrenderToVector(StrVector &out, va_list ap, int saved_errno) const {
  StrVectorSink sink{out};
  walkAtomsCopy(sink, _atoms, ap, saved_errno);
}

void PrintfFormat::vrenderToCrashLog(crash_log_writer *writer, va_list ap,
                                     int saved_errno) const noexcept {
  CrashSink sink{writer};
  walkAtomsCopy(sink, _atoms, ap, saved_errno);
}

// ---- Str's formatting members ----

namespace {

// The walk for the variadic Str members, apart so that their fast path needs no frame.
__attribute__((noinline)) Str &appendfWalk(Str &out, const char *format, va_list *ap) {
  LazyErrno saved_errno;  // %m shows the caller's errno, and the caller keeps it
  LazyErrnoStrSink sink{{out}, saved_errno};
  walkCString(sink, format, ap, saved_errno);
  return out;
}

// The conversion of a lone integer format ("%d", "%lu"): 'd', 'i' or 'u', with wide set for an
// "l" or "ll"; 0 for anything else.
inline char loneIntegerConversion(const char *format, bool &wide) {
  if (format[0] != '%') return 0;
  if (format[1] == 'd' && format[2] == '\0') return 'd';
  const char *q = format + 1;
  wide = *q == 'l';
  if (wide) q += q[1] == 'l' ? 2 : 1;
  return (*q == 'd' || *q == 'i' || *q == 'u') && q[1] == '\0' ? *q : 0;
}

// A lone integer into a Str that the caller found to have APPEND_IN_PLACE_MAX bytes of room.
// The compiler is told so, and the append then has no growth path and needs no saved registers.
__attribute__((noinline)) Str &appendBareInteger(Str &out, BareInteger value) {
  constexpr size_t room = printf_detail::APPEND_IN_PLACE_MAX;
  if (out.size() > out.max_size() - room || out.size() + room > out.capacity())
    __builtin_unreachable();
  printf_detail::appendInPlace(out, [value](char *dst) {
    const size_t n = value.write(dst);
    if (n > room) __builtin_unreachable();
    return n;
  });
  return out;
}

// The variadic members' body. A lone integer into a Str with room, the commonest format of all,
// goes without the walk, and since nothing can allocate, errno needs no keeping. Both ways end
// in a call whose result is returned, so nothing is kept across a call and the members need no
// saved registers.
__attribute__((always_inline)) inline Str &appendfBody(Str &out, const char *format, va_list *ap) {
  bool wide = false;
  const char conversion = loneIntegerConversion(format, wide);
  if (conversion && out.capacity() - out.size() >= printf_detail::APPEND_IN_PLACE_MAX)
    return appendBareInteger(out, readBareInteger(conversion, wide, ap));
  return appendfWalk(out, format, ap);
}

}  // namespace

Str::Str(FormatTag, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  appendfWalk(*this, format, &ap);
  va_end(ap);
}

Str &Str::printf(const char *format, ...) {
  clear();
  va_list ap;
  va_start(ap, format);
  Str &out = appendfBody(*this, format, &ap);
  va_end(ap);
  return out;
}

Str &Str::appendf(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Str &out = appendfBody(*this, format, &ap);
  va_end(ap);
  return out;
}

Str &Str::vprintf(const char *format, va_list ap) {
  clear();
  return vappendf(format, ap);
}

Str &Str::vappendf(const char *format, va_list ap) {
  int saved_errno = errno;
  vappendPrintf(*this, format, ap, saved_errno);
  errno = saved_errno;
  return *this;
}

}  // namespace morvek
