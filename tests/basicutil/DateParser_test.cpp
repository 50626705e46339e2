// Timestamp extraction: the pattern-file reader, scoring and choice of patterns, pattern memory,
// the time window, the previous event's time, warnings and TZ_ALIAS.
#include "basicutil/DateParser.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

using PR = TimeFormatRawParseResult;

Logger config_log("DateParser");
Logger verbose_log("DateParserVerbose");

// A small pattern set of the usual shapes.
const char *const PATTERNS = R"(# test set
[time]
hms   (?<hour>\d{1,2}):(?<minute>\d\d)(?::(?<second>\d\d)(?:[.,](?<subsecond>\d{1,9}))?)?
        (?:\s*(?<ampm>[AaPp][Mm]))?(?:\s*(?<zone>[A-Z]{3,4}\b|[+-]\d\d:?\d\d))?
epoch (?<utcepoch>\b\d{10})(?:\.(?<subsecond>\d{3,6}))?\b

[date]
iso   (?<year>\d{4})-(?<month>\d\d)-(?<day>\d\d)
sys   (?<litmonth>[A-Z][a-z]{2})\s+(?<day>\d{1,2})\b
)";

DateTimeRegexes &testSet() {
  static DateTimeRegexes *set = [] {
    auto *s = new DateTimeRegexes();
    Str error;
    EXPECT_TRUE(s->loadText(PATTERNS, "test.conf", error)) << error;
    return s;
  }();
  return *set;
}

Timeval utc(const char *text) {
  Timeval t;
  TimeFormat f("%Y-%m-%dT%H:%M:%S");
  EXPECT_GT(parseTime(f, text, t, nullptr, gmtTimezone()), 0) << text;
  return t;
}

struct Parser : DateParser {
  explicit Parser(DateTimeRegexes *set = &testSet(),
                  const TimezoneData *zone = getTimezone("America/New_York"))
      : DateParser(true, set) {
    setMode(1);
    setDefaultZone(zone);
  }
};

// Records a channel for the scope; the verbose one is raised to DEBUG if asked.
struct Capture : LogObserver {
  std::vector<std::string> lines;
  ScopedLogObserverRegistration reg;
  bool debug;
  explicit Capture(Logger &channel, bool d = false) : reg(&channel, this), debug(d) {
    if (debug) Logger::setLevel("DateParserVerbose", "DEBUG");
  }
  ~Capture() {
    if (debug) Logger::setLevel("DateParserVerbose", "INFO");
  }
  void observeLogLine(const Str &line) override { lines.push_back(line); }
  size_t count(const std::string &needle) const {
    size_t n = 0;
    for (const std::string &l : lines) n += l.find(needle) != std::string::npos;
    return n;
  }
};

class DateParserTest : public testing::Test {
 protected:
  void SetUp() override { Logger::initialize(); }
};

TEST_F(DateParserTest, ReaderErrorsNameTheLine) {
  struct Case {
    const char *text;
    const char *error;  // "" for success
  } cases[] = {
      {"# only a comment\n\n[time]\na (?<hour>\\d\\d):(?<minute>\\d\\d)\n", ""},
      {"a (?<hour>\\d)\n", "src:1: entry outside a section"},
      {"[time]\n[dates]\n", "src:2: unknown section [dates]"},
      {"[date]\nx (?<day>\\d)\ny \\d\nx \\d\\d\n", "src:4: duplicate label x"},
      {"[time]\n\nbad (?<hour>\\d\n", "src:3: pattern of bad does not compile"},
      {"[time]\n  (?<hour>\\d)\n", "src:2: continuation line without an entry"},
      {"[time]\nb@d \\d\n", "src:2: bad label"},
  };
  for (const Case &c : cases) {
    DateTimeRegexes set;
    Str error;
    EXPECT_EQ(set.loadText(c.text, "src", error) ? Str() : error, c.error) << c.text;
  }

  DateTimeRegexes set;
  Str error;
  ASSERT_TRUE(set.loadText("[time]\nlong (?<hour>\\d\\d)\n \t:(?<minute>\\d\\d)  \n", "s", error));
  ASSERT_EQ(set.timeList().entries.size(), 1u);
  EXPECT_EQ(set.timeList().entries[0]->pattern, "(?<hour>\\d\\d):(?<minute>\\d\\d)");

  EXPECT_FALSE(set.loadFile("/nonexistent/patterns.conf", error));
  EXPECT_EQ(error.rfind("/nonexistent/patterns.conf:0: ", 0), 0u) << error;
}

