// Rendering ISO 8601 with microseconds and offset ("2024-03-10T03:00:00.123456-04:00") in UTC and
// in America/New_York, against glibc's strftime (with the microseconds and the colon offset
// written by hand), cctz::format, fmt's chrono formatting and date::format. Then the sortable
// and decimal text forms of a Timeval against std::to_chars equivalents.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <charconv>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "basicutil/TimeFormat.h"
#include "basicutil/TimeRender.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"

#ifdef MORVEK_BENCH_HAVE_CCTZ
#include <cctz/time_zone.h>
#endif
#ifdef MORVEK_BENCH_HAVE_FMT
#include <fmt/chrono.h>
#include <fmt/format.h>
#endif
#ifdef MORVEK_BENCH_HAVE_DATE_TZ
#include <date/date.h>
#include <date/tz.h>
#endif

using namespace morvek;

namespace {

constexpr size_t SAMPLES = 4096;
constexpr const char *NEW_YORK = "America/New_York";

// Random instants 1970..2037 with microseconds, the same for every contender.
const std::vector<Timeval> &instants() {
  static const std::vector<Timeval> v = [] {
    std::mt19937_64 rng(18);
    std::vector<Timeval> out;
    for (size_t i = 0; i < SAMPLES; ++i) {
      out.emplace_back(static_cast<int64_t>(rng() % 2145916800ull),
                       static_cast<int32_t>(rng() % 1000000));
    }
    return out;
  }();
  return v;
}

// Runs f on the instants in turn, one per iteration.
template <typename F>
void eachInstant(benchmark::State &state, F &&f) {
  const std::vector<Timeval> &at = instants();
  size_t i = 0;
  for (auto _ : state) f(at[i++ % SAMPLES]);
}

const TimeFormat &isoFormat() {
  static const TimeFormat f("%Y-%m-%dT%H:%M:%S.%6N%:z");
  return f;
}

void setTz(const char *zone) {
  setenv("TZ", zone, 1);
  tzset();
}

void isoOurs(benchmark::State &state, const char *zone) {
  const TimezoneData *tz = zone ? getTimezone(zone) : nullptr;
  Str out;
  eachInstant(state, [&](const Timeval &t) {
    out.clear();
    if (tz != nullptr) {
      render(isoFormat(), out, t, tz);
    } else {
      renderUtc(isoFormat(), out, t);
    }
    benchmark::DoNotOptimize(out.data());
  });
}

// glibc's fields for t: localtime_r in the zone TZ names, or gmtime_r.
struct tm platformFields(const Timeval &t, bool local) {
  const time_t tt = static_cast<time_t>(t.seconds());
  struct tm tm;
  if (local) {
    localtime_r(&tt, &tm);
  } else {
    gmtime_r(&tt, &tm);
  }
  return tm;
}

// ".uuuuuu" and "+hh:mm", as strftime can't.
size_t appendFractionAndOffset(char *p, int32_t usec, long gmtoff) {
  p[0] = '.';
  for (int i = 6; i >= 1; --i, usec /= 10) p[i] = static_cast<char>('0' + usec % 10);
  const long abs = gmtoff < 0 ? -gmtoff : gmtoff;
  const long hh = abs / 3600, mm = abs / 60 % 60;
  p[7] = gmtoff < 0 ? '-' : '+';
  p[8] = static_cast<char>('0' + hh / 10);
  p[9] = static_cast<char>('0' + hh % 10);
  p[10] = ':';
  p[11] = static_cast<char>('0' + mm / 10);
  p[12] = static_cast<char>('0' + mm % 10);
  return 13;
}

void isoStrftime(benchmark::State &state, const char *zone) {
  setTz(zone ? zone : "UTC");
  Str out;
  eachInstant(state, [&](const Timeval &t) {
    const struct tm tm = platformFields(t, zone != nullptr);
    char buf[64];
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    n += appendFractionAndOffset(buf + n, t.microseconds(), tm.tm_gmtoff);
    out.assign(buf, n);
    benchmark::DoNotOptimize(out.data());
  });
}

#ifdef MORVEK_BENCH_HAVE_CCTZ
void isoCctz(benchmark::State &state, const char *zone) {
  cctz::time_zone tz = cctz::utc_time_zone();
  if (zone) cctz::load_time_zone(zone, &tz);
  std::string out;
  eachInstant(state, [&](const Timeval &t) {
    const auto tp = std::chrono::system_clock::time_point(
        std::chrono::microseconds(t.seconds() * 1000000 + t.microseconds()));
    out = cctz::format("%Y-%m-%dT%H:%M:%E6S%Ez", tp, tz);
    benchmark::DoNotOptimize(out.data());
  });
}
#endif

#ifdef MORVEK_BENCH_HAVE_FMT
// fmt has no zone database: New York's fields come from localtime_r, as a caller would get them.
void isoFmt(benchmark::State &state, const char *zone) {
  setTz(zone ? zone : "UTC");
  std::string out;
  eachInstant(state, [&](const Timeval &t) {
    const struct tm tm = platformFields(t, zone != nullptr);
    // fmt 9 has no colon offset for a tm; its integer formatting writes one.
    const long abs = tm.tm_gmtoff < 0 ? -tm.tm_gmtoff : tm.tm_gmtoff;
    out = fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}{}{:02}:{:02}", tm, t.microseconds(),
                      tm.tm_gmtoff < 0 ? '-' : '+', abs / 3600, abs / 60 % 60);
    benchmark::DoNotOptimize(out.data());
  });
}
#endif

