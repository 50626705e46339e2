#include "basicutil/TimezoneSerialize.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

using namespace morvek;

namespace {

const Str HEADER = Str(SERIALIZED_TZ_HEADER) + "\n";

Str repeated(const char *line, int n) {
  Str out;
  while (n-- > 0) out += line;
  return out;
}

// EST (type 0) and EDT (type 1, standard-time kind) alternating at the given times.
std::unique_ptr<TimezoneData> estEdt(std::vector<int64_t> ats) {
  auto tz = std::make_unique<TimezoneData>();
  tz->chars.assign("EST\0EDT\0", 8);
  tz->ttis[0] = {-18000, 0, 0, TimezoneType::KIND_WALL};
  tz->ttis[1] = {-14400, 4, 1, TimezoneType::KIND_STANDARD};
  tz->typecnt = 2;
  for (size_t i = 0; i < ats.size(); ++i) tz->ats[i] = ats[i], tz->types[i] = i % 2;
  tz->timecnt = static_cast<uint32_t>(ats.size());
  tz->goback = tz->goahead = 0;
  return tz;
}

TEST(TimezoneSerialize, MalformedTextsRebuildNothing) {
  const Str bodies[] = {
      // clang-format off
      "", "Y0 NW\n@0 0\n", "Y0 NW\n@0 0\n$\nB\n", "Y0 NW\n\n@0 0\n$\n", "Y0 NW\n@0 0\nA\n$\n",
      "y0 NW\n@0 0\n$\n", "@0 0\n$\n", "Y0 NW\n$\n", "Cx\nY0 NW\n$\n", "C0\nZ\nY0 NW\nY0 NW\n$\n",
      "Y0 NW\n@0 2\n$\n", "Y0 NW\n@1 256\n$\n", "Y0 NW\n@1 -1\n$\n", "Y0 NW\n@1\n$\n",
      "Y0 NW\n@1 0 0\n$\n", "Y0 NW\n@1x 0\n$\n", "Y0 NW\n@9223372036854775808 0\n$\n",
      "Y0 NW\n@10 0\n@9 0\n$\n", "Y0\n@0 0\n$\n", "Yx NW\n@0 0\n$\n", "Y0 XW\n@0 0\n$\n",
      "Y0 NQ\n@0 0\n$\n", "Y0 NWW\n@0 0\n$\n", "Y0 NW 4\n@0 0\n$\n", "Y0 NW 4G\n@0 0\n$\n",
      "Y0 NW 00\n@0 0\n$\n", repeated("Y0 NW\n", 257) + "@0 0\n$\n",
      "Y0 NW\n" + repeated("@0 0\n", 1201) + "$\n",
      // clang-format on
  };
  for (const Str &body : bodies)
    EXPECT_EQ(deserializeTimezone(HEADER + body), nullptr) << body.substr(0, 40);
  EXPECT_EQ(deserializeTimezone(Str(SERIALIZED_TZ_HEADER) + " \nY0 NW\n@0 0\n$\n"), nullptr);
  EXPECT_EQ(deserializeTimezone("Y0 NW\n@0 0\n$\n"), nullptr);

  // The limits themselves pass, and so does an index equal to typecnt, as it always has.
  EXPECT_NE(deserializeTimezone(HEADER + repeated("Y0 NW 41\n", 256) + "@0 255\n$\n"), nullptr);
  EXPECT_NE(deserializeTimezone(HEADER + "Y0 NW\n" + repeated("@5 0\n", 1200) + "$\n"), nullptr);
  EXPECT_NE(deserializeTimezone(HEADER + "Y0 NW\nY1 NW\n@1 2\n$\n"), nullptr);
}

TEST(TimezoneSerialize, GmtHasAPlaceholderTypeAndReadsBackWithoutTypes) {
  const Str text = serializedTimezoneText(*gmtTimezone(), 30, 1700000000);
  EXPECT_EQ(text, HEADER + "C0\nZ\nY0 NW 47 4D 54\nB\nF\n$\n");
  const TimezoneData *tz = deserializeTimezone(text);
  ASSERT_NE(tz, nullptr);
  EXPECT_EQ(tz->typecnt + tz->timecnt, 0u);
  EXPECT_EQ(tz->fixed_offset, 0);
  EXPECT_STREQ(tz->abbreviationAt(1700000000), "GMT");
}

TEST(TimezoneSerialize, SpanKeepsOneChangeBefore1970AndNothingPastTheLimit) {
  const int64_t now = 1700000000, year = 31536000;
  const struct {
    std::vector<int64_t> ats;
    int years;
    const char *written;
  } cases[] = {
      {{-300, -200, -100}, 30, "@-100 0\n"},
      {{-300, -200, 5, 6}, 30, "@-200 1\n@5 0\n@6 1\n"},
      {{5, now + 2 * year, now + 3 * year}, 2, "@5 0\n@1763072000 1\n"},
      // 70 years overflow 32 bits: the limit lands in 1957.
      {{-600000000, -100, 5}, 70, "@-600000000 0\n"},
  };
  for (const auto &c : cases) {
    const Str types = "Y-18000 NW 45 53 54\nY-14400 YS 45 44 54\n";
    EXPECT_EQ(serializedTimezoneText(*estEdt(c.ats), c.years, now),
              HEADER + types + c.written + "$\n");
  }
}

TEST(TimezoneSerialize, RoundTripSharesAbbreviationsAndCachesByText) {
  auto tz = estEdt({-100, 1710054000, 1730613600});
  tz->ttis[2] = {-18000, 0, 0, TimezoneType::KIND_UNIVERSAL};  // a second "EST"
  tz->typecnt = 3;
  tz->types[2] = 2;
  tz->goback = 1;
  const Str text = serializedTimezoneText(*tz, 30, 1700000000);
  const TimezoneData *back = deserializeTimezone(text);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->chars, Str("EST\0EDT\0", 8));
  EXPECT_EQ(back->ttis[2].kind, uint32_t(TimezoneType::KIND_UNIVERSAL));
  EXPECT_EQ(back->goback * 2 + back->goahead, 2);
  EXPECT_EQ(back->fixed_offset, NOT_FIXED);
  EXPECT_TRUE(back->equivalentAt(*tz, 1720000000));

