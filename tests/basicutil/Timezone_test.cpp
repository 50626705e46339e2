#include "basicutil/Timezone.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "testutil.h"

using namespace morvek;

namespace {

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeFile(const std::string &path, const std::string &bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

// Compiles zone source text with the system's zic into dir.
bool zic(const std::string &dir, const std::string &source) {
  const std::string src = dir + "/source.zi";
  writeFile(src, source);
  const std::string cmd = "/usr/sbin/zic -d '" + dir + "' '" + src + "' 2>/dev/null";
  return access("/usr/sbin/zic", X_OK) == 0 && system(cmd.c_str()) == 0;
}

std::unique_ptr<TimezoneData> parsed(const std::string &bytes, bool rules = true) {
  auto tz = std::make_unique<TimezoneData>();
  return tz->parseZoneFile(StrSegment(bytes), rules) ? std::move(tz) : nullptr;
}

std::unique_ptr<TimezoneData> posix(const char *text) {
  auto tz = std::make_unique<TimezoneData>();
  return tz->parsePosixString(text) ? std::move(tz) : nullptr;
}

int yearOf(int64_t t) {
  struct tm tm;
  return breakDownUtc(t, tm) ? tm.tm_year + 1900 : -1;
}

// A zone file written field by field, so that each limit can be broken on purpose.
struct TzifBuilder {
  char version = '2';
  std::vector<int64_t> ats;
  std::vector<uint8_t> idx;
  struct Type {
    int32_t off;
    uint8_t isdst, abbr;
  };
  std::vector<Type> types{{-18000, 0, 0}, {-14400, 1, 4}};
  std::string chars{"EST\0EDT\0", 8};
  uint32_t leaps = 0;
  std::vector<uint8_t> isstd, isut;
  std::string footer = "\nEST5EDT,M3.2.0,M11.1.0\n";

  static void be(std::string &out, uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>(v >> (8 * i)));
  }
  std::string header() const {
    std::string h = "TZif";
    h.push_back(version);
    h.append(15, '\0');
    for (uint64_t n :
         {isut.size(), isstd.size(), size_t(leaps), ats.size(), types.size(), chars.size()})
      be(h, n, 4);
    return h;
  }
  std::string body(int time_size) const {
    std::string b;
    for (int64_t t : ats) be(b, static_cast<uint64_t>(t), time_size);
    for (uint8_t i : idx) b.push_back(static_cast<char>(i));
    for (const Type &t : types) {
      be(b, static_cast<uint32_t>(t.off), 4);
      b.push_back(static_cast<char>(t.isdst));
      b.push_back(static_cast<char>(t.abbr));
    }
    b += chars;
    b.append(leaps * (time_size + 4), '\0');
    for (uint8_t v : isstd) b.push_back(static_cast<char>(v));
    for (uint8_t v : isut) b.push_back(static_cast<char>(v));
    return b;
  }
  std::string build() const {
    std::string out = header() + body(4);
    if (version >= '2') out += header() + body(8) + footer;
    return out;
  }
  std::string headerless() const {
    std::string out(32, '\0');
    be(out, ats.size(), 4);
    be(out, types.size(), 4);
    be(out, chars.size(), 4);
    return out + body(4).substr(0, ats.size() * 5 + types.size() * 6 + chars.size());
  }
  // n yearly transitions, alternating EDT and EST, from 1990.
  TzifBuilder &alternating(size_t n) {
    for (size_t i = 0; i < n; ++i) {
      ats.push_back(638953200 + static_cast<int64_t>(i) * 15778800);
      idx.push_back(i % 2 == 0 ? 1 : 0);
    }
    return *this;
  }
};

class TimezoneFileTest : public ::testing::Test {
 protected:
  void SetUp() override { _dir = testutil::makeTempDir(); }
  void TearDown() override {
    clearZoneInfoDir();
    setSystemZoneInfoDir("");
    std::filesystem::remove_all(_dir);
  }
  std::string _dir;
};

TEST_F(TimezoneFileTest, ZoneFilesFromZic) {
  ASSERT_TRUE(zic(_dir,
                  "Rule R 1600 max - Mar Sun>=8 2:00 1:00 D\n"
                  "Rule R 1600 max - Nov Sun>=1 2:00 0 S\n"
                  "Zone Test/Four -5:00 R E%sT\n"
                  "Rule K 1438 max - Mar Sun>=8 2:00 1:00 D\n"
                  "Rule K 1438 max - Nov Sun>=1 2:00 0 S\n"
                  "Zone Test/Full -5:00 K E%sT\n"
                  "Zone Test/OneFoot -5:00 R E%sT 2000 Mar 1\n"
                  "\t-4:00 - XYZ\n"))
      << "zic failed";
  const int64_t y2100 = dayStartTime(2100, 6, 1);

  // 876 transitions in the file repeating every 400 years at both ends. Without the footer
  // the table ends in 2037 and its last offset holds.
  auto bare = parsed(readFile(_dir + "/Test/Four"), false);
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->timecnt, 876u);
  EXPECT_EQ(bare->goback * 10 + bare->goahead, 11);
  EXPECT_EQ(bare->offsetAt(y2100), -18000);

