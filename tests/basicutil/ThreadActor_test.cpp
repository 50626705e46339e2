#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "basicutil/Thread.h"
#include "basicutil/ThreadStacks.h"
#include "testutil.h"

using namespace morvek;

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define UNDER_TSAN 1
#endif

namespace {

#ifdef UNDER_TSAN
// ThreadSanitizer's runtime holds a signal back until a plain read(2) returns; it hands it over
// at once only in the calls it knows to block, poll among them.
constexpr bool SIGNALS_REACH_READ = false;
#else
constexpr bool SIGNALS_REACH_READ = true;
#endif

// Records where and how often it ran; everything it does is async-signal-safe.
struct RecordingActor : Thread::InSignalContextActor {
  std::atomic<int> runs{0};
  std::atomic<uint64_t> ran_on{0};
  std::atomic<int> signo{0};
  void act(int sig, siginfo_t *, void *) override {
    signo = sig;
    ran_on.store(Thread::osThreadId());
    runs.fetch_add(1);
  }
};

void waitFor(const std::atomic<bool> &flag) {
  while (!flag.load()) sched_yield();
}

// The states a target can be in when the signal comes; each must run the actor on its own
// thread and then carry on with what it was doing.
TEST(ThreadActor, DeliveredWhateverTheTargetIsDoing) {
  enum Mode { BLOCKED_IN_READ, BLOCKED_IN_POLL, BUSY_LOOP, CONDITION_WAIT, NOT_YET_TOLD_TO_GO };
  for (Mode mode :
       {BLOCKED_IN_READ, BLOCKED_IN_POLL, BUSY_LOOP, CONDITION_WAIT, NOT_YET_TOLD_TO_GO}) {
    SCOPED_TRACE(mode);
    if (mode == BLOCKED_IN_READ && !SIGNALS_REACH_READ) continue;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::atomic<bool> ready{false}, stop{false};
    std::atomic<ssize_t> read_result{-2};
    PthreadMutex mutex;
    PthreadCondition cond;
    ThreadFunction t(
        [&] {
          if (mode == BLOCKED_IN_READ) {
            char c;
            ready = true;
            read_result = read(fds[0], &c, 1);  // restarted after the handler, never EINTR
          } else if (mode == BLOCKED_IN_POLL) {
            struct pollfd p = {fds[0], POLLIN, 0};
            ready = true;
            while (poll(&p, 1, -1) != 1) {  // poll is never restarted: EINTR comes back
            }
          } else if (mode == BUSY_LOOP) {
            ready = true;
            while (!stop.load(std::memory_order_relaxed)) {
            }
          } else {
            ScopedMutexLock lock(mutex);
            ready = true;
            while (!stop.load()) cond.wait(mutex);
          }
        },
        "actor-target");
    if (mode != NOT_YET_TOLD_TO_GO) {
      t.go();
      waitFor(ready);
      usleep(2000);  // let it get into the call
    }
    RecordingActor actor;
    EXPECT_TRUE(t.runInUnixSignalContext(&actor));
    EXPECT_EQ(actor.runs.load(), 1);
    EXPECT_EQ(actor.signo.load(), SIGUSR1);
    if (mode != NOT_YET_TOLD_TO_GO) {
      EXPECT_EQ(actor.ran_on.load(), t.getThreadId());
    }
    EXPECT_EQ(write(fds[1], "x", 1), 1);
    {
      ScopedMutexLock lock(mutex);
      stop = true;
      cond.broadcast();
    }
    if (mode == NOT_YET_TOLD_TO_GO) {
      t.joinEvenIfUnstarted();
    } else {
      t.join();
    }
    if (mode == BLOCKED_IN_READ) {
      EXPECT_EQ(read_result.load(), 1);
    }
    close(fds[0]);
    close(fds[1]);
  }
}

TEST(ThreadActor, ThreadThatEndedGivesFalse) {
  std::atomic<bool> done{false};
  ThreadFunction t([&] { done = true; }, "ends-early");
  t.go();
  waitFor(done);
  // The body may still be returning: actors run until the thread closes its door, and from the
  // first refusal on, none is delivered.
  RecordingActor actor;
  int delivered = 0;
  while (t.runInUnixSignalContext(&actor)) ++delivered;
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(t.runInUnixSignalContext(&actor));
  usleep(20000);  // now surely gone, though not joined
  EXPECT_FALSE(t.runInUnixSignalContext(&actor));
  EXPECT_EQ(actor.runs.load(), delivered);
  t.join();
}

// The actor races the end of the body: each attempt must come back, and true exactly when the
// actor ran.
TEST(ThreadActor, RaceWithAnExitingThread) {
  int ran = 0, refused = 0;
  for (int i = 0; i < 200; ++i) {
    ThreadFunction t([] {}, "exits-now");
    t.go();
    RecordingActor actor;
    bool delivered = t.runInUnixSignalContext(&actor);
    EXPECT_EQ(delivered, actor.runs.load() == 1);
    (delivered ? ran : refused) += 1;
    t.join();
  }
  EXPECT_EQ(ran + refused, 200);
}

// Callers that are themselves targets: a caller spinning for its own actor must still run the
// ones aimed at it, or two threads aiming at each other would never finish.
TEST(ThreadActor, ManyCallersAimingAtEachOther) {
  constexpr int CALLERS = 4, ROUNDS = 300;
  std::atomic<int> ready{0};
  std::atomic<bool> all_done_flag{false};
  std::atomic<int> finished{0}, delivered{0};
  std::vector<std::unique_ptr<ThreadFunction>> threads(CALLERS);
  RecordingActor counted;
  for (int i = 0; i < CALLERS; ++i) {
    threads[i] = std::make_unique<ThreadFunction>(
        [&, i] {
          ready.fetch_add(1);
          while (ready.load() < CALLERS) sched_yield();
          Thread *main_thread = Thread::getMainThread();
          for (int r = 0; r < ROUNDS; ++r) {
            Thread *target = r % 5 == 4 ? main_thread : threads[(i + 1 + r) % CALLERS].get();
            if (target == threads[i].get()) continue;
            if (target->runInUnixSignalContext(&counted)) delivered.fetch_add(1);
          }
          finished.fetch_add(1);
          while (!all_done_flag.load()) sched_yield();  // stay a valid target for the others
        },
        "caller");
  }
  for (auto &t : threads) t->go();
  while (finished.load() < CALLERS) usleep(1000);  // the main thread stays interruptible
  all_done_flag = true;
  for (auto &t : threads) t->join();
  EXPECT_GT(delivered.load(), CALLERS * ROUNDS / 2);
  EXPECT_EQ(delivered.load(), counted.runs.load());
}

TEST(ThreadActor, AimedAtTheCallerIsFatal) {
  EXPECT_DEATH(
      {
        RecordingActor actor;
        Thread::getCurrent()->runInUnixSignalContext(&actor);
      },
      "!isCurrent\\(\\)");
}

// A running thread object with flags that tell when a walk saw it at the wrong time.
struct WatchedThread : ThreadFunction {
  explicit WatchedThread(const char *name, const std::atomic<bool> &stop)
      : ThreadFunction(
            [&stop] {
              while (!stop.load()) sched_yield();
            },
            name) {}
  std::atomic<bool> went{false}, joined{false};
};

TEST(ThreadIteration, WhoIsSeen) {
  std::atomic<bool> stop{false};
  std::atomic<bool> stop_joined{false};
  WatchedThread running("walk-running", stop), excluded("walk-excluded", stop),
      unstarted("walk-unstarted", stop), joined("walk-joined", stop_joined);
  excluded.excludeFromGlobalThreadList();
  running.go();
  excluded.go();
  joined.go();
  // Listing happens on the thread itself, after go: wait for it.
  while (Thread::getThreadObject("walk-joined") == nullptr ||
         Thread::getThreadObject("walk-running") == nullptr) {
    sched_yield();
  }
  EXPECT_EQ(Thread::getThreadObject("walk-running"), &running);
  EXPECT_EQ(Thread::findThread([](Thread &t) { return t.getName() == "walk-joined"; }), &joined);
  stop_joined = true;
  joined.join();
  std::multiset<Thread *> seen;
  Thread::iterateEachRunningWith([&](Thread &t) { seen.insert(&t); });
  EXPECT_EQ(seen.count(&running), 1u);
  for (Thread *t : {static_cast<Thread *>(&excluded), static_cast<Thread *>(&unstarted),
                    static_cast<Thread *>(&joined)}) {
    EXPECT_EQ(seen.count(t), 0u) << t->getName();
  }
  EXPECT_EQ(Thread::getThreadObject("walk-excluded"), nullptr);
  EXPECT_EQ(Thread::getThreadObject("walk-joined"), nullptr);
  EXPECT_EQ(Thread::getThreadObject("walk running"), nullptr);  // a blank never matches
  EXPECT_EQ(Thread::getThreadObject("walk-runnin"), nullptr);
  EXPECT_THROW(Thread::findThread(nullptr), std::bad_function_call);
  stop = true;
  running.join();
  excluded.join();
}

// Walks while another thread keeps starting and joining threads: a thread is seen once per walk
// at most, never before go and never once its join returned; a steady thread is seen every time.
TEST(ThreadIteration, WalksWhileThreadsComeAndGo) {
  std::atomic<bool> stop_steady{false}, churn_done{false}, quick_stop{true};
  WatchedThread steady("steady", stop_steady);
  steady.go();
  while (Thread::getThreadObject("steady") == nullptr) sched_yield();
  ThreadFunction churner(
      [&] {
        for (int i = 0; i < 150; ++i) {
          WatchedThread t("churned", quick_stop);
          if (i % 3 == 0) continue;  // released without go
          t.went = true;
          t.go();
          if (i % 2 == 0) sched_yield();
          t.join();
          t.joined = true;
        }
        churn_done = true;
      },
      "churner");
  churner.go();
  int walks = 0, bad = 0, churned_seen = 0;
  while (!churn_done.load()) {
    std::set<Thread *> seen;
    int steady_seen = 0;
    Thread::iterateEachRunningWith([&](Thread &t) {
      if (!seen.insert(&t).second) ++bad;
      if (&t == &steady) ++steady_seen;
      if (t.getName() == "churned") {
        ++churned_seen;
        auto &w = static_cast<WatchedThread &>(t);
        if (!w.went.load() || w.joined.load()) ++bad;
      }
    });
    EXPECT_EQ(steady_seen, 1);
    ++walks;
  }
  churner.join();
  stop_steady = true;
  steady.join();
  EXPECT_EQ(bad, 0);
  EXPECT_GT(walks, 0);
  RecordProperty("churned_seen", churned_seen);
}

// The two frames each worker's stack must show: these return addresses are only on the stack
// of the thread that is inside the call.
__attribute__((noinline)) ssize_t readOneByte(int fd, std::atomic<void *> &marker) {
  marker = __builtin_return_address(0);
  char c;
  if (!SIGNALS_REACH_READ) {
    struct pollfd p = {fd, POLLIN, 0};
    while (poll(&p, 1, -1) != 1) {
    }
  }
  ssize_t n = read(fd, &c, 1);
  asm volatile("" ::: "memory");  // keep the call from becoming a tail call
  return n;
}

__attribute__((noinline)) void spinUntil(const std::atomic<bool> &stop,
                                         std::atomic<void *> &marker) {
  marker = __builtin_return_address(0);
  while (!stop.load(std::memory_order_relaxed)) {
  }
  asm volatile("" ::: "memory");
}

bool hasFrame(const ThreadStacks::Stack &s, void *frame) {
  for (int i = 0; i < s.frame_count; ++i) {
    if (s.frames[i] == frame) return true;
  }
  return false;
}

TEST(ThreadStacks, EachThreadShowsItsOwnFrames) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::atomic<void *> read_marker{nullptr}, spin_marker{nullptr};
  std::atomic<bool> stop{false};
  ThreadFunction reader([&] { EXPECT_EQ(readOneByte(fds[0], read_marker), 1); }, "stack-reader");
  std::atomic<bool> spun{false};
  // Work after each call keeps it from being a tail call, whose return address isn't its own.
  ThreadFunction spinner(
      [&] {
        spinUntil(stop, spin_marker);
        spun = true;
      },
      "stack-spinner");
  reader.go();
  spinner.go();
  while (read_marker.load() == nullptr || spin_marker.load() == nullptr) sched_yield();
  usleep(5000);

