// StaticStrHashSet through a process's start-up: sets filled by static initialisers are
// finalised by MainThread, and look-ups work from then on. Runs in a binary of its own, as it
// must see the process before its MainThread exists.
#include <gtest/gtest.h>

#include <memory>

#include "basicutil/HashedStr.h"
#include "basicutil/StaticStrHashSet.h"
#include "basicutil/Thread.h"

using morvek::StaticStrHashSet;
using morvek::Str;

namespace {

const Str kWords[] = {"alpha", "beta", "gamma", "delta", "ab", "bA", "beta"};
StaticStrHashSet filled_at_start;
StaticStrHashSet never_filled;

[[maybe_unused]] const bool filled = [] {
  for (const Str &w : kWords) filled_at_start.insert(w);
  return true;
}();

std::unique_ptr<morvek::EmptyMainThread> main_thread;

// Each case may run in a process of its own, or after the others in one process.
void ensureMainThread() {
  if (!main_thread) main_thread = std::make_unique<morvek::EmptyMainThread>();
}

// gtest runs the cases of a file in order; this one has to be first.
TEST(StaticStrHashSetStartup, MainThreadFinalisesQueuedSets) {
  ASSERT_FALSE(main_thread);
  EXPECT_EQ(filled_at_start.getState(), StaticStrHashSet::STATE_POPULATING);
  EXPECT_EQ(never_filled.getState(), StaticStrHashSet::STATE_UNPOPULATED);
  ensureMainThread();
  EXPECT_EQ(filled_at_start.getState(), StaticStrHashSet::STATE_FINALIZED);
  EXPECT_EQ(never_filled.getState(), StaticStrHashSet::STATE_FINALIZED);
}

TEST(StaticStrHashSetStartup, LookUps) {
  ensureMainThread();
  ASSERT_EQ(filled_at_start.size(), 7u) << "duplicates are kept";
  ASSERT_EQ(morvek::hashCString("ab"), morvek::hashCString("bA"));
  for (const char *w : {"alpha", "ab", "bA"}) EXPECT_TRUE(filled_at_start.contains(w)) << w;
  for (const char *w : {"", "Alpha", "alph", "alphaa", "Ab"}) {
    EXPECT_FALSE(filled_at_start.contains(w)) << w;
  }
  EXPECT_TRUE(filled_at_start.contains("gamma ray", 5));
  EXPECT_FALSE(never_filled.contains("alpha") || never_filled.size() != 0 ||
               never_filled.begin() != never_filled.end());
}

TEST(StaticStrHashSetStartup, SetsMadeLaterFinaliseOnFirstLookUp) {
  ensureMainThread();
  static const Str one("one"), two("two");
  StaticStrHashSet late, untouched, empty;
  late.insert(one);
  untouched.insert(two);
  EXPECT_TRUE(late.size() == 1 && late.contains("one"));
  // The first look-up ends the building of every queued set, not just its own.
  EXPECT_EQ(late.getState(), StaticStrHashSet::STATE_FINALIZED);
  EXPECT_EQ(untouched.getState(), StaticStrHashSet::STATE_FINALIZED);
  EXPECT_DEATH(late.insert(two), "_state == STATE_UNPOPULATED");
  // With nothing queued, a look-up leaves an unfilled set as it was.
  StaticStrHashSet fresh;
  EXPECT_FALSE(fresh.contains("x"));
  EXPECT_EQ(fresh.getState(), StaticStrHashSet::STATE_UNPOPULATED);
}

TEST(StaticStrHashSetStartup, EveryMemberFoundAtEverySize) {
  ensureMainThread();
  std::vector<Str> words;
  for (int i = 0; i < 40; ++i) words.emplace_back(morvek::Str::FORMAT, "w%d", i * 3);
  for (size_t n = 1; n <= words.size(); ++n) {
    StaticStrHashSet set;
    for (size_t k = 0; k < n; ++k) set.insert(words[k]);
    for (size_t k = 0; k < words.size(); ++k) {
      EXPECT_EQ(set.contains(words[k].c_str()), k < n) << n << " " << words[k];
      Str miss(morvek::Str::FORMAT, "w%zu", k * 3 + 1);
      EXPECT_FALSE(set.contains(miss.c_str())) << n << " " << miss;
    }
  }
}

TEST(StaticStrHashSetStartup, NoFillingOnceThreadsRan) {
  ensureMainThread();
  morvek::ThreadFunction t([] {}, "any");
  t.go();
  t.join();
  StaticStrHashSet fresh;
  static const Str word("w");
  EXPECT_DEATH(fresh.insert(word), "have_already_started_threads");
}

}  // namespace
