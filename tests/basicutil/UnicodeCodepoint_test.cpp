// Code points, walkers, classes, caseless order, case conversion and mark composition over UTF-8.

#include "basicutil/UnicodeCodepoint.h"

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "basicutil/UnicodeTables.h"

using namespace morvek;
using testing::PrintToString;

namespace {

std::string U(uint32_t cp) {
  if (cp < 0x80) return std::string(1, static_cast<char>(cp));
  Utf8CodepointWriter w;
  return std::string(w.data(), w._set(cp));
}

// Code points by popCodepoint until the end; false if one fails.
bool pop_all(std::string_view s, std::vector<uint32_t> &out) {
  uint32_t cp;
  for (StrSegment seg(s); seg._len > 0; out.push_back(cp))
    if (!popCodepoint(seg, cp)) return false;
  return true;
}

// Feeds the accumulator as its callers do, taking ASCII at ground state directly. `clean`: every
// byte ended up in an accepted character.
bool accumulate(std::string_view s, std::vector<uint32_t> &out) {
  bool clean = true;
  UnicodeCodepoint u;
  for (unsigned char by : s) {
    if (!u.at_ground_state() && (by & 0xC0) != 0x80) clean = false;  // sequence dropped
    if (u.at_ground_state() && by < 0x80) {
      out.push_back(by);
    } else if (u._accumulateUtf8Byte(by)) {
      out.push_back(u._cp);
      if (u._cp < 0x80) clean = false;  // broken by ASCII
    } else if (u.at_ground_state()) {
      clean = false;  // rejected or stray
    }
  }
  return clean && u.at_ground_state();
}

std::string cased(std::string_view s, bool up) {
  Str out;
  up ? utf8ToUpper(StrSegment(s), out) : utf8ToLower(StrSegment(s), out);
  return out;
}
std::string lower(std::string_view s) { return cased(s, false); }
std::string upper(std::string_view s) { return cased(s, true); }
int sign(int v) { return (v > 0) - (v < 0); }
int caseless(const std::string &a, const std::string &b) {
  return sign(mem_compare_caseless(a.data(), a.size(), b.data(), b.size()));
}

}  // namespace

// Conversions

// The values are the writer's bytes, so they order as the bytes do.
TEST(Utf8Conversions, RoundTripOverAllCodePointsAndDomain) {
  for (uint32_t cp = 0x80; cp <= 0x10FFFF; ++cp) {
    const uint32_t u = codepoint_to_utf8bytes(cp);
    ASSERT_EQ(utf8bytes_to_codepoint(u), cp);
    uint32_t from_writer = 0;
    for (unsigned char c : U(cp)) from_writer = from_writer << 8 | c;
    ASSERT_EQ(from_writer, u);
  }
  EXPECT_EQ(Utf8CodepointWriter()._set(0x110000), 0u);
  EXPECT_DEATH(codepoint_to_utf8bytes(0x110000), "cp <= 0x10FFFF");
  EXPECT_DEATH(utf8bytes_to_codepoint(0x1000000), "u <= 0xEFBFBF");  // gap between forms
}

// Decoders

