#include "basicutil/DateParser.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <set>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "basicutil/TimeFormatParse.h"
#include "basicutil/TimeRender.h"
#include "basicutil/Timezone.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

Logger logger("DateParser", false, 60, 100);
Logger verbose_logger("DateParserVerbose", true, 300, 10);

using PR = TimeFormatRawParseResult;

const char *const WARNING_TEXTS[10] = {
    "Failed to parse timestamp in first MAX_TIMESTAMP_LOOKAHEAD (%d) characters of event. "
    "Defaulting to timestamp of previous event (%s).",
    "The same timestamp has been used for %uK consecutive times.  If more than 200K events have "
    "the same timestamp, not all events may be retrieveable.",
    "Time parsed (%s) is too far away from the previous event's time (%s) to be accepted.  If "
    "this is a correct time, MAX_DIFF_SECS_AGO (%d) or MAX_DIFF_SECS_HENCE (%d) may be overly "
    "restrictive.",
    "Accepted time (%s) is suspiciously far away from the previous event's time (%s), but still "
    "accepted because it was extracted by the same pattern.",
    "Accepted time format has changed (%s), possibly indicating a problem in extracting "
    "timestamps.",
    "Ignored invalid timezone specifier \"%s\".",
    "Could not use strptime to parse timestamp from \"%s\".",
    "The TIME_FORMAT specified is matching timestamps (%s) outside of the acceptable time window. "
    "If this timestamp is correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE.",
    "Could not use regex to parse timestamp from \"%s\".",
    "A possible timestamp match (%s) is outside of the acceptable time window. If this timestamp "
    "is correct, consider adjusting MAX_DAYS_AGO and MAX_DAYS_HENCE.",
};

bool isDebugCode(int code) {
  return code == TIMESTAMP_INVALID_TIMEZONE || code == TIMESTAMP_STRPTIME_GENERIC_FAIL ||
         code == TIMESTAMP_REGEX_GENERIC_FAIL;
}

// All digits, at most max_digits of them.
bool parseDigits(StrSegment s, int64_t &out, size_t max_digits = 18) {
  if (s.empty() || s.size() > max_digits) return false;
  int64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  out = v;
  return true;
}

bool parseHex(StrSegment s, int64_t &out) {
  if (s.empty() || s.size() > 15) return false;
  int64_t v = 0;
  for (char c : s) {
    int d;
    if (c >= '0' && c <= '9') {
      d = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      d = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      d = c - 'A' + 10;
    } else {
      return false;
    }
    v = v * 16 + d;
  }
  out = v;
  return true;
}

// 0 am, 1 pm, -1 neither.
int meridian(StrSegment s) {
  switch (s[0]) {
    case 'A':
    case 'a':
      return 0;
    case 'P':
    case 'p':
      return 1;
    default:
      break;
  }
  static const struct {
    const char *text;
    int pm;
  } forms[] = {{"오전", 0}, {"오후", 1}, {"午前", 0}, {"午後", 1}, {"上午", 0}, {"下午", 1}};
  for (const auto &f : forms) {
    if (s.startsWith(StrSegment(f.text))) return f.pm;
  }
  return -1;
}

// An offset must read [+-]hh[:]mm with hours to 23; a name must start with a letter.
bool strictZoneCheck(StrSegment z) {
  char c = z[0];
  bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  if (letter) return true;
  size_t i = 0;
  if (c == '+' || c == '-') ++i;
  auto digit = [&](size_t k) { return k < z.size() && z[k] >= '0' && z[k] <= '9'; };
  if (!digit(i) || !digit(i + 1)) return false;
  if (z[i] > '2' || (z[i] == '2' && z[i + 1] > '3')) return false;
  i += 2;
  if (i < z.size() && z[i] == ':') ++i;
  if (!digit(i) || !digit(i + 1) || z[i] > '5') return false;
  return i + 2 == z.size();
}

void storeYear(PR &r, StrSegment text, int64_t value) {
  if (text.size() > 2) {
    r.year = static_cast<int32_t>(value);
    r.have |= PR::HAVE_YEAR;
  } else {
    r.year2 = static_cast<int32_t>(value);
    r.have |= PR::HAVE_YEAR2;
  }
}

// Seconds a - b, saturating.
int64_t secondsBetween(const Timeval &a, const Timeval &b) {
  int64_t d;
  if (__builtin_sub_overflow(a.seconds(), b.seconds(), &d)) return a < b ? INT64_MIN : INT64_MAX;
  return d;
}

int64_t absDiff(int64_t a, int64_t b) {
  int64_t d;
  if (__builtin_sub_overflow(a, b, &d) || d == INT64_MIN) return INT64_MAX;
  return d < 0 ? -d : d;
}

// The pattern JIT-compiled without the callouts of the Regex layer; null when that fails. Log
// text is often not valid UTF-8: such bytes must simply not match.
pcre2_code *compileFast(StrSegment pattern) {
  int err;
  PCRE2_SIZE err_offset;
  pcre2_code *code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   PCRE2_UTF | PCRE2_MATCH_INVALID_UTF, &err, &err_offset, nullptr);
  if (code != nullptr && pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) != 0) {
    pcre2_code_free(code);
    code = nullptr;
  }
  return code;
}

uint32_t codeOfName(StrSegment name) {
  static const char *const names[13] = {"year", "month",    "litmonth", "day",       "ampm",
                                        "hour", "minute",   "second",   "subsecond", "zone",
                                        "ord",  "utcepoch", "hexepoch"};
  for (uint32_t i = 0; i < 13; ++i) {
    if (name == StrSegment(names[i])) return i;
  }
  return DTCODE_IGNORED + 1;  // unknown
}

}  // namespace

// ---- Results ------------------------------------------------------------------------------------