TEST_F(DateParserTest, CaptureNamesBecomeCodes) {
  DateTimeRegexes set;
  Capture rec(config_log);
  DateTimeRegex *re = set.addDate("(?<ignored_x>a)(b)(?<year>\\d+)(?<bogus>c)(?<ord>\\d)");
  EXPECT_EQ(re->codes, (std::vector<uint32_t>{13, 13, DTCODE_YEAR, 13, DTCODE_ORD}));
  EXPECT_EQ(rec.count("Found unknown extraction \"bogus\" in RE"), 1u);
  EXPECT_EQ(set.addDate("(?<ignored_x>a)(b)(?<year>\\d+)(?<bogus>c)(?<ord>\\d)"), re);
  EXPECT_EQ(set.dateList().entries.size(), 1u);
  DateTimeRegex *bad = set.addTime("(?<hour>");
  EXPECT_TRUE(bad->regex.empty());
  EXPECT_EQ(rec.count("Cannot compile RE \"(?<hour>\": "), 1u);
}

const Timeval NOW = utc("2024-03-10T12:00:00");

TEST_F(DateParserTest, FindsTimeAndDateWithOffsets) {
  // Zone choices across gaps, overlaps and New Year are proved by the corpus; here the spans.
  struct Case {
    const char *line;
    int64_t seconds;
    int32_t usec;
    int64_t offset;
    int32_t precision;
    const char *date, *time;
  } cases[] = {
      {"Mar  9 23:10:00.250 EDT y", 1710040200, 250000, -14400, 3, "Mar  9", "23:10:00.250 EDT"},
      {"12:30 PM +0530 no date", 1710054000, 0, 19800, -1, "", "12:30 PM +0530"},
  };
  for (const Case &c : cases) {
    Parser p;
    Timeval out;
    int32_t db, de, tb, te;
    ParseDetails d;
    ASSERT_TRUE(p.parse(out, c.line, NOW, &db, &de, &tb, &te, &d)) << c.line;
    EXPECT_EQ(out, Timeval(c.seconds, c.usec)) << c.line;
    EXPECT_EQ(d.offset, c.offset) << c.line;
    EXPECT_EQ(d.precision, c.precision) << c.line;
    EXPECT_EQ(db == -1 ? "" : std::string(c.line + db, de - db), c.date) << c.line;
    EXPECT_EQ(std::string(c.line + tb, te - tb), c.time) << c.line;
  }
}

// The time fields a capture set gave, as "hour:minute[:second] [zone]" or "@epoch".
std::string timeOf(const PR &pr) {
  if (pr.have & PR::HAVE_EPOCH) return "@" + std::to_string(pr.epoch);
  std::string s = std::to_string(pr.have & PR::HAVE_HOUR12 ? pr.hour12 + 12 * pr.pm : pr.hour) +
                  ":" + std::to_string(pr.minute);
  if (pr.have & PR::HAVE_SECOND) s += ":" + std::to_string(pr.second);
  if (pr.have & PR::HAVE_TZNAM) s += " " + std::string(pr.tzname, pr.tzname_len);
  return s;
}

