// Elapsed-time values: saturating arithmetic with its one kept wrap, differences in words, and
// the one-time choice of clock.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "basicutil/Logger.h"
#include "basicutil/Timeval.h"
#include "testutil.h"

using morvek::MonotonicTime;

namespace {

constexpr uint32_t MAXS = 0xFFFFFFFFu;

TEST(MonotonicTimeArithmetic, SaturatesAtBothEndsButForTheAddSecondsWrap) {
  enum Op { ADD_S, ADD_MS, ADD_NS, SUB_S, SUB_MS, SUB_NS };
  const struct {
    MonotonicTime start;
    Op op;
    uint64_t n;
    MonotonicTime expected;
  } cases[] = {
      {{5, 999999999}, ADD_MS, 1, {6, 999999}},
      {{MAXS, 999999999}, ADD_MS, 1, MonotonicTime::highest()},
      {{MAXS - 1, 999000000}, ADD_MS, 1000, {MAXS, 999000000}},
      {{MAXS - 1, 999000000}, ADD_MS, 1001, MonotonicTime::highest()},
      {{0, 0}, ADD_MS, 4294967294999ull, {MAXS - 1, 999000000}},
      {{0, 0}, ADD_MS, 4294967295000ull, MonotonicTime::highest()},
      {{1, 500000000}, ADD_NS, 2600000000ull, {4, 100000000}},
      {{0, 0}, ADD_NS, 4294967295000000000ull, MonotonicTime::highest()},
      {{0, 0}, ADD_S, 0x80000000u, MonotonicTime::highest()},
      {{0xF0000000u, 5}, ADD_S, 0x7FFFFFFFu, {0x6FFFFFFFu, 5}},  // the kept wrap
      {{10, 7}, ADD_S, 20, {30, 7}},
      {{10, 7}, SUB_S, 11, MonotonicTime::lowest()},
      {{10, 7}, SUB_S, 10, {0, 7}},
      {{3, 100000000}, SUB_MS, 200, {2, 900000000}},
      {{0, 100000000}, SUB_MS, 200, MonotonicTime::lowest()},  // a borrow from 0 seconds
      {{2, 0}, SUB_MS, 3000, MonotonicTime::lowest()},
      {{5, 5}, SUB_NS, 4294967295000000000ull, MonotonicTime::lowest()},
      {{5, 5}, SUB_NS, 1000000006ull, {3, 999999999}},
  };
  int i = 0;
  for (const auto &c : cases) {
    MonotonicTime t = c.start;
    switch (c.op) {
      case ADD_S:
        t.addSeconds(static_cast<uint32_t>(c.n));
        break;
      case ADD_MS:
        t.addMilliseconds(c.n);
        break;
      case ADD_NS:
        t.addNanoseconds(c.n);
        break;
      case SUB_S:
        t.subtractSeconds(static_cast<uint32_t>(c.n));
        break;
      case SUB_MS:
        t.subtractMilliseconds(c.n);
        break;
      case SUB_NS:
        t.subtractNanoseconds(c.n);
        break;
    }
    EXPECT_EQ(t.seconds(), c.expected.seconds()) << "case " << i;
    EXPECT_EQ(t.nanoseconds(), c.expected.nanoseconds()) << "case " << i;
    ++i;
  }
}

TEST(MonotonicTimeDifference, SignsOrderAndWords) {
  MonotonicTime a(100, 250000000), b(98, 750000000);
  EXPECT_DOUBLE_EQ(MonotonicTime::differenceInSeconds(a, b), 1.5);
  EXPECT_DOUBLE_EQ(MonotonicTime::differenceInSeconds(b, a), -1.5);
  EXPECT_EQ(MonotonicTime::differenceInMilliseconds(a, b), 1500);
  EXPECT_EQ(MonotonicTime::differenceInMilliseconds(b, a), -1500);
  EXPECT_LT(b, a);
  EXPECT_LT(MonotonicTime(1, 999999999), MonotonicTime(2, 0));

  const struct {
    MonotonicTime a, b;
    const char *unit;
    bool negative, is_integer;
    double value;
  } cases[] = {
      {{13, 0}, {10, 0}, " milliseconds", false, true, 3000},  // exactly 3.0 seconds
      {{10, 0}, {13, 500000000}, " seconds", true, false, 3.5},
      {{9010, 0}, {10, 0}, " hours", false, false, 2.5},
      {{10, 1500000}, {10, 0}, " microseconds", false, true, 1500},
      {{10, 3500001}, {10, 0}, " milliseconds", false, false, 3.500001},
      {{10, 2000}, {10, 0}, " nanoseconds", false, true, 2000},
      {{10, 5000}, {10, 1}, " microseconds", false, false, 4.999},
      {{10, 0}, {10, 0}, " nanoseconds", false, true, 0},
  };
  for (const auto &c : cases) {
    morvek::DurationDescription d = MonotonicTime::describeDifference(c.a, c.b);
    EXPECT_EQ(std::string(d.unit, d.unit_len), c.unit) << c.value;
    EXPECT_EQ(d.negative, c.negative) << c.value;
    EXPECT_EQ(d.is_integer, c.is_integer) << c.value;
    EXPECT_NEAR(d.asDouble(), c.value, 1e-9) << c.unit;
  }
  morvek::Str s;
  MonotonicTime(12, 5).appendTo(s);
  EXPECT_EQ(s, "12.000000005");
}

TEST(MonotonicTimeClock, DecisionFromTheEnvironment) {
  using D = MonotonicTime::ClockDecision;
  const struct {
    const char *env;
    bool works;
    D expected;
  } cases[] = {
      {"no", true, D::CLOCK_MONOTONIC_DISABLED},
      {"False", true, D::CLOCK_MONOTONIC_DISABLED},
      {"0", false, D::CLOCK_MONOTONIC_DISABLED},
      {"n", true, D::CLOCK_MONOTONIC_DISABLED},
      {"yes", true, D::CLOCK_MONOTONIC_IN_USE},
      {"", true, D::CLOCK_MONOTONIC_IN_USE},
      {"x", true, D::CLOCK_MONOTONIC_IN_USE},
      {nullptr, true, D::CLOCK_MONOTONIC_IN_USE},
      {"1", false, D::CLOCK_MONOTONIC_UNAVAILABLE},
      {nullptr, false, D::CLOCK_MONOTONIC_UNAVAILABLE},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(MonotonicTime::decideClock(c.env, c.works), c.expected)
        << (c.env ? c.env : "(unset)") << " works=" << c.works;
  }
}

TEST(MonotonicTimeClock, ForbiddenClockFallsBackToTheWallClockAndSaysSo) {
  // The decision is made once per process, so it is watched in a child of its own.
  EXPECT_EXIT(
      {
        setenv("MORVEK_USE_MONOTONIC_CLOCK", "no", 1);
        morvek::Logger probe("MonotonicProbe");
        MonotonicTime::logWhetherMonotonicClockIsUsed(probe);
        // The same text is left for the crash log.
        crashlog_notation_perthread_state *notes = crashlog_notation_global_list();
        testutil::CollectingWriter note;
        if (notes->last != nullptr) notes->last->ent.render(notes->last, &note.handle);
        double wall = static_cast<double>(morvek::Timeval::now().seconds());
        double mono = MonotonicTime::now().seconds();
        // Only the low 32 bits of the wall clock's seconds are kept.
        exit(note.text == "CLOCK_MONOTONIC support explicitly disabled" &&
                     MonotonicTime::clockDecision() == 2 && wall - mono < 5 &&
                     static_cast<uint32_t>(wall) - static_cast<uint32_t>(mono) < 5
                 ? 0
                 : 1);
      },
      testing::ExitedWithCode(0), "^CLOCK_MONOTONIC support explicitly disabled\n$");
}

TEST(MonotonicTimeClock, SteadyClockNeverGoesBack) {
  EXPECT_EXIT(
      {
        unsetenv("MORVEK_USE_MONOTONIC_CLOCK");
        morvek::Logger probe("MonotonicProbe");
        MonotonicTime::logWhetherMonotonicClockIsUsed(probe);
        MonotonicTime prev = MonotonicTime::now();
        for (int i = 0; i < 100000; ++i) {
          MonotonicTime t = MonotonicTime::now();
          if (t < prev) exit(1);
          prev = t;
        }
        exit(0);
      },
      testing::ExitedWithCode(0), "^using CLOCK_MONOTONIC\n$");
}

}  // namespace
