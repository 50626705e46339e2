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

// Idle, then a busy scope, then idle again; read inside the busy scope when nothing follows it,
// otherwise through an idle scope at the end.
TEST_F(DutyCycle, ValuesOverTheWindow) {
  struct Case {
    const char *what;
    double idle_before, busy, idle_after, expected;
  } cases[] = {
      // clang-format off
      {"busy a whole window", 0, 15, 0, 1.0}, {"busy longer than the window", 0, 40, 0, 1.0},
      {"busy half the window after idling", 0, 7.5, 0, 0.5}, {"busy a fifth", 3, 3, 0, 0.2},
      {"busy a moment", 100, 0.015, 0, 0.001}, {"half busy, then half idle", 0, 7.5, 7.5, 0.25},
      {"full, then a third idle", 0, 15, 5, 2.0 / 3},
      {"full, then idle a whole window", 0, 15, 15, 0.0}, {"idle a whole window", 15, 0, 0, 0.0},
      // clang-format on
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    SetUp();
    advance(c.idle_before);
    double value = -1;
    if (c.busy > 0) {
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

TEST_F(DutyCycle, ReadableOnlyWhileClaimed) {
  double out = -7;
  { ScopedDutyCycleClaimThread busy(true); }
  EXPECT_FALSE(Thread::getCurrent()->getDutyCycle(out));
  EXPECT_EQ(out, -7);
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
