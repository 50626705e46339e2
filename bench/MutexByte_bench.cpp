// MutexByte (as qmutex) against std::mutex and absl::Mutex: uncontended, and 2, 4 and 8 threads
// hammering one lock around a tiny critical section. Contended runs report throughput and the
// longest wait any thread had for the lock.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "basicutil/MutexByte.h"
#include "basicutil/Thread.h"

#ifdef MORVEK_BENCH_HAVE_ABSL
#include <absl/synchronization/mutex.h>
#endif

namespace {

struct QMutexLock {
  morvek::qmutex m;
  void lock() { m.lock(); }
  void unlock() { m.unlock(); }
};

struct StdMutexLock {
  std::mutex m;
  void lock() { m.lock(); }
  void unlock() { m.unlock(); }
};

#ifdef MORVEK_BENCH_HAVE_ABSL
struct AbslMutexLock {
  absl::Mutex m;
  void lock() { m.Lock(); }
  void unlock() { m.Unlock(); }
};
#endif

template <typename L>
void BM_Uncontended(benchmark::State &state) {
  L lock;
  long counter = 0;
  for (auto _ : state) {
    lock.lock();
    ++counter;
    lock.unlock();
  }
  benchmark::DoNotOptimize(counter);
}

constexpr int PAIRS_PER_THREAD = 20000;

// The sleeping path of MutexByte needs threads of the library's own, so the contenders are
// ThreadFunction objects rather than the benchmark library's threads.
template <typename L>
void BM_Contended(benchmark::State &state) {
  const int nthreads = static_cast<int>(state.range(0));
  int64_t longest_wait_ns = 0;
  for (auto _ : state) {
    L lock;
    long counter = 0;
    std::atomic<int> ready{0};
    std::vector<int64_t> waits(static_cast<size_t>(nthreads), 0);
    std::vector<std::unique_ptr<morvek::ThreadFunction>> threads;
    for (int t = 0; t < nthreads; ++t) {
      threads.push_back(std::make_unique<morvek::ThreadFunction>(
          [&, t] {
            ++ready;
            while (ready.load() < nthreads) {
            }
            int64_t worst = 0;
            for (int k = 0; k < PAIRS_PER_THREAD; ++k) {
              auto before = std::chrono::steady_clock::now();
              lock.lock();
              auto after = std::chrono::steady_clock::now();
              ++counter;
              lock.unlock();
              worst = std::max<int64_t>(
                  worst,
                  std::chrono::duration_cast<std::chrono::nanoseconds>(after - before).count());
            }
            waits[static_cast<size_t>(t)] = worst;
          },
          "contender"));
    }
    for (auto &t : threads) t->go();
    for (auto &t : threads) t->join();
    benchmark::DoNotOptimize(counter);
    for (int64_t w : waits) longest_wait_ns = std::max(longest_wait_ns, w);
  }
  state.SetItemsProcessed(state.iterations() * nthreads * PAIRS_PER_THREAD);
  state.counters["longest_wait_us"] = static_cast<double>(longest_wait_ns) / 1000.0;
}

}  // namespace

BENCHMARK(BM_Uncontended<QMutexLock>)->Name("Mutex/uncontended/Ours");
BENCHMARK(BM_Uncontended<StdMutexLock>)->Name("Mutex/uncontended/std_mutex");
BENCHMARK(BM_Contended<QMutexLock>)
    ->Name("Mutex/contended/Ours")
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->UseRealTime();
BENCHMARK(BM_Contended<StdMutexLock>)
    ->Name("Mutex/contended/std_mutex")
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->UseRealTime();
#ifdef MORVEK_BENCH_HAVE_ABSL
BENCHMARK(BM_Uncontended<AbslMutexLock>)->Name("Mutex/uncontended/absl");
BENCHMARK(BM_Contended<AbslMutexLock>)
    ->Name("Mutex/contended/absl")
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->UseRealTime();
#endif

int main(int argc, char **argv) {
  morvek::EmptyMainThread main_thread;
  {
    // glibc takes its locks without atomic instructions while a process has never had a second
    // thread; a real program has, so the comparison is made in that state.
    morvek::ThreadFunction once([] {}, "once");
    once.go();
    once.join();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