#ifdef MORVEK_BENCH_HAVE_DATE_TZ
void isoDate(benchmark::State &state, const char *zone) {
  const date::time_zone *tz = date::locate_zone(zone ? zone : "UTC");
  std::string out;
  eachInstant(state, [&](const Timeval &t) {
    const date::sys_time<std::chrono::microseconds> tp{
        std::chrono::microseconds(t.seconds() * 1000000 + t.microseconds())};
    out = date::format("%FT%T%Ez", date::make_zoned(tz, tp));
    benchmark::DoNotOptimize(out.data());
  });
}
#endif

// ---- Text forms of a Timeval.

// Runs f on each instant with a cleared string.
template <typename F>
void eachIntoString(benchmark::State &state, F &&f) {
  Str out;
  eachInstant(state, [&](const Timeval &t) {
    out.clear();
    f(t, out);
    benchmark::DoNotOptimize(out.data());
  });
}

void sortableOurs(benchmark::State &state) {
  eachIntoString(state, [](const Timeval &t, Str &out) { t.toSortableString(out); });
}

// The same fourteen base-32 digits through std::to_chars (lower-case letters), zero-padded.
void sortableToChars(benchmark::State &state) {
  eachIntoString(state, [](const Timeval &t, Str &out) {
    char buf[14], digits[16];
    memset(buf, '0', sizeof buf);
    auto r = std::to_chars(digits, digits + sizeof digits,
                           static_cast<uint64_t>(t.seconds()) + 11644473600ull, 32);
    memcpy(buf + 8 - (r.ptr - digits), digits, static_cast<size_t>(r.ptr - digits));
    r = std::to_chars(digits, digits + sizeof digits, t.microseconds() * 1000, 32);
    memcpy(buf + 14 - (r.ptr - digits), digits, static_cast<size_t>(r.ptr - digits));
    out.append(buf, sizeof buf);
  });
}

void decimalOurs(benchmark::State &state) {
  eachIntoString(state, [](const Timeval &t, Str &out) { t.renderDecimal(out, 6); });
}

void decimalToChars(benchmark::State &state) {
  eachIntoString(state, [](const Timeval &t, Str &out) {
    char buf[32];
    char *p = std::to_chars(buf, buf + 20, t.seconds()).ptr;
    *p++ = '.';
    char frac[8];
    const auto r = std::to_chars(frac, frac + sizeof frac, t.microseconds());
    const size_t n = static_cast<size_t>(r.ptr - frac);
    memset(p, '0', 6 - n);
    memcpy(p + 6 - n, frac, n);
    out.append(buf, static_cast<size_t>(p + 6 - buf));
  });
}

}  // namespace

BENCHMARK_CAPTURE(isoOurs, utc, nullptr)->Name("TimeRender/iso_utc/Ours");
BENCHMARK_CAPTURE(isoStrftime, utc, nullptr)->Name("TimeRender/iso_utc/strftime");
BENCHMARK_CAPTURE(isoOurs, ny, NEW_YORK)->Name("TimeRender/iso_new_york/Ours");
BENCHMARK_CAPTURE(isoStrftime, ny, NEW_YORK)->Name("TimeRender/iso_new_york/strftime");
#ifdef MORVEK_BENCH_HAVE_CCTZ
BENCHMARK_CAPTURE(isoCctz, utc, nullptr)->Name("TimeRender/iso_utc/cctz");
BENCHMARK_CAPTURE(isoCctz, ny, NEW_YORK)->Name("TimeRender/iso_new_york/cctz");
#endif
#ifdef MORVEK_BENCH_HAVE_FMT
BENCHMARK_CAPTURE(isoFmt, utc, nullptr)->Name("TimeRender/iso_utc/fmt");
BENCHMARK_CAPTURE(isoFmt, ny, NEW_YORK)->Name("TimeRender/iso_new_york/fmt");
#endif
#ifdef MORVEK_BENCH_HAVE_DATE_TZ
BENCHMARK_CAPTURE(isoDate, utc, nullptr)->Name("TimeRender/iso_utc/date");
BENCHMARK_CAPTURE(isoDate, ny, NEW_YORK)->Name("TimeRender/iso_new_york/date");
#endif
BENCHMARK(sortableOurs)->Name("TimeText/sortable/Ours");
BENCHMARK(sortableToChars)->Name("TimeText/sortable/to_chars");
BENCHMARK(decimalOurs)->Name("TimeText/decimal/Ours");
BENCHMARK(decimalToChars)->Name("TimeText/decimal/to_chars");
BENCHMARK_MAIN();
