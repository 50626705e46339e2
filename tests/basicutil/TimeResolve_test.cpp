// Resolution of parsed text into times, and the guesses for what text leaves out.
#include "basicutil/TimeResolve.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "basicutil/TimeRender.h"
#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

// A guesser whose present is fixed, in a given zone.
struct AnchoredGuesser : OnlyOverrideTimezoneTimeGuesser {
  AnchoredGuesser(const TimezoneData *zone, int64_t anchor, bool future = false)
      : OnlyOverrideTimezoneTimeGuesser(zone), _anchor(anchor), _future(future) {}
  int64_t anchorTime() override { return _anchor; }
  bool anchorIsFuture() override { return _future; }
  int64_t _anchor;
  bool _future;
};

const TimezoneData *zone(const char *name) {
  const TimezoneData *z = getTimezone(name);
  EXPECT_NE(z, nullptr) << name;
  return z;
}

struct Parsed {
  int64_t consumed = -1;
  Timeval t;
  ParseDetails details{};
  int32_t conflicts = -1;
};

Parsed parse(const char *format, const std::string &text, TimeGuesser &g) {
  Parsed p;
  p.consumed = parseTime(TimeFormat(format), text, p.t, &g, nullptr, &p.details, &p.conflicts);
  return p;
}

// ---- Guessing.

constexpr int64_t JAN1_2025 = 1735689600;   // 2025-01-01 00:00:00 UTC
constexpr int64_t MAR10_2025 = 1741564800;  // 2025-03-10 00:00:00 UTC

TEST(TimeResolve, YearsTheTextLeftOut) {
  struct Case {
    const char *text;
    int64_t anchor;
    bool future;
    int64_t want;
  } const cases[] = {
      {"Dec 31 23:59:59", JAN1_2025 + 10, false, JAN1_2025 - 1},
      {"Jan  1 00:00:05", JAN1_2025 - 10, false, JAN1_2025 + 5},
      {"Jan  1 00:00:05", JAN1_2025 + 10, false, JAN1_2025 + 5},
      {"Feb 29 12:00:00", MAR10_2025, false, 1709208000},  // 2024
      {"Feb 29 12:00:00", MAR10_2025, true, 1835438400},   // 2028
      {"Mar 12 00:00:00", MAR10_2025, false, MAR10_2025 + 2 * 86400},
      {"Mar 14 00:00:00", MAR10_2025, false, 1710374400},  // 2024: too far ahead for this year
      {"Mar  1 00:00:00", MAR10_2025, true, 1772323200},   // 2026: too far behind a future anchor
      {"Mar  8 00:00:00", MAR10_2025, true, MAR10_2025 - 2 * 86400},
  };
  for (const Case &c : cases) {
    AnchoredGuesser g(gmtTimezone(), c.anchor, c.future);
    const Parsed p = parse("%b %e %H:%M:%S", c.text, g);
    ASSERT_EQ(p.consumed, static_cast<int64_t>(strlen(c.text))) << c.text;
    EXPECT_EQ(p.t.seconds(), c.want) << c.text << " anchor " << c.anchor;
    EXPECT_EQ(p.details.zone_given, 0);
  }
}

TEST(TimeResolve, TwoDigitYearsAroundThePivot) {
  AnchoredGuesser g(gmtTimezone(), MAR10_2025);
  struct Case {
    const char *text;
    int year;
  } const cases[] = {
      {"00-06-01", 2000}, {"68-06-01", 2068}, {"69-06-01", 1969}, {"99-06-01", 1999}};
  for (const Case &c : cases) {
    const Parsed p = parse("%y-%m-%d", c.text, g);
    ASSERT_EQ(p.consumed, 8) << c.text;
    EXPECT_EQ(p.details.year, c.year) << c.text;
    EXPECT_EQ(p.t.seconds(), dayStartTime(c.year, 5, 1)) << c.text;
    EXPECT_EQ(p.details.precision, TimeFormat::RES_DAY);
  }
  // Century and two-digit year together.
  EXPECT_EQ(parse("%C%y-%m-%d", "1968-06-01", g).details.year, 1968);
}

