#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "basicutil/Thread.h"
#include "basicutil/ThreadStacks.h"
#include "testutil.h"

using namespace morvek;

#ifndef __has_feature
#define __has_feature(x) 0
#endif

namespace {

#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
// ThreadSanitizer holds a signal back until a plain read(2) returns; poll it hands over at once.
constexpr bool SIGNALS_REACH_READ = false;
#else
constexpr bool SIGNALS_REACH_READ = true;
#endif

struct RecordingActor : Thread::InSignalContextActor {
  std::atomic<int> runs{0}, signo{0};
  std::atomic<uint64_t> ran_on{0};
  void act(int sig, siginfo_t *, void *) override {
    signo = sig;
    ran_on = Thread::osThreadId();
    runs.fetch_add(1);
  }
};

// Each state a target can be in when the signal comes: it runs the actor on its own thread and
// then carries on (a read is restarted, not failed). One not told to go sits in a condition wait.
TEST(ThreadActor, DeliveredWhateverTheTargetIsDoing) {
  enum Mode { IN_READ, IN_POLL, BUSY_LOOP, NOT_TOLD_TO_GO };
  for (Mode mode : {IN_READ, IN_POLL, BUSY_LOOP, NOT_TOLD_TO_GO}) {
    SCOPED_TRACE(mode);
    if (mode == IN_READ && !SIGNALS_REACH_READ) continue;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::atomic<bool> ready{false}, stop{false};
    std::atomic<ssize_t> read_result{-2};
    ThreadFunction t(
        [&] {
          char c;
          struct pollfd p = {fds[0], POLLIN, 0};
          ready = true;
          if (mode == IN_READ) read_result = read(fds[0], &c, 1);
          while (mode == IN_POLL && poll(&p, 1, -1) != 1) {  // EINTR: poll is never restarted
          }
          while (mode == BUSY_LOOP && !stop.load(std::memory_order_relaxed)) {
          }
        },
        "actor-target");
    if (mode != NOT_TOLD_TO_GO) {
      t.go();
      while (!ready.load()) sched_yield();
      usleep(2000);  // into the call
    }
    RecordingActor actor;
    EXPECT_TRUE(t.runInUnixSignalContext(&actor));
    EXPECT_EQ(actor.runs.load(), 1);
    EXPECT_EQ(actor.signo.load(), SIGUSR1);
    EXPECT_EQ(actor.ran_on.load(), t.getThreadId());
    EXPECT_EQ(write(fds[1], "x", 1), 1);
    stop = true;
    t.joinEvenIfUnstarted();
    EXPECT_EQ(read_result.load(), mode == IN_READ ? 1 : -2);
    close(fds[0]);
    close(fds[1]);
  }
}

// Actors race the end of the body: each call comes back, true exactly when the actor ran, and
// from the first refusal on nothing more is delivered, before the join or long after.
TEST(ThreadActor, ThreadThatEndsGivesFalse) {
  for (int i = 0; i < 100; ++i) {
    ThreadFunction t([] {}, "exits-now");
    t.go();
    RecordingActor actor;
    int delivered = 0;
    while (t.runInUnixSignalContext(&actor)) ++delivered;
    EXPECT_FALSE(t.runInUnixSignalContext(&actor));
    if (i == 0) usleep(20000);  // surely gone, though not joined
    EXPECT_FALSE(t.runInUnixSignalContext(&actor));
    EXPECT_EQ(actor.runs.load(), delivered);
    t.join();
  }
}

// Callers that are targets too, and the main thread among the targets: one spinning for its
// own actor must still run those aimed at it, or two aiming at each other would never finish.
// ThreadSanitizer holds a signal back until its thread makes a call the sanitizer watches, so
// this also proves that a waiting caller runs by itself what is parked on it.
TEST(ThreadActor, ManyCallersAimingAtEachOther) {
  constexpr int CALLERS = 4, ROUNDS = 300;
  std::atomic<int> ready{0}, finished{0}, attempts{0}, delivered{0};
  std::atomic<bool> release{false};
  std::vector<std::unique_ptr<ThreadFunction>> threads(CALLERS);
  RecordingActor counted;
  for (int i = 0; i < CALLERS; ++i) {
    auto body = [&, i] {
      for (ready.fetch_add(1); ready.load() < CALLERS;) sched_yield();
      for (int r = 0; r < ROUNDS; ++r) {
        Thread *target = r % 5 == 4 ? Thread::getMainThread() : threads[r % CALLERS].get();
        if (target == threads[i].get()) continue;
        ++attempts;
        if (target->runInUnixSignalContext(&counted)) ++delivered;
      }
      finished.fetch_add(1);
      // Still a target for the others; a sleep, not a spin, lets the sanitizer hand signals on.
      while (!release.load()) usleep(100);
    };
    threads[i] = std::make_unique<ThreadFunction>(body, "caller");
  }
  for (auto &t : threads) t->go();
  while (finished.load() < CALLERS) usleep(1000);
  release = true;
  for (auto &t : threads) t->join();
  EXPECT_EQ(delivered.load(), attempts.load());
  EXPECT_EQ(counted.runs.load(), delivered.load());
}

TEST(ThreadActor, AimedAtTheCallerIsFatal) {
  RecordingActor actor;
  EXPECT_DEATH(Thread::getCurrent()->runInUnixSignalContext(&actor), "!isCurrent\\(\\)");
}

// A thread with flags that tell when a walk saw it at the wrong time.
struct WatchedThread : ThreadFunction {
  WatchedThread(const char *name, const std::atomic<bool> &stop)
      : ThreadFunction(
            [&stop] {
              while (!stop.load()) sched_yield();
            },
            name) {}
  std::atomic<bool> went{false}, joined{false};
};

// Walks while another thread keeps starting and joining threads: a thread is seen at most once a
// walk, never before go and never once its join returned; a steady one is seen every time, and
// one excluded from the list or never told to go is never seen.
TEST(ThreadIteration, WalksWhileThreadsComeAndGo) {
  std::atomic<bool> stop{false}, stop_joined{false}, churn_done{false}, at_once{true};
  WatchedThread steady("walk-steady", stop), excluded("walk-excluded", stop),
      unstarted("walk-unstarted", stop), joined("walk-joined", stop_joined);
  excluded.excludeFromGlobalThreadList();
  for (Thread *t : {&steady, &excluded, &joined}) t->go();
  // Listing is done by the thread itself, after go.
  while (!Thread::getThreadObject("walk-joined") || !Thread::getThreadObject("walk-steady")) {
    sched_yield();
  }
  EXPECT_EQ(Thread::findThread([](Thread &t) { return t.getName() == "walk-joined"; }), &joined);
  stop_joined = true;
  joined.join();
  for (const char *name : {"walk-excluded", "walk-joined", "walk steady", "walk-stead"}) {
    EXPECT_EQ(Thread::getThreadObject(name), nullptr) << name;
  }
  EXPECT_THROW(Thread::findThread(nullptr), std::bad_function_call);
  ThreadFunction churner(
      [&] {
        for (int i = 0; i < 150; ++i) {
          WatchedThread t("churned", at_once);
          if (i % 3 == 0) continue;  // released without go
          t.went = true;
          t.go();
          t.join();
          t.joined = true;
        }
        churn_done = true;
      },
      "churner");
  churner.go();
  int bad = 0;
  do {
    std::set<Thread *> seen;
    Thread::iterateEachRunningWith([&](Thread &t) {
      bad += seen.insert(&t).second ? 0 : 1;
      bad += &t == &excluded || &t == &unstarted || &t == &joined ? 1 : 0;
      if (t.getName() != "churned") return;
      auto &w = static_cast<WatchedThread &>(t);
      bad += !w.went || w.joined ? 1 : 0;
    });
    EXPECT_EQ(seen.count(&steady), 1u);
  } while (!churn_done.load());
  churner.join();
  stop = true;
  steady.join();  // before the objects go: a destructor racing the body's virtual call
  excluded.join();
  EXPECT_EQ(bad, 0);
}

// Parks in read (or poll, see above) or in a busy loop. The return address into each caller is
// only on the stack of the thread inside; the work after the call keeps it from being a tail call.
__attribute__((noinline)) void parkIn(int fd, const std::atomic<bool> *stop,
                                      std::atomic<void *> &marker) {
  marker = __builtin_return_address(0);
  struct pollfd p = {fd, POLLIN, 0};
  char c;
  while (fd >= 0 && !SIGNALS_REACH_READ && poll(&p, 1, -1) != 1) {
  }
  EXPECT_TRUE(fd < 0 || read(fd, &c, 1) == 1);
  while (stop != nullptr && !stop->load(std::memory_order_relaxed)) {
  }
  asm volatile("" ::: "memory");
}

TEST(ThreadStacks, EachThreadShowsItsOwnFrames) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::atomic<void *> in_read{nullptr}, in_spin{nullptr};
  std::atomic<bool> stop{false};
  ThreadFunction reader([&] { parkIn(fds[0], nullptr, in_read), close(fds[0]); }, "stack-reader");
  ThreadFunction spinner([&] { parkIn(-1, &stop, in_spin), stop = false; }, "stack-spinner");
  reader.go();
  spinner.go();
  while (!in_read.load() || !in_spin.load()) sched_yield();
  usleep(5000);

