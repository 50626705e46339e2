// Calendar arithmetic: civil dates to day counts and back, week numbers, month steps and the
// saturating addition of zone offsets. Everything here is allocation-free and independent of the
// platform's time code (no mktime, no TZ): the zone engine and the time parsers stand on it.
//
// Worked values: 2024-02-29 (leap day) starts at 1709164800; 2100-03-01 starts at 4107542400
// (2100 is not a leap year); 0001-01-01 starts at -62135596800; 2020-12-31 is in ISO week 53
// of 2020, 2024-12-30 in ISO week 1 of 2025.
#pragma once

#include <cstdint>
#include <ctime>

namespace morvek {

// Seconds east of UTC meaning "there is no single offset".
inline constexpr int64_t NOT_FIXED = 0x40000000;
// The limit of every conversion to broken-down time, 3001-01-01 07:59:59 UTC (the last second
// of the year 3000 on the far side of the date line).
inline constexpr int64_t MAX_BROKEN_DOWN_TIME = 32535244799;
// Guessed and parsed times at or past it are refused.
inline constexpr int64_t FIRST_REFUSED_TIME = 32535244800;
inline constexpr int64_t SECONDS_PER_DAY = 86400;

// Indexed by month 0..11.
extern const uint8_t days_in_month[12];
extern const uint8_t days_in_month_leapyear[12];
extern const uint16_t days_before_month[12];
extern const uint16_t days_before_month_leapyear[12];

// Gregorian rule on the full year, for every year (also before 1582 and below 1).
constexpr bool is_leap_year(int64_t year) {
  return (year % 4 == 0) && (year % 100 != 0 || year % 400 == 0);
}
constexpr int daysInYear(int64_t year) { return is_leap_year(year) ? 366 : 365; }

// What a time parser saw, field by field, before any interpretation. A field is meaningful only
// when its HAVE_ bit is set; a later contradicting value counts in conflicts.
struct TimeFormatRawParseResult {
  enum : uint32_t {
    HAVE_WEEKDAY = 0x1,
    HAVE_YEARDAY = 0x2,
    HAVE_MONTHWEEK = 0x4,
    HAVE_WEEK_ISO = 0x8,
    HAVE_WEEK_MON = 0x10,
    HAVE_WEEK_SUN = 0x20,
    HAVE_ISOYEAR2 = 0x40,
    HAVE_ISOYEAR = 0x80,
    HAVE_NEGATIVE_EPOCH = 0x20000,
    HAVE_SUBSEC = 0x40000,
    HAVE_SECOND = 0x80000,
    HAVE_MINUTE = 0x100000,
    HAVE_AMPM = 0x200000,
    HAVE_HOUR12 = 0x400000,
    HAVE_HOUR24 = 0x800000,
    HAVE_MONTHDAY = 0x1000000,
    HAVE_MONTH = 0x2000000,
    HAVE_YEAR2 = 0x4000000,
    HAVE_CENTURY = 0x8000000,
    HAVE_YEAR = 0x10000000,
    HAVE_TZNAM = 0x20000000,
    HAVE_TZOFF = 0x40000000,
    HAVE_EPOCH = 0x80000000,
  };