TEST(TimeResolve, GapsAndOverlaps) {
  const TimezoneData *ny = zone("America/New_York");
  const int64_t before = 1704067200;  // 2024-01-01, long before both
  const int64_t after = 1730635200;   // 2024-11-03 12:00 UTC, after the overlap
  struct Case {
    const char *format;
    const char *text;
    int64_t anchor;
    int64_t want;
    int32_t conflicts;
  } const cases[] = {
      // 02:30 did not exist on 10 March; EDT, the offset the reverse search chose, applies.
      {"%F %T", "2024-03-10 02:30:00", before, 1710052200, 0},
      {"%F %T", "2024-03-10 03:00:00", before, 1710054000, 0},
      // 01:30 on 3 November happened twice: the earlier unless the later is nearer the anchor.
      {"%F %T", "2024-11-03 01:30:00", before, 1730611800, 1},
      {"%F %T", "2024-11-03 01:30:00", after, 1730615400, 1},
      // The abbreviation is the isdst hint: a fixed offset, no ambiguity.
      {"%F %T %Z", "2024-11-03 01:30:00 EDT", after, 1730611800, 0},
      {"%F %T %Z", "2024-11-03 01:30:00 EST", before, 1730615400, 0},
      // A time of day alone, in the overlap, on the day the anchor's local date gives.
      {"%T", "01:30:00", after, 1730615400, 1},
  };
  for (const Case &c : cases) {
    AnchoredGuesser g(ny, c.anchor);
    const Parsed p = parse(c.format, c.text, g);
    ASSERT_GT(p.consumed, 0) << c.text;
    EXPECT_EQ(p.t.seconds(), c.want) << c.text;
    EXPECT_EQ(p.conflicts, c.conflicts) << c.text;
  }
  // East of UTC the search steps back into the gap, to CET: 02:30 CET is 01:30 UTC.
  AnchoredGuesser berlin(zone("Europe/Berlin"), before);
  EXPECT_EQ(parse("%F %T", "2024-03-31 02:30:00", berlin).t.seconds(), 1711848600);
}

TEST(TimeResolve, TimesOfDayWithoutADate) {
  struct Case {
    const char *format;
    const char *text;
    int64_t anchor;
    int64_t want;
  } const cases[] = {
      {"%H:%M:%S", "00:30:00", MAR10_2025 + 3600, MAR10_2025 + 1800},
      // More than three hours ahead of the present: yesterday's.
      {"%H:%M:%S", "23:30:00", MAR10_2025 + 3600, MAR10_2025 - 1800},
      {"%H:%M:%S", "04:00:00", MAR10_2025 + 3600, MAR10_2025 + 4 * 3600},  // exactly three
      // Without AM/PM the nearer half day.
      {"%I:%M", "05:00", MAR10_2025 + 16 * 3600 + 1800, MAR10_2025 + 17 * 3600},
      {"%I:%M", "05:00", MAR10_2025 + 4 * 3600 + 1800, MAR10_2025 + 5 * 3600},
      {"%I:%M %p", "05:00 PM", MAR10_2025 + 4 * 3600, MAR10_2025 - 7 * 3600},
      {"%I:%M %p", "05:00 午前", MAR10_2025 + 4 * 3600, MAR10_2025 + 5 * 3600},
      // A day of the month without its month.
      {"%d %H:%M", "08 12:00", MAR10_2025 + 3600, MAR10_2025 - 2 * 86400 + 43200},
      {"%d %H:%M", "28 12:00", MAR10_2025 + 3600, 1743163200},  // within 20 days: 2025-03-28
      {"%d %H:%M", "31 12:00", MAR10_2025 + 3600, 1740744000},  // February, at its end
      // With a date, a 12-hour time without AM/PM still takes the nearer half.
      {"%F %I:%M", "2025-03-10 05:00", MAR10_2025 + 16 * 3600, MAR10_2025 + 17 * 3600},
  };
  for (const Case &c : cases) {
    AnchoredGuesser g(gmtTimezone(), c.anchor);
    const Parsed p = parse(c.format, c.text, g);
    ASSERT_GT(p.consumed, 0) << c.format << " " << c.text;
    EXPECT_EQ(p.t.seconds(), c.want) << c.format << " " << c.text;
  }
  // In a zone, "today" is the zone's: 01:00 UTC on 10 March is 21:00 EDT on the 9th.
  AnchoredGuesser ny(zone("America/New_York"), MAR10_2025 + 3600);
  EXPECT_EQ(parse("%H:%M", "19:00", ny).t.seconds(), MAR10_2025 - 3600);
}

