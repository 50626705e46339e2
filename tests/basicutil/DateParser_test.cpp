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

struct Recorder : LogObserver {
  std::vector<std::string> lines;
  void observeLogLine(const Str &line) override { lines.push_back(line); }
  size_t count(const std::string &needle) const {
    size_t n = 0;
    for (const std::string &l : lines) n += l.find(needle) != std::string::npos;
    return n;
  }
};

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
  explicit Parser(bool cache = true) : DateParser(cache, &testSet()) {
    setMode(1);
    setDefaultZone(getTimezone("America/New_York"));
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
      {"[time]\nlong (?<hour>\\d\\d)\n  :(?<minute>\\d\\d)  \n", ""},
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
    bool ok = set.loadText(c.text, "src", error);
    EXPECT_EQ(ok, *c.error == '\0') << c.text;
    if (!ok) {
      EXPECT_EQ(error, c.error) << c.text;
    }
  }

  DateTimeRegexes set;
  Str error;
  ASSERT_TRUE(set.loadText("[time]\nlong (?<hour>\\d\\d)\n \t:(?<minute>\\d\\d)  \n", "s", error));
  ASSERT_EQ(set.timeList().entries.size(), 1u);
  EXPECT_EQ(set.timeList().entries[0]->pattern, "(?<hour>\\d\\d):(?<minute>\\d\\d)");
  EXPECT_EQ(set.timeList().entries[0]->label, "long");
  EXPECT_EQ(set.timeList().entries[0]->codes, (std::vector<uint32_t>{DTCODE_HOUR, DTCODE_MINUTE}));

  EXPECT_FALSE(set.loadFile("/nonexistent/patterns.conf", error));
  EXPECT_EQ(error.rfind("/nonexistent/patterns.conf:0: ", 0), 0u) << error;
}

TEST_F(DateParserTest, CaptureNamesBecomeCodes) {
  DateTimeRegexes set;
  Recorder rec;
  ScopedLogObserverRegistration reg(&config_log, &rec);
  DateTimeRegex *re = set.addDate("(?<ignored_x>a)(b)(?<year>\\d+)(?<bogus>c)(?<ord>\\d)");
  EXPECT_EQ(re->codes, (std::vector<uint32_t>{13, 13, DTCODE_YEAR, 13, DTCODE_ORD}));
  EXPECT_EQ(rec.count("Found unknown extraction \"bogus\" in RE"), 1u);
  EXPECT_EQ(set.addDate("(?<ignored_x>a)(b)(?<year>\\d+)(?<bogus>c)(?<ord>\\d)"), re);
  EXPECT_EQ(set.dateList().entries.size(), 1u);
  DateTimeRegex *bad = set.addTime("(?<hour>");
  EXPECT_TRUE(bad->regex.empty());
  EXPECT_EQ(rec.count("Cannot compile RE \"(?<hour>\": "), 1u);
}

}  // namespace