  // The same body, however its lines end, is the same object; another body is another.
  Str crlf = text;
  crlf.replaceAll("\n", "\r\n");
  EXPECT_EQ(deserializeTimezone(crlf), back);
  EXPECT_EQ(deserializeTimezone(text.substr(0, text.size() - 1)), back);
  EXPECT_NE(deserializeTimezone(Str(text).replace(text.find("B\n"), 1, "F")), back);

  SerializedTimezoneTextReader reader(text);
  Timezone handle("UTC");
  EXPECT_EQ(handle.setFromSerialized(reader), back);
  EXPECT_EQ(handle.data(), back);
  EXPECT_TRUE(handle.name().empty());

  std::vector<const TimezoneData *> got(4);
  const Str fresh = HEADER + "Y-7200 NW 58\n@123456789 0\n$\n";
  std::vector<std::thread> threads;
  for (auto &slot : got) threads.emplace_back([&] { slot = deserializeTimezone(fresh); });
  for (auto &t : threads) t.join();
  EXPECT_NE(got[0], nullptr);
  for (const TimezoneData *one : got) EXPECT_EQ(one, got[0]);
}

TEST(TimezoneSerialize, LocalZoneTextIsKeptAndBuiltAgainAfterTheDirectoryChanges) {
  const Str &text = serializedLocalTimezone();
  EXPECT_EQ(&serializedLocalTimezone(), &text);
  const TimezoneData *back = deserializeTimezone(text);
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(back->equivalentAt(*getTimezone(), 1700000000));
  clearZoneInfoDir();  // already clear: only forgets the local zone and its text
  EXPECT_NE(&serializedLocalTimezone(), &text);
}

}  // namespace