void DateTimeParseResult::clear() {
  pr.have = 0;
  pr.conflicts = 0;
  pr.subsec = 0;
  pr.subsec_digits = 0;
  pr.finest = TimeFormat::RES_SECOND;
  pr.coarsest = TimeFormat::RES_YEAR;
  pr.tzname = nullptr;
  pr.tzname_len = 0;
  pr.pm = 0;
  zone.clear();
  invalid_zone = StrSegment();
}

void DateTimeParseResult::merge(const DateTimeParseResult &src) {
  const PR &s = src.pr;
  uint32_t take = s.have & ~pr.have;
  if (take & PR::HAVE_WEEKDAY) pr.weekday = s.weekday;
  if (take & PR::HAVE_YEARDAY) pr.yearday = s.yearday;
  if (take & PR::HAVE_MONTHWEEK) pr.monthweek = s.monthweek;
  if (take & PR::HAVE_WEEK_ISO) pr.week_iso = s.week_iso;
  if (take & PR::HAVE_WEEK_MON) pr.week_mon = s.week_mon;
  if (take & PR::HAVE_WEEK_SUN) pr.week_sun = s.week_sun;
  if (take & PR::HAVE_ISOYEAR2) pr.isoyear2 = s.isoyear2;
  if (take & PR::HAVE_ISOYEAR) pr.isoyear = s.isoyear;
  if (take & PR::HAVE_SUBSEC) {
    pr.subsec = s.subsec;
    pr.subsec_digits = s.subsec_digits;
  }
  if (take & PR::HAVE_SECOND) pr.second = s.second;
  if (take & PR::HAVE_MINUTE) pr.minute = s.minute;
  if (take & PR::HAVE_AMPM) pr.pm = s.pm;
  if (take & PR::HAVE_HOUR12) pr.hour12 = s.hour12;
  if (take & PR::HAVE_HOUR24) pr.hour = s.hour;
  if (take & PR::HAVE_MONTHDAY) pr.monthday = s.monthday;
  if (take & PR::HAVE_MONTH) pr.month = s.month;
  if (take & PR::HAVE_YEAR2) pr.year2 = s.year2;
  if (take & PR::HAVE_CENTURY) pr.century = s.century;
  if (take & PR::HAVE_YEAR) pr.year = s.year;
  if (take & PR::HAVE_TZNAM) zone.assign(src.zone);
  if (take & PR::HAVE_TZOFF) pr.tzoffset = s.tzoffset;
  if (take & PR::HAVE_EPOCH) pr.epoch = s.epoch;
  pr.have |= s.have;
  pr.conflicts += s.conflicts;
  fixZone();
}

// ---- Lists --------------------------------------------------------------------------------------

DateTimeRegexList::~DateTimeRegexList() = default;

int TimeRegexList::parse(const DateTimeCaptures &c, DateTimeParseResult &result) {
  PR &r = result.pr;
  const StrSegment &hex = c.part[DTCODE_HEXEPOCH];
  if (!hex.empty()) {
    if (!parseHex(hex, r.epoch)) return -1;
    r.have |= PR::HAVE_EPOCH;
    return 4;
  }
  const StrSegment &utc = c.part[DTCODE_UTCEPOCH];
  if (!utc.empty()) {
    if (utc.size() < 17 || utc[0] != '@') {
      if (!parseDigits(utc, r.epoch)) return -1;
      const StrSegment &sub = c.part[DTCODE_SUBSECOND];
      if (!sub.empty()) setFracsec(r, sub.begin(), sub.end());
    } else if (!parseHex(utc.substr(9, 8), r.epoch) || utc.size() < 17) {
      return -1;
    }
    r.have |= PR::HAVE_EPOCH;
    return 4;
  }

  const StrSegment &hour = c.part[DTCODE_HOUR];
  int64_t h;
  if (hour.empty() || !parseDigits(hour, h, 2)) return -1;
  int score;
  const StrSegment &ampm = c.part[DTCODE_AMPM];
  if (h >= 1 && h <= 12 && !ampm.empty()) {
    MV_ASSERT(!ampm.empty());
    int pm = meridian(ampm);
    if (pm < 0) return -1;
    score = static_cast<int>(hour.size()) + 4;
    r.hour12 = h == 12 ? 0 : static_cast<int32_t>(h);
    r.pm = static_cast<uint8_t>(pm);
    r.have |= PR::HAVE_HOUR12 | PR::HAVE_AMPM;
  } else {
    if (h > 23) return -1;
    score = static_cast<int>(hour.size()) + 1;
    r.hour = static_cast<int32_t>(h);
    r.have |= PR::HAVE_HOUR24;
  }

  int64_t v;
  if (!parseDigits(c.part[DTCODE_MINUTE], v, 2) || v > 59) return -1;
  r.minute = static_cast<int32_t>(v);
  r.have |= PR::HAVE_MINUTE;

  const StrSegment &second = c.part[DTCODE_SECOND];
  if (!second.empty()) {
    if (!parseDigits(second, v, 2) || v > 60) return -1;
    r.second = static_cast<int32_t>(std::min<int64_t>(v, 59));
    r.have |= PR::HAVE_SECOND;
    score += 6;
    const StrSegment &sub = c.part[DTCODE_SUBSECOND];
    if (!sub.empty()) {
      score += static_cast<int>(sub.size());
      setFracsec(r, sub.begin(), sub.end());
    }
  } else {
    score += 3;
  }

  const StrSegment &zone = c.part[DTCODE_ZONE];
  if (!zone.empty()) {
    size_t zlen = zone.size();
    MV_ASSERT(zlen > 0);
    if (strictZoneCheck(zone)) {
      result.zone.assign(zone.data(), zlen);
      r.have |= PR::HAVE_TZNAM;
      result.fixZone();
      score += static_cast<int>(zlen) + 1;
    } else {
      result.invalid_zone = zone;
    }
  }
  return score;
}

bool TimeRegexList::validate(DateTimeParseResult &, DateParser &) { return true; }