namespace {

// Raises a channel to DEBUG for the scope.
struct ScopedDebug {
  const char *name;
  explicit ScopedDebug(const char *n) : name(n) { Logger::setLevel(name, "DEBUG"); }
  ~ScopedDebug() { Logger::setLevel(name, "INFO"); }
};

const Timeval NOW = utc("2024-03-10T12:00:00");

TEST_F(DateParserTest, FindsTimeAndDateWithOffsets) {
  struct Case {
    const char *line;
    const char *now;
    int64_t seconds;
    int32_t usec;
    int64_t offset;
    int32_t precision;
    const char *date, *time;
  } cases[] = {
      {"host 2024-03-10 01:59:59 sshd[1]: ok", "2024-03-10T12:00:00", 1710053999, 0, -18000, 0,
       "2024-03-10", "01:59:59"},
      // The spring gap and the autumn overlap of the default zone.
      {"2024-03-10 02:30:00 x", "2024-03-10T12:00:00", 1710052200, 0, -14400, 0, "2024-03-10",
       "02:30:00"},
      {"2024-11-03 01:30:00 x", "2024-11-03T12:00:00", 1730615400, 0, -18000, 0, "2024-11-03",
       "01:30:00"},
      {"Mar  9 23:10:00.250 EDT y", "2024-03-10T12:00:00", 1710040200, 250000, -14400, 3, "Mar  9",
       "23:10:00.250 EDT"},
      // No year across New Year, both ways.
      {"Dec 31 23:59:58 z", "2025-01-01T05:00:05", 1735707598, 0, -18000, 0, "Dec 31", "23:59:58"},
      {"Jan  1 00:00:01 z", "2024-12-31T23:00:00", 1735707601, 0, -18000, 0, "Jan  1", "00:00:01"},
      {"12:30 PM +0530 no date", "2024-03-10T12:00:00", 1710054000, 0, 19800, -1, nullptr,
       "12:30 PM +0530"},
      {"t=1710053999.500 done", "2024-03-10T12:00:00", 1710053999, 500000, 0, 3, nullptr,
       "1710053999.500"},
  };
  for (const Case &c : cases) {
    Parser p;
    Timeval out;
    int32_t db, de, tb, te;
    ParseDetails d;
    ASSERT_TRUE(p.parse(out, c.line, utc(c.now), &db, &de, &tb, &te, &d)) << c.line;
    EXPECT_EQ(out.seconds(), c.seconds) << c.line;
    EXPECT_EQ(out.microseconds(), c.usec) << c.line;
    EXPECT_EQ(d.offset, c.offset) << c.line;
    EXPECT_EQ(d.precision, c.precision) << c.line;
    EXPECT_EQ(c.date ? std::string(c.line + db, de - db) : "", c.date ? c.date : "") << c.line;
    if (!c.date) {
      EXPECT_EQ(db, -1) << c.line;
    }
    EXPECT_EQ(std::string(c.line + tb, te - tb), c.time) << c.line;
    EXPECT_FALSE(p.usedPrevious());
  }
}

TEST_F(DateParserTest, TimeCapturesScore) {
  struct Case {
    std::vector<std::pair<DateTimeCode, const char *>> parts;
    int score;
    uint32_t have;
    int32_t hour, minute, second;
    int64_t epoch;
  } cases[] = {
      {{{DTCODE_HOUR, "12"}, {DTCODE_MINUTE, "30"}, {DTCODE_AMPM, "PM"}},
       9,
       PR::HAVE_HOUR12 | PR::HAVE_AMPM | PR::HAVE_MINUTE,
       12,
       30,
       0,
       0},
      {{{DTCODE_HOUR, "12"}, {DTCODE_MINUTE, "30"}},
       6,
       PR::HAVE_HOUR24 | PR::HAVE_MINUTE,
       12,
       30,
       0,
       0},
      {{{DTCODE_HOUR, "3"}, {DTCODE_MINUTE, "05"}, {DTCODE_AMPM, "午後"}},
       8,
       PR::HAVE_HOUR12 | PR::HAVE_AMPM | PR::HAVE_MINUTE,
       15,
       5,
       0,
       0},
      {{{DTCODE_HOUR, "25"}, {DTCODE_MINUTE, "00"}}, -1, 0, 0, 0, 0, 0},
      {{{DTCODE_HOUR, "10"}, {DTCODE_MINUTE, "60"}}, -1, 0, 0, 0, 0, 0},
      {{{DTCODE_HOUR, "10"}}, -1, 0, 0, 0, 0, 0},
      {{{DTCODE_HOUR, "23"}, {DTCODE_MINUTE, "59"}, {DTCODE_SECOND, "60"}, {DTCODE_SUBSECOND, "5"}},
       10,
       PR::HAVE_HOUR24 | PR::HAVE_MINUTE | PR::HAVE_SECOND | PR::HAVE_SUBSEC,
       23,
       59,
       59,
       0},
      {{{DTCODE_HOUR, "10"}, {DTCODE_MINUTE, "00"}, {DTCODE_ZONE, "+2500"}},
       6,
       PR::HAVE_HOUR24 | PR::HAVE_MINUTE,
       10,
       0,
       0,
       0},
      {{{DTCODE_HOUR, "10"}, {DTCODE_MINUTE, "00"}, {DTCODE_ZONE, "+05:30"}},
       13,
       PR::HAVE_HOUR24 | PR::HAVE_MINUTE | PR::HAVE_TZNAM,
       10,
       0,
       0,
       0},
      {{{DTCODE_HOUR, "10"}, {DTCODE_MINUTE, "00"}, {DTCODE_ZONE, "0530"}},
       11,
       PR::HAVE_HOUR24 | PR::HAVE_MINUTE | PR::HAVE_TZNAM,
       10,
       0,
       0,
       0},
      {{{DTCODE_HEXEPOCH, "65edb26f"}}, 4, PR::HAVE_EPOCH, 0, 0, 0, 0x65edb26f},
      {{{DTCODE_HEXEPOCH, "65edb26g"}}, -1, 0, 0, 0, 0, 0},
      {{{DTCODE_UTCEPOCH, "1710053999"}, {DTCODE_SUBSECOND, "25"}},
       4,
       PR::HAVE_EPOCH | PR::HAVE_SUBSEC,
       0,
       0,
       0,
       1710053999},
      {{{DTCODE_UTCEPOCH, "@4000000065edb26f00000000"}}, 4, PR::HAVE_EPOCH, 0, 0, 0, 0x65edb26f},
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
    if (r.pr.have & PR::HAVE_HOUR24) {
      EXPECT_EQ(r.pr.hour, c.hour);
    }
    if (r.pr.have & PR::HAVE_HOUR12) {
      EXPECT_EQ(r.pr.hour12 + 12 * r.pr.pm, c.hour);
    }
    if (r.pr.have & PR::HAVE_MINUTE) {
      EXPECT_EQ(r.pr.minute, c.minute);
    }
    if (r.pr.have & PR::HAVE_SECOND) {
      EXPECT_EQ(r.pr.second, c.second);
    }
    if (r.pr.have & PR::HAVE_EPOCH) {
      EXPECT_EQ(r.pr.epoch, c.epoch);
    }
    if (r.pr.have & PR::HAVE_TZNAM) {
      EXPECT_EQ(std::string(r.pr.tzname, r.pr.tzname_len), c.parts[2].second);
    }
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
    if (c.year > 0) {
      EXPECT_EQ(r.pr.year, c.year);
    }
    if (c.year < 0) {
      EXPECT_EQ(r.pr.year2, 24);
    }
    if (c.month >= 0) {
      EXPECT_EQ(r.pr.month, c.month);
    }
    if (c.month >= 0) {
      EXPECT_EQ(r.pr.monthday, c.day);
    }
    if (c.month < 0) {
      EXPECT_EQ(r.pr.yearday, c.day);
    }
  }
}

TEST_F(DateParserTest, MeridianPatternOutscoresPlainAndBadHourIsPassedOver) {
  DateTimeRegexes set;
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d)");
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d) (?<ampm>[AP]M)");
  DateParser p(true, &set);
  p.setMode(1);
  p.setDefaultZone(gmtTimezone());
  Timeval out;
  ASSERT_TRUE(p.parse(out, "at 12:30 PM", NOW));
  EXPECT_EQ(out.seconds(), utc("2024-03-10T12:30:00").seconds());
  EXPECT_EQ(p.lastTimeRegex(), set.timeList().entries[1]);
  DateParser q(true, &set);
  q.setMode(1);
  EXPECT_FALSE(q.parse(out, "at 25:00 PM", NOW));
}

