#include "basicutil/Timeval.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using morvek::MAX_TIME;
using morvek::MIN_TIME;
using morvek::Timeval;

namespace {

void expectTime(const Timeval &t, int64_t sec, int32_t usec) {
  EXPECT_EQ(t.seconds(), sec);
  EXPECT_EQ(t.microseconds(), usec);
}

TEST(TimevalArithmetic, SaturatesAtBothEnds) {
  Timeval t = MAX_TIME;
  EXPECT_TRUE(t.addUsec(1).isMax());
  EXPECT_TRUE(t._add(UINT64_MAX).isMax());
  EXPECT_TRUE(t.addSeconds(1).isMax());
  t = MIN_TIME;
  EXPECT_TRUE(t.subtractUsec(1).isMin());
  EXPECT_TRUE(t._subtract(UINT64_MAX).isMin());
  EXPECT_TRUE(t.subtractSeconds(UINT32_MAX).isMin());
  // Near the ends but not at them.
  Timeval near(INT64_MAX - 1, 0);
  expectTime(near.addSeconds(1), INT64_MAX, 0);
  EXPECT_TRUE(near.addSeconds(1).isMax());
  Timeval low(INT64_MIN + 1, 500000);
  expectTime(low.subtractUsec(1000000), INT64_MIN, 500000);
  EXPECT_TRUE(low.subtractUsec(500001).isMin());
}

TEST(TimevalArithmetic, CarriesAndBorrows) {
  Timeval t(10, 999999);
  expectTime(t.addUsec(1), 11, 0);
  Timeval top(INT64_MAX, 999999);
  EXPECT_TRUE(top.addUsec(1).isMax());
  Timeval almost(INT64_MAX, 999998);
  expectTime(almost.addUsec(1), INT64_MAX, 999999);
  Timeval m(5, 0);
  expectTime(m._add(1500), 6, 500000);
  expectTime(m._subtract(2600), 3, 900000);
  Timeval b(0, 0);
  expectTime(b.subtractUsec(1), -1, 999999);
  Timeval bottom(INT64_MIN, 0);
  EXPECT_TRUE(bottom.subtractUsec(1).isMin());
  // Seconds-only operations leave the microseconds alone.
  Timeval s(1, 123);
  expectTime(s.addSeconds(10), 11, 123);
  expectTime(s.subtractSeconds(20), -9, 123);
}

TEST(TimevalConversions, FromDoubleKeepsItsNegativeAsymmetry) {
  expectTime(Timeval::fromDouble(-1.25), -2, 250000);
  expectTime(Timeval::fromDouble(1.25), 1, 250000);
  expectTime(Timeval::fromDouble(0.0), 0, 0);
  expectTime(Timeval::fromDouble(-3.0), -3, 0);
  EXPECT_TRUE(Timeval::fromDouble(9223372036854775808.0).isMax());
  EXPECT_TRUE(Timeval::fromDouble(1e300).isMax());
  EXPECT_TRUE(Timeval::fromDouble(std::numeric_limits<double>::infinity()).isMax());
  EXPECT_TRUE(Timeval::fromDouble(-9223372036854775808.0).isMin());
  EXPECT_TRUE(Timeval::fromDouble(-std::numeric_limits<double>::infinity()).isMin());
  // NaN passes both end tests and yields what the processor's truncation gives.
  Timeval nan = Timeval::fromDouble(std::nan(""));
  expectTime(nan, INT64_MIN, INT32_MIN);
  // A fraction that rounds up to a whole second carries.
  expectTime(Timeval::fromDouble(0.9999999999), 0, 999999);
}

TEST(TimevalConversions, DifferencesAndDoubles) {
  Timeval a(10, 500000), b(8, 750000);
  EXPECT_EQ(morvek::usecDifference(a, b), 1750000);
  EXPECT_EQ(morvek::usecDifference(b, a), -1750000);
  EXPECT_EQ(morvek::msecDifferenceRoundedUp(Timeval(0, 1001), Timeval(0, 0)), 2);
  EXPECT_EQ(morvek::msecDifferenceRoundedUp(Timeval(0, 1000), Timeval(0, 0)), 1);
  EXPECT_DOUBLE_EQ(morvek::secondsDifference(a, b), 1.75);
  EXPECT_DOUBLE_EQ(morvek::secondsDifference(b, a), -1.75);
  EXPECT_GT(morvek::secondsDifference(MAX_TIME, MIN_TIME), 1.8e19);
  EXPECT_DOUBLE_EQ(Timeval(-2, 750000).toDouble(), -1.25);
  EXPECT_EQ(Timeval::secondsToUsec(1.5), 1500000u);
}

TEST(TimevalComparisons, SecondsFirstThenMicroseconds) {
  EXPECT_LT(Timeval(-1, 999999), Timeval(0, 0));
  EXPECT_LT(Timeval(5, 1), Timeval(5, 2));
  EXPECT_FALSE(Timeval(5, 2) < Timeval(5, 2));
  EXPECT_LE(Timeval(5, 2), Timeval(5, 2));
  EXPECT_EQ(Timeval(5, 2).compare(Timeval(5, 3)), -1);
  EXPECT_EQ(Timeval(6, 0).compare(Timeval(5, 3)), 1);
  EXPECT_EQ(Timeval(6, 0).compare(Timeval(6, 0)), 0);
  EXPECT_TRUE(Timeval().isMin() == false && Timeval() == morvek::ZERO_TIME);
}

TEST(TimevalSnapping, SnapsToSpans) {
  Timeval t(125, 678901);
  expectTime(Timeval(t).snapSeconds(60), 120, 0);
  expectTime(Timeval(t).snapSeconds(1), 125, 0);
  expectTime(Timeval(t).snapSeconds(0), 125, 0);
  expectTime(Timeval(-125, 5).snapSeconds(60), -120, 0);
  expectTime(Timeval(t).snapMillisecond(10), 125, 670000);
  expectTime(Timeval(t).snapMillisecond(1), 125, 678000);
}

TEST(TimevalClock, CachedNowFollowsSetCachedNow) {
  Timeval before = Timeval::now();
  Timeval::setCachedNow();
  Timeval cached = Timeval::cachedNow();
  Timeval after = Timeval::now();
  EXPECT_LE(before.seconds(), cached.seconds());
  EXPECT_LE(cached, after);
  // Stored at microsecond precision: the value comes back exactly as taken.
  EXPECT_GE(cached.microseconds(), 0);
  EXPECT_LT(cached.microseconds(), 1000000);
}

TEST(TimevalClock, SleepMillisecondsWrapsIn32Bits) {
  // 4294968 ms * 1000 wraps to 704 microseconds: the call returns at once.
  Timeval start = Timeval::now();
  morvek::sleepMilliseconds(4294968);
  EXPECT_LT(morvek::secondsDifference(Timeval::now(), start), 1.0);
}

}  // namespace