int DateRegexList::parse(const DateTimeCaptures &c, DateTimeParseResult &result) {
  PR &r = result.pr;
  int64_t v;
  const StrSegment &year = c.part[DTCODE_YEAR];
  int64_t y = 0;
  if (!year.empty() && !parseDigits(year, y, 9)) return -1;

  const StrSegment &ord = c.part[DTCODE_ORD];
  if (!ord.empty()) {
    if (!parseDigits(ord, v, 3) || v < 1 || v > 366 || year.empty()) return -1;
    r.yearday = static_cast<int32_t>(v - 1);
    r.have |= PR::HAVE_YEARDAY;
    storeYear(r, year, y);
    return 8;
  }

  if (!parseDigits(c.part[DTCODE_DAY], v, 2) || v < 1 || v > 31) return -1;
  r.monthday = static_cast<int32_t>(v);
  r.have |= PR::HAVE_MONTHDAY;

  int score;
  const StrSegment &lit = c.part[DTCODE_LITMONTH];
  if (!lit.empty()) {
    if (lit.size() < 3) return -1;
    int m = lit.size() == 3 ? monthFromAbbr(lit.begin(), lit.end())
                            : monthFromName(lit.begin(), lit.end());
    if (m < 0) m = monthFromCjk(lit.begin(), lit.end());
    if (m < 0) return -1;
    r.month = m;
    score = 11;
  } else {
    if (!parseDigits(c.part[DTCODE_MONTH], v, 2) || v < 1 || v > 12) return -1;
    r.month = static_cast<int32_t>(v - 1);
    score = 6;
  }
  r.have |= PR::HAVE_MONTH;
  if (!year.empty()) {
    storeYear(r, year, y);
    score += static_cast<int>(year.size()) + 1;
  }
  return score;
}

bool DateRegexList::validate(DateTimeParseResult &result, DateParser &parser) {
  PR copy = result.pr;  // the resolution may fill fields in
  Timeval t;
  return t.set(copy, &parser.guesser(), nullptr) && parser.inWindow(t);
}

// ---- The pattern set ----------------------------------------------------------------------------

DateTimeRegexes::DateTimeRegexes() = default;
DateTimeRegexes::~DateTimeRegexes() {
  for (auto &entry : _by_pattern) pcre2_code_free(entry.second->fast);
}

DateTimeRegexes &DateTimeRegexes::shared() {
  static DateTimeRegexes *regexes = new DateTimeRegexes();
  return *regexes;
}

DateTimeRegex *DateTimeRegexes::addTime(StrSegment pattern, StrSegment label) {
  return add(_time, pattern, label);
}
DateTimeRegex *DateTimeRegexes::addDate(StrSegment pattern, StrSegment label) {
  return add(_date, pattern, label);
}

DateTimeRegex *DateTimeRegexes::add(DateTimeRegexList &list, StrSegment pattern, StrSegment label) {
  Str key(pattern.data(), pattern.size());
  auto it = _by_pattern.find(key);
  if (it == _by_pattern.end()) {
    auto owned = std::make_unique<DateTimeRegex>();
    owned->pattern = key;
    owned->label.assign(label.data(), label.size());
    try {
      owned->regex = Regex(pattern);
    } catch (const RegexException &e) {
      logger.error("Cannot compile RE \"%s\": %s", key.c_str(), e.what());
    }
    if (!owned->regex.empty()) owned->fast = compileFast(key);
    owned->codes.assign(owned->regex.getCaptureGroupCount(), DTCODE_IGNORED);
    for (const RegexNamedGroup &g : owned->regex.namedGroups()) {
      StrSegment name(g.name, g.name_len);
      uint32_t code = codeOfName(name);
      if (code > DTCODE_IGNORED) {
        if (!name.startsWith("ignored_")) {
          Str n(name.data(), name.size());
          logger.warn("Found unknown extraction \"%s\" in RE \"%s\", ignoring it", n.c_str(),
                      key.c_str());
        }
        code = DTCODE_IGNORED;
      }
      if (g.index < owned->codes.size()) owned->codes[g.index] = code;
    }
    it = _by_pattern.emplace(std::move(key), std::move(owned)).first;
  }
  DateTimeRegex *re = it->second.get();
  if (std::find(list.entries.begin(), list.entries.end(), re) == list.entries.end()) {
    list.entries.push_back(re);
  }
  return re;
}

bool DateTimeRegexes::loadFile(const char *path, Str &error) {
  FILE *f = fopen(path, "rb");
  if (f == nullptr) {
    error.assign(Str(Str::FORMAT, "%s:0: cannot open: %s", path, strerror(errno)));
    return false;
  }
  Str text;
  char buf[8192];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  bool failed = ferror(f) != 0;
  int saved = errno;
  fclose(f);
  if (failed) {
    error.assign(Str(Str::FORMAT, "%s:0: cannot read: %s", path, strerror(saved)));
    return false;
  }
  return loadText(text, StrSegment(path), error);
}

