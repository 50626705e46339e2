// The readers that fill a TimezoneData: compiled zone files (TZif and the headerless layout),
// POSIX TZ strings with the tables built from their rules, and the .tzpack archive.

#include <algorithm>
#include <cstring>

#include "basicutil/Timezone.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

uint32_t be32(const unsigned char *p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
int64_t be64(const unsigned char *p) {
  return static_cast<int64_t>((uint64_t(be32(p)) << 32) | be32(p + 4));
}
void putBe32(Str &out, size_t at, uint32_t v) {
  out[at] = static_cast<char>(v >> 24);
  out[at + 1] = static_cast<char>(v >> 16);
  out[at + 2] = static_cast<char>(v >> 8);
  out[at + 3] = static_cast<char>(v);
}

constexpr size_t HEADER_SIZE = 44;

// The counts of one TZif data block.
struct BlockCounts {
  uint32_t isutcnt, isstdcnt, leapcnt, timecnt, typecnt, charcnt;
};

BlockCounts readCounts(const unsigned char *h) {
  return {be32(h + 20), be32(h + 24), be32(h + 28), be32(h + 32), be32(h + 36), be32(h + 40)};
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Unsigned decimal of at most max; advances p. False without a digit or over the maximum.
bool parseNumber(const char *&p, const char *end, int64_t max, int64_t &out) {
  if (p == end || !isDigit(*p)) return false;
  int64_t v = 0;
  while (p != end && isDigit(*p)) {
    v = v * 10 + (*p++ - '0');
    if (v > max) return false;
  }
  out = v;
  return true;
}

// hh[:mm[:ss]] with hours at most max_hours, as seconds.
bool parseClock(const char *&p, const char *end, int64_t max_hours, int64_t &out) {
  int64_t h, m = 0, s = 0;
  if (!parseNumber(p, end, max_hours, h)) return false;
  if (p != end && *p == ':') {
    ++p;
    if (!parseNumber(p, end, 59, m)) return false;
    if (p != end && *p == ':') {
      ++p;
      if (!parseNumber(p, end, 59, s)) return false;
    }
  }
  out = h * 3600 + m * 60 + s;
  return true;
}

// A signed offset, west of UTC when positive, as POSIX writes it.
bool parsePosixOffset(const char *&p, const char *end, int64_t &west) {
  int sign = 1;
  if (p != end && (*p == '+' || *p == '-')) sign = *p++ == '-' ? -1 : 1;
  int64_t v;
  if (!parseClock(p, end, 23, v)) return false;
  west = sign * v;
  return true;
}

bool parsePosixName(const char *&p, const char *end, StrSegment &name) {
  const char *start = p;
  if (p != end && *p == '<') {
    const char *close = static_cast<const char *>(memchr(p, '>', end - p));
    if (close == nullptr || close == p + 1) return false;
    name = StrSegment(p + 1, close - p - 1);
    p = close + 1;
    return true;
  }
  while (p != end && !isDigit(*p) && *p != '+' && *p != '-' && *p != ',' && *p != ';') ++p;
  name = StrSegment(start, p - start);
  return p != start;
}

bool parseRule(const char *&p, const char *end, TzRule &rule) {
  int64_t v, m, w, d;
  if (p == end) return false;
  if (*p == 'J') {
    ++p;
    if (!parseNumber(p, end, 365, v) || v < 1) return false;
    rule = {TzRule::JULIAN, 0, 0, static_cast<int>(v - 1), 7200};
  } else if (*p == 'M') {
    ++p;
    if (!parseNumber(p, end, 12, m) || m < 1 || p == end || *p++ != '.' ||
        !parseNumber(p, end, 5, w) || w < 1 || p == end || *p++ != '.' ||
        !parseNumber(p, end, 6, d))
      return false;
    rule = {TzRule::DOW, static_cast<int>(m - 1), static_cast<int>((w - 1) * 7),
            static_cast<int>(d - 11), 7200};
  } else {
    if (!parseNumber(p, end, 365, v)) return false;
    rule = {TzRule::ZERO_BASED, 0, 0, static_cast<int>(v), 7200};
  }
  if (p != end && *p == '/') {
    ++p;
    if (!parseClock(p, end, 167, rule.time)) return false;
  }
  return true;
}

bool isRuleSeparator(const char *p, const char *end) {
  return p != end && (*p == ',' || *p == ';');
}

const TzRule US_DST_START = {TzRule::DOW, 2, 7, -11, 7200};  // M3.2.0
const TzRule US_DST_END = {TzRule::DOW, 10, 0, -11, 7200};   // M11.1.0

}  // namespace

int64_t secondsFromJanuary(const TzRule &rule, int64_t year) {
  const bool leap = is_leap_year(year);
  int64_t day = rule.day;
  if (rule.type == TzRule::JULIAN) {
    // Moved in the years that are NOT leap years: the reverse of POSIX, kept as this engine
    // has always computed it.
    if (day >= 59 && !leap) ++day;
  } else if (rule.type == TzRule::ZERO_BASED) {
    if (day == 365 && !leap) day = 364;
  } else {
    MV_ASSERT(rule.type == TzRule::DOW);
    int first = weekdayOfDate(year, rule.month, 1);
    int into = (rule.day + 11 - first + 7) % 7 + rule.week;
    int length = (leap ? days_in_month_leapyear : days_in_month)[rule.month];
    if (rule.week == 28 && into >= length) into -= 7;
    day = (leap ? days_before_month_leapyear : days_before_month)[rule.month] + into;
  }
  return day * SECONDS_PER_DAY + rule.time;
}

bool TimezoneData::parseHeaderless(StrSegment bytes) {
  if (bytes.size() < HEADER_SIZE) return false;
  const auto *h = reinterpret_cast<const unsigned char *>(bytes.data());
  const uint32_t tc = be32(h + 32), ty = be32(h + 36), cc = be32(h + 40);
  if (tc > MAX_TRANSITIONS || ty > MAX_TYPES || cc < 1 || cc > MAX_FILE_CHARS) return false;
  if (bytes.size() - HEADER_SIZE < tc * 5ull + ty * 6ull + cc) return false;
  const unsigned char *p = h + HEADER_SIZE;
  for (uint32_t i = 0; i < tc; ++i) ats[i] = static_cast<int32_t>(be32(p + 4 * i));
  p += 4 * tc;
  for (uint32_t i = 0; i < tc; ++i) {
    if (p[i] >= ty) return false;
    types[i] = p[i];
  }
  p += tc;
  for (uint32_t i = 0; i < ty; ++i, p += 6) {
    if (p[4] > 1 || p[5] >= cc) return false;
    ttis[i] = {static_cast<int32_t>(be32(p)), p[5], p[4], TimezoneType::KIND_WALL};
  }
  chars.assign(reinterpret_cast<const char *>(p), cc);
  timecnt = tc;
  typecnt = ty;
  return true;
}

bool TimezoneData::parseZoneFile(StrSegment bytes, bool rules_allowed) {
  clear();
  goback = goahead = 0;
  if (bytes.size() < HEADER_SIZE || memcmp(bytes.data(), "TZif", 4) != 0) {
    if (!parseHeaderless(bytes)) return false;
    finishTable();
    return true;
  }
  const auto *base = reinterpret_cast<const unsigned char *>(bytes.data());
  const unsigned char *end = base + bytes.size();
  const unsigned char version = base[4];
  if (version >= 1 && version < '2') return false;

  const unsigned char *h = base;
  const unsigned char *footer = nullptr;
  for (int block = 0; block < (version >= '2' ? 2 : 1); ++block) {
    const size_t time_size = block == 0 ? 4 : 8;
    if (end - h < static_cast<ptrdiff_t>(HEADER_SIZE) || memcmp(h, "TZif", 4) != 0) return false;
    const BlockCounts c = readCounts(h);
    if (c.leapcnt > MAX_FILE_LEAPS || c.typecnt > MAX_TYPES || c.timecnt > MAX_TRANSITIONS ||
        c.charcnt > MAX_FILE_CHARS || (c.isstdcnt != 0 && c.isstdcnt != c.typecnt) ||
        (c.isutcnt != 0 && c.isutcnt != c.typecnt))
      return false;
    const uint64_t body = c.timecnt * (time_size + 1) + c.typecnt * 6ull + c.charcnt +
                          c.leapcnt * (time_size + 4) + c.isstdcnt + c.isutcnt;
    const unsigned char *p = h + HEADER_SIZE;
    if (static_cast<uint64_t>(end - p) < body) return false;

    for (uint32_t i = 0; i < c.timecnt; ++i, p += time_size)
      ats[i] = time_size == 4 ? static_cast<int32_t>(be32(p)) : be64(p);
    for (uint32_t i = 0; i < c.timecnt; ++i, ++p) {
      if (*p >= c.typecnt) return false;
      types[i] = *p;
    }
    for (uint32_t i = 0; i < c.typecnt; ++i, p += 6) {
      if (p[4] > 1 || p[5] >= c.charcnt) return false;
      ttis[i] = {static_cast<int32_t>(be32(p)), p[5], p[4], TimezoneType::KIND_WALL};
    }
    chars.assign(reinterpret_cast<const char *>(p), c.charcnt);
    p += c.charcnt;
    p += c.leapcnt * (time_size + 4);  // leap seconds are not applied anywhere
    const unsigned char *isstd = p, *isut = p + c.isstdcnt;
    for (uint32_t i = 0; i < c.typecnt; ++i) {
      const unsigned std_flag = c.isstdcnt ? isstd[i] : 0, ut_flag = c.isutcnt ? isut[i] : 0;
      if (std_flag > 1 || ut_flag > 1) return false;
      ttis[i].kind = ut_flag ? TimezoneType::KIND_UNIVERSAL
                             : (std_flag ? TimezoneType::KIND_STANDARD : TimezoneType::KIND_WALL);
    }
    p += c.isstdcnt + c.isutcnt;
    timecnt = c.timecnt;
    typecnt = c.typecnt;
    h = p;
    if (block == 1) footer = p;
  }

  // A table out of order is cut before the first descent; the last pair is not examined.
  for (uint32_t i = 0; i + 2 < timecnt; ++i) {
    if (ats[i] > ats[i + 1]) {
      timecnt = i + 1;
      break;
    }
  }

  if (rules_allowed && footer != nullptr && end - footer >= 3 && footer[0] == '\n' &&
      typecnt + 2 <= MAX_TYPES) {
    const unsigned char *nl =
        static_cast<const unsigned char *>(memchr(footer + 1, '\n', end - footer - 1));
    if (nl != nullptr && nl > footer + 1) {
      mergeFooter(StrSegment(reinterpret_cast<const char *>(footer + 1), nl - footer - 1));
    }
  }
  finishTable();
  return true;
}

void TimezoneData::mergeFooter(StrSegment text) {
  std::unique_ptr<TimezoneData> rules(new TimezoneData);
  if (!rules->parsePosixString(text) || rules->typecnt != 2) return;
  if (chars.size() + rules->chars.size() > 256) return;
  const uint64_t char_shift = chars.size();
  const uint32_t type_shift = typecnt;
  const int64_t last = timecnt ? ats[timecnt - 1] : INT64_MIN;
  for (uint32_t i = 0; i < rules->timecnt && timecnt < MAX_TRANSITIONS; ++i) {
    if (rules->ats[i] <= last) continue;
    ats[timecnt] = rules->ats[i];
    types[timecnt++] = static_cast<uint8_t>(rules->types[i] + type_shift);
  }
  for (uint32_t i = 0; i < 2; ++i) {
    ttis[typecnt] = rules->ttis[i];
    ttis[typecnt++].abbrind += char_shift;
  }
  chars += rules->chars;
}

void TimezoneData::finishTable() {
  if (timecnt > 800) {
    auto repeats = [this](uint32_t a, uint32_t b) {
      return types[a] == types[b] && ats[b] - ats[a] == FOUR_HUNDRED_YEARS;
    };
    goback = repeats(0, 800);
    goahead = repeats(timecnt - 801, timecnt - 1);
  }
  computeFixedOffset();
}

void TimezoneData::computeFixedOffset() {
  if (timecnt == 0) {
    fixed_offset = ttis[0].gmtoff;
    return;
  }
  const int64_t last = ttis[types[timecnt - 1]].gmtoff;
  fixed_offset = last;
  for (uint32_t i = 0; i < timecnt; ++i) {
    if (ats[i] >= 0 && ttis[types[i]].gmtoff != last) {
      fixed_offset = NOT_FIXED;
      return;
    }
  }
}

bool TimezoneData::parsePosixString(StrSegment text) {
  clear();
  const char *p = text.begin(), *end = text.end();
  StrSegment std_name, dst_name;
  int64_t std_west, dst_west;
  if (!parsePosixName(p, end, std_name) || !parsePosixOffset(p, end, std_west)) return false;
  chars.assign(std_name.data(), std_name.size());
  chars.push_back('\0');
  if (p == end) {
    typecnt = 1;
    ttis[0] = {-std_west, 0, 0, TimezoneType::KIND_WALL};
    fixed_offset = -std_west;
    return true;
  }
  if (!parsePosixName(p, end, dst_name)) return false;
  dst_west = std_west - 3600;
  if (p != end && *p != ',' && *p != ';' && !parsePosixOffset(p, end, dst_west)) return false;
  const uint64_t dst_abbrind = chars.size();
  chars.append(dst_name.data(), dst_name.size());
  chars.push_back('\0');

  if (p == end) {
    std::unique_ptr<TimezoneData> rules(new TimezoneData);
    if (rules->loadFile("posixrules", false)) {
      correctPosixRules(*rules, -std_west, -dst_west, dst_abbrind);
      return true;
    }
    buildFromRules(US_DST_START, US_DST_END, -std_west, -dst_west);
    return true;
  }
  TzRule start, stop;
  if (!isRuleSeparator(p, end) || !parseRule(++p, end, start) || !isRuleSeparator(p, end) ||
      !parseRule(++p, end, stop) || p != end)
    return false;
  buildFromRules(start, stop, -std_west, -dst_west);
  return true;
}

void TimezoneData::correctPosixRules(const TimezoneData &rules, int64_t std_off, int64_t dst_off,
                                     uint64_t dst_abbrind) {
  Str names = std::move(chars);
  timecnt = rules.timecnt;
  typecnt = rules.typecnt;
  std::copy_n(rules.ats, timecnt, ats);
  std::copy_n(rules.types, timecnt, types);
  std::copy_n(rules.ttis, typecnt, ttis);
  goback = rules.goback;
  goahead = rules.goahead;

  // The file's own offsets as they stood, so each transition moves by what changed.
  int64_t old_std = 0, old_dst = 0;
  bool seen_std = false, seen_dst = false;
  for (uint32_t i = 0; i < timecnt; ++i) {
    const TimezoneType &t = ttis[types[i]];
    if (t.isdst && !seen_dst) old_dst = t.gmtoff, seen_dst = true;
    if (!t.isdst && !seen_std) old_std = t.gmtoff, seen_std = true;
  }
  bool previous_dst = false;
  for (uint32_t i = 0; i < timecnt; ++i) {
    const TimezoneType &t = ttis[types[i]];
    if (t.kind != TimezoneType::KIND_UNIVERSAL) {
      // A wall-clock time after a change into dst was read on the dst clock.
      ats[i] += (previous_dst && t.kind == TimezoneType::KIND_WALL) ? old_dst - dst_off
                                                                    : old_std - std_off;
    }
    (t.isdst ? old_dst : old_std) = t.gmtoff;
    previous_dst = t.isdst;
  }
  for (uint32_t i = 0; i < typecnt; ++i) {
    ttis[i].gmtoff += ttis[i].isdst ? dst_off - old_dst : std_off - old_std;
    ttis[i].abbrind = ttis[i].isdst ? dst_abbrind : 0;
  }
  chars = std::move(names);
  name.clear();
  computeFixedOffset();
}

void TimezoneData::buildFromRules(const TzRule &start, const TzRule &end, int64_t std_off,
                                  int64_t dst_off) {
  typecnt = 2;
  const uint64_t dst_abbrind = strlen(chars.c_str()) + 1;
  ttis[0] = {dst_off, dst_abbrind, 1, TimezoneType::KIND_WALL};
  ttis[1] = {std_off, 0, 0, TimezoneType::KIND_WALL};
  timecnt = 0;
  goback = goahead = 1;
  for (int64_t year = 1970; timecnt < MAX_TRANSITIONS - 1; ++year) {
    const int64_t year_start = dayStartTime(year, 0, 1);
    const int64_t on = year_start + secondsFromJanuary(start, year) - std_off;
    const int64_t off = year_start + secondsFromJanuary(end, year) - dst_off;
    const bool on_first = on < off;
    ats[timecnt] = on_first ? on : off;
    types[timecnt++] = on_first ? 0 : 1;
    ats[timecnt] = on_first ? off : on;
    types[timecnt++] = on_first ? 1 : 0;
  }
  fixed_offset = std_off == dst_off ? std_off : NOT_FIXED;
}

// ---- .tzpack

bool TzPack::open(StrSegment bytes) {
  _bytes = bytes;
  _count = 0;
  if (bytes.size() < 16 || memcmp(bytes.data(), MAGIC, 12) != 0) return false;
  const uint32_t n = be32(reinterpret_cast<const unsigned char *>(bytes.data()) + 12);
  if (n < 1 || n >= bytes.size() / 16) return false;
  _count = n;
  return true;
}

bool TzPack::entry(uint32_t i, StrSegment &name, StrSegment &data) const {
  if (i >= _count) return false;
  const auto *u = reinterpret_cast<const unsigned char *>(_bytes.data()) + 16 * (i + 1);
  const uint64_t size = _bytes.size(), name_at = be32(u), unit = be32(u + 4), len = be32(u + 8);
  if (name_at >= size || unit >= (size + 15) / 16 || unit * 16 + len > size) return false;
  const char *n = _bytes.data() + name_at;
  name = StrSegment(n, strnlen(n, size - name_at));
  data = StrSegment(_bytes.data() + unit * 16, len);
  return true;
}

bool TzPack::find(StrSegment relative, StrSegment &data) const {
  Str key(relative);
  for (char &c : key) {
    if (c == '\\') c = '/';
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  const uint64_t size = _bytes.size();
  uint32_t lo = 1, hi = _count;
  while (lo <= hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    const auto *u = reinterpret_cast<const unsigned char *>(_bytes.data()) + 16 * mid;
    const uint64_t name_at = be32(u);
    if (name_at >= size) return false;
    const char *n = _bytes.data() + name_at;
    const StrSegment entry_name(n, strnlen(n, size - name_at));
    const int c = key.segment().compare(entry_name);
    if (c == 0) {
      StrSegment ignored;
      return entry(mid - 1, ignored, data);
    }
    if (c < 0) {
      hi = mid - 1;
    } else {
      lo = mid + 1;
    }
  }
  return false;
}

void TzPack::build(std::vector<std::pair<Str, Str>> entries, Str &out) {
  for (auto &e : entries) e.first.toLowerInPlace();
  std::sort(entries.begin(), entries.end(),
            [](const auto &a, const auto &b) { return a.first.compare(b.first) < 0; });
  auto pad = [&out] { out.resize((out.size() + 15) / 16 * 16, '\0'); };
  const uint32_t n = static_cast<uint32_t>(entries.size());
  out.assign(16 * (n + 1), '\0');
  memcpy(&out[0], MAGIC, 12);
  putBe32(out, 12, n);
  for (uint32_t i = 0; i < n; ++i) {
    putBe32(out, 16 * (i + 1), static_cast<uint32_t>(out.size()));
    out.append(entries[i].first.c_str(), entries[i].first.size() + 1);
  }
  for (uint32_t i = 0; i < n; ++i) {
    pad();
    putBe32(out, 16 * (i + 1) + 4, static_cast<uint32_t>(out.size() / 16));
    putBe32(out, 16 * (i + 1) + 8, static_cast<uint32_t>(entries[i].second.size()));
    out += entries[i].second;
  }
  pad();
}

}  // namespace morvek
