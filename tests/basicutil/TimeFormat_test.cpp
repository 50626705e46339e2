#include "basicutil/TimeFormat.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "basicutil/TimeRender.h"
#include "basicutil/Timeval.h"

using morvek::Str;
using morvek::TimeFormat;
using morvek::TimeFormatAtom;

namespace {

const char *const WHAT_NAMES[] = {
    "colon", "sec", "needed", "min", "hhmm",  "epoch", "Y", "C", "y",  "G",   "g",     "either",
    "m",     "U",   "W",      "V",   "mweek", "d",     "j", "w", "u",  "H",   "I",     "M",
    "S",     "sub", "a",      "A",   "b",     "B",     "p", "Z", "ws", "lit", "punct", "l",
};

// Each atom as name, width and padding (s space, 0 zero, - none, . default), then "^" or "#"
// for the case; text atoms as their quoted text. Joined by blanks.
std::string describe(const TimeFormat &f) {
  std::string out;
  for (const TimeFormatAtom &a : f) {
    if (!out.empty()) out += ' ';
    if (a.what == TimeFormat::LITERAL || a.what == TimeFormat::WHITESPACE) {
      out += (a.what == TimeFormat::LITERAL ? "'" : "ws'") + std::string(a.literal().view()) + "'";
      continue;
    }
    out += WHAT_NAMES[a.what] + std::to_string(a.width) + ".s0-"[a.x.conv.padding];
    if (a.x.conv.case_mod != 0) out += " ^#"[a.x.conv.case_mod];
  }
  return out;
}

std::string compile(const char *text, bool parse_mode = false) {
  TimeFormat f;
  bool ok = parse_mode ? f.setForParse(text, strlen(text)) : f.set(text);
  return ok ? describe(f) : "REFUSED";
}

// The render tests (an atom table and a strftime comparison) pin what each conversion and flag
// writes; these are the aliases, flag mixes and composites they don't reach.
TEST(TimeFormatCompile, FormsRenderingDoesNotShow) {
  const std::pair<const char *, const char *> cases[] = {
      // clang-format off
      {"%o", "Y40"}, {"%q", "sub60"}, {"%#I", "I2-#"}, {"%#_d", "d2s#"}, {"%#e", "d2s#"}, {"%#C", "C20#"},
      {"%-10Y", "Y10-"}, {"%-a", "a3-"}, {"%^P", "p2s^"}, {"%0Q", "sub30"}, {"%12N", "sub120"},
      {"%7Ez", "min7-"}, {"%Oy", "y20"}, {"%Oe", "d2s"}, {"%OB", "B0s"}, {"%Ou", "u1."},
      {"%OV", "V20"}, {"%EX", "H20 ':' M20 ':' S20"},
      {"%Ec", "a3s ' ' b3s ' ' d2s ' ' H20 ':' M20 ':' S20 ' ' Y20"},
      {"%^c", "a3s^ ' ' b3s^ ' ' d2s ' ' H20 ':' M20 ':' S20 ' ' Y20"},
      {"%#x", "A0s ', ' B0s ' ' d2- ', ' Y4-"},
      // clang-format on
      // Literal text merges into runs.
      {"", ""},
      {"100%% sure%n", "'100% sure' ws'\n'"},
      {"%%%%", "'%%'"},
      {"[%H]h", "'[' H20 ']h'"},
      {"a%tb", "'a' ws'\t' 'b'"},
      // clang-format off
      // %l: milliseconds after the seconds, else the 12-hour clock.
      {"%s.%l", "epoch00 '.' sub30"}, {"%s%l", "epoch00 sub30"}, {"%S,%l", "S20 ',' sub30"},
      {"%H:%M:%S.%l", "H20 ':' M20 ':' S20 '.' sub30"}, {"%T.%l", "H20 ':' M20 ':' S20 '.' sub30"},
      {"%H:%l", "H20 ':' I2s"}, {"%M:%S.%l", "M20 ':' S20 '.' I2s"},
      {"%l:%M:%S.%l", "I2s ':' M20 ':' S20 '.' sub30"}, {"%S..%l", "S20 '..' I2s"},
      {"%S.%3l", "S20 '.' I3s"}, {"%S.%-l", "S20 '.' I2-"},
      // clang-format on
  };
  for (const auto &[format, atoms] : cases) EXPECT_EQ(compile(format), atoms) << format;
  // Compiled for reading, the year of %x may have two or four digits.
  EXPECT_EQ(compile("%x", true), "m20 '/' d20 '/' either20");
  EXPECT_EQ(compile("%#x", true), "A0s ', ' B0s ' ' d2- ', ' either2-");
  EXPECT_EQ(compile("%D", true), "m20 '/' d20 '/' y20");
}

TEST(TimeFormatCompile, RefusesWhatItCannotHonour) {
  for (const char *format :
       {"%",    "%5",   "%_",   "abc%", "%E",   "%:",     "%::",   "%-%",  "%^%",  "%::::z", "%:y",
        "%:Z",  "%1a",  "%2b",  "%0A",  "%0a",  "%0b",    "%0p",   "%_Q",  "%-N",  "%_f",    "%5T",
        "%_D",  "%0F",  "%-c",  "%OT",  "%Oc",  "%ED",    "%5n",   "%En",  "%Ea",  "%EH",    "%OY",
        "%OC",  "%Oj",  "%Ob",  "%Os",  "%Ol",  "%El",    "%Oz",   "%E:z", "%5^d", "%E^d",   "%^#d",
        "%^^d", "%5_d", "%E-d", "%-0d", "%00d", "%E5d",   "%O0d",  "%__d", "%-t",  "%EEy",   "%EOy",
        "%i",   "%J",   "%K",   "%L",   "%y%",  "%4097d", "%\xff", "% d"})
    EXPECT_EQ(compile(format), "REFUSED") << format;
  EXPECT_EQ(compile("%99999999999999999999999d"), "REFUSED");
  // The modifier check accepts "%Od" alone but not after a refused neighbour.
  EXPECT_NE(compile("%Od"), "REFUSED");
  EXPECT_EQ(compile("%Od%Ed"), "REFUSED");
  EXPECT_NE(compile("%4096d"), "REFUSED");
}

TEST(TimeFormatCompile, WidthsAndResolutions) {
  struct Case {
    const char *format;
    uint64_t max_width;
    int finest, coarsest;
  } cases[] = {
      {"", 0, -7, 1},       {"text", 4, -7, 1},         {"%Y", 4, -6, -6},
      {"%Y-%m", 7, -5, -6}, {"%b %Y", 8, -5, -6},       {"%B", 9, -5, -5},
      {"%12B", 12, -5, -5}, {"%G-W%V", 8, -4, -6},      {"%U", 2, -4, -4},
      {"%a %d", 6, -3, -3}, {"%A", 9, -3, -3},          {"%j", 3, -3, -3},
      {"%H", 2, -2, -2},    {"%I %p", 5, -2, -2},       {"%R", 5, -1, -2},
      {"%T", 8, 0, -2},     {"%s", 10, 0, 0},           {"%12s", 12, 0, 0},
      {"%s.%6Q", 17, 6, 0}, {"%S.%N", 12, 9, 0},        {"%Q", 3, 3, 1},
      {"%Z %z", 9, -7, 1},  {"%:::z %p", 12, -7, 1},    {"%c", 22, 0, -6},
      {"%+", 26, 0, -6},    {"%FT%T.%Q%:z", 29, 3, -6},
  };
  for (const Case &c : cases) {
    TimeFormat f;
    ASSERT_TRUE(f.set(c.format)) << c.format;
    EXPECT_EQ(f.max_width(), c.max_width) << c.format;
    EXPECT_EQ(f.finest(), c.finest) << c.format;
    EXPECT_EQ(f.coarsest(), c.coarsest) << c.format;
  }
}

TEST(TimeFormatCompile, EmptyAndFailedObjects) {
  TimeFormat f;
  EXPECT_FALSE(f.compiled());
  ASSERT_TRUE(f.set(""));
  EXPECT_TRUE(f.compiled());
  EXPECT_TRUE(f.empty());
  // A failed set leaves nothing of the previous format.
  ASSERT_TRUE(f.set("%H:%M"));
  EXPECT_FALSE(f.set("%H:%2b"));
  EXPECT_FALSE(f.compiled());
  EXPECT_EQ(f.size(), 0u);
  EXPECT_EQ(f.max_width(), 0u);
  EXPECT_EQ(f.coarsest(), 1);
}

TEST(TimeFormatCompile, CopiesAndMovesKeepTheirOwnLiterals) {
  // Short literal text lives inside the object, so a copy or move must re-point its atoms.
  for (const char *text : {"[%H] h", "%d of a longer literal text than the short form %m"}) {
    TimeFormat original(text);
    const std::string expected = describe(original);
    auto copy = std::make_unique<TimeFormat>(original);
    TimeFormat moved(std::move(*copy));
    copy.reset();
    EXPECT_EQ(describe(moved), expected);
    TimeFormat assigned;
    assigned = moved;
    moved = TimeFormat("%S");
    EXPECT_EQ(describe(assigned), expected);
    for (const TimeFormatAtom &a : assigned) {
      if (a.what != TimeFormat::LITERAL) continue;
      const char *p = a.x.text;
      EXPECT_FALSE(p >= reinterpret_cast<const char *>(&original) &&
                   p < reinterpret_cast<const char *>(&original + 1));
    }
  }
}

TEST(TimeFormatCompile, JavaPatterns) {
  struct Case {
    const char *format, *java;
  } cases[] = {
      // clang-format off
      {"%Y-%m-%d %H:%M:%S.%Q", "yyyy-MM-dd HH:mm:ss.SSS"}, {"%y/%1Y", "yy/y"},
      {"%d at %I%p", "dd' at 'hha"}, {"%a, %b %-d %Z", "E, MMM dd zzz"}, {"%A %B", "E MMM"},
      {"%T%z|%:z", "HH:mm:ssZ|ZZ"}, {"%w", ""}, {"%e", ""}, {"%P", ""}, {"%j", ""}, {"%::z", ""},
      {"%s", ""}, {"%n", ""}, {"it's %H o'clock", "'it''s 'HH' o''clock'"}, {"''", "''''"},
      {"%x", "MM/dd/yy"}, {"%S,%f", "ss,SSSSSS"},
      // clang-format on
  };
  for (const Case &c : cases) {
    TimeFormat f(c.format);
    Str out("stale");
    EXPECT_EQ(f.toJavaPattern(out), *c.java != '\0') << c.format;
    EXPECT_EQ(out, c.java) << c.format;
  }
}

TEST(TimeFormatCompile, WholeFormatNames) {
  const char *names[] = {"%UT",    "%UT.%Q", "%UT.%3Q", "%UT.%6Q", "%UT.%9Q", "%s",     "%s.%Q",
                         "%s.%3Q", "%s.%6Q", "%s.%9Q",  "%UT%Q",   "%UT%3Q",  "%UT%6Q", "%UT%9Q",
                         "%s%Q",   "%s%3Q",  "%s%6Q",   "%s%9Q",   "%ST"};
  for (int i = 0; i < TimeFormat::WHOLE_FORMAT_COUNT; ++i) {
    EXPECT_EQ(TimeFormat::wholeFormatIndex(names[i]), i);
    Str out;
    TimeFormat::appendWholeFormatName(out, i);
    EXPECT_EQ(out, i == 2 ? "UT.%3Q" : names[i]);
  }
  for (const char *other : {"%UT.", "%s ", "", "UT", "%S"}) {
    EXPECT_EQ(TimeFormat::wholeFormatIndex(other), -1) << other;
  }
  Str out("x");
  TimeFormat::appendWholeFormatName(out, 19);
  EXPECT_EQ(out, "xUnknown Morvek Time Format: 19");
}

TEST(TimeFormatCompile, StandardFormatsAreReady) {
  const char *const want[] = {"2024-03-10T07:00:00+00:00",      "2024-03-10T07:00:00.250+00:00",
                              "Sunday, 10-Mar-24 07:00:00 GMT", "Sun, 10 Mar 2024 07:00:00 GMT",
                              "Sun Mar 10 07:00:00 2024",       "Sun Mar 10 07:00:00 2024 +0000"};
  for (int i = 0; i < morvek::TIMEFORMAT_STANDARD_COUNT; ++i) {
    Str out;
    morvek::renderUtc(morvek::standardTimeFormat(morvek::StandardTimeFormat(i)), out,
                      morvek::Timeval(1710054000, 250000));
    EXPECT_EQ(out, want[i]);
  }
}

TEST(TimeFormatCompileDeathTest, ConstructorAbortsOnABadFormat) {
  EXPECT_DEATH(TimeFormat("%H:%2b"), "cannot compile the format \"%H:%2b\"");
}

}  // namespace