bool DateTimeRegexes::loadText(StrSegment text, StrSegment source_name, Str &error) {
  static const ByteSet blanks(" \t", true);
  static const ByteSet label_chars(
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.:-", true);
  const Str source(source_name.data(), source_name.size());
  DateTimeRegexList *section = nullptr;
  std::set<Str> labels[2];
  Str label, pattern;
  size_t entry_line = 0, line_no = 0;
  bool pending = false;

  auto fail = [&](size_t line, const char *what) {
    error.assign(Str(Str::FORMAT, "%s:%zu: %s", source.c_str(), line, what));
    return false;
  };
  auto flush = [&]() {
    if (!pending) return true;
    pending = false;
    if (pattern.empty()) return fail(entry_line, "entry without a pattern");
    DateTimeRegex *re = add(*section, pattern, label);
    if (re->regex.empty()) {
      return fail(entry_line,
                  Str(Str::FORMAT, "pattern of %s does not compile", label.c_str()).c_str());
    }
    return true;
  };

  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == StrSegment::npos) nl = text.size();
    StrSegment line = text.substr(pos, nl - pos);
    pos = nl + 1;
    ++line_no;
    if (!line.empty() && line.back() == '\r') line = StrSegment(line.data(), line.size() - 1);
    StrSegment content = line.trimmed(blanks);
    if (content.empty() || line[0] == '#') continue;

    if (blanks.contains(line[0])) {
      if (content[0] == '#') continue;
      if (!pending) return fail(line_no, "continuation line without an entry");
      pattern.append(content.data(), content.size());
      continue;
    }
    if (!flush()) return false;
    if (line[0] == '[') {
      size_t close = content.find(']');
      StrSegment name = close == StrSegment::npos ? StrSegment() : content.substr(1, close - 1);
      StrSegment after = close == StrSegment::npos ? StrSegment() : content.substr(close + 1);
      after = after.trimmed(blanks);
      if (close == StrSegment::npos || (!after.empty() && after[0] != '#')) {
        return fail(line_no, "malformed section header");
      }
      if (name == StrSegment("time")) {
        section = &_time;
      } else if (name == StrSegment("date")) {
        section = &_date;
      } else {
        return fail(line_no,
                    Str(Str::FORMAT, "unknown section [%s]", Str(name.data(), name.size()).c_str())
                        .c_str());
      }
      continue;
    }
    if (section == nullptr) return fail(line_no, "entry outside a section");
    size_t label_end = content.find_first_of(blanks);
    StrSegment lab = content.substr(0, label_end);
    if (lab.find_first_of(label_chars, 0, false) != StrSegment::npos) {
      return fail(line_no, "bad label");
    }
    label.assign(lab.data(), lab.size());
    if (!labels[section == &_time ? 0 : 1].insert(label).second) {
      return fail(line_no, Str(Str::FORMAT, "duplicate label %s", label.c_str()).c_str());
    }
    StrSegment rest = label_end == StrSegment::npos ? StrSegment() : content.substr(label_end);
    rest = rest.trimmed(blanks);
    pattern.assign(rest.data(), rest.size());
    entry_line = line_no;
    pending = true;
  }
  return flush();
}

// ---- The guesser --------------------------------------------------------------------------------

bool DateParserGuesser::lookupZone(const char *name, TzSpec &spec) {
  if (name == nullptr || *name == '\0') {
    if (override_set) {
      spec = override_spec;
      return true;
    }
    return TimeGuesser::lookupZone(name, spec);
  }
  if (cached_zone_name[0] != '\0' && strcmp(name, cached_zone_name) == 0) {
    spec = cached_zone_spec;
    return true;
  }
  bool ok = false;
  bool aliased = false;
  if (!aliases.empty()) {
    auto it = aliases.find(Str(name));
    if (it != aliases.end()) {
      aliased = true;
      ok = TimeGuesser::lookupZone(it->second.c_str(), spec);
    }
  }
  if (!aliased) ok = TimeGuesser::lookupZone(name, spec);
  if (ok) {
    size_t n = strlen(name);
    if (n < sizeof cached_zone_name) {
      memcpy(cached_zone_name, name, n + 1);
      cached_zone_spec = spec;
      cached_hour_bucket = -1;
    }
    return true;
  }
  if (override_set) {
    spec = override_spec;
    return true;
  }
  return false;
}

bool DateParserGuesser::localToUtc(TzSpec spec, int64_t &t) {
  if (spec.is_fixed) return TimeGuesser::localToUtc(spec, t);
  int64_t bucket = t >= 0 ? t / 3600 : -((-(t + 1)) / 3600) - 1;
  if (bucket == cached_hour_bucket && spec.zone == cached_hour_zone) {
    t += cached_hour_delta;
    return true;
  }
  int64_t local = t;
  if (TimeGuesser::localToUtc(spec, t)) {
    cached_hour_bucket = bucket;
    cached_hour_zone = spec.zone;
    cached_hour_delta = t - local;
    return true;
  }
  cached_hour_bucket = -1;
  return false;
}

int64_t DateParserGuesser::anchorTime() {
  if (use_system_now) return Timeval::now().seconds();
  if (previous != ZERO_TIME) return previous.seconds();
  if (now != ZERO_TIME) return now.seconds();
  return Timeval::now().seconds();
}

bool DateParserGuesser::anchorIsFuture() { return previous != ZERO_TIME; }

bool DateParserGuesser::guessDate(TimeFormatRawParseResult &r, TzSpec spec) {
  if (base_date.year == -1) return TimeGuesser::guessDate(r, spec);
  if (!(r.have & PR::HAVE_MINUTE)) return false;
  int32_t hour;
  if (r.have & PR::HAVE_HOUR24) {
    hour = r.hour;
  } else if ((r.have & PR::HAVE_HOUR12) && (r.have & PR::HAVE_AMPM)) {
    hour = r.hour12 + 12 * r.pm;
  } else {
    return false;
  }
  if (static_cast<int64_t>(base_date.hour - hour) * 3600 > max_diff_ago) {
    time_t next =
        static_cast<time_t>(dayStartTime(base_date.year, base_date.month, base_date.day) + 86400);
    struct tm tm;
    gmtime_r(&next, &tm);
    base_date.year = tm.tm_year + 1900;
    base_date.month = tm.tm_mon;
    base_date.day = tm.tm_mday;
  }
  base_date.hour = hour;
  r.year = base_date.year;
  r.month = base_date.month;
  r.monthday = base_date.day;
  r.hour = hour;
  return true;
}

const TimezoneData *DateParserGuesser::defaultZone() {
  return default_zone != nullptr ? default_zone : getTimezone();
}

// ---- The parser ---------------------------------------------------------------------------------

EnvContextCallback::~EnvContextCallback() = default;

