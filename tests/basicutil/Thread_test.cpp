#include "basicutil/Thread.h"

#include <gtest/gtest.h>

#include "testutil.h"
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <vector>

using morvek::EmptyMainThread;
using morvek::Thread;
using morvek::ThreadFunction;

namespace {

// The test binary's main made the MainThread; these run on it.

int listedThreads() {
  int n = 0;
  morvek::forEachListedThread([&](Thread &) { ++n; });
  return n;
}

TEST(ThreadLifecycle, UnstartedThreadNeverRunsAndIsNeverListed) {
  std::atomic<bool> ran{false};
  EXPECT_EQ(Thread::threadsActive(), 1u);
  {
    ThreadFunction t([&] { ran = true; }, "never");
    EXPECT_EQ(Thread::threadsActive(), 2u);
    EXPECT_EQ(listedThreads(), 0);
  }
  EXPECT_FALSE(ran);
  EXPECT_EQ(Thread::threadsActive(), 1u);
}

TEST(ThreadLifecycle, GoRunsBodyAndJoinWaits) {
  std::atomic<int> listed_while_running{-1};
  std::atomic<bool> release{false};
  std::atomic<bool> started{false};
  ThreadFunction t(
      [&] {
        started = true;
        while (!release) sched_yield();
      },
      "worker");
  t.go();
  while (!started) sched_yield();
  listed_while_running = listedThreads();
  release = true;
  t.join();
  EXPECT_EQ(listed_while_running, 1);
  EXPECT_EQ(listedThreads(), 0);
  EXPECT_EQ(Thread::threadsActive(), 2u);
}

TEST(ThreadLifecycle, JoinEvenIfUnstartedHandlesBothStates) {
  std::atomic<int> runs{0};
  ThreadFunction unstarted([&] { ++runs; }, "unstarted");
  unstarted.joinEvenIfUnstarted();
  ThreadFunction started([&] { ++runs; }, "started");
  started.go();
  started.joinEvenIfUnstarted();
  EXPECT_EQ(runs, 1);
}

TEST(ThreadLifecycle, ExcludedThreadRunsButIsNotListed) {
  std::atomic<int> seen{-1};
  std::atomic<bool> release{false}, started{false};
  ThreadFunction t(
      [&] {
        started = true;
        while (!release) sched_yield();
      },
      "excluded");
  t.excludeFromGlobalThreadList();
  t.go();
  while (!started) sched_yield();
  seen = listedThreads();
  release = true;
  t.join();
  EXPECT_EQ(seen, 0);
}

TEST(ThreadNames, BlanksAreRemovedForUsAndForTheOs) {
  std::string own_name, os_name;
  uint64_t tid = 0;
  ThreadFunction t(
      [&] {
        own_name = Thread::getCurrentThreadName();
        char buf[32] = {0};
        pthread_getname_np(pthread_self(), buf, sizeof buf);
        os_name = buf;
        tid = Thread::getCurrentThreadId();
      },
      " a b\tc ");
  EXPECT_EQ(t.getName(), "ab\tc");
  t.go();
  t.join();
  EXPECT_EQ(own_name, "ab\tc");
  EXPECT_EQ(os_name, "ab\tc");
  EXPECT_NE(tid, 0u);
  EXPECT_NE(tid, Thread::getCurrentThreadId());
}

TEST(ThreadNames, LongNamesAreCutForTheOsOnly) {
  std::string os_name;
  ThreadFunction t(
      [&] {
        char buf[32] = {0};
        pthread_getname_np(pthread_self(), buf, sizeof buf);
        os_name = buf;
      },
      "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
  t.go();
  t.join();
  EXPECT_EQ(t.getName(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
  EXPECT_EQ(os_name, "ABCDEFGHIJKLMNO");
}

TEST(ThreadNames, MainAndForeignThreads) {
  EXPECT_STREQ(Thread::getCurrentThreadNameCStr(), "MainThread");
  EXPECT_TRUE(Thread::currentIsMainThread());
  std::string foreign;
  bool foreign_is_main = true;
  pthread_t p;
  struct Ctx {
    std::string *name;
    bool *is_main;
  } ctx{&foreign, &foreign_is_main};
  pthread_create(
      &p, nullptr,
      [](void *arg) -> void * {
        Ctx *c = static_cast<Ctx *>(arg);
        *c->name = Thread::getCurrentThreadName();
        *c->is_main = Thread::currentIsMainThread();
        return nullptr;
      },
      &ctx);
  pthread_join(p, nullptr);
  EXPECT_EQ(foreign, "Unknown Thread");
  EXPECT_FALSE(foreign_is_main);
}

TEST(ThreadLifecycle, SecondMainThreadThrowsAndFirstStays) {
  try {
    EmptyMainThread second;
    FAIL() << "no exception";
  } catch (const morvek::ThreadException &e) {
    EXPECT_STREQ(e.what(), "Main Thread created twice!");
  }
  EXPECT_TRUE(Thread::currentIsMainThread());
  EXPECT_STREQ(Thread::getCurrentThreadNameCStr(), "MainThread");
  EXPECT_NE(Thread::getCurrent(), nullptr);
  EXPECT_NE(Thread::perThreadScratch(), nullptr);
  EXPECT_EQ(Thread::threadsActive(), 1u);
}

TEST(ThreadLifecycle, TerminateExceptionEndsBodyQuietly) {
  std::atomic<bool> after{false};
  ThreadFunction t(
      [&] {
        throw Thread::TerminateException("stop here");
        after = true;
      },
      "terminating");
  t.go();
  t.join();
  EXPECT_FALSE(after);
}

TEST(ThreadLifecycle, EmptyBodyRaisesBadFunctionCall) {
  EXPECT_DEATH(
      {
        ThreadFunction t(ThreadFunction::Body(), "empty");
        t.go();
        t.join();
      },
      "");
}

TEST(ThreadLifecycle, StartedThreadMustBeJoinedBeforeDestruction) {
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

TEST(ThreadSchedNames, RoundTripAndRejectOthers) {
  morvek::Str out;
  Thread::schedPolicyToName(out, SCHED_OTHER);
  Thread::schedPolicyToName(out, SCHED_FIFO);
  Thread::schedPolicyToName(out, SCHED_RR);
  Thread::schedPolicyToName(out, 12345);
  EXPECT_EQ(out, "otherfiforound_robinnone");
  int policy = -1;
  EXPECT_TRUE(Thread::schedPolicyFromName("fifo", 4, policy));
  EXPECT_EQ(policy, SCHED_FIFO);
  EXPECT_TRUE(Thread::schedPolicyFromName("round_robin", 11, policy));
  EXPECT_EQ(policy, SCHED_RR);
  EXPECT_FALSE(Thread::schedPolicyFromName("none", 4, policy));
  EXPECT_FALSE(Thread::schedPolicyFromName("FIFO", 4, policy));
  EXPECT_FALSE(Thread::schedPolicyFromName("fif", 3, policy));
  EXPECT_EQ(policy, SCHED_RR);
}

using testutil::CollectingWriter;

TEST(ThreadCrashNotation, DescribesTheThread) {
  ThreadFunction t([] {}, "noted");
  CollectingWriter w;
  morvek::CrashLogWriter writer(&w.handle);
  t.writeCrashLogNotation(writer);
  EXPECT_EQ(w.text.rfind("Thread: \"noted\", did_join=0, ready_to_run=N, main_thread=N, token=", 0),
            0u)
      << w.text;
  Thread *main_thread = Thread::getCurrent();
  CollectingWriter m;
  morvek::CrashLogWriter mwriter(&m.handle);
  main_thread->writeCrashLogNotation(mwriter);
  EXPECT_NE(m.text.find("did_join=1, ready_to_run=Y, main_thread=Y"), std::string::npos) << m.text;
  EXPECT_NE(m.text.find("\nMutexByte: "), std::string::npos) << m.text;
}

TEST(ThreadWrappers, TryLockAndScopes) {
  morvek::PthreadMutex m;
  EXPECT_TRUE(m.tryLock());
  EXPECT_FALSE(m.tryLock());
  m.unlock();
  morvek::Str dbg;
  m.appendDebugString(dbg);
  EXPECT_EQ(dbg.rfind("PthreadMutexImpl:{", 0), 0u);
  EXPECT_EQ(dbg.size(), strlen("PthreadMutexImpl:{}") + 2 * sizeof(pthread_mutex_t));
  morvek::PthreadRWLock rw;
  {
    morvek::ScopedReader unset;  // destroyed without setup: nothing to release
    morvek::ScopedReader r1, r2;
    r1.setup(rw);
    r2.setup(rw);
  }
  { morvek::ScopedWriter w(&rw); }
  EXPECT_DEATH(
      {
        morvek::ScopedReader r;
        r.setup(rw);
        r.setup(rw);
      },
      "_rwlock == nullptr");
}

TEST(ThreadWrappers, WaitRelativeTimesOutOrSeesSignal) {
  morvek::PthreadMutex m;
  morvek::PthreadCondition c;
  m.lock();
  EXPECT_FALSE(c.waitRelative(m, morvek::MonotonicTime(0, 0)));
  EXPECT_FALSE(c.waitRelative(m, morvek::MonotonicTime(0, 20000000)));
  m.unlock();
  std::atomic<bool> waiting{false};
  bool signalled = false;
  ThreadFunction waiter(
      [&] {
        m.lock();
        waiting = true;
        signalled = c.waitRelative(m, morvek::MonotonicTime(30, 0));
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

TEST(ThreadWrappers, FatalPathOfABrokenPrimitive) {
  EXPECT_DEATH(
      {
        morvek::PthreadMutex m;
        m.lock();
        m.~PthreadMutex();  // destroying a locked mutex fails with EBUSY
      },
      "Fatal thread error: pthread_mutex_destroy: Device or resource busy; 1 threads active, in "
      "MainThread");
}

TEST(ThreadWrappers, TokenSet) {
  morvek::ThreadTokenSet set;
  pthread_t self = pthread_self();
  EXPECT_FALSE(set.contains(self));
  set.add(self);
  set.add(self);
  set.remove(self);
  EXPECT_TRUE(set.contains(self));
  set.remove(self);
  EXPECT_FALSE(set.contains(self));
  set.remove(self);  // absent: no change
  morvek::Str dbg;
  set.appendDebugString(dbg);
  EXPECT_EQ(dbg, "{}");
}

}  // namespace

namespace {

TEST(ThreadWrappers, SetupFailuresThrowWithTheErrorText) {
  try {
    morvek::checkPthreadSetup(EAGAIN, "pthread_mutex_init");
    FAIL() << "no exception";
  } catch (const morvek::ThreadException &e) {
    EXPECT_STREQ(e.what(),
                 "MainThread: about to throw a ThreadException: pthread_mutex_init: Resource "
                 "temporarily unavailable; 1 threads active");
  }
  // A stack no machine can give makes pthread_create itself fail.
  try {
    ThreadFunction t([] {}, size_t(1) << 52, "huge");
    FAIL() << "no exception";
  } catch (const morvek::ThreadException &e) {
    std::string text = e.what();
    EXPECT_EQ(text.rfind("MainThread: about to throw a ThreadException: pthread_create: ", 0), 0u)
        << text;
    EXPECT_EQ(text.find("%m"), std::string::npos) << text;
    EXPECT_NE(text.find("; 2 threads active. Trying to create huge"), std::string::npos) << text;
  }
  EXPECT_EQ(Thread::threadsActive(), 1u);
}

}  // namespace
