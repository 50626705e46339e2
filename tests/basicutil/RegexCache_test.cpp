#include <gtest/gtest.h>

#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "basicutil/Regex.h"

using namespace morvek;

namespace {

// Each test works on patterns of its own and starts from empty generations and zero statistics,
// so the numbers it sees are its own.
class RegexCacheTest : public testing::Test {
 protected:
  void SetUp() override {
    setRegexCacheRotationLimit(8);
    rotate_regex_cache();
    rotate_regex_cache();
    takeAndResetRegexCacheStats();
  }
  void TearDown() override { setRegexCacheRotationLimit(8); }

  static std::string pattern(const char *test, int i) {
    return std::string("cache:") + test + ":" + std::to_string(i);
  }
  static void expectStats(uint32_t hits, uint32_t misses, uint32_t races, uint64_t evicted,
                          uint32_t rotations) {
    RegexCacheStats s = takeAndResetRegexCacheStats();
    EXPECT_EQ(s.hits, hits);
    EXPECT_EQ(s.misses, misses);
    EXPECT_EQ(s.races_lost, races);
    EXPECT_EQ(s.evicted_by_rotation, evicted);
    EXPECT_EQ(s.rotations, rotations);
  }
};

TEST_F(RegexCacheTest, LiveHandlesShareOneCompile) {
  Regex a(pattern("share", 0));
  Regex b(Str(pattern("share", 0)));
  Regex c(HashedStr(StrSegment(pattern("share", 0))));
  EXPECT_TRUE(a.sameCompiledPattern(b));
  EXPECT_TRUE(a.sameCompiledPattern(c));
  EXPECT_FALSE(a.sameCompiledPattern(Regex(pattern("share", 1))));
  expectStats(2, 2, 0, 0, 0);
}

TEST_F(RegexCacheTest, RetiredPatternComesBackWithoutCompile) {
  const void *first;
  {
    Regex a(pattern("revive", 0));
    first = a.implAddress();
  }
  EXPECT_EQ(regexCacheCounts().young, 1u);
  Regex again(pattern("revive", 0));
  EXPECT_EQ(again.implAddress(), first);
  EXPECT_EQ(regexCacheCounts().young, 0u);
  EXPECT_TRUE(again.matches("cache:revive:0"));
  expectStats(1, 1, 0, 0, 0);
}

TEST_F(RegexCacheTest, RotationDropsTheOldGeneration) {
  for (int i = 0; i < 10; ++i) Regex(pattern("rotate", i));
  // The ninth retirement overflowed young: nine went old, the tenth is young.
  RegexCacheCounts counts = regexCacheCounts();
  EXPECT_EQ(counts.old, 9u);
  EXPECT_EQ(counts.young, 1u);
  expectStats(0, 10, 0, 0, 1);

  for (int i = 10; i < 18; ++i) Regex(pattern("rotate", i));
  counts = regexCacheCounts();
  EXPECT_EQ(counts.old, 9u);
  EXPECT_EQ(counts.young, 0u);
  expectStats(0, 8, 0, 9, 1);

  Regex gone(pattern("rotate", 0));
  Regex kept(pattern("rotate", 9));
  expectStats(1, 1, 0, 0, 0);
}

TEST_F(RegexCacheTest, LimitIsASetting) {
  setRegexCacheRotationLimit(2);
  for (int i = 0; i < 7; ++i) Regex(pattern("limit", i));
  EXPECT_EQ(takeAndResetRegexCacheStats().rotations, 2u);
}

TEST_F(RegexCacheTest, FailedCompilesAreNeverCached) {
  RegexCacheCounts before = regexCacheCounts();
  for (int i = 0; i < 2; ++i) EXPECT_THROW(Regex("cache:(bad"), RegexException);
  RegexCacheCounts after = regexCacheCounts();
  EXPECT_EQ(after.live, before.live);
  EXPECT_EQ(after.young, 0u);
  expectStats(0, 2, 0, 0, 0);
}

TEST_F(RegexCacheTest, TwoThreadsMissingTogetherEndWithOneObject) {
  // Both threads must have missed before either compiles, so the second one loses a race.
  static std::barrier<> both_missed(2);
  setRegexCacheMissHook([] { both_missed.arrive_and_wait(); });
  Regex got[2];
  std::thread t0([&] { got[0] = Regex(pattern("race", 0)); });
  std::thread t1([&] { got[1] = Regex(pattern("race", 0)); });
  t0.join();
  t1.join();
  setRegexCacheMissHook(nullptr);
  EXPECT_TRUE(got[0].sameCompiledPattern(got[1]));
  EXPECT_EQ(regexCacheCounts().young, 0u);  // the loser's compile is freed, not retired
  expectStats(0, 2, 1, 0, 0);
}

TEST_F(RegexCacheTest, ManyThreadsChurningStayConsistent) {
  setRegexCacheRotationLimit(3);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        std::string text = pattern("churn", (i * 7 + t) % 11);
        EXPECT_TRUE(Regex(text).matches(text, nullptr, MATCH_FULL));
      }
    });
  }
  for (auto &th : threads) th.join();
  RegexCacheStats s = takeAndResetRegexCacheStats();
  EXPECT_EQ(s.hits + s.misses, 1200u);
}

}  // namespace