void EnvContextCallback::append(Str &message) { message.append(_context); }

DateParser::DateParser(bool use_cache, DateTimeRegexes *set)
    : _regexes(set != nullptr ? set : &DateTimeRegexes::shared()), _use_cache(use_cache) {
  _cached_date_result.clear();
  _time_result.clear();
  _date_result.clear();
  _scratch.clear();
  _details_cache = {};
  verbose_logger.debug("Setting maxDaysAgo=%d and maxDaysHence=%d",
                       static_cast<int>(_guesser.max_ago_secs / 86400),
                       static_cast<int>(_guesser.max_hence_secs / 86400));
}

DateParser::~DateParser() {
  pcre2_match_data_free(_match_data);
  pcre2_code_free(_prefix_fast);
}

void DateParser::setMode(int mode) { _mode = mode; }
void DateParser::setLookahead(int32_t n) { _lookahead = n; }

bool DateParser::setPrefix(StrSegment regex) {
  if (regex.empty()) {
    _prefix.clear();
  } else if (!_prefix.tryAssign(regex)) {
    return false;
  }
  pcre2_code_free(_prefix_fast);
  _prefix_fast = _prefix.empty() ? nullptr : compileFast(regex);
  return true;
}

bool DateParser::setFormat(StrSegment time_format) {
  if (time_format.empty()) {
    _format.clear();
    return true;
  }
  return _format.setForParse(time_format.data(), time_format.size());
}

void DateParser::setMaxDiffSecs(int32_t ago, int32_t hence) {
  if (ago > 0) _guesser.max_diff_ago = ago;
  if (hence > 0) _guesser.max_diff_hence = hence;
}

void DateParser::setMaxDays(int32_t ago, int32_t hence) {
  if (ago >= 0) _guesser.max_ago_secs = std::min(ago, MAX_DAYS_LIMIT) * 86400LL;
  if (hence >= 0) _guesser.max_hence_secs = std::min(hence, MAX_DAYS_LIMIT) * 86400LL;
  verbose_logger.debug("Setting maxDaysAgo=%d and maxDaysHence=%d",
                       static_cast<int>(_guesser.max_ago_secs / 86400),
                       static_cast<int>(_guesser.max_hence_secs / 86400));
}

bool DateParser::setDefaultZoneText(StrSegment zone) {
  Str name(zone.data(), zone.size());
  _guesser.cached_zone_name[0] = '\0';
  if (name.empty()) {
    _guesser.override_set = false;
    return true;
  }
  TzSpec spec;
  _guesser.override_set = _guesser.TimeGuesser::lookupZone(name.c_str(), spec);
  if (_guesser.override_set) {
    _guesser.override_spec = spec;
    logger.info("Set timezone to: %s", name.c_str());
  } else {
    logger.info("Invalid TZ string: %s", name.c_str());
  }
  return _guesser.override_set;
}

void DateParser::setDefaultZone(const TimezoneData *zone) {
  _guesser.default_zone = zone;
  _guesser.cached_hour_bucket = -1;
}

bool DateParser::setTzAlias(StrSegment tz_alias) {
  std::map<Str, Str> parsed;
  _guesser.aliases.clear();
  _guesser.cached_zone_name[0] = '\0';
  if (!parseTzAlias(tz_alias, parsed)) return false;
  return applyTzAliases(parsed);
}

bool DateParser::applyTzAliases(const std::map<Str, Str> &aliases) {
  bool all_valid = true;
  for (const auto &[key, value] : aliases) {
    TzSpec spec;
    if (_guesser.TimeGuesser::lookupZone(value.c_str(), spec)) {
      _guesser.aliases[key] = value;
      logger.debug(" %s looks valid. Will set %s timezone to: %s", value.c_str(), key.c_str(),
                   value.c_str());
    } else {
      logger.error("Invalid TZ Alias %s for string: %s", value.c_str(), key.c_str());
      all_valid = false;
    }
  }
  _guesser.cached_zone_name[0] = '\0';
  return all_valid;
}

void DateParser::setContext(StrSegment text) {
  _context.assign(" Context: ");
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      _context.append("%%");
    } else if (c == ':' && i + 1 < text.size() && text[i + 1] == ':') {
      _context.push_back('=');
      ++i;
    } else {
      _context.push_back(c);
    }
  }
}

void DateParser::setUseSystemNow(bool use) { _guesser.use_system_now = use; }

bool DateParser::inWindow(const Timeval &t) {
  Timeval now = _guesser.now != ZERO_TIME ? _guesser.now : Timeval::now();
  if (t > now) {
    if (secondsBetween(t, now) <= _guesser.max_hence_secs) return true;
  } else if (secondsBetween(now, t) <= _guesser.max_ago_secs) {
    return true;
  }
  // A clock-forgiving last chance: the stream's notion of now may be off.
  return absDiff(t.seconds(), Timeval::now().seconds()) <= 86400;
}

bool DateParser::shouldWarn(Logger &log, int code) {
  if (code < 0 || code > TIMESTAMP_REGEX_OUTSIDE_WINDOW) return false;
  if (isDebugCode(code)) return log.isDebugEnabled();
  return true;
}

void DateParser::warn(Logger &log, int code, ...) {
  if (code < 0 || code > TIMESTAMP_REGEX_OUTSIDE_WINDOW) return;
  if (!shouldWarn(log, code)) return;
  va_list ap;
  va_start(ap, code);
  vwarn(log, code, WARNING_TEXTS[code], ap);
  va_end(ap);
}

void DateParser::vwarn(Logger &log, int code, const char *format, va_list ap) {
  EnvContextCallback cb(_context);
  if (isDebugCode(code)) {
    log.vdebug(&cb, format, ap);
  } else {
    log.vwarn(&cb, format, ap);
  }
}

