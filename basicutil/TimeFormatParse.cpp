#include "basicutil/TimeFormatParse.h"

#include <cstring>

#include "basicutil/DateTime.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

using TF = TimeFormat;
using PR = TimeFormatRawParseResult;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
char lower(char c) { return isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c; }

// Case-insensitive equality of n bytes with a lower-case ASCII word.
bool equalsFolded(const char *p, const char *word, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (lower(p[i]) != word[i]) return false;
  }
  return true;
}

// Decimal accumulation that stops growing far above any value a field accepts.
uint64_t accumulateDigit(uint64_t v, char c) {
  return v < (uint64_t(1) << 40) ? v * 10 + static_cast<uint64_t>(c - '0') : v;
}

// Literals are a byte or two: a loop beats a call to memcmp.
bool sameBytes(const char *a, const char *b, uint64_t n) {
  for (uint64_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

const char *skipSpace(const char *p, const char *end) {
  while (p < end && isSpace(*p)) ++p;
  return p;
}

bool isNumeric(uint32_t what) { return what <= TF::SUBSECOND_NUM; }

// The first-sight rule shared by every field: store and set the bit, or count a contradiction.
template <typename T, typename V>
void store(PR &r, uint32_t bit, T &field, V value) {
  if (!(r.have & bit)) {
    r.have |= bit;
    field = static_cast<T>(value);
  } else if (field != static_cast<T>(value)) {
    ++r.conflicts;
  }
}

// How each decimal field (YEAR_NUM to SECOND_NUM) is split off a run of digits, checked and
// stored: split_max is the largest value a run may keep (0: not limited), lo..hi the accepted
// range, and minus what is taken off before storing (months and days of the year from 0).
struct FieldRule {
  uint64_t split_max;
  int64_t lo, hi;
  uint32_t bit;
  int32_t PR::*field;
  int64_t minus;
};
const FieldRule field_rules[TF::SECOND_NUM - TF::YEAR_NUM + 1] = {
    {0, 1971, 2999, PR::HAVE_YEAR, &PR::year, 0},        // YEAR_NUM
    {0, 19, 29, PR::HAVE_CENTURY, &PR::century, 0},      // CENTURY_NUM
    {99, 0, 99, PR::HAVE_YEAR2, &PR::year2, 0},          // YEAR2_NUM
    {0, 1971, 2999, PR::HAVE_ISOYEAR, &PR::isoyear, 0},  // ISOYEAR_NUM
    {99, 0, 99, PR::HAVE_ISOYEAR2, &PR::isoyear2, 0},    // ISOYEAR2_NUM
    {0, 0, 0, 0, nullptr, 0},                            // YEAR_EITHER_NUM: as one of the years
    {12, 1, 12, PR::HAVE_MONTH, &PR::month, 1},          // MONTH_NUM
    {53, 0, 53, PR::HAVE_WEEK_SUN, &PR::week_sun, 0},    // WEEK_SUN_NUM
    {53, 0, 53, PR::HAVE_WEEK_MON, &PR::week_mon, 0},    // WEEK_MON_NUM
    {53, 1, 53, PR::HAVE_WEEK_ISO, &PR::week_iso, 0},    // WEEK_ISO_NUM
    {5, 1, 5, PR::HAVE_MONTHWEEK, &PR::monthweek, 0},    // MONTHWEEK_NUM
    {31, 1, 31, PR::HAVE_MONTHDAY, &PR::monthday, 0},    // MONTHDAY_NUM
    {366, 1, 366, PR::HAVE_YEARDAY, &PR::yearday, 1},    // YEARDAY_NUM
    {6, 0, 6, PR::HAVE_WEEKDAY, &PR::weekday, 0},        // WEEKDAY0_NUM
    {7, 1, 7, PR::HAVE_WEEKDAY, &PR::weekday, 1},        // WEEKDAY1_NUM
    {23, 0, 24, PR::HAVE_HOUR24, &PR::hour, 0},          // HOUR24_NUM: 24:00:00 only
    {12, 1, 12, PR::HAVE_HOUR12, &PR::hour12, 0},        // HOUR12_NUM: 12 is stored as 0
    {59, 0, 59, PR::HAVE_MINUTE, &PR::minute, 0},        // MINUTE_NUM
    {60, 0, 60, PR::HAVE_SECOND, &PR::second, 0},        // SECOND_NUM: leap seconds too
};

const FieldRule &fieldRule(uint32_t what) {
  MV_ASSERT(what >= TF::YEAR_NUM && what <= TF::SECOND_NUM);
  return field_rules[what - TF::YEAR_NUM];
}

// Largest value a run of digits may keep for this field, 0 for no limit.
uint64_t fieldMaximum(uint32_t what) {
  return what >= TF::YEAR_NUM && what <= TF::SECOND_NUM ? fieldRule(what).split_max : 0;
}

// Value of a digit run, saturating far above any field maximum.
uint64_t digitsValue(const char *a, const char *end) {
  MV_ASSERT(end > a);
  uint64_t v = 0;
  for (; a < end; ++a) {
    MV_ASSERT(*a >= '0' && *a <= '9');
    if (v < 1000000000) v = v * 10 + static_cast<uint64_t>(*a - '0');
  }
  return v;
}

bool startsWithDigit(const TimeFormatAtom &a) {
  return (a.what == TF::LITERAL || a.what == TF::WHITESPACE) && a.width > 0 && isDigit(a.x.text[0]);
}

// Cuts a numeric token [post_ws, tok_end) to what this field may take, by width and value.
// Returns the new end, or null when nothing is left.
const char *controlWidth(const TimeFormatAtom *a, const TimeFormatAtom *next, const char *p,
                         const char *post_ws, const char *tok_end) {
  const uint64_t w = a->width;
  const char *from = a->x.conv.padding == TF::PAD_ZERO ? post_ws : p;
  const char *limit = from + w;
  const bool next_digits =
      next != nullptr &&
      ((next->what >= TF::EPOCH_NUM && next->what <= TF::SUBSECOND_NUM) || startsWithDigit(*next));
  if (tok_end > limit && next_digits) {
    const char *cut = tok_end;
    if (w != 0) {
      cut = limit;
    } else if (a->what == TF::EPOCH_NUM) {
      const char *digits = *post_ws == '-' || *post_ws == '+' ? post_ws + 1 : post_ws;
      const char *ten = (limit > digits ? limit : digits) + 10;
      cut = ten < tok_end ? ten : tok_end;
    } else if (a->what == TF::TZ_AS_NEEDEDOFFSET) {
      const char *digits = post_ws < tok_end && !isDigit(*post_ws) ? post_ws + 1 : post_ws;
      if (memchr(post_ws, ':', static_cast<size_t>(tok_end - post_ws)) == nullptr &&
          tok_end - digits >= 3) {
        cut = digits + 2;
      }
    }
    return cut > post_ws ? cut : post_ws + 1;
  }
  if (a->what < TF::YEAR_NUM) return tok_end;
  const uint64_t max = fieldMaximum(a->what);
  const char *limit2 = a->x.conv.padding == TF::PAD_NONE ? p : p + w;
  if (max != 0) {
    while (tok_end > limit2 && tok_end > post_ws && digitsValue(post_ws, tok_end) > max) {
      --tok_end;
    }
    if (tok_end == post_ws) return nullptr;
  }
  return tok_end;
}

// Range check and store of one decimal field.
bool storeNumber(PR &r, uint32_t what, int64_t v) {
  if (what == TF::YEAR_EITHER_NUM) what = v < 100 ? TF::YEAR2_NUM : TF::YEAR_NUM;
  MV_ASSERT(what <= TF::SECOND_NUM);
  const FieldRule &rule = fieldRule(what);
  if (v < rule.lo || v > rule.hi) return false;
  if (what == TF::HOUR12_NUM && v == 12) v = 0;
  store(r, rule.bit, r.*rule.field, v - rule.minus);
  return true;
}

void storeEpoch(PR &r, const char *tok, const char *tok_end) {
  const bool negative = *tok == '-';
  if (*tok == '-' || *tok == '+') ++tok;
  uint64_t v = 0;
  int64_t value = 0;
  bool saturated = false;
  for (; tok < tok_end; ++tok) {
    if (v >= 0xCCCCCCCCCCCCCCCull) {
      ++r.conflicts;
      saturated = true;
      break;
    }
    v = v * 10 + static_cast<uint64_t>(*tok - '0');
  }
  if (saturated) {
    value = negative ? INT64_MIN : INT64_MAX;
  } else {
    value = negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
  }
  if (negative && !(r.have & PR::HAVE_EPOCH)) r.have |= PR::HAVE_NEGATIVE_EPOCH;
  store(r, PR::HAVE_EPOCH, r.epoch, value);
}

// One numeric atom at p; returns the new position or null.
const char *parseNumeric(PR &r, const TimeFormatAtom *a, const TimeFormatAtom *next, const char *p,
                         const char *post_ws, const char *end) {
  const char *q = post_ws;
  if (a->what < TF::YEAR_NUM && (*q == '+' || *q == '-')) {
    if (++q == end) return nullptr;
  }
  if (!isDigit(*q)) return nullptr;
  // The value is read on the way, for the common case where width control keeps the whole run.
  const char *run = q;
  uint64_t run_value = 0;
  for (; q < end && isDigit(*q); ++q) run_value = accumulateDigit(run_value, *q);
  const char *run_end = q;
  if (a->what <= TF::TZ_AS_NEEDEDOFFSET) {
    const int pairs = a->what == TF::TZ_AS_COLONOFFSET ? 1 : 2;
    for (int i = 0; i < pairs; ++i) {
      if (end - q < 3 || q[0] != ':' || q[1] < '0' || q[1] > '5' || !isDigit(q[2])) break;
      q += 3;
    }
  }
  if (a->what >= TF::TZ_AS_NEEDEDOFFSET) {
    q = controlWidth(a, next, p, post_ws, q);
    if (q == nullptr) return nullptr;
  }
  MV_ASSERT(q > post_ws);

  if (a->what < TF::EPOCH_NUM) {
    int64_t offset;
    bool ok = a->what == TF::TZ_AS_MINOFFSET ? parseMinutesOffset(post_ws, q, offset)
                                             : parseOffset(post_ws, q, offset);
    if (!ok) return nullptr;
    store(r, PR::HAVE_TZOFF, r.tzoffset, offset);
    return q;
  }
  if (a->what == TF::EPOCH_NUM) {
    storeEpoch(r, post_ws, q);
    return q;
  }
  if (a->what == TF::SUBSECOND_NUM) {
    setFracsec(r, post_ws, q);
    return q;
  }
  if (q != run_end || run != post_ws) {
    run_value = 0;
    for (const char *d = post_ws; d < q; ++d) run_value = accumulateDigit(run_value, *d);
  }
  // A value past 429496729 with another digit to come is refused: that is a final value of at
  // least 4294967300, as the prefixes only grow.
  if (run_value >= 4294967300ull) return nullptr;
  return storeNumber(r, a->what, static_cast<int64_t>(run_value)) ? q : nullptr;
}

// "am", "P.M." and the Korean, Japanese and Chinese forms.
const char *parseAmPm(PR &r, const char *p, const char *end) {
  if (end - p < 2) return nullptr;
  const char c = lower(p[0]);
  if (c == 'a' || c == 'p') {
    const int pm = c == 'p';
    if (lower(p[1]) == 'm') {
      store(r, PR::HAVE_AMPM, r.pm, pm);
      return p + 2;
    }
    if (end - p >= 4 && p[1] == '.' && lower(p[2]) == 'm' && p[3] == '.') {
      store(r, PR::HAVE_AMPM, r.pm, pm);
      return p + 4;
    }
    return nullptr;
  }
  static const struct {
    const char *text;
    int pm;
  } forms[] = {{"오전", 0}, {"오후", 1}, {"午前", 0}, {"午後", 1}, {"上午", 0}, {"下午", 1}};
  if (end - p < 6) return nullptr;
  for (const auto &f : forms) {
    if (memcmp(p, f.text, 6) == 0) {
      store(r, PR::HAVE_AMPM, r.pm, f.pm);
      return p + 6;
    }
  }
  return nullptr;
}

bool isNameByte(char c) {
  return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '/' || c == '_';
}

bool startsWith(const char *p, const char *end, const char *text) {
  size_t n = strlen(text);
  return static_cast<size_t>(end - p) >= n && memcmp(p, text, n) == 0;
}

// %Z: an abbreviation, an Olson name, a Windows display name ("E. Europe Standard Time") or a
// signed offset.
const char *parseZoneName(PR &r, const char *p, const char *end) {
  if (*p == '+' || *p == '-') {
    const char *q = p + 1;
    while (q < end && (isDigit(*q) || *q == ':')) ++q;
    if (q == p + 1) return nullptr;
    int64_t offset;
    if (!parseOffset(p, q, offset)) return nullptr;
    store(r, PR::HAVE_TZOFF, r.tzoffset, offset);
    return q;
  }
  if (*p == '.') return nullptr;
  const char *q = p;
  const char *dot = nullptr;
  for (;;) {
    while (q < end && isNameByte(*q)) ++q;
    if (q == end || *q != '.' || q == p) break;
    if (q + 1 < end && isNameByte(q[1])) {
      ++q;  // "a.m", "U.S"
      continue;
    }
    if (q + 1 < end && q[1] == ' ') {
      dot = q;  // "E. Europe Standard Time", or just "a.m. "
      ++q;
    }
    break;
  }
  if (q == p) return nullptr;
  // Windows names: words up to " Standard Time" or " Daylight Time".
  bool windows = false;
  for (const char *w = q; w < end && *w == ' ' && w + 1 < end && isNameByte(w[1]);) {
    if (startsWith(w, end, " Standard Time") || startsWith(w, end, " Daylight Time")) {
      q = w + 14;
      windows = true;
      if (startsWith(q, end, " (Mexico)")) {
        q += 9;
      } else if (q - p == 20 && startsWith(p, end, "Mexico") && startsWith(q, end, " 2") &&
                 (q + 2 == end || !isDigit(q[2]))) {
        q += 2;
      }
      break;
    }
    ++w;
    while (w < end && isNameByte(*w)) ++w;
  }
  if (!windows && dot != nullptr) q = dot;
  const uint64_t len = static_cast<uint64_t>(q - p);
  MV_ASSERT(len > 0);
  if (!(r.have & PR::HAVE_TZNAM)) {
    r.have |= PR::HAVE_TZNAM;
    r.tzname = p;
    r.tzname_len = len;
  } else if (len != r.tzname_len || memcmp(p, r.tzname, len) != 0) {
    ++r.conflicts;
    if (len > r.tzname_len) {
      r.tzname = p;
      r.tzname_len = len;
    }
  }
  return q;
}

// Bytes that end a word besides non-letters: the lead and trail bytes of the CJK forms.
bool endsWord(unsigned char c) {
  static const unsigned char set[] = {0x80, 0x81, 0x83, 0x85, 0x88, 0x89, 0x8C, 0x8D, 0x94, 0x9B,
                                      0x9C, 0x9D, 0xAB, 0xAD, 0xB8, 0xB9, 0xBA, 0xE4, 0xE5, 0xE6};
  return memchr(set, c, sizeof set) != nullptr;
}

// A run of ASCII letters; "JanFeb" is two words, "JANFEB" one.
const char *wordEnd(const char *p, const char *end) {
  const char *q = p;
  while (q < end && !endsWord(static_cast<unsigned char>(*q)) && isLetter(*q)) {
    if (q - p >= 2 && isUpper(*q) && isUpper(p[0]) != isUpper(p[1])) break;
    ++q;
  }
  return q;
}

const char *const weekday_names[7] = {"sunday",   "monday", "tuesday", "wednesday",
                                      "thursday", "friday", "saturday"};
const char *const month_names[12] = {"january",   "february", "march",    "april",
                                     "may",       "june",     "july",     "august",
                                     "september", "october",  "november", "december"};

int weekdayFromPrefix(const char *p, size_t n) {
  for (int i = 0; i < 7; ++i) {
    if (equalsFolded(p, weekday_names[i], n)) return i;
  }
  return -1;
}

// Weekday of a word, -1 for an unknown one, -2 for one too short to judge.
int weekdayOfWord(const char *p, size_t n, bool full) {
  if (n < 2) return -2;
  if (n <= 3) return weekdayFromPrefix(p, n);
  if (!full) return weekdayFromPrefix(p, 3);
  if (equalsFolded(p + n - 3, "day", 3)) {
    int d = weekdayFromPrefix(p, 3);
    return d >= 0 && strlen(weekday_names[d]) == n && equalsFolded(p, weekday_names[d], n) ? d : -1;
  }
  if (n == 4) {
    if (equalsFolded(p, "tues", 4)) return 2;
    if (equalsFolded(p, "thur", 4)) return 4;
    int d = weekdayFromPrefix(p, 3);
    return d == 2 || d == 4 ? -1 : d;
  }
  return -1;
}

const char *parseName(PR &r, const TimeFormatAtom *a, const TimeFormatAtom *next, const char *p,
                      const char *post_ws, const char *end) {
  const char *we = wordEnd(post_ws, end);
  const bool next_wordlike =
      next != nullptr && next->what >= TF::WEEKDAY_ABBR && next->what != TF::WHITESPACE &&
      (next->what != TF::LITERAL || (next->width > 0 && isLetter(next->x.text[0])));
  if (a->width != 0 && next_wordlike && we > p + a->width) we = p + a->width;
  if (we < post_ws) we = post_ws;
  const size_t n = static_cast<size_t>(we - post_ws);
  switch (a->what) {
    case TF::WEEKDAY_ABBR:
    case TF::WEEKDAY_FULL: {
      int d = weekdayOfWord(post_ws, n, a->what == TF::WEEKDAY_FULL);
      if (d == -2) return we;
      if (d < 0) return nullptr;
      store(r, PR::HAVE_WEEKDAY, r.weekday, d);
      return we;
    }
    case TF::MONTH_ABBR: {
      if (n >= 1 && n < 3) return we;
      int m = n >= 3 ? monthFromAbbr(post_ws, post_ws + 3) : -1;
      if (m >= 0) {
        store(r, PR::HAVE_MONTH, r.month, m);
        return we;
      }
      m = monthFromCjk(post_ws, end);
      if (m < 0) return nullptr;
      store(r, PR::HAVE_MONTH, r.month, m);
      return we;
    }
    default: {
      MV_ASSERT(a->what == TF::MONTH_FULL);
      int m = monthFromName(post_ws, we);
      if (m < 0) m = monthFromCjk(post_ws, end);
      if (m < 0) return nullptr;
      store(r, PR::HAVE_MONTH, r.month, m);
      return we;
    }
  }
}

}  // namespace

int monthFromAbbr(const char *begin, const char *end) {
  if (end - begin < 3) return -1;
  for (int i = 0; i < 12; ++i) {
    if (equalsFolded(begin, month_names[i], 3)) return i;
  }
  return -1;
}

int monthFromName(const char *begin, const char *end) {
  const size_t n = static_cast<size_t>(end - begin);
  if (n == 3) return monthFromAbbr(begin, end);
  for (int i = 0; i < 12; ++i) {
    if (strlen(month_names[i]) == n && equalsFolded(begin, month_names[i], n)) return i;
  }
  return -1;
}

int monthFromCjk(const char *begin, const char *end, size_t *len) {
  // Longest first, so that "十二月" is not read as "十" and "二月".
  static const struct {
    const char *text;
    int month;
  } forms[] = {{"十一月", 10}, {"十二月", 11}, {"一月", 0}, {"二月", 1}, {"三月", 2}, {"四月", 3},
               {"五月", 4},    {"六月", 5},    {"七月", 6}, {"八月", 7}, {"九月", 8}, {"十月", 9}};
  for (const auto &f : forms) {
    if (startsWith(begin, end, f.text)) {
      if (len) *len = strlen(f.text);
      return f.month;
    }
  }
  return -1;
}

bool parseOffset(const char *begin, const char *end, int64_t &offset) {
  const char *p = begin;
  int sign = 1;
  if (p < end && (*p == '+' || *p == '-')) sign = *p++ == '-' ? -1 : 1;
  const char *digits = p;
  while (p < end && isDigit(*p)) ++p;
  const size_t n = static_cast<size_t>(p - digits);
  int64_t h = 0, m = 0, s = 0;
  if (p == end) {
    if (n > 4) return false;
    if (n >= 3) {
      if (digits[n - 2] > '5') return false;
      m = (digits[n - 2] - '0') * 10 + (digits[n - 1] - '0');
    }
    for (size_t i = 0; i + (n >= 3 ? 2 : 0) < n; ++i) h = h * 10 + (digits[i] - '0');
    if (n <= 2 && h >= 24) return false;
  } else {
    if (n < 1 || n > 2) return false;
    for (size_t i = 0; i < n; ++i) h = h * 10 + (digits[i] - '0');
    int64_t *parts[2] = {&m, &s};
    for (int i = 0; i < 2 && p < end; ++i) {
      if (end - p < 3 || p[0] != ':' || p[1] < '0' || p[1] > '5' || !isDigit(p[2])) return false;
      *parts[i] = (p[1] - '0') * 10 + (p[2] - '0');
      p += 3;
    }
    if (p != end) return false;
  }
  const int64_t total = h * 3600 + m * 60 + s;
  if (total >= 86400) return false;
  offset = sign * total;
  return true;
}

bool parseMinutesOffset(const char *begin, const char *end, int64_t &offset) {
  const char *p = begin;
  int sign = 1;
  if (p < end && (*p == '+' || *p == '-')) sign = *p++ == '-' ? -1 : 1;
  if (p == end) return false;
  int64_t minutes = 0;
  for (; p < end; ++p) {
    if (!isDigit(*p)) return false;
    minutes = minutes * 10 + (*p - '0');
    if (minutes > 1439) return false;
  }
  offset = sign * minutes * 60;
  return true;
}

void setFracsec(TimeFormatRawParseResult &r, const char *begin, const char *end) {
  MV_ASSERT(end >= begin);
  static constexpr uint32_t scale[7] = {1000000, 100000, 10000, 1000, 100, 10, 1};
  uint64_t value = 0;
  int digits = 0;
  for (const char *a = begin; a < end; ++a) {
    const unsigned c = static_cast<unsigned>(*a - '0');
    MV_ASSERT(c <= 9);
    if (digits == 6) continue;
    value = value * 10 + c;
    ++digits;
  }
  value *= scale[digits];
  if (!(r.have & PR::HAVE_SUBSEC) || r.subsec_digits < digits) {
    r.have |= PR::HAVE_SUBSEC;
    r.subsec = value;
    r.subsec_digits = digits;
  } else if (r.subsec_digits == digits && r.subsec != value) {
    ++r.conflicts;
  }
}

const char *rawParse(const TimeFormat &format, TimeFormatRawParseResult &r, const char *begin,
                     const char *end) {
  if (format.empty()) return nullptr;
  const char *p = begin;
  const TimeFormatAtom *a = format.begin();
  for (; a < format.end(); ++a) {
    const TimeFormatAtom *next = a + 1 < format.end() ? a + 1 : nullptr;
    if (p == end) break;
    const char *post_ws = p;
    if (a->what < TF::WHITESPACE) {
      post_ws = skipSpace(p, end);
      if (post_ws == end) break;
    }
    const char *q;
    if (a->what == TF::LITERAL && static_cast<uint64_t>(end - p) >= a->width &&
        sameBytes(p, a->x.text, a->width)) {
      p += a->width;
      continue;
    }
    if (isNumeric(a->what)) {
      q = parseNumeric(r, a, next, p, post_ws, end);
    } else if (a->what == TF::AMPM) {
      q = parseAmPm(r, post_ws, end);
    } else if (a->what == TF::TZ_NAME) {
      q = parseZoneName(r, post_ws, end);
    } else if (a->what == TF::WHITESPACE) {
      if (next != nullptr && next->what == TF::LITERAL && isSpace(next->x.text[0])) {
        q = p < end && *p == a->x.text[0] ? p + 1 : nullptr;
      } else {
        q = skipSpace(p, end);
      }
    } else if (a->what == TF::LITERAL) {
      q = p;
      for (uint64_t i = 0; q != nullptr && i < a->width; ++i) {
        if (q == end) {
          q = nullptr;
        } else if (*q == a->x.text[i]) {
          ++q;
        } else {
          // "." and "," before sub-seconds stand for each other, and the fraction may be absent.
          const char c = a->x.text[i];
          if ((c == '.' || c == ',') && i + 1 == a->width && next != nullptr &&
              next->what == TF::SUBSECOND_NUM) {
            if (*q == '.' || *q == ',') {
              ++q;
            } else {
              ++a;  // skip the sub-seconds, at the same position
            }
          } else {
            q = nullptr;
          }
          break;
        }
      }
    } else {
      q = parseName(r, a, next, p, post_ws, end);
    }
    if (q == nullptr) return nullptr;
    p = q;
  }
  // Input used up: what is left must be able to match nothing.
  while (a < format.end()) {
    if (a->what == TF::WHITESPACE) {
      ++a;
    } else if (a->what == TF::LITERAL && a->width == 1 && a + 1 < format.end() &&
               a[1].what == TF::SUBSECOND_NUM && (a->x.text[0] == '.' || a->x.text[0] == ',')) {
      a += 2;
    } else {
      return nullptr;
    }
  }
  if ((r.have & PR::HAVE_HOUR24) && r.hour == 24) {
    if ((r.have & PR::HAVE_MINUTE) && r.minute != 0) return nullptr;
    if ((r.have & PR::HAVE_SECOND) && r.second != 0) return nullptr;
    if ((r.have & PR::HAVE_SUBSEC) && r.subsec != 0) return nullptr;
  }
  return p;
}

}  // namespace morvek
