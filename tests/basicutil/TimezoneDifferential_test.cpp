// Every zone of the system's tzdata against glibc's localtime_r with TZ set to it: offset,
// abbreviation and isdst at each transition and a second either side, and at random instants,
// from 1900 to 2500. Differences must fall into one of the classes below, each a consequence
// of how this engine is meant to read zones; anything else fails.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

constexpr int64_t FROM = -2208988800;   // 1900-01-01
constexpr int64_t UNTIL = 16725225600;  // 2500-01-01
constexpr const char *ZONEINFO = "/usr/share/zoneinfo";

enum DiffClass {
  // Before the first transition the type of transition 0 is in force; glibc takes the first
  // standard type (usually local mean time) instead.
  BEFORE_FIRST,
  // The footer's rules extend the table only up to 1200 transitions in all; past the last
  // one its offset holds, where glibc goes on applying the rule.
  TABLE_FULL,
  // A footer that doesn't parse here (a rule time below zero, such as "M3.5.0/-1") or doesn't
  // give exactly two types is ignored: the file's last offset holds past its last transition.
  FOOTER_UNUSED,
  // Julian "Jn" days at or past 59 move one day later in the years that are NOT leap years.
  JULIAN_QUIRK,
  UNEXPLAINED,
  CLASS_COUNT
};
const char *const CLASS_NAMES[] = {"before-first-transition", "table-full", "footer-unused",
                                   "julian-day-quirk", "UNEXPLAINED"};

std::string footerOf(const std::string &bytes) {
  if (bytes.size() < 2 || bytes.back() != '\n') return "";
  const size_t open = bytes.rfind('\n', bytes.size() - 2);
  return open == std::string::npos ? "" : bytes.substr(open + 1, bytes.size() - open - 2);
}

bool footerUsable(const std::string &footer) {
  if (footer.empty()) return false;
  auto rules = std::make_unique<TimezoneData>();
  return rules->parsePosixString(StrSegment(footer)) && rules->typecnt == 2;
}

struct Zone {
  std::string name, footer;
  int64_t file_last;  // the file's own last transition
};

std::vector<Zone> systemZones() {
  std::vector<Zone> zones;
  for (const auto &e : std::filesystem::recursive_directory_iterator(ZONEINFO)) {
    if (!e.is_regular_file()) continue;  // follows links
    std::ifstream in(e.path(), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    const std::string bytes = s.str();
    if (bytes.compare(0, 4, "TZif") != 0) continue;  // tables, leap-second lists
    Zone z{std::filesystem::relative(e.path(), ZONEINFO).string(), footerOf(bytes), INT64_MIN};
    TimezoneData bare;
    if (bare.parseZoneFile(StrSegment(bytes), false) && bare.timecnt)
      z.file_last = bare.ats[bare.timecnt - 1];
    zones.push_back(z);
  }
  std::sort(zones.begin(), zones.end(), [](auto &a, auto &b) { return a.name < b.name; });
  return zones;
}

DiffClass classify(const TimezoneData &tz, const Zone &z, int64_t t) {
  if (tz.timecnt != 0 && t < tz.ats[0]) {
    const TimezoneType &first = tz.transitionType(0);
    return &tz.typeAt(t) == &first ? BEFORE_FIRST : UNEXPLAINED;
  }
  const int64_t last = tz.timecnt ? tz.ats[tz.timecnt - 1] : INT64_MIN;
  if (t >= z.file_last && !z.footer.empty() && !footerUsable(z.footer))
    return t >= last ? FOOTER_UNUSED : UNEXPLAINED;
  if (t >= last && tz.timecnt == TimezoneData::MAX_TRANSITIONS && !z.footer.empty())
    return TABLE_FULL;
  if (t > z.file_last && z.footer.find('J') != std::string::npos) return JULIAN_QUIRK;
  return UNEXPLAINED;
}

TEST(TimezoneDifferential, EverySystemZoneAgainstGlibc) {
  if (!std::filesystem::is_directory(ZONEINFO)) GTEST_SKIP() << "no tzdata";
  const char *saved = getenv("TZ");
  const std::string old_tz = saved ? saved : "";

  const std::vector<Zone> zones = systemZones();
  ASSERT_GT(zones.size(), 300u);
  std::mt19937_64 rng(20240310);
  uint64_t counts[CLASS_COUNT] = {}, compared = 0;
  std::map<std::string, uint64_t> unexplained_by_zone;
  auto tz = std::make_unique<TimezoneData>();
  std::vector<int64_t> instants;

  for (const Zone &z : zones) {
    ASSERT_TRUE(tz->loadByName(StrSegment(z.name))) << z.name << " does not load";
    setenv("TZ", (":" + z.name).c_str(), 1);
    tzset();
    instants.clear();
    for (uint32_t i = 0; i < tz->timecnt; ++i) {
      for (int64_t d = -1; d <= 1; ++d) {
        const int64_t t = tz->ats[i] + d;
        if (t >= FROM && t < UNTIL) instants.push_back(t);
      }
    }
    for (int i = 0; i < 300; ++i)
      instants.push_back(FROM + static_cast<int64_t>(rng() % uint64_t(UNTIL - FROM)));

    for (int64_t t : instants) {
      const time_t tt = t;
      struct tm want;
      ASSERT_NE(localtime_r(&tt, &want), nullptr);
      const TimezoneType &got = tz->typeAt(t);
      ++compared;
      if (got.gmtoff == want.tm_gmtoff && (got.isdst != 0) == (want.tm_isdst > 0) &&
          strcmp(tz->abbreviation(got), want.tm_zone) == 0)
        continue;
      const DiffClass c = classify(*tz, z, t);
      ++counts[c];
      if (c == UNEXPLAINED && ++unexplained_by_zone[z.name] <= 3) {
        ADD_FAILURE() << z.name << " at " << t << ": ours " << got.gmtoff << " "
                      << tz->abbreviation(got) << " " << int(got.isdst) << ", glibc "
                      << want.tm_gmtoff << " " << want.tm_zone << " " << want.tm_isdst;
      }
    }
  }
  if (saved) {
    setenv("TZ", old_tz.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();

  printf("[ differential ] %zu zones, %llu instants compared\n", zones.size(),
         static_cast<unsigned long long>(compared));
  for (int c = 0; c < CLASS_COUNT; ++c)
    printf("[ differential ] %-24s %llu\n", CLASS_NAMES[c],
           static_cast<unsigned long long>(counts[c]));
  EXPECT_EQ(counts[UNEXPLAINED], 0u);
}

}  // namespace