TEST_F(DateParserTest, TimeCapturesScore) {
  const DateTimeCode HR = DTCODE_HOUR, MI = DTCODE_MINUTE, SE = DTCODE_SECOND,
                     SS = DTCODE_SUBSECOND, AP = DTCODE_AMPM, ZN = DTCODE_ZONE,
                     HX = DTCODE_HEXEPOCH, UE = DTCODE_UTCEPOCH;
  const uint32_t H12 = PR::HAVE_HOUR12 | PR::HAVE_AMPM | PR::HAVE_MINUTE,
                 H24 = PR::HAVE_HOUR24 | PR::HAVE_MINUTE, SEC = PR::HAVE_SECOND,
                 SUB = PR::HAVE_SUBSEC, TZ = PR::HAVE_TZNAM, EP = PR::HAVE_EPOCH;
  struct Case {
    std::vector<std::pair<DateTimeCode, const char *>> parts;
    int score;
    uint32_t have;
    const char *time;  // hour:minute[:second] [zone], or @epoch
  } cases[] = {
      {{{HR, "12"}, {MI, "30"}, {AP, "PM"}}, 9, H12, "12:30"},
      {{{HR, "12"}, {MI, "30"}}, 6, H24, "12:30"},
      {{{HR, "3"}, {MI, "05"}, {AP, "午後"}}, 8, H12, "15:5"},
      {{{HR, "25"}, {MI, "00"}}, -1, 0, ""},
      {{{HR, "10"}, {MI, "60"}}, -1, 0, ""},
      {{{HR, "10"}}, -1, 0, ""},
      {{{HR, "23"}, {MI, "59"}, {SE, "60"}, {SS, "5"}}, 10, H24 | SEC | SUB, "23:59:59"},
      {{{HR, "10"}, {MI, "00"}, {ZN, "+2500"}}, 6, H24, "10:0"},
      {{{HR, "10"}, {MI, "00"}, {ZN, "+05:30"}}, 13, H24 | TZ, "10:0 +05:30"},
      {{{HR, "10"}, {MI, "00"}, {ZN, "0530"}}, 11, H24 | TZ, "10:0 0530"},
      {{{HX, "65edb26f"}}, 4, EP, "@1710076527"},
      {{{HX, "65edb26g"}}, -1, 0, ""},
      {{{UE, "1710053999"}, {SS, "25"}}, 4, EP | SUB, "@1710053999"},
      {{{UE, "@4000000065edb26f00000000"}}, 4, EP, "@1710076527"},
  };
  TimeRegexList list;
  for (const Case &c : cases) {
    DateTimeCaptures caps{};
    for (const auto &[code, text] : c.parts) caps.part[code] = StrSegment(text);
    caps.count = static_cast<uint32_t>(c.parts.size());
    DateTimeParseResult r;
    r.clear();
    SCOPED_TRACE(c.parts[0].second);
    ASSERT_EQ(list.parse(caps, r), c.score);
    if (c.score < 0) continue;
    EXPECT_EQ(r.pr.have, c.have);
    EXPECT_EQ(timeOf(r.pr), c.time);
  }
}

