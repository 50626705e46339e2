#include "basicutil/DateTime.h"

#include <sys/time.h>

#include <cstdlib>

#include "libzero/fatal-assert.h"

namespace morvek {

const uint8_t days_in_month[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
const uint8_t days_in_month_leapyear[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
const uint16_t days_before_month[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
const uint16_t days_before_month_leapyear[12] = {0,   31,  60,  91,  121, 152,
                                                 182, 213, 244, 274, 305, 335};

namespace {

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}

int floorMod7(int64_t a) {
  int r = static_cast<int>(a % 7);
  return r < 0 ? r + 7 : r;
}

// Leap days in the years 1..n (n may be negative: counts then go below zero).
int64_t leapDaysThrough(int64_t n) { return floorDiv(n, 4) - floorDiv(n, 100) + floorDiv(n, 400); }

constexpr int64_t DAYS_0001_TO_1970 = 719162;
constexpr int64_t FIRST_TIME_OF_YEAR_1 = -DAYS_0001_TO_1970 * SECONDS_PER_DAY;

}  // namespace

bool computeMmddFromYday(TimeFormatRawParseResult &r) {
  int d = r.yearday;
  if (d < 0) return false;
  // Put the day on a leap-year calendar so one table serves both kinds of year.
  if (d >= 59 && !is_leap_year(r.year)) ++d;
  if (d > 365) return false;
  int month = d / 30;
  if (month > 11) month = 11;
  int tday = d - days_before_month_leapyear[month];
  if (tday < 0) {
    MV_ASSERT(month > 0);
    --month;
    tday += days_in_month_leapyear[month];
  }
  MV_ASSERT(month < 12);
  MV_ASSERT(tday < (int)days_in_month_leapyear[month]);
  int monthday = tday + 1;
  MV_ASSERT(month != 1 || monthday != 29 || is_leap_year(r.year));
  r.month = month;
  r.monthday = monthday;
  return true;
}

bool computeYdayFromYweek(TimeFormatRawParseResult &r) {
  if ((r.have & TimeFormatRawParseResult::HAVE_WEEKDAY) == 0) return false;
  MV_ASSERT((r.have & TimeFormatRawParseResult::HAVE_YEAR) != 0);
  int w = weekdayOfDate(r.year, 0, 1);
  int wday = r.weekday, week;
  if (r.have & TimeFormatRawParseResult::HAVE_WEEK_SUN) {
    week = r.week_sun;
  } else if (r.have & TimeFormatRawParseResult::HAVE_WEEK_MON) {
    week = r.week_mon;
    w = (w + 6) % 7;
    wday = (wday + 6) % 7;
  } else {
    return false;
  }
  int yday = wday - (w ? w : 7) + 7 * week;
  if (yday < 0 || yday >= daysInYear(r.year)) return false;
  r.yearday = yday;
  return true;
}

int64_t dayStartTime(int64_t year, int month, int monthday) {
  MV_ASSERT(month >= 0 && month < 12);
  int64_t leaps;
  if (year >= 1901 && year <= 2100) {
    // Only 2000 is a century year in reach, and it is a leap year.
    leaps = floorDiv(year - 1972 + 3, 4);
  } else {
    leaps = leapDaysThrough(year - 1) - leapDaysThrough(1969);
  }
  int64_t days = 365 * (year - 1970) + leaps + days_before_month[month] + monthday - 1;
  if (month >= 2 && is_leap_year(year)) ++days;
  return days * SECONDS_PER_DAY;
}

int64_t dayStartTime(const TimeFormatRawParseResult &r) {
  MV_ASSERT(r.month < 12);
  return dayStartTime(r.year, r.month, r.monthday);
}

int weekdayOfDate(int64_t year, int month, int monthday) {
  int64_t y = year - 1;
  int64_t sum = y / 400 - y / 100 + y / 4 + year + days_before_month[month] + monthday;
  if (!(month >= 2 && is_leap_year(year))) --sum;
  return floorMod7(sum);
}

void isoWeekAndYear(int64_t year, int yearday, int weekday, int &iso_week, int64_t &iso_year) {
  // The ISO week belongs to the year that holds its Thursday.
  int thursday = yearday - (weekday + 6) % 7 + 3;
  iso_year = year;
  if (thursday < 0) {
    --iso_year;
    thursday += daysInYear(iso_year);
  } else if (thursday >= daysInYear(year)) {
    thursday -= daysInYear(year);
    ++iso_year;
  }
  iso_week = thursday / 7 + 1;
}

int tmIsoYear(const struct tm &tm) {
  int week;
  int64_t year;
  isoWeekAndYear(tm.tm_year + 1900LL, tm.tm_yday, tm.tm_wday, week, year);
  return static_cast<int>(year);
}

int tmIsoWeek(const struct tm &tm) {
  int week;
  int64_t year;
  isoWeekAndYear(tm.tm_year + 1900LL, tm.tm_yday, tm.tm_wday, week, year);
  return week;
}

int tmWeekOfYearSunday(const struct tm &tm) { return weekOfYearSunday(tm.tm_yday, tm.tm_wday); }
int tmWeekOfYearMonday(const struct tm &tm) { return weekOfYearMonday(tm.tm_yday, tm.tm_wday); }
bool tmIsLeapYear(const struct tm &tm) { return is_leap_year(tm.tm_year + 1900LL); }

int tmLastDayOfMonth(const struct tm &tm) {
  return (tmIsLeapYear(tm) ? days_in_month_leapyear : days_in_month)[tm.tm_mon];
}

bool tmDayIsValid(const struct tm &tm) {
  return tm.tm_mon >= 0 && tm.tm_mon < 12 && tm.tm_mday >= 1 && tm.tm_mday <= tmLastDayOfMonth(tm);
}

void tmAdvanceOneDay(struct tm &tm) {
  tm.tm_wday = (tm.tm_wday + 1) % 7;
  if (tm.tm_mday < tmLastDayOfMonth(tm)) {
    ++tm.tm_mday;
    ++tm.tm_yday;
    return;
  }
  tm.tm_mday = 1;
  if (++tm.tm_mon == 12) {
    tm.tm_mon = 0;
    ++tm.tm_year;
    tm.tm_yday = 0;
  } else {
    ++tm.tm_yday;
  }
}

bool tmAddMonths(struct tm &tm, int n) {
  int64_t total = static_cast<int64_t>(tm.tm_mon) + n;
  int64_t year = tm.tm_year + floorDiv(total, 12);
  int month = static_cast<int>(total - floorDiv(total, 12) * 12);
  if (year < 0 || year > 1099) return false;
  tm.tm_year = static_cast<int>(year);
  tm.tm_mon = month;
  int last = tmLastDayOfMonth(tm);
  if (tm.tm_mday > last) tm.tm_mday = last;
  tm.tm_yday = yeardayOfDate(year + 1900, month, tm.tm_mday);
  tm.tm_wday = weekdayOfDate(year + 1900, month, tm.tm_mday);
  return true;
}

int64_t deal_with_saturated_timet_result(int64_t b) {
  MV_ASSERT(b != 0);
  return b > 0 ? INT64_MAX : INT64_MIN;
}

bool breakDownUtc(int64_t t, struct tm &tm) {
  if (t > MAX_BROKEN_DOWN_TIME || t < FIRST_TIME_OF_YEAR_1) return false;
  int64_t days = floorDiv(t, SECONDS_PER_DAY);
  int secs = static_cast<int>(t - days * SECONDS_PER_DAY);
  // Civil date from a day count, on a calendar whose years start on 1 March so that the leap
  // day comes last; 719468 days lie between 0000-03-01 and 1970-01-01.
  int64_t z = days + 719468;
  int64_t era = floorDiv(z, 146097);
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int mday = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  int mon = static_cast<int>(mp < 10 ? mp + 2 : mp - 10);
  int64_t year = yoe + era * 400 + (mon < 2 ? 1 : 0);
  tm = {};
  tm.tm_sec = secs % 60;
  tm.tm_min = secs / 60 % 60;
  tm.tm_hour = secs / 3600;
  tm.tm_mday = mday;
  tm.tm_mon = mon;
  tm.tm_year = static_cast<int>(year - 1900);
  tm.tm_wday = floorMod7(days + 4);  // 1970-01-01 was a Thursday
  tm.tm_yday = yeardayOfDate(year, mon, mday);
  tm.tm_zone = "GMT";
  return true;
}

void breakDownUtcNow(struct tm &tm) {
  struct timeval tv;
  if (gettimeofday(&tv, nullptr) != 0 || tv.tv_sec >= FIRST_REFUSED_TIME ||
      !breakDownUtc(tv.tv_sec, tm))
    abort();
}

int64_t timegmOf(const struct tm &tm) {
  int64_t months = tm.tm_mon;
  int64_t year = tm.tm_year + 1900LL + floorDiv(months, 12);
  int month = static_cast<int>(months - floorDiv(months, 12) * 12);
  return dayStartTime(year, month, 1) + (tm.tm_mday - 1LL) * SECONDS_PER_DAY + tm.tm_hour * 3600LL +
         tm.tm_min * 60LL + tm.tm_sec;
}

}  // namespace morvek
