// What a process sees before its MainThread exists, and the thread start hooks. Each case runs
// in a fresh child so that the process-wide start-up state is its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "basicutil/Thread.h"

using morvek::EmptyMainThread;
using morvek::Thread;
using morvek::ThreadFunction;

namespace {

std::vector<std::string> hook_log;

struct Tracked : Thread::PerThreadObject {
  std::string tag;
  explicit Tracked(std::string t) : tag(std::move(t)) {}
  ~Tracked() override {
    hook_log.push_back("destroy " + tag + " on " + Thread::getCurrentThreadName());
  }
};

template <char Tag>
void addHook() {
  Thread::addPerThreadInitializer([] {
    hook_log.push_back(std::string(1, Tag) + " on " + Thread::getCurrentThreadNameCStr());
    return std::make_unique<Tracked>(std::string(1, Tag));
  });
}

TEST(ThreadStartup, ThreadBeforeMainThreadIsRefused) {
  EXPECT_EQ(Thread::threadsActive(), 1u);
  EXPECT_STREQ(Thread::getCurrentThreadNameCStr(), "MainThread");
  EXPECT_DEATH({ ThreadFunction t([] {}, "early"); }, "main_thread_created");
}

TEST(ThreadStartup, StartHooksRunInOrderOnEveryThread) {
  EXPECT_EXIT(
      {
        addHook<'A'>();
        addHook<'B'>();
        {
          EmptyMainThread main_thread;
          addHook<'C'>();  // added after the main thread: it still runs for it, at once
          ThreadFunction t([] { hook_log.push_back("body"); }, "worker");
          t.go();
          t.join();
        }
        for (const std::string &l : hook_log) fprintf(stderr, "%s\n", l.c_str());
        _exit(0);
      },
      testing::ExitedWithCode(0),
      "^A on MainThread\nB on MainThread\nC on MainThread\nA on worker\nB on worker\nC on "
      "worker\nbody\ndestroy C on worker\ndestroy B on worker\ndestroy A on worker\ndestroy C "
      "on MainThread\ndestroy B on MainThread\ndestroy A on MainThread\n$");
}

TEST(ThreadStartup, TerminateExceptionLeavesObjectsForTheDestructorOnMain) {
  EXPECT_EXIT(
      {
        EmptyMainThread main_thread;
        addHook<'T'>();
        hook_log.clear();
        {
          ThreadFunction t([] { throw Thread::TerminateException(); }, "quitter");
          t.go();
          t.join();
          if (hook_log.size() != 1) _exit(2);  // nothing destroyed yet
        }
        _exit(hook_log == std::vector<std::string>{"T on quitter", "destroy T on MainThread"} ? 0
                                                                                              : 1);
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
