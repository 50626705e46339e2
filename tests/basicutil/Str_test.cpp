// Str and StrSegment: the block scans against plain byte loops, and the edge behaviour of each
// operation family.
#include "basicutil/Str.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "basicutil/UnicodeCodepoint.h"

using morvek::ByteSet;
using morvek::Str;
using morvek::StrSegment;

namespace {

constexpr size_t npos = StrSegment::npos;

// Random text with few interesting bytes, so that both "found early", "found in the tail" and
// "not found" occur at every length.
std::string randomText(std::mt19937 &rng, size_t len) {
  std::string s(len, 'x');
  for (char &c : s) c = static_cast<char>(' ' + rng() % 95);
  size_t specials = rng() % 3;
  static const char kSpecial[] = {'\r', '\n', '\x80', '\xff', '\xc3'};
  for (size_t k = 0; k < specials && len > 0; ++k) s[rng() % len] = kSpecial[rng() % 5];
  return s;
}

size_t plainLineEnd(const char *p, size_t len, size_t pos) {
  for (size_t i = pos; i < len; ++i) {
    if (p[i] == '\r' || p[i] == '\n') return i;
  }
  return npos;
}

// The code-point converter, which owns the whole-string rules and shares no scan with Str.
std::string convertedCase(const std::string &s, bool upper) {
  Str out;
  upper ? morvek::utf8ToUpper(s, out) : morvek::utf8ToLower(s, out);
  return out;
}

TEST(StrBlockScan, AgreesWithByteLoopAtEveryLengthAndAlignment) {
  std::mt19937 rng(12345);
  alignas(32) char buffer[32 + 320];
  for (int round = 0; round < 12; ++round) {
    // Past 80 bytes in steps, so that the four-block loops run with a line end in each block.
    for (size_t len = 0; len <= 300; len += len < 80 ? 1 : 13) {
      std::string text = randomText(rng, len);
      for (size_t align = 0; align < 32; ++align) {
        char *p = buffer + align;
        memcpy(p, text.data(), len);
        StrSegment seg(p, len);
        SCOPED_TRACE(testing::Message() << "len " << len << " align " << align);

        bool high = false;
        size_t lfs = 0;
        for (size_t i = 0; i < len; ++i) {
          high |= (static_cast<unsigned char>(p[i]) & 0x80) != 0;
          lfs += p[i] == '\n';
        }
        ASSERT_EQ(seg.hasHighByte(), high);
        ASSERT_EQ(seg.lineCount(), lfs + 1);
        ASSERT_EQ(seg.count('\n'), lfs);
        for (size_t pos = 0; pos <= len + 1; ++pos) {
          ASSERT_EQ(seg.findLineEnd(pos), plainLineEnd(p, len, pos)) << "pos " << pos;
        }
      }
      Str upper(text), lower(text);
      upper.toUpperInPlace();
      lower.toLowerInPlace();
      ASSERT_EQ(upper, convertedCase(text, true)) << "len " << len;
      ASSERT_EQ(lower, convertedCase(text, false)) << "len " << len;
    }
  }
}

TEST(StrBlockScan, LongInputsCrossTheCountersInnerLimit) {
  // The LF counter sums its byte lanes every 255 blocks; 70000 bytes cross that many times.
  std::string text(70000, 'a');
  for (size_t i = 0; i < text.size(); i += 7) text[i] = '\n';
  size_t expect = (text.size() + 6) / 7;
  EXPECT_EQ(StrSegment(text).lineCount(), expect + 1);
  // Every lane full: a byte counter that isn't summed in time wraps.
  EXPECT_EQ(StrSegment(std::string(20000, '\n')).lineCount(), 20001u);
  text[69999] = '\x90';
  EXPECT_TRUE(StrSegment(text).hasHighByte());
  EXPECT_EQ(StrSegment(text).findLineEnd(69995), npos);
}

TEST(StrCompare, OrderEqualityAffixesAndUnquoted) {
  EXPECT_LT(StrSegment("ab").compare("abc"), 0);
  EXPECT_GT(StrSegment("\xff").compare("a"), 0) << "bytes compare unsigned";
  // The same pointer is equal without reading the bytes.
  const char *unreadable = reinterpret_cast<const char *>(16);
  EXPECT_TRUE(StrSegment(unreadable, 4).equals(StrSegment(unreadable, 4)));
  EXPECT_FALSE(StrSegment("a", 1).equals(StrSegment("a\0", 2)));
  EXPECT_TRUE(StrSegment("abc").startsWith("") && StrSegment("abc").endsWith("bc"));
  EXPECT_FALSE(StrSegment("bc").endsWith("abc"));
  EXPECT_FALSE(StrSegment("").startsWithByteIn(morvek::BYTESET_DIGITS));
  // One layer of matching quotes comes off the left side only.
  const std::tuple<const char *, const char *, bool> unquoted[] = {
      {"'abc'", "abc", true}, {"\"'abc'\"", "abc", true}, {"'\"abc\"'", "\"abc\"", true},
      {"\"", "\"", true},     {"\"abc'", "\"abc'", true}, {"\"abc\"", "\"abc\"", false},
  };
  for (const auto &[text, other, equal] : unquoted)
    EXPECT_EQ(StrSegment(text).equalsUnquoted(other), equal) << text;
}

TEST(StrSearch, FindAndCountTable) {
  StrSegment s("abcabcab"), abc("abc"), c("a,b,,c"), none;
  struct Case {
    size_t got, want;
  } cases[] = {
      // clang-format off
      // Empty needles and lists: not found at the very end, except rfind.
      {abc.find("", 2), 2}, {abc.find("", 3), npos}, {abc.rfind("", npos), 3},
      {none.rfind("", npos), 0}, {abc.find_first_not_of("", 3), npos},
      {abc.find_first_of("", 0), npos}, {abc.find_last_not_of("", 1), 1},
      {none.find_last_not_of("", npos), npos}, {Str("abc").find("", 3), npos},  // not std::string's
      {s.find('c', 3), 5}, {s.find('c', 8), npos}, {s.find("ab", 6), 6}, {s.find("abc", 6), npos},
      {s.rfind('a', 5), 3}, {s.rfind('a', 0), 0}, {s.rfind("abc"), 3}, {s.rfind("abc", 2), 0},
      {s.rfind("bca", 0), npos}, {s.find_first_of("cb", 3), 4}, {s.find_first_not_of("ab"), 2},
      {s.find_last_of("c", 4), 2}, {s.find_last_not_of("ab"), 5},
      {StrSegment("ab1").find_first_of(morvek::BYTESET_LETTERS, 0, false), 2},
      {StrSegment("1ab").find_last_of(morvek::BYTESET_DIGITS, npos, false), 2},
      {none.rfind('a'), npos},
      // Counting clips its range.
      {c.count(',', 2, 2), 1}, {c.count(',', 6), 0}, {c.count(',', 99, 99), 0},
      {c.count(morvek::BYTESET_LETTERS, 1, 100), 2}, {c.substr(4, npos).size(), 2},
      {c.substr(7, 1).size(), 0}, {StrSegment("a\r").lineCount(), 1},
      // clang-format on
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    EXPECT_EQ(cases[i].got, cases[i].want) << "case " << i;
  }
}

TEST(StrSlicing, TrimQuotesAndEscapes) {
  // All-blank input ends empty with either side or both, and an empty one with both is no fault.
  for (auto [left, right] : {std::pair{true, false}, {false, true}, {true, true}}) {
    Str s(" \t\n "), e;
    StrSegment v(" \r ");
    s.trimInPlace(morvek::BYTESET_WHITESPACE, left, right);
    v.trimInPlace(morvek::BYTESET_WHITESPACE, left, right);
    e.trimInPlace(morvek::BYTESET_WHITESPACE, left, right);
    EXPECT_TRUE(s.empty() && v.empty() && e.empty()) << left << right;
  }
  Str s("  a b  ");
  EXPECT_EQ(s.trimmed(morvek::BYTESET_WHITESPACE, true, false), "a b  ");
  EXPECT_EQ(s.trimmed(morvek::BYTESET_WHITESPACE, false, true), "  a b");
  EXPECT_EQ(StrSegment("xxaxx").trimmed(ByteSet("x", true)), StrSegment("a"));

  const std::pair<const char *, const char *> strip[] = {
      {"\"", "\""}, {"\"\"", ""}, {"\"a\"", "a"}, {"\"a", "\"a"}, {"'a'", "'a'"}};
  for (const auto &[in, out] : strip) {
    Str str(in);
    StrSegment seg(in);
    str.stripQuotes('"');
    seg.stripQuotes('"');
    EXPECT_TRUE(str == out && seg == StrSegment(out)) << in;
  }
  const std::pair<const char *, const char *> unq[] = {
      {"\"ab\\\"", "ab\\"},   {"a\\\"b", "a\\\"b"}, {"\"a\\\\\\\"b\"", "a\\\"b"},
      {"\"a\\nb\"", "a\\nb"}, {"\"\\\"x", "\"\"x"},
  };
  for (const auto &[in, out] : unq) {
    Str str(in);
    str.unquoteEscapes();
    EXPECT_EQ(str, out) << in;
  }
}

TEST(StrSlicing, CopyOutKeepsItsQuirkAndPopBackOnEmptyIsFatal) {
  StrSegment s("abcdef");
  char buf[16] = {};
  EXPECT_EQ(s.copyOut(buf, 2, 1), 5u) << "all remaining bytes are copied even when n is smaller";
  EXPECT_EQ(std::string(buf, 5), "bcdef");
  EXPECT_EQ(s.copyOut(buf, 10, 6), 0u);
  EXPECT_DEATH(Str().pop_back(), "!empty\\(\\)");
}

TEST(StrBuilding, AssignAndConcatenate) {
  Str s("keep");
  EXPECT_FALSE(s.assignFrom(nullptr, 3));
  EXPECT_EQ(s, "keep");
  EXPECT_EQ(Str("ab", StrSegment("cd")), "abcd");
}

TEST(StrBuilding, StealingKeepsOrderAndReusesTheRightBuffer) {
  // reuse: 'L' the left operand's heap buffer survives, 'R' the dying one's, '-' either.
  const std::string s20(20, 'x'), t20(20, 'y'), s30(30, 'w'), s40(40, 'v'), s100(100, 'u');
  struct Case {
    std::string left, right;
    size_t left_reserve, right_reserve;
    char reuse;
  } cases[] = {
      {"abc", "", 0, 0, '-'},   {"", s100, 0, 0, 'R'},       {s40, "z", 0, 1000, 'R'},
      {s20, t20, 1000, 0, 'L'}, {s20, t20, 1000, 1000, 'R'}, {s30, t20, 1000, 1000, 'L'},
      {"x", s100, 0, 0, '-'},
  };
  for (const Case &c : cases) {
    for (bool prepend : {false, true}) {
      SCOPED_TRACE(testing::Message()
                   << c.left.size() << "+" << c.right.size() << " prepend " << prepend);
      Str left(c.left), right(c.right);
      left.reserve(c.left_reserve);
      right.reserve(c.right_reserve);
      const char *left_buf = left.data();
      const char *right_buf = right.data();
      if (prepend) {
        left.prependStealing(std::move(right));
        EXPECT_EQ(left, c.right + c.left);
      } else {
        left.appendStealing(std::move(right));
        EXPECT_EQ(left, c.left + c.right);
      }
      if (c.reuse == 'L') {
        EXPECT_EQ(left.data(), left_buf);
      } else if (c.reuse == 'R') {
        EXPECT_EQ(left.data(), right_buf);
      }
    }
  }
}

TEST(StrBuilding, ReplaceAll) {
  struct Case {
    const char *in, *from, *to, *out;
    size_t count;
  } cases[] = {
      {"aaa", "aa", "b", "ba", 1},
      {"abcabc", "b", "XYZ", "aXYZcaXYZc", 2},
      {"abc", "", "x", "abc", 0},
      {"xaax", "a", "aa", "xaaaax", 2},
  };
  for (const Case &c : cases) {
    Str s(c.in);
    EXPECT_EQ(s.replaceAll(StrSegment(c.from), StrSegment(c.to)), c.count) << c.in;
    EXPECT_EQ(s, c.out) << c.in;
  }
  Str self("abab");
  EXPECT_EQ(self.replaceAll(StrSegment("b"), self), 2u)
      << "the replacement may be the string itself";
  EXPECT_EQ(self, "aababaabab");

  Str bytes("a.b.c");
  EXPECT_EQ(bytes.replaceAll('.', '/'), 2u);
  EXPECT_EQ(bytes.replaceAll(ByteSet("ac", true), '_'), 2u);
  EXPECT_EQ(bytes, "_/b/_");
}

TEST(StrBuilding, InsertControlsAndByteSets) {
  const ByteSet quotes = morvek::BYTESET_QUOTE_OR_BACKSLASH;
  EXPECT_EQ(Str("a\"b\\").insertBefore(quotes, '\\'), "a\\\"b\\\\");
  const std::tuple<const char *, size_t, const char *> at[] = {
      // clang-format off
      {"\"\"x\"", 0, "\\\"\\\"x\\\""}, {"\"a\"", 1, "\"a\\\""}, {"\"a\"", 3, "\"a\""},
      // clang-format on
  };
  for (const auto &[in, pos, out] : at) {
    Str s(in);
    s.insertAt(quotes, '\\', pos);
    EXPECT_EQ(s, out) << in << " at " << pos;
  }

  Str s("x");
  s.appendWithoutControls("a\tb\x01\x1f\xc3\xa9\n");
  s.appendWithoutControls(nullptr);
  EXPECT_EQ(s, "xab\xc3\xa9");

  ByteSet all_but("ab", false), added;
  added.add("\x80\x00z", 3);
  EXPECT_TRUE(!all_but.contains('a') && all_but.contains('\xff') && all_but.contains('\0'));
  EXPECT_TRUE(added.contains('\0') && added.contains('\x80') && added.contains('z'));
  int ws = 0;
  for (int b = 0; b < 256; ++b)
    ws += morvek::BYTESET_WHITESPACE.contains(static_cast<unsigned char>(b));
  EXPECT_EQ(ws, 6) << "whatever the locale says";
}

}  // namespace
