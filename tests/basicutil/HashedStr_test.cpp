// The text hash and HashedStr records.
#include "basicutil/HashedStr.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>

using morvek::HashedStr;
using morvek::HashedStrList;
using morvek::HashedStrListEntry;

namespace {

uint64_t plainHash(const std::string &s, uint64_t h = 5381) {
  for (char c : s)
    h = h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
  return h;
}

TEST(TextHash, KnownValues) {
  EXPECT_EQ(morvek::hashBytes("", 0), 5381u);
  EXPECT_EQ(morvek::hashBytes("\xff", 1), 5381u * 33 - 1) << "bytes from 0x80 up count negative";
  size_t len = 99;
  EXPECT_EQ(morvek::hashCString("hello world", len), 0xc0943fd43551c8c1ull);
  EXPECT_EQ(len, 11u);
  EXPECT_EQ(morvek::hashBytesCaseless("HeLLo World", 11), 0xc0943fd43551c8c1ull);
}

TEST(TextHash, UnrolledLoopEqualsPlainLoopAtEveryLength) {
  std::mt19937 rng(7);
  for (size_t len = 0; len < 70; ++len) {
    std::string s(len, '\0');
    for (char &c : s) c = static_cast<char>(rng());
    ASSERT_EQ(morvek::hashBytes(s.data(), s.size()), plainHash(s)) << len;
    ASSERT_EQ(morvek::hashBytesContinue(s.data(), s.size(), 77), plainHash(s, 77)) << len;
    std::string folded = s;
    for (char &c : folded) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    ASSERT_EQ(morvek::hashBytesCaseless(s.data(), s.size()), plainHash(folded)) << len;
  }
}

TEST(HashedStrRecord, SharesOneRecordAndReadsAsCString) {
  HashedStr empty;
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_EQ(empty.hash(), 5381u);
  EXPECT_EQ(empty.useCount(), 0u);
  EXPECT_EQ(HashedStr(morvek::StrSegment("")).c_str(), empty.c_str()) << "one shared empty record";

  HashedStr a(morvek::StrSegment("alpha"));
  EXPECT_STREQ(a.c_str(), "alpha");
  EXPECT_EQ(a.size(), 5u);
  EXPECT_EQ(a.hash(), morvek::hashBytes("alpha", 5));
  EXPECT_EQ(a.useCount(), 1u);
  {
    HashedStr b = a;
    EXPECT_EQ(b.c_str(), a.c_str());
    EXPECT_EQ(a.useCount(), 2u);
    HashedStr c = std::move(b);
    EXPECT_EQ(a.useCount(), 2u);
    EXPECT_TRUE(b.empty());
  }
  EXPECT_EQ(a.useCount(), 1u);
  HashedStr &alias = a;
  a = alias;
  EXPECT_EQ(a.useCount(), 1u);

  HashedStr ab(morvek::StrSegment("ab")), bA(morvek::StrSegment("bA"));
  EXPECT_EQ(ab.hash(), bA.hash()) << "a known collision";
  EXPECT_FALSE(ab.equals(bA));
  EXPECT_TRUE(ab.equals(HashedStr(morvek::StrSegment("ab"))));
  EXPECT_TRUE(ab.equals(morvek::StrSegment("ab")));
  EXPECT_FALSE(
      HashedStr(morvek::StrSegment(std::string("a\0b", 3))).equals(morvek::StrSegment("a")));
}

TEST(HashedStrRecord, ListSwapRepairsBackPointers) {
  // Lists first, so the entries (which unlink themselves) are destroyed before them.
  HashedStrList one, two, empty;
  HashedStrListEntry x(HashedStr(morvek::StrSegment("x"))), y(HashedStr(morvek::StrSegment("y")));
  HashedStrListEntry z(HashedStr(morvek::StrSegment("z")));
  one.pushFront(x);
  one.pushFront(y);
  two.pushFront(z);
  one.swap(two);
  EXPECT_EQ(one._root, &z);
  EXPECT_EQ(z._prevp, &one._root);
  EXPECT_EQ(two._root, &y);
  EXPECT_EQ(y._prevp, &two._root);
  // Unlinking the head after the swap must update the head it now belongs to.
  y.unlink();
  EXPECT_EQ(two._root, &x);
  EXPECT_EQ(x._prevp, &two._root);

  empty.swap(one);
  EXPECT_EQ(empty._root, &z);
  EXPECT_TRUE(one.empty());
  EXPECT_EQ(z._prevp, &empty._root);
}

}  // namespace
