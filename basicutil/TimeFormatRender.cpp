// The renderer of compiled time formats and its three callback tables.
#include <time.h>

#include <cstring>

#include "basicutil/BasicConversions.h"
#include "basicutil/DateTime.h"
#include "basicutil/TimeFormat.h"
#include "basicutil/TimeRender.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

using TF = TimeFormat;
// Unqualified, so that the fatal assertions quote the invariants in the words of the format code.
constexpr uint32_t PAD_SPACE = TF::PAD_SPACE;
constexpr uint32_t PAD_ZERO = TF::PAD_ZERO;
constexpr uint32_t PAD_NONE = TF::PAD_NONE;
constexpr uint32_t MONTHWEEK_NUM = TF::MONTHWEEK_NUM;

constexpr size_t ZONE_NAME_SIZE = 11;

struct Name {
  const char *text;
  uint32_t len;
};
constexpr Name WEEKDAYS[7] = {{"Sunday", 6},   {"Monday", 6}, {"Tuesday", 7}, {"Wednesday", 9},
                              {"Thursday", 8}, {"Friday", 6}, {"Saturday", 8}};
constexpr Name MONTHS[12] = {{"January", 7},   {"February", 8}, {"March", 5},    {"April", 5},
                             {"May", 3},       {"June", 4},     {"July", 4},     {"August", 6},
                             {"September", 9}, {"October", 7},  {"November", 8}, {"December", 8}};
constexpr Name UNKNOWN_NAME = {"???", 3};

