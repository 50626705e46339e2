// Str, the owned byte string, and StrSegment, the non-owning view the library speaks in.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace morvek {

class StrSegment {
 public:
  using size_type = size_t;
  static constexpr size_type npos = ~size_type(0);

  // Never null: an empty view points at a shared empty C string.
  StrSegment() : _data(""), _len(0) {}
  StrSegment(const char *data, size_type len) : _data(data ? data : ""), _len(data ? len : 0) {}
  StrSegment(const char *cstr) : _data(cstr ? cstr : ""), _len(cstr ? strlen(cstr) : 0) {}
  StrSegment(std::string_view sv) : StrSegment(sv.data(), sv.size()) {}

  const char *data() const { return _data; }
  size_type size() const { return _len; }
  size_type length() const { return _len; }
  bool empty() const { return _len == 0; }
  const char *begin() const { return _data; }
  const char *end() const { return _data + _len; }
  char operator[](size_type i) const { return _data[i]; }
  std::string_view view() const { return {_data, _len}; }
  bool operator==(const StrSegment &o) const { return view() == o.view(); }

  const char *_data;
  size_type _len;
};

class Str : public std::string {
 public:
  using std::string::string;
  Str() = default;
  Str(const std::string &s) : std::string(s) {}
  Str(std::string &&s) : std::string(std::move(s)) {}
  Str(StrSegment seg) : std::string(seg._data, seg._len) {}
  Str(const Str &) = default;
  Str(Str &&) = default;
  Str &operator=(const Str &) = default;
  Str &operator=(Str &&) = default;
  using std::string::operator=;

  operator StrSegment() const { return StrSegment(data(), size()); }
  StrSegment segment() const { return StrSegment(data(), size()); }

  // Formats into a new Str: Str s(Str::FORMAT, "%d items", n).
  struct FormatTag {};
  static constexpr FormatTag FORMAT{};
  Str(FormatTag, const char *format, ...) __attribute__((format(printf, 3, 4)));

  // Printf-style formatting; printf replaces the contents, appendf appends.
  Str &printf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  Str &appendf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  Str &vprintf(const char *format, va_list ap) __attribute__((format(printf, 2, 0)));
  Str &vappendf(const char *format, va_list ap) __attribute__((format(printf, 2, 0)));

  // Removes every occurrence of byte c.
  Str &removeAll(char c);
};

}  // namespace morvek
