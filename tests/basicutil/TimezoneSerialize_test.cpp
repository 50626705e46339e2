#include "basicutil/TimezoneSerialize.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

using namespace morvek;

namespace {

const Str HEADER = Str(SERIALIZED_TZ_HEADER) + "\n";
// A small valid body: EST/EDT, two transitions.
const char *const BODY =
    "Y-18000 NW 45 53 54\nY-14400 YW 45 44 54\n@1710054000 1\n@1730613600 0\n$\n";

std::unique_ptr<TimezoneData> twoTypeZone(std::vector<int64_t> ats) {
  auto tz = std::make_unique<TimezoneData>();
  tz->chars.assign("EST\0EDT\0", 8);
  tz->ttis[0] = {-18000, 0, 0, TimezoneType::KIND_WALL};
  tz->ttis[1] = {-14400, 4, 1, TimezoneType::KIND_STANDARD};
  tz->typecnt = 2;
  for (size_t i = 0; i < ats.size(); ++i) {
    tz->ats[i] = ats[i];
    tz->types[i] = static_cast<uint8_t>(i % 2);
  }
  tz->timecnt = static_cast<uint32_t>(ats.size());
  tz->goback = tz->goahead = 0;
  return tz;
}

Str repeatLine(const char *line, int n) {
  Str out;
  for (int i = 0; i < n; ++i) out += line;
  return out;
}

TEST(TimezoneSerialize, MalformedTextsRebuildNothing) {
  const Str type = "Y0 NW 41\n";
  const Str t = "@0 0\n";
  const struct {
    const char *why;
    Str text;
  } cases[] = {
      {"empty", ""},
      {"header only", HEADER},
      {"header with a blank", Str(SERIALIZED_TZ_HEADER) + " \n" + BODY},
      {"no header", BODY},
      {"no end mark", HEADER + type + t},
      {"end mark not last", HEADER + type + t + "$\nB\n"},
      {"empty line", HEADER + type + "\n" + t + "$\n"},
      {"unknown letter in range", HEADER + type + t + "A\n$\n"},
      {"letter out of range", HEADER + type + t + "y\n$\n"},
      {"no types", HEADER + t + "$\n"},
      {"no transitions, no fixed offset", HEADER + type + "$\n"},
      {"fixed offset not a number", HEADER + "Cx\n" + type + "$\n"},
      {"no-types flag with two types", HEADER + "C0\nZ\n" + type + type + "$\n"},
      {"type index past typecnt", HEADER + type + "@0 2\n$\n"},
      {"type index 256", HEADER + type + "@1 256\n$\n"},
      {"negative type index", HEADER + type + "@1 -1\n$\n"},
      {"transition with one token", HEADER + type + "@1\n$\n"},
      {"transition with three tokens", HEADER + type + "@1 0 0\n$\n"},
      {"transition time not a number", HEADER + type + "@1x 0\n$\n"},
      {"transition time too large", HEADER + type + "@9223372036854775808 0\n$\n"},
      {"descending times", HEADER + type + "@10 0\n@9 0\n$\n"},
      {"type with one token", HEADER + "Y0\n" + t + "$\n"},
      {"type offset not a number", HEADER + "Yx NW\n" + t + "$\n"},
      {"isdst letter", HEADER + "Y0 XW\n" + t + "$\n"},
      {"kind letter", HEADER + "Y0 NQ\n" + t + "$\n"},
      {"flags too long", HEADER + "Y0 NWW\n" + t + "$\n"},
      {"hex byte of one digit", HEADER + "Y0 NW 4\n" + t + "$\n"},
      {"hex byte not hex", HEADER + "Y0 NW 4G\n" + t + "$\n"},
      {"hex byte NUL", HEADER + "Y0 NW 00\n" + t + "$\n"},
      {"257 types", HEADER + repeatLine("Y0 NW 41\n", 257) + t + "$\n"},
      {"1201 transitions", HEADER + type + repeatLine("@5 0\n", 1201) + "$\n"},
  };
  for (const auto &c : cases) EXPECT_EQ(deserializeTimezone(c.text), nullptr) << c.why;
}

TEST(TimezoneSerialize, AcceptedEdges) {
  // The index equal to typecnt passes, as it always has.
  const TimezoneData *tz = deserializeTimezone(HEADER + "Y0 NW\nY1 NW\n@1 2\n$\n");
  ASSERT_NE(tz, nullptr);
  EXPECT_EQ(tz->typecnt, 2u);
  // The limits themselves.
  EXPECT_NE(deserializeTimezone(HEADER + repeatLine("Y0 NW 41\n", 256) + "@0 255\n$\n"), nullptr);
  EXPECT_NE(deserializeTimezone(HEADER + "Y0 NW\n" + repeatLine("@5 0\n", 1200) + "$\n"), nullptr);
  // Lower-case hex, and a "$" that was followed by more lines before the last.
  tz = deserializeTimezone(HEADER + "C3600\nY3600 YG 6a 4B\n$\nB\nF\n$\n");
  ASSERT_NE(tz, nullptr);
  EXPECT_EQ(tz->fixed_offset, 3600);
  EXPECT_STREQ(tz->abbreviation(tz->ttis[0]), "jK");
  EXPECT_EQ(tz->ttis[0].kind, uint32_t(TimezoneType::KIND_UNIVERSAL));
  EXPECT_EQ(tz->ttis[0].isdst, 1);
  EXPECT_EQ(tz->goback + tz->goahead, 2);
}

TEST(TimezoneSerialize, GmtZoneWritesAPlaceholderTypeAndReadsBackWithoutTypes) {
  StrVector lines;
  serializeTimezone(*gmtTimezone(), lines, 30, 1700000000);
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], SERIALIZED_TZ_HEADER);
  EXPECT_EQ(lines[1], "C0");
  EXPECT_EQ(lines[2], "Z");
  EXPECT_EQ(lines[3], "Y0 NW 47 4D 54");
  EXPECT_EQ(lines.back(), "$");
  Str text;
  lines.join(text, '\n');
  const TimezoneData *tz = deserializeTimezone(text);
  ASSERT_NE(tz, nullptr);
  EXPECT_EQ(tz->typecnt, 0u);
  EXPECT_EQ(tz->timecnt, 0u);
  EXPECT_EQ(tz->fixed_offset, 0);
  EXPECT_STREQ(tz->abbreviationAt(1700000000), "GMT");
}

