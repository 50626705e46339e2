// The printf engine: one parser of format text serving three sinks (a Str, a StrVector with one
// element per conversion, and the crash writer). Output never depends on the locale, and the
// parser and the crash sink allocate nothing.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "basicutil/Str.h"
#include "basicutil/StrVector.h"
#include "libzero/create-crash-dump.h"
#include "libzero/fatal-assert.h"

namespace morvek {

// Parse options. Every caller in the library passes PRINTF_OPT_DEFAULT.
enum : unsigned {
  PRINTF_OPT_ERRNO = 1,     // %m is the text of the saved errno
  PRINTF_OPT_POINTER = 2,   // %p is a pointer, "(nil)" for null
  PRINTF_OPT_Z_STRING = 8,  // %z is a string conversion and "z" is no length modifier
};
constexpr unsigned PRINTF_OPT_DEFAULT = PRINTF_OPT_ERRNO | PRINTF_OPT_POINTER;

// Passed as saved_errno: %m shows errno as it is when the conversion is rendered.
constexpr int PRINTF_CURRENT_ERRNO = -1;

struct PrintfFormatAtom {
  enum Padding : uint32_t { PAD_LEFT_SPACES = 0, PAD_RIGHT_SPACES = 1, PAD_LEFT_ZEROS = 2 };
  enum SignNonnegative : uint32_t {
    SIGN_NONNEGATIVE_NONE = 0,
    SIGN_NONNEGATIVE_SPACE = 1,
    SIGN_NONNEGATIVE_PLUS = 2,
  };
  enum Conversion : uint32_t {
    CONV_CONSTANT_STRING = 0,
    CONV_SIGNED_DECIMAL = 1,
    CONV_UNSIGNED_DECIMAL = 2,
    CONV_UNSIGNED_HEX = 3,
    CONV_UNSIGNED_OCTAL = 4,
    CONV_FLOAT_EXPONENT = 5,
    CONV_FLOAT_FIXED = 6,
    CONV_FLOAT_CHOOSE = 7,
    CONV_FLOAT_HEX = 8,
    CONV_CHARACTER = 9,
    CONV_STRING = 10,
    CONV_ERRNO = 11,
    CONV_POINTER = 12,
  };
  enum : uint32_t {
    FLAG_ALT_FORM = 1,            // "#"
    FLAG_VARIABLE_WIDTH = 2,      // "*": still to be read from the arguments
    FLAG_VARIABLE_PRECISION = 4,  // ".*"
    FLAG_UPPER_CASE = 8,          // X, E, F, G, A
    FLAG_GROUP_DIGITS = 16,       // "'"
  };
  static constexpr size_t NOT_SET = ~size_t(0);

  uint32_t flags;
  Padding padding;
  SignNonnegative sign_nonnegative;
  Conversion conversion;
  union {
    uint64_t arg_size;  // a conversion: width of its argument in bytes
    const char *text;   // a constant: where its text starts in the format
  };
  uint64_t text_len;  // a constant: length of its text
  size_t width;
  size_t precision;

  PrintfFormatAtom() { clear(); }
  void clear() {
    flags = 0;
    padding = PAD_LEFT_SPACES;
    sign_nonnegative = SIGN_NONNEGATIVE_NONE;
    conversion = CONV_CONSTANT_STRING;
    arg_size = 0;
    text_len = 0;
    width = NOT_SET;
    precision = NOT_SET;
  }

  // Parses the next atom off the front of format, which is shortened. False only when format is
  // empty. Text that is no valid conversion comes back as a constant.
  bool getNext(StrSegment &format, unsigned options = PRINTF_OPT_DEFAULT);

  void setVariableWidth(int w);
  void setVariablePrecision(int p);

  bool isConstant() const { return conversion == CONV_CONSTANT_STRING; }
  StrSegment constantText() const {
    MV_ASSERT(conversion == CONV_CONSTANT_STRING);
    return StrSegment(text, text_len);
  }
  // Arguments the atom accounts for: one for any conversion (%m too, though it reads none), and
  // one for each "*".
  unsigned argumentCount() const {
    return (isConstant() ? 0u : 1u) + ((flags & FLAG_VARIABLE_WIDTH) ? 1u : 0u) +
           ((flags & FLAG_VARIABLE_PRECISION) ? 1u : 0u);
  }
};

inline bool atom_alt_form(const PrintfFormatAtom &a) {
  return (a.flags & PrintfFormatAtom::FLAG_ALT_FORM) != 0;
}
inline bool atom_upper_case(const PrintfFormatAtom &a) {
  return (a.flags & PrintfFormatAtom::FLAG_UPPER_CASE) != 0;
}
inline bool atom_group_digits(const PrintfFormatAtom &a) {
  return (a.flags & PrintfFormatAtom::FLAG_GROUP_DIGITS) != 0;
}

// Prints the atom back as format text.
void append_stringified(Str &out, const PrintfFormatAtom &atom);

// A compiled format, for formats rendered many times. It keeps its own copy of the text, so
// copies and moves are cheap and safe.
class PrintfFormat {
 public:
  PrintfFormat() = default;
  explicit PrintfFormat(StrSegment format, unsigned options = PRINTF_OPT_DEFAULT) {
    compile(format._data, format._len, options);
  }