void DateParser::warnText(int code, StrSegment text) {
  if (!shouldWarn(verbose_logger, code)) return;
  size_t n = std::min<size_t>(text.size(), 100);
  _warn_text.assign(text.data(), n);
  for (char &c : _warn_text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  warn(verbose_logger, code, _warn_text.c_str());
}

void DateParser::timeText(Str &out, const Timeval &t) {
  out.clear();
  renderUtc(standardTimeFormat(TIMEFORMAT_ISO8601), out, t);
}

bool DateParser::prepareText(StrSegment &text, int32_t &shift) {
  shift = 0;
  if (_prefix_fast != nullptr) {
    if (!matchFast(_prefix_fast, text, 1)) return false;
    size_t end = pcre2_get_ovector_pointer(_match_data)[1];
    shift = static_cast<int32_t>(end);
    text = text.substr(end);
  } else if (!_prefix.empty()) {
    StrSegment rest;
    if (!_prefix.matchBase(text.data(), text.size(), nullptr, nullptr, &rest)) return false;
    shift = static_cast<int32_t>(rest.data() - text.data());
    text = rest;
  }
  if (_lookahead > 0 && text.size() > static_cast<size_t>(_lookahead)) {
    text = StrSegment(text.data(), static_cast<size_t>(_lookahead));
  }
  return !text.empty();
}

int DateParser::matchFast(pcre2_real_code_8 *code, StrSegment text, uint32_t pairs) {
  if (pairs > _match_pairs) {
    pcre2_match_data_free(_match_data);
    _match_pairs = std::max<uint32_t>(pairs, 16);
    _match_data = pcre2_match_data_create(_match_pairs, nullptr);
    if (_match_data == nullptr) {
      _match_pairs = 0;
      throw std::bad_alloc();
    }
  }
  int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, 0,
                       _match_data, nullptr);
  return rc < 0 ? 0 : rc;
}

bool DateParser::matchOne(DateTimeRegex &re, StrSegment text, int32_t &begin, int32_t &end) {
  DateTimeCaptures &c = _captures;
  const size_t groups = re.codes.size();
  if (re.fast != nullptr) {
    int rc = matchFast(re.fast, text, static_cast<uint32_t>(groups) + 1);
    if (rc <= 0) return false;
    const PCRE2_SIZE *ov = pcre2_get_ovector_pointer(_match_data);
    for (StrSegment &p : c.part) p = StrSegment();
    c.count = 0;
    for (size_t i = 0; i < groups && static_cast<int>(i) + 1 < rc; ++i) {
      uint32_t code = re.codes[i];
      PCRE2_SIZE s = ov[2 * i + 2], e = ov[2 * i + 3];
      if (code < DTCODE_IGNORED && s != PCRE2_UNSET && e > s) {
        c.part[code] = StrSegment(text.data() + s, e - s);
        ++c.count;
      }
    }
    begin = static_cast<int32_t>(ov[0]);
    end = static_cast<int32_t>(std::max(ov[0], ov[1]));
    return true;
  }
  if (!re.regex.matchBase(text.data(), text.size(), nullptr, &_match, nullptr)) return false;
  for (StrSegment &p : c.part) p = StrSegment();
  c.count = 0;
  size_t n = std::min(_match.size(), groups);
  for (size_t i = 0; i < n; ++i) {
    uint32_t code = re.codes[i];
    if (code < DTCODE_IGNORED && !_match[i].empty()) {
      c.part[code] = _match[i];
      ++c.count;
    }
  }
  begin = static_cast<int32_t>(_match.getMatchStart());
  end = static_cast<int32_t>(_match.getMatchEnd());
  return true;
}

bool DateParser::runList(DateTimeRegexList &list, DateTimeListState &state, StrSegment text,
                         DateTimeParseResult &result, int32_t &begin, int32_t &end, bool strict) {
  DateTimeRegex *const old_last = state.last_regex;
  const uint32_t old_hits = state.hits;
  bool found = false;
  int best = -1;
  int32_t best_begin = INT32_MAX;
  int32_t b, e;

  if (_use_cache && old_last != nullptr) {
    if (matchOne(*old_last, text, b, e)) {
      _scratch.clear();
      int score = list.parse(_captures, _scratch);
      if (score >= 0) {
        if (state.hits > 9) {
          if (strict && _captures.count != state.capture_count) {
            ++_misses;
            return false;
          }
          std::swap(result, _scratch);
          result.fixZone();
          begin = b;
          end = e;
          if (!result.invalid_zone.empty())
            warnText(TIMESTAMP_INVALID_TIMEZONE, result.invalid_zone);
          return true;
        }
        ++state.hits;
        std::swap(result, _scratch);
        result.fixZone();
        best = score;
        best_begin = begin = b;
        end = e;
        found = true;
      }
    }
    if (!found) {
      if (strict && state.hits > 9) return false;
      if (!strict) state.hits = 0;
    }
  }

  bool refused = false;
  StrSegment refused_text;
  for (DateTimeRegex *re : list.entries) {
    if (_use_cache && re == old_last) continue;
    if (!matchOne(*re, text, b, e) || _captures.count == 0) continue;
    _scratch.clear();
    int score = list.parse(_captures, _scratch);
    if (score < 0) continue;
    if (!(score > best || (score == best && b < best_begin))) continue;
    if (!list.validate(_scratch, *this)) {
      refused = true;
      refused_text = text;
      continue;
    }
    refused = false;
    std::swap(result, _scratch);
    result.fixZone();
    best = score;
    best_begin = begin = b;
    end = e;
    state.last_regex = re;
    state.hits = 1;
    state.capture_count = _captures.count;
    found = true;
  }

  if (!found) {
    if (refused) warnText(TIMESTAMP_REGEX_GENERIC_FAIL, refused_text);
    return false;
  }
  if (state.last_regex != old_last && old_last != nullptr && old_hits >= 10) {
    warn(verbose_logger, TIMESTAMP_FORMAT_CHANGED, state.last_regex->pattern.c_str());
  }
  if (!result.invalid_zone.empty()) warnText(TIMESTAMP_INVALID_TIMEZONE, result.invalid_zone);
  return true;
}

