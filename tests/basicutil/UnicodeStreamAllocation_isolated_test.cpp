// Numbers and doubles are rendered on the stack: a replaced global operator new counts what is
// allocated while they are written.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <new>
#include <string>

#include "basicutil/UnicodeStream.h"

static long g_allocations = 0;

void *operator new(size_t n) {
  ++g_allocations;
  if (void *p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, size_t) noexcept { std::free(p); }

namespace {

struct ArraySink : morvek::WritableUnicodeStream {
  char bytes[1024];
  size_t used = 0;
  void write_byte(int b) override { bytes[used++ % sizeof bytes] = static_cast<char>(b); }
  std::string text() const { return std::string(bytes, used); }
};

TEST(UnicodeStreamAllocation, NumbersAndDoublesAsPlainDecimalWithoutTheHeap) {
  const std::string z292(292, '0'), z323(323, '0');
  const struct {
    double value;
    std::string text;
  } cases[] = {{0.0, "0"},
               {-2.5, "-2.5"},
               {1.5e-7, "0.00000015"},
               {0.1 + 0.2, "0.30000000000000004"},
               {1.7976931348623157e308, "17976931348623157" + z292},
               {-4.9406564584124654e-324, "-0." + z323 + "5"},
               {-HUGE_VAL, "-Infinity"}};
  for (const auto &c : cases) {
    ArraySink sink;
    long before = g_allocations;
    sink.writeDouble(c.value);
    EXPECT_EQ(g_allocations, before);
    EXPECT_EQ(sink.text(), c.text);
  }
  ArraySink sink;
  long before = g_allocations;
  sink.writeNumber(-9223372036854775807LL - 1);
  sink.writeNumber(~0ULL);
  sink.writeNumber(short{-7});
  EXPECT_EQ(g_allocations, before);
  EXPECT_EQ(sink.text(), "-922337203685477580818446744073709551615-7");
}

}  // namespace
