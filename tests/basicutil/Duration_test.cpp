// Durations in text: parsing with units, seconds with a fraction, and the printed forms.
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

#include "basicutil/CrashLog.h"
#include "basicutil/Str.h"
#include "basicutil/Timeval.h"
#include "testutil.h"

namespace {

using morvek::Str;

std::optional<uint64_t> duration(const char *text, unsigned flags) {
  uint64_t v = 12345;
  if (!morvek::parseDuration(v, Str(text), flags)) {
    EXPECT_EQ(v, 12345u) << text;  // untouched on failure
    return std::nullopt;
  }
  return v;
}

TEST(ParseDuration, CountsUnitsAndFlags) {
  constexpr unsigned Z = morvek::DURATION_ALLOW_ZERO;
  struct Case {
    const char *text;
    unsigned flags;
    std::optional<uint64_t> want;
  } cases[] = {
      // clang-format off
      {"0s", 0, {}}, {"0s", Z, 0}, {"10", Z, {}}, {"10 ms", 0, 10}, {"10 MS", 0, 10},
      {"1500us", 0, 1}, {"999us", 0, 0}, {"hour", Z, 3600000}, {"hour", 0, {}}, {"-1s", Z, {}},
      {"1.5s", 0, {}}, {"", Z, {}}, {"5 minutes", 0, 300000}, {"2 qtrs", 0, 15552000000},
      {"\t3 Hrs\t ", 0, 10800000}, {"1 mon", 0, 2592000000}, {"7ds", 0, 700}, {"5 s x", 0, {}},
      {"18446744073709551615 ms", 0, UINT64_MAX}, {"18446744073709551616 ms", 0, {}},
      {"18446744073709551615 us", 0, 18446744073709551},
      {"18446744073709551 s", 0, 18446744073709551000u}, {"18446744073709552 s", 0, {}},
      // clang-format on
  };
  for (const Case &c : cases) EXPECT_EQ(duration(c.text, c.flags), c.want) << c.text;

  uint64_t v = 0;
  errno = EBADF;
  EXPECT_TRUE(morvek::parseDuration("0 ms", 4, v));  // this form allows zero
  EXPECT_FALSE(morvek::parseDuration("99999999999999999999s", 21, v));
  EXPECT_FALSE(morvek::parseDuration("36893488147419102 s", 19, v));  // wraps to above the count
  EXPECT_EQ(errno, EBADF);
}

TEST(ParseDuration, Words) {
  struct Case {
    uint64_t ms;
    const char *want;
  } cases[] = {
      {0, "0 milliseconds"},
      {1, "1 millisecond"},
      {90061001, "1 day, 1 hour, 1 minute, 1 second, 1 millisecond"},
      {7322000, "2 hours, 2 minutes, 2 seconds"},
      {86400001, "1 day, 1 millisecond"},
  };
  for (const Case &c : cases) {
    Str out;
    morvek::durationToWords(out, c.ms);
    EXPECT_EQ(out, c.want);
  }
}

TEST(SecondsAsMilliseconds, RoundingSaturationAndSyntax) {
  struct Case {
    const char *text;
    std::optional<uint64_t> want;
  } cases[] = {
      // clang-format off
      {"0.0004", 1}, {"0.0005", 1}, {"1.2345", 1235}, {"1.23449", 1234}, {"0.00001", 1},
      {"0.0000", 0}, {".5", 500}, {"1.9999", 2000}, {"", {}}, {".", {}}, {"-1", {}}, {" 1", {}},
      {"1e3", {}}, {"18446744073709551", 18446744073709551000u},
      {"18446744073709551.615", UINT64_MAX}, {"18446744073709552", UINT64_MAX},
      {"99999999999999999999999999.5", UINT64_MAX},
      // clang-format on
  };
  for (const Case &c : cases) {
    uint64_t v = 7;
    bool ok = morvek::mem_parse_into(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? std::optional<uint64_t>(v) : std::nullopt, c.want) << c.text;
  }
  // A whole part too large is stored at once, even when the syntax then fails.
  uint64_t v = 7;
  EXPECT_FALSE(morvek::mem_parse_into("99999999999999999999x", 21, v));
  EXPECT_EQ(v, UINT64_MAX);
}

TEST(PrintedDurations, StrAndCrashWriterAgree) {
  struct Case {
    uint64_t ms, ns;
    const char *text;  // both, joined by "|"
  } cases[] = {{1, 1, "0.001|0.000000001"},
               {61001, 61000000001, "61.001|61.000000001"},
               {UINT64_MAX, UINT64_MAX, "18446744073709551.615|18446744073.709551615"}};
  for (const Case &c : cases) {
    Str s("t=");
    morvek::printMilliseconds(s, c.ms);
    s.push_back('|');
    morvek::printNanoseconds(s, c.ns);
    EXPECT_EQ(s, std::string("t=") + c.text);

    testutil::CollectingWriter collect;
    morvek::CrashLogWriter w(&collect.handle);
    morvek::printMilliseconds(w, c.ms);
    w.write("|");
    morvek::printNanoseconds(w, c.ns);
    EXPECT_EQ(collect.text, c.text);
  }
}

TEST(PrintedDurations, MicrosecondsRoundUpWithTheWrapEdge) {
  struct Case {
    uint64_t usec, ms;
  } cases[] = {
      // clang-format off
      {0, 0}, {1, 1}, {1000, 1}, {1001, 2}, {UINT64_MAX - 999, 18446744073709551},
      {UINT64_MAX - 998, 18446744073709552}, {UINT64_MAX - 1, 18446744073709552},
      {UINT64_MAX, UINT64_MAX},
      // clang-format on
  };
  for (const Case &c : cases) EXPECT_EQ(morvek::usecToMsecRoundedUp(c.usec), c.ms) << c.usec;
}

}  // namespace
