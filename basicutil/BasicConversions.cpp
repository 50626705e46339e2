#include "basicutil/BasicConversions.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "basicutil/PrintFloatingPoint.h"
#include "basicutil/UnicodeCodepoint.h"
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

// ---------------------------------------------------------------------------------------------
// Text to numbers

namespace {

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }

template <class S>
bool signedFetchChecked(const char *data, size_t len, S &out) {
  using U = std::make_unsigned_t<S>;
  if (data == nullptr || len == 0) return false;
  const char *p = data;
  const char *const pend = data + len;
  while (p < pend && isBlank(*p)) ++p;
  uint64_t v = 0;
  if (p < pend && *p == '-') {
    const uint64_t magnitude = uint64_t(U(std::numeric_limits<S>::max())) + 1;
    if (!parse_unsigned_val(p + 1, pend, v, magnitude)) return false;
    out = static_cast<S>(U(0) - static_cast<U>(v));
  } else {
    if (!parse_unsigned_val(p, pend, v, uint64_t(std::numeric_limits<S>::max()))) return false;
    out = static_cast<S>(v);
  }
  return true;
}

// The C library wants a terminator; short texts get one on the stack.
class TerminatedCopy {
 public:
  explicit TerminatedCopy(StrSegment text) {
    if (text._len == ~size_t(0)) throw std::bad_alloc();
    _p = text._len < sizeof(_stack) ? _stack : new char[text._len + 1];
    memcpy(_p, text._data, text._len);
    _p[text._len] = '\0';
    _end = _p + text._len;
  }
  ~TerminatedCopy() {
    if (_p != _stack) delete[] _p;
  }
  TerminatedCopy(const TerminatedCopy &) = delete;
  TerminatedCopy &operator=(const TerminatedCopy &) = delete;

  char *_p;
  char *_end;
  char _stack[64];
};

bool fetchSigned64(StrSegment text, int64_t &out, int base) {
  TerminatedCopy buf(text);
  errno = 0;
  char *end = nullptr;
  long long v = strtoll(buf._p, &end, base);
  if ((v == LLONG_MAX || v == LLONG_MIN) && errno == ERANGE) return false;
  if (end == buf._p || end != buf._end) return false;
  out = v;
  return true;
}

bool fetchUnsigned64(StrSegment text, uint64_t &out, int base) {
  TerminatedCopy buf(text);
  const char *p = buf._p;
  while (isspace(static_cast<unsigned char>(*p))) ++p;
  if (*p == '-') return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long v = strtoull(buf._p, &end, base);
  if (v == ULLONG_MAX && errno == ERANGE) return false;
  if (end == buf._p || end != buf._end) return false;
  out = v;
  return true;
}

// Bounds are exclusive: the value must lie strictly between them, which NaN never does.
template <class T>
bool doubleToIntegerWithin(double value, double below, double above, T &out) {
  if (!(value > below && value < above)) return false;
  const T t = static_cast<T>(value);
  if (static_cast<double>(t) != value) return false;
  out = t;
  return true;
}

bool equalsCaseless(const char *data, size_t len, const char *word) {
  return mem_compare_caseless(data, len, word) == 0;
}

struct ByteSizeUnit {
  const char *abbreviation;
  const char *long_form;
  uint64_t decimal;
  uint64_t binary;
};

constexpr ByteSizeUnit BYTE_SIZE_UNITS[] = {
    {"B", "byte", 1, 1},
    {"kB", "kilobyte", 1000, 1024},
    {"KiB", "kibibyte", 1024, 1024},
    {"MB", "megabyte", 1000000, 1048576},
    {"MiB", "mebibyte", 1048576, 1048576},
    {"GB", "gigabyte", 1000000000, 1073741824},
    {"GiB", "gibibyte", 1073741824, 1073741824},
    {"TB", "terabyte", 1000000000000, 1099511627776},
    {"TiB", "tebibyte", 1099511627776, 1099511627776},
};

// The long form, or the long form and a lower-case 's'; only the long form's bytes are
// compared caselessly.
bool matchesLongForm(const char *data, size_t len, const char *long_form) {
  const size_t n = strlen(long_form);
  if (len == n + 1) {
    if (data[n] != 's') return false;
  } else if (len != n) {
    return false;
  }
  return mem_compare_caseless(data, n, long_form, n) == 0;
}