  // With it, the table is extended to its limit by two new types, so its end no longer
  // repeats the types of 400 years before.
  auto four = parsed(readFile(_dir + "/Test/Four"));
  ASSERT_TRUE(four);
  EXPECT_EQ(four->timecnt, 1200u);
  EXPECT_EQ(four->typecnt, bare->typecnt + 2);
  EXPECT_EQ(four->goahead, 0);
  EXPECT_STREQ(four->abbreviationAt(y2100), "EDT");

  // Exactly 1200 in the file: the footer has no room and is dropped without error.
  auto full = parsed(readFile(_dir + "/Test/Full"));
  ASSERT_TRUE(full);
  EXPECT_EQ(full->timecnt, 1200u);
  EXPECT_EQ(full->typecnt, bare->typecnt + 2) << "the types come, the transitions do not";
  EXPECT_EQ(yearOf(full->ats[1199]), 2037);
  EXPECT_EQ(full->offsetAt(y2100), -18000);

  // A footer with one type adds nothing: the last offset holds for ever.
  auto one = parsed(readFile(_dir + "/Test/OneFoot"));
  ASSERT_TRUE(one);
  EXPECT_EQ(yearOf(one->ats[one->timecnt - 1]), 2000);
  EXPECT_STREQ(one->abbreviationAt(y2100), "XYZ");
  EXPECT_EQ(one->typecnt, parsed(readFile(_dir + "/Test/OneFoot"), false)->typecnt);

  // The same file read as version 1: only the 32-bit block, no footer.
  std::string v1 = readFile(_dir + "/Test/Four");
  v1[4] = '\0';
  auto old = parsed(v1);
  ASSERT_TRUE(old);
  EXPECT_EQ(yearOf(old->ats[0]), 1901);
  EXPECT_EQ(old->offsetAt(y2100), -18000);

  // The headerless layout, the same table.
  TzifBuilder b;
  b.alternating(40);
  auto headerless = parsed(b.headerless());
  ASSERT_TRUE(headerless);
  EXPECT_EQ(headerless->timecnt, 40u);
  EXPECT_EQ(headerless->offsetAt(638953200), -14400);
  EXPECT_EQ(headerless->offsetAt(638953199), -14400) << "before the first: index 0";
}

