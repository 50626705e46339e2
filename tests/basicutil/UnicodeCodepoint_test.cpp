// Code points, walkers, classes, caseless order, case conversion and mark composition over UTF-8.

#include "basicutil/UnicodeCodepoint.h"

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "basicutil/UnicodeTables.h"

using namespace morvek;

namespace {

std::string B(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

std::string U(uint32_t cp) {
  if (cp < 0x80) return std::string(1, static_cast<char>(cp));
  Utf8CodepointWriter w;
  const unsigned n = w._set(cp);
  return std::string(w.data(), n);
}

// Takes code points with popCodepoint until the end; false if one fails.
bool pop_all(std::string_view s, std::vector<uint32_t> &out) {
  StrSegment seg(s);
  uint32_t cp;
  while (seg._len > 0)
    if (!popCodepoint(seg, cp))
      return false;
    else
      out.push_back(cp);
  return true;
}

// Feeds the accumulator as its callers do (ASCII at ground state is taken directly). `clean`
// says whether every byte ended up in an accepted character.
struct Accumulated {
  std::vector<uint32_t> cps;
  bool clean = true;
};
Accumulated accumulate(std::string_view s) {
  Accumulated a;
  UnicodeCodepoint u;
  for (unsigned char by : s) {
    if (!u.at_ground_state() && (by & 0xC0) != 0x80) a.clean = false;  // sequence dropped
    if (u.at_ground_state() && by < 0x80) {
      a.cps.push_back(by);
      continue;
    }
    if (u._accumulateUtf8Byte(by)) {
      a.cps.push_back(u._cp);
      if (u._cp < 0x80) a.clean = false;  // a sequence broken by ASCII
    } else if (u.at_ground_state()) {
      a.clean = false;  // rejected or stray byte
    }
  }
  if (!u.at_ground_state()) a.clean = false;
  return a;
}

std::string lower(std::string_view s) {
  Str out;
  utf8ToLower(StrSegment(s), out);
  return out;
}
std::string upper(std::string_view s) {
  Str out;
  utf8ToUpper(StrSegment(s), out);
  return out;
}
int sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

// ---------------------------------------------------------------------------
// Conversions between code points and utf8bytes

TEST(Utf8Conversions, RoundTripAndByteOrderOverAllCodePoints) {
  uint32_t previous = 0;
  for (uint32_t cp = 0x80; cp <= 0x10FFFF; ++cp) {
    const uint32_t u = codepoint_to_utf8bytes(cp);
    ASSERT_EQ(utf8bytes_to_codepoint(u), cp);
    ASSERT_GT(u, previous) << std::hex << cp;  // values order as code points and bytes do
    previous = u;
    if ((cp & 0xFFF) == 0) {
      const std::string s = U(cp);
      uint32_t from_bytes = 0;
      for (unsigned char c : s) from_bytes = from_bytes << 8 | c;
      ASSERT_EQ(from_bytes, u);
    }
  }
  EXPECT_EQ(codepoint_to_utf8bytes(0xE9), 0xC3A9u);
  EXPECT_EQ(codepoint_to_utf8bytes(0x20AC), 0xE282ACu);
  EXPECT_EQ(codepoint_to_utf8bytes(0x1F600), 0xF09F9880u);
  EXPECT_EQ(codepoint_to_utf8bytes(0xD800), 0xEDA080u);
  EXPECT_EQ(utf8bytes_to_codepoint(0x41), 0x41u);
}

TEST(Utf8Conversions, OutOfDomainIsFatal) {
  EXPECT_DEATH(codepoint_to_utf8bytes(0x7F), "cp >= 0x80");
  EXPECT_DEATH(codepoint_to_utf8bytes(0x110000), "cp <= 0x10FFFF");
  EXPECT_DEATH(utf8bytes_to_codepoint(0x80), "u < 0x80");
  EXPECT_DEATH(utf8bytes_to_codepoint(0xDFC0), "u <= 0xDFBF");
  EXPECT_DEATH(utf8bytes_to_codepoint(0x1000000), "u <= 0xEFBFBF");
  EXPECT_DEATH(utf8bytes_to_codepoint(0xF4908080), "u <= 0xF48FBFBF");
  UnicodeCodepoint u;
  EXPECT_DEATH(u._accumulateUtf8Byte('a'), "by >= 0x80");
  Utf8CodepointWriter w;
  EXPECT_DEATH(w._set(0x41), "codepoint >= 0x80");
}

TEST(Utf8Conversions, WriterByteCounts) {
  Utf8CodepointWriter w;
  EXPECT_EQ(w._set(0x110000), 0u);
  EXPECT_EQ(w._set(0x10FFFF), 4u);
  EXPECT_EQ(std::string(w.data(), 4), B({0xF4, 0x8F, 0xBF, 0xBF}));
  EXPECT_EQ(w._set(0xD800), 3u);
  EXPECT_EQ(w._set(0x80), 2u);
  EXPECT_EQ(w._set(0x7FF), 2u);
  EXPECT_EQ(w._set(0x800), 3u);
  EXPECT_EQ(w._set(0x10000), 4u);
}

// ---------------------------------------------------------------------------
// Decoders: accumulator, popCodepoint and isValidUtf8 against each other

TEST(Utf8Decoders, AccumulatorSequences) {
  struct Case {
    std::string bytes;
    std::vector<bool> results;
    uint32_t cp;  // final _cp when checked
    bool check_cp;
  };
  const std::vector<Case> cases = {
      {B({0xE2, 0x82, 0xAC}), {false, false, true}, 0x20AC, true},
      {B({0xE2, 'A'}), {false, true}, 0x41, true},
      {B({0xE0, 0x80, 0x80}), {false, false, false}, 0, false},
      {B({0xED, 0xA0, 0x80}), {false, false, false}, 0, false},
      {B({0xC3, 0xA9}), {false, true}, 0xE9, true},
      {B({0xF0, 0x9F, 0x98, 0x80}), {false, false, false, true}, 0x1F600, true},
      {B({0xF4, 0x90, 0x80, 0x80}), {false, false, false, false}, 0, false},
      {B({0xC3, 0xE2, 0x82, 0xAC}), {false, false, false, true}, 0x20AC, true},
      {B({0xC3, 0xFF}), {false, false}, 0xFF, true},
      {B({0x80}), {false}, 0, true},
      {B({0xC1, 0x81}), {false, false}, 0, true},
  };
  for (const Case &c : cases) {
    UnicodeCodepoint u;
    for (size_t i = 0; i < c.bytes.size(); ++i)
      EXPECT_EQ(u._accumulateUtf8Byte(static_cast<uint8_t>(c.bytes[i])), c.results[i])
          << testing::PrintToString(c.bytes) << " byte " << i;
    if (c.check_cp) {
      EXPECT_EQ(u._cp, c.cp) << testing::PrintToString(c.bytes);
    }
    EXPECT_TRUE(u.at_ground_state() || !c.check_cp);
  }
}

TEST(Utf8Decoders, PopCodepointEdges) {
  struct Case {
    std::string bytes;
    bool ok;
    uint32_t cp;
    size_t consumed;
  };
  const std::vector<Case> cases = {
      {"", false, 0, 0},
      {"a", true, 'a', 1},
      {B({0xED, 0xA0, 0x80}), true, 0xD800, 3},  // surrogates pass here, unlike elsewhere
      {B({0xC0, 0x80}), false, 0, 0},
      {B({0xE0, 0x80, 0x80}), false, 0, 0},
      {B({0xF4, 0x90, 0x80, 0x80}), false, 0, 0},
      {B({0xF4, 0x8F, 0xBF, 0xBF, 'x'}), true, 0x10FFFF, 4},
      {B({0xC3, 0xA9, 0xA9}), true, 0xE9, 2},
      {B({0xC3}), false, 0, 0},
      {B({0xE2, 0x82}), false, 0, 0},
      {B({0x80, 0x80}), false, 0, 0},
      {B({0xF8, 0x88, 0x80, 0x80}), false, 0, 0},
  };
  for (const Case &c : cases) {
    StrSegment seg(c.bytes);
    uint32_t cp = 0x12345;
    EXPECT_EQ(popCodepoint(seg, cp), c.ok) << testing::PrintToString(c.bytes);
    EXPECT_EQ(cp, c.ok ? c.cp : 0x12345u) << testing::PrintToString(c.bytes);
    EXPECT_EQ(seg._data, c.bytes.data() + c.consumed);
    EXPECT_EQ(seg._len, c.bytes.size() - c.consumed);
  }
}

TEST(Utf8Decoders, IsValidUtf8Edges) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"", true},
      {"plain", true},
      {B({0xC0, 0x80}), false},
      {B({0xC1, 0xBF}), false},
      {B({0xC2, 0x80}), true},
      {B({0xED, 0xA0, 0x80}), false},
      {B({0xED, 0x9F, 0xBF}), true},
      {B({0xE0, 0x9F, 0xBF}), false},
      {B({0xE0, 0xA0, 0x80}), true},
      {B({0xF0, 0x8F, 0xBF, 0xBF}), false},
      {B({0xF0, 0x90, 0x80, 0x80}), true},
      {B({0xF4, 0x90, 0x80, 0x80}), false},
      {B({0xF4, 0x8F, 0xBF, 0xBF}), true},
      {B({0xF1, 0x41, 0x80, 0x80}), true},  // the required looseness
      {B({0xF5, 0x80, 0x80, 0x80}), false},
      {B({0xC3}), false},
      {B({0xE2, 0x82}), false},
      {B({0xF0, 0x9F, 0x98}), false},
      {B({0x80}), false},
      {B({0xC3, 0x41}), false},
  };
  for (const auto &[bytes, valid] : cases)
    EXPECT_EQ(isValidUtf8(bytes.data(), bytes.size()), valid) << testing::PrintToString(bytes);
}

