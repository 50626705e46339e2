// The zone engine against glibc (localtime_r and mktime with TZ set), cctz and abseil: offset
// at an instant, local time to UTC, and the first load of a zone.
#include <benchmark/benchmark.h>

#if MORVEK_BENCH_HAVE_ABSL
#include <absl/time/time.h>
#endif
#if MORVEK_BENCH_HAVE_CCTZ
#include <cctz/civil_time.h>
#include <cctz/time_zone.h>
#endif

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

constexpr size_t SAMPLES = 4096;

// Random instants 1970..2037, the same for every contender.
const std::vector<int64_t> &instants() {
  static const std::vector<int64_t> v = [] {
    std::mt19937_64 rng(42);
    std::vector<int64_t> out(SAMPLES);
    for (int64_t &t : out) t = static_cast<int64_t>(rng() % 2145916800ull);
    return out;
  }();
  return v;
}

// The same instants as local wall-clock fields of a zone.
std::vector<struct tm> localFields(const TimezoneData &tz) {
  std::vector<struct tm> out;
  for (int64_t t : instants()) {
    struct tm tm;
    tz.breakDown(t, tm);
    out.push_back(tm);
  }
  return out;
}

void setTz(const char *zone) {
  setenv("TZ", zone, 1);
  tzset();
}

void offsetOurs(benchmark::State &state, const char *zone) {
  const TimezoneData *tz = getTimezone(zone);
  const std::vector<int64_t> &at = instants();
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(tz->offsetAt(at[i++ % SAMPLES]));
}

void offsetLocaltime(benchmark::State &state, const char *zone) {
  setTz(zone);
  const std::vector<int64_t> &at = instants();
  size_t i = 0;
  struct tm tm;
  for (auto _ : state) {
    const time_t t = at[i++ % SAMPLES];
    benchmark::DoNotOptimize(localtime_r(&t, &tm)->tm_gmtoff);
  }
}

#if MORVEK_BENCH_HAVE_CCTZ
void offsetCctz(benchmark::State &state, const char *zone) {
  cctz::time_zone tz;
  cctz::load_time_zone(zone, &tz);
  const std::vector<int64_t> &at = instants();
  size_t i = 0;
  for (auto _ : state) {
    const auto tp = std::chrono::time_point_cast<cctz::seconds>(
        std::chrono::system_clock::from_time_t(at[i++ % SAMPLES]));
    benchmark::DoNotOptimize(tz.lookup(tp).offset);
  }
}

#endif

#if MORVEK_BENCH_HAVE_ABSL
void offsetAbsl(benchmark::State &state, const char *zone) {
  absl::TimeZone tz;
  absl::LoadTimeZone(zone, &tz);
  const std::vector<int64_t> &at = instants();
  size_t i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(tz.At(absl::FromUnixSeconds(at[i++ % SAMPLES])).offset);
}

#endif

void toUtcOurs(benchmark::State &state, const char *zone) {
  const TimezoneData *tz = getTimezone(zone);
  std::vector<int64_t> locals;
  for (const struct tm &tm : localFields(*tz)) locals.push_back(timegmOf(tm));
  size_t i = 0;
  for (auto _ : state) {
    const TimezoneType *type = tz->offsetFromReverseSearch(locals[i++ % SAMPLES], -1);
    benchmark::DoNotOptimize(type);
  }
}

void toUtcMktime(benchmark::State &state, const char *zone) {
  const std::vector<struct tm> fields = localFields(*getTimezone(zone));
  setTz(zone);
  size_t i = 0;
  for (auto _ : state) {
    struct tm tm = fields[i++ % SAMPLES];
    tm.tm_isdst = -1;
    benchmark::DoNotOptimize(mktime(&tm));
  }
}

#if MORVEK_BENCH_HAVE_CCTZ
void toUtcCctz(benchmark::State &state, const char *zone) {
  cctz::time_zone tz;
  cctz::load_time_zone(zone, &tz);
  std::vector<cctz::civil_second> civil;
  for (const struct tm &tm : localFields(*getTimezone(zone)))
    civil.emplace_back(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                       tm.tm_sec);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(tz.lookup(civil[i++ % SAMPLES]).pre);
}

#endif

// Zone names to load, each once: cctz keeps what it loaded, so only a name's first load is
// measured, and ours loads uncached objects over the same names.
const std::vector<std::string> &zoneNames() {
  static const std::vector<std::string> v = [] {
    std::vector<std::string> out;
    for (const char *dir : {"America", "Europe", "Asia", "Africa", "Australia", "Pacific"}) {
      for (const auto &e :
           std::filesystem::directory_iterator(std::string("/usr/share/zoneinfo/") + dir)) {
        if (e.is_regular_file())
          out.push_back(std::string(dir) + "/" + e.path().filename().string());
      }
    }
    std::sort(out.begin(), out.end());
    return out;
  }();
  return v;
}

void loadOurs(benchmark::State &state) {
  auto tz = std::make_unique<TimezoneData>();
  size_t i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(tz->loadByName(zoneNames()[i++ % zoneNames().size()]));
}

#if MORVEK_BENCH_HAVE_CCTZ
void loadCctz(benchmark::State &state) {
  size_t i = 0;
  for (auto _ : state) {
    cctz::time_zone tz;
    benchmark::DoNotOptimize(cctz::load_time_zone(zoneNames()[i++ % zoneNames().size()], &tz));
  }
}

#endif

}  // namespace

int main(int argc, char **argv) {
  const struct {
    const char *label, *zone;
  } zones[] = {{"NewYork", "America/New_York"}, {"London", "Europe/London"}};
  for (const auto &z : zones) {
    const std::string g = std::string("TzOffset/") + z.label;
    benchmark::RegisterBenchmark((g + "/Ours").c_str(), offsetOurs, z.zone);
    benchmark::RegisterBenchmark((g + "/localtime_r").c_str(), offsetLocaltime, z.zone);
#if MORVEK_BENCH_HAVE_CCTZ
    benchmark::RegisterBenchmark((g + "/cctz").c_str(), offsetCctz, z.zone);
#endif
#if MORVEK_BENCH_HAVE_ABSL
    benchmark::RegisterBenchmark((g + "/absl").c_str(), offsetAbsl, z.zone);
#endif
    const std::string u = std::string("TzLocalToUtc/") + z.label;
    benchmark::RegisterBenchmark((u + "/Ours").c_str(), toUtcOurs, z.zone);
    benchmark::RegisterBenchmark((u + "/mktime").c_str(), toUtcMktime, z.zone);
#if MORVEK_BENCH_HAVE_CCTZ
    benchmark::RegisterBenchmark((u + "/cctz").c_str(), toUtcCctz, z.zone);
#endif
  }
  const auto n = static_cast<benchmark::IterationCount>(zoneNames().size());
  // One pass over the names, once: cctz keeps every zone it loaded, so a repetition would time
  // its cache against our file reads.
  benchmark::RegisterBenchmark("TzFirstLoad/ByName/Ours", loadOurs)->Iterations(n)->Repetitions(1);
#if MORVEK_BENCH_HAVE_CCTZ
  benchmark::RegisterBenchmark("TzFirstLoad/ByName/cctz", loadCctz)->Iterations(n)->Repetitions(1);
#endif
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
