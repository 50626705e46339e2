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
  using MT = MonotonicTime;
  const MT HI = MT::highest(), LO = MT::lowest();
  // Adding seconds keeps its wrap; a borrow from 0 seconds saturates.
  const std::pair<MT, MT> cases[] = {
      {MT(5, 999999999).addMilliseconds(1), {6, 999999}},
      {MT(MAXS, 999999999).addMilliseconds(1), HI},
      {MT(MAXS - 1, 999000000).addMilliseconds(1000), {MAXS, 999000000}},
      {MT(MAXS - 1, 999000000).addMilliseconds(1001), HI},
      {MT(0, 0).addMilliseconds(4294967294999ull), {MAXS - 1, 999000000}},
      {MT(0, 0).addMilliseconds(4294967295000ull), HI},
      {MT(1, 500000000).addNanoseconds(2600000000ull), {4, 100000000}},
      {MT(0, 0).addNanoseconds(4294967295000000000ull), HI},
      {MT(0, 0).addSeconds(0x80000000u), HI},
      {MT(0xF0000000u, 5).addSeconds(0x7FFFFFFFu), {0x6FFFFFFFu, 5}},
      {MT(10, 7).addSeconds(0), {10, 7}},
      {MT(10, 7).addSeconds(20), {30, 7}},
      {MT(10, 7).subtractSeconds(11), LO},
      {MT(10, 7).subtractSeconds(10), {0, 7}},
      {MT(3, 100000000).subtractMilliseconds(200), {2, 900000000}},
      {MT(0, 100000000).subtractMilliseconds(200), LO},
      {MT(2, 0).subtractMilliseconds(3000), LO},
      {MT(5, 5).subtractNanoseconds(4294967295000000000ull), LO},
      {MT(5, 5).subtractNanoseconds(1000000006ull), {3, 999999999}},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const MT &t = cases[i].first;
    EXPECT_EQ(t, cases[i].second) << "case " << i << ": " << t.seconds() << "." << t.nanoseconds();
  }
}

TEST(MonotonicTimeDifference, SignsOrderAndWords) {
  MonotonicTime a(100, 250000000), b(98, 750000000);
  EXPECT_TRUE(MonotonicTime::differenceInSeconds(a, b) == 1.5 &&
              MonotonicTime::differenceInSeconds(b, a) == -1.5);
  EXPECT_TRUE(MonotonicTime::differenceInMilliseconds(a, b) == 1500 &&
              MonotonicTime::differenceInMilliseconds(b, a) == -1500);
  EXPECT_TRUE(b < a && MonotonicTime(1, 999999999) < MonotonicTime(2, 0));

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
  };
  for (const auto &c : cases) {
    morvek::DurationDescription d = MonotonicTime::describeDifference(c.a, c.b);
    EXPECT_EQ(std::string(d.unit, d.unit_len), c.unit) << c.value;
    EXPECT_TRUE(d.negative == c.negative && d.is_integer == c.is_integer) << c.value;
    EXPECT_NEAR(d.asDouble(), c.value, 1e-9) << c.unit;
  }
  morvek::Str s;
  MonotonicTime(12, 5).appendTo(s);
  EXPECT_EQ(s, "12.000000005");
}

TEST(MonotonicTimeClock, DecisionFromTheEnvironment) {
  using D = MonotonicTime::ClockDecision;
  // A refusal holds whether the clock works or not; otherwise only a working clock is used.
  for (bool works : {true, false}) {
    for (const char *env : {"no", "False", "0", "n"})
      EXPECT_EQ(MonotonicTime::decideClock(env, works), D::CLOCK_MONOTONIC_DISABLED) << env;
    for (const char *env : {"yes", "", "x", "1", static_cast<const char *>(nullptr)}) {
      EXPECT_EQ(MonotonicTime::decideClock(env, works),
                works ? D::CLOCK_MONOTONIC_IN_USE : D::CLOCK_MONOTONIC_UNAVAILABLE)
          << (env ? env : "(unset)");
    }
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
