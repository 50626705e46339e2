// The text hash and HashedStr records.
#include "basicutil/HashedStr.h"

#include <gtest/gtest.h>

#include <random>

using namespace morvek;

namespace {

uint64_t plainHash(const std::string &s, uint64_t h = 5381) {
  for (char c : s)
    h = h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
  return h;
}

TEST(TextHash, KnownValues) {
  size_t len = 99;
  EXPECT_TRUE(hashCString("hello world", len) == 0xc0943fd43551c8c1ull && len == 11);
  EXPECT_EQ(hashBytesCaseless("HeLLo World", 11), 0xc0943fd43551c8c1ull);
}

TEST(TextHash, UnrolledLoopEqualsPlainLoopAtEveryLength) {
  std::mt19937 rng(7);
  for (size_t len = 0; len < 70; ++len) {
    std::string s(len, '\0');
    for (char &c : s) c = static_cast<char>(rng());
    ASSERT_EQ(hashBytes(s.data(), s.size()), plainHash(s)) << len;
    ASSERT_EQ(hashBytesContinue(s.data(), s.size(), 77), plainHash(s, 77)) << len;
    std::string folded = s;
    for (char &c : folded) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    ASSERT_EQ(hashBytesCaseless(s.data(), s.size()), plainHash(folded)) << len;
  }
}

TEST(HashedStrRecord, SharesOneRecordAndReadsAsCString) {
  HashedStr empty;
  EXPECT_TRUE(*empty.c_str() == 0 && empty.hash() == 5381 && empty.useCount() == 0);
  EXPECT_EQ(HashedStr(StrSegment("")).c_str(), empty.c_str()) << "one shared empty record";

  HashedStr a(StrSegment("alpha"));
  EXPECT_STREQ(a.c_str(), "alpha");
  EXPECT_TRUE(a.size() == 5 && a.hash() == hashBytes("alpha", 5) && a.useCount() == 1);
  {
    HashedStr b = a;
    EXPECT_TRUE(b.c_str() == a.c_str() && a.useCount() == 2);
    HashedStr c = std::move(b);
    EXPECT_TRUE(a.useCount() == 2 && b.empty());
  }
  EXPECT_EQ(a.useCount(), 1u);
  HashedStr ab(StrSegment("ab")), bA(StrSegment("bA"));
  EXPECT_EQ(ab.hash(), bA.hash()) << "a known collision";
  EXPECT_FALSE(ab.equals(bA));
  EXPECT_TRUE(ab.equals(HashedStr(StrSegment("ab"))) && ab.equals(StrSegment("ab")));
  EXPECT_FALSE(HashedStr(StrSegment(std::string("a\0b", 3))).equals(StrSegment("a")));
}

TEST(HashedStrRecord, ListSwapRepairsBackPointers) {
  // Lists first, so the entries (which unlink themselves) are destroyed before them.
  HashedStrList one, two, empty;
  HashedStrListEntry x(HashedStr(StrSegment("x"))), y(HashedStr(StrSegment("y")));
  HashedStrListEntry z(HashedStr(StrSegment("z")));
  one.pushFront(x);
  one.pushFront(y);
  two.pushFront(z);
  one.swap(two);
  EXPECT_TRUE(one._root == &z && z._prevp == &one._root);
  EXPECT_TRUE(two._root == &y && y._prevp == &two._root);
  // Unlinking the head after the swap must update the head it now belongs to.
  y.unlink();
  EXPECT_TRUE(two._root == &x && x._prevp == &two._root);

  empty.swap(one);
  EXPECT_TRUE(empty._root == &z && z._prevp == &empty._root && one.empty());
}

}  // namespace
