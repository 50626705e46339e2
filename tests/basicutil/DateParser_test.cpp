// Timestamp extraction: the pattern-file reader, scoring and choice of patterns, pattern memory,
// the time window, the previous event's time, warnings and TZ_ALIAS.
#include "basicutil/DateParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

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

TEST_F(DateParserTest, FindsTimeAndDateWithOffsets) {
  Parser p;
  Timeval out;
  int32_t db, de, tb, te;
  ParseDetails d;
  const char *line = "host 2024-03-10 01:59:59 sshd[1]: ok";
  ASSERT_TRUE(p.parse(out, line, utc("2024-03-10T12:00:00"), &db, &de, &tb, &te, &d));
  EXPECT_EQ(out.seconds(), 1710053999);
  EXPECT_EQ(d.offset, -18000);
  EXPECT_EQ(std::string(line + db, de - db), "2024-03-10");
  EXPECT_EQ(std::string(line + tb, te - tb), "01:59:59");
  EXPECT_FALSE(p.usedPrevious());
}

}  // namespace