TEST(Utf8Decoders, AgreeOnEveryShortSequenceOverReducedAlphabet) {
  const std::vector<uint8_t> alphabet = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0,
                                         0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xED,
                                         0xEF, 0xF0, 0xF1, 0xF4, 0xF5, 0xFF};
  size_t valid_seen = 0, surrogate_seen = 0, loose_seen = 0;
  std::string s;
  std::vector<size_t> idx;
  for (size_t len = 1; len <= 4; ++len) {
    idx.assign(len, 0);
    for (;;) {
      s.clear();
      for (size_t i : idx) s.push_back(static_cast<char>(alphabet[i]));
      std::vector<uint32_t> popped;
      const bool pops = pop_all(s, popped);
      bool surrogate = false;
      for (uint32_t cp : popped) surrogate |= cp >= 0xD800 && cp <= 0xDFFF;
      const Accumulated acc = accumulate(s);
      const bool valid = isValidUtf8(s.data(), s.size());
      SCOPED_TRACE(testing::PrintToString(s));
      // Well-formed text: all three agree, and the walkers count it the same.
      ASSERT_EQ(acc.clean, pops && !surrogate);
      if (acc.clean) {
        ASSERT_EQ(acc.cps, popped);
        ASSERT_TRUE(valid);
        ASSERT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), popped.size());
        ++valid_seen;
      }
      // Documented differences: popCodepoint takes surrogates; isValidUtf8 doesn't insist on
      // a continuation byte after a four-byte lead.
      if (pops && surrogate) {
        ASSERT_FALSE(valid);
        ++surrogate_seen;
      }
      if (valid && !acc.clean) {
        bool loose = false;
        for (size_t i = 0; i + 1 < s.size(); ++i)
          loose |= static_cast<uint8_t>(s[i]) >= 0xF0 && static_cast<uint8_t>(s[i]) <= 0xF4 &&
                   (static_cast<uint8_t>(s[i + 1]) & 0xC0) != 0x80;
        ASSERT_TRUE(loose);
        ++loose_seen;
      }
      // Whatever the input, the accumulator only accepts scalar values.
      for (uint32_t cp : acc.cps) ASSERT_TRUE(cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF));
      size_t k = 0;
      while (k < len && ++idx[k] == alphabet.size()) idx[k++] = 0;
      if (k == len) break;
    }
  }
  EXPECT_GT(valid_seen, 1000u);
  EXPECT_GT(surrogate_seen, 0u);
  EXPECT_GT(loose_seen, 0u);
}