constexpr char DIGIT_PAIRS[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Collects the text of one render on the stack, so that the string sees one append (or a few,
// for wide fields) instead of one per atom.
class Sink {
 public:
  explicit Sink(Str &out) : _out(out) {}
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  // Room for n bytes (n <= CAPACITY), to be written at once.
  char *room(size_t n) {
    if (__builtin_expect(n > CAPACITY - _n, 0)) flush();
    char *p = _buf + _n;
    _n += n;
    return p;
  }
  void put(char c) { *room(1) = c; }
  void put(const char *p, size_t n) {
    if (n == 1) {  // most literals are one separator: no call to memcpy for them
      put(*p);
      return;
    }
    if (n > CAPACITY) {
      flush();
      _out.append(p, n);
      return;
    }
    char *dst = room(n);
    for (size_t i = 0; i < n; ++i) dst[i] = p[i];  // short runs: cheaper than a call
  }
  void fill(char c, uint64_t n) {
    if (n > CAPACITY) {
      flush();
      _out.append(n, c);
      return;
    }
    memset(room(n), c, n);
  }
  __attribute__((noinline)) void flush() {
    _out.append(_buf, _n);
    _n = 0;
  }

 private:
  static constexpr size_t CAPACITY = 256;
  Str &_out;
  size_t _n = 0;
  char _buf[CAPACITY];
};

void putDigitsFixed(char *p, uint64_t v, size_t width) {
  while (width >= 2) {
    width -= 2;
    memcpy(p + width, DIGIT_PAIRS + 2 * (v % 100), 2);
    v /= 100;
  }
  if (width == 1) p[0] = static_cast<char>('0' + v % 10);
}

// The numeric path: digits, left-padded to the width with zeros (PAD_ZERO) or spaces (any other
// padding but PAD_NONE). A sign counts in the width; zeros go after it, spaces before.
void putNumber(Sink &sink, uint64_t magnitude, bool negative, uint64_t width, uint32_t padding) {
  if (!negative && padding == PAD_ZERO && width <= 8 && width > 0) {
    static constexpr uint64_t LIMITS[9] = {1,      10,      100,      1000,     10000,
                                           100000, 1000000, 10000000, 100000000};
    if (magnitude < LIMITS[width]) {
      putDigitsFixed(sink.room(width), magnitude, width);
      return;
    }
  }
  char digits[DECIMAL_U64_MAX_DIGITS];
  const size_t n = writeDecimalU64(digits, magnitude);
  const uint64_t len = n + (negative ? 1 : 0);
  const uint64_t pad = width > len && padding != PAD_NONE ? width - len : 0;
  if (padding == PAD_ZERO) {
    if (negative) sink.put('-');
    sink.fill('0', pad);
  } else {
    sink.fill(' ', pad);
    if (negative) sink.put('-');
  }
  sink.put(digits, n);
}

void putSigned(Sink &sink, int64_t v, const TimeFormatAtom *a) {
  const uint64_t magnitude = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  putNumber(sink, magnitude, v < 0, a->width, a->x.conv.padding);
}

// The text path: left-padded with spaces to the width for PAD_SPACE, then the case applied.
void putText(Sink &sink, const char *text, size_t len, const TimeFormatAtom *a) {
  if (a->width > len && a->x.conv.padding != PAD_NONE) {
    MV_ASSERT(a->x.conv.padding == PAD_SPACE);
    sink.fill(' ', a->width - len);
  }
  char *p = sink.room(len);
  memcpy(p, text, len);
  const uint32_t case_mod = a->x.conv.case_mod;
  if (case_mod == TF::CASE_AS_IS) return;
  for (size_t i = 0; i < len; ++i) {
    const char c = p[i];
    if (c >= 'a' && c <= 'z') {
      p[i] = static_cast<char>(c - 'a' + 'A');
    } else if (case_mod == TF::CASE_SWAP && c >= 'A' && c <= 'Z') {
      p[i] = static_cast<char>(c - 'A' + 'a');
    }
  }
}

void putName(Sink &sink, const Name *table, int count, int index, const TimeFormatAtom *a) {
  Name name = index >= 0 && index < count ? table[index] : UNKNOWN_NAME;
  // Two letters of an abbreviation at width 2; "???" is cut the same way for every name.
  if (a->width == 2 && (a->what == TF::WEEKDAY_ABBR || name.text == UNKNOWN_NAME.text)) {
    name.len = 2;
  } else if (a->what == TF::WEEKDAY_ABBR || a->what == TF::MONTH_ABBR) {
    name.len = 3;
  }
  putText(sink, name.text, name.len, a);
}

void putOffset(Sink &sink, int64_t offset, const TimeFormatAtom *a) {
  if (offset == NOT_FIXED) return;
  const uint64_t abs = offset < 0 ? 0 - static_cast<uint64_t>(offset) : offset;
  const uint64_t hh = abs / 3600 > 99 ? 99 : abs / 3600;
  const uint64_t mm = abs / 60 % 60, ss = abs % 60;
  char digits[8];
  size_t n;
  const uint32_t fty = a->what;
  if (fty == TF::TZ_AS_MINOFFSET) {
    putDigitsFixed(digits, abs / 60 > 999 ? 999 : abs / 60, 3);
    n = 3;
  } else if (fty == TF::TZ_AS_HHMMOFFSET) {
    putDigitsFixed(digits, hh * 100 + mm, 4);
    n = 4;
  } else {
    int groups;
    if (fty == TF::TZ_AS_COLONOFFSET) {
      groups = 2;
    } else if (fty == TF::TZ_AS_NEEDEDOFFSET) {
      groups = ss != 0 ? 3 : mm != 0 ? 2 : 1;
    } else {
      MV_ASSERT(fty == TimeFormat::TZ_AS_SECOFFSET);
      groups = 3;
    }
    const uint64_t parts[3] = {hh, mm, ss};
    n = 0;
    for (int i = 0; i < groups; ++i) {
      if (i > 0) digits[n++] = ':';
      memcpy(digits + n, DIGIT_PAIRS + 2 * parts[i], 2);
      n += 2;
    }
  }
  const char *d = digits;
  if (a->x.conv.padding == PAD_NONE && d[0] == '0') {
    do {
      ++d;
      --n;
    } while (fty == TF::TZ_AS_MINOFFSET && n > 1 && d[0] == '0');
  }
  const uint64_t len = n + 1;
  const uint64_t pad = a->width > len ? a->width - len : 0;
  const char sign = offset < 0 ? '-' : '+';
  if (a->x.conv.padding == PAD_SPACE) {
    sink.fill(' ', pad);
    sink.put(sign);
  } else {
    sink.put(sign);
    if (a->x.conv.padding == PAD_ZERO) sink.fill('0', pad);
  }
  sink.put(d, n);
}

// Whether the instant lies before 1970, asked of slot 0 at most once per render. Local offsets
// stay well within a year, so the year answers it away from 1970.
class EpochSide {
 public:
  EpochSide(const struct tm &tm, const TimeRenderCallbacks &cb, const void *zone)
      : _tm(tm), _cb(cb), _zone(zone) {}
  bool before() {
    if (_known < 0) {
      if (_tm.tm_year >= 72) {
        _known = 0;
      } else if (_tm.tm_year <= 67) {
        _known = 1;
      } else {
        _known = _cb.time_from_tm(_tm, _zone) < 0;
      }
    }
    return _known != 0;
  }
  void set(bool before) { _known = before; }

 private:
  const struct tm &_tm;
  const TimeRenderCallbacks &_cb;
  const void *_zone;
  int _known = -1;
};

void putSubseconds(Sink &sink, int32_t usec, EpochSide &side, const TimeFormatAtom *a) {
  uint32_t v = usec < 0 ? 0 : usec > 999999 ? 999999 : static_cast<uint32_t>(usec);
  if (v != 0 && side.before()) v = 1000000 - v;
  static constexpr uint32_t CUT[6] = {100000, 10000, 1000, 100, 10, 1};
  const uint64_t width = a->width;
  const size_t digits = width < 6 ? static_cast<size_t>(width) : 6;
  if (digits != 0) putDigitsFixed(sink.room(digits), v / CUT[digits - 1], digits);
  if (width > 6) sink.fill('0', width - 6);
}

const TimezoneData *zoneOf(const void *zone) {
  const TimezoneData *tz = static_cast<const TimezoneData *>(zone);
  MV_ASSERT(tz != nullptr);
  return tz;
}

bool copyName(const char *name, char *buf, size_t size) {
  if (name == nullptr || size == 0) return false;
  size_t n = strlen(name);
  if (n >= size) n = size - 1;
  memcpy(buf, name, n);
  buf[n] = '\0';
  return true;
}

// ---- Local time: the platform's.

int64_t localTimeFromTm(const struct tm &tm, const void *) {
  struct tm copy = tm;
  return mktime(&copy);
}

bool localZoneName(const struct tm &tm, const void *, char *buf, size_t size) {
  if (tm.tm_isdst < 0) return false;
  if (tm.tm_zone != nullptr) return copyName(tm.tm_zone, buf, size);
  const struct tm *tmp = &tm;
  MV_ASSERT(tmp->tm_isdst >= 0);
  return copyName(tzname[tmp->tm_isdst > 0 ? 1 : 0], buf, size);
}

int64_t localOffset(const struct tm &tm, const void *) {
  if (tm.tm_isdst >= 0) return tm.tm_gmtoff;
  struct tm copy = tm;
  return mktime(&copy) == -1 ? NOT_FIXED : copy.tm_gmtoff;
}

// ---- A zone of the library's engine.

int64_t zoneTimeFromTm(const struct tm &tm, const void *zone) {
  const TimezoneData *tz = zoneOf(zone);
  const int64_t local = timegmOf(tm);
  const TimezoneType *type = tz->offsetFromReverseSearch(local, tm.tm_isdst);
  return type == nullptr ? -1 : subtractSaturating(local, type->gmtoff);
}

bool zoneName(const struct tm &tm, const void *zone, char *buf, size_t size) {
  const TimezoneData *tz = zoneOf(zone);
  if (tm.tm_isdst < 0) return false;
  if (tm.tm_zone != nullptr) return copyName(tm.tm_zone, buf, size);
  const TimezoneType *type = tz->offsetFromReverseSearch(timegmOf(tm), tm.tm_isdst);
  return type != nullptr && copyName(tz->abbreviation(*type), buf, size);
}

int64_t zoneOffset(const struct tm &tm, const void *zone) {
  const TimezoneData *tz = zoneOf(zone);
  if (tm.tm_isdst >= 0) return tm.tm_gmtoff;
  if (tz->fixed_offset != NOT_FIXED) return tz->fixed_offset;
  const TimezoneType *type = tz->offsetFromReverseSearch(timegmOf(tm), -1);
  return type == nullptr ? 0 : type->gmtoff;
}

// ---- UTC.

int64_t utcTimeFromTm(const struct tm &tm, const void *) { return timegmOf(tm); }

bool utcName(const struct tm &, const void *, char *buf, size_t size) {
  return copyName("UTC", buf, size);
}

int64_t utcOffset(const struct tm &, const void *) { return 0; }

}  // namespace

const TimeRenderCallbacks TIME_RENDER_LOCAL = {localTimeFromTm, localZoneName, localOffset};
const TimeRenderCallbacks TIME_RENDER_ZONE = {zoneTimeFromTm, zoneName, zoneOffset};
const TimeRenderCallbacks TIME_RENDER_UTC = {utcTimeFromTm, utcName, utcOffset};

void render(const TimeFormat &format, Str &out, const struct tm &tm, int32_t usec,
            const TimeRenderCallbacks &cb, const void *zone) {
  out.reserve(out.size() + format.max_width());
  Sink sink(out);
  EpochSide side(tm, cb, zone);
  const int64_t year = tm.tm_year + 1900LL;
  for (const TimeFormatAtom *a = format.begin(); a != format.end(); ++a) {
    MV_ASSERT(a != nullptr);
    int64_t v;
    switch (a->what) {
      case TF::LITERAL:
      case TF::WHITESPACE:
        sink.put(a->x.text, a->width);
        continue;
      case TF::EPOCH_NUM: {
        const int64_t t = cb.time_from_tm(tm, zone);
        side.set(t < 0);
        if (t >= 0) {
          putNumber(sink, static_cast<uint64_t>(t), false, a->width, a->x.conv.padding);
        } else {
          // The floor's complement when there is a fraction: -1.5 s is seconds -2, "-1".
          const uint64_t magnitude =
              usec != 0 ? static_cast<uint64_t>(~t) : 0 - static_cast<uint64_t>(t);
          putNumber(sink, magnitude, true, a->width, a->x.conv.padding);
        }
        continue;
      }
      case TF::SUBSECOND_NUM:
        putSubseconds(sink, usec, side, a);
        continue;
      case TF::TZ_AS_COLONOFFSET:
      case TF::TZ_AS_SECOFFSET:
      case TF::TZ_AS_NEEDEDOFFSET:
      case TF::TZ_AS_MINOFFSET:
      case TF::TZ_AS_HHMMOFFSET:
        putOffset(sink, cb.offset_of(tm, zone), a);
        continue;
      case TF::WEEKDAY_ABBR:
      case TF::WEEKDAY_FULL:
        putName(sink, WEEKDAYS, 7, tm.tm_wday, a);
        continue;
      case TF::MONTH_ABBR:
      case TF::MONTH_FULL:
        putName(sink, MONTHS, 12, tm.tm_mon, a);
        continue;
      case TF::AMPM:
        putText(sink, tm.tm_hour < 12 ? "am" : "pm", 2, a);
        continue;
      case TF::TZ_NAME: {
        char name[ZONE_NAME_SIZE];
        if (cb.zone_name(tm, zone, name, sizeof name)) putText(sink, name, strlen(name), a);
        continue;
      }
      case TF::YEAR_NUM:
        v = year;
        break;
      case TF::CENTURY_NUM:
        v = tm.tm_year / 100 + 19;  // truncating: 1801..1899 give 19
        break;
      case TF::YEAR2_NUM:
        v = (year % 100 + 100) % 100;
        break;
      case TF::ISOYEAR_NUM:
        v = tmIsoYear(tm);
        break;
      case TF::ISOYEAR2_NUM:
        v = (tmIsoYear(tm) % 100 + 100) % 100;
        break;
      case TF::MONTH_NUM:
        v = tm.tm_mon + 1;
        break;
      case TF::WEEK_SUN_NUM:
        v = tmWeekOfYearSunday(tm);
        break;
      case TF::WEEK_MON_NUM:
        v = tmWeekOfYearMonday(tm);
        break;
      case TF::WEEK_ISO_NUM:
        v = tmIsoWeek(tm);
        break;
      case TF::MONTHDAY_NUM:
        v = tm.tm_mday;
        break;
      case TF::YEARDAY_NUM:
        v = tm.tm_yday + 1;
        break;
      case TF::WEEKDAY0_NUM:
        v = tm.tm_wday;
        break;
      case TF::WEEKDAY1_NUM:
        v = tm.tm_wday == 0 ? 7 : tm.tm_wday;
        break;
      case TF::HOUR24_NUM:
        v = tm.tm_hour;
        break;
      case TF::HOUR12_NUM:
        v = tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
        break;
      case TF::MINUTE_NUM:
        v = tm.tm_min;
        break;
      case TF::SECOND_NUM:
        v = tm.tm_sec;
        break;
      default:
        MV_ASSERT(a->what == MONTHWEEK_NUM);
        v = (tm.tm_mday + 6) / 7;
        break;
    }
    // The common two- and four-digit fields, inline.
    if (a->x.conv.padding == PAD_ZERO && static_cast<uint64_t>(v) < 100 && a->width == 2) {
      memcpy(sink.room(2), DIGIT_PAIRS + 2 * v, 2);
    } else if (a->x.conv.padding == PAD_ZERO && static_cast<uint64_t>(v) < 10000 && a->width == 4) {
      char *p = sink.room(4);
      memcpy(p, DIGIT_PAIRS + 2 * (v / 100), 2);
      memcpy(p + 2, DIGIT_PAIRS + 2 * (v % 100), 2);
    } else {
      putSigned(sink, v, a);
    }
  }
  sink.flush();
}

void render(const TimeFormat &format, Str &out, const StructTmInTimezoneHires &tm) {
  render(format, out, tm, tm.tv_usec, TIME_RENDER_ZONE, tm.tz);
}

void render(const TimeFormat &format, Str &out, const Timeval &t, const TimezoneData *zone) {
  StructTmInTimezoneHires tm(zone);
  tm.fromUnixTime(t);
  render(format, out, tm);
}

void renderUtc(const TimeFormat &format, Str &out, const Timeval &t) {
  struct tm tm;
  int32_t usec = t._tv.tv_usec;
  if (!breakDownUtc(t._tv.tv_sec, tm)) {
    GmtStructTm far;
    if (!far.fromUnixTime(t._tv.tv_sec)) usec = t._tv.tv_sec < 0 ? 0 : 999999;
    tm = far;
  }
  render(format, out, tm, usec, TIME_RENDER_UTC);
}

void renderLocal(const TimeFormat &format, Str &out, const Timeval &t) {
  LocalStructTmHires tm;
  tm.fromUnixTime(t);
  render(format, out, tm, tm.tv_usec, TIME_RENDER_LOCAL);
}

}  // namespace morvek
