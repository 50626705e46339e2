// Compiling time formats, and reading a timestamp with a compiled format against the platform's
// strptime and abseil's ParseTime. Ours stops at the raw fields (the resolver turns them into a
// time); strptime stops at a struct tm, abseil goes on to an absolute time.
#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>

#include "basicutil/DateTime.h"
#include "basicutil/TimeFormat.h"
#include "basicutil/TimeFormatParse.h"
#ifdef MORVEK_BENCH_HAVE_ABSL_TIME
#include "absl/time/time.h"
#endif

namespace {

const char LINE[] = "2025-03-09 01:59:59 -0500";
const char FORMAT[] = "%Y-%m-%d %H:%M:%S %z";

void compileFormat(benchmark::State &state, const char *text) {
  for (auto _ : state) {
    morvek::TimeFormat f;
    benchmark::DoNotOptimize(f.set(text));
    benchmark::DoNotOptimize(f.begin());
  }
}

void parseOurs(benchmark::State &state) {
  morvek::TimeFormat f(FORMAT);
  const char *end = LINE + strlen(LINE);
  for (auto _ : state) {
    morvek::TimeFormatRawParseResult r;
    r.have = 0;
    r.conflicts = 0;
    r.subsec = 0;
    r.finest = f.finest();
    r.coarsest = f.coarsest();
    benchmark::DoNotOptimize(morvek::rawParse(f, r, LINE, end));
    benchmark::DoNotOptimize(r);
  }
}

void parseStrptime(benchmark::State &state) {
  for (auto _ : state) {
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    benchmark::DoNotOptimize(strptime(LINE, FORMAT, &tm));
    benchmark::DoNotOptimize(tm);
  }
}

#ifdef MORVEK_BENCH_HAVE_ABSL_TIME
void parseAbseil(benchmark::State &state) {
  for (auto _ : state) {
    absl::Time t;
    std::string err;
    benchmark::DoNotOptimize(absl::ParseTime(FORMAT, LINE, &t, &err));
    benchmark::DoNotOptimize(t);
  }
}
#endif

}  // namespace

BENCHMARK_CAPTURE(compileFormat, iso, "%FT%T.%Q%:z")->Name("TimeFormatCompile/Iso8601/Ours");
BENCHMARK_CAPTURE(compileFormat, log, "%Y-%m-%d %H:%M:%S,%l")->Name("TimeFormatCompile/Log/Ours");
BENCHMARK_CAPTURE(compileFormat, ctime, "%c %Z")->Name("TimeFormatCompile/Ctime/Ours");
BENCHMARK(parseOurs)->Name("TimeParse/DateTimeOffset/Ours");
BENCHMARK(parseStrptime)->Name("TimeParse/DateTimeOffset/strptime");
#ifdef MORVEK_BENCH_HAVE_ABSL_TIME
BENCHMARK(parseAbseil)->Name("TimeParse/DateTimeOffset/abseil");
#endif

BENCHMARK_MAIN();