TEST(Utf8Decoders, LongInputsAcrossBlockBoundaries) {
  // The ASCII scan goes 16 bytes at a time: put the interesting byte at every offset.
  for (size_t pos = 0; pos < 40; ++pos) {
    std::string s(40, 'x');
    s[pos] = static_cast<char>(0xFF);
    EXPECT_FALSE(isValidUtf8(s.data(), s.size())) << pos;
    s = std::string(pos, 'x') + U(0x20AC) + std::string(40 - pos, 'y');
    EXPECT_TRUE(isValidUtf8(s.data(), s.size())) << pos;
    EXPECT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), 41u) << pos;
    s = std::string(pos, 'x') + B({0xE2, 0x82});
    EXPECT_FALSE(isValidUtf8(s.data(), s.size())) << pos;
  }
}

// ---------------------------------------------------------------------------
// Quick walkers

TEST(Utf8Walkers, CountSteps) {
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"", 0},
      {"abc", 3},
      {B({0xC3, 0xA9}), 1},
      {B({'a', 0xC3}), 2},
      {B({0x80, 'a'}), 1},  // the step of 2 swallows the 'a'
      {B({0xF0, 0x9F, 0x98, 0x80, 'z'}), 2},
      {B({0xF5, 0xFF, 'a'}), 3},
      {B({0xE2, 'a', 'b', 'c'}), 2},
  };
  for (const auto &[bytes, n] : cases)
    EXPECT_EQ(mem_count_utf8_codepoints(bytes.data(), bytes.size()), n)
        << testing::PrintToString(bytes);
}