TEST(TimezoneFile, EachLimitBrokenByOne) {
  // Each edit is made at the limit (o == 0) and one past it (o == 1).
  void (*const edits[])(TzifBuilder &, int) = {
      [](TzifBuilder &b, int o) { b.alternating(1200 + o); },
      [](TzifBuilder &b, int o) { b.types.resize(256 + o, b.types[0]); },
      [](TzifBuilder &b, int o) { b.chars.resize(270 + o, 'A'); },
      [](TzifBuilder &b, int o) { b.leaps = 500 + o; },
      [](TzifBuilder &b, int o) { b.isstd.assign(2 + o, 0); },  // 0 or typecnt of them
      [](TzifBuilder &b, int o) { b.isut.assign(2 - o, 1); },
      [](TzifBuilder &b, int o) { b.isstd.assign(2, uint8_t(1 + o)); },
      [](TzifBuilder &b, int o) { b.alternating(3).idx[2] = uint8_t(1 + o); },
      [](TzifBuilder &b, int o) { b.types[1].isdst = uint8_t(1 + o); },
      [](TzifBuilder &b, int o) { b.types[1].abbr = uint8_t(7 + o); },
      [](TzifBuilder &b, int o) { b.version = o ? '1' : '2'; },
      [](TzifBuilder &b, int o) { b.version = o ? 1 : 0; },
  };
  for (size_t i = 0; i < std::size(edits); ++i) {
    TzifBuilder good, bad;
    edits[i](good, 0);
    edits[i](bad, 1);
    EXPECT_TRUE(parsed(good.build())) << i;
    EXPECT_FALSE(parsed(bad.build())) << i;
  }
  // The headerless layout has its own limits; at least one byte of abbreviations.
  TzifBuilder h;
  h.alternating(1200);
  EXPECT_TRUE(parsed(h.headerless()));
  h.alternating(1);
  EXPECT_FALSE(parsed(h.headerless()));
  TzifBuilder no_chars;
  no_chars.types.clear();
  no_chars.chars.clear();
  EXPECT_FALSE(parsed(no_chars.headerless()));
  no_chars.chars = "X";
  EXPECT_TRUE(parsed(no_chars.headerless()));
}

TEST_F(TimezoneFileTest, TableDetails) {
  // Out of order: cut before the first descent, but the last pair is never examined.
  TzifBuilder b;
  b.footer.clear();
  b.alternating(6);
  b.ats[3] = b.ats[1];
  auto cut = parsed(b.build());
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->timecnt, 3u);
  b.ats[3] = b.ats[4] + 1;
  EXPECT_EQ(parsed(b.build())->timecnt, 4u);
  b.ats = {10, 20, 30, 40, 5};
  b.idx.resize(5);
  EXPECT_EQ(parsed(b.build())->timecnt, 5u);

  // Indicators give the kind of each type; the universal flag wins.
  b.isstd = {1, 1};
  b.isut = {0, 1};
  auto kinds = parsed(b.build());
  EXPECT_EQ(kinds->ttis[0].kind, TimezoneType::KIND_STANDARD);
  EXPECT_EQ(kinds->ttis[1].kind, TimezoneType::KIND_UNIVERSAL);

  // Fixed offsets: no transitions; or all from 1970 on in one offset.
  TzifBuilder fixed;
  fixed.footer.clear();
  fixed.types = {{3600, 0, 0}};
  EXPECT_EQ(parsed(fixed.build())->fixed_offset, 3600);
  fixed.types = {{3600, 0, 0}, {7200, 0, 4}, {7200, 1, 4}};
  fixed.ats = {-100, 0, 50};
  fixed.idx = {0, 1, 2};
  EXPECT_EQ(parsed(fixed.build())->fixed_offset, 7200);
  fixed.idx = {1, 0, 2};
  EXPECT_EQ(parsed(fixed.build())->fixed_offset, NOT_FIXED);
}

