// Reading the steady clock through MonotonicTime against the standard library's.
#include <benchmark/benchmark.h>

#include <chrono>

#include "basicutil/Timeval.h"

static void BM_MonotonicTimeNow(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(morvek::MonotonicTime::now());
}
BENCHMARK(BM_MonotonicTimeNow)->Name("Clock/monotonic_now/Ours");

static void BM_SteadyClockNow(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::chrono::steady_clock::now());
}
BENCHMARK(BM_SteadyClockNow)->Name("Clock/monotonic_now/steady_clock");

BENCHMARK_MAIN();