TEST(TimezoneSerialize, SpanKeepsOneChangeBefore1970AndNothingPastTheLimit) {
  const int64_t now = 1700000000, year = 31536000;
  const struct {
    std::vector<int64_t> ats;
    int years;
    std::vector<int64_t> written;
  } cases[] = {
      {{-300, -200, -100}, 30, {-100}},
      {{-300, -200, 5, 6}, 30, {-200, 5, 6}},
      {{5, now + 2 * year, now + 3 * year}, 2, {5, now + 2 * year}},
      // 70 years overflow 32 bits: the limit lands in 1957.
      {{-600000000, -100, 5}, 70, {-600000000}},
  };
  for (const auto &c : cases) {
    const auto tz = twoTypeZone(c.ats);
    StrVector lines;
    serializeTimezone(*tz, lines, c.years, now);
    std::vector<int64_t> written;
    for (const Str &line : lines) {
      if (line.startsWith("@")) written.push_back(strtoll(line.c_str() + 1, nullptr, 10));
    }
    EXPECT_EQ(written, c.written) << c.ats.size() << " transitions, " << c.years << " years";
  }
}

TEST(TimezoneSerialize, RoundTripSharesAbbreviationsAndCachesByText) {
  auto tz = twoTypeZone({-100, 1710054000, 1730613600});
  tz->ttis[2] = {-18000, 0, 0, TimezoneType::KIND_UNIVERSAL};  // a second "EST"
  tz->typecnt = 3;
  tz->types[2] = 2;
  tz->goback = 1;
  const Str text = serializedTimezoneText(*tz, 30, 1700000000);
  EXPECT_EQ(text,
            "### SERIALIZED TIMEZONE FORMAT 1.0\nY-18000 NW 45 53 54\nY-14400 YS 45 44 54\n"
            "Y-18000 NG 45 53 54\n@-100 0\n@1710054000 1\n@1730613600 2\nB\n$\n");
  const TimezoneData *back = deserializeTimezone(text);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->chars, Str("EST\0EDT\0", 8));
  EXPECT_EQ(back->ttis[2].abbrind, 0u);
  EXPECT_EQ(back->goback, 1);
  EXPECT_EQ(back->goahead, 0);
  EXPECT_EQ(back->fixed_offset, NOT_FIXED);
  EXPECT_TRUE(back->equivalentAt(*tz, 1720000000));

  // The same body, however its lines end, is the same object; another body is another.
  Str crlf = text;
  crlf.replaceAll("\n", "\r\n");
  EXPECT_EQ(deserializeTimezone(crlf), back);
  EXPECT_EQ(deserializeTimezone(text.substr(0, text.size() - 1)), back);
  EXPECT_NE(deserializeTimezone(Str(text).replace(text.find("B\n"), 2, "F\n")), back);

  SerializedTimezoneTextReader reader(text);
  Timezone handle;
  EXPECT_EQ(handle.setFromSerialized(reader), back);
  EXPECT_EQ(handle.data(), back);
  EXPECT_TRUE(handle.name().empty());
}

TEST(TimezoneSerialize, ConcurrentReadersOfOneNewTextGetOneObject) {
  const Str text = HEADER + "Y-7200 NW 58\n@123456789 0\n$\n";
  std::vector<const TimezoneData *> got(4);
  std::vector<std::thread> threads;
  for (auto &slot : got) threads.emplace_back([&] { slot = deserializeTimezone(text); });
  for (auto &t : threads) t.join();
  ASSERT_NE(got[0], nullptr);
  for (const TimezoneData *tz : got) EXPECT_EQ(tz, got[0]);
}

TEST(TimezoneSerialize, LocalZoneTextIsKeptAndBuiltAgainAfterTheDirectoryChanges) {
  const Str &text = serializedLocalTimezone();
  EXPECT_EQ(&serializedLocalTimezone(), &text);
  const TimezoneData *back = deserializeTimezone(text);
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(back->equivalentAt(*getTimezone(), 1700000000));
  clearZoneInfoDir();  // already clear: only forgets the local zone and its text
  const Str &again = serializedLocalTimezone();
  EXPECT_NE(&again, &text);
  EXPECT_EQ(deserializeTimezone(again), back);  // nothing changed within the minute
}

}  // namespace