TEST_F(DateParserTest, DateCapturesScore) {
  struct Case {
    std::vector<std::pair<DateTimeCode, const char *>> parts;
    int score;
    int32_t year, month, day;  // year -1: two-digit year2 holds it
  } cases[] = {
      {{{DTCODE_LITMONTH, "Mar"}, {DTCODE_DAY, "10"}}, 11, 0, 2, 10},
      {{{DTCODE_LITMONTH, "March"}, {DTCODE_DAY, "1"}, {DTCODE_YEAR, "2024"}}, 16, 2024, 2, 1},
      {{{DTCODE_LITMONTH, "三月"}, {DTCODE_DAY, "1"}}, 11, 0, 2, 1},
      {{{DTCODE_LITMONTH, "Ma"}, {DTCODE_DAY, "1"}}, -1, 0, 0, 0},
      {{{DTCODE_LITMONTH, "Mxy"}, {DTCODE_DAY, "1"}}, -1, 0, 0, 0},
      {{{DTCODE_MONTH, "03"}, {DTCODE_DAY, "10"}, {DTCODE_YEAR, "24"}}, 9, -1, 2, 10},
      {{{DTCODE_MONTH, "13"}, {DTCODE_DAY, "10"}}, -1, 0, 0, 0},
      {{{DTCODE_MONTH, "12"}, {DTCODE_DAY, "32"}}, -1, 0, 0, 0},
      {{{DTCODE_MONTH, "12"}}, -1, 0, 0, 0},
      {{{DTCODE_ORD, "070"}, {DTCODE_YEAR, "2024"}}, 8, 2024, -1, 69},
      {{{DTCODE_ORD, "367"}, {DTCODE_YEAR, "2024"}}, -1, 0, 0, 0},
      {{{DTCODE_ORD, "070"}}, -1, 0, 0, 0},
  };
  DateRegexList list;
  for (const Case &c : cases) {
    DateTimeCaptures caps{};
    for (const auto &[code, text] : c.parts) caps.part[code] = StrSegment(text);
    DateTimeParseResult r;
    r.clear();
    SCOPED_TRACE(c.parts[0].second);
    ASSERT_EQ(list.parse(caps, r), c.score);
    if (c.score < 0) continue;
    if (c.year != 0) {
      EXPECT_EQ(c.year > 0 ? r.pr.year : r.pr.year2, c.year > 0 ? c.year : 24);
    }
    EXPECT_EQ(c.month >= 0 ? r.pr.month : -1, c.month);
    EXPECT_EQ(c.month >= 0 ? r.pr.monthday : r.pr.yearday, c.day);
  }
}

TEST_F(DateParserTest, PreviousTimeAndItsWarnings) {
  Capture rec(verbose_log);
  Parser p;
  p.setContext("src::a.log:1 100%");
  Timeval out;
  EXPECT_FALSE(p.parse(out, "no time in the first event", NOW));
  EXPECT_EQ(rec.lines.size(), 0u);
  ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:00 first", NOW));
  ParseDetails d;
  ASSERT_TRUE(
      p.parse(out, "continued without a time", NOW, nullptr, nullptr, nullptr, nullptr, &d));
  EXPECT_TRUE(p.usedPrevious());
  EXPECT_EQ(out.seconds(), utc("2024-03-10T11:00:00").seconds());
  EXPECT_EQ(d.offset, -14400);
  ASSERT_EQ(rec.lines.size(), 1u);
  EXPECT_EQ(rec.lines[0],
            "Failed to parse timestamp in first MAX_TIMESTAMP_LOOKAHEAD (128) characters of event. "
            "Defaulting to timestamp of previous event (2024-03-10T11:00:00+00:00). Context: "
            "src=a.log:1 100%%\n");

  rec.lines.clear();
  for (int i = 0; i < 200000; ++i) p.parse(out, "2024-03-10 07:00:00 same", NOW);
  EXPECT_EQ(rec.count("The same timestamp has been used for 100K consecutive times."), 1u);
  EXPECT_EQ(rec.count("used for 200K consecutive"), 1u);
}

TEST_F(DateParserTest, OutsideWindowAndBadZoneWarn) {
  Capture rec(verbose_log, true);
  Parser p;
  Timeval out;
  ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:00 first", NOW));
  EXPECT_TRUE(p.parse(out, "t=0946684800 far past", NOW));
  EXPECT_EQ(p.lastTimeRegex(), nullptr);
  EXPECT_EQ(p.lastDateRegex(), nullptr);
  EXPECT_EQ(rec.count("A possible timestamp match (2000-01-01T00:00:00+00:00) is outside"), 1u);

  // A date years off is refused by the date list; the time then takes a guessed date.
  Parser q;
  ASSERT_TRUE(q.parse(out, "1999-05-01 10:00:00 wrong year", NOW));
  EXPECT_EQ(out.seconds(), utc("2024-03-10T14:00:00").seconds());
  EXPECT_EQ(rec.count("Could not use regex to parse timestamp from \"1999-05-01 10:00:00 wrong"),
            1u);

  // A zone that cannot be is dropped with a warning; the default zone stands in.
  ASSERT_TRUE(q.parse(out, "2024-03-10 07:00:00 +2500 x", NOW));
  EXPECT_EQ(out.seconds(), utc("2024-03-10T11:00:00").seconds());
  EXPECT_EQ(rec.count("Ignored invalid timezone specifier \"+2500\"."), 1u);
}

