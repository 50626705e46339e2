// The one-byte lock: direct FIFO hand-off among sleepers, bytes sharing a chain, the race of a
// sleeper with an unlock, the renderings, and mutual exclusion under load.
#include "basicutil/MutexByte.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "testutil.h"

#ifndef __has_feature
#define __has_feature(x) 0
#endif

using namespace morvek;
using testing::ElementsAre;

namespace {

template <typename F>
std::string render(F f) {
  return testutil::renderCrash<CrashLogWriter>(f);
}

using Started = std::unique_ptr<ThreadFunction>;
Started start(const char *name, ThreadFunction::Body body) {
  auto t = std::make_unique<ThreadFunction>(std::move(body), name);
  t->go();
  return t;
}

// Sleepers linked on the chain for this byte, counted under the chain's mutex.
int sleepersOn(MutexByte::Chain &chain, const MutexByte &byte) {
  chain.mutex.lock();
  int n = 0;
  for (per_thread_state *p = chain.head; p != nullptr; p = p->_u.s.nextOnChain) {
    if (p->_u.s.waitingOn == &byte) ++n;
  }
  chain.mutex.unlock();
  return n;
}

void waitForSleepers(MutexByte::Chain &chain, const MutexByte &byte, int n) {
  while (sleepersOn(chain, byte) < n) sched_yield();
}

#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer) || \
    defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
constexpr int DEADLINE_SECONDS = 60;
#else
constexpr int DEADLINE_SECONDS = 15;
#endif

// A broken lock leaves its lockers asleep for good: each case has a deadline of its own.
class MutexByteLock : public testing::Test {
  testutil::Watchdog _watchdog{DEADLINE_SECONDS,
                               testing::UnitTest::GetInstance()->current_test_info()->name()};
};

TEST_F(MutexByteLock, SleepersGetTheLockInArrivalOrder) {
  qmutex q;
  std::vector<int> order, states;  // each locker's turn and the byte it saw
  std::vector<Started> lockers;
  q.lock();
  for (int id = 1; id <= 5; ++id) {
    lockers.push_back(start("locker", [&, id] {
      q.lock();
      order.push_back(id);
      states.push_back(q._byte.state());
      q.unlock();
    }));
    waitForSleepers(q, q._byte, id);  // id sleeps before id + 1 starts
  }
  EXPECT_EQ(q._byte.state(), 3);
  q.unlock();
  for (auto &l : lockers) l->join();
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 5));
  // The byte stays contended while anybody is still asleep, and is plain locked for the last.
  EXPECT_THAT(states, ElementsAre(3, 3, 3, 3, 1));
  EXPECT_EQ(q._byte.state(), 0);
  EXPECT_EQ(render([&](morvek::CrashLogWriter &w) { q.writeDebug(w); }),
            "qmutex{unlocked, MutexByte-chain={empty}}");
}

TEST_F(MutexByteLock, TwoBytesShareOneChain) {
  MutexByte::Chain chain;
  MutexByte x, y;
  std::vector<std::string> order;
  x.lock(&chain);
  y.lock(&chain);
  std::vector<Started> threads;
  // Interleaved: x1 y1 x2 y2.
  for (const char *tag : {"x1", "y1", "x2", "y2"}) {
    MutexByte &b = tag[0] == 'x' ? x : y;
    threads.push_back(start(tag, [&b, &chain, &order, tag] {
      b.lock(&chain);
      order.push_back(tag);
      b.unlock(&chain);
    }));
    waitForSleepers(chain, b, tag[1] - '0');
  }

  // y's unlock skips the x sleepers in front; y2, the last entry, leaves tailp on x2's link, and
  // x's unlocks must then find the chain's end there.
  y.unlock(&chain);
  threads[1]->join();
  threads[3]->join();
  EXPECT_THAT(order, ElementsAre("y1", "y2"));
  EXPECT_EQ(y.state(), 0);
  EXPECT_EQ(sleepersOn(chain, x), 2);
  x.unlock(&chain);
  threads[0]->join();
  threads[2]->join();
  EXPECT_THAT(order, ElementsAre("y1", "y2", "x1", "x2"));
  EXPECT_TRUE(chain.head == nullptr && chain.tailp == &chain.head);
}