  void compile(const char *format, unsigned options = PRINTF_OPT_DEFAULT);
  void compile(const char *format, size_t len, unsigned options = PRINTF_OPT_DEFAULT);

  const std::vector<PrintfFormatAtom> &atoms() const { return _atoms; }
  size_t argumentCount() const;

  template <class... Args>
  void render(Str &out, Args... args) const {
    renderTo(&out, args...);
  }
  void vrender(Str &out, va_list ap, int saved_errno = PRINTF_CURRENT_ERRNO) const;
  void vrenderToVector(StrVector &out, va_list ap, int saved_errno = PRINTF_CURRENT_ERRNO) const;
  void vrenderToCrashLog(crash_log_writer *writer, va_list ap,
                         int saved_errno = PRINTF_CURRENT_ERRNO) const noexcept;

 private:
  void renderTo(Str *out, ...) const;

  std::shared_ptr<const char[]> _text;
  std::vector<PrintfFormatAtom> _atoms;
};

// One-pass drivers: parse and render atom by atom, with no compiled format. saved_errno is what
// %m shows.
void vappendPrintf(Str &out, StrSegment format, va_list ap, int saved_errno = PRINTF_CURRENT_ERRNO);
// One new element per conversion; constant text is dropped.
void vappendPrintfToVector(StrVector &out, StrSegment format, va_list ap,
                           int saved_errno = PRINTF_CURRENT_ERRNO);
void appendPrintfToVector(StrVector &out, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
// Usable from a signal handler: allocates nothing, and writes only through the writer.
void vprintfToCrashLog(crash_log_writer *writer, StrSegment format, va_list ap,
                       int saved_errno = PRINTF_CURRENT_ERRNO) noexcept;
void printfToCrashLog(crash_log_writer *writer, const char *format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// ---- Rendered objects: fill counts and digits, computed on the stack, then emitted. ----

// Text under the shared fill rule: width pads with blanks on the left, or on the right with
// "-"; never with zeros, and precision is the caller's business.
struct PrintfRenderedText {
  size_t left_blanks;
  const char *data;
  size_t len;
  size_t right_blanks;

  PrintfRenderedText(const PrintfFormatAtom &atom, const char *d, size_t n);
  size_t size() const { return left_blanks + len + right_blanks; }
};

// Digits of an integer, with room for 20 digits and 6 commas.
class PrintfDigitBuffer {
 public:
  PrintfDigitBuffer() : _p(_buf) {}
  // _p points into _buf, so a copy must point into its own.
  PrintfDigitBuffer(const PrintfDigitBuffer &o) : _p(_buf + o.size()) {
    memcpy(_buf, o._buf, o.size());
  }
  PrintfDigitBuffer &operator=(const PrintfDigitBuffer &o) {
    memmove(_buf, o._buf, o.size());
    _p = _buf + o.size();
    return *this;
  }
  void addU64(uint64_t v);
  void addU32(uint32_t v);
  void push_back(char c) {
    MV_ASSERT(_p < &_buf[sizeof(_buf)]);
    *_p++ = c;
  }
  // Inserts "," between groups of three digits.
  void addCommaSeparators();
  const char *data() const { return _buf; }
  size_t size() const { return static_cast<size_t>(_p - _buf); }

 private:
  char *_p;
  char _buf[26];
};

struct PrintfRenderedSignedInteger {
  size_t left_blanks = 0;
  char sign = 0;
  size_t zeros = 0;
  PrintfDigitBuffer digits;
  size_t right_blanks = 0;

  PrintfRenderedSignedInteger(const PrintfFormatAtom &atom, int64_t value);
  size_t size() const {
    return left_blanks + (sign ? 1 : 0) + zeros + digits.size() + right_blanks;
  }
};

// Also carries "(nil)" for a null pointer, as a prefix with no digits.
struct PrintfRenderedUnsignedInteger {
  size_t left_blanks = 0;
  const char *prefix = nullptr;
  size_t prefix_len = 0;
  size_t zeros = 0;
  PrintfDigitBuffer digits;
  size_t right_blanks = 0;

  PrintfRenderedUnsignedInteger() = default;
  PrintfRenderedUnsignedInteger(const PrintfFormatAtom &atom, uint64_t value);
  size_t size() const { return left_blanks + prefix_len + zeros + digits.size() + right_blanks; }
};

// The default atom of a bare pointer: alternate form, CONV_POINTER, no width or precision.
PrintfFormatAtom printfDefaultPointerAtom();
PrintfRenderedUnsignedInteger printfPointerValue(const PrintfFormatAtom &atom, uintptr_t value);

void append_stringified(Str &out, const PrintfRenderedText &r);
void append_stringified(Str &out, const PrintfRenderedSignedInteger &r);
void append_stringified(Str &out, const PrintfRenderedUnsignedInteger &r);
void crashlog_write(crash_log_writer *w, const PrintfRenderedText &r) noexcept;
void crashlog_write(crash_log_writer *w, const PrintfRenderedSignedInteger &r) noexcept;
void crashlog_write(crash_log_writer *w, const PrintfRenderedUnsignedInteger &r) noexcept;
// Plain byte output to the crash writer.
// The plain pointer-and-length form is the crash writer's own.
using ::crashlog_write;
void crashlog_write(crash_log_writer *w, const char *cstr) noexcept;

// Size of the first group when n digits followed by z zeros are printed in groups of three;
// a leading "-" in first_byte counts as part of the first group.
size_t print_with_commas_first_chunk_size(size_t n, size_t z, char first_byte);

// ---- Emission, shared by every sink. A writer has write(p, n) and fill(c, n). ----

namespace printf_detail {

// Writes into memory already sized for the output.
// Pieces are mostly a few bytes long, where a plain loop beats a library call.
struct MemoryWriter {
  char *p;
  void write(const char *d, size_t n) {
    if (n <= 16) {
      for (size_t i = 0; i < n; ++i) p[i] = d[i];
    } else {
      memcpy(p, d, n);
    }
    p += n;
  }
  void fill(char c, size_t n) {
    if (n <= 16) {
      for (size_t i = 0; i < n; ++i) p[i] = c;
    } else {
      memset(p, c, n);
    }
    p += n;
  }
  void put(char c) { *p++ = c; }
};

struct CrashWriter {
  crash_log_writer *h;
  void write(const char *d, size_t n) {
    if (n) h->do_write(h, d, n);
  }
  void fill(char c, size_t n);
  void put(char c) { h->do_write(h, &c, 1); }
};

template <class W>
void emit(W &w, const PrintfRenderedText &r) {
  w.fill(' ', r.left_blanks);
  w.write(r.data, r.len);
  w.fill(' ', r.right_blanks);
}
template <class W>
void emit(W &w, const PrintfRenderedSignedInteger &r) {
  w.fill(' ', r.left_blanks);
  if (r.sign) w.put(r.sign);
  w.fill('0', r.zeros);
  w.write(r.digits.data(), r.digits.size());
  w.fill(' ', r.right_blanks);
}
template <class W>
void emit(W &w, const PrintfRenderedUnsignedInteger &r) {
  w.fill(' ', r.left_blanks);
  w.write(r.prefix, r.prefix_len);
  w.fill('0', r.zeros);
  w.write(r.digits.data(), r.digits.size());
  w.fill(' ', r.right_blanks);
}

// Appends the bytes that write(dst) puts at dst and counts in its result, at most
// APPEND_IN_PLACE_MAX. The room is made by an append of fixed length, which compiles to a few
// moves where one of variable length would call memcpy; copying from a buffer on the stack would
// also stall on store forwarding.
constexpr size_t APPEND_IN_PLACE_MAX = 32;
extern const char APPEND_IN_PLACE_ROOM[APPEND_IN_PLACE_MAX];
template <class Write>
inline void appendInPlace(Str &out, Write write) {
  const size_t old = out.size();
  out.append(APPEND_IN_PLACE_ROOM, APPEND_IN_PLACE_MAX);
  out.erase(old + write(out.data() + old));
}

// Short results go through a stack buffer and one append; long ones are written in place.
template <class R>
void appendRendered(Str &out, const R &r) {
  size_t n = r.size();
  if (n <= 128) {
    if (n <= APPEND_IN_PLACE_MAX) {
      appendInPlace(out, [&](char *dst) {
        MemoryWriter w{dst};
        emit(w, r);
        return n;
      });
      return;
    }
    char buf[128];
    MemoryWriter w{buf};
    emit(w, r);
    out.append(buf, n);
    return;
  }
  size_t old = out.size();
  out.resize(old + n);
  MemoryWriter w{out.data() + old};
  emit(w, r);
}

template <class R>
void crashRendered(crash_log_writer *h, const R &r) noexcept {
  CrashWriter w{h};
  emit(w, r);
}

}  // namespace printf_detail

}  // namespace morvek
