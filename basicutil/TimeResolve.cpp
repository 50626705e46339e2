#include "basicutil/TimeResolve.h"

#include <cstring>

#include "basicutil/TimeFormatParse.h"
#include "basicutil/Timezone.h"
#include "basicutil/TimezoneNames.h"
#include "libzero/fatal-assert.h"

namespace morvek {

using PR = TimeFormatRawParseResult;

namespace {

// Floor modulo: the seconds into the day of a local time, also before 1970.
int64_t secondsOfDay(int64_t t) {
  const int64_t r = t % SECONDS_PER_DAY;
  return r < 0 ? r + SECONDS_PER_DAY : r;
}

int daysInMonth(int64_t year, int month) {
  return (is_leap_year(year) ? days_in_month_leapyear : days_in_month)[month];
}

int64_t daysBetween(int64_t y1, int m1, int d1, int64_t y2, int m2, int d2) {
  return (dayStartTime(y1, m1, d1) - dayStartTime(y2, m2, d2)) / SECONDS_PER_DAY;
}

// A day of the month given without its month, placed near the date (year, month, day) found
// from the anchor: in that month when it exists and lies within 20 days, else in the month
// before, cut to that month's end (a 31 read on 10 March is 28 February).
void placeMonthday(TimeFormatRawParseResult &r, int monthday) {
  const int64_t year = r.year;
  const int month = r.month;
  if (monthday <= daysInMonth(year, month)) {
    const int64_t gap = daysBetween(year, month, monthday, year, month, r.monthday);
    if (gap >= -20 && gap <= 20) {
      r.monthday = monthday;
      return;
    }
  }
  const int64_t y = month == 0 ? year - 1 : year;
  const int m = month == 0 ? 11 : month - 1;
  r.year = static_cast<int32_t>(y);
  r.month = m;
  r.monthday = monthday < daysInMonth(y, m) ? monthday : daysInMonth(y, m);
}

}  // namespace

TzSpec TzSpec::of(const TimezoneData *zone) {
  if (zone != nullptr && zone->fixed_offset != NOT_FIXED) return fixed(zone->fixed_offset);
  TzSpec s;
  s.is_fixed = 0;
  s.zone = zone;
  return s;
}

int64_t TzSpec::offsetAt(int64_t t) const {
  if (is_fixed) return offset;
  return zone == nullptr ? 0 : zone->offsetAt(t);
}

TimeGuesser::~TimeGuesser() = default;

TimeGuesser &TimeGuesser::plain() {
  static TimeGuesser guesser;
  return guesser;
}

bool TimeGuesser::lookupZone(const char *name, TzSpec &spec) {
  if (name == nullptr || *name == '\0') {
    spec = TzSpec::of(defaultZone());
    return true;
  }
  if (strncmp(name, "GMT", 3) == 0 && name[3] != '\0') name += 3;
  const StrSegment text(name, strlen(name));
  int64_t offset;
  if (name[0] == '+' || name[0] == '-') {
    if (!parseOffset(text.data(), text.data() + text.size(), offset)) return false;
    spec = TzSpec::fixed(offset);
    return true;
  }
  if (zoneAbbreviationOffset(text, offset) || windowsZoneNameOffset(text, offset)) {
    spec = TzSpec::fixed(offset);
    return true;
  }
  const TimezoneData *zone = getTimezone(text, true);
  if (zone == nullptr) return false;
  spec = TzSpec::of(zone);
  return true;
}

bool TimeGuesser::localToUtc(TzSpec spec, int64_t &t) {
  if (spec.is_fixed) {
    t = subtractSaturating(t, spec.offset);
    return true;
  }
  if (spec.zone == nullptr) return true;
  int rtype;
  const uint32_t i = spec.zone->reverseSearch(t, rtype);
  t = subtractSaturating(t, spec.zone->transitionType(i).gmtoff);
  return rtype != TimezoneData::REVERSE_AMBIGUOUS;
}

bool TimeGuesser::guessYear(TimeFormatRawParseResult &r) {
  const int64_t now = anchorTime();
  struct tm tm;
  if (now >= FIRST_REFUSED_TIME || !breakDownUtc(now, tm)) return false;
  int64_t year = tm.tm_year + 1900;
  const bool now_dec31 = tm.tm_mon == 11 && tm.tm_mday == 31;
  const bool now_jan1 = tm.tm_mon == 0 && tm.tm_mday == 1;
  if (r.month == 0 && r.monthday == 1) {
    if (now_dec31) ++year;
  } else if (r.month == 1 && r.monthday == 29) {
    const int step = anchorIsFuture() ? 1 : -1;
    while (!is_leap_year(year)) year += step;
  } else if (r.month == 11 && r.monthday == 31) {
    if (now_jan1) --year;
  } else {
    const int d = r.monthday + days_before_month[r.month];
    if (anchorIsFuture()) {
      if (d + 3 < tm.tm_yday) ++year;
    } else if (d - 1 > tm.tm_yday + 2) {
      --year;
    }
  }
  r.year = static_cast<int32_t>(year);
  return true;
}

bool TimeGuesser::guessDate(TimeFormatRawParseResult &r, TzSpec spec) {
  if ((r.have & PR::HAVE_MINUTE) == 0) return false;
  const int64_t anchor = anchorTime();
  int64_t local = addSaturating(anchor, spec.offsetAt(anchor));
  const int64_t s = secondsOfDay(local);
  const int64_t tail = r.minute * 60 + ((r.have & PR::HAVE_SECOND) ? r.second : 0);
  int hour;
  bool half_day_chosen = false;
  if (r.have & PR::HAVE_HOUR24) {
    hour = r.hour;
  } else if ((r.have & PR::HAVE_HOUR12) && (r.have & PR::HAVE_AMPM) == 0) {
    // Morning or evening, whichever half day is nearer.
    const int64_t t = r.hour12 * 3600 + tail;
    if ((s >= 43200 ? s - 43200 : s) + 5400 < t) local = subtractSaturating(local, 43200);
    hour = r.hour12 + (secondsOfDay(local) > 43199 ? 12 : 0);
    half_day_chosen = true;
  } else if (r.have & PR::HAVE_HOUR12) {
    hour = r.hour12 + 12 * r.pm;
  } else {
    return false;
  }
  // A time more than three hours ahead of the anchor's is taken as yesterday's.
  if (!half_day_chosen && s + 10800 < hour * 3600 + tail)
    local = subtractSaturating(local, SECONDS_PER_DAY);
  struct tm tm;
  if (local >= FIRST_REFUSED_TIME || !breakDownUtc(local, tm)) return false;
  const bool day_alone = r.coarsest == TimeFormat::RES_DAY && (r.have & PR::HAVE_MONTHDAY);
  const int monthday = r.monthday;
  r.year = tm.tm_year + 1900;
  r.month = tm.tm_mon;
  r.monthday = tm.tm_mday;
  if (day_alone) placeMonthday(r, monthday);
  r.hour = hour;
  return true;
}

bool TimeGuesser::laterIsCloser(int64_t t, int64_t step) {
  const uint64_t a = static_cast<uint64_t>(anchorTime());
  auto distance = [a](uint64_t x) {
    return static_cast<int64_t>(x) >= static_cast<int64_t>(a) ? x - a : 8 * (a - x);
  };
  const uint64_t x = static_cast<uint64_t>(t);
  return distance(x + static_cast<uint64_t>(step)) < distance(x);
}

bool TimeGuesser::hourLaterIsCloser(int64_t t) { return laterIsCloser(t, 3600); }
bool TimeGuesser::halfDayLaterIsCloser(int64_t t) { return laterIsCloser(t, 43200); }

int32_t TimeGuesser::expandTwoDigitYear(int32_t year) {
  return year >= -2000 && year < 69 ? year + 2000 : year + 1900;
}

int64_t TimeGuesser::anchorTime() { return Timeval::cachedNow().seconds(); }
bool TimeGuesser::anchorIsFuture() { return false; }
const TimezoneData *TimeGuesser::defaultZone() { return getTimezone(); }

const TimezoneData *OnlyOverrideTimezoneTimeGuesser::defaultZone() {
  return _zone != nullptr ? _zone : getTimezone();
}

bool Timeval::set(TimeFormatRawParseResult &r, TimeGuesser *guesser, ParseDetails *details) {
  TimeGuesser &g = guesser != nullptr ? *guesser : TimeGuesser::plain();
  ParseDetails scratch;
  ParseDetails &d = details != nullptr ? *details : scratch;
  d = ParseDetails{};
  d.precision = (r.have & PR::HAVE_SUBSEC) ? r.subsec_digits : 0;
  d.zone_given = 1;
  uint64_t subsec = (r.have & PR::HAVE_SUBSEC) ? r.subsec : 0;
  int64_t t;

  if (r.have & PR::HAVE_EPOCH) {
    t = r.epoch;
    struct tm tm;
    if (details != nullptr && breakDownUtc(t, tm)) {
      d.year = tm.tm_year + 1900;
      d.month = tm.tm_mon;
      d.monthday = tm.tm_mday;
      d.weekday = tm.tm_wday;
      d.hour = tm.tm_hour;
      d.minute = tm.tm_min;
      d.second = tm.tm_sec;
    }
    d.offset = 0;
  } else {
    // The zone.
    TzSpec spec;
    const bool have_offset = (r.have & PR::HAVE_TZOFF) != 0;
    if (!have_offset) {
      if (r.have & PR::HAVE_TZNAM) {
        char small[64];
        Str large;
        const char *name = small;
        if (r.tzname_len < sizeof small) {
          memcpy(small, r.tzname, r.tzname_len);
          small[r.tzname_len] = '\0';
        } else {
          large.assign(r.tzname, r.tzname_len);
          name = large.c_str();
        }
        if (!g.lookupZone(name, spec)) return false;
      } else {
        if (!g.lookupZone(nullptr, spec)) return false;
        d.zone_given = 0;
      }
    }

    // The year.
    bool have_year = true;
    if (r.have & PR::HAVE_YEAR) {
      if (r.year < 100) r.year = g.expandTwoDigitYear(r.year);
    } else if ((r.have & (PR::HAVE_CENTURY | PR::HAVE_YEAR2)) ==
               (PR::HAVE_CENTURY | PR::HAVE_YEAR2)) {
      r.year = r.century * 100 + r.year2;
      if (r.year < 100) r.year = g.expandTwoDigitYear(r.year);
    } else if (r.have & PR::HAVE_YEAR2) {
      r.year = g.expandTwoDigitYear(r.year2);
    } else {
      have_year = false;
    }
    if (have_year) r.have |= PR::HAVE_YEAR;

    const bool month_and_day =
        (r.have & (PR::HAVE_MONTH | PR::HAVE_MONTHDAY)) == (PR::HAVE_MONTH | PR::HAVE_MONTHDAY);
    bool date_guessed = false;
    if (!have_year && !(month_and_day && g.guessYear(r))) {
      if (!g.guessDate(r, have_offset ? TzSpec::fixed(r.tzoffset) : spec)) return false;
      date_guessed = true;
    }

    // The date and the time of day.
    bool ambiguous_half = false;
    bool have_time = true;
    if (date_guessed) {
      // guessDate settled the hour.
    } else {
      if (month_and_day) {
        if (r.month < 0 || r.month > 11 || r.monthday < 1 ||
            r.monthday > daysInMonth(r.year, r.month))
          return false;
      } else {
        if ((r.have & PR::HAVE_YEARDAY) == 0 && !computeYdayFromYweek(r)) return false;
        if (!computeMmddFromYday(r)) return false;
      }
      for (;;) {
        const uint32_t h = r.have & (PR::HAVE_HOUR12 | PR::HAVE_HOUR24 | PR::HAVE_MINUTE);
        if (h == (PR::HAVE_HOUR12 | PR::HAVE_MINUTE)) {
          if ((r.have & PR::HAVE_AMPM) == 0) {
            r.pm = 0;
            ambiguous_half = true;
          }
          r.hour = r.hour12 + 12 * r.pm;
        } else if ((h & PR::HAVE_HOUR24) && (h & PR::HAVE_MINUTE)) {
          // The hour stands.
        } else if ((h & (PR::HAVE_HOUR12 | PR::HAVE_HOUR24)) && r.finest == TimeFormat::RES_HOUR) {
          MV_ASSERT((r.have & TimeFormatRawParseResult::HAVE_MINUTE) == 0);
          r.minute = 0;
          r.have |= PR::HAVE_MINUTE;
          d.precision = TimeFormat::RES_HOUR;
          continue;
        } else {
          have_time = false;
        }
        break;
      }
    }

    int64_t day_seconds = 0;
    int second = 0;
    if (have_time) {
      day_seconds = static_cast<int64_t>(r.hour) * 3600 + r.minute * 60;
      if (r.have & PR::HAVE_SECOND) {
        second = r.second;
        day_seconds += second == 60 ? 59 : second;
      } else {
        if (d.precision != TimeFormat::RES_HOUR) d.precision = TimeFormat::RES_MINUTE;
        subsec = 0;
      }
    } else {
      d.precision = TimeFormat::RES_DAY;
      subsec = 0;
    }

    int64_t local = dayStartTime(r) + day_seconds;
    for (;;) {
      t = local;
      if (have_offset) {
        t = subtractSaturating(t, r.tzoffset);
      } else if (!g.localToUtc(spec, t)) {
        ++r.conflicts;
        if (g.hourLaterIsCloser(t)) t = addSaturating(t, 3600);
      }
      if (!ambiguous_half || !g.halfDayLaterIsCloser(t)) break;
      local = addSaturating(local, 43200);
      ambiguous_half = false;
    }

    d.offset = have_offset ? r.tzoffset : local - t;
    // The broken-down fields cost a weekday and a day start; only when asked for.
    if (details != nullptr) {
      d.year = r.year;
      d.month = r.month;
      d.monthday = r.monthday;
      d.weekday =
          (r.have & PR::HAVE_WEEKDAY) ? r.weekday : weekdayOfDate(r.year, r.month, r.monthday);
      if (have_time) {
        d.hour = static_cast<int32_t>((local - dayStartTime(r)) / 3600);
        d.minute = r.minute;
        d.second = second;
      } else {
        d.hour = d.minute = d.second = 0;
      }
    }
  }

  int32_t usec = static_cast<int32_t>(subsec);
  if (usec != 0 && (r.have & PR::HAVE_NEGATIVE_EPOCH)) {
    if (t == INT64_MIN) {
      usec = 0;
    } else {
      --t;
      usec = USEC_PER_SEC - usec;
    }
  }
  *this = Timeval(t, usec);
  return true;
}

int64_t parseTime(const TimeFormat &format, StrSegment text, Timeval &out, TimeGuesser *guesser,
                  const TimezoneData *zone, ParseDetails *details, int32_t *conflicts) {
  TimeFormatRawParseResult r;
  r.have = 0;
  r.conflicts = 0;
  r.subsec = 0;
  r.finest = format.finest();
  r.coarsest = format.coarsest();
  const char *stop = rawParse(format, r, text.data(), text.data() + text.size());
  if (stop == nullptr) return -1;
  OnlyOverrideTimezoneTimeGuesser override_zone(zone);
  if (guesser == nullptr && zone != nullptr) guesser = &override_zone;
  if (!out.set(r, guesser, details)) return -1;
  if (conflicts != nullptr) *conflicts = r.conflicts;
  return stop - text.data();
}

}  // namespace morvek
