// The printf engine against the C library's snprintf and against fmt, format by format.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "basicutil/PrintfFormat.h"

#ifdef MORVEK_BENCH_HAVE_FMT
#include <fmt/format.h>
#endif

using morvek::Str;

namespace {

const int INTS[8] = {0, 7, -42, 1234567, -987654321, 31337, 2147483647, 100};
const double DOUBLES[8] = {0.1,  3.14159265358979, -2.5e-7, 6.02214076e23, 1234.5678,
                           -0.0, 1e-300,           42.0};
const char *const WORDS[8] = {"alpha", "be", "gamma-ray", "d", "epsilon", "zeta", "eta", "th"};

// Each benchmark reuses one buffer, as the log path does. A case is timed as Printf/<case>/<impl>.
#define OURS(name, format, ...)               \
  void Ours_##name(benchmark::State &state) { \
    Str s;                                    \
    s.reserve(512);                           \
    unsigned i = 0;                           \
    for (auto _ : state) {                    \
      s.clear();                              \
      s.appendf(format, __VA_ARGS__);         \
      benchmark::DoNotOptimize(s.data());     \
      ++i;                                    \
    }                                         \
  }                                           \
  BENCHMARK(Ours_##name)->Name("Printf/" #name "/Ours")

#define SNPRINTF(name, format, ...)                           \
  void snprintf_##name(benchmark::State &state) {             \
    char buf[512];                                            \
    unsigned i = 0;                                           \
    for (auto _ : state) {                                    \
      int n = snprintf(buf, sizeof buf, format, __VA_ARGS__); \
      benchmark::DoNotOptimize(n);                            \
      benchmark::DoNotOptimize(buf);                          \
      ++i;                                                    \
    }                                                         \
  }                                                           \
  BENCHMARK(snprintf_##name)->Name("Printf/" #name "/snprintf")

#ifdef MORVEK_BENCH_HAVE_FMT
#define FMT(name, format, ...)                              \
  void fmt_##name(benchmark::State &state) {                \
    char buf[512];                                          \
    unsigned i = 0;                                         \
    for (auto _ : state) {                                  \
      char *end = fmt::format_to(buf, format, __VA_ARGS__); \
      benchmark::DoNotOptimize(end);                        \
      benchmark::DoNotOptimize(buf);                        \
      ++i;                                                  \
    }                                                       \
  }                                                         \
  BENCHMARK(fmt_##name)->Name("Printf/" #name "/fmt")
#else
#define FMT(name, format, ...)
#endif

#define INT_ARG INTS[i & 7]
#define DBL_ARG DOUBLES[i & 7]
#define WORD_ARG WORDS[i & 7]

OURS(d, "%d", INT_ARG);
SNPRINTF(d, "%d", INT_ARG);
FMT(d, "{}", INT_ARG);

OURS(str_u, "%5.2s|%-8u", WORD_ARG, (unsigned)INT_ARG);
SNPRINTF(str_u, "%5.2s|%-8u", WORD_ARG, (unsigned)INT_ARG);
FMT(str_u, "{:>5.2}|{:<8}", WORD_ARG, (unsigned)INT_ARG);

// The C library does not group in the C locale; it is timed on the same format regardless.
OURS(grouped_lld, "%'lld", (long long)INT_ARG * 1000003);
SNPRINTF(grouped_lld, "%'lld", (long long)INT_ARG * 1000003);
FMT(grouped_lld, "{:L}", (long long)INT_ARG * 1000003);

OURS(08x, "%08x", (unsigned)INT_ARG);
SNPRINTF(08x, "%08x", (unsigned)INT_ARG);
FMT(08x, "{:08x}", (unsigned)INT_ARG);

#define LOG_ARGS WORD_ARG, INT_ARG, WORDS[(i + 3) & 7], (unsigned)INT_ARG, DBL_ARG
OURS(logline, "%s %5d [%-10s] done: count=%u value=%.3f", LOG_ARGS);
SNPRINTF(logline, "%s %5d [%-10s] done: count=%u value=%.3f", LOG_ARGS);
FMT(logline, "{} {:5} [{:<10}] done: count={} value={:.3f}", LOG_ARGS);

OURS(g, "%g", DBL_ARG);
SNPRINTF(g, "%g", DBL_ARG);
OURS(3f, "%.3f", DBL_ARG);
SNPRINTF(3f, "%.3f", DBL_ARG);
OURS(e, "%e", DBL_ARG);
SNPRINTF(e, "%e", DBL_ARG);
OURS(a, "%a", DBL_ARG);
SNPRINTF(a, "%a", DBL_ARG);

void Compiled_logline(benchmark::State &state) {
  morvek::PrintfFormat f("%s %5d [%-10s] done: count=%u value=%.3f");
  Str s;
  s.reserve(512);
  unsigned i = 0;
  for (auto _ : state) {
    s.clear();
    f.render(s, LOG_ARGS);
    benchmark::DoNotOptimize(s.data());
    ++i;
  }
}
BENCHMARK(Compiled_logline)->Name("Printf/logline_compiled/Ours");

}  // namespace

BENCHMARK_MAIN();