TEST_F(TimezoneFileTest, TruncationsFail) {
  ASSERT_TRUE(zic(_dir,
                  "Rule R 1990 max - Mar Sun>=8 2:00 1:00 D\n"
                  "Rule R 1990 max - Nov Sun>=1 2:00 0 S\n"
                  "Zone Trunc/Zone -5:00 R E%sT\n"));
  const std::string whole = readFile(_dir + "/Trunc/Zone");
  const size_t footer = whole.size() - whole.substr(0, whole.size() - 1).rfind('\n');
  size_t accepted = 0;
  for (size_t n = 0; n < whole.size(); ++n) {
    auto tz = parsed(whole.substr(0, n));
    if (tz) ++accepted;
    // Only prefixes that cut the footer alone (which is then ignored) may still parse.
    ASSERT_TRUE(!tz || n >= whole.size() - footer) << n;
  }
  EXPECT_EQ(accepted, footer);
}

TEST_F(TimezoneFileTest, PosixRulesCorrectionAndBuiltInRules) {
  const std::string wall = _dir + "/wall", universal = _dir + "/universal", empty = _dir + "/empty";
  ASSERT_TRUE(zic(wall,
                  "Rule P 1990 max - Apr 1 2:00 1:00 D\n"
                  "Rule P 1990 max - Oct 1 2:00 0 S\n"
                  "Zone posixrules -7:00 P M%sT\n"));
  ASSERT_TRUE(zic(universal,
                  "Rule U 1990 max - Apr 1 9:00u 1:00 D\n"
                  "Rule U 1990 max - Oct 1 8:00u 0 S\n"
                  "Zone posixrules -7:00 U M%sT\n"));
  std::filesystem::create_directories(empty);

  struct Case {
    std::string system_dir;
    int64_t spring, autumn;  // UTC of the two 1991 changes (before the first, the first's type)
    int last_year;
  } cases[] = {
      // Wall-clock rules move with the new offsets: 02:00 EST and 02:00 EDT.
      {wall, 670489200, 686296800, 2037},
      // Universal ones stay where they were.
      {universal, 670496400, 686304000, 2037},
      // No posixrules at all: the US rules from 1970 to 2569.
      {empty, dayStartTime(1991, 2, 10) + 7 * 3600, dayStartTime(1991, 10, 3) + 6 * 3600, 2569},
  };
  for (const Case &c : cases) {
    setSystemZoneInfoDir(c.system_dir);
    auto tz = posix("EST5EDT");
    ASSERT_TRUE(tz) << c.system_dir;
    EXPECT_EQ(tz->offsetAt(c.spring - 1), -18000) << c.system_dir;
    EXPECT_EQ(tz->offsetAt(c.spring), -14400) << c.system_dir;
    EXPECT_EQ(tz->offsetAt(c.autumn - 1), -14400) << c.system_dir;
    EXPECT_EQ(tz->offsetAt(c.autumn), -18000) << c.system_dir;
    EXPECT_STREQ(tz->abbreviationAt(c.spring), "EDT");
    EXPECT_EQ(yearOf(tz->ats[tz->timecnt - 1]), c.last_year);
  }
  // The built-in rules in a recent year, and the override directory is searched first.
  setSystemZoneInfoDir(empty);
  auto us = posix("EST5EDT");
  EXPECT_EQ(us->timecnt, 1200u);
  EXPECT_EQ(us->offsetAt(1710054000 - 1) - us->offsetAt(1710054000), -3600);
  setZoneInfoDir(universal);
  EXPECT_EQ(posix("EST5EDT")->offsetAt(638960400), -14400);
}

