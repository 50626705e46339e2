// Layouts: conversions and modifiers, the message rule with its trimming, JSON records and dates
// in a zone with daylight saving time.
#include "basicutil/LogFormat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "basicutil/Logger.h"
#include "testutil.h"

using namespace morvek;

namespace {

Logger &probe() {
  static Logger l("LogFormatProbe");
  return l;
}

std::string render(const char *pattern, StrSegment message, int level = LOG_WARN,
                   uint64_t max_message = LOG_DEFAULT_MAX_MESSAGE_SIZE,
                   uint32_t serialization = LOG_SERIALIZATION_TEXT, Timeval when = Timeval()) {
  LogFormat f(pattern);
  LogEvent ev{when, &probe(), level};
  Str out;
  f.render(out, ev, serialization, max_message, message);
  return out;
}

TEST(LogFormat, ConversionsAndModifiers) {
  const struct {
    const char *pattern, *out;
  } cases[] = {
      {"%", ""},
      {"a%%b%%", "a%b%"},
      {"%q%m", "msg"},
      {"[%-10p]", "[WARN      ]"},
      {"[%010p]", "[000000WARN]"},
      {"[%2.3c]", "[Log]"},
      {"%c: %m%n", "LogFormatProbe: msg\n"},
      {"%m{ignored} %p", "msg WARN"},
      {"x%d{unclosed %m", "x"},
      {"%-5.1m|", "m|"},
  };
  for (const auto &c : cases) EXPECT_EQ(render(c.pattern, "msg"), c.out) << c.pattern;
  EXPECT_EQ(render("%p", "", 12), "???");
}

TEST(LogFormat, MessageRuleTrimsToAnEighthOrToTheWidth) {
  std::string hundred;
  for (int i = 0; i < 100; ++i) hundred.push_back(static_cast<char>('a' + i % 26));
  std::string s50 = render("%.50m", hundred);
  EXPECT_EQ(s50, hundred.substr(0, 27) + " ...{skipping 77 bytes}");
  EXPECT_EQ(render("%.44m", hundred), hundred.substr(0, 44));
  // A head that would end in backslashes loses them, lest they escape the marker.
  std::string slashes = std::string(24, 'a') + "\\\\\\" + std::string(73, 'b');
  EXPECT_EQ(render("%.50m", slashes), std::string(24, 'a') + " ...{skipping 77 bytes}");

  struct {
    size_t len;
    uint64_t max_message;
    size_t out;
  } sizes[] = {{16385, 16384, 2048}, {501, 500, 100}, {500, 500, 500}, {90, 50, 90}};
  for (const auto &c : sizes) {
    std::string m(c.len, 'z');
    std::string out = render("%m", m, LOG_INFO, c.max_message);
    EXPECT_EQ(out.size(), c.out) << c.len << "/" << c.max_message;
    if (c.out < c.len) {
      EXPECT_NE(out.find("...{skipping "), std::string::npos);
    }
  }
  // Long enough to keep a tail: three quarters head, one quarter tail.
  std::string big = std::string(1500, 'h') + std::string(1500, 't');
  std::string out = render("%m", big, LOG_INFO, 1000);
  EXPECT_EQ(out.size(), 125u);
  EXPECT_EQ(out, std::string(72, 'h') + " ...{skipping 2904 bytes}... " + std::string(24, 't'));
  // A message from a LoggerSimple is never trimmed.
  static LoggerSimple simple("LogFormatSimple");
  LogFormat f("%m");
  LogEvent ev{Timeval(), &simple, LOG_INFO};
  Str whole;
  f.render(whole, ev, LOG_SERIALIZATION_TEXT, 100, big);
  EXPECT_EQ(whole.size(), big.size());
}

TEST(LogFormat, JsonRecord) {
  EXPECT_EQ(render("%p %c|%m%n", "{\"k\":1}", LOG_ERROR, 100, LOG_SERIALIZATION_JSON),
            "{\"log_level\":\"ERROR\",\"component\":\"LogFormatProbe\",\"data\":{\"k\":1}}\n");
  EXPECT_EQ(render("%r", "", LOG_ERROR, 100, LOG_SERIALIZATION_JSON, Logger::getStartTime()), "{0");
}

TEST(LogFormat, DatesInLocalTime) {
  testutil::ScopedTz tz("America/New_York");
  const struct {
    const char *pattern;
    int64_t secs;
    int32_t usec;
    const char *out;
  } cases[] = {
      {"%d{}", 1710079509, 250000, "2024-03-10 10:05:09,250"},
      {"%d{DATE}", 1710079509, 250000, "10 Mar 2024 10:05:09,250"},
      {"%d{ABSOLUTE}", 1710079509, 7000, "10:05:09,007"},
      {"%d{%2b}", 1710079509, 7000, "2024-03-10 10:05:09,007"},  // refused: it would cut names
      // 02:00 EDT falls back to 01:00 EST: the offset and the zone's name tell the first 01:30.
      {"%d{%FT%T.%6N%:z %Z}", 1730611800, 5, "2024-11-03T01:30:00.000005-04:00 EDT"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(render(c.pattern, "", LOG_INFO, 100, LOG_SERIALIZATION_TEXT, Timeval(c.secs, c.usec)),
              c.out)
        << c.pattern;
  }
  EXPECT_EQ(
      render("%d{%H:%M} %p %m", "m", LOG_INFO, 100, LOG_SERIALIZATION_JSON, Timeval(1730611800, 0)),
      "{\"datetime\":\"01:30\",\"log_level\":\"INFO\",\"data\":m}");
}

}  // namespace