TEST_F(DateParserTest, PatternMemoryAndTies) {
  DateTimeRegexes set;
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d)");
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d):(?<second>\\d\\d)");
  for (int hits : {9, 10}) {
    Parser p(&set, gmtTimezone());
    Timeval out;
    for (int i = 0; i < hits; ++i) ASSERT_TRUE(p.parse(out, "10:00 x", NOW));
    ASSERT_TRUE(p.parse(out, "10:00:05 y", NOW));
    EXPECT_EQ(out.seconds() % 60, hits == 10 ? 0 : 5) << hits;
  }
  // A pattern scoring the same at the same place does not displace the one listed before it.
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d)(?= x)");
  Parser p(&set, gmtTimezone());
  Timeval out;
  ASSERT_TRUE(p.parse(out, "10:00 x", NOW));
  EXPECT_EQ(p.lastTimeRegex(), set.timeList().entries[0]);
}

TEST_F(DateParserTest, DateReuseOnlyWithShortGaps) {
  // The date pattern wants a blank behind it, so the "T" line gets its date only from memory;
  // three close lines before it make the gap short enough, one does not.
  DateTimeRegexes set;
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d):(?<second>\\d\\d)");
  set.addDate("(?<year>\\d{4})-(?<month>\\d\\d)-(?<day>\\d\\d)(?= )");
  for (int before : {3, 1}) {
    Parser p(&set, gmtTimezone());
    Timeval out;
    int32_t db = -2, de;
    for (int i = 0; i < before; ++i) {
      ASSERT_TRUE(p.parse(out, "2024-03-10 10:00:0" + std::to_string(i) + " a", NOW));
    }
    ASSERT_TRUE(p.parse(out, "2024-03-10T10:00:03", NOW, &db, &de));
    EXPECT_EQ(db, before == 3 ? 0 : -1) << before;
  }
}

TEST_F(DateParserTest, PrefixFailsSilentlyAndShiftsOffsets) {
  Capture rec(verbose_log);
  Parser p;
  ASSERT_TRUE(p.setPrefix("^\\[\\w+\\] "));
  EXPECT_FALSE(p.setPrefix("(unclosed"));
  Timeval out;
  int32_t db, de, tb, te;
  EXPECT_FALSE(p.dateTimeFromString(out, "2024-03-10 07:00:00 no prefix", &db, &de, &tb, &te));
  EXPECT_EQ(db, -1);
  EXPECT_EQ(rec.lines.size(), 0u);
  ASSERT_TRUE(p.dateTimeFromString(out, "[app] 2024-03-10 07:00:00", &db, &de, &tb, &te));
  EXPECT_EQ(db, 6);
  EXPECT_EQ(tb, 17);
}

TEST_F(DateParserTest, ModesAndFormat) {
  Timeval out;
  ParseDetails d;
  {
    Parser p;
    p.setMode(0);
    EXPECT_FALSE(p.parse(out, "2024-03-10 07:00:00", NOW));
    EXPECT_FALSE(p.isTimestampLine("2024-03-10 07:00:00"));
    p.setMode(2);
    ASSERT_TRUE(p.parse(out, "nothing", NOW, nullptr, nullptr, nullptr, nullptr, &d));
    EXPECT_EQ(d.precision, TimeFormat::RES_NONE);
  }
  {
    Capture rec(verbose_log, true);
    Parser p;
    ASSERT_TRUE(p.setFormat("%d/%m/%Y:%H:%M:%S"));
    int32_t db, de, tb, te;
    ASSERT_TRUE(p.parse(out, "10/03/2024:07:00:00 GET /", NOW, &db, &de, &tb, &te));
    EXPECT_EQ(out.seconds(), utc("2024-03-10T11:00:00").seconds());
    EXPECT_EQ(db, 0);
    EXPECT_EQ(te, 19);
    ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:01 other", NOW));
    EXPECT_EQ(rec.count("Could not use strptime to parse timestamp from \"2024-03-10 07:00:01"),
              1u);
    ASSERT_TRUE(p.setFormat(""));
  }
}