// Per-byte results and restarts after a broken sequence: what the agreement below can't see.
TEST(Utf8Decoders, AccumulatorRestartsAndPopEdges) {
  const std::vector<std::tuple<std::string, std::string, uint32_t>> sequences = {
      {"\xE2\x41", "ft", 'A'}, {"\xC3\xE2\x82\xAC", "ffft", 0x20AC}, {"\xC3\xFF", "ff", 0xFF}};
  for (const auto &[bytes, want, cp] : sequences) {
    UnicodeCodepoint u;
    std::string results;
    for (char by : bytes) results += u._accumulateUtf8Byte(static_cast<uint8_t>(by)) ? 't' : 'f';
    EXPECT_EQ(results, want) << PrintToString(bytes);
    EXPECT_TRUE(u.at_ground_state());
    EXPECT_EQ(u._cp, cp);
  }
  struct Case {
    std::string bytes;
    bool pops;
    uint32_t cp;
    size_t consumed;
    bool valid;
  };
  // Surrogates pop but aren't valid; a four-byte lead needn't be followed by a continuation
  // byte for the validity check (its required looseness).
  const std::vector<Case> cases = {
      {"", false, 0, 0, true},
      {"\xED\xA0\x80", true, 0xD800, 3, false},
      {"\xF1\x41\x80\x80", false, 0, 0, true},
      {"\xC3\xA9\xA9", true, 0xE9, 2, false},
      {"\xE2\x82", false, 0, 0, false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(PrintToString(c.bytes));
    StrSegment seg(c.bytes);
    uint32_t cp = 0x12345;
    EXPECT_EQ(popCodepoint(seg, cp), c.pops);
    EXPECT_EQ(cp, c.pops ? c.cp : 0x12345u);
    EXPECT_EQ(seg._data, c.bytes.data() + c.consumed);
    EXPECT_EQ(isValidUtf8(c.bytes.data(), c.bytes.size()), c.valid);
  }
}

TEST(Utf8Decoders, AgreeOnEveryShortSequenceOverReducedAlphabet) {
  const std::string alphabet(
      "\x00\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xFF",
      22);
  size_t valid_seen = 0;
  std::vector<size_t> idx;
  for (size_t len = 1; len <= 4; ++len) {
    for (idx.assign(len, 0);;) {
      std::string s;
      for (size_t i : idx) s += alphabet[i];
      std::vector<uint32_t> popped, accumulated;
      const bool pops = pop_all(s, popped);
      bool surrogate = false;
      for (uint32_t cp : popped) surrogate |= cp >= 0xD800 && cp <= 0xDFFF;
      const bool clean = accumulate(s, accumulated);
      const bool valid = isValidUtf8(s.data(), s.size());
      SCOPED_TRACE(PrintToString(s));
      // Well-formed text: all three agree, and the walkers count it the same.
      ASSERT_EQ(clean, pops && !surrogate);
      if (clean) {
        ASSERT_EQ(accumulated, popped);
        ASSERT_TRUE(valid);
        ASSERT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), popped.size());
        ++valid_seen;
      }
      // The documented differences: popCodepoint takes surrogates, isValidUtf8 doesn't insist
      // on a continuation byte after a four-byte lead.
      ASSERT_FALSE(pops && surrogate && valid);
      if (valid && !clean) {
        bool loose = false;
        for (size_t i = 0; i + 1 < s.size(); ++i)
          loose |= static_cast<uint8_t>(s[i]) >= 0xF0 && (s[i + 1] & 0xC0) != 0x80;
        ASSERT_TRUE(loose);
      }
      for (uint32_t cp : accumulated) ASSERT_TRUE(cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF));
      size_t k = 0;
      while (k < len && ++idx[k] == alphabet.size()) idx[k++] = 0;
      if (k == len) break;
    }
  }
  EXPECT_GT(valid_seen, 1000u);
}

TEST(Utf8Decoders, LongInputsAtEveryBlockOffset) {
  for (size_t pos = 0; pos < 40; ++pos) {
    std::string s(40, 'x');
    s[pos] = '\xFF';
    EXPECT_FALSE(isValidUtf8(s.data(), s.size())) << pos;
    s = std::string(pos, 'x') + "\xE2\x82\xAC" + std::string(40 - pos, 'y');
    EXPECT_TRUE(isValidUtf8(s.data(), s.size())) << pos;
    EXPECT_EQ(mem_count_utf8_codepoints(s.data(), s.size()), 41u) << pos;
  }
}

// Quick walkers

TEST(Utf8Walkers, CountTruncateAndRange) {
  // A stray continuation byte steps by two and swallows the 'a'.
  const std::vector<std::pair<std::string, size_t>> cases = {
      // clang-format off
      {"a\xC3", 2}, {"\x80\x61", 1}, {"\xF5\xFF\x61", 3}, {"\xE2\x61\x62\x63", 2},
      // clang-format on
  };
  for (const auto &[bytes, n] : cases)
    EXPECT_EQ(mem_count_utf8_codepoints(bytes.data(), bytes.size()), n) << PrintToString(bytes);

  const std::string e = "\xC3\xA9", euro = "\xE2\x82\xAC";
  // Ending exactly at the end leaves the text as it is; a broken tail is cut off.
  const std::vector<std::tuple<std::string, size_t, size_t>> truncations = {
      // clang-format off
      {"abc", 10, 3}, {"ab" + e + "cd", 3, 4}, {e + euro, 1, 2}, {"a" + euro, 2, 4},
      {"ab\xE2\x82", 3, 2}, {"\xE2\x82\x61\x62", 1, 3}, {e + "x", 0, 0},
      // clang-format on
  };
  for (const auto &[bytes, n, len] : truncations) {
    StrSegment seg(bytes);
    utf8_character_count_truncate(seg, n);
    EXPECT_EQ(seg._len, len) << PrintToString(bytes) << " n=" << n;
  }

  // Cutting by bytes never splits a character.
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\x62\xF0\x9F\x98\x80\x63\x64";
  const std::vector<size_t> boundaries = {0, 1, 3, 6, 7, 11, 12, 13};
  for (size_t n = 0; n <= text.size() + 2; ++n) {
    StrSegment seg(text);
    size_t expected = 0;
    for (size_t b : boundaries) expected = b <= n ? b : expected;
    EXPECT_EQ(utf8ByteTruncate(seg, n), expected) << n;
    EXPECT_EQ(seg._len, expected) << n;
  }
  const std::string stray = "\x80\x80\x80";
  StrSegment seg(stray);
  EXPECT_EQ(utf8ByteTruncate(seg, 2), 0u);

  const std::string range_text = "a\xC3\xA9\x62\xE2\x82\xAC";  // characters at 0 1 3 4, end 7
  struct Case {
    std::string bytes;
    size_t start, count;
    bool ok;
    size_t first, last;
  };
  // A broken tail carries `last` past the end.
  const std::vector<Case> ranges = {
      // clang-format off
      {range_text, 1, 2, true, 1, 4}, {range_text, 1, 0, true, 1, 1}, {range_text, 2, 100, true, 3, 7},
      {range_text, 4, 1, true, 7, 7}, {range_text, 5, 1, false, 0, 0}, {"a\xE2", 1, 1, true, 1, 4},
      // clang-format on
  };
  for (const Case &c : ranges) {
    size_t first = 99, last = 99;
    EXPECT_EQ(utf8CharacterRange(c.bytes.data(), c.bytes.size(), c.start, c.count, first, last),
              c.ok);
    EXPECT_EQ(first, c.ok ? c.first : 99u) << c.start << "," << c.count;
    EXPECT_EQ(last, c.ok ? c.last : 99u) << c.start << "," << c.count;
  }
}