TEST_F(DateParserTest, PreviousTimeAndItsWarnings) {
  Recorder rec;
  ScopedLogObserverRegistration reg(&verbose_log, &rec);
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

TEST_F(DateParserTest, OutsideWindowWarnsAndForgetsPatterns) {
  Recorder rec;
  ScopedLogObserverRegistration reg(&verbose_log, &rec);
  Parser p;
  Timeval out;
  ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:00 first", NOW));
  EXPECT_NE(p.lastTimeRegex(), nullptr);
  EXPECT_NE(p.lastDateRegex(), nullptr);
  EXPECT_TRUE(p.parse(out, "t=0946684800 far past", NOW));
  EXPECT_TRUE(p.usedPrevious());
  EXPECT_EQ(p.lastTimeRegex(), nullptr);
  EXPECT_EQ(p.lastDateRegex(), nullptr);
  EXPECT_EQ(rec.count("A possible timestamp match (2000-01-01T00:00:00+00:00) is outside"), 1u);

  // A date years off is refused by the date list; the time then takes a guessed date.
  ScopedDebug debug("DateParserVerbose");
  Parser q;
  ASSERT_TRUE(q.parse(out, "1999-05-01 10:00:00 wrong year", NOW));
  EXPECT_EQ(out.seconds(), utc("2024-03-10T14:00:00").seconds());
  EXPECT_EQ(rec.count("Could not use regex to parse timestamp from \"1999-05-01 10:00:00 wrong"),
            1u);
}

TEST_F(DateParserTest, InvalidZoneIsIgnoredAndTimeStands) {
  ScopedDebug debug("DateParserVerbose");
  Recorder rec;
  ScopedLogObserverRegistration reg(&verbose_log, &rec);
  Parser p;
  Timeval out;
  ASSERT_TRUE(p.parse(out, "2024-03-10 07:00:00 +2500 x", NOW));
  EXPECT_EQ(out.seconds(), utc("2024-03-10T11:00:00").seconds());
  EXPECT_EQ(rec.count("Ignored invalid timezone specifier \"+2500\"."), 1u);
}

TEST_F(DateParserTest, PatternUsedAloneAfterTenHits) {
  DateTimeRegexes set;
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d)");
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d):(?<second>\\d\\d)");
  for (int hits : {9, 10}) {
    DateParser p(true, &set);
    p.setMode(1);
    p.setDefaultZone(gmtTimezone());
    Timeval out;
    for (int i = 0; i < hits; ++i) ASSERT_TRUE(p.parse(out, "10:00 x", NOW));
    ASSERT_TRUE(p.parse(out, "10:00:05 y", NOW));
    EXPECT_EQ(out.seconds() % 60, hits == 10 ? 0 : 5) << hits;
  }
}