bool DateParser::convert(Timeval &out, DateTimeParseResult &r, ParseDetails *details) {
  r.fixZone();
  Timeval t;
  if (!t.set(r.pr, &_guesser, details)) return false;
  out = t;
  return true;
}

bool DateParser::formatParse(Timeval &out, StrSegment text, ParseDetails *details,
                             int32_t &consumed) {
  int64_t n = parseTime(_format, text, out, &_guesser, nullptr, details);
  if (n < 0) return false;
  consumed = static_cast<int32_t>(n);
  return true;
}

void DateParser::forgetPatterns() {
  _time_state = DateTimeListState();
  _date_state = DateTimeListState();
  _cached_hour = _cached_minute = -1;
}

bool DateParser::dateTimeFromString(Timeval &out, StrSegment text, int32_t *date_begin,
                                    int32_t *date_end, int32_t *time_begin, int32_t *time_end,
                                    ParseDetails *details) {
  int32_t dbeg = -1, dend = -1, tbeg = -1, tend = -1;
  for (int32_t *p : {date_begin, date_end, time_begin, time_end}) {
    if (p != nullptr) *p = -1;
  }
  _misses = 0;
  int32_t shift;
  if (!prepareText(text, shift)) return false;

  ParseDetails found_details;
  Timeval t;
  bool accepted = false;

  if (!_format.empty()) {
    int32_t consumed;
    if (formatParse(t, text, &found_details, consumed)) {
      if (!inWindow(t)) {
        if (shouldWarn(verbose_logger, TIMESTAMP_STRPTIME_OUTSIDE_WINDOW)) {
          timeText(_warn_text, t);
          warn(verbose_logger, TIMESTAMP_STRPTIME_OUTSIDE_WINDOW, _warn_text.c_str());
        }
        return false;
      }
      dbeg = 0;
      tend = consumed;
      accepted = true;
    } else {
      warnText(TIMESTAMP_STRPTIME_GENERIC_FAIL, text);
    }
  }

  if (!accepted) {
    TimeRegexList &times = _regexes->timeList();
    bool reuse_allowed = true;
    bool epoch;
    for (;;) {
      if (!runList(times, _time_state, text, _time_result, tbeg, tend, false)) return false;
      const PR &r = _time_result.pr;
      epoch = (r.have & PR::HAVE_EPOCH) != 0;
      if (epoch || !reuse_allowed || !_use_cache || !(r.have & PR::HAVE_HOUR24) ||
          !(r.have & PR::HAVE_MINUTE) || _avg_gap >= 600 || r.hour != _cached_hour ||
          r.minute != _cached_minute) {
        break;
      }
      size_t cb = static_cast<size_t>(_cached_date_begin);
      if (cb + _cached_date_text.size() <= text.size() &&
          StrSegment(text.data() + cb, _cached_date_text.size()) == _cached_date_text) {
        _time_result.merge(_cached_date_result);
        if (convert(t, _time_result, &found_details) && inWindow(t)) {
          dbeg = _cached_date_begin;
          dend = _cached_date_end;
          accepted = true;
          break;
        }
      }
      forgetPatterns();
      _avg_gap = 600;
      reuse_allowed = false;
    }

    if (!accepted) {
      if (!epoch) {
        int32_t b, e;
        DateTimeParseResult &dateps = _date_result;
        if (runList(_regexes->dateList(), _date_state, text, dateps, b, e, false)) {
          MV_ASSERT((dateps.pr.have & TimeFormatRawParseResult::HAVE_TZNAM) == 0);
          _time_result.merge(dateps);
          std::swap(_cached_date_result, dateps);
          const PR &r = _time_result.pr;
          bool h24 = (r.have & PR::HAVE_HOUR24) != 0;
          _cached_hour = h24 ? r.hour : -1;
          _cached_minute = h24 ? r.minute : -1;
          dbeg = std::max(b, 0);
          dend = std::max(e, dbeg);
          _cached_date_begin = dbeg;
          _cached_date_end = dend;
          _cached_date_text.assign(text.data() + dbeg, static_cast<size_t>(dend - dbeg));
        }
      }
      bool converted = convert(t, _time_result, &found_details);
      if (!converted || !inWindow(t)) {
        if (converted && shouldWarn(verbose_logger, TIMESTAMP_REGEX_OUTSIDE_WINDOW)) {
          timeText(_warn_text, t);
          warn(verbose_logger, TIMESTAMP_REGEX_OUTSIDE_WINDOW, _warn_text.c_str());
        }
        forgetPatterns();
        return false;
      }
    }
  }

  if (_guesser.override_set) found_details.zone_given = 1;
  const Timeval &previous = _guesser.previous;
  if (_use_cache && previous != ZERO_TIME && t > previous) {
    int64_t gap = std::min<int64_t>(secondsBetween(t, previous), 86400);
    _avg_gap = static_cast<int32_t>((2 * static_cast<int64_t>(_avg_gap) + gap) / 3);
  }
  _details_cache = found_details;
  _details_valid = true;
  if (details != nullptr) *details = found_details;
  out = t;
  auto report = [shift](int32_t *p, int32_t v) {
    if (p != nullptr) *p = v < 0 ? -1 : v + shift;
  };
  report(date_begin, dbeg);
  report(date_end, dend);
  report(time_begin, tbeg);
  report(time_end, tend);
  return true;
}

