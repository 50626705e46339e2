// Rendering compiled formats: each atom's text, offsets and names, the sub-second and pre-1970
// conventions, and a differential run against glibc's strftime in the C locale.
#include "basicutil/TimeRender.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "basicutil/DateTime.h"
#include "basicutil/TimeFormat.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"
#include "testutil.h"

using namespace morvek;

namespace {

using testutil::ScopedTz;

std::string renderIn(const char *format, const char *zone, Timeval t) {
  TimeFormat f;
  EXPECT_TRUE(f.set(format)) << format;
  Str out;
  if (zone == nullptr) {
    renderUtc(f, out, t);
  } else {
    const TimezoneData *tz = getTimezone(zone);
    EXPECT_NE(tz, nullptr) << zone;
    render(f, out, t, tz);
  }
  return out;
}

// 2024-03-11 (a Monday) 07:08:09 UTC.
constexpr int64_t MONDAY = 1710140889;

TEST(TimeRender, EachAtomInUtcAndZones) {
  struct Case {
    const char *format;
    const char *zone;  // null: UTC
    Timeval t;
    const char *want;
  } cases[] = {
      // clang-format off
      {"%FT%T.%6N%:z", nullptr, Timeval(1710054000, 123456), "2024-03-10T07:00:00.123456+00:00"},
      {"%FT%T.%6N%:z", "Asia/Kathmandu", Timeval(0, 0), "1970-01-01T05:30:00.000000+05:30"},
      // The epoch and fractions either side of 1970.
      {"%s.%6Q", nullptr, Timeval(-2, 500000), "-1.500000"},
      {"%s.%6Q", nullptr, Timeval(-1, 500000), "-0.500000"},
      {"%s.%3Q", nullptr, Timeval(-5, 0), "-5.000"},
      {"%12s|%_12s|%-12s", nullptr, Timeval(-5, 0), "-00000000005|          -5|-5"},
      {"%S.%6N", nullptr, Timeval(-1, 250000), "59.750000"},  // complement even without %s
      {"%9Q|%3Q|%1N|%f", nullptr, Timeval(5, 123456), "123456000|123|1|123456"},
      {"%s.%l", nullptr, Timeval(5, 987654), "5.987"},
      // Offsets in every form, padding and width.
      {"%:::z|%::z|%Ez", "Asia/Kolkata", Timeval(MONDAY, 0), "+05:30|+05:30:00|+330"},
      {"%:::z|%Ez|%-Ez", "Asia/Karachi", Timeval(MONDAY, 0), "+05|+300|+300"},
      {"%:::z|%z|%-z", "Asia/Kathmandu", Timeval(MONDAY, 0), "+05:45|+0545|+545"},
      {"%:::z|%Ez|%-:z", nullptr, Timeval(MONDAY, 0), "+00|+0|+0:00"},
      {"%_10z|%010z|%3z", "America/St_Johns", Timeval(MONDAY, 0), "     -0230|-000000230|-0230"},
      {"%Ez|%_6Ez|%06Ez", "Pacific/Chatham", Timeval(MONDAY, 0), "+825|  +825|+00825"},
      // Names, their widths and cases. Plain conversions are compared with strftime below.
      {"%^a|%#a|%^B|%#B|%2a|%5b|%10A|%-10A", nullptr, Timeval(MONDAY, 0),
       "MON|mON|MARCH|mARCH|Mo|  Mar|    Monday|Monday"},
      {"%Z|%#Z|%^Z|%6Z", "America/New_York", Timeval(MONDAY, 0), "EDT|edt|EDT|   EDT"},
      // Numbers.
      {"%e|%k|%l|%I|%-d|%_H|%#j|%#H|%10Y|%_10Y", nullptr, Timeval(MONDAY - 6 * 86400, 0),
       " 5| 7| 7|07|5| 7|65|7|0000002024|      2024"},
      {"%v|%+", nullptr, Timeval(MONDAY, 0), "11-Mar-2024|Mon Mar 11 07:08:09 UTC 2024"},
      {"%#c", nullptr, Timeval(MONDAY, 0), "Monday, March 11, 2024, 7:08:09"},
      {"%C|%y|%G|%Y", "America/New_York", Timeval(-2208988800, 0), "19|99|1899|1899"},
      // clang-format on
  };
  for (const Case &c : cases) {
    EXPECT_EQ(renderIn(c.format, c.zone, c.t), c.want) << c.format << " " << (c.zone ? c.zone : "");
  }
}

// Callbacks that know nothing, for the renderer's own fallbacks.
const TimeRenderCallbacks CLUELESS = {
    [](const struct tm &, const void *) -> int64_t { return -1; },
    [](const struct tm &, const void *, char *, size_t) { return false; },
    [](const struct tm &, const void *) -> int64_t { return NOT_FIXED; },
};

const TimeRenderCallbacks FIXED_OFFSET = {
    [](const struct tm &, const void *) -> int64_t { return 0; },
    [](const struct tm &, const void *, char *buf, size_t size) {
      snprintf(buf, size, "%s", "aBcDeFgHiJkLmNoP");  // cut to the 11-byte buffer
      return true;
    },
    [](const struct tm &, const void *zone) -> int64_t {
      return *static_cast<const int64_t *>(zone);
    },
};

TEST(TimeRender, FieldsNoZoneExplainsAndOutOfRange) {
  struct tm tm = {};
  tm.tm_year = 124;
  tm.tm_mday = 1;
  tm.tm_wday = 9;  // no such weekday
  tm.tm_mon = 12;  // no such month
  const struct {
    const TimeRenderCallbacks &cb;
    int64_t offset;
    const char *format, *want;
  } cases[] = {
      {CLUELESS, 0, "[%z|%:z|%Z|%s]", "[|||-1]"},
      {CLUELESS, 0, "%a|%A|%2A|%b|%B", "???|???|??|???|???"},
      {CLUELESS, 0, "%m|%Y", "13|2024"},
      // Hours capped at 99, minutes at 999.
      {FIXED_OFFSET, 400000, "%z|%::z|%Ez", "+9906|+99:06:40|+999"},
      {FIXED_OFFSET, -59, "%z|%:::z|%Ez|%-Ez", "-0000|-00:00:59|-0|-0"},
      {FIXED_OFFSET, 0, "%#Z|%^Z", "AbCdEfGhIj|ABCDEFGHIJ"},
  };
  for (const auto &c : cases) {
    TimeFormat f(c.format);
    Str out;
    render(f, out, tm, 0, c.cb, &c.offset);
    EXPECT_EQ(out, c.want) << c.format;
  }

  // A zone's name search fails with tm_isdst unknown: %Z writes nothing, %z finds the offset.
  const TimezoneData *ny = getTimezone("America/New_York");
  ASSERT_NE(ny, nullptr);
  struct tm local = {};
  local.tm_year = 124;
  local.tm_mon = 6;
  local.tm_mday = 1;
  local.tm_isdst = -1;
  TimeFormat f("[%Z] %z %s");
  Str out;
  render(f, out, local, 0, TIME_RENDER_ZONE, ny);
  EXPECT_EQ(out, "[] -0400 1719806400");
  out.clear();
  render(TimeFormat("[%Z]"), out, local, 0, TIME_RENDER_LOCAL);  // the same for local time
  EXPECT_EQ(out, "[]");
}

TEST(TimeRender, LocalTableAndAppending) {
  ScopedTz zone("Australia/Lord_Howe");
  TimeFormat f("%F %T %Z %:::z %s");
  Str out("prefix ");
  renderLocal(f, out, Timeval(MONDAY, 0));
  EXPECT_EQ(out, "prefix 2024-03-11 18:08:09 +11 +11 1710140889");

  // Past the year-3000 limit and before what the platform takes: the far values.
  out.clear();
  renderUtc(TimeFormat("%F %T.%6N"), out, Timeval(32535244800, 5));
  EXPECT_EQ(out, "9999-12-31 23:59:59.999999");
  out.clear();
  renderUtc(TimeFormat("%F %T.%6N"), out, Timeval(INT64_MIN, 5));
  EXPECT_EQ(out, "1900-01-01 00:00:00.000000");
}

// ---- Differential against glibc's strftime. Where ours differs on purpose ("#" on names and
// numbers, a width on %z or of 2 on %a, the century of 1899) the atom table above pins our text,
// so those forms are left out here.

const char *const SHARED_FORMATS[] = {
    "%a",  "%A",   "%b",  "%B",  "%c",   "%C",    "%d",  "%D",  "%e",  "%F",  "%g",  "%G",  "%h",
    "%H",  "%I",   "%j",  "%k",  "%l",   "%m",    "%M",  "%n",  "%p",  "%P",  "%r",  "%R",  "%s",
    "%S",  "%t",   "%T",  "%u",  "%U",   "%V",    "%w",  "%W",  "%x",  "%X",  "%y",  "%Y",  "%z",
    "%Z",  "%%",   "%^a", "%^B", "%#Z",  "%^p",   "%#p", "%-d", "%-H", "%-m", "%_H", "%_m", "%0e",
    "%-j", "%10B", "%5a", "%3d", "%_5Y", "%010Y", "%EY", "%Ey", "%Od", "%OH", "%EC",
};

TEST(TimeRenderDifferential, MatchesStrftimeInTheCLocale) {
  std::vector<TimeFormat> compiled;
  for (const char *format : SHARED_FORMATS) compiled.emplace_back(format);
  std::mt19937_64 rng(1900);
  // From the second day of 1900, so that no local time falls in 1899, to 3000.
  const int64_t lo = -2208988800 + 86400, hi = 32503680000;
  long compared = 0, outside = 0;
  std::vector<std::string> unexplained;
  // UTC through our UTC table, Berlin through the platform's local-time table, the rest as
  // zones; glibc reads each with TZ set to it.
  for (const char *name : {"UTC", "America/New_York", "Europe/Dublin", "Asia/Kolkata",
                           "Asia/Kathmandu", "Australia/Lord_Howe", "America/St_Johns",
                           "Pacific/Chatham", "Africa/Casablanca", "Europe/Berlin"}) {
    const bool utc = strcmp(name, "UTC") == 0, local = strcmp(name, "Europe/Berlin") == 0;
    ScopedTz tz(name);
    const TimezoneData *ours = getTimezone(name);
    ASSERT_NE(ours, nullptr) << name;
    const int64_t our_first = ours->timecnt ? ours->ats[0] : INT64_MAX;
    const int64_t our_last = ours->timecnt ? ours->ats[ours->timecnt - 1] : INT64_MIN;
    const TimeRenderCallbacks &cb = utc     ? TIME_RENDER_UTC
                                    : local ? TIME_RENDER_LOCAL
                                            : TIME_RENDER_ZONE;
    for (int i = 0; i < 2500; ++i) {
      // Mostly anywhere in range, some within two hours of a transition: gaps and overlaps.
      int64_t t = lo + static_cast<int64_t>(rng() % static_cast<uint64_t>(hi - lo));
      if (i % 10 == 1 && ours->timecnt > 0) {
        t = ours->ats[rng() % ours->timecnt] + static_cast<int64_t>(rng() % 14400) - 7200;
        if (t < lo || t >= hi) continue;
      }
      const time_t tt = static_cast<time_t>(t);
      struct tm gtm;
      ASSERT_TRUE(localtime_r(&tt, &gtm));
      // The engine's table has ends: before its first transition the first transition's type
      // applies, after the last one the last type holds, where glibc has the zone's original
      // type and the footer's rule. Just after the first transition glibc's mktime sees an
      // overlap with the type before it, which the table does not have. Only %s shows it.
      const bool beyond = t - 86400 < our_first || t > our_last;
      for (size_t k = 0; k < compiled.size(); ++k) {
        char buf[128];
        const std::string glibc(buf, strftime(buf, sizeof buf, SHARED_FORMATS[k], &gtm));
        Str mine;
        render(compiled[k], mine, gtm, 0, cb, ours);
        ++compared;
        if (mine == glibc) continue;
        if (beyond && strcmp(SHARED_FORMATS[k], "%s") == 0) {
          ++outside;
        } else if (unexplained.size() < 20) {
          unexplained.push_back(std::string(name) + " " + std::to_string(t) + " " +
                                SHARED_FORMATS[k] + ": ours '" + mine + "' glibc '" + glibc + "'");
        }
      }
    }
  }
  printf("compared %ld, %ld %%s past the zone table's ends\n", compared, outside);
  for (const std::string &u : unexplained) ADD_FAILURE() << u;
}

}  // namespace