TEST_F(DateParserTest, DateReuseOnlyWithShortGaps) {
  // The date pattern wants a blank behind it, so "T" lines get their date only from memory.
  DateTimeRegexes set;
  set.addTime("(?<hour>\\d\\d):(?<minute>\\d\\d):(?<second>\\d\\d)");
  set.addDate("(?<year>\\d{4})-(?<month>\\d\\d)-(?<day>\\d\\d)(?= )");
  struct Case {
    std::vector<const char *> lines;
    int32_t date_begin;  // of the last line
  } cases[] = {
      {{"2024-03-10 10:00:00 a", "2024-03-10 10:00:01 b", "2024-03-10 10:00:02 c",
        "2024-03-10T10:00:03"},
       0},
      {{"2024-03-10 10:00:00 a", "2024-03-10T10:00:01"}, -1},
  };
  for (const Case &c : cases) {
    DateParser p(true, &set);
    p.setMode(1);
    p.setDefaultZone(gmtTimezone());
    Timeval out;
    int32_t db = -2, de;
    for (const char *line : c.lines) ASSERT_TRUE(p.parse(out, line, NOW, &db, &de)) << line;
    EXPECT_EQ(db, c.date_begin) << c.lines.size();
  }
}

TEST_F(DateParserTest, PrefixFailsSilentlyAndShiftsOffsets) {
  Recorder rec;
  ScopedLogObserverRegistration reg(&verbose_log, &rec);
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

TEST_F(DateParserTest, ModesFormatAndSource) {
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
    ScopedDebug debug("DateParserVerbose");
    Recorder rec;
    ScopedLogObserverRegistration reg(&verbose_log, &rec);
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
  {
    // A dated source: times without a date take it, and step a day when the hour falls back.
    Parser p;
    p.setSource("/var/log/app-2024-03-09.log");
    const Timeval now = utc("2024-03-10T12:00:00");
    ASSERT_TRUE(p.parse(out, "23:00:00 late", now));
    EXPECT_EQ(out.seconds(), utc("2024-03-10T04:00:00").seconds());
    ASSERT_TRUE(p.parse(out, "01:00:00 after midnight", now));
    EXPECT_EQ(out.seconds(), utc("2024-03-10T06:00:00").seconds());
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
  Recorder rec;
  ScopedLogObserverRegistration reg(&config_log, &rec);
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