TEST(TimezonePosix, RulesAndNames) {
  struct Case {
    const char *text;
    int64_t at;  // an instant just at a change
    int64_t before, after;
    const char *abbr_after;
  } cases[] = {
      // J60 is 2 March in 2023 (the Julian day moved in a year that is NOT leap) and 29
      // February in 2024; 167 hours on top.
      {"AAA3BBB,J60/167,300/0", 1678327200, -10800, -7200, "BBB"},
      {"AAA3BBB,J60/167,300/0", 1709776800, -10800, -7200, "BBB"},
      {"AAA3BBB,J60/167,300/0", 1698458400, -7200, -10800, "AAA"},
      // Zero-based day 365 is 31 December in both kinds of year.
      {"CCC-0DDD-1,0/0,365/0", 1703977200, 3600, 0, "CCC"},
      {"CCC-0DDD-1,0/0,365/0", 1735599600, 3600, 0, "CCC"},
      // The fifth week: 29 February where it exists, the last Sunday otherwise.
      {"EEE0FFF,M2.5.0,M10.5.0", 1961632800, 0, 3600, "FFF"},
      {"EEE0FFF,M2.5.0,M10.5.0", 1424570400, 0, 3600, "FFF"},
      // Angle brackets, explicit dst offsets with minutes, ";" as the separator.
      {"<-03>3<-02>2;M3.2.0/2:30;M11.1.0", dayStartTime(2024, 2, 10) + 5 * 3600 + 1800, -10800,
       -7200, "-02"},
      {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", dayStartTime(2024, 9, 6) + 2 * 3600 - 37800, 37800,
       39600, "+11"},
  };
  for (const Case &c : cases) {
    auto tz = posix(c.text);
    ASSERT_TRUE(tz) << c.text;
    EXPECT_EQ(tz->offsetAt(c.at - 1), c.before) << c.text << " " << c.at;
    EXPECT_EQ(tz->offsetAt(c.at), c.after) << c.text << " " << c.at;
    EXPECT_STREQ(tz->abbreviationAt(c.at), c.abbr_after) << c.text;
    EXPECT_TRUE(tz->isAtTransition(c.at)) << c.text;
  }

  struct Fixed {
    const char *text;
    int64_t offset;
    const char *abbr;
  } fixed[] = {
      {"<+0330>-3:30", 12600, "+0330"}, {"UTC0", 0, "UTC"},
      {"XYZ+5", -18000, "XYZ"},         {"ABC-23:59:59", 86399, "ABC"},
      {"<UTC+5>5", -18000, "UTC+5"},
  };
  for (const Fixed &f : fixed) {
    auto tz = posix(f.text);
    ASSERT_TRUE(tz) << f.text;
    EXPECT_EQ(tz->fixed_offset, f.offset) << f.text;
    EXPECT_EQ(tz->offsetAt(1700000000), f.offset) << f.text;
    EXPECT_STREQ(tz->abbreviationAt(0), f.abbr) << f.text;
  }
  // The same offsets in both types make a fixed zone too.
  EXPECT_EQ(posix("AAA5BBB5,M3.2.0,M11.1.0")->fixed_offset, -18000);

  // Names and offsets, then rules.
  for (const char *m :
       {"", "EST", "5", "<>5", "<EST5", "EST24", "EST5:60", "EST5:30:60", "EST+", "EST5<EDT"})
    EXPECT_FALSE(posix(m)) << m;
  for (const char *m :
       {"EST5EDT,", "EST5EDT,M3.2.0", "EST5EDT,M3.2.0,M11.1.0,", "EST5EDT,M3.2.0,M11.1.0x",
        "EST5EDT,J0,J5", "EST5EDT,J366,J5", "EST5EDT,366,5", "EST5EDT,M13.1.0,M1.1.0",
        "EST5EDT,M0.1.0,M1.1.0", "EST5EDT,M1.6.0,M2.1.0", "EST5EDT,M1.1.7,M2.1.0",
        "EST5EDT,M1.1.0/168,M2.1.0", "EST5EDT,M1.1.0/-1,M2.1.0", "EST5EDT,M1.1.0/,M2.1.0",
        "EST5EDT M3.2.0,M11.1.0", "EST5EDT,M3.2,M11.1.0"})
    EXPECT_FALSE(posix(m)) << m;
}

