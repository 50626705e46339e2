#include <gtest/gtest.h>

#include <barrier>
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
  // "hits misses races-lost evicted rotations", reset on reading.
  static std::string stats() {
    RegexCacheStats s = takeAndResetRegexCacheStats();
    return std::to_string(s.hits) + " " + std::to_string(s.misses) + " " +
           std::to_string(s.races_lost) + " " + std::to_string(s.evicted_by_rotation) + " " +
           std::to_string(s.rotations);
  }
};

TEST_F(RegexCacheTest, LiveHandlesShareOneCompileAndFailuresAreNotKept) {
  Regex a(pattern("share", 0));
  Regex b(Str(pattern("share", 0)));
  Regex c(HashedStr(StrSegment(pattern("share", 0))));
  EXPECT_TRUE(a.sameCompiledPattern(b) && a.sameCompiledPattern(c));
  EXPECT_FALSE(a.sameCompiledPattern(Regex(pattern("share", 1))));
  EXPECT_EQ(stats(), "2 2 0 0 0");

  RegexCacheCounts before = regexCacheCounts();
  for (int i = 0; i < 2; ++i) EXPECT_THROW(Regex("cache:(bad"), RegexException);
  EXPECT_EQ(regexCacheCounts().live, before.live);
  EXPECT_EQ(regexCacheCounts().young, 1u);  // share:1 only
  EXPECT_EQ(stats(), "0 2 0 0 0");
}

TEST_F(RegexCacheTest, RetiredPatternComesBackWithoutCompile) {
  const void *first = Regex(pattern("revive", 0)).implAddress();
  EXPECT_EQ(regexCacheCounts().young, 1u);
  Regex again(pattern("revive", 0));
  EXPECT_EQ(again.implAddress(), first);
  EXPECT_EQ(regexCacheCounts().young, 0u);
  EXPECT_TRUE(again.matches("cache:revive:0"));
  EXPECT_EQ(stats(), "1 1 0 0 0");
}

// A thread that builds one pattern again and again is served without the shared maps; those
// are still hits, counted after the thread has gone, and an evicted pattern is compiled anew.
TEST_F(RegexCacheTest, RepeatsOnOneThreadAreHitsUntilEvicted) {
  std::thread t([] {
    Regex held(pattern("repeat", 0));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(Regex(pattern("repeat", 0)).sameCompiledPattern(held));
  });
  t.join();
  EXPECT_EQ(stats(), "3 1 0 0 0");
  Regex(pattern("repeat", 1));
  rotate_regex_cache();
  rotate_regex_cache();
  EXPECT_TRUE(Regex(pattern("repeat", 1)).matches("cache:repeat:1"));
  EXPECT_EQ(stats(), "0 2 0 2 2");
}

TEST_F(RegexCacheTest, RotationDropsTheOldGeneration) {
  auto counts = [] {
    return std::to_string(regexCacheCounts().old) + "/" + std::to_string(regexCacheCounts().young);
  };
  for (int i = 0; i < 10; ++i) Regex(pattern("rotate", i));
  // The ninth retirement overflowed young: nine went old, the tenth is young.
  EXPECT_EQ(counts(), "9/1");
  EXPECT_EQ(stats(), "0 10 0 0 1");
  for (int i = 10; i < 18; ++i) Regex(pattern("rotate", i));
  EXPECT_EQ(counts(), "9/0");
  EXPECT_EQ(stats(), "0 8 0 9 1");
  Regex gone(pattern("rotate", 0)), kept(pattern("rotate", 9));
  EXPECT_EQ(stats(), "1 1 0 0 0");

  setRegexCacheRotationLimit(2);
  for (int i = 0; i < 7; ++i) Regex(pattern("limit", i));
  EXPECT_EQ(takeAndResetRegexCacheStats().rotations, 2u);
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
  EXPECT_EQ(stats(), "0 2 1 0 0");
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
