// The clock reads the spine depends on, against the standard library's.
#include <benchmark/benchmark.h>

#include <chrono>

#include "basicutil/Timeval.h"

static void BM_TimevalNow(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(morvek::Timeval::now());
}
BENCHMARK(BM_TimevalNow)->Name("Clock/realtime_now/Ours");

static void BM_SystemClockNow(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::chrono::system_clock::now());
}
BENCHMARK(BM_SystemClockNow)->Name("Clock/realtime_now/system_clock");

static void BM_TimevalCachedNow(benchmark::State &state) {
  morvek::Timeval::setCachedNow();
  for (auto _ : state) benchmark::DoNotOptimize(morvek::Timeval::cachedNow());
}
BENCHMARK(BM_TimevalCachedNow)->Name("Clock/cached_now/Ours");

static void BM_TimevalAddUsec(benchmark::State &state) {
  morvek::Timeval t(1700000000, 0);
  for (auto _ : state) {
    t.addUsec(1234567);
    benchmark::DoNotOptimize(t);
  }
}
BENCHMARK(BM_TimevalAddUsec)->Name("Timeval/add_usec/Ours");

BENCHMARK_MAIN();