bool parseByteSizeImpl(const char *data, size_t len, uint64_t &out, bool binary) {
  StrSegment text = StrSegment(data, len).trimmed(BYTESET_BLANKS, true, false);
  const char *p = text._data;
  const char *const pend = p + text._len;
  bool sawZero = false;
  while (p < pend && *p == '0') {
    ++p;
    sawZero = true;
  }
  uint64_t value = 0;
  unsigned digits = 0;
  while (p < pend && *p >= '0' && *p <= '9') {
    const unsigned d = static_cast<unsigned>(*p - '0');
    if (digits == 20) return false;
    if (digits == 19) {
      if (value > (UINT64_MAX - d) / 10) return false;
    }
    value = value * 10 + d;
    ++digits;
    ++p;
  }
  if (digits == 0 && !sawZero) return false;
  if (p == pend) {
    out = value;
    return true;
  }
  StrSegment unit = StrSegment(p, static_cast<size_t>(pend - p)).trimmed(BYTESET_BLANKS);
  if (unit.empty()) return false;
  for (const ByteSizeUnit &u : BYTE_SIZE_UNITS) {
    if (equalsCaseless(unit._data, unit._len, u.abbreviation) ||
        matchesLongForm(unit._data, unit._len, u.long_form)) {
      out = value * (binary ? u.binary : u.decimal);
      return true;
    }
  }
  return false;
}

}  // namespace

namespace decimal_detail {
bool signedFetchFull(const char *data, size_t len, int16_t &out) {
  return signedFetchChecked(data, len, out);
}
bool signedFetchFull(const char *data, size_t len, int32_t &out) {
  return signedFetchChecked(data, len, out);
}
bool signedFetchFull(const char *data, size_t len, int64_t &out) {
  return signedFetchChecked(data, len, out);
}
}  // namespace decimal_detail

bool fetchInBase(StrSegment text, int64_t &out, int base) { return fetchSigned64(text, out, base); }

bool fetchInBase(StrSegment text, uint64_t &out, int base) {
  return fetchUnsigned64(text, out, base);
}

bool fetchInBase(StrSegment text, int32_t &out, int base) {
  int64_t v;
  if (!fetchSigned64(text, v, base) || v < INT32_MIN || v > INT32_MAX) return false;
  out = static_cast<int32_t>(v);
  return true;
}

