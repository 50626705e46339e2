#include "basicutil/DutyCycle.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace morvek;

namespace {

constexpr uint64_t SECOND = 1000000000ull;

std::atomic<uint64_t> fake_ns{0};

MonotonicTime fakeClock() {
  uint64_t ns = fake_ns.load();
  return MonotonicTime(static_cast<uint32_t>(ns / SECOND), static_cast<int32_t>(ns % SECOND));
}

void advance(double seconds) { fake_ns += static_cast<uint64_t>(seconds * SECOND); }

// Every case starts at 1000 s on a clock that only moves when told, with the calling thread's
// estimate fresh (as though idle for a whole window).
class DutyCycleClock : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_ns = 1000 * SECOND;
    DutyCycleEstimate::setClock(&fakeClock);
    DutyCycleEstimate::perThread().resetDutyCycle();
  }
  void TearDown() override {
    DutyCycleEstimate::setClock(nullptr);
    DutyCycleEstimate::perThread().resetDutyCycle();
  }
  static double read() {
    double out = -1;
    EXPECT_TRUE(Thread::getCurrent()->getDutyCycle(out));
    return out;
  }
};

using DutyCycle = DutyCycleClock;
// Cross-thread cases carry the threading prefix so that the ThreadSanitizer run picks them up.
using ThreadDutyCycle = DutyCycleClock;

// A busy scope after a whole window idle, then perhaps idle; read inside the busy scope when
// nothing follows it, otherwise through an idle scope at the end.
TEST_F(DutyCycle, ValuesOverTheWindow) {
  struct Case {
    const char *what;
    double busy, idle_after, expected;
  } cases[] = {
      // clang-format off
      {"busy a whole window", 15, 0, 1.0}, {"busy longer than the window", 40, 0, 1.0},
      {"busy half the window", 7.5, 0, 0.5}, {"full, then a third idle", 15, 5, 2.0 / 3},
      {"full, then idle a whole window", 15, 15, 0.0},
      // clang-format on
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    SetUp();
    double value = -1;
    {
      ScopedDutyCycleClaimThread busy(true);
      advance(c.busy);
      if (c.idle_after == 0) value = read();
    }
    if (value < 0) {
      ScopedDutyCycleClaimThread idle(false);
      advance(c.idle_after);
      value = read();
    }
    EXPECT_NEAR(value, c.expected, 1e-9);
    if (c.expected == 0.0 || c.expected == 1.0) {
      EXPECT_EQ(value, c.expected);  // exactly, not nearly
    }
  }
}

TEST_F(DutyCycle, NestedScopesChangeNothing) {
  ScopedDutyCycleClaimThread outer(false);
  {
    ScopedDutyCycleClaimThread inner(true);
    advance(10);
    EXPECT_NEAR(inner.estimateNow(), 10.0 / 15, 1e-9);  // its own private estimate
  }
  EXPECT_EQ(read(), 0.0);  // and the outer claim still holds
}

// Read from another thread while the owner sits in a busy scope, and after it left it.
TEST_F(ThreadDutyCycle, ReadFromOutside) {
  std::atomic<int> phase{0};
  auto await = [&](int n) {
    while (phase.load() != n) sched_yield();
  };
  ThreadFunction worker(
      [&] {
        {
          ScopedDutyCycleClaimThread busy(true);
          phase = 1;
          await(2);
        }
        phase = 3;
        await(4);
      },
      "duty-worker");
  double out = -1;
  worker.go();
  await(1);
  advance(7.5);
  EXPECT_TRUE(worker.getDutyCycle(out));
  EXPECT_NEAR(out, 0.5, 1e-9);
  out = -1;
  phase = 2;
  await(3);
  EXPECT_FALSE(worker.getDutyCycle(out));
  EXPECT_EQ(out, -1);
  phase = 4;
  worker.join();
  EXPECT_FALSE(worker.getDutyCycle(out));  // no scratch once the body is over
}

}  // namespace