TEST_F(TimezoneFileTest, NamesStayInsideAndPacksIgnoreCase) {
  struct Case {
    const char *in, *out;
  } cases[] = {
      // clang-format off
      {"../../etc/passwd", "_./_./etc/passwd"}, {"//a//b/", "a/b"}, {"/", ""},
      {"+x/-y/.z/:w/ v", "_x/_y/_z/_w/_v"}, {"a b+c-d.e:f", "a b+c-d.e:f"},
      {"bad\\name*?", "bad_name__"},
      // clang-format on
  };
  for (const Case &c : cases) {
    Str out;
    sanitizeZoneName(c.in, out);
    EXPECT_EQ(out, c.out) << c.in;
  }

  ASSERT_TRUE(zic(_dir + "/src", "Zone Pack/Zone_One 1:00 - ONE\nZone Outside/Zone 2:00 - TWO\n"));
  const std::string inside = _dir + "/inside";
  std::filesystem::create_directories(inside);
  std::filesystem::copy(_dir + "/src/Outside", _dir + "/Outside",
                        std::filesystem::copy_options::recursive);
  setZoneInfoDir(inside);
  // Escapes are sanitized and stay under the directory; an absolute path is a path.
  EXPECT_EQ(getTimezone("../Outside/Zone"), nullptr);
  EXPECT_EQ(getTimezone("/no/such5"), nullptr) << "a path is never read as a POSIX string";
  const TimezoneData *abs = getTimezone((_dir + "/Outside/Zone").c_str());
  ASSERT_NE(abs, nullptr);
  EXPECT_EQ(abs->offsetAt(0), 7200);
  EXPECT_EQ(abs->name, "Zone");

  // The pack next to the override directory, in any case.
  Str pack;
  TzPack::build({{"Pack/Zone_One", readFile(_dir + "/src/Pack/Zone_One")},
                 {"Outside/Zone", readFile(_dir + "/src/Outside/Zone")},
                 {"A", "x"}},
                pack);
  writeFile(inside + ".tzpack", pack);
  const TimezoneData *packed = getTimezone("PACK/zone_one");
  ASSERT_NE(packed, nullptr);
  EXPECT_EQ(packed->offsetAt(0), 3600);
  EXPECT_EQ(packed->name, "PACK/zone_one");

  TzPack reader;
  ASSERT_TRUE(reader.open(pack));
  ASSERT_EQ(reader.count(), 3u);
  StrSegment name, data;
  const char *want[] = {"a", "outside/zone", "pack/zone_one"};
  for (uint32_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(reader.entry(i, name, data));
    EXPECT_EQ(name, StrSegment(want[i]));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(data.data()) % 16, 0u);
  }
  for (const char *key : {"OUTSIDE/ZONE", "a", "A", "pack\\ZONE_one"})
    EXPECT_TRUE(reader.find(key, data)) << key;
  for (const char *key : {"Outside", "outside/zone/", "b"})
    EXPECT_FALSE(reader.find(key, data)) << key;

  // A broken header or entry offsets fail without reading outside the pack.
  Str broken = pack;
  broken[15] = 0;  // no entries
  EXPECT_FALSE(reader.open(broken));
  broken = pack;
  broken[12] = 1;  // more entries than the file could hold
  EXPECT_FALSE(reader.open(broken));
  broken = pack.substr(0, pack.size() - 16);  // the last entry's data cut short
  ASSERT_TRUE(reader.open(broken));
  EXPECT_FALSE(reader.find("pack/zone_one", data));
  broken = pack;
  broken[16] = 0x7f;  // first name offset past the end
  ASSERT_TRUE(reader.open(broken));
  EXPECT_FALSE(reader.entry(0, name, data));
}