TEST(Utf8Walkers, CountMatchesStepDefinitionOnRandomBytes) {
  std::mt19937 rng(7);
  const char pool[] = {'a', ' ', '\n', '\x80', '\xBF', '\xC3', '\xA9', '\xE2', '\xF0', '\xFF'};
  for (int round = 0; round < 3000; ++round) {
    std::string s(rng() % 70, 'a');
    for (char &c : s) c = rng() % 4 ? 'q' : pool[rng() % sizeof(pool)];
    size_t expected = 0;
    for (size_t p = 0; p < s.size(); ++expected) {
      const uint8_t b = static_cast<uint8_t>(s[p]);
      p += b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 1;
    }
    ASSERT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), expected) << testing::PrintToString(s);
  }
}

TEST(Utf8Walkers, CharacterCountTruncate) {
  const std::string e = U(0xE9), euro = U(0x20AC);
  struct Case {
    std::string bytes;
    size_t n;
    size_t len;
  };
  const std::vector<Case> cases = {
      {"abcdef", 3, 3},
      {"abc", 3, 3},
      {"abc", 10, 3},
      {"ab" + e + "cd", 3, 4},
      {"ab" + e + "cd", 4, 5},
      {e + e + e, 2, 4},
      {e + euro, 1, 2},
      {"a" + euro, 2, 4},              // ends exactly at the end: unchanged
      {"ab" + B({0xE2, 0x82}), 3, 2},  // broken tail is cut off
      {B({0xE2, 0x82, 'a', 'b'}), 1, 3},
      {"abc", 0, 0},
      {e + "x", 0, 0},
  };
  for (const Case &c : cases) {
    StrSegment seg(c.bytes);
    utf8_character_count_truncate(seg, c.n);
    EXPECT_EQ(seg._len, c.len) << testing::PrintToString(c.bytes) << " n=" << c.n;
  }
}

