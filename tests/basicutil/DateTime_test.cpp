#include "basicutil/DateTime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

using namespace morvek;

namespace {

TimeFormatRawParseResult withYear(int year) {
  TimeFormatRawParseResult r{};
  r.year = year;
  r.have = TimeFormatRawParseResult::HAVE_YEAR;
  return r;
}

struct tm utcTm(time_t t) {
  struct tm tm;
  gmtime_r(&t, &tm);
  return tm;
}

// Every day of years 1..2999 against the platform's timegm, with the calendar fields it
// reports.
TEST(DateTimeCalendar, EveryDayMatchesTheCivilCalendar) {
  struct tm tm {};
  tm.tm_year = 1 - 1900;
  tm.tm_mon = 0;
  tm.tm_mday = 1;
  tm.tm_wday = 1;  // 0001-01-01, proleptic Gregorian, was a Monday
  for (; tm.tm_year + 1900 < 3000; tmAdvanceOneDay(tm)) {
    const int64_t year = tm.tm_year + 1900;
    const int64_t want = timegm(&tm);  // normalises tm, which is already right
    ASSERT_EQ(dayStartTime(year, tm.tm_mon, tm.tm_mday), want) << year << "-" << tm.tm_mon;
    ASSERT_EQ(weekdayOfDate(year, tm.tm_mon, tm.tm_mday), tm.tm_wday) << want;
    ASSERT_EQ(yeardayOfDate(year, tm.tm_mon, tm.tm_mday), tm.tm_yday) << want;
    ASSERT_TRUE(tmDayIsValid(tm));
    TimeFormatRawParseResult r = withYear(static_cast<int>(year));
    r.yearday = tm.tm_yday;
    ASSERT_TRUE(computeMmddFromYday(r));
    ASSERT_EQ(r.month, tm.tm_mon);
    ASSERT_EQ(r.monthday, tm.tm_mday);
  }
}

TEST(DateTimeCalendar, IsoAndPlainWeeksMatchStrftime) {
  char buf[64], mine[64];
  for (time_t t = -2208988800; t < 4133980800; t += 86400) {  // 1900 to 2100
    struct tm tm = utcTm(t);
    strftime(buf, sizeof buf, "%G %V %U %W", &tm);
    snprintf(mine, sizeof mine, "%d %02d %02d %02d", tmIsoYear(tm), tmIsoWeek(tm),
             tmWeekOfYearSunday(tm), tmWeekOfYearMonday(tm));
    ASSERT_STREQ(mine, buf) << t;

    // And back from the week numbers to the day.
    TimeFormatRawParseResult r = withYear(tm.tm_year + 1900);
    r.have |= TimeFormatRawParseResult::HAVE_WEEKDAY;
    r.weekday = tm.tm_wday;
    r.have |= (t / 86400) % 2 ? TimeFormatRawParseResult::HAVE_WEEK_SUN
                              : TimeFormatRawParseResult::HAVE_WEEK_MON;
    r.week_sun = tmWeekOfYearSunday(tm);
    r.week_mon = tmWeekOfYearMonday(tm);
    ASSERT_TRUE(computeYdayFromYweek(r));
    ASSERT_EQ(r.yearday, tm.tm_yday) << t;
  }
}

TEST(DateTimeCalendar, DaysAndWeeksOutsideTheYear) {
  // Every existing day is checked against the platform above; these are the others.
  const std::pair<int, int> missing[] = {
      {2023, 365},
      {2024, 366},
      {2024, -1},
  };
  for (const auto &[year, yearday] : missing) {
    TimeFormatRawParseResult r = withYear(year);
    r.yearday = yearday;
    EXPECT_FALSE(computeMmddFromYday(r)) << year << " " << yearday;
  }

  // Week 0's Sunday of 2024 is in 2023, and a week number is needed.
  TimeFormatRawParseResult r = withYear(2024);
  r.have |= TimeFormatRawParseResult::HAVE_WEEKDAY | TimeFormatRawParseResult::HAVE_WEEK_SUN;
  r.weekday = 0;
  r.week_sun = 0;
  EXPECT_FALSE(computeYdayFromYweek(r));
  r.week_sun = 1;
  r.week_mon = 1;  // not read without its bit
  EXPECT_TRUE(computeYdayFromYweek(r));
  r.have &= ~TimeFormatRawParseResult::HAVE_WEEK_SUN;
  EXPECT_FALSE(computeYdayFromYweek(r));
  r.have = TimeFormatRawParseResult::HAVE_YEAR | TimeFormatRawParseResult::HAVE_WEEK_SUN;
  EXPECT_FALSE(computeYdayFromYweek(r));  // no weekday
}

TEST(DateTimeCalendar, AddMonthsClampsTheDay) {
  struct Case {
    const char *from;
    int n;
    const char *want;  // "" for failure
  } cases[] = {
      // clang-format off
      {"2024-01-31", 1, "2024-02-29"}, {"2023-01-31", 1, "2023-02-28"},
      {"2024-03-31", -1, "2024-02-29"}, {"2024-02-29", 12, "2025-02-28"},
      {"2024-05-15", -17, "2022-12-15"}, {"2024-12-31", 2, "2025-02-28"}, {"2999-12-01", 1, ""},
      {"1900-01-01", -1, ""},
      // clang-format on
  };
  for (const Case &c : cases) {
    struct tm tm {};
    ASSERT_TRUE(strptime(c.from, "%Y-%m-%d", &tm));
    const struct tm before = tm;
    char buf[32] = "";
    if (tmAddMonths(tm, c.n)) {
      strftime(buf, sizeof buf, "%Y-%m-%d", &tm);
      struct tm normal = tm;  // the platform's yearday and weekday
      timegm(&normal);
      EXPECT_EQ(memcmp(&normal, &tm, offsetof(struct tm, tm_isdst)), 0) << buf;
    } else {
      EXPECT_EQ(memcmp(&before, &tm, sizeof tm), 0);
    }
    EXPECT_STREQ(buf, c.want) << c.from << " " << c.n;
  }
}

TEST(DateTimeCalendar, BreakDownLimitsAndSaturation) {
  struct tm tm {};
  EXPECT_TRUE(breakDownUtc(MAX_BROKEN_DOWN_TIME, tm));  // the last second it takes
  tm.tm_year = 7;
  EXPECT_FALSE(breakDownUtc(MAX_BROKEN_DOWN_TIME + 1, tm));
  EXPECT_FALSE(breakDownUtc(-62135596801, tm));  // before year 1
  EXPECT_EQ(tm.tm_year, 7);                      // untouched
  std::mt19937_64 rng(7);
  for (int i = 0; i < 100000; ++i) {
    time_t t = static_cast<time_t>(rng() % (MAX_BROKEN_DOWN_TIME + 62135596801)) - 62135596800;
    ASSERT_TRUE(breakDownUtc(t, tm));
    struct tm want = utcTm(t);
    ASSERT_EQ(memcmp(&tm, &want, offsetof(struct tm, tm_isdst)), 0) << t;
    ASSERT_EQ(timegmOf(tm), t);
  }

  EXPECT_EQ(addSaturating(INT64_MAX - 5, 3600), INT64_MAX);
  EXPECT_EQ(addSaturating(INT64_MIN + 5, -3600), INT64_MIN);
  EXPECT_EQ(addSaturating(100, -3600), -3500);
  EXPECT_EQ(subtractSaturating(INT64_MIN + 5, 3600), INT64_MIN);
  EXPECT_EQ(subtractSaturating(INT64_MAX - 5, -3600), INT64_MAX);
  EXPECT_EQ(subtractSaturating(0, INT64_MIN), INT64_MAX);
}

}  // namespace