TEST_F(MutexByteLock, SleepThatLosesTheRaceUndoesItsEntry) {
  qmutex q;
  per_thread_state *me = Thread::perThreadScratch();
  // Unlocked meanwhile: the compare-and-swap from "locked" fails.
  EXPECT_FALSE(q._byte.attemptSleep(&q, MutexByte::STATE_LOCKED));
  EXPECT_EQ(q._byte.state(), 0);
  // Held but without sleepers, where the caller saw sleepers.
  ASSERT_TRUE(q.tryLock());
  EXPECT_FALSE(q._byte.attemptSleep(&q, MutexByte::STATE_LOCKED | MutexByte::STATE_HAS_SLEEPERS));
  EXPECT_EQ(q._byte.state(), MutexByte::STATE_LOCKED);
  EXPECT_TRUE(q.head == nullptr && q.tailp == &q.head && me->_u.s.waitingOn == nullptr);
  EXPECT_EQ(q._byte.shortSpin(), MutexByte::STATE_LOCKED);  // the budget runs out
  q.unlock();
  EXPECT_EQ(q._byte.shortSpin(), 0);  // free: taken at once
  EXPECT_EQ(q._byte.state(), MutexByte::STATE_LOCKED);
  q.unlock();
}

TEST_F(MutexByteLock, BounceLetsTheLongestSleeperGoFirst) {
  qmutex q;
  std::vector<std::string> order;
  q.lock();
  Started t = start("bounced-to", [&] {
    q.lock();
    order.push_back("sleeper");
    q.unlock();
  });
  waitForSleepers(q, q._byte, 1);
  q.bounceContended();  // returns once the sleeper has had its turn
  order.push_back("holder");
  EXPECT_EQ(q._byte.state(), MutexByte::STATE_LOCKED);
  q.unlock();
  t->join();
  EXPECT_THAT(order, ElementsAre("sleeper", "holder"));
}

TEST_F(MutexByteLock, StatesChainsAndSleepers) {
  const struct {
    uint8_t state;
    const char *text;
  } states[] = {{1, "LOCKED"}, {2, "BAD(0x02)!"}, {0xAB, "BAD(0xAB)!"}};
  for (const auto &s : states) {
    EXPECT_EQ(render([&](CrashLogWriter &w) { MutexByte::writeState(w, s.state); }), s.text);
  }

  // A real sleeper, and the main thread's description while it sleeps.
  qmutex q;
  q.lock();
  std::atomic<per_thread_state *> sleeper_scratch{nullptr};
  Started t = start("renderee", [&] {
    sleeper_scratch = Thread::perThreadScratch();
    q.lock();
    q.unlock();
  });
  waitForSleepers(q, q._byte, 1);
  std::string waiting = render([&](CrashLogWriter &w) {
    q.mutex.lock();
    MutexByte::writeWaiting(w, *sleeper_scratch.load());
    w.write(" ");
    q.writeDebug(w);
    q.mutex.unlock();
  });
  q.unlock();
  t->join();
  EXPECT_THAT(waiting, testing::MatchesRegex(
                           "MutexByte-waiting=\\{0x[0-9a-f]+, LOCKED\\+CONTENDED\\} "
                           "qmutex\\{LOCKED\\+CONTENDED, MutexByte-chain=\\{head=0x[0-9a-f]+, "
                           "tailp=0x[0-9a-f]+\\}\\}"));
}

TEST_F(MutexByteLock, ContentionOutsideTheThreadClassesStopsTheProcess) {
  EXPECT_DEATH(
      {
        ThreadFunction first([] {}, "first");  // contention needs a started thread
        first.go();
        first.join();
        qmutex q;
        q.lock();
        std::thread foreign([&] { q.lock(); });
        foreign.join();
      },
      "Assertion failed: \\(thr != nullptr\\)");
  EXPECT_DEATH(
      {
        qmutex q;
        q.lock();
        q.lock();  // before any thread: the only thread already holds it
      },
      "Assertion failed: \\(have_already_started_threads\\)");
  EXPECT_DEATH(
      {
        qmutex q;
        q.unlock();
      },
      "Fatal thread error: MutexByte::assertIsLockedAndHasSleepersFailed\\(\\): Success; 1 "
      "threads active, in MainThread");
}

// Contended hand-offs on a two-core machine cost a context switch each, so the count is what
// such a machine finishes well inside the watchdog's deadline, even when busy.
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
constexpr int STRESS_PAIRS = 5000;
#else
constexpr int STRESS_PAIRS = 25000;
#endif

TEST_F(MutexByteLock, EightThreadsKeepAPlainCounterExact) {
  qmutex q;
  long counter = 0;  // plain: only the lock makes the increments safe
  std::atomic<int> ready{0};
  std::vector<Started> threads;
  for (int i = 0; i < 8; ++i) {
    threads.push_back(start("stress", [&] {
      ++ready;
      while (ready < 8) sched_yield();
      for (int k = 0; k < STRESS_PAIRS; ++k) {
        q.lock();
        long v = counter;
        counter = v + 1;
        q.unlock();
      }
    }));
  }
  for (auto &t : threads) t->join();
  EXPECT_EQ(counter, 8L * STRESS_PAIRS);
  EXPECT_EQ(q._byte.state(), 0);
}

}  // namespace
