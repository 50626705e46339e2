// Parsing and rendering to the crash writer must not touch the heap: they run in a signal
// handler, possibly with the allocator's lock held. Every allocation in this binary is counted.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <new>

#include "basicutil/HexDumper.h"
#include "basicutil/PrintFloatingPoint.h"
#include "basicutil/PrintHexBytes.h"
#include "basicutil/PrintfFormat.h"

namespace {
std::atomic<long> allocations{0};
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define MORVEK_NO_MALLOC_HOOK 1
#endif
#endif
#else
#define MORVEK_NO_MALLOC_HOOK 1
#endif

#if !defined(MORVEK_NO_MALLOC_HOOK) && defined(__GLIBC__)
// The C allocator too, not only operator new: a stray strdup would show here.
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *malloc(size_t n) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(n);
}
void *calloc(size_t n, size_t m) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, m);
}
void *realloc(void *p, size_t n) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, n);
}
}
#endif

void *operator new(size_t n) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  void *p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
// Out of line, so that the compiler doesn't pair the replaced new with free and complain.
__attribute__((noinline)) void releaseBlock(void *p) noexcept { std::free(p); }
void operator delete(void *p) noexcept { releaseBlock(p); }
void operator delete(void *p, size_t) noexcept { releaseBlock(p); }

namespace {

struct CountingWriter {
  crash_log_writer handle{&CountingWriter::write};
  size_t bytes = 0;
  static void write(crash_log_writer *h, const char *, size_t len) {
    reinterpret_cast<CountingWriter *>(h)->bytes += len;
  }
};

const char *const FORMAT =
    "%s|%-20s|%.3s|%c|%5c|%d|%+'lld|%05u|%#x|%#o|%lX|%p|%p|%e|%.0f|%'.3f|%g|%#G|%a|%.2A|%f|%m|"
    "%.5m|%*.*d|%hhd|%I64d|%wsXd|%y|%Lf|%%|%-5%|%300d|%.1200f|trailing%";

void renderEverything(crash_log_writer *w, ...) {
  va_list ap;
  va_start(ap, w);
  morvek::vprintfToCrashLog(w, FORMAT, ap, ENOENT);
  va_end(ap);
}

TEST(PrintfNoHeap, CounterSeesAllocations) {
  long before = allocations.load();
  morvek::Str s(morvek::Str::FORMAT, "%s and more text than fits in the short form", "x");
  EXPECT_GT(allocations.load(), before);
#if !defined(MORVEK_NO_MALLOC_HOOK) && defined(__GLIBC__)
  before = allocations.load();
  void *volatile p = malloc(16);
  free(p);
  EXPECT_EQ(allocations.load(), before + 1);
#endif
}

TEST(PrintfNoHeap, CrashSinkRenderingAllocatesNothing) {
  CountingWriter w;
  long before = allocations.load();
  renderEverything(&w.handle, "str", "left", "abcdef", 'c', 'd', -42, 1234567890123LL, 7u, 255u, 8u,
                   0xabcdefULL, (void *)0x1234, (void *)nullptr, 1.5e-7, 2.5, 1234567.891, 1e-5,
                   3.0, 0.1, -1.0 / 3, NAN, 5, 2, 9, 300, 1LL << 40, 5LL, 1, 1.0);
  morvek::printfToCrashLog(&w.handle, "%e|%g|%f", INFINITY, -0.0, 1e300);
  morvek::hexDumpToCrashLog(&w.handle, FORMAT, 100);
  morvek::crashlogWriteHexBytes(&w.handle, FORMAT, 40);
  morvek::crashlog_write(&w.handle, morvek::DoubleWithSignificantFigures(3.14159, 3, 2));
  morvek::crashlog_write(&w.handle, morvek::DoubleToStringShortest(6.02e23));
  EXPECT_EQ(allocations.load(), before);
  EXPECT_GT(w.bytes, 1500u);
}

}  // namespace
