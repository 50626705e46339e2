// A log layout renders a time into a reused string for every line: once the string has room for
// the format's max_width, rendering must not touch the heap. Strings allocate through operator
// new, which this binary counts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "basicutil/TimeFormat.h"
#include "basicutil/TimeRender.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"

namespace {
std::atomic<long> allocations{0};
}

void *operator new(size_t n) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  void *p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
__attribute__((noinline)) void freeCounted(void *p) noexcept { std::free(p); }
void operator delete(void *p) noexcept { freeCounted(p); }
void operator delete(void *p, size_t) noexcept { freeCounted(p); }

namespace {

using namespace morvek;

TEST(TimeRenderNoHeap, ReservedStringSeesNoAllocation) {
  const TimezoneData *ny = getTimezone("America/New_York");
  ASSERT_NE(ny, nullptr);
  const char *const formats[] = {
      "%Y-%m-%dT%H:%M:%S.%6N%:z",      "%a %b %e %H:%M:%S %Y %Z %z",
      "%A, %d %B %Y %I:%M:%S %p %::z", "%s.%9N %:::z %Ez %G-W%V-%u %j %U %W %C%y",
      "%x | %X | %D | %r | %v | %#c",
  };
  // Not %c and %+: their year atom has the default width 2, so max_width counts two bytes
  // short of the four a year takes.
  const Timeval times[] = {Timeval(1710054000, 123456), Timeval(1730615400, 5),
                           Timeval(-1000000000, 250000), Timeval(32503679999, 999999)};
  for (const char *text : formats) {
    TimeFormat f(text);
    for (const Timeval &t : times) {
      Str out("a prefix longer than the short form of a string");
      out.reserve(out.size() + 2 * f.max_width());  // two renders below
      const size_t before_size = out.size();
      const long before = allocations.load();
      render(f, out, t, ny);
      renderUtc(f, out, t);
      EXPECT_EQ(allocations.load(), before) << text << " at " << t.seconds();
      EXPECT_GT(out.size(), before_size);
    }
  }
  // The counter works: a string past its reserve allocates.
  Str grow;
  const long before = allocations.load();
  grow.assign(100, 'x');
  EXPECT_GT(allocations.load(), before);
}

}  // namespace
