// Serialized zones: writing America/New_York, rebuilding it, and the cache hit that a repeated
// text costs. The format is the library's own: there is no peer to compare with.
#include <benchmark/benchmark.h>

#include <memory>

#include "basicutil/Timeval.h"
#include "basicutil/TimezoneSerialize.h"

using namespace morvek;

namespace {

const TimezoneData &newYork() {
  const TimezoneData *tz = getTimezone("America/New_York");
  if (tz == nullptr) abort();
  return *tz;
}

void serializeNy(benchmark::State &state) {
  const TimezoneData &tz = newYork();
  const int64_t now = Timeval::now().seconds();
  for (auto _ : state) benchmark::DoNotOptimize(serializedTimezoneText(tz, 30, now));
}

// Reading the lines, hashing them and parsing a fresh object: all a cache miss does but the
// two lookups under the zone lock.
void deserializeNy(benchmark::State &state) {
  const Str text = serializedTimezoneText(newYork(), 30, Timeval::now().seconds());
  auto tz = std::make_unique<TimezoneData>();
  for (auto _ : state) {
    if (!parseSerializedTimezone(text, *tz)) abort();
    benchmark::DoNotOptimize(tz->timecnt);
  }
}

void deserializeCached(benchmark::State &state) {
  const Str text = serializedTimezoneText(newYork(), 30, Timeval::now().seconds());
  if (deserializeTimezone(text) == nullptr) abort();
  for (auto _ : state) benchmark::DoNotOptimize(deserializeTimezone(text));
}

}  // namespace

BENCHMARK(serializeNy)->Name("TzSerial/serialize_ny/Ours");
BENCHMARK(deserializeNy)->Name("TzSerial/deserialize_ny/Ours");
BENCHMARK(deserializeCached)->Name("TzSerial/deserialize_cached/Ours");

BENCHMARK_MAIN();