TEST(TimezoneLookup, GapsOverlapsAndBrokenDownTime) {
  const TimezoneData *ny = getTimezone("America/New_York"), *berlin = getTimezone("Europe/Berlin");
  ASSERT_TRUE(ny && berlin);
  const int64_t spring = 1710054000, autumn = 1730613600;
  const int64_t gap_local = spring - 18000 + 1800;      // 02:30 on 10 March
  const int64_t overlap_local = autumn - 18000 + 1800;  // 01:30 on 3 November

  struct Case {
    const TimezoneData *tz;
    int64_t local;
    int isdst;
    int rtype;
    int64_t want;  // -1: no type
  } cases[] = {
      {ny, gap_local, -1, TimezoneData::MIGHT_ALSO_BE_NEXT_INDEX, -1},
      {ny, gap_local, 1, TimezoneData::MIGHT_ALSO_BE_NEXT_INDEX, -1},
      {ny, spring - 18000 - 1, -1, TimezoneData::REVERSE_EXACT, spring - 1},
      {ny, spring - 14400, -1, TimezoneData::REVERSE_EXACT, spring},
      {ny, overlap_local, -1, TimezoneData::REVERSE_AMBIGUOUS, -1},
      {ny, overlap_local, 1, TimezoneData::REVERSE_AMBIGUOUS, autumn - 1800},
      {ny, overlap_local, 0, TimezoneData::REVERSE_AMBIGUOUS, autumn + 1800},
      {ny, autumn - 14400 - 3601, 0, TimezoneData::REVERSE_EXACT, autumn - 3601},
      {ny, autumn - 18000 + 3600, 1, TimezoneData::REVERSE_EXACT, autumn + 3600},
      // East of UTC, 03:00 CEST maps exactly onto its own change.
      {berlin, 1711854000, -1, TimezoneData::REVERSE_EXACT, 1711846800},
  };
  for (const Case &c : cases) {
    int rtype;
    c.tz->reverseSearch(c.local, rtype);
    EXPECT_EQ(rtype, c.rtype) << c.local;
    const TimezoneType *type = c.tz->offsetFromReverseSearch(c.local, c.isdst);
    EXPECT_EQ(type ? c.local - type->gmtoff : -1, c.want) << c.local << " " << c.isdst;

    struct tm tm;
    ASSERT_TRUE(breakDownUtc(c.local, tm));
    tm.tm_isdst = c.isdst;
    EXPECT_EQ(c.tz->toUnixTime(tm), c.want) << c.local;
    if (c.want == -1) {
      EXPECT_EQ(tm.tm_isdst, c.isdst);
      ASSERT_TRUE(breakDownUtc(c.local, tm));
      tm.tm_isdst = c.isdst;
      EXPECT_EQ(ny->toUnixTimeOrTransition(tm), c.local < spring ? spring : autumn);
    }
  }

  struct tm tm;
  ASSERT_TRUE(ny->breakDown(spring, tm));
  EXPECT_TRUE(tm.tm_hour == 3 && tm.tm_isdst == 1 && tm.tm_gmtoff == -14400);  // 03:00 EDT

  // The other lookups.
  EXPECT_EQ(ny->transitionTimeAt(spring + 5), spring);
  EXPECT_EQ(ny->recentOffset(true), -14400);
  EXPECT_EQ(ny->recentOffset(false), -18000);
  EXPECT_EQ(ny->fixedOffsetBetween(spring, autumn - 1), -14400);
  EXPECT_EQ(ny->fixedOffsetBetween(spring - 1, autumn - 1), NOT_FIXED);
  int rtype;
  EXPECT_EQ(berlin->reverseSearch(INT64_MIN + 5, rtype), 0u);
  EXPECT_EQ(ny->reverseSearch(INT64_MAX - 5, rtype), ny->timecnt - 1);

  const TimezoneData *toronto = getTimezone("America/Toronto");
  const TimezoneData *chicago = getTimezone("America/Chicago");
  const TimezoneData *utc = getTimezone("Etc/UTC");
  ASSERT_TRUE(toronto && chicago && utc);
  EXPECT_TRUE(ny->equivalentAt(*toronto, 1700000000));
  EXPECT_FALSE(ny->equivalentAt(*toronto, -1000000000));  // they differed in the 1940s
  EXPECT_FALSE(ny->equivalentAt(*chicago, 1700000000));
  EXPECT_FALSE(utc->equivalentAt(*gmtTimezone(), 0));  // "UTC" is not "GMT"
  EXPECT_TRUE(getTimezone("Etc/GMT")->equivalentAt(*gmtTimezone(), 0));

  // An empty name is GMT; a POSIX string is a zone; the handle keeps the requested name.
  Timezone handle;
  EXPECT_TRUE(handle.set("EST5EDT,M3.2.0,M11.1.0"));
  EXPECT_EQ(handle.name(), "EST5EDT,M3.2.0,M11.1.0");
  EXPECT_FALSE(handle.set("No/Such_Zone"));
  EXPECT_EQ(handle.name(), "");
  EXPECT_STREQ(getTimezone("")->abbreviationAt(0), "GMT");
}

