// Text to an instant: a timestamp with microseconds and an offset, read whole (ours: raw parse
// and resolution) against strptime + timegm, cctz, abseil and Howard Hinnant's date; and a
// syslog-style stamp with no year and no zone, where the guesser supplies both.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>

#include "basicutil/TimeResolve.h"
#include "basicutil/Timezone.h"

#ifdef MORVEK_BENCH_HAVE_CCTZ
#include "cctz/time_zone.h"
#endif
#ifdef MORVEK_BENCH_HAVE_ABSL
#include "absl/time/time.h"
#endif
#ifdef MORVEK_BENCH_HAVE_DATE
// date's parser trips g++'s maybe-uninitialized analysis when inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "date/date.h"
#endif

namespace {

const char ISO[] = "2025-03-09 01:59:59.123456 -0500";
const char SYSLOG[] = "Mar  9 01:59:59";

void oursIso(benchmark::State &state) {
  const morvek::TimeFormat f("%Y-%m-%d %H:%M:%S.%6N %z");
  for (auto _ : state) {
    morvek::Timeval t;
    benchmark::DoNotOptimize(morvek::parseTime(f, ISO, t));
    benchmark::DoNotOptimize(t);
  }
}

// strptime has no fraction: the seconds, then the digits by hand, then the offset.
void strptimeIso(benchmark::State &state) {
  for (auto _ : state) {
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    const char *p = strptime(ISO, "%Y-%m-%d %H:%M:%S", &tm);
    long usec = 0;
    if (p != nullptr && *p == '.') {
      char *q;
      usec = strtol(p + 1, &q, 10);
      p = strptime(q, " %z", &tm);
    }
    const long offset = tm.tm_gmtoff;
    benchmark::DoNotOptimize(timegm(&tm) - offset);
    benchmark::DoNotOptimize(usec);
  }
}

#ifdef MORVEK_BENCH_HAVE_CCTZ
void cctzIso(benchmark::State &state) {
  const cctz::time_zone utc = cctz::utc_time_zone();
  for (auto _ : state) {
    std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds> tp;
    benchmark::DoNotOptimize(cctz::parse("%Y-%m-%d %H:%M:%E*S %z", ISO, utc, &tp));
    benchmark::DoNotOptimize(tp);
  }
}
#endif

#ifdef MORVEK_BENCH_HAVE_ABSL
void abslIso(benchmark::State &state) {
  for (auto _ : state) {
    absl::Time t;
    std::string err;
    benchmark::DoNotOptimize(absl::ParseTime("%Y-%m-%d %H:%M:%E*S %z", ISO, &t, &err));
    benchmark::DoNotOptimize(t);
  }
}
#endif

#ifdef MORVEK_BENCH_HAVE_DATE
void dateIso(benchmark::State &state) {
  for (auto _ : state) {
    std::istringstream in(ISO);
    date::sys_time<std::chrono::microseconds> tp;
    in >> date::parse("%Y-%m-%d %H:%M:%S %z", tp);
    benchmark::DoNotOptimize(tp);
  }
}
#endif

// No year, no zone: the default guesser's local zone and year guess.
void oursSyslog(benchmark::State &state) {
  const morvek::TimeFormat f("%b %e %H:%M:%S");
  morvek::getTimezone();
  for (auto _ : state) {
    morvek::Timeval t;
    benchmark::DoNotOptimize(morvek::parseTime(f, SYSLOG, t));
    benchmark::DoNotOptimize(t);
  }
}

// The usual hand-made equivalent: strptime, this year, and mktime in the local zone.
void strptimeSyslog(benchmark::State &state) {
  const time_t now = time(nullptr);
  struct tm now_tm;
  localtime_r(&now, &now_tm);
  for (auto _ : state) {
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    benchmark::DoNotOptimize(strptime(SYSLOG, "%b %e %H:%M:%S", &tm));
    tm.tm_year = now_tm.tm_year;
    tm.tm_isdst = -1;
    benchmark::DoNotOptimize(mktime(&tm));
  }
}

}  // namespace

BENCHMARK(oursIso)->Name("TimeParse/iso_offset/Ours");
BENCHMARK(strptimeIso)->Name("TimeParse/iso_offset/strptime");
#ifdef MORVEK_BENCH_HAVE_CCTZ
BENCHMARK(cctzIso)->Name("TimeParse/iso_offset/cctz");
#endif
#ifdef MORVEK_BENCH_HAVE_ABSL
BENCHMARK(abslIso)->Name("TimeParse/iso_offset/absl");
#endif
#ifdef MORVEK_BENCH_HAVE_DATE
BENCHMARK(dateIso)->Name("TimeParse/iso_offset/date");
#endif
BENCHMARK(oursSyslog)->Name("TimeParse/syslog/Ours");
BENCHMARK(strptimeSyslog)->Name("TimeParse/syslog/strptime");

BENCHMARK_MAIN();