// Classes and case of single code points

// Classes as letters: a=alpha n=alnum c=cntrl p=print u=punct g=graph s=space l=lower U=upper.
std::string classString(std::initializer_list<bool> is) {
  std::string out;
  for (size_t i = 0; i < is.size(); ++i)
    if (is.begin()[i]) out += "ancpugslU"[i];
  return out;
}
std::string classesOf(uint32_t cp) {
  const UnicodeCodepoint u(cp);
  return classString({u.isAlpha(), u.isAlnum(), u.isCntrl(), u.isPrint(), u.isPunct(), u.isGraph(),
                      u.isSpace(), u.isLower(), u.isUpper()});
}

TEST(UnicodeClasses, AsciiFollowsThePosixClassesAndOthersTheTable) {
  for (int c = 0; c < 0x80; ++c) {
    EXPECT_EQ(classesOf(static_cast<uint32_t>(c)),
              classString({!!isalpha(c), !!isalnum(c), !!iscntrl(c), !!isprint(c), !!ispunct(c),
                           !!isgraph(c), !!isspace(c), !!islower(c), !!isupper(c)}))
        << c;
    UnicodeCodepoint l(static_cast<uint32_t>(c)), h = l;
    l.toLower();
    h.toUpper();
    EXPECT_EQ(l._cp, static_cast<uint32_t>(tolower(c)));
    EXPECT_EQ(h._cp, static_cast<uint32_t>(toupper(c)));
  }
  const std::vector<std::pair<uint32_t, std::string>> cases = {
      {0xE9, "anpgl"},  {0xC9, "anpgU"},  {0xA0, "s"},      {0xA1, "pug"},   {0xA2, "p"},
      {0x660, "npg"},   {0x300, ""},      {0x2028, "s"},    {0xAD, "c"},     {0x85, "c"},
      {0x100, "anpgU"}, {0x101, "anpgl"}, {0x4E00, "anpg"}, {0x166D, "pug"}, {0xE000, ""},
  };
  for (const auto &[cp, want] : cases) {
    EXPECT_EQ(classesOf(cp), want) << std::hex << cp;
    UnicodeCodepoint l(cp), h(cp);
    l.toLower();
    h.toUpper();
    EXPECT_EQ(U(l._cp) + U(h._cp), lower(U(cp)) + upper(U(cp))) << std::hex << cp;
  }
}

// Caseless comparison and whole-string case conversion

TEST(CaselessCompare, Edges) {
  // Broken sequences compare by their bytes; the random order below covers valid text, and the
  // block scans are held to strcasecmp at every length and offset elsewhere.
  const std::vector<std::tuple<std::string, std::string, int>> cases = {
      {"", "a", -1},
      {"ab", "abc", -1},
      {"\xC3", "a", 1},
      {"\xE2\x82", "\xE2\x82", 0},
      {"\xE2\x82", "\xE2\x83", -1},
  };
  for (const auto &[l, r, result] : cases) {
    EXPECT_EQ(caseless(l, r), result) << PrintToString(l) << " vs " << PrintToString(r);
    EXPECT_EQ(sign(mem_compare_caseless(l.data(), l.size(), r.c_str())), result);
  }
}