TEST(TimeResolve, ZoneNames) {
  struct Case {
    const char *text;
    int64_t offset;  // NOT_FIXED: the name must not resolve
  } const cases[] = {
      {"2024-07-15 12:00 Pacific Standard Time", -28800},  // the Windows table, fixed
      // Never found in the Windows table: the zone its alias names, in daylight time in July.
      {"2024-07-15 12:00 Eastern Standard Time", -14400},
      {"2024-01-15 12:00 Eastern Standard Time", -18000},
      {"2024-07-15 12:00 est", -18000},
      {"2024-07-15 12:00 GMT+5", 18000},  // east, against POSIX's sign
      {"2024-07-15 12:00 Europe/Berlin", 7200},
      {"2024-07-15 12:00 pacific standard time", NOT_FIXED},
      {"2024-07-15 12:00 Nowhere/Land", NOT_FIXED},
  };
  AnchoredGuesser g(zone("Asia/Tokyo"), MAR10_2025);
  for (const Case &c : cases) {
    const Parsed p = parse("%Y-%m-%d %H:%M %Z", c.text, g);
    if (c.offset == NOT_FIXED) {
      EXPECT_EQ(p.consumed, -1) << c.text;
      continue;
    }
    ASSERT_GT(p.consumed, 0) << c.text;
    // Noon on 15 January or 15 July 2024, UTC.
    const int64_t noon = strncmp(c.text, "2024-01", 7) == 0 ? 1705320000 : 1721044800;
    EXPECT_EQ(p.t.seconds(), noon - c.offset) << c.text;
    EXPECT_EQ(p.details.offset, c.offset) << c.text;
    EXPECT_EQ(p.details.zone_given, 1);
  }
}

TEST(TimeResolve, PrecisionAndDetails) {
  AnchoredGuesser g(gmtTimezone(), MAR10_2025);
  struct Case {
    const char *format;
    const char *text;
    int64_t want;
    int32_t usec, precision, second;
  } const cases[] = {
      {"%Y-%m-%d %H", "2024-03-05 07", 1709622000, 0, TimeFormat::RES_HOUR, 0},
      {"%Y-%m-%d %H:%M", "2024-03-05 07:08", 1709622480, 0, TimeFormat::RES_MINUTE, 0},
      {"%F %T.%3N", "2024-03-05 07:08:09.123", 1709622489, 123000, 3, 9},
      {"%F %T", "2024-12-31 23:59:60", 1735689599, 0, 0, 60},
      {"%F %T", "2024-03-05 24:00:00", 1709683200, 0, 0, 0},
      // Details come from the whole seconds written, -1.
      {"%s.%6N", "-1.250000", -2, 750000, 6, 59},
      {"%Y %U %a", "2024 09 Tue", 1709596800, 0, TimeFormat::RES_DAY, 0},
  };
  for (const Case &c : cases) {
    const Parsed p = parse(c.format, c.text, g);
    ASSERT_GT(p.consumed, 0) << c.text;
    EXPECT_EQ(p.t.seconds(), c.want) << c.text;
    EXPECT_EQ(p.t.microseconds(), c.usec) << c.text;
    EXPECT_EQ(p.details.precision, c.precision) << c.text;
    EXPECT_EQ(p.details.second, c.second) << c.text;
  }
  const Parsed p = parse("%F %T %z", "2024-03-05 07:08:09 +0530", g);
  EXPECT_EQ(p.details.offset, 19800);
  EXPECT_EQ(p.details.weekday, 2);
  // Days that do not exist.
  EXPECT_EQ(parse("%F", "2023-02-29", g).consumed, -1);
  EXPECT_EQ(parse("%F", "2024-04-31", g).consumed, -1);
}

}  // namespace
