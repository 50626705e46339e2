// Str, the owned byte string, and StrSegment, the non-owning view the library speaks in.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace morvek {

class Str;
class StrVector;
class StrSegment;

// A set of byte values; byte b is bit b % 64 of word b / 64. Constexpr so that the shared sets
// are ready before any static initialiser could ask for them.
class ByteSet {
 public:
  constexpr ByteSet() : _bits{0, 0, 0, 0} {}
  // With in true the set holds exactly the listed bytes; with in false, every byte but them.
  constexpr ByteSet(const char *chars, bool in) : _bits{0, 0, 0, 0} {
    fill(!in);
    if (in) {
      add(chars);
    } else {
      remove(chars);
    }
  }

  constexpr void fill(bool in) {
    for (uint64_t &w : _bits) w = in ? ~uint64_t(0) : 0;
  }
  constexpr void add(unsigned char b) { _bits[b >> 6] |= uint64_t(1) << (b & 63); }
  constexpr void remove(unsigned char b) { _bits[b >> 6] &= ~(uint64_t(1) << (b & 63)); }
  constexpr void add(const char *chars, size_t len) {
    for (size_t i = 0; i < len; ++i) add(static_cast<unsigned char>(chars[i]));
  }
  constexpr void remove(const char *chars, size_t len) {
    for (size_t i = 0; i < len; ++i) remove(static_cast<unsigned char>(chars[i]));
  }
  constexpr void add(const char *cstr) {
    for (; cstr != nullptr && *cstr != '\0'; ++cstr) add(static_cast<unsigned char>(*cstr));
  }
  constexpr void remove(const char *cstr) {
    for (; cstr != nullptr && *cstr != '\0'; ++cstr) remove(static_cast<unsigned char>(*cstr));
  }

  constexpr bool contains(unsigned char b) const { return (_bits[b >> 6] >> (b & 63)) & 1; }
  constexpr bool contains(char c) const { return contains(static_cast<unsigned char>(c)); }
  constexpr bool operator==(const ByteSet &o) const {
    return _bits[0] == o._bits[0] && _bits[1] == o._bits[1] && _bits[2] == o._bits[2] &&
           _bits[3] == o._bits[3];
  }

  uint64_t _bits[4];
};

// The shared sets. The whitespace set ignores the locale on purpose.
inline constexpr ByteSet BYTESET_WHITESPACE{"\t\n\v\f\r ", true};
inline constexpr ByteSet BYTESET_WHITESPACE_OR_QUOTE{"\t\n\v\f\r \"", true};
inline constexpr ByteSet BYTESET_DIGITS{"0123456789", true};
inline constexpr ByteSet BYTESET_HEX_DIGITS{"0123456789abcdefABCDEF", true};
inline constexpr ByteSet BYTESET_LETTERS{"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ",
                                         true};
