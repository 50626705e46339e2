// The cost of reaching into another thread, one actor round trip (signal sent to actor
// finished), and of marking a stretch of work with a duty-cycle claim scope.
#include <benchmark/benchmark.h>

#include <atomic>

#include "basicutil/DutyCycle.h"
#include "basicutil/Thread.h"

namespace {

using namespace morvek;

struct NopActor : Thread::InSignalContextActor {
  std::atomic<uint64_t> runs{0};
  void act(int, siginfo_t *, void *) override { runs.fetch_add(1, std::memory_order_relaxed); }
};

// The target waits on a condition, as an idle worker does: each round trip wakes it.
void BM_ActorRoundTrip(benchmark::State &state) {
  std::atomic<bool> stop{false};
  PthreadMutex mutex;
  PthreadCondition cond;
  ThreadFunction target(
      [&] {
        ScopedMutexLock lock(mutex);
        while (!stop.load()) cond.wait(mutex);
      },
      "bench-target");
  target.go();
  NopActor actor;
  for (auto _ : state) {
    if (!target.runInUnixSignalContext(&actor)) state.SkipWithError("actor not delivered");
  }
  {
    ScopedMutexLock lock(mutex);
    stop = true;
    cond.broadcast();
  }
  target.join();
  state.counters["runs"] = static_cast<double>(actor.runs.load());
}

BENCHMARK(BM_ActorRoundTrip)->Name("Actor/roundtrip/Ours")->UseRealTime();

void BM_ClaimScope(benchmark::State &state) {
  for (auto _ : state) {
    ScopedDutyCycleClaimThread busy(true);
    benchmark::DoNotOptimize(&busy);
  }
}
BENCHMARK(BM_ClaimScope)->Name("DutyCycle/claim_scope/Ours");

void BM_ClaimScopeNested(benchmark::State &state) {
  ScopedDutyCycleClaimThread outer(false);
  for (auto _ : state) {
    ScopedDutyCycleClaimThread inner(true);
    benchmark::DoNotOptimize(&inner);
  }
}
BENCHMARK(BM_ClaimScopeNested)->Name("DutyCycle/claim_scope_nested/Ours");

}  // namespace

int main(int argc, char **argv) {
  morvek::EmptyMainThread main_thread;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