bool fetchInBase(StrSegment text, uint32_t &out, int base) {
  uint64_t v;
  if (!fetchUnsigned64(text, v, base) || v > UINT32_MAX) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

bool doubleToInteger(double value, int16_t &out) {
  return doubleToIntegerWithin(value, -32768.5, 32767.5, out);
}
bool doubleToInteger(double value, int32_t &out) {
  return doubleToIntegerWithin(value, -2147483648.5, 2147483647.5, out);
}
bool doubleToInteger(double value, int64_t &out) {
  return doubleToIntegerWithin(value, -9007199254740994.0, 9007199254740992.0, out);
}
// The unsigned lower bound admits 0 and -0.0 but nothing below.
bool doubleToInteger(double value, uint16_t &out) {
  return !(value < 0) && doubleToIntegerWithin(value, -1.0, 65535.5, out);
}
bool doubleToInteger(double value, uint32_t &out) {
  return !(value < 0) && doubleToIntegerWithin(value, -1.0, 4294967295.5, out);
}
bool doubleToInteger(double value, uint64_t &out) {
  return !(value < 0) && doubleToIntegerWithin(value, -1.0, 9007199254740992.0, out);
}

bool parseBool(const char *data, size_t len, bool &out) {
  if (data == nullptr || len == 0) return false;
  for (const char *word : {"f", "false", "no", "0"}) {
    if (equalsCaseless(data, len, word)) {
      out = false;
      return true;
    }
  }
  for (const char *word : {"t", "true", "yes", "1"}) {
    if (equalsCaseless(data, len, word)) {
      out = true;
      return true;
    }
  }
  return false;
}

bool parseBoolOr(const char *data, size_t len, bool defaultIfEmpty, bool defaultIfBad) {
  if (data == nullptr || len == 0) return defaultIfEmpty;
  bool v;
  return parseBool(data, len, v) ? v : defaultIfBad;
}

bool parseByteSize(const char *data, size_t len, uint64_t &out) {
  return parseByteSizeImpl(data, len, out, false);
}

bool parseByteSizeBinary(const char *data, size_t len, uint64_t &out) {
  return parseByteSizeImpl(data, len, out, true);
}

// ---------------------------------------------------------------------------------------------
// Numbers to text

void appendDouble(Str &out, double value) {
  if (!double_is_finite(value)) {
    StrSegment repl = get_nonfinite_double_repl(value);
    out.append(repl._data, repl._len);
    return;
  }
  DoubleToStringShortest(value).appendPlainText(out);
}

namespace {

void appendHexDigits(Str &out, uint64_t value, int width, bool upper) {
  if (width != 0) {
    // Widths are rare; the format engine owns the padding rules, negative widths included.
    out.appendf(upper ? "%0*llX" : "%0*llx", width, static_cast<unsigned long long>(value));
    return;
  }
  const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char buf[16];
  char *p = buf + sizeof(buf);
  do {
    *--p = digits[value & 15];
    value >>= 4;
  } while (value != 0);
  out.append(p, static_cast<size_t>(buf + sizeof(buf) - p));
}

}  // namespace

void appendHex(Str &out, uint64_t value, int width) { appendHexDigits(out, value, width, false); }

void appendHexUpper(Str &out, uint64_t value, int width) {
  appendHexDigits(out, value, width, true);
}

void appendByteSize(Str &out, ByteSize size) {
  const uint64_t hint = size.unit_hint;
  const bool binary = (hint & (hint - 1)) == 0;
  const uint64_t v = size.value;
  uint64_t unit = 1;
  const char *name = "B";
  if (binary) {
    if (v >= (uint64_t(1) << 40)) {
      unit = uint64_t(1) << 40;
      name = "TiB";
    } else if (v >= (uint64_t(1) << 30)) {
      unit = uint64_t(1) << 30;
      name = "GiB";
    } else if (v >= (uint64_t(1) << 20)) {
      unit = uint64_t(1) << 20;
      name = "MiB";
    } else if (v >= (uint64_t(1) << 10)) {
      unit = uint64_t(1) << 10;
      name = "KiB";
    }
  } else {
    if (v >= 1000000000000ull) {
      unit = 1000000000000ull;
      name = "TB";
    } else if (v >= 1000000000ull) {
      unit = 1000000000ull;
      name = "GB";
    } else if (v >= 1000000ull) {
      unit = 1000000ull;
      name = "MB";
    } else if (v >= 1000ull) {
      unit = 1000ull;
      name = "kB";
    }
  }
  if (v % unit == 0) {
    appendNumber(out, v / unit);
  } else {
    out.appendf("%.*f", 3, static_cast<double>(v) / static_cast<double>(unit));
  }
  out.append(name);
}

// ---------------------------------------------------------------------------------------------
// Encoders and quoting

namespace {

constexpr unsigned char B64_PAD = 0xFD;
constexpr unsigned char B64_SPACE = 0xFE;
constexpr unsigned char B64_BAD = 0xFF;

struct Base64Table {
  unsigned char v[256];
  constexpr Base64Table() : v{} {
    for (unsigned char &x : v) x = B64_BAD;
    const char *alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (unsigned i = 0; i < 64; ++i)
      v[static_cast<unsigned char>(alphabet[i])] = static_cast<unsigned char>(i);
    v[static_cast<unsigned char>('=')] = B64_PAD;
    for (const char *ws = "\t\n\v\f\r "; *ws != '\0'; ++ws) {
      v[static_cast<unsigned char>(*ws)] = B64_SPACE;
    }
  }
};
constexpr Base64Table BASE64_TABLE;

inline unsigned char b64(char c) { return BASE64_TABLE.v[static_cast<unsigned char>(c)]; }

constexpr ByteSet URL_SAFE{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~",
                           true};

// The encoded form of every byte, fixed at compile time so that static initialisers elsewhere
// may encode too.
struct UrlTable {
  char text[256][4];
  unsigned char len[256];
  constexpr UrlTable() : text{}, len{} {
    const char *hex = "0123456789ABCDEF";
    for (unsigned b = 0; b < 256; ++b) {
      if (URL_SAFE.contains(static_cast<unsigned char>(b))) {
        text[b][0] = static_cast<char>(b);
        len[b] = 1;
      } else {
        text[b][0] = '%';
        text[b][1] = hex[b >> 4];
        text[b][2] = hex[b & 15];
        len[b] = 3;
      }
    }
  }
};
constexpr UrlTable URL_TABLE;

size_t urlSafePrefix(const char *data, size_t len) {
  size_t i = 0;
  while (i < len && URL_SAFE.contains(data[i])) ++i;
  return i;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool base64Decode(Str &out, const char *data, size_t len) {
  out.reserve(out.size() + len * 3 / 4 + 1);
  size_t i = 0;
  while (i < len) {
    if (len - i < 2) return false;
    const unsigned char a = b64(data[i]), b = b64(data[i + 1]);
    if (a > 63 || b > 63) return false;
    out.push_back(static_cast<char>((a << 2) | (b >> 4)));
    i += 2;
    if (i == len) break;
    if (data[i] == '=') break;
    const unsigned char c = b64(data[i]);
    if (c > 63) return false;
    out.push_back(static_cast<char>(((b & 15) << 4) | (c >> 2)));
    if (++i == len) break;
    if (data[i] == '=') break;
    const unsigned char d = b64(data[i]);
    if (d > 63) return false;
    out.push_back(static_cast<char>(((c & 3) << 6) | d));
    ++i;
  }
  while (i < len && data[i] == '=') ++i;
  return i == len;
}

void urlEncode(Str &out, const char *data, size_t len) {
  size_t i = 0;
  while (i < len) {
    const size_t safe = urlSafePrefix(data + i, len - i);
    out.append(data + i, safe);
    i += safe;
    // Unsafe bytes tend to come in runs (UTF-8): encode the whole run in one append.
    char buf[96];
    size_t n = 0;
    while (i < len && n + 3 <= sizeof(buf)) {
      const unsigned char b = static_cast<unsigned char>(data[i]);
      if (URL_TABLE.len[b] == 1) break;
      memcpy(buf + n, URL_TABLE.text[b], 3);
      n += 3;
      ++i;
    }
    out.append(buf, n);
  }
}

Str urlEncoded(StrSegment text) {
  Str out;
  out.reserve(text._len);
  urlEncode(out, text._data, text._len);
  return out;
}

void urlEncodeInPlace(Str &s) {
  const size_t safe = urlSafePrefix(s.data(), s.size());
  if (safe == s.size()) return;
  Str encoded;
  encoded.reserve(s.size() + (s.size() - safe) * 2);
  encoded.append(s.data(), safe);
  urlEncode(encoded, s.data() + safe, s.size() - safe);
  s.swap(encoded);
}

bool urlDecodeInPlace(Str &s) {
  const size_t first = s.find_first_of(StrSegment("%+", 2));
  if (first == Str::npos) return isValidUtf8(s.data(), s.size());
  Str decoded;
  decoded.reserve(s.size());
  decoded.append(s.data(), first);
  const char *p = s.data() + first;
  const char *const pend = s.data() + s.size();
  while (p < pend) {
    const char c = *p++;
    if (c == '+') {
      decoded.push_back(' ');
    } else if (c == '%' && pend - p >= 2 && hexValue(p[0]) >= 0 && hexValue(p[1]) >= 0) {
      decoded.push_back(static_cast<char>(hexValue(p[0]) * 16 + hexValue(p[1])));
      p += 2;
    } else {
      decoded.push_back(c);
    }
  }
  if (!isValidUtf8(decoded.data(), decoded.size())) return false;
  s.swap(decoded);
  return true;
}

Str searchQuoted(StrSegment str, const ByteSet &set, bool force, bool keepBackslashes) {
  static const Str EMPTY_QUOTED("\"\"");
  if (str.empty()) return EMPTY_QUOTED;
  if (str.find_first_of(set, 0, false) != StrSegment::npos) {
    Str out;
    out.reserve(str._len + 2 + str.count(BYTESET_QUOTE_OR_BACKSLASH));
    out.push_back('"');
    for (char c : str) {
      if (c == '"' || (c == '\\' && !keepBackslashes)) out.push_back('\\');
      out.push_back(c);
    }
    out.push_back('"');
    return out;
  }
  if (force || str.equals("AND") || str.equals("OR") || str.equals("NOT") || str.equals("IN")) {
    Str out;
    out.reserve(str._len + 2);
    out.push_back('"');
    out.append(str._data, str._len);
    out.push_back('"');
    return out;
  }
  return Str(str);
}

void csvQuoteAppend(Str &out, const char *data, size_t len) {
  static constexpr ByteSet CSV_SPECIAL{",\r\n\"", true};
  StrSegment field(data, len);
  if (field.find_first_of(CSV_SPECIAL) == StrSegment::npos) {
    out.append(field._data, field._len);
    return;
  }
  out.reserve(out.size() + len + 2 + field.count('"'));
  out.push_back('"');
  for (char c : field) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
}

Str escapeControls(StrSegment str) {
  Str out;
  out.reserve(str._len);
  for (char c : str) {
    switch (c) {
      case '\t':
        out.append("\\t", 2);
        break;
      case '\r':
        out.append("\\r", 2);
        break;
      case '\n':
        out.append("\\n", 2);
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

void makePrintableInPlace(Str &s) {
  size_t i = 0;
  const size_t n = s.size();
  while (i < n && s[i] >= 0x20 && s[i] <= 0x7E) ++i;
  if (i == n) return;
  const Str original(s);
  s.resize(i);
  static constexpr char HEX[] = "0123456789ABCDEF";
  for (; i < n; ++i) {
    const unsigned char b = static_cast<unsigned char>(original[i]);
    if (b >= 0x20 && b <= 0x7E) {
      s.push_back(static_cast<char>(b));
    } else if (b == '\t') {
      s.push_back(' ');
    } else if (b == '\n') {
      s.append("\\n", 2);
    } else if (b == '\r') {
      s.append("\\r", 2);
    } else {
      const char esc[4] = {'\\', 'x', HEX[b >> 4], HEX[b & 15]};
      s.append(esc, 4);
    }
  }
}

void appendBigEndian32(Str &out, uint32_t v) {
  const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
  out.append(b, 4);
}

void appendBigEndian64(Str &out, uint64_t v) {
  appendBigEndian32(out, static_cast<uint32_t>(v >> 32));
  appendBigEndian32(out, static_cast<uint32_t>(v));
}

void _appendBase128(Str &out, uint64_t v) {
  MV_ASSERT(v >= 128);
  char buf[10];
  size_t n = 0;
  while (v >= 0x80) {
    buf[n++] = static_cast<char>((v & 0x7F) | 0x80);
    v >>= 7;
  }
  buf[n++] = static_cast<char>(v);
  out.append(buf, n);
}

}  // namespace morvek

// --- decimal parsing ---
namespace morvek {

namespace {

inline bool isDecimalDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

}  // namespace

bool parse_unsigned_val(const char *p, const char *pend, uint64_t &out, uint64_t max) {
  // The usual text is digits alone, short enough that nothing can overflow: one tight loop.
  const size_t n = static_cast<size_t>(pend - p);
  if (n - 1 < 19) {
    uint64_t v = 0;
    size_t i = 0;
    for (; i < n; ++i) {
      const unsigned d = static_cast<unsigned char>(p[i]) - unsigned{'0'};
      if (d > 9) break;
      v = v * 10 + d;
    }
    if (i == n && v <= max) {
      out = v;
      return true;
    }
  }
  if (p == pend) return false;
  while (p < pend && (*p == ' ' || *p == '\t')) ++p;
  if (p == pend || !isDecimalDigit(*p)) return false;
  const char *const digits = p;
  // Nineteen digits can't overflow 64 bits, so up to there one range test at the end does.
  const char *const unchecked = pend - p > 19 ? p + 19 : pend;
  uint64_t v = 0;
  for (; p < unchecked && isDecimalDigit(*p); ++p) v = v * 10 + static_cast<uint64_t>(*p - '0');
  if (v > max || (p < pend && isDecimalDigit(*p))) {
    // Long or out of range: every digit checked, stopping with the partial value.
    const uint64_t maxTenth = max / 10;
    v = 0;
    for (p = digits; p < pend && isDecimalDigit(*p); ++p) {
      const uint64_t d = static_cast<uint64_t>(*p - '0');
      if (v > maxTenth || d > max || v * 10 > max - d) {
        out = v;
        return false;
      }
      v = v * 10 + d;
    }
  }
  out = v;
  while (p < pend) {
    if (*p != ' ' && *p != '\t') return false;
    ++p;
  }
  MV_ASSERT(p == pend);
  return true;
}

}  // namespace morvek
// --- end decimal parsing ---
