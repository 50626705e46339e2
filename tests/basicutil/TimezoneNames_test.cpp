#include "basicutil/TimezoneNames.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

using morvek::aliasForZoneName;
using morvek::windowsZoneNameHash;
using morvek::windowsZoneNameOffset;
using morvek::zoneAbbreviationOffset;

namespace {

// The rows of a source list under tools/tznames, split at the last blank or at the tab.
std::vector<std::pair<std::string, std::string>> sourceRows(const char *file, char sep) {
  std::ifstream in(std::string(MORVEK_SOURCE_DIR) + "/tools/tznames/" + file);
  std::vector<std::pair<std::string, std::string>> rows;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    size_t at = sep == ' ' ? line.rfind(' ') : line.find('\t');
    rows.emplace_back(line.substr(0, at), line.substr(at + 1));
  }
  return rows;
}

std::string alias(const char *name) {
  const char *zone = aliasForZoneName(name);
  return zone ? zone : "(null)";
}

TEST(TimezoneNames, EveryAbbreviationIsFoundInAnyCase) {
  auto rows = sourceRows("abbreviations.txt", ' ');
  ASSERT_EQ(rows.size(), 78u);
  for (const auto &[name, value] : rows) {
    std::string lower = name;
    for (char &c : lower) c = static_cast<char>(tolower(c));
    for (const std::string &n : {name, lower}) {
      int64_t offset = 1;
      ASSERT_TRUE(zoneAbbreviationOffset(n, offset)) << n;
      EXPECT_EQ(offset, std::stoll(value)) << n;
    }
  }
  int64_t offset = 1;
  for (const char *miss : {"", "ES", "ESTX", "E5T", "EST ", "CETDSTX", "ABCDEFGH", "A"}) {
    EXPECT_FALSE(zoneAbbreviationOffset(miss, offset)) << miss;
  }
}

TEST(TimezoneNames, WindowsNamesWithTheHighHashBitAreNeverFound) {
  auto rows = sourceRows("windows.txt", '\t');
  ASSERT_EQ(rows.size(), 187u);
  int unreachable = 0;
  uint32_t previous = 0;
  for (const auto &[name, value] : rows) {
    const uint32_t hash = windowsZoneNameHash(name);
    EXPECT_EQ(hash & 0xFF, name.size()) << name;
    // The list is kept in table order, which checks the hash on every row.
    EXPECT_LE(previous, hash & 0x7FFFFFFF) << name;
    previous = hash & 0x7FFFFFFF;
    int64_t offset = 1;
    bool found = windowsZoneNameOffset(name, offset);
    if (hash >> 31) {
      ++unreachable;
      EXPECT_FALSE(found) << name;
    } else {
      ASSERT_TRUE(found) << name;
      EXPECT_EQ(offset, std::stoll(value)) << name;
    }
  }
  EXPECT_EQ(unreachable, 110);

  int64_t offset = 1;
  // "Pacific Standard Tiob" has the hash of "Pacific Standard Time".
  for (const char *miss :
       {"pacific standard time", "Pacific Standard Time ", "Pacific Standard Tiob", "", "PST"}) {
    EXPECT_FALSE(windowsZoneNameOffset(miss, offset)) << miss;
  }
  EXPECT_FALSE(windowsZoneNameOffset(std::string(300, 'A'), offset));
}

TEST(TimezoneNames, EveryAliasKeyGivesItsZone) {
  auto rows = sourceRows("aliases.txt", '\t');
  ASSERT_EQ(rows.size(), 247u);
  for (const auto &[key, zone] : rows) {
    const bool vague = key == "GMT" || key == "Greenwich";
    EXPECT_EQ(alias(key.c_str()), vague ? "(null)" : zone) << key;
    // Windows display names reach the same row through their ending.
    if (key.rfind("US ", 0) == 0) continue;
    EXPECT_EQ(alias((key + " Standard Time").c_str()), zone) << key;
    if (key != "Greenwich") {
      EXPECT_EQ(alias((key + " Daylight Time").c_str()), zone) << key;
    }
  }
}

TEST(TimezoneNames, AliasRules) {
  struct Case {
    const char *name, *zone;
  } cases[] = {
      // Keys alone, and their Windows forms, are walked above; these are the rules around them.
      // clang-format off
      {"US Eastern Standard Time", "Etc/GMT+5"}, {"US Mountain Standard Time", "America/Phoenix"},
      {"US Eastern Daylight Time", "America/New_York"},
      {"US Central Standard Time", "America/Chicago"}, {"US Standard Time", "(null)"},
      {"Greenwich Daylight Time", "Europe/London"}, {"US Greenwich Daylight Time", "Europe/London"},
      {"Central Standard Time (Mexico)", "America/Mexico_City"},
      {"Mountain Daylight Time (Mexico)", "America/Chihuahua"},
      {"Pacific Standard Time (Mexico)", "America/Tijuana"},
      {"Eastern Standard Time (Mexico)", "(null)"}, {"Mexico Standard Time 2", "America/Chihuahua"},
      {"Mexico Daylight Time 2", "America/Chihuahua"}, {"Mexico Standard Time 3", "(null)"},
      {"eastern", "(null)"}, {"", "(null)"}, {"Yukon ", "(null)"},
      {"Nowhere Standard Time", "(null)"}, {" Standard Time", "(null)"},
      // clang-format on
  };
  for (const Case &c : cases) EXPECT_EQ(alias(c.name), c.zone) << c.name;
}

}  // namespace
