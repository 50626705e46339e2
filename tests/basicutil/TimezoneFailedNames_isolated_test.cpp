// The set of names that failed to load, seen from a process of its own so that no other test
// has added to it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "basicutil/Timezone.h"
#include "testutil.h"

using namespace morvek;

namespace {

std::string letters(int n) {
  std::string s;
  do {
    s.push_back(static_cast<char>('a' + n % 26));
    n /= 26;
  } while (n != 0);
  return s;
}

TEST(TimezoneFailedNames, RememberedUntilTheSetHolds2049) {
  const std::string dir = testutil::makeTempDir();
  setZoneInfoDir(dir);
  ASSERT_EQ(getTimezone("Later/Zone"), nullptr);
  std::filesystem::create_directories(dir + "/Later");
  std::filesystem::copy_file("/usr/share/zoneinfo/Etc/UTC", dir + "/Later/Zone");
  EXPECT_EQ(getTimezone("Later/Zone"), nullptr) << "remembered as failed";

  for (int i = 0; i < 2048; ++i) ASSERT_EQ(getTimezone(("Missing/" + letters(i)).c_str()), nullptr);
  EXPECT_EQ(getTimezone("Later/Zone"), nullptr) << "2049 names, none forgotten yet";
  ASSERT_EQ(getTimezone("Missing/last"), nullptr);  // empties the set, then enters itself
  const TimezoneData *tz = getTimezone("Later/Zone");
  ASSERT_NE(tz, nullptr);
  EXPECT_EQ(tz->name, "Later/Zone");
  EXPECT_EQ(getTimezone("Missing/last"), nullptr);
  clearZoneInfoDir();
  std::filesystem::remove_all(dir);
}

}  // namespace
