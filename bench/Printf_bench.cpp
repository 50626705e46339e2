// The printf engine against the C library's snprintf and against fmt, format by format.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "basicutil/PrintfFormat.h"

#if __has_include(<fmt/format.h>)
#include <fmt/format.h>
#define MORVEK_HAVE_FMT 1
#endif

using morvek::Str;

namespace {

const int INTS[8] = {0, 7, -42, 1234567, -987654321, 31337, 2147483647, 100};
const double DOUBLES[8] = {0.1,  3.14159265358979, -2.5e-7, 6.02214076e23, 1234.5678,
                           -0.0, 1e-300,           42.0};
const char *const WORDS[8] = {"alpha", "be", "gamma-ray", "d", "epsilon", "zeta", "eta", "th"};

// Each benchmark reuses one buffer, as the log path does.
#define OURS(name, format, ...)           \
  void name(benchmark::State &state) {    \
    Str s;                                \
    s.reserve(512);                       \
    unsigned i = 0;                       \
    for (auto _ : state) {                \
      s.clear();                          \
      s.appendf(format, __VA_ARGS__);     \
      benchmark::DoNotOptimize(s.data()); \
      ++i;                                \
    }                                     \
  }                                       \
  BENCHMARK(name)

#define SNPRINTF(name, format, ...)                           \
  void name(benchmark::State &state) {                        \
    char buf[512];                                            \
    unsigned i = 0;                                           \
    for (auto _ : state) {                                    \
      int n = snprintf(buf, sizeof buf, format, __VA_ARGS__); \
      benchmark::DoNotOptimize(n);                            \
      benchmark::DoNotOptimize(buf);                          \
      ++i;                                                    \
    }                                                         \
  }                                                           \
  BENCHMARK(name)

#ifdef MORVEK_HAVE_FMT
#define FMT(name, format, ...)                              \
  void name(benchmark::State &state) {                      \
    char buf[512];                                          \
    unsigned i = 0;                                         \
    for (auto _ : state) {                                  \
      char *end = fmt::format_to(buf, format, __VA_ARGS__); \
      benchmark::DoNotOptimize(end);                        \
      benchmark::DoNotOptimize(buf);                        \
      ++i;                                                  \
    }                                                       \
  }                                                         \
  BENCHMARK(name)
#else
#define FMT(name, format, ...)
#endif

#define INT_ARG INTS[i & 7]
#define DBL_ARG DOUBLES[i & 7]
#define WORD_ARG WORDS[i & 7]

OURS(Ours_d, "%d", INT_ARG);
SNPRINTF(Snprintf_d, "%d", INT_ARG);
FMT(Fmt_d, "{}", INT_ARG);

OURS(Ours_str_u, "%5.2s|%-8u", WORD_ARG, (unsigned)INT_ARG);
SNPRINTF(Snprintf_str_u, "%5.2s|%-8u", WORD_ARG, (unsigned)INT_ARG);
FMT(Fmt_str_u, "{:>5.2}|{:<8}", WORD_ARG, (unsigned)INT_ARG);

// The C library does not group in the C locale; it is timed on the same format regardless.
OURS(Ours_grouped_lld, "%'lld", (long long)INT_ARG * 1000003);
SNPRINTF(Snprintf_grouped_lld, "%'lld", (long long)INT_ARG * 1000003);
FMT(Fmt_grouped_lld, "{:L}", (long long)INT_ARG * 1000003);

OURS(Ours_08x, "%08x", (unsigned)INT_ARG);
SNPRINTF(Snprintf_08x, "%08x", (unsigned)INT_ARG);
FMT(Fmt_08x, "{:08x}", (unsigned)INT_ARG);

#define LOG_ARGS WORD_ARG, INT_ARG, WORDS[(i + 3) & 7], (unsigned)INT_ARG, DBL_ARG
OURS(Ours_logline, "%s %5d [%-10s] done: count=%u value=%.3f", LOG_ARGS);
SNPRINTF(Snprintf_logline, "%s %5d [%-10s] done: count=%u value=%.3f", LOG_ARGS);
FMT(Fmt_logline, "{} {:5} [{:<10}] done: count={} value={:.3f}", LOG_ARGS);

OURS(Ours_g, "%g", DBL_ARG);
SNPRINTF(Snprintf_g, "%g", DBL_ARG);
OURS(Ours_3f, "%.3f", DBL_ARG);
SNPRINTF(Snprintf_3f, "%.3f", DBL_ARG);
OURS(Ours_e, "%e", DBL_ARG);
SNPRINTF(Snprintf_e, "%e", DBL_ARG);
OURS(Ours_a, "%a", DBL_ARG);
SNPRINTF(Snprintf_a, "%a", DBL_ARG);

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
BENCHMARK(Compiled_logline);

}  // namespace

BENCHMARK_MAIN();