  ThreadStacks stacks;
  EXPECT_GE(stacks.capture(), 3u);
  auto has = [&](const char *name, void *frame) {
    const ThreadStacks::Stack *s = stacks.find(name);
    return s != nullptr && s->captured && std::count(s->frames, s->frames + s->frame_count, frame);
  };
  EXPECT_TRUE(has("stack-reader", in_read) && !has("stack-reader", in_spin));
  EXPECT_TRUE(has("stack-spinner", in_spin) && !has("stack-spinner", in_read));
  EXPECT_FALSE(has("MainThread", in_read) || has("MainThread", in_spin));

  // The same text through a Str and a crash-log writer; the innermost frame is the call.
  Str text;
  stacks.appendTo(text);
  std::string crash = testutil::renderCrash<CrashLogWriter>([&](auto &w) { stacks.writeTo(w); });
  EXPECT_EQ(crash, text.segment().view());
  std::string head = "Thread \"stack-reader\" id " + std::to_string(reader.getThreadId()) + ":\n";
  size_t at = crash.find(head + "  #0 0x");
  ASSERT_NE(at, std::string::npos) << crash;
  std::string frame0 =
      crash.substr(at + head.size(), crash.find('\n', at + head.size()) - at - head.size());
  EXPECT_NE(frame0.find(SIGNALS_REACH_READ ? "read" : "poll"), std::string::npos) << frame0;
  EXPECT_NE(crash.find("Thread \"MainThread\" id " + std::to_string(Thread::getCurrentThreadId()) +
                       " (capturing):\n"),
            std::string::npos);

  stop = true;
  EXPECT_EQ(write(fds[1], "x", 1), 1);
  reader.join();
  spinner.join();
  close(fds[1]);
}

}  // namespace