TEST(Utf8Walkers, ByteTruncateNeverSplitsACharacter) {
  const std::string text = "a" + U(0xE9) + U(0x20AC) + "b" + U(0x1F600) + "cd";
  std::vector<size_t> boundaries = {0};
  for (StrSegment seg(text); seg._len > 0;) {
    uint32_t cp;
    ASSERT_TRUE(popCodepoint(seg, cp));
    boundaries.push_back(text.size() - seg._len);
  }
  for (size_t n = 0; n <= text.size() + 2; ++n) {
    StrSegment seg(text);
    const size_t got = utf8ByteTruncate(seg, n);
    size_t expected = 0;
    for (size_t b : boundaries)
      if (b <= n) expected = b;
    EXPECT_EQ(got, expected) << n;
    EXPECT_EQ(seg._len, expected) << n;
  }
  StrSegment stray(B({0x80, 0x80, 0x80}));
  EXPECT_EQ(utf8ByteTruncate(stray, 2), 0u);
}

TEST(Utf8Walkers, CharacterRange) {
  const std::string text = "a" + U(0xE9) + "b" + U(0x20AC);  // offsets 0 1 3 4 7
  struct Case {
    std::string bytes;
    size_t start, count;
    bool ok;
    size_t first, last;
  };
  const std::vector<Case> cases = {
      {text, 0, 2, true, 0, 3},           {text, 1, 2, true, 1, 4}, {text, 1, 0, true, 1, 1},
      {text, 2, 100, true, 3, 7},         {text, 3, 5, true, 4, 7}, {text, 4, 1, true, 7, 7},
      {text, 5, 1, false, 0, 0},          {text, 0, 7, true, 0, 7}, {"", 0, 0, true, 0, 0},
      {B({'a', 0xE2}), 1, 1, true, 1, 4},  // a broken tail carries `last` past the end
  };
  for (const Case &c : cases) {
    size_t first = 99, last = 99;
    EXPECT_EQ(utf8CharacterRange(c.bytes.data(), c.bytes.size(), c.start, c.count, first, last),
              c.ok)
        << c.start << "," << c.count;
    EXPECT_EQ(first, c.ok ? c.first : 99u) << c.start << "," << c.count;
    EXPECT_EQ(last, c.ok ? c.last : 99u) << c.start << "," << c.count;
  }
}

// ---------------------------------------------------------------------------
// Character classes and case of single code points

