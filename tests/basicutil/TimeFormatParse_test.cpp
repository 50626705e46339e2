#include "basicutil/TimeFormatParse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "basicutil/DateTime.h"

using morvek::TimeFormat;
using morvek::TimeFormatRawParseResult;
using PR = TimeFormatRawParseResult;

namespace {

// The fields a parse set, in a fixed order, then "+N" for the bytes consumed; "FAIL" when the
// parse failed.
std::string parse(const char *format, const char *input, bool parse_mode = false) {
  TimeFormat f;
  EXPECT_TRUE(parse_mode ? f.setForParse(format, strlen(format)) : f.set(format)) << format;
  TimeFormatRawParseResult r;
  memset(&r, 0x5a, sizeof r);
  r.have = 0;
  r.conflicts = 0;
  const char *stop = morvek::rawParse(f, r, input, input + strlen(input));
  if (stop == nullptr) return "FAIL";
  std::string out;
  auto add = [&](uint32_t bit, const char *name, int64_t v) {
    if (r.have & bit) out += name + std::to_string(v) + " ";
  };
  add(PR::HAVE_EPOCH, "s", r.epoch);
  add(PR::HAVE_NEGATIVE_EPOCH, "neg", 1);
  add(PR::HAVE_YEAR, "Y", r.year);
  add(PR::HAVE_CENTURY, "C", r.century);
  add(PR::HAVE_YEAR2, "y", r.year2);
  add(PR::HAVE_ISOYEAR, "G", r.isoyear);
  add(PR::HAVE_ISOYEAR2, "g", r.isoyear2);
  add(PR::HAVE_MONTH, "m", r.month);
  add(PR::HAVE_WEEK_SUN, "U", r.week_sun);
  add(PR::HAVE_WEEK_MON, "W", r.week_mon);
  add(PR::HAVE_WEEK_ISO, "V", r.week_iso);
  add(PR::HAVE_MONTHDAY, "d", r.monthday);
  add(PR::HAVE_YEARDAY, "j", r.yearday);
  add(PR::HAVE_WEEKDAY, "w", r.weekday);
  add(PR::HAVE_HOUR24, "H", r.hour);
  add(PR::HAVE_HOUR12, "I", r.hour12);
  add(PR::HAVE_AMPM, "pm", r.pm);
  add(PR::HAVE_MINUTE, "M", r.minute);
  add(PR::HAVE_SECOND, "S", r.second);
  if (r.have & PR::HAVE_SUBSEC) {
    out += "f" + std::to_string(r.subsec) + "/" + std::to_string(r.subsec_digits) + " ";
  }
  add(PR::HAVE_TZOFF, "z", r.tzoffset);
  if (r.have & PR::HAVE_TZNAM) out += "Z'" + std::string(r.tzname, r.tzname_len) + "' ";
  if (r.conflicts) out += "c" + std::to_string(r.conflicts) + " ";
  return out + "+" + std::to_string(stop - input);
}

TEST(TimeFormatParse, EachAtomOnItsInput) {
  const struct {
    const char *format, *input, *expected;
  } cases[] = {
      // clang-format off
      // Digit runs, split by width and value.
      {"%Y%m%d", "20240229", "Y2024 m1 d29 +8"}, {"%H%M", "0930", "H9 M30 +4"},
      {"%d", "123 ", "d12 +2"}, {"%-d%m", "3112", "m11 d31 +4"}, {"%d", "45", "FAIL"},
      {"%-d", "45", "d4 +1"}, {"%m", "7", "m6 +1"}, {"%H:%M", " 9:05", "H9 M5 +5"},
      {"%Y", "2024123", "FAIL"}, {"%Y", "1970", "FAIL"}, {"%Y", "3000", "FAIL"},
      {"%y", "69", "y69 +2"}, {"%C%y", "2024", "C20 y24 +4"}, {"%j", "366", "j365 +3"},
      {"%j", "000", "FAIL"}, {"%u %w", "7 0", "w6 c1 +3"}, {"%I %p", "12 am", "I0 pm0 +5"},
      {"%I", "0", "FAIL"}, {"%H", "24", "H24 +2"}, {"%H:%M", "24:00", "H24 M0 +5"},
      {"%H:%M", "24:01", "FAIL"}, {"%S", "60", "S60 +2"}, {"%d %d", "5 6", "d5 c1 +3"},
      {"%d %d", "5 5", "d5 +3"}, {"%s", "1700000000", "s1700000000 +10"},
      {"%s%Q", "1700000000123", "s1700000000 f123000/3 +13"}, {"%s", "-5", "s-5 neg1 +2"},
      {"%s", "99999999999999999999", "s9223372036854775807 c1 +20"}, {"%s", "-", "FAIL"},
      {"%G-W%V-%u", "2020-W53-4", "G2020 V53 w3 +10"}, {"%U %W", "0 53", "U0 W53 +4"},
      {"%d", "", "FAIL"},
      // Sub-seconds and their separator.
      {"%H:%M:%S,%Q", "12:34:56.123", "H12 M34 S56 f123000/3 +12"},
      {"%H:%M:%S.%Q", "12:34:56", "H12 M34 S56 +8"}, {"%H:%M:%S,%Q", "12:34:56", "H12 M34 S56 +8"},
      {"%H:%M:%S.%Q", "12:34:56 x", "H12 M34 S56 +8"},
      {"%S.%N", "01.123456789", "S1 f123456/6 +12"}, {"%S.%f", "01.5", "S1 f500000/1 +4"},
      {"%S.%l", "01,250", "S1 f250000/3 +6"}, {"%Q %f", "12 123", "f123000/3 +6"},
      {"%f %Q", "123 456", "f123000/3 c1 +7"}, {"%f %Q", "1234 456", "f123400/4 +8"},
      // Names in every form.
      {"%a %b %e", "Thu Feb 29", "m1 d29 w4 +10"}, {"%a", "THURSDAY", "w4 +8"},
      {"%a", "Xyz", "FAIL"}, {"%a", "Tu", "w2 +2"}, {"%a", "T", "+1"}, {"%A", "Tuesday", "w2 +7"},
      {"%A", "Tues", "w2 +4"}, {"%A", "Tued", "FAIL"}, {"%A", "Mond", "w1 +4"},
      {"%A", "Tuesdays", "FAIL"}, {"%A", "Today", "FAIL"}, {"%b", "sept", "m8 +4"},
      {"%b", "Se", "+2"}, {"%B", "May", "m4 +3"}, {"%B", "december", "m11 +8"},
      {"%B", "Decem", "FAIL"}, {"%B", "Oct", "m9 +3"}, {"%B", "十二月", "m11 +0"},
      {"%B", "三月", "m2 +0"}, {"%b%d", "JanFeb", "FAIL"}, {"%a%b", "MonFeb", "m1 w1 +6"},
      {"%3b%d", "Feb12", "m1 d12 +5"}, {"%p", "P.M.", "pm1 +4"}, {"%p", "a.m", "FAIL"},
      {"%p", "午後", "pm1 +6"}, {"%p", "오전", "pm0 +6"}, {"%p", "下午", "pm1 +6"}, {"%p", "x", "FAIL"},
      {"%p %p", "am pm", "pm0 c1 +5"},
      // Zone names and offsets.
      {"%Z", "Eastern Standard Time(", "Z'Eastern Standard Time' +21"}, {"%Z", "EST.", "Z'EST' +3"},
      {"%Z", "a.m. ", "Z'a.m' +3"},
      {"%Z", "E. Europe Standard Time", "Z'E. Europe Standard Time' +23"},
      {"%Z", "Central Standard Time (Mexico) x", "Z'Central Standard Time (Mexico)' +30"},
      {"%Z", "Mexico Standard Time 2", "Z'Mexico Standard Time 2' +22"},
      {"%Z", "Mexico Standard Time 23", "Z'Mexico Standard Time' +20"},
      {"%Z", "America/New_York", "Z'America/New_York' +16"}, {"%Z", "+05:30", "z19800 +6"},
      {"%Z", "-", "FAIL"}, {"%Z", ".EST", "FAIL"}, {"%Z %Z", "EST Eastern", "Z'Eastern' c1 +11"},
      {"%z", "+0530", "z19800 +5"}, {"%z", "-08", "z-28800 +3"}, {"%z", "+2400", "FAIL"},
      {"%z", "+0560", "FAIL"}, {"%:z", "-04:00", "z-14400 +6"}, {"%::z", "+01:02:03", "z3723 +9"},
      {"%:::z", "+05", "z18000 +3"}, {"%:::z%H", "+0512", "H12 z18000 +5"},
      {"%Ez", "-300", "z-18000 +4"}, {"%Ez", "1440", "FAIL"},
      {"%z %Z", "+0100 +0200", "z3600 c1 +11"},
      // Whitespace, literals and the end of the input.
      {"%H%n%M", "10 \t 20", "H10 M20 +7"}, {"%H%n%M", "1020", "H10 M20 +4"},
      {"%H%t %M", "10\t 20", "H10 M20 +6"}, {"%H%t %M", "10  20", "FAIL"},
      {"%H at %M", "10 at 20", "H10 M20 +8"}, {"%H at %M", "10 AT 20", "FAIL"},
      {"%H%n", "10", "H10 +2"}, {"%H %M", "10", "FAIL"}, {"%T", "", "FAIL"}, {"%n", "", "+0"},
      {"", "x", "FAIL"}, {"%F %T", "2024-02-29 23:59:60 tail", "Y2024 m1 d29 H23 M59 S60 +19"},
      {"%c", "Thu Feb 29 23:59:60 2024", "Y2024 m1 d29 w4 H23 M59 S60 +24"},
      // clang-format on
  };
  for (const auto &c : cases) {
    EXPECT_EQ(parse(c.format, c.input), c.expected) << c.format << " on \"" << c.input << "\"";
  }
  EXPECT_EQ(parse("%x", "02/29/2024", true), "Y2024 m1 d29 +10");
  EXPECT_EQ(parse("%x", "02/29/24", true), "y24 m1 d29 +8");
}

TEST(TimeFormatParse, OffsetAndMonthHelpers) {
  struct {
    const char *text;
    bool ok;
    int64_t offset;
  } offsets[] = {
      // clang-format off
      {"", true, 0}, {"+", true, 0}, {"-8", true, -28800}, {"+530", true, 19800},
      {"0530", true, 19800}, {"+05:30", true, 19800}, {"+5:30", true, 19800},
      {"+05:30:15", true, 19815}, {"+23:59:59", true, 86399}, {"+24", false, 0},
      {"+05:60", false, 0}, {"+05:3", false, 0}, {"+053000", false, 0}, {"+05:30:", false, 0},
      {"05x", false, 0}, {"+123:00", false, 0}, {"9959", false, 0},
      // clang-format on
  };
  for (const auto &o : offsets) {
    int64_t v = 77;
    EXPECT_EQ(morvek::parseOffset(o.text, o.text + strlen(o.text), v), o.ok) << o.text;
    if (o.ok) {
      EXPECT_EQ(v, o.offset) << o.text;
    }
  }
  int64_t v = 0;
  EXPECT_TRUE(morvek::parseMinutesOffset("+1439", strchr("+1439", 0), v));
  EXPECT_EQ(v, 86340);
  EXPECT_FALSE(morvek::parseMinutesOffset("-", strchr("-", 0), v));
  const char *cjk = "十一月";
  size_t len = 0;
  EXPECT_EQ(morvek::monthFromCjk(cjk, cjk + strlen(cjk), &len), 10);
  EXPECT_EQ(len, strlen(cjk));
  EXPECT_EQ(morvek::monthFromCjk(cjk, cjk + 3), -1);
}

}  // namespace
