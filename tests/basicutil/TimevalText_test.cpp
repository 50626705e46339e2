// Text forms of a Timeval, the fraction code, descriptions of differences, and the broken-down
// holders with their refusals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "basicutil/DateTime.h"
#include "basicutil/Logger.h"
#include "basicutil/Str.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"
#include "testutil.h"

using namespace morvek;
using testing::ElementsAre;

namespace {

std::string show(const Timeval &t) {
  if (t == MAX_TIME || t == MIN_TIME) return t == MAX_TIME ? "MAX" : "MIN";
  return std::to_string(t.seconds()) + "," + std::to_string(t.microseconds());
}

std::string sortable(const Timeval &t) {
  Str s;
  t.toSortableString(s);
  return s;
}

using testutil::ScopedTz;

TEST(TimevalSortable, FixedFormsReadBackAndRefusals) {
  const Timeval before1601(-20000000000, 0), past40bits(INT64_MAX - 1, 0);
  const std::pair<Timeval, std::string> cases[] = {
      {Timeval(1710054000, 250000), "0CDVRQRG7EDCK0"},
      {Timeval(0, 123), "zNULLzTIMEzzzz"},
      {MAX_TIME, "zMAXzTIMEzzzzz"},
      {MIN_TIME, "zMINzTIMEzzzzz"},
      {Timeval(1, 1234567), sortable(Timeval(1, 999999))},  // microseconds clamp
      {before1601, sortable(past40bits)},                   // both write the maximum
  };
  for (const auto &[t, want] : cases) EXPECT_EQ(sortable(t), want) << show(t);

  const std::pair<std::string, const char *> reads[] = {
      {"0cdvrqrg7edck0", "1710054000,250000"},
      {"znullztimezzzz", "0,0"},
      {"zMINzTIMEzzzzz", "MIN"},
      {sortable(past40bits), "1087867154175,1000000"},  // no carry from the clamped nanoseconds
      {sortable(Timeval(-86400, 5)), "MAX"},            // 1969 has a form but reads as MAX_TIME
      {"0CDVRQRG7EDCK", "refused"},                     // 13 characters
      {"0CDVRQRG7EDCKW", "refused"},                    // W is past the alphabet
      {"0CDVRQRGVVVVVV", "refused"},                    // nanoseconds past 999999999
      {"zNULLzTIMEzzzy", "refused"},                    // not a word, and z is no digit
  };
  for (const auto &[text, want] : reads) {
    Timeval t(42, 42);
    EXPECT_EQ(t.fromSortableString(text.data(), text.size()) ? show(t) : "refused", want) << text;
  }
}

TEST(TimevalSortable, RoundTripsAndSortsInTimeOrder) {
  std::mt19937_64 rng(18);
  std::vector<Timeval> times = {MAX_TIME, Timeval(1, 0), Timeval(-1, 999999),
                                Timeval(-11644473600, 0), Timeval(1099511627775 - 11644473600, 0)};
  for (int i = 0; i < 4000; ++i) {
    // 1601 to the end of 40 bits, either side of 1970, with and without microseconds.
    int64_t secs = static_cast<int64_t>(rng() % 1099511627776ull) - 11644473600;
    if (secs == 0) secs = 1;
    times.emplace_back(secs, i % 4 == 0 ? 0 : static_cast<int32_t>(rng() % 1000000));
  }
  std::vector<std::pair<std::string, Timeval>> pairs;
  for (const Timeval &t : times) {
    const std::string &s = pairs.emplace_back(sortable(t), t).first;
    if (t.seconds() < 0) continue;  // before 1970 reads back as MAX_TIME, tested above
    Timeval back;
    ASSERT_TRUE(back.fromSortableString(s.data(), s.size())) << s;
    EXPECT_EQ(show(back), show(t)) << s;
  }
  std::sort(pairs.begin(), pairs.end());
  for (size_t i = 1; i < pairs.size(); ++i) {
    EXPECT_LE(pairs[i - 1].second, pairs[i].second) << pairs[i - 1].first << " " << pairs[i].first;
  }
}

TEST(TimevalDecimal, RendersTruncatedDigits) {
  struct Case {
    Timeval t;
    unsigned decimals;
    const char *want;
  } cases[] = {
      {Timeval(-1, 500000), 2, "-0.50"},
      {Timeval(5, 123456), 8, "5.12345600"},
      {Timeval(-2, 1), 6, "-1.999999"},
      {Timeval(-7, 5), 0, "-6"},
      {Timeval(INT64_MIN, 1), 1, "-9223372036854775807.9"},
      {Timeval(INT64_MIN, 0), 1, "-9223372036854775808.0"},
  };
  for (const Case &c : cases) {
    Str s("x=");
    c.t.renderDecimal(s, c.decimals);
    EXPECT_EQ(s, std::string("x=") + c.want) << show(c.t);
  }
}

TEST(TimevalDecimal, ParsesSignedDecimals) {
  // A null result: refused.
  const std::pair<const char *, const char *> cases[] = {
      // clang-format off
      {"-0.5", "-1,500000"}, {"3.", "3,0"}, {"1.2345678", "1,234567"}, {"-3.000", "-3,0"},
      {"9223372036854775807.5", "9223372036854775807,500000"}, {"-9223372036854775808", "MIN"},
      {"-9223372036854775807.5", "-9223372036854775808,500000"}, {"9223372036854775808", nullptr},
      {"-9223372036854775808.5", nullptr}, {".5", nullptr}, {"-.5", nullptr}, {"1.2.3", nullptr},
      {"", nullptr}, {" 1", nullptr}, {"1.5x", nullptr},
      {"5x", nullptr},
      // clang-format on
  };
  for (const auto &[text, want] : cases) {
    Timeval t;
    const bool ok = t.mem_parse_into(text, strlen(text));
    EXPECT_EQ(ok ? show(t) : "refused", want ? want : "refused") << text;
  }
}

TEST(TimevalDecimal, WholeSecondsSaturate) {
  const std::pair<const char *, std::optional<int64_t>> cases[] = {
      {"123", 123},
      {"-5", -5},
      {"9223372036854775807", INT64_MAX},
      {"9223372036854775808", INT64_MAX},
      {"-9223372036854775808", INT64_MIN},
      {"184467440737095516160", INT64_MAX},  // wraps 64 bits if not caught
      {"-999999999999999999999999", INT64_MIN},
      {"99999999999999999999x", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto &[text, want] : cases) {
    int64_t v = 7;
    const bool ok = parseWholeSeconds(text, strlen(text), v);
    EXPECT_EQ(ok ? std::optional<int64_t>(v) : std::nullopt, want) << text;
  }
}

TEST(TimevalSubseconds, EncodesAndAddsBack) {
  struct Case {
    Timeval base;
    uint64_t code;
    const char *want;
  } cases[] = {
      {Timeval(-5, 0), 202, "-6,950000"},  // -5.05
      {Timeval(5, 990000), 202, "6,40000"},
      {Timeval(3, 7), 1 << 4, "3,7"},
      {MAX_TIME, Timeval(0, 500000).encodeSubseconds(1), "MAX"},
      {Timeval(INT64_MIN, 0), Timeval(0, 500000).encodeSubseconds(1), "MIN"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(show(Timeval(c.base).addEncodedSubseconds(c.code)), c.want) << c.code;
  }
  EXPECT_EQ(Timeval(9, 50000).encodeSubseconds(3), 202u);
  EXPECT_EQ(Timeval(-1, 950000).encodeSubseconds(3), 202u);  // -0.05
  EXPECT_EQ(Timeval(1, 0).encodeSubseconds(3), 8u);          // zero fraction: a power of two

  // Any fraction, any digit count: adding the code to 0 gives the fraction cut to the digits.
  std::mt19937 rng(7);
  for (int i = 0; i < 3000; ++i) {
    int32_t usec = static_cast<int32_t>(rng() % 1000000);
    if (i % 2 == 0) usec -= usec % 1000;
    const unsigned digits = 1 + i % 12;
    int32_t cut = usec;
    for (unsigned d = digits; d < 6; ++d) cut /= 10;
    for (unsigned d = digits; d < 6; ++d) cut *= 10;
    const uint64_t code = Timeval(77, usec).encodeSubseconds(digits);
    EXPECT_EQ(show(Timeval(0, 0).addEncodedSubseconds(code)), "0," + std::to_string(cut))
        << usec << " " << digits << " " << code;
  }
}

// The text shows the unit, the sign, whether the value is whole and the value itself.
TEST(TimevalDescription, UnitsValuesAndText) {
  const std::tuple<Timeval, Timeval, const char *> cases[] = {
      {Timeval(10, 0), Timeval(13, 0), "-3000 milliseconds"},
      {Timeval(8010, 0), Timeval(10, 0), "8000.0 seconds"},
      {Timeval(9010, 0), Timeval(10, 0), "2.500 hours"},
      {Timeval(10, 12500), Timeval(10, 0), "12.50 milliseconds"},
      {Timeval(10, 3001), Timeval(10, 0), "3.001 milliseconds"},
      {Timeval(10, 1), Timeval(10, 0), "1 microsecond"},
      {Timeval(10, 0), Timeval(9, 999999), "1 microsecond"},
  };
  for (const auto &[a, b, want] : cases) {
    Str s;
    appendDescription(s, Timeval::describeDifference(a, b));
    EXPECT_EQ(s, want);
  }
}

TEST(TimevalRender, ReadableForms) {
  ScopedTz utc("UTC");
  const std::pair<Timeval, const char *> cases[] = {
      {MIN_TIME, "MIN_TIME"},
      {MAX_TIME, "MAX_TIME"},
      {Timeval(0, 5), "ZERO_TIME"},
      {Timeval(1710054000, 7), "Sun Mar 10 07:00:00 2024"},
      {Timeval(32535244800, 0), "INVALID_TIME (32535244800)"},
      {Timeval(INT64_MIN, 1), "INVALID_TIME (-9223372036854775808)"},
  };
  for (const auto &[t, want] : cases) {
    Str s;
    t.render(s);
    EXPECT_EQ(s, want);
  }
}

std::string fields(const struct tm &tm) {
  char buf[96];
  snprintf(buf, sizeof buf, "%d-%d-%d %d:%d:%d w%d y%d dst%d", tm.tm_year, tm.tm_mon, tm.tm_mday,
           tm.tm_hour, tm.tm_min, tm.tm_sec, tm.tm_wday, tm.tm_yday, tm.tm_isdst);
  return buf;
}

constexpr const char *FAR_FUTURE = "8099-11-31 23:59:59 w5 y364 dst-1";
constexpr const char *FAR_PAST = "0-0-1 0:0:0 w1 y0 dst-1";

// In UTC, with New York at hand and the "Timeval" channel's warnings recorded.
class TimevalBrokenDown : public testing::Test, LogObserver {
 protected:
  void SetUp() override { ASSERT_NE(ny, nullptr); }
  void observeLogLine(const Str &line) override {
    warnings.push_back(std::string(line.segment().trimmed().view()));
  }
  ScopedTz utc{"UTC"};
  const TimezoneData *ny = getTimezone("America/New_York");
  std::vector<std::string> warnings;
  bool initialized = (Logger::initialize(), true);
  Logger channel{"Timeval"};
  ScopedLogObserverRegistration reg{&channel, this};
};

TEST_F(TimevalBrokenDown, RefusalsWarnAndGiveTheFarValue) {
  LocalStructTm local;
  EXPECT_FALSE(local.fromUnixTime(32535244800));
  EXPECT_EQ(fields(local), FAR_FUTURE);
  LocalStructTmHires hires;
  EXPECT_FALSE(hires.fromUnixTime(Timeval(INT64_MIN, 5)));
  EXPECT_EQ(fields(hires), FAR_PAST);
  EXPECT_EQ(hires.tv_usec, 0);
  StructTmInTimezone zoned(ny);
  EXPECT_FALSE(zoned.fromUnixTime(INT64_MAX));
  EXPECT_EQ(fields(zoned), FAR_FUTURE);
  EXPECT_EQ(zoned.tm_gmtoff, -18000);  // the zone fields of time 0
  StructTmInTimezoneHires zh(ny);
  EXPECT_FALSE(zh.fromUnixTime(Timeval(32535244800, 1)));
  EXPECT_EQ(zh.tv_usec, 999999);
  GmtStructTm gmt;
  EXPECT_FALSE(gmt.fromUnixTime(32535244800));  // no warning for UTC
  EXPECT_EQ(fields(gmt), FAR_FUTURE);
  EXPECT_TRUE(gmt.fromUnixTime(32535244799));

  EXPECT_THAT(warnings,
              ElementsAre("LocalStructTm::fromUnixTime(32535244800) failed!",
                          "LocalStructTmHires::fromUnixTime(-9223372036854775808) failed!",
                          "StructTmInTimezone::fromUnixTime(9223372036854775807) failed!",
                          "StructTmInTimezoneHires::fromUnixTime(32535244800) failed!"));
}

TEST_F(TimevalBrokenDown, BackToInstantsThroughAGap) {
  auto local = [&](int hour, int min) {
    StructTmInTimezoneHires tm(ny);
    tm.tm_year = 124;
    tm.tm_mon = 2;
    tm.tm_mday = 10;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_isdst = -1;
    tm.tv_usec = 250;
    return tm.toUnixTime();
  };
  // The zone's own lookups are tested with the zone; here, the microseconds and the failures.
  EXPECT_EQ(show(local(3, 0)), "1710054000,250");
  EXPECT_EQ(show(local(2, 30)), "MAX");  // the spring gap

  // -1 is a failure even as the true instant 1969-12-31 23:59:59 UTC.
  GmtStructTm gmt;
  ASSERT_TRUE(gmt.fromUnixTime(-1));
  EXPECT_EQ(show(gmt.toUnixTime()), "MIN");
  gmt = GmtStructTm();
  gmt.tm_year = 70;
  gmt.tm_mday = 1;
  gmt.tm_sec = -1;  // normalizes to the same instant; the year given picks MAX_TIME
  EXPECT_EQ(show(gmt.toUnixTime()), "MAX");
  LocalStructTmHires lh;
  ASSERT_TRUE(lh.fromUnixTime(Timeval(1710054000, 42)));
  EXPECT_EQ(show(lh.toUnixTime()), "1710054000,42");

  EXPECT_THAT(warnings,
              ElementsAre("StructTmInTimezoneHires::toUnixTime(2024-3-10 2:30:00) failed!",
                          "GmtStructTm::toUnixTime(1969-12-31 23:59:59) failed!",
                          "GmtStructTm::toUnixTime(1970-1-1 0:00:-1) failed!"));
}

TEST_F(TimevalBrokenDown, ZoneWithoutTypes) {
  // A cleared table has neither transitions nor types: every instant is offset 0 with no name.
  TimezoneData empty;
  StructTmInTimezone tm(&empty);
  ASSERT_TRUE(tm.fromUnixTime(1710054000));
  EXPECT_EQ(fields(tm), "124-2-10 7:0:0 w0 y69 dst0");
  EXPECT_EQ(tm.tm_gmtoff, 0);
  EXPECT_STREQ(tm.tm_zone, "");
  EXPECT_EQ(show(tm.toUnixTime()), "1710054000,0");
}

// The record maker fills exactly the seven calendar fields, and none when it fails.
TEST(TimevalRecord, FromSeconds) {
  auto fields = [](const TimeFormatRawParseResult &r) {
    return std::vector<int>{r.year, r.month, r.monthday, r.weekday, r.hour, r.minute, r.second};
  };
  TimeFormatRawParseResult r{};
  r.have = TimeFormatRawParseResult::HAVE_TZOFF;
  ASSERT_TRUE(rawRecordFromSeconds(1710054000, r));
  EXPECT_EQ(fields(r), (std::vector<int>{2024, 2, 10, 0, 7, 0, 0}));
  EXPECT_EQ(r.have, TimeFormatRawParseResult::HAVE_TZOFF);
  EXPECT_FALSE(rawRecordFromSeconds(32535244800, r));
  EXPECT_EQ(fields(r), (std::vector<int>{2024, 2, 10, 0, 7, 0, 0}));
}

}  // namespace
