#include "basicutil/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "testutil.h"

using namespace morvek;

namespace {

// The test binary's main made the MainThread; these run on it.

int listedThreads() {
  int n = 0;
  forEachListedThread([&](Thread &) { ++n; });
  return n;
}

template <class F>
void runThread(const char *name, F body) {
  ThreadFunction t(body, name);
  t.go();
  t.join();
}

template <class F>
std::string thrownText(F f) {
  try {
    f();
  } catch (const ThreadException &e) {
    return e.what();
  }
  return "no exception";
}

std::string osName() {
  char buf[32] = {0};
  pthread_getname_np(pthread_self(), buf, sizeof buf);
  return buf;
}

TEST(ThreadLifecycle, StartJoinAndTheThreadList) {
  std::atomic<int> runs{0};
  EXPECT_EQ(Thread::threadsActive(), 1u);
  {
    ThreadFunction never([&] { ++runs; }, "never");
    EXPECT_EQ(Thread::threadsActive(), 2u);
    EXPECT_EQ(listedThreads(), 0);  // listed only once it runs
  }
  EXPECT_EQ(Thread::threadsActive(), 1u);
  // A running thread is listed; once joined it is not, though it still exists.
  std::atomic<bool> release{false}, running{false};
  ThreadFunction worker(
      [&] {
        running = true;
        while (!release) sched_yield();
      },
      "worker");
  worker.go();
  while (!running) sched_yield();
  EXPECT_EQ(listedThreads(), 1);
  release = true;
  worker.join();
  EXPECT_EQ(listedThreads(), 0);
  EXPECT_EQ(Thread::threadsActive(), 2u);
  ThreadFunction unstarted([&] { ++runs; }, "unstarted"), started([&] { ++runs; }, "started");
  unstarted.joinEvenIfUnstarted();
  started.go();
  started.joinEvenIfUnstarted();
  EXPECT_EQ(runs, 1);
}

TEST(ThreadLifecycle, MisuseIsFatalOrThrows) {
  EXPECT_EQ(thrownText([] { EmptyMainThread second; }), "Main Thread created twice!");
  EXPECT_TRUE(Thread::currentIsMainThread());
  EXPECT_DEATH(runThread("empty", ThreadFunction::Body()), "");
  EXPECT_DEATH(
      {
        struct Runner : Thread {
          Runner() : Thread("runner") {}
          void main() override {}
        } r;
        r.go();
      },
      "Assertion failed: \\(!_ready_to_run.load\\(\\)\\), function ~Thread");
}

TEST(ThreadNames, BlanksGoAndTheOsGetsFifteenBytes) {
  const struct {
    const char *given, *name, *os;
  } cases[] = {{" a b\tc ", "ab\tc", "ab\tc"},
               {"ABCDEFGHIJKLMNOPQRSTUVWXYZ", "ABCDEFGHIJKLMNOPQRSTUVWXYZ", "ABCDEFGHIJKLMNO"}};
  for (const auto &c : cases) {
    std::string own, os;
    uint64_t tid = 0;
    ThreadFunction t(
        [&] {
          own = Thread::getCurrentThreadName();
          os = osName();
          tid = Thread::getCurrentThreadId();
        },
        c.given);
    EXPECT_EQ(t.getName(), c.name);
    t.go();
    t.join();
    EXPECT_EQ(own, c.name);
    EXPECT_EQ(os, c.os);
    EXPECT_TRUE(tid != 0 && tid != Thread::getCurrentThreadId());
  }
  std::string foreign;
  bool foreign_is_main = true;
  std::thread([&] {
    foreign = Thread::getCurrentThreadName();
    foreign_is_main = Thread::currentIsMainThread();
  }).join();
  EXPECT_EQ(foreign, "Unknown Thread");
  EXPECT_FALSE(foreign_is_main);
}

TEST(ThreadSchedNames, RoundTripAndRejectOthers) {
  Str out;
  for (int policy : {SCHED_OTHER, SCHED_FIFO, SCHED_RR, 12345})
    Thread::schedPolicyToName(out, policy);
  EXPECT_EQ(out, "otherfiforound_robinnone");
  const struct {
    const char *name;
    int policy;  // -1: refused, the previous value kept
  } cases[] = {{"round_robin", SCHED_RR}, {"none", -1}, {"FIFO", -1}, {"fif", -1}};
  int policy = 99;
  for (const auto &c : cases) {
    int before = policy;
    EXPECT_EQ(Thread::schedPolicyFromName(c.name, strlen(c.name), policy), c.policy >= 0) << c.name;
    EXPECT_EQ(policy, c.policy >= 0 ? c.policy : before) << c.name;
  }
}

TEST(ThreadCrashNotation, DescribesTheThread) {
  auto notation = [](Thread &t) {
    testutil::CollectingWriter w;
    CrashLogWriter writer(&w.handle);
    t.writeCrashLogNotation(writer);
    return w.text;
  };
  ThreadFunction t([] {}, "noted");
  std::string text = notation(t), main_text = notation(*Thread::getCurrent());
  EXPECT_EQ(text.rfind("Thread: \"noted\", did_join=0, ready_to_run=N, main_thread=N, token=", 0),
            0u)
      << text;
  EXPECT_NE(main_text.find("did_join=1, ready_to_run=Y, main_thread=Y"), std::string::npos)
      << main_text;
  EXPECT_NE(main_text.find("\nMutexByte: "), std::string::npos) << main_text;
}

TEST(ThreadWrappers, MutexesLocksAndTokenSets) {
  PthreadMutex m;
  Str dbg;
  m.appendDebugString(dbg);
  EXPECT_EQ(dbg.rfind("PthreadMutexImpl:{", 0), 0u);
  EXPECT_EQ(dbg.size(), strlen("PthreadMutexImpl:{}") + 2 * sizeof(pthread_mutex_t));
  PthreadRWLock rw;
  {
    ScopedReader unset;  // destroyed without setup: nothing to release
    ScopedReader r1, r2;
    r1.setup(rw);
    r2.setup(rw);
  }
  { ScopedWriter w(&rw); }  // the readers let go
  EXPECT_DEATH(
      {
        ScopedReader r;
        r.setup(rw);
        r.setup(rw);
      },
      "_rwlock == nullptr");

  // A token added twice needs removing twice; removing an absent one changes nothing.
  ThreadTokenSet set;
  pthread_t self = pthread_self();
  set.add(self);
  set.add(self);
  set.remove(self);
  EXPECT_TRUE(set.contains(self));
  set.remove(self);
  set.remove(self);
  EXPECT_FALSE(set.contains(self));
}

TEST(ThreadWrappers, WaitRelativeTimesOutOrSeesSignal) {
  PthreadMutex m;
  PthreadCondition c;
  m.lock();
  EXPECT_FALSE(c.waitRelative(m, MonotonicTime(0, 20000000)));
  m.unlock();
  std::atomic<bool> waiting{false};
  bool signalled = false;
  ThreadFunction waiter(
      [&] {
        m.lock();
        waiting = true;
        signalled = c.waitRelative(m, MonotonicTime(30, 0));
        m.unlock();
      },
      "waiter");
  waiter.go();
  while (!waiting) sched_yield();
  m.lock();  // the waiter is inside the wait once it released the mutex
  c.signal();
  m.unlock();
  waiter.join();
  EXPECT_TRUE(signalled);
}

TEST(ThreadWrappers, SetupFailuresThrowWithTheErrorText) {
  EXPECT_EQ(thrownText([] { checkPthreadSetup(EAGAIN, "pthread_mutex_init"); }),
            "MainThread: about to throw a ThreadException: pthread_mutex_init: Resource "
            "temporarily unavailable; 1 threads active");
  // A stack no machine can give makes pthread_create itself fail.
  std::string text = thrownText([] { ThreadFunction t([] {}, size_t(1) << 52, "huge"); });
  EXPECT_EQ(text.rfind("MainThread: about to throw a ThreadException: pthread_create: ", 0), 0u)
      << text;
  EXPECT_NE(text.find("; 2 threads active. Trying to create huge"), std::string::npos) << text;
  EXPECT_EQ(Thread::threadsActive(), 1u);
}

}  // namespace
