#include "basicutil/Str.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace morvek {

Str &Str::printf(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vprintf(format, ap);
  va_end(ap);
  return *this;
}

Str &Str::appendf(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vappendf(format, ap);
  va_end(ap);
  return *this;
}

Str &Str::vprintf(const char *format, va_list ap) {
  clear();
  return vappendf(format, ap);
}

Str &Str::vappendf(const char *format, va_list ap) {
  int saved_errno = errno;  // %m must see the caller's errno, and the caller keeps it
  char small[256];
  va_list ap2;
  va_copy(ap2, ap);
  int n = vsnprintf(small, sizeof small, format, ap);
  if (n > 0 && static_cast<size_t>(n) < sizeof small) {
    append(small, static_cast<size_t>(n));
  } else if (n > 0) {
    size_t old = size();
    resize(old + static_cast<size_t>(n) + 1);
    errno = saved_errno;
    vsnprintf(data() + old, static_cast<size_t>(n) + 1, format, ap2);
    resize(old + static_cast<size_t>(n));
  }
  va_end(ap2);
  errno = saved_errno;
  return *this;
}

Str &Str::removeAll(char c) {
  erase(std::remove(begin(), end(), c), end());
  return *this;
}

}  // namespace morvek
