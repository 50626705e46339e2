#include "libzero/fatal-assert.h"

#include <sys/uio.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<zero_assert_observer_func> assert_observer{nullptr};

size_t format_line_number(char *buf, int line) {
  char tmp[16];
  size_t n = 0;
  unsigned v = line < 0 ? 0u : static_cast<unsigned>(line);
  do {
    tmp[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  for (size_t i = 0; i < n; ++i) buf[i] = tmp[n - 1 - i];
  return n;
}

}  // namespace

extern "C" void zero_assert_set_observer(zero_assert_observer_func observer) {
  assert_observer.store(observer);
}

extern "C" void zero_assert_fail(const char *expr, const char *func, const char *file, int line) {
  if (zero_assert_observer_func obs = assert_observer.load()) obs(expr, func, file, line);
  char num[16];
  size_t numlen = format_line_number(num, line);
  const char *parts[] = {
      "Assertion failed: (", expr, "), function ", func, ", file ", file, ", line "};
  struct iovec iov[9];
  int n = 0;
  for (const char *p : parts) iov[n++] = {const_cast<char *>(p), strlen(p)};
  iov[n++] = {num, numlen};
  iov[n++] = {const_cast<char *>(".\n"), 2};
  ssize_t ignored = writev(2, iov, n);
  (void)ignored;
  abort();
}