TEST(CaselessCompare, TotalOrderConsistentWithLowerCase) {
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
    const std::string b = rng() % 3 ? random_text() : upper(a);
    const int expected = sign(lower(a).compare(lower(b)));
    ASSERT_EQ(caseless(a, b), expected) << PrintToString(a) << " vs " << PrintToString(b);
    ASSERT_EQ(caseless(b, a), -expected);
  }
}

TEST(CaseConversion, WholeStrings) {
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      // clang-format off
      {"Stra\xC3\x9F\x65", "STRA\xC3\x9F\x45", "stra\xC3\x9F\x65"},
      {"\xC4\x80\xC4\x81", "\xC4\x80\xC4\x80", "\xC4\x81\xC4\x81"},
      {"x\xC4\xB0y", "X\xC4\xB0Y", "xiy"},  // shrinks to ASCII
      {"\xC4\xB1", "I", "\xC4\xB1"}, {"\xC2\xB5", "\xCE\x9C", "\xC2\xB5"},
      {std::string("A\0b\xC3\x89", 5), std::string("A\0B\xC3\x89", 5), std::string("a\0b\xC3\xA9", 5)},
      {"a\xC3\x62\x80\xFF", "A\xC3\x42\x80\xFF", "a\xC3\x62\x80\xFF"},
      {"\xC1\xBFq", "\xC1\xBFQ", "\xC1\xBFq"}, {U(0x1E9E), U(0x1E9E), U(0xDF)},
      {U(0xFF) + U(0x4E00) + U(0x10400), U(0x178) + U(0x4E00) + U(0x10400), U(0xFF) + U(0x4E00) + U(0x10428)},
      {U(0x212A) + U(0x1EA1), U(0x212A) + U(0x1EA0), "k" + U(0x1EA1)},  // Kelvin sign shrinks
      // clang-format on
  };
  for (const auto &[src, up, low] : cases) {
    EXPECT_EQ(upper(src), up) << PrintToString(src);
    EXPECT_EQ(lower(src), low) << PrintToString(src);
  }
  Str same("gr\xC3\xBC\xC3\x9F\x65");
  utf8ToUpper(same, same);
  EXPECT_EQ(same, "GR\xC3\x9C\xC3\x9F\x45");
}

// Combining marks

TEST(CombiningMarks, Edges) {
  const std::string acute = U(0x301), circ = U(0x302), diaer = U(0x308), macron = U(0x304);
  const std::string nul(1, '\0');
  const std::vector<std::pair<std::string, std::string>> cases = {
      // clang-format off
      {"e" + U(0x341), U(0xE9)}, {"a" + acute + circ, U(0x1EA5)}, {"U" + macron + diaer, U(0x1E7A)},
      {"q" + acute, "q" + acute}, {acute + acute + "x", acute + acute + "x"},
      {"e" + acute + "e" + acute, U(0xE9) + U(0xE9)}, {nul + acute, nul + acute}, {"\xE9", "\xE9"},
      {"o" + U(0x338), "o" + U(0x338)}, {"c" + acute + U(0x327) + "z", U(0x1E09) + "z"},
      // clang-format on
  };
  for (const auto &[in, out] : cases) {
    Str s(in);
    resolveUnicodeCombiningMarks(s);
    EXPECT_EQ(s, out) << PrintToString(in);
  }
  // Text with nothing to compose keeps its buffer.
  Str text(std::string(100, 'a') + "caf\xC3\xA9");
  const char *before = text.data();
  resolveUnicodeCombiningMarks(text);
  EXPECT_EQ(text.data(), before);
}

TEST(CombiningMarks, EveryRuleComposes) {
  // One mark per bit (the first in table order), appended in bit order: diaeresis before
  // macron for 4+7, which is the order of U+01D5 and U+01D6.
  std::vector<uint32_t> mark_for_bit(64, 0);
  for (const auto &m : utf8_combiner_marks)
    if (mark_for_bit[__builtin_ctzll(m.flag)] == 0)
      mark_for_bit[__builtin_ctzll(m.flag)] = m.utf8bytes;
  auto bytes_of = [](uint32_t u) {
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8)
      if ((u >> shift) != 0) s += static_cast<char>(u >> shift & 0xFF);
    return s;
  };
  for (const auto &c : utf8_combiners) {
    std::string marks;
    for (int bit = 0; bit < 64; ++bit)
      if (c.key >> bit & 1) marks += bytes_of(mark_for_bit[bit]);
    for (const Utf8CombinerRule &rule :
         std::vector<Utf8CombinerRule>(c.rules, c.rules + c.nrules)) {
      ASSERT_EQ(replacement_for_utf8bytes(rule.base, c.key), rule.replacement);
      Str s(bytes_of(rule.base) + marks);
      resolveUnicodeCombiningMarks(s);
      EXPECT_EQ(s, bytes_of(rule.replacement)) << std::hex << rule.base;
    }
  }
}