  uint32_t have;
  int32_t finest, coarsest;  // copied from the format when a parse starts
  int32_t conflicts;
  int64_t epoch;
  int64_t tzoffset;    // seconds east of UTC
  const char *tzname;  // a view into the parsed text
  uint64_t tzname_len;
  int32_t year, century, year2;
  int32_t month;         // 0-based
  int32_t monthday;      // from 1
  int32_t hour, hour12;  // hour12 is 0..11
  uint8_t pm;
  int32_t minute, second;
  uint64_t subsec;        // microseconds
  int32_t subsec_digits;  // digits seen, at most 6
  int32_t isoyear, isoyear2, week_sun, week_mon, week_iso, monthweek, yearday, weekday;
};

// Yearday (0-based) of r.year to r.month and r.monthday. False, writing nothing, when the day
// does not exist: yearday 365 of 2023. Yearday 59 is 1 March in 2023 and 29 February in 2024.
// The HAVE_ bits are left to the caller.
bool computeMmddFromYday(TimeFormatRawParseResult &r);

// Week number and weekday to r.yearday: the Sunday-based week (HAVE_WEEK_SUN, as strftime %U)
// is used first, else the Monday-based one (HAVE_WEEK_MON, %W). False without HAVE_WEEKDAY,
// without either week, or when the day falls outside the year (Sunday of %U week 0 in 2024,
// whose 1 January is a Monday, would be 31 December 2023). r must have HAVE_YEAR.
bool computeYdayFromYweek(TimeFormatRawParseResult &r);

// Seconds from 1970-01-01 to 00:00 UTC of the civil date r.year, r.month, r.monthday; negative
// before 1970. The month must be 0..11; the day is not checked (day 0 is the day before day 1).
int64_t dayStartTime(const TimeFormatRawParseResult &r);
int64_t dayStartTime(int64_t year, int month, int monthday);

// 0 = Sunday. 2024-02-29 is a Thursday (4). Years from 1 on.
int weekdayOfDate(int64_t year, int month, int monthday);
// Day of the year, 0-based: 2024-03-01 is 60.
inline int yeardayOfDate(int64_t year, int month, int monthday) {
  return (is_leap_year(year) ? days_before_month_leapyear : days_before_month)[month] + monthday -
         1;
}

// Week of the year as strftime's %U (weeks start on Sunday) and %W (on Monday); the days before
// the first such weekday are week 0.
inline int weekOfYearSunday(int yearday, int weekday) { return (yearday + 7 - weekday) / 7; }
inline int weekOfYearMonday(int yearday, int weekday) {
  return (yearday + 7 - (weekday ? weekday - 1 : 6)) / 7;
}

// ISO 8601 week (1..53) and its year, as strftime's %V and %G: weeks start on Monday and week 1
// holds the year's first Thursday. 2019-12-30 is week 1 of 2020; 2021-01-03 is week 53 of 2020.
void isoWeekAndYear(int64_t year, int yearday, int weekday, int &iso_week, int64_t &iso_year);

// Helpers on tm-like records: tm_year counts from 1900, tm_mon is 0-based.
int tmIsoYear(const struct tm &tm);  // the full year, as %G
int tmIsoWeek(const struct tm &tm);  // as %V
int tmWeekOfYearSunday(const struct tm &tm);
int tmWeekOfYearMonday(const struct tm &tm);
bool tmIsLeapYear(const struct tm &tm);
// The last day of tm's month: 29 for February 2024.
int tmLastDayOfMonth(const struct tm &tm);
// tm_mon in 0..11 and tm_mday from 1 to the month's last day.
bool tmDayIsValid(const struct tm &tm);
// Moves to the next day, rolling month and year, keeping tm_yday and tm_wday right.
void tmAdvanceOneDay(struct tm &tm);
// Adds n months (n may be negative), keeping the time of day. The day is clamped to the new
// month's end: 31 January plus one month is 28 February, or 29 in a leap year. tm_yday and
// tm_wday are recomputed. False, with tm unchanged, if the year would leave 1900..2999.
bool tmAddMonths(struct tm &tm, int n);

// The value an overflowing addition of b saturates to: INT64_MAX when b is positive, INT64_MIN
// when negative. An overflow can't come of b == 0, which is a fatal assertion.
int64_t deal_with_saturated_timet_result(int64_t b);
// t + b and t - b for zone offsets, saturating instead of wrapping.
inline int64_t addSaturating(int64_t t, int64_t b) {
  int64_t r;
  return __builtin_add_overflow(t, b, &r) ? deal_with_saturated_timet_result(b) : r;
}
inline int64_t subtractSaturating(int64_t t, int64_t b) {
  int64_t r;
  if (!__builtin_sub_overflow(t, b, &r)) return r;
  return b > 0 ? INT64_MIN : INT64_MAX;
}

// Seconds to a UTC broken-down time with no platform call; false (tm untouched) above
// MAX_BROKEN_DOWN_TIME or below year 1. tm_isdst, tm_gmtoff and tm_zone are set to 0, 0, "GMT".
bool breakDownUtc(int64_t t, struct tm &tm);
// Now, broken down in UTC. Aborts if the clock fails or reads at or past FIRST_REFUSED_TIME.
void breakDownUtcNow(struct tm &tm);
// The inverse of breakDownUtc, as timegm: fields out of range carry into the next larger one
// (month 12 is January of the next year, day 0 the last of the previous month).
int64_t timegmOf(const struct tm &tm);

}  // namespace morvek
