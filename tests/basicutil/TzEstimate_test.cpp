#include "basicutil/TzEstimate.h"

#include <gtest/gtest.h>

#include <memory>

#include "basicutil/Timeval.h"
#include "basicutil/TimezoneSerialize.h"

using namespace morvek;

namespace {

const int64_t NOV_2024 = 1732000000;   // 2024-11-19
const int64_t JAN_2600 = 19880899200;  // 2600-01-01, past the 600 years of a rule table
const int64_t NOV_2023 = 1700000000;   // 2023-11-14

std::unique_ptr<TimezoneData> posixZone(const char *text) {
  auto tz = std::make_unique<TimezoneData>();
  EXPECT_TRUE(tz->parsePosixString(text)) << text;
  return tz;
}

TEST(TzEstimate, RulesInferredFromPosixZones) {
  const struct {
    const char *zone;
    int64_t time;
    bool utc;
    const char *want;
  } cases[] = {
      {"EST5EDT,M3.2.0,M11.1.0", NOV_2024, false, "EST5EDT,M3.2.0,M11.1.0"},
      // Times of day: 02:00 says nothing, whole hours no minutes, seconds only when there.
      {"AAA3BBB,M3.2.0/1,M11.1.0/1:30", NOV_2024, false, "AAA3BBB,M3.2.0/1,M11.1.0/1:30"},
      {"CCC3DDD,M4.1.0/0:0:30,M10.1.0/23", NOV_2024, false, "CCC3DDD,M4.1.0/0:0:30,M10.1.0/23"},
      // Southern hemisphere, and a dst offset that isn't one hour more.
      {"AAA-10:30BBB-11,M10.1.0,M4.1.0", NOV_2024, false, "AAA-10:30BBB-11,M10.1.0,M4.1.0"},
      // A fixed day of the year: from March only the zero-based day agrees across leap years,
      // and it is written one larger; before March the Julian day does.
      {"AAA3BBB,99,299", NOV_2024, false, "AAA3BBB,100,300"},
      {"AAA3BBB,J40,M11.1.0", NOV_2024, false, "AAA3BBB,J40,M11.1.0"},
      // Fixed zones and offsets.
      {"<+03>-3", NOV_2024, true, "UTC-3"},
      {"<+03>-3", NOV_2024, false, "+03-3"},
      {"<-03>3<A-b>,M3.2.0,M11.1.0", NOV_2024, true, "UTC3UTC,M3.2.0,M11.1.0"},
      {"XYZ-1:02:03", NOV_2024, false, "XYZ-1:2:3"},
      {"<-0930>9:30", NOV_2024, true, "UTC9:30"},
      // Past the end of the table the last change is far away: a fixed estimate.
      {"EST5EDT,M3.2.0,M11.1.0", JAN_2600, false, "EST5"},
  };
  for (const auto &c : cases) {
    const auto tz = posixZone(c.zone);
    EXPECT_EQ(estimatedTzVariable(*tz, c.time, c.utc), c.want) << c.zone << " at " << c.time;
  }
}

TEST(TzEstimate, SystemZones) {
  const struct {
    const char *zone;
    int64_t time;
    const char *want;
  } cases[] = {
      {"America/New_York", NOV_2024, "EST5EDT,M3.2.0,M11.1.0"},
      {"Asia/Tokyo", NOV_2024, "JST-9"},
      {"Asia/Kolkata", NOV_2024, "IST-5:30"},
      // DST ended in October 2022: a year later the last dst change is out of reach.
      {"America/Mexico_City", NOV_2023, "CST6"},
      // The last Sundays of October 2024 and 2025, the 27th and 26th, are both in week 4: the
      // estimate says M10.4.0, wrong for 2027 (the 31st).
      {"Europe/Paris", NOV_2024, "CET-1CEST,M3.5.0,M10.4.0/3"},
  };
  for (const auto &c : cases) {
    const TimezoneData *tz = getTimezone(c.zone);
    ASSERT_NE(tz, nullptr) << c.zone;
    EXPECT_EQ(estimatedTzVariable(*tz, c.time, false), c.want) << c.zone;
  }
}

TEST(TzEstimate, PortableNameAndSettingText) {
  Str out = "untouched";
  EXPECT_FALSE(portableTzName(Timezone(), out, true));
  EXPECT_FALSE(portableTzName(Timezone(getTimezone()), out, true));  // the local zone needs none
  EXPECT_EQ(out, "untouched");
  tzSettingText(Timezone(), out);
  EXPECT_EQ(out, "default");

  const Timezone rules("EST5EDT,M3.2.0,M11.1.0"), dubai("Asia/Dubai");
  const int64_t now = Timeval::now().seconds();
  if (getTimezone()->equivalentAt(*rules.data(), now) ||
      getTimezone()->equivalentAt(*dubai.data(), now))
    GTEST_SKIP() << "the local zone is one of the zones under test";
  // A system zone's name is portable; a rule string (a name with ".") is estimated.
  ASSERT_TRUE(portableTzName(dubai, out, true));
  EXPECT_EQ(out, "Asia/Dubai");
  tzSettingText(rules, out);
  EXPECT_EQ(out, "EST5EDT,M3.2.0,M11.1.0");
  // A rebuilt zone has no name: its setting is the estimate, spelt so that it reads back.
  const Str text = serializedTimezoneText(*dubai.data(), 30, now);
  SerializedTimezoneTextReader reader(text);
  Timezone rebuilt;
  ASSERT_NE(rebuilt.setFromSerialized(reader), nullptr);
  tzSettingText(rebuilt, out);
  EXPECT_EQ(out, "UTC-4");
}

}  // namespace
