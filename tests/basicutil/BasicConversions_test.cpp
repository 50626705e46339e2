#include "basicutil/BasicConversions.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

// The digit count comes from the bit length; the places it can go wrong are the powers of ten
// and of two, so every one of them is checked on both sides.
TEST(DecimalWriters, DigitCountsAtEveryBoundary) {
  std::vector<uint64_t> values = {0, UINT64_MAX, UINT32_MAX, uint64_t(UINT32_MAX) + 1};
  for (uint64_t p = 1; p <= UINT64_MAX / 10; p *= 10) {
    for (uint64_t v : {p - 1, p, p + 1, p * 10 - 1}) values.push_back(v);
  }
  for (int b = 0; b < 64; ++b) {
    uint64_t p = uint64_t(1) << b;
    for (uint64_t v : {p - 1, p, p + 1}) values.push_back(v);
  }
  for (uint64_t v : values) {
    std::string want = std::to_string(v);
    char buf[morvek::DECIMAL_U64_MAX_DIGITS];
    ASSERT_EQ(morvek::decimalDigitCountU64(v), want.size()) << v;
    ASSERT_EQ(std::string(buf, morvek::writeDecimalU64(buf, v)), want);
    if (v <= UINT32_MAX) {
      auto v32 = static_cast<uint32_t>(v);
      ASSERT_EQ(morvek::decimalDigitCountU32(v32), want.size()) << v;
      ASSERT_EQ(std::string(buf, morvek::writeDecimalU32(buf, v32)), want);
    }
  }
}

TEST(DecimalWriters, SignedExtremes) {
  char buf[morvek::DECIMAL_I64_MAX_CHARS];
  for (int64_t v : {int64_t(0), int64_t(-1), int64_t(-10), INT64_MIN, INT64_MAX}) {
    ASSERT_EQ(std::string(buf, morvek::writeDecimalI64(buf, v)), std::to_string(v));
  }
  char buf32[morvek::DECIMAL_I32_MAX_CHARS];
  for (int32_t v : {0, -1, -99, INT32_MIN, INT32_MAX}) {
    ASSERT_EQ(std::string(buf32, morvek::writeDecimalI32(buf32, v)), std::to_string(v));
  }
}

}  // namespace