  ThreadStacks stacks;
  EXPECT_GE(stacks.capture(), 3u);
  const ThreadStacks::Stack *r = stacks.find("stack-reader");
  const ThreadStacks::Stack *s = stacks.find("stack-spinner");
  const ThreadStacks::Stack *me = stacks.find("MainThread");
  ASSERT_TRUE(r != nullptr && s != nullptr && me != nullptr);
  EXPECT_TRUE(r->captured && s->captured && me->capturing);
  EXPECT_EQ(r->thread_id, reader.getThreadId());
  EXPECT_TRUE(hasFrame(*r, read_marker.load()));
  EXPECT_FALSE(hasFrame(*r, spin_marker.load()));
  EXPECT_TRUE(hasFrame(*s, spin_marker.load()));
  EXPECT_FALSE(hasFrame(*s, read_marker.load()));
  EXPECT_FALSE(hasFrame(*me, read_marker.load()));

  // The same text through a Str and through a crash-log writer.
  Str text;
  stacks.appendTo(text);
  std::string crash =
      testutil::renderCrash<CrashLogWriter>([&](CrashLogWriter &w) { stacks.writeTo(w); });
  EXPECT_EQ(crash, std::string(text.data(), text.size()));
  std::string header =
      "Thread \"stack-reader\" id " + std::to_string(reader.getThreadId()) + ":\n  #0 0x";
  EXPECT_NE(crash.find(header), std::string::npos) << crash;
  EXPECT_NE(crash.find("Thread \"MainThread\" id "), std::string::npos);
  EXPECT_NE(crash.find(" (capturing):\n"), std::string::npos);
  EXPECT_NE(crash.find(SIGNALS_REACH_READ ? "read" : "poll"), std::string::npos) << crash;

  stop = true;
  EXPECT_EQ(write(fds[1], "x", 1), 1);
  reader.join();
  spinner.join();
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
