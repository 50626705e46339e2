// Every compiled zone of the system: through the serialized form, through the TZ estimate, and
// against glibc's localtime_r with TZ set to it.
#include <ftw.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "basicutil/FileDescriptor.h"
#include "basicutil/Timeval.h"
#include "basicutil/TimezoneSerialize.h"
#include "basicutil/TzEstimate.h"
#include "testutil.h"

using namespace morvek;

namespace {

const char *const ZONEINFO = "/usr/share/zoneinfo";
const int64_t YEAR = 31536000;
const int64_t TEN_YEARS = 3653 * SECONDS_PER_DAY;

struct SystemZone {
  Str name;
  Str footer;         // the POSIX string after the last data block
  int64_t file_last;  // the file's own last transition, before any its footer adds
  bool leap_variant;  // under "right", with leap seconds: compared with glibc only
  std::unique_ptr<TimezoneData> tz;
};

std::vector<SystemZone> *collecting;

// Each compiled zone, aliases included; "posix" holds copies.
int collectOne(const char *path, const struct stat *, int kind, FTW *) {
  const Str rel = StrSegment(path).substr(strlen(ZONEINFO) + 1);
  if (kind == FTW_D && rel == "posix") return FTW_SKIP_SUBTREE;
  FileDescriptor fd;
  Str bytes;
  if (kind != FTW_F || !fd.openRead(path) || !fd.readAll(bytes) || !bytes.startsWith("TZif"))
    return FTW_CONTINUE;
  SystemZone zone{rel, Str(), INT64_MIN, rel.startsWith("right/"),
                  std::make_unique<TimezoneData>()};
  EXPECT_TRUE(zone.tz->parseZoneFile(bytes, true)) << rel;
  TimezoneData bare;
  if (bare.parseZoneFile(bytes, false) && bare.timecnt) zone.file_last = bare.ats[bare.timecnt - 1];
  // The footer sits between the last two newlines of a version 2+ file.
  const size_t start = bytes.rfind('\n', bytes.size() - 2);
  if (bytes[4] >= '2' && bytes.back() == '\n' && start != Str::npos)
    zone.footer = bytes.substr(start + 1, bytes.size() - start - 2);
  collecting->push_back(std::move(zone));
  return FTW_CONTINUE;
}

const std::vector<SystemZone> &systemZones() {
  static const auto *zones = [] {
    collecting = new std::vector<SystemZone>;
    nftw(ZONEINFO, collectOne, 16, FTW_ACTIONRETVAL);
    return collecting;
  }();
  return *zones;
}

bool sameType(const TimezoneData &a, int64_t t, const TimezoneData &b) {
  const TimezoneType &x = a.typeAt(t), &y = b.typeAt(t);
  return x.gmtoff == y.gmtoff && x.isdst == y.isdst &&
         strcmp(a.abbreviation(x), b.abbreviation(y)) == 0;
}

TEST(TimezoneSystemZones, SerializedFormRebuildsEveryZoneOverItsSpan) {
  const auto &zones = systemZones();
  ASSERT_GT(zones.size(), 300u) << "tzdata is not installed";
  const int64_t now = Timeval::now().seconds(), limit = now + 30 * YEAR;
  size_t serialized = 0, points = 0, windows = 0;
  for (const SystemZone &zone : zones) {
    if (zone.leap_variant) continue;
    ++serialized;
    const TimezoneData &tz = *zone.tz;
    const TimezoneData *back = deserializeTimezone(serializedTimezoneText(tz, 30, now));
    ASSERT_NE(back, nullptr) << zone.name;
    EXPECT_EQ(back->typecnt, tz.typecnt) << zone.name;
    EXPECT_EQ(back->fixed_offset, tz.fixed_offset) << zone.name;
    EXPECT_EQ(back->goback * 2 + back->goahead, tz.goback * 2 + tz.goahead) << zone.name;
    // Before the first written change the rebuilt zone can't know what the file knew.
    const int64_t from = back->timecnt != 0 ? back->ats[0] : INT64_MIN;
    for (uint32_t i = 0; i < tz.timecnt; ++i) {
      if (tz.ats[i] < from || tz.ats[i] > limit) continue;
      ++points;
      ASSERT_TRUE(sameType(tz, tz.ats[i], *back) &&
                  (tz.ats[i] == from || sameType(tz, tz.ats[i] - 1, *back)))
          << zone.name << " at transition " << tz.ats[i];
    }
    // The comparison looks at ten years either side and one change beyond: stop where that
    // change was past the written span.
    for (int64_t t = 315532800 /* 1980 */;; t += YEAR / 2) {
      const int64_t hi = t + TimezoneData::EQUIVALENCE_WINDOW;
      const int64_t *next = std::upper_bound(tz.ats, tz.ats + tz.timecnt, hi);
      if (hi > limit || (next != tz.ats + tz.timecnt && *next > limit)) break;
      ++windows;
      ASSERT_TRUE(back->equivalentAt(tz, t)) << zone.name << " at " << t;
    }
  }
  printf("serialized %zu zones: %zu transitions and %zu ten-year windows alike\n", serialized,
         points, windows);
}

// True when a and b give the same offset at from and around every change of either up to to;
// the first difference goes to where.
bool sameOffsets(const TimezoneData &a, const TimezoneData &b, int64_t from, int64_t to,
                 int64_t &where) {
  std::vector<int64_t> times{from};
  for (const TimezoneData *z : {&a, &b}) {
    for (uint32_t i = 0; i < z->timecnt; ++i) {
      if (z->ats[i] >= from && z->ats[i] <= to) times.push_back(z->ats[i]);
    }
  }
  for (int64_t t : times) {
    for (int64_t d = -1; d <= 1; ++d) {
      if (a.offsetAt(t + d) != b.offsetAt(t + d)) {
        where = t + d;
        return false;
      }
    }
  }
  return true;
}

// The rules of a TZ value with every week number 5 ("last") read as 4.
Str rulesWithWeekFiveAsFour(const Str &tz) {
  Str rules = tz.substr(std::min(tz.find(','), tz.size()));
  rules.replaceAll(".5.", ".4.");
  return rules;
}

// Why the estimate may disagree with the zone, by the rules of the estimate; null if nothing
// explains it.
const char *explain(const SystemZone &zone, const Str &estimate, const TimezoneData &loaded,
                    int64_t now) {
  for (size_t at = zone.footer.find('/'); at != Str::npos; at = zone.footer.find('/', at + 1)) {
    if (zone.footer[at + 1] == '-' || atoi(zone.footer.c_str() + at + 1) >= 24)
      return "the zone changes at a wall-clock time outside 0-24 h, landing on another date; "
             "the estimate names the date the change lands on";
  }
  auto footer_zone = std::make_unique<TimezoneData>();
  int64_t where;
  if (!footer_zone->parsePosixString(zone.footer) ||
      !sameOffsets(*zone.tz, *footer_zone, now, now + TEN_YEARS, where))
    return "the zone's table departs from its own yearly rules within ten years; rules are "
           "inferred from transitions, and one yearly pair can't follow it";
  // Rule-built zones hold dst as type 0 and standard time as type 1.
  if (loaded.ttis[0].gmtoff == footer_zone->ttis[0].gmtoff &&
      loaded.ttis[1].gmtoff == footer_zone->ttis[1].gmtoff &&
      rulesWithWeekFiveAsFour(estimate) == rulesWithWeekFiveAsFour(zone.footer))
    return "a last-weekday rule falls in week 4 in some years and week 5 in others; those "
           "years' candidates share nothing, and the slot keeps its first rule";
  return nullptr;
}

TEST(TimezoneSystemZones, EstimateForNowFollowsEachZoneForTenYears) {
  const int64_t now = Timeval::now().seconds();
  size_t with_footer = 0, agree = 0, identical = 0;
  std::map<Str, std::vector<Str>> explained;
  for (const SystemZone &zone : systemZones()) {
    if (zone.footer.empty() || zone.leap_variant) continue;
    ++with_footer;
    const Str estimate = estimatedTzVariable(*zone.tz, now, true);
    if (estimatedTzVariable(*zone.tz, now, false) == zone.footer) ++identical;
    auto loaded = std::make_unique<TimezoneData>();
    ASSERT_TRUE(loaded->parsePosixString(estimate)) << zone.name << ": " << estimate;
    int64_t where;
    if (sameOffsets(*zone.tz, *loaded, now, now + TEN_YEARS, where)) {
      ++agree;
      continue;
    }
    if (const char *why = explain(zone, estimate, *loaded, now)) {
      explained[why].push_back(zone.name + " (" + estimate + " / " + zone.footer + ")");
    } else {
      ADD_FAILURE() << zone.name << ": estimate \"" << estimate << "\", rules \"" << zone.footer
                    << "\", offsets differ at " << where;
    }
  }
  printf("%zu zones with rules: %zu estimates agree for ten years, %zu are the zone's text\n",
         with_footer, agree, identical);
  for (const auto &[why, names] : explained) {
    printf("%zu differ because %s, e.g. %s\n", names.size(), why.c_str(), names[0].c_str());
  }
  EXPECT_GT(agree, with_footer / 2);
}

// ---- Against glibc: offset, abbreviation and isdst at each transition and a second either
// side, and at random instants, from 1900 to 2500. A difference needs a reason below, each a
// consequence of how this engine is meant to read zones; anything else fails.

// Why ours may differ from glibc at t, or null when nothing explains it.
const char *whyDifferent(const SystemZone &z, int64_t t) {
  const TimezoneData &tz = *z.tz;
  if (tz.timecnt != 0 && t < tz.ats[0]) {
    return &tz.typeAt(t) == &tz.transitionType(0)
               ? "before the first transition its type holds; glibc takes the first standard type"
               : nullptr;
  }
  const int64_t last = tz.timecnt ? tz.ats[tz.timecnt - 1] : INT64_MIN;
  auto rules = std::make_unique<TimezoneData>();
  if (t >= z.file_last && !z.footer.empty() &&
      !(rules->parsePosixString(z.footer) && rules->typecnt == 2)) {
    return t >= last ? "a footer that doesn't parse here (a rule time below 0) or doesn't give "
                       "two types is ignored: the file's last offset holds"
                     : nullptr;
  }
  if (t >= last && tz.timecnt == TimezoneData::MAX_TRANSITIONS && !z.footer.empty())
    return "the footer extends the table to 1200 transitions, then the last offset holds";
  if (t > z.file_last && z.footer.find('J') != Str::npos)
    return "Julian days at or past 59 move a day later in years that are not leap years";
  return nullptr;
}

TEST(TimezoneDifferential, EverySystemZoneAgainstGlibc) {
  constexpr int64_t FROM = -2208988800, UNTIL = 16725225600;  // 1900 to 2500
  testutil::ScopedTz restore("UTC");
  std::mt19937_64 rng(20240310);
  uint64_t compared = 0;
  std::map<std::string, uint64_t> reasons;
  std::map<Str, uint64_t> unexplained_by_zone;
  std::vector<int64_t> instants;
  for (const SystemZone &z : systemZones()) {
    const TimezoneData &tz = *z.tz;
    setenv("TZ", (":" + z.name).c_str(), 1);
    tzset();
    instants.clear();
    for (uint32_t i = 0; i < tz.timecnt; ++i) {
      for (int64_t t = tz.ats[i] - 1; t <= tz.ats[i] + 1; ++t)
        if (t >= FROM && t < UNTIL) instants.push_back(t);
    }
    for (int i = 0; i < 300; ++i)
      instants.push_back(FROM + static_cast<int64_t>(rng() % uint64_t(UNTIL - FROM)));

    for (int64_t t : instants) {
      const time_t tt = t;
      struct tm want;
      ASSERT_NE(localtime_r(&tt, &want), nullptr);
      const TimezoneType &got = tz.typeAt(t);
      ++compared;
      if (got.gmtoff == want.tm_gmtoff && (got.isdst != 0) == (want.tm_isdst > 0) &&
          strcmp(tz.abbreviation(got), want.tm_zone) == 0)
        continue;
      if (const char *why = whyDifferent(z, t)) {
        ++reasons[why];
      } else if (++unexplained_by_zone[z.name] <= 3) {
        ADD_FAILURE() << z.name << " at " << t << ": ours " << got.gmtoff << " "
                      << tz.abbreviation(got) << " " << int(got.isdst) << ", glibc "
                      << want.tm_gmtoff << " " << want.tm_zone << " " << want.tm_isdst;
      }
    }
  }
  printf("%llu instants compared with glibc\n", static_cast<unsigned long long>(compared));
  for (const auto &[why, n] : reasons)
    printf("%llu differ: %s\n", static_cast<unsigned long long>(n), why.c_str());
}

}  // namespace