TEST(UnicodeClasses, AsciiFollowsThePosixClasses) {
  for (uint32_t c = 0; c < 0x80; ++c) {
    const UnicodeCodepoint u(c);
    SCOPED_TRACE(c);
    EXPECT_EQ(u.isAlnum(), isalnum(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isAlpha(), isalpha(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isCntrl(), iscntrl(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isGraph(), isgraph(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isPrint(), isprint(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isPunct(), ispunct(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isSpace(), isspace(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isLower(), islower(static_cast<int>(c)) != 0);
    EXPECT_EQ(u.isUpper(), isupper(static_cast<int>(c)) != 0);
    UnicodeCodepoint l(c), h(c);
    l.toLower();
    h.toUpper();
    EXPECT_EQ(l._cp, static_cast<uint32_t>(tolower(static_cast<int>(c))));
    EXPECT_EQ(h._cp, static_cast<uint32_t>(toupper(static_cast<int>(c))));
  }
}

TEST(UnicodeClasses, NonAsciiFromTheTable) {
  struct Case {
    uint32_t cp;
    const char *classes;  // a=alpha n=alnum c=cntrl g=graph p=print u=punct s=space l=lower U=upper
  };
  const std::vector<Case> cases = {
      {0xE9, "anpgl"},  {0xC9, "anpgU"}, {0xA0, "s"},      {0xA1, "pug"},
      {0xA2, "p"},      {0x660, "npg"},  {0x300, ""},      {0x2028, "s"},
      {0xAD, "c"},      {0x85, "c"},     {0x100, "anpgU"}, {0x101, "anpgl"},
      {0x4E00, "anpg"}, {0x166D, "pug"}, {0xE000, ""},     {0x1F600, "p"},
  };
  for (const Case &c : cases) {
    const UnicodeCodepoint u(c.cp);
    const std::string want = c.classes;
    std::string got;
    if (u.isAlpha()) got += 'a';
    if (u.isAlnum()) got += 'n';
    if (u.isCntrl()) got += 'c';
    if (u.isPrint()) got += 'p';
    if (u.isPunct()) got += 'u';
    if (u.isGraph()) got += 'g';
    if (u.isSpace()) got += 's';
    if (u.isLower()) got += 'l';
    if (u.isUpper()) got += 'U';
    for (char k : want) EXPECT_NE(got.find(k), std::string::npos) << std::hex << c.cp << " " << k;
    EXPECT_EQ(got.size(), want.size()) << std::hex << c.cp << " got " << got;
  }
}

TEST(UnicodeClasses, CaseMappingOfSingleCodePoints) {
  struct Case {
    uint32_t cp, lower, upper;
  };
  const std::vector<Case> cases = {
      {0xC9, 0xE9, 0xC9},     {0xE9, 0xE9, 0xC9},       {0x130, 'i', 0x130},
      {0x131, 0x131, 'I'},    {0xB5, 0xB5, 0x39C},      {0xDF, 0xDF, 0xDF},
      {0x1E9E, 0xDF, 0x1E9E}, {0x100, 0x101, 0x100},    {0x101, 0x101, 0x100},
      {0xFF, 0xFF, 0x178},    {0x4E00, 0x4E00, 0x4E00}, {0x10400, 0x10428, 0x10400},
  };
  for (const Case &c : cases) {
    UnicodeCodepoint l(c.cp), u(c.cp);
    l.toLower();
    u.toUpper();
    EXPECT_EQ(l._cp, c.lower) << std::hex << c.cp;
    EXPECT_EQ(u._cp, c.upper) << std::hex << c.cp;
  }
}

// ---------------------------------------------------------------------------
// Caseless comparison and whole-string case conversion

TEST(CaselessCompare, Edges) {
  struct Case {
    std::string l, r;
    int result;
  };
  const std::vector<Case> cases = {
      {"abc", "ABC", 0},
      {"", "", 0},
      {"", "a", -1},
      {"a", "", 1},
      {"abc", "abd", -1},
      {"abD", "abc", 1},
      {"ab", "abc", -1},
      {"[", "a", -1},  // '[' lies between the cases: folding decides, not raw bytes
      {"[", "A", -1},
      {U(0xC9), U(0xE9), 0},
      {U(0x100), U(0x101), 0},
      {U(0x1E9E), U(0xDF), 0},
      {U(0x130), "i", 0},
      {U(0x131), "I", 1},
      {B({0xC3}), "a", 1},
      {B({0xE2, 0x82}), B({0xE2, 0x82}), 0},
      {B({0xE2, 0x82}), B({0xE2, 0x83}), -1},
      {"x" + U(0x39C), "X" + U(0x3BC), 0},
      {U(0xB5), U(0x39C), -1},  // micro sign is lower case and isn't folded
  };
  for (const Case &c : cases) {
    EXPECT_EQ(sign(mem_compare_caseless(c.l.data(), c.l.size(), c.r.data(), c.r.size())), c.result)
        << testing::PrintToString(c.l) << " vs " << testing::PrintToString(c.r);
    EXPECT_EQ(sign(mem_compare_caseless(c.l.data(), c.l.size(), c.r.c_str())), c.result);
  }
}

TEST(CaselessCompare, LongAsciiDecidesAtEveryOffset) {
  const std::string base = "The quick brown fox jumps over the lazy dog, 0123456789!";
  std::string upper_base = base;
  for (char &c : upper_base) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  ASSERT_EQ(mem_compare_caseless(base.data(), base.size(), upper_base.data(), upper_base.size()),
            0);
  for (size_t pos = 0; pos < base.size(); ++pos) {
    std::string other = upper_base;
    other[pos] = '~';
    EXPECT_EQ(mem_compare_caseless(base.data(), base.size(), other.data(), other.size()), -1)
        << pos;
    other[pos] = static_cast<char>(0xC3);
    EXPECT_EQ(mem_compare_caseless(other.data(), other.size(), base.data(), base.size()), 1) << pos;
  }
}

TEST(CaselessCompare, TotalOrderConsistentWithLowerCase) {
  // Characters whose lower form is itself lower case, so comparing lowered text is the oracle.
  const std::vector<std::string> alphabet = {
      "a",      "A",      "z",       "Z",        "[",        "_",        "0",      " ",
      U(0xE9),  U(0xC9),  U(0xDF),   U(0x1E9E),  U(0x100),   U(0x101),   U(0x130), U(0x131),
      U(0x3A3), U(0x3C3), U(0x4E00), U(0x1F600), U(0x10400), U(0x10428), U(0x410), U(0x430),
      U(0xB5),  U(0x39C), U(0x3BC),  U(0xFF),    U(0x178)};
  std::mt19937 rng(42);
  auto random_text = [&] {
    std::string s;
    for (size_t n = rng() % 6; n > 0; --n) s += alphabet[rng() % alphabet.size()];
    return s;
  };
  for (int round = 0; round < 20000; ++round) {
    const std::string a = random_text();
    std::string b = rng() % 3 ? random_text() : upper(a);
    const int ab = sign(mem_compare_caseless(a.data(), a.size(), b.data(), b.size()));
    const int ba = sign(mem_compare_caseless(b.data(), b.size(), a.data(), a.size()));
    const int expected = sign(lower(a).compare(lower(b)));
    ASSERT_EQ(ab, expected) << testing::PrintToString(a) << " vs " << testing::PrintToString(b);
    ASSERT_EQ(ba, -expected);
  }
}

TEST(CaseConversion, WholeStrings) {
  struct Case {
    std::string src, up, low;
  };
  const std::vector<Case> cases = {
      {"Straße", "STRAßE", "straße"},
      {U(0x100) + U(0x101), U(0x100) + U(0x100), U(0x101) + U(0x101)},
      {"x" + U(0x130) + "y", "X" + U(0x130) + "Y", "xiy"},  // shrinks to ASCII
      {U(0x131), "I", U(0x131)},
      {U(0xB5), U(0x39C), U(0xB5)},  // two bytes either way, other lead byte
      {std::string("A\0b", 3) + U(0xC9), std::string("A\0B", 3) + U(0xC9),
       std::string("a\0b", 3) + U(0xE9)},
      {B({'a', 0xC3, 'b', 0x80, 0xFF}), B({'A', 0xC3, 'B', 0x80, 0xFF}),
       B({'a', 0xC3, 'b', 0x80, 0xFF})},
      {B({0xC1, 0xBF, 'q'}), B({0xC1, 0xBF, 'Q'}), B({0xC1, 0xBF, 'q'})},
      {"", "", ""},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(upper(c.src), c.up) << testing::PrintToString(c.src);
    EXPECT_EQ(lower(c.src), c.low) << testing::PrintToString(c.src);
  }
  Str same("grüße");
  utf8ToUpper(same, same);
  EXPECT_EQ(same, "GRÜßE");
}

// ---------------------------------------------------------------------------
// Combining marks

TEST(CombiningMarks, Edges) {
  const std::string acute = U(0x301), circ = U(0x302), diaer = U(0x308), macron = U(0x304);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"e" + acute, U(0xE9)},
      {"e" + U(0x341), U(0xE9)},
      {"a" + circ + acute, U(0x1EA5)},
      {"a" + acute + circ, U(0x1EA5)},
      {"U" + diaer + macron, U(0x1D5)},
      {"U" + macron + diaer, U(0x1E7A)},
      {"u" + diaer + macron, U(0x1D6)},
      {"u" + macron + diaer, U(0x1E7B)},
      {"q" + acute, "q" + acute},
      {acute + "x", acute + "x"},
      {acute + acute, acute + acute},
      {"e" + acute + "e" + acute, U(0xE9) + U(0xE9)},
      {std::string(1, '\0') + acute, std::string(1, '\0') + acute},
      {B({0xE9}), B({0xE9})},
      {"x" + U(0xE9) + "y", "x" + U(0xE9) + "y"},
      {"A" + U(0x300) + " and e" + acute + "!", U(0xC0) + " and " + U(0xE9) + "!"},
      {U(0x391) + U(0x313) + U(0x300), U(0x1F0A)},
      {"o" + U(0x338), "o" + U(0x338)},
      {"c" + acute + U(0x327) + "z", U(0x1E09) + "z"},
  };
  for (const auto &[in, out] : cases) {
    Str s(in);
    resolveUnicodeCombiningMarks(s);
    EXPECT_EQ(s, out) << testing::PrintToString(in);
  }
}

TEST(CombiningMarks, EveryRuleComposes) {
  // One mark per bit, in table order; that order puts the macron first for 4+7, which is the
  // order of U+1E7A rather than U+01D5.
  std::vector<uint32_t> mark_for_bit(64, 0);
  for (const auto &m : utf8_combiner_marks) {
    const int bit = __builtin_ctzll(m.flag);
    if (mark_for_bit[bit] == 0) mark_for_bit[bit] = m.utf8bytes;
  }
  auto bytes_of = [](uint32_t u) {
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8)
      if ((u >> shift) != 0) s.push_back(static_cast<char>(u >> shift & 0xFF));
    return s;
  };
  size_t checked = 0;
  for (const auto &c : utf8_combiners) {
    std::string marks;
    for (const auto &m : utf8_combiner_marks)
      if ((c.key & m.flag) && m.utf8bytes == mark_for_bit[__builtin_ctzll(m.flag)])
        marks += bytes_of(m.utf8bytes);
    for (uint32_t r = 0; r < c.nrules; ++r) {
      const Utf8CombinerRule &rule = c.rules[r];
      ASSERT_EQ(replacement_for_utf8bytes(rule.base, c.key), rule.replacement);
      Str s(bytes_of(rule.base) + marks);
      resolveUnicodeCombiningMarks(s);
      uint32_t expected = rule.replacement;
      if (expected == 0xC795 || expected == 0xC796) expected += 0xE0F225;
      EXPECT_EQ(s, bytes_of(expected)) << std::hex << rule.base << " key " << c.key;
      ++checked;
    }
  }
  EXPECT_EQ(checked, utf8_combiner_rules_count);
  EXPECT_EQ(replacement_for_utf8bytes('q', 2), 0u);
  EXPECT_EQ(replacement_for_utf8bytes('e', uint64_t{1} << 63), 0u);
  EXPECT_EQ(combiner_flag_for_utf8bytes(0xCD81), 2u);
  EXPECT_EQ(combiner_flag_for_utf8bytes(0xCC85), 0u);
}

TEST(CombiningMarks, UntouchedTextKeepsItsBuffer) {
  for (const std::string &text : {std::string(100, 'a'), "caf" + U(0xE9) + " " + U(0x4E00)}) {
    Str s(text);
    const char *before = s.data();
    resolveUnicodeCombiningMarks(s);
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(s, text);
  }
}