TEST_F(DateParserTest, TimestampLinesForEventBreaking) {
  Parser p;
  Timeval out;
  ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:00 first", NOW));
  struct Case {
    const char *line;
    bool expected;
  } cases[] = {
      {"2024-03-10 07:00:05 next", true},
      {"  at 07:00:06 but no date", false},
      {"no time", false},
      {"2024-03-11 09:00:00 a day later", true},
  };
  for (const Case &c : cases) EXPECT_EQ(p.isTimestampLine(c.line), c.expected) << c.line;
  p.setMaxDiffSecs(60, 60);
  EXPECT_FALSE(p.isTimestampLine("2024-03-10 05:00:00 two hours back"));
}

TEST_F(DateParserTest, TzAliasSettings) {
  Capture rec(config_log);
  struct Case {
    const char *text;
    bool ok;
    size_t pairs;
    const char *message;
  } cases[] = {
      {"EST=America/New_York,PST=America/Los_Angeles", true, 2,
       "TZ_ALIAS: Adding substitution for 'PST' of 'America/Los_Angeles' for the current pipeline"},
      {"", true, 0, nullptr},
      {"A=B=C", false, 0,
       "TZ_ALIAS: While parsing 'A=B=C', incorrect number (not 1) of '=' in Timezone pair "
       "'A=B=C'."},
      {"=x", false, 0, "TZ_ALIAS: While parsing '=x', found empty key in '=x'."},
      {"a=b, x= ", false, 1, "TZ_ALIAS: While parsing 'a=b, x= ', found empty value in ' x= '."},
  };
  for (const Case &c : cases) {
    rec.lines.clear();
    std::map<Str, Str> m;
    EXPECT_EQ(parseTzAlias(c.text, m), c.ok) << c.text;
    EXPECT_EQ(m.size(), c.pairs) << c.text;
    if (c.message) {
      EXPECT_EQ(rec.count(c.message), 1u) << c.text;
    }
    if (!c.ok) {
      EXPECT_EQ(rec.count("TZ_ALIAS: Since error encountered reading alias setting, will ignore "
                          "this setting, and use default rules."),
                1u);
    }
  }

  Parser p;
  rec.lines.clear();
  EXPECT_FALSE(p.setTzAlias("XST=Asia/Tokyo,QQQ=Not/AZone"));
  EXPECT_EQ(rec.count("Invalid TZ Alias Not/AZone for string: QQQ"), 1u);
  Timeval out;
  ParseDetails d;
  ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:00 XST", NOW, nullptr, nullptr, nullptr, nullptr, &d));
  EXPECT_EQ(d.offset, 32400);
  EXPECT_EQ(out.seconds(), utc("2024-03-09T22:00:00").seconds());

  EXPECT_TRUE(p.setDefaultZoneText("Asia/Tokyo"));
  EXPECT_EQ(rec.count("Set timezone to: Asia/Tokyo"), 1u);
  EXPECT_FALSE(p.setDefaultZoneText("Nowhere/Atall"));
  EXPECT_EQ(rec.count("Invalid TZ string: Nowhere/Atall"), 1u);
}

TEST_F(DateParserTest, ParsersOfSeveralThreadsShareOneSet) {
  testSet();  // built before the threads start
  std::vector<std::thread> threads;
  int wrong[3] = {0, 0, 0};
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([i, &wrong] {
      Parser p;
      Timeval out;
      for (int n = 0; n < 2000; ++n) {
        std::string line = "2024-03-10 0" + std::to_string(n % 10) + ":00:0" + std::to_string(i);
        if (!p.parse(out, line, NOW) || out.seconds() % 60 != i) ++wrong[i];
      }
    });
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(wrong[0] + wrong[1] + wrong[2], 0);
}

}  // namespace