inline constexpr ByteSet BYTESET_IDENTIFIER_START{
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_", true};
inline constexpr ByteSet BYTESET_ALPHANUMERICS{
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ", true};
inline constexpr ByteSet BYTESET_IDENTIFIER{
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_", true};
inline constexpr ByteSet BYTESET_IDENTIFIER_WITH_DOT{
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_.", true};
inline constexpr ByteSet BYTESET_IDENTIFIER_WITH_DASH{
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-", true};
inline constexpr ByteSet BYTESET_IDENTIFIER_WITH_DASH_AND_DOT{
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-.", true};
inline constexpr ByteSet BYTESET_SPACE_OR_COMMA{" ,", true};
inline constexpr ByteSet BYTESET_QUOTE_OR_BACKSLASH{"\"\\", true};
inline constexpr ByteSet BYTESET_BLANKS{" \t", true};

// Receives the tokens of a split, in input order, as views into the input.
class StrSegmentTokenAcceptor {
 public:
  virtual ~StrSegmentTokenAcceptor();
  virtual void acceptToken(const StrSegment &token) = 0;
};

class StrSegment {
 public:
  using size_type = size_t;
  static constexpr size_type npos = ~size_type(0);
  static constexpr uint32_t SPLIT_NO_LIMIT = ~uint32_t(0);

  // Never null: an empty view points at a shared empty C string.
  StrSegment() : _data(""), _len(0) {}
  StrSegment(const char *data, size_type len) : _data(data ? data : ""), _len(data ? len : 0) {}
  StrSegment(const char *cstr) : _data(cstr ? cstr : ""), _len(cstr ? strlen(cstr) : 0) {}
  StrSegment(const std::string &s) : _data(s.data()), _len(s.size()) {}
  StrSegment(std::string_view sv) : StrSegment(sv.data(), sv.size()) {}

  const char *data() const { return _data; }
  size_type size() const { return _len; }
  size_type length() const { return _len; }
  bool empty() const { return _len == 0; }
  const char *begin() const { return _data; }
  const char *end() const { return _data + _len; }
  char operator[](size_type i) const { return _data[i]; }
  char front() const { return _data[0]; }
  char back() const { return _data[_len - 1]; }
  std::string_view view() const { return {_data, _len}; }
  bool operator==(const StrSegment &o) const { return equals(o); }

  // The bytes a request for n at pos gets; out-of-range requests shrink, never fail.
  static size_type clampLength(size_type total, size_type pos, size_type n) {
    if (pos >= total) return 0;
    size_type left = total - pos;
    return n >= left ? left : n;
  }
  StrSegment substr(size_type pos, size_type n = npos) const {
    size_type len = clampLength(_len, pos, n);
    return len == 0 ? StrSegment() : StrSegment(_data + pos, len);
  }

  // Comparison.
  int compare(const StrSegment &other) const;
  bool equals(const StrSegment &other) const {
    if (_len != other._len) return false;
    return _data == other._data || memcmp(_data, other._data, _len) == 0;
  }
  bool startsWith(const StrSegment &prefix) const {
    return prefix._len <= _len && memcmp(_data, prefix._data, prefix._len) == 0;
  }
  bool endsWith(const StrSegment &suffix) const {
    return suffix._len <= _len &&
           memcmp(_data + _len - suffix._len, suffix._data, suffix._len) == 0;
  }
  bool startsWithByteIn(const ByteSet &set) const { return _len != 0 && set.contains(_data[0]); }
  bool endsWithByteIn(const ByteSet &set) const {
    return _len != 0 && set.contains(_data[_len - 1]);
  }
  // Equality after removing one pair of enclosing double quotes and then of single quotes.
  bool equalsUnquoted(const char *cstr) const;

  // Search; every result is an index or npos.
  size_type find(char ch, size_type pos = 0) const;
  size_type find(const StrSegment &needle, size_type pos = 0) const;
  size_type find_first_of(const StrSegment &chars, size_type pos = 0) const;
  // The first byte whose membership equals want, so also the set form of find_first_not_of.
  size_type find_first_of(const ByteSet &set, size_type pos = 0, bool want = true) const;
  size_type find_first_not_of(char ch, size_type pos = 0) const;
  size_type find_first_not_of(const StrSegment &chars, size_type pos = 0) const;
  size_type rfind(char ch, size_type pos = npos) const;
  size_type rfind(const StrSegment &needle, size_type pos = npos) const;
  size_type find_last_of(const StrSegment &chars, size_type pos = npos) const;
  size_type find_last_of(const ByteSet &set, size_type pos = npos, bool want = true) const;
  size_type find_last_not_of(char ch, size_type pos = npos) const;
  size_type find_last_not_of(const StrSegment &chars, size_type pos = npos) const;
  // The first CR or LF at or after pos.
  size_type findLineEnd(size_type pos = 0) const;

  // Counting over the range clipped to the segment.
  size_type count(char ch, size_type pos = 0, size_type n = npos) const;
  size_type count(const ByteSet &set, size_type pos = 0, size_type n = npos) const;
  // One more than the number of LF bytes.
  size_type lineCount() const;
  // Asks the platform's character table; meant only for quoting decisions in debug output.
  bool containsWhitespace() const;
  bool hasHighByte() const;

  // Views.
  void pop_back();
  void trimInPlace(const ByteSet &set = BYTESET_WHITESPACE, bool trimLeft = true,
                   bool trimRight = true);
  StrSegment trimmed(const ByteSet &set = BYTESET_WHITESPACE, bool trimLeft = true,
                     bool trimRight = true) const;
  void stripQuotes(char ch = '"');
  // Copies the bytes from pos on and returns max(remaining, n). Every remaining byte is copied
  // whatever n says, so dst must hold at least the remaining bytes; kept for its old callers.
  size_type copyOut(char *dst, size_type n, size_type pos = 0) const;

  // Tokenizers. Each hands tokens, as views into this segment, to an acceptor, or appends them
  // to a vector of views or to a StrVector. A limit of n yields at most n + 1 tokens.
  void split(StrSegmentTokenAcceptor &out, char sep, uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(std::vector<StrSegment> &out, char sep, uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(StrVector &out, char sep, uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(StrSegmentTokenAcceptor &out, const ByteSet &sep,
             uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(std::vector<StrSegment> &out, const ByteSet &sep,
             uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(StrVector &out, const ByteSet &sep, uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(StrSegmentTokenAcceptor &out, const StrSegment &sep,
             uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(std::vector<StrSegment> &out, const StrSegment &sep,
             uint32_t limit = SPLIT_NO_LIMIT) const;
  void split(StrVector &out, const StrSegment &sep, uint32_t limit = SPLIT_NO_LIMIT) const;

  void splitSkippingEmpty(StrSegmentTokenAcceptor &out, char sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(std::vector<StrSegment> &out, char sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(StrVector &out, char sep, uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(StrSegmentTokenAcceptor &out, const ByteSet &sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(std::vector<StrSegment> &out, const ByteSet &sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(StrVector &out, const ByteSet &sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(StrSegmentTokenAcceptor &out, const StrSegment &sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(std::vector<StrSegment> &out, const StrSegment &sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;
  void splitSkippingEmpty(StrVector &out, const StrSegment &sep,
                          uint32_t limit = SPLIT_NO_LIMIT) const;

  // Lines end at LF, less one CR before it; a last line without LF keeps its CR.
  void splitLines(StrSegmentTokenAcceptor &out) const;
  void splitLines(std::vector<StrSegment> &out) const;
  void splitLines(StrVector &out) const;

  const char *_data;
  size_type _len;
};

// Lines that span input buffers: appends to line up to the next LF of input and advances input
// past it (true), or takes all of input (false). The caller empties line between lines.
bool accumulateLine(StrSegment &input, Str &line);

// Cuts the longest all-digit or all-non-digit prefix of a non-empty input into chunk. Returns
// npos for a non-digit chunk, else the count of its leading '0' bytes.
size_t getNextChunk(StrSegment &input, StrSegment &chunk);

// Orders text with embedded numbers by their value: "file9" < "file10", "a007" == "a7".
int compareNaturally(StrSegment a, StrSegment b, bool caseless = false);

class Str : public std::string {
 public:
  using std::string::string;
  Str() = default;
  Str(const std::string &s) : std::string(s) {}
  Str(std::string &&s) : std::string(std::move(s)) {}
  Str(StrSegment seg) : std::string(seg._data, seg._len) {}
  // Concatenations, allocated once.
  Str(StrSegment a, StrSegment b);
  Str(const char *a, StrSegment b) : Str(StrSegment(a), b) {}
  Str(StrSegment a, const char *b) : Str(a, StrSegment(b)) {}
  Str(const Str &) = default;
  Str(Str &&) = default;
  Str &operator=(const Str &) = default;
  Str &operator=(Str &&) = default;
  using std::string::operator=;

  // The shared immutable constants, built at start-up.
  static const Str &emptyStr();
  static const Str &trueStr();
  static const Str &falseStr();

  StrSegment segment() const { return StrSegment(data(), size()); }

  // The read-only operations are StrSegment's; these replace std::string's, whose edge
  // behaviour differs (an empty needle, for one).
#define MORVEK_STR_FORWARD(name)                        \
  template <typename... Args>                           \
  auto name(Args &&...args) const {                     \
    return segment().name(std::forward<Args>(args)...); \
  }
  MORVEK_STR_FORWARD(compare)
  MORVEK_STR_FORWARD(equals)
  MORVEK_STR_FORWARD(startsWith)
  MORVEK_STR_FORWARD(endsWith)
  MORVEK_STR_FORWARD(startsWithByteIn)
  MORVEK_STR_FORWARD(endsWithByteIn)
  MORVEK_STR_FORWARD(equalsUnquoted)
  MORVEK_STR_FORWARD(find)
  MORVEK_STR_FORWARD(find_first_of)
  MORVEK_STR_FORWARD(find_first_not_of)
  MORVEK_STR_FORWARD(rfind)
  MORVEK_STR_FORWARD(find_last_of)
  MORVEK_STR_FORWARD(find_last_not_of)
  MORVEK_STR_FORWARD(findLineEnd)
  MORVEK_STR_FORWARD(count)
  MORVEK_STR_FORWARD(lineCount)
  MORVEK_STR_FORWARD(containsWhitespace)
  MORVEK_STR_FORWARD(hasHighByte)
  MORVEK_STR_FORWARD(copyOut)
  MORVEK_STR_FORWARD(split)
  MORVEK_STR_FORWARD(splitSkippingEmpty)
  MORVEK_STR_FORWARD(splitLines)
#undef MORVEK_STR_FORWARD

  void pop_back();
  void trimInPlace(const ByteSet &set = BYTESET_WHITESPACE, bool trimLeft = true,
                   bool trimRight = true);
  Str trimmed(const ByteSet &set = BYTESET_WHITESPACE, bool trimLeft = true,
              bool trimRight = true) const;
  void stripQuotes(char ch = '"');
  // Removes enclosing double quotes and the backslashes that protect '\' or '"'.
  void unquoteEscapes();
  // False, leaving the Str alone, when data is null.
  bool assignFrom(const char *data, size_t len);

  // Append or prepend a Str that the caller gives up, reusing whichever buffer fits.
  Str &appendStealing(Str &&other);
  Str &prependStealing(Str &&other);

  // Each returns the number of replacements.
  size_t replaceAll(StrSegment from, StrSegment to);
  size_t replaceAll(char chFrom, char chTo);
  size_t replaceAll(const ByteSet &set, char chTo);
  using std::string::replace;

  // A copy in which every byte of the set is preceded by ch.
  Str insertBefore(const ByteSet &set, char ch) const;
  // In place from pos on: ch before every byte of the set, with a single resize.
  void insertAt(const ByteSet &set, char ch, size_t pos = 0);

  // Formats into a new Str: Str s(Str::FORMAT, "%d items", n).
  struct FormatTag {};
  static constexpr FormatTag FORMAT{};
  Str(FormatTag, const char *format, ...) __attribute__((format(printf, 3, 4)));

  // Printf-style formatting; printf replaces the contents, appendf appends.
  Str &printf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  Str &appendf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  Str &vprintf(const char *format, va_list ap) __attribute__((format(printf, 2, 0)));
  Str &vappendf(const char *format, va_list ap) __attribute__((format(printf, 2, 0)));

  // Leaves out every byte below 0x20.
  Str &appendWithoutControls(const char *data, size_t len);
  Str &appendWithoutControls(const char *cstr) {
    return appendWithoutControls(cstr, cstr ? strlen(cstr) : 0);
  }

  void toUpperInPlace();
  void toLowerInPlace();
  Str toUpper() const;
  Str toLower() const;

  // A malloc'ed NUL-terminated copy, or null; the caller frees it.
  char *duplicateForC() const;
  // The same from new[], which never returns null; the caller delete[]s it.
  char *duplicateForArray() const;

  // Removes every occurrence of byte c.
  Str &removeAll(char c);
};

}  // namespace morvek