TEST(TimezoneLocal, FollowsTzAndTheOverride) {
  struct Case {
    const char *tz;  // null: unset
    int64_t offset;
  } cases[] = {
      {"XST-3", 10800},      {"", 0},                       // empty is unset: /etc/localtime
      {nullptr, 0},          {"No/Such/Zone_Anywhere", 0},  // falls back to GMT
      {":/no/such/file", 0},
  };
  {
    testutil::ScopedTz restore("");
    for (const Case &c : cases) {
      if (c.tz) {
        setenv("TZ", c.tz, 1);
      } else {
        unsetenv("TZ");
      }
      clearZoneInfoDir();
      const TimezoneData *local = getTimezone();
      ASSERT_NE(local, nullptr);
      EXPECT_EQ(getTimezone(), local) << "cached";
      if (c.tz == nullptr || *c.tz == '\0') {
        EXPECT_EQ(local, getTimezone("localtime"));
        continue;
      }
      EXPECT_EQ(local->offsetAt(1700000000), c.offset) << c.tz;
    }
  }
  clearZoneInfoDir();

  // The local file is named after its link into the zone directory.
  char target[4096];
  const ssize_t n = readlink("/etc/localtime", target, sizeof target - 1);
  if (n > 0 && std::string(target, n).find("zoneinfo/") != std::string::npos) {
    std::string want(target, n);
    want = want.substr(want.find("zoneinfo/") + 9);
    EXPECT_EQ(getTimezone("localtime")->name, want);
  }
}

// Eight threads load and look up zones at once; all must agree on one object per name.
TEST(TimezoneThreads, EightThreadsLoadAndLookUp) {
  const char *names[] = {"Europe/Paris",     "Asia/Tokyo",
                         "Australia/Sydney", "America/Denver",
                         "Africa/Cairo",     "Pacific/Auckland",
                         "Asia/Kolkata",     "America/Sao_Paulo",
                         "Europe/Moscow",    "UTC",
                         "CST6CDT",          "AAA5BBB,M3.2.0,M11.1.0",
                         "Not/A_Zone_Ever",  "Asia/Kathmandu",
                         "America/St_Johns"};
  constexpr size_t N = std::size(names);
  std::atomic<const TimezoneData *> seen[8][N];
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        for (size_t i = 0; i < N; ++i) {
          const size_t k = (i + t * 3) % N;
          const TimezoneData *tz = getTimezone(names[k]);
          if (tz != nullptr) (void)tz->offsetAt(1700000000 + round * 86400 * 30);
          seen[t][k].store(tz);
          (void)getTimezone()->offsetAt(round);
        }
      }
    });
  }
  for (auto &th : threads) th.join();
  for (size_t k = 0; k < N; ++k) {
    for (int t = 1; t < 8; ++t) EXPECT_EQ(seen[t][k].load(), seen[0][k].load()) << names[k];
    EXPECT_EQ(seen[0][k].load() == nullptr, k == 12) << names[k];
  }
  EXPECT_EQ(getTimezone("Asia/Kathmandu")->offsetAt(1700000000), 20700);
}

}  // namespace
