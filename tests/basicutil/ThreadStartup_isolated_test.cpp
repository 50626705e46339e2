// What a process sees before its MainThread exists, and the thread start hooks. Each case runs
// in a fresh child so that the process-wide start-up state is its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "basicutil/Thread.h"

using morvek::EmptyMainThread;
using morvek::Thread;
using morvek::ThreadFunction;

namespace {

TEST(ThreadStartup, ThreadBeforeMainThreadIsRefused) {
  EXPECT_EQ(Thread::threadsActive(), 1u);
  EXPECT_STREQ(Thread::getCurrentThreadNameCStr(), "MainThread");
  EXPECT_DEATH({ ThreadFunction t([] {}, "early"); }, "main_thread_created");
}

std::vector<std::string> *hook_log;

struct Tracked : Thread::PerThreadObject {
  std::string tag;
  explicit Tracked(std::string t) : tag(std::move(t)) {}
  ~Tracked() override {
    hook_log->push_back("destroy " + tag + " on " + Thread::getCurrentThreadName());
  }
};

void runHooksScenario() {
  std::vector<std::string> log;
  hook_log = &log;
  Thread::addPerThreadInitializer([] {
    hook_log->push_back(std::string("A on ") + Thread::getCurrentThreadNameCStr());
    return std::make_unique<Tracked>("A");
  });
  Thread::addPerThreadInitializer([] {
    hook_log->push_back(std::string("B on ") + Thread::getCurrentThreadNameCStr());
    return std::make_unique<Tracked>("B");
  });
  {
    EmptyMainThread main_thread;
    // Added after the main thread: it still runs for it, at once.
    Thread::addPerThreadInitializer([] {
      hook_log->push_back(std::string("C on ") + Thread::getCurrentThreadNameCStr());
      return std::make_unique<Tracked>("C");
    });
    ThreadFunction t([] { hook_log->push_back("body"); }, "worker");
    t.go();
    t.join();
  }
  const std::vector<std::string> expected = {"A on MainThread",
                                             "B on MainThread",
                                             "C on MainThread",
                                             "A on worker",
                                             "B on worker",
                                             "C on worker",
                                             "body",
                                             "destroy C on worker",
                                             "destroy B on worker",
                                             "destroy A on worker",
                                             "destroy C on MainThread",
                                             "destroy B on MainThread",
                                             "destroy A on MainThread"};
  for (const std::string &l : log) fprintf(stderr, "%s\n", l.c_str());
  _exit(log == expected ? 0 : 1);
}

TEST(ThreadStartup, StartHooksRunInOrderOnEveryThread) {
  EXPECT_EXIT(runHooksScenario(), testing::ExitedWithCode(0), "");
}

TEST(ThreadStartup, TerminateExceptionLeavesObjectsForTheDestructorOnMain) {
  EXPECT_EXIT(
      {
        std::vector<std::string> log;
        hook_log = &log;
        EmptyMainThread main_thread;
        Thread::addPerThreadInitializer([] { return std::make_unique<Tracked>("T"); });
        log.clear();
        {
          ThreadFunction t([] { throw Thread::TerminateException(); }, "quitter");
          t.go();
          t.join();
          if (!log.empty()) _exit(2);
        }
        _exit(log.size() == 1 && log[0] == "destroy T on MainThread" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ThreadStartup, NotMultithreadedUntilTheFirstStart) {
  EXPECT_EXIT(
      {
        Thread::assertNotMultithreadedYet();
        EmptyMainThread main_thread;
        Thread::assertNotMultithreadedYet();
        ThreadFunction t([] {}, "first");
        Thread::assertNotMultithreadedYet();
        _exit(3);
      },
      testing::KilledBySignal(SIGABRT), "!have_already_started_threads");
}

}  // namespace