bool DateParser::parse(Timeval &out, StrSegment text, Timeval event_time, int32_t *date_begin,
                       int32_t *date_end, int32_t *time_begin, int32_t *time_end,
                       ParseDetails *details) {
  _used_previous = false;
  if (_mode == 0) return false;
  if (_mode == 2) {
    out = Timeval::now();
    if (details != nullptr) {
      *details = {};
      details->precision = TimeFormat::RES_NONE;
    }
    return true;
  }
  _guesser.now = event_time;
  if (!dateTimeFromString(out, text, date_begin, date_end, time_begin, time_end, details)) {
    out = _guesser.previous;
    if (out == ZERO_TIME) return false;
    if (details != nullptr) {
      if (!_details_valid) return false;
      *details = _details_cache;
    }
    _used_previous = true;
    if (verbose_logger.isEnabledFor(LOG_WARN) &&
        shouldWarn(verbose_logger, TIMESTAMP_USING_PREVIOUS)) {
      timeText(_warn_text, out);
      warn(verbose_logger, TIMESTAMP_USING_PREVIOUS, static_cast<int>(_lookahead),
           _warn_text.c_str());
    }
  }
  if (out == _guesser.previous) {
    if (++_same_time_count % 100000 == 0) {
      warn(verbose_logger, TIMESTAMP_CONSECUTIVE_LIMIT, _same_time_count / 1000);
    }
  } else {
    _same_time_count = 0;
  }
  _guesser.previous = out;
  return true;
}

bool DateParser::isTimestampLine(StrSegment text) {
  if (_mode == 2) return true;
  if (_mode == 0) return false;
  int32_t shift;
  if (!prepareText(text, shift)) return false;
  if (!_format.empty()) {
    Timeval t;
    int32_t consumed;
    if (formatParse(t, text, nullptr, consumed)) return true;
    warnText(TIMESTAMP_STRPTIME_GENERIC_FAIL, text);
  }
  const bool strict = _misses < 10;
  const DateTimeListState time_before = _time_state, date_before = _date_state;
  int32_t b, e;
  if (!runList(_regexes->timeList(), _time_state, text, _time_result, b, e, strict)) return false;
  if (_time_result.pr.have & PR::HAVE_EPOCH) return true;
  bool date_found = runList(_regexes->dateList(), _date_state, text, _date_result, b, e, strict);
  const Timeval &previous = _guesser.previous;
  if (!strict || !date_found || previous == ZERO_TIME) return date_found;

  _time_result.merge(_date_result);
  Timeval t;
  if (convert(t, _time_result, nullptr)) {
    int64_t diff = secondsBetween(t, previous);
    if (diff >= -static_cast<int64_t>(_guesser.max_diff_ago) && diff <= _guesser.max_diff_hence) {
      return true;
    }
  }
  Str when, before;
  timeText(when, t);
  timeText(before, previous);
  if (_time_state.last_regex == time_before.last_regex && _time_state.hits == time_before.hits &&
      _date_state.last_regex == date_before.last_regex && _date_state.hits == date_before.hits) {
    warn(verbose_logger, TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS, when.c_str(), before.c_str());
    return true;
  }
  ++_misses;
  warn(verbose_logger, TIMESTAMP_TOO_FAR_FROM_PREVIOUS, when.c_str(), before.c_str(),
       static_cast<int>(_guesser.max_diff_ago), static_cast<int>(_guesser.max_diff_hence));
  return false;
}

void DateParser::setSource(StrSegment name) {
  Str text("source::");
  text.append(name.data(), name.size());
  DateTimeListState state;
  DateTimeParseResult r;
  r.clear();
  int32_t b, e;
  bool saved_cache = _use_cache;
  _use_cache = false;
  bool found = runList(_regexes->dateList(), state, text, r, b, e, false);
  _use_cache = saved_cache;
  if (!found) return;
  PR &pr = r.pr;
  if (pr.have & PR::HAVE_YEAR2) {
    pr.year = _guesser.expandTwoDigitYear(pr.year2);
    pr.have |= PR::HAVE_YEAR;
  }
  if (!(pr.have & PR::HAVE_YEAR)) {
    if (!_guesser.guessYear(pr)) return;
  }
  if (!(pr.have & PR::HAVE_MONTH) && !computeMmddFromYday(pr)) return;
  _guesser.base_date.year = pr.year;
  _guesser.base_date.month = pr.month;
  _guesser.base_date.day = pr.monthday;
  _guesser.base_date.hour = 0;
}

// ---- TZ_ALIAS -----------------------------------------------------------------------------------

bool parseTzAlias(StrSegment text, std::map<Str, Str> &out) {
  if (text.empty()) return true;
  const Str whole(text.data(), text.size());
  bool error = false;
  std::vector<StrSegment> items, parts;
  text.split(items, ',');
  for (const StrSegment &item : items) {
    const Str item_text(item.data(), item.size());
    parts.clear();
    item.split(parts, '=');
    if (parts.size() != 2) {
      logger.error(
          "TZ_ALIAS: While parsing '%s', incorrect number (not 1) of '=' in Timezone pair '%s'.",
          whole.c_str(), item_text.c_str());
      error = true;
      continue;
    }
    StrSegment key = parts[0].trimmed(), value = parts[1].trimmed();
    if (key.empty()) {
      logger.error("TZ_ALIAS: While parsing '%s', found empty key in '%s'.", whole.c_str(),
                   item_text.c_str());
      error = true;
      continue;
    }
    if (value.empty()) {
      logger.error("TZ_ALIAS: While parsing '%s', found empty value in '%s'.", whole.c_str(),
                   item_text.c_str());
      error = true;
      continue;
    }
    if (error) continue;
    Str k(key.data(), key.size()), v(value.data(), value.size());
    logger.info("TZ_ALIAS: Adding substitution for '%s' of '%s' for the current pipeline",
                k.c_str(), v.c_str());
    out[k] = v;
  }
  if (error) {
    logger.info(
        "TZ_ALIAS: Since error encountered reading alias setting, will ignore this setting, and "
        "use default rules.");
    return false;
  }
  return true;
}

}  // namespace morvek
