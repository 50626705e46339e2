#include "basicutil/Timeval.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace morvek;

namespace {

std::string show(const Timeval &t) {
  if (t.isMax() || t.isMin()) return t.isMax() ? "MAX" : "MIN";
  return std::to_string(t.seconds()) + "," + std::to_string(t.microseconds());
}

TEST(TimevalArithmetic, SaturatesCarriesAndBorrows) {
  const Timeval hi = MAX_TIME, lo = MIN_TIME;
  const std::pair<Timeval, const char *> cases[] = {
      // clang-format off
      {Timeval(hi).addUsec(1), "MAX"}, {Timeval(hi)._add(UINT64_MAX), "MAX"},
      {Timeval(hi).addSeconds(1), "MAX"}, {Timeval(lo).subtractUsec(1), "MIN"},
      {Timeval(lo)._subtract(UINT64_MAX), "MIN"}, {Timeval(lo).subtractSeconds(UINT32_MAX), "MIN"},
      // Near the ends but not at them.
      {Timeval(INT64_MAX - 1, 0).addSeconds(1), "9223372036854775807,0"},
      {Timeval(INT64_MAX - 1, 0).addSeconds(1).addSeconds(1), "MAX"},
      {Timeval(INT64_MIN + 1, 500000).subtractUsec(1000000), "-9223372036854775808,500000"},
      {Timeval(INT64_MIN + 1, 500000).subtractUsec(1500001), "MIN"},
      {Timeval(INT64_MAX, 999998).addUsec(1), "MAX"},
      {Timeval(INT64_MIN, 0).subtractUsec(1), "MIN"},
      // Carries and borrows; seconds-only operations leave the microseconds alone.
      {Timeval(10, 999999).addUsec(1), "11,0"}, {Timeval(5, 0)._add(1500), "6,500000"},
      {Timeval(5, 0)._subtract(2600), "2,400000"}, {Timeval(0, 0).subtractUsec(1), "-1,999999"},
      {Timeval(1, 123).addSeconds(10), "11,123"}, {Timeval(11, 123).subtractSeconds(20), "-9,123"},
      // Snapping down to whole spans; a span of 0 or 1 second drops the fraction only.
      {Timeval(125, 678901).snapSeconds(2), "124,0"},
      {Timeval(125, 678901).snapSeconds(1), "125,0"},
      {Timeval(125, 678901).snapSeconds(0), "125,0"}, {Timeval(-125, 5).snapSeconds(60), "-120,0"},
      {Timeval(125, 678901).snapMillisecond(10), "125,670000"},
      {Timeval(125, 678901).snapMillisecond(1), "125,678000"},
      // From a double: the floor of negative values, saturation, NaN as the processor truncates
      // it, and a fraction too close to 1 to carry.
      {Timeval::fromDouble(-1.25), "-2,250000"}, {Timeval::fromDouble(1.25), "1,250000"},
      {Timeval::fromDouble(-3.0), "-3,0"}, {Timeval::fromDouble(9223372036854775808.0), "MAX"},
      {Timeval::fromDouble(-9223372036854775808.0), "MIN"},
      {Timeval::fromDouble(std::nan("")), "-9223372036854775808,-2147483648"},
      {Timeval::fromDouble(0.9999999999), "0,999999"},
      // clang-format on
  };
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(show(cases[i].first), cases[i].second) << i;
}

TEST(TimevalArithmetic, DifferencesComparisonsAndDoubles) {
  Timeval a(10, 500000), b(8, 750000);
  EXPECT_TRUE(usecDifference(a, b) == 1750000 && usecDifference(b, a) == -1750000);
  EXPECT_EQ(msecDifferenceRoundedUp(Timeval(0, 1001), Timeval(0, 0)), 2);
  EXPECT_EQ(msecDifferenceRoundedUp(Timeval(0, 1000), Timeval(0, 0)), 1);
  EXPECT_TRUE(secondsDifference(a, b) == 1.75 && secondsDifference(b, a) == -1.75);
  EXPECT_GT(secondsDifference(MAX_TIME, MIN_TIME), 1.8e19);
  EXPECT_DOUBLE_EQ(Timeval(-2, 750000).toDouble(), -1.25);

  EXPECT_LT(Timeval(-1, 999999), Timeval(0, 0));
  EXPECT_FALSE(Timeval(5, 2) < Timeval(5, 2));
  EXPECT_EQ(Timeval(5, 2).compare(Timeval(5, 3)), -1);
  EXPECT_EQ(Timeval(6, 0).compare(Timeval(5, 3)), 1);
}

TEST(TimevalClock, CachedNowAndTheWrappingSleep) {
  Timeval before = Timeval::now();
  Timeval::setCachedNow();
  Timeval cached = Timeval::cachedNow();
  EXPECT_TRUE(before.seconds() <= cached.seconds() && cached <= Timeval::now());
  // Stored at microsecond precision: the value comes back exactly as taken.
  EXPECT_TRUE(cached.microseconds() >= 0 && cached.microseconds() < 1000000);
  // 4294968 ms * 1000 wraps to 704 microseconds: the call returns at once.
  Timeval start = Timeval::now();
  sleepMilliseconds(4294968);
  EXPECT_LT(secondsDifference(Timeval::now(), start), 1.0);
}

}  // namespace
