// Once MainThread is gone no actor is delivered: its own binary, since it ends the MainThread.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "basicutil/Thread.h"

using namespace morvek;

namespace {

struct CountingActor : Thread::InSignalContextActor {
  std::atomic<int> runs{0};
  void act(int, siginfo_t *, void *) override { runs.fetch_add(1); }
};

TEST(ThreadActorAfterMain, NothingDeliveredOnceMainThreadIsGone) {
  auto main_thread = std::make_unique<EmptyMainThread>();
  std::atomic<bool> stop{false};
  ThreadFunction worker(
      [&] {
        while (!stop.load()) sched_yield();
      },
      "outlives-main");
  worker.go();
  CountingActor actor;
  EXPECT_TRUE(worker.runInUnixSignalContext(&actor));
  EXPECT_EQ(Thread::getMainThread(), main_thread.get());
  main_thread.reset();
  EXPECT_EQ(Thread::getMainThread(), nullptr);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(worker.runInUnixSignalContext(&actor));
  EXPECT_EQ(actor.runs.load(), 1);
  stop = true;
  worker.join();
}

}  // namespace
