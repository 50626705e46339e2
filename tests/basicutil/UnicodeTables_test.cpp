// Checks the committed Unicode 8.0 tables against their known counts and rows.

#include "basicutil/UnicodeTables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "basicutil/UnicodeCodepoint.h"
#include "libzero/codepoint-width-table.h"

using namespace morvek;

namespace {

uint32_t u8(uint32_t cp) {
  if (cp < 0x80) return cp;
  if (cp < 0x800) return (0xC0 | cp >> 6) << 8 | (0x80 | (cp & 0x3F));
  if (cp < 0x10000)
    return (0xE0 | cp >> 12) << 16 | (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
  return (0xF0 | cp >> 18) << 24 | (0x80 | (cp >> 12 & 0x3F)) << 16 |
         (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
}

// The row whose run holds `u`.
const Utf8PropertyRow &property_row(uint32_t u) {
  const auto *end = utf8_properties + utf8_properties_count;
  const auto *it =
      std::upper_bound(utf8_properties, end, u,
                       [](uint32_t v, const Utf8PropertyRow &r) { return v < r.utf8bytes; });
  EXPECT_NE(it, utf8_properties) << std::hex << u;
  return *(it - 1);
}

uint32_t flags_of(uint32_t cp) { return property_row(u8(cp)).flags; }

uint64_t key_of(std::initializer_list<int> bits) {
  uint64_t key = 0;
  for (int b : bits) key |= uint64_t{1} << b;
  return key;
}

// 0 when the table has no rule.
uint32_t replacement(uint64_t key, uint32_t base) { return replacement_for_utf8bytes(base, key); }

std::string bits_text(uint64_t key) {
  std::string out;
  for (int b = 0; b < 64; ++b)
    if (key >> b & 1) out += (out.empty() ? "" : "+") + std::to_string(b);
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// Property table

TEST(UnicodePropertyTable, RowsPerTopByte) {
  std::map<uint32_t, int> counts;
  for (const auto &row : utf8_properties) ++counts[row.flags >> 24];
  const std::map<uint32_t, int> expected = {
      {0x00, 652}, {0x02, 233}, {0x03, 152}, {0x04, 19},  {0x08, 7},
      {0x12, 62},  {0x82, 463}, {0xA2, 224}, {0xC2, 291}, {0xE2, 37},
  };
  EXPECT_EQ(counts, expected);
}

TEST(UnicodePropertyTable, TellingRows) {
  const std::vector<std::pair<uint32_t, uint32_t>> rows = {
      {0xC280, 0x04000000}, {0xC2A0, 0x08000000}, {0xC2B5, 0xC2000C29}, {0xC380, 0xA2000020},
      {0xC3BF, 0xC2000607}, {0xC480, 0xE2000001}, {0xC4B0, 0xA200C4D9}, {0xF3A08081, 0x04000000},
  };
  for (const auto &[key, word] : rows) {
    const Utf8PropertyRow &row = property_row(key);
    EXPECT_EQ(row.utf8bytes, key) << std::hex << key << " does not start a row";
    EXPECT_EQ(row.flags, word) << std::hex << key;
  }
}

TEST(UnicodePropertyTable, FlagsOfCharactersAsOf8_0) {
  constexpr uint32_t LP = UNICODE_LETTER | UNICODE_PRINTABLE, KIND = UNICODE_CASE_KIND;
  constexpr uint32_t ALL = ~0u, ALT = UNICODE_CASE_ALTERNATING;
  constexpr uint32_t PU = UNICODE_PUNCTUATION | UNICODE_PRINTABLE, UP = UNICODE_CASE_UPPER;
  // The capital sharp s interrupts the alternating run of U+1E00..U+1EFF. Sharp s has no simple
  // upper form. Titlecase digraphs at an even utf8bytes alternate; one at an odd value is an
  // upper. U+026A's upper form came after 8.0; Georgian Mkhedruli had no case then. Roman
  // numerals and circled letters have case mappings but aren't letters. Marks (Mn Me Mc),
  // private use and characters added after 8.0 have no flags; surrogates and Cf are controls.
  const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {
      // clang-format off
      {0x1E94, KIND, ALT}, {0x1E9E, KIND, UP}, {0x00DF, ALL, LP | UNICODE_CASE_LOWER},
      {0x01C8, KIND, ALT}, {0x01C5, ALL, LP | UP | 0x3}, {0x026A, ALL, LP | UNICODE_CASE_LOWER},
      {0x10D0, ALL, LP}, {0x2160, ALL, UNICODE_DIGIT | UNICODE_PRINTABLE},
      {0x24B6, ALL, UNICODE_PRINTABLE}, {0x1885, ALL, LP}, {0x1CF2, ALL, 0}, {0x111C9, ALL, PU},
      {0x2029, ALL, UNICODE_SPACE}, {0x0903, ALL, 0}, {0xD800, ALL, UNICODE_CONTROL},
      {0x200B, ALL, UNICODE_CONTROL}, {0x1F6D1, ALL, 0}, {0x9FD6, ALL, 0}, {0x9FD5, ALL, LP},
      // clang-format on
  };
  for (const auto &[cp, mask, want] : cases) EXPECT_EQ(flags_of(cp) & mask, want) << std::hex << cp;
}

// ---------------------------------------------------------------------------
// Combining marks

TEST(UnicodeCombiningTable, MarkListWithBits) {
  const char *expected =
      "CC80:0 CC81:1 CC82:2 CC83:3 CC84:7 CC86:8 CC87:10 CC88:4 CC89:47 CC8A:5 CC8B:12 "
      "CC8C:11 CC8D:16 CC8F:14 CC91:15 CC93:48 CC94:49 CC9B:13 CCA3:41 CCA4:46 CCA5:40 "
      "CCA7:6 CCA8:9 CCAD:43 CCAE:45 CCB0:44 CCB1:42 CD80:0 CD81:1 CD82:50 CD83:48 CD85:51 "
      "D6B7:54 D6B8:58 D6B9:59 D6BC:57 D6BF:60 D781:55 D782:56 E0A4BC:17 E0A6BC:18 "
      "E0A6BE:19 E0A797:20 E0A8BC:21 E0ACBC:25 E0ACBE:23 E0AD96:22 E0AD97:24 E0AEBE:27 "
      "E0AF97:26 E0B196:28 E0B382:31 E0B395:29 E0B396:30 E0B4BE:32 E0B597:33 E0B8B2:34 "
      "E0BAB2:35 E0BDB1:38 E0BE80:39 E0BEB5:37 E0BEB7:36 E38299:52 E3829A:53";
  // One bit per mark and ascending keys are checked where the table is compiled.
  std::ostringstream got;
  for (const auto &m : utf8_combiner_marks)
    got << (got.tellp() > 0 ? " " : "") << std::uppercase << std::hex << m.utf8bytes << ':'
        << std::dec << std::countr_zero(m.flag);
  EXPECT_EQ(got.str(), expected);
}

TEST(UnicodeCombiningTable, KeysAndRuleCounts) {
  const char *expected =
      "0(31) 1(59) 2(26) 0+2(6) 1+2(6) 3(16) 1+3(4) 2+3(6) 4(48) 0+4(4) 1+4(6) 3+4(2) "
      "5(6) 1+5(2) 6(20) 1+6(2) 7(24) 0+7(4) 1+7(4) 4+7(4) 8(28) 0+8(2) 1+8(2) 3+8(2) "
      "6+8(2) 9(10) 7+9(2) 10(37) 1+10(2) 7+10(2) 11(33) 4+11(2) 10+11(2) 12(6) 13(4) "
      "0+13(4) 1+13(4) 3+13(4) 14(14) 15(12) 16(17) 4+16(2) 17(11) 18(4) 19(1) 20(1) "
      "21(5) 22(1) 23(1) 24(1) 25(3) 26(2) 27(2) 28(1) 29(2) 30(1) 31(1) 29+31(1) 32(2) "
      "33(1) 34(1) 35(1) 36(10) 37(2) 38(3) 39(2) 38+39(2) 40(2) 41(38) 2+41(6) 7+41(4) "
      "8+41(2) 10+41(2) 13+41(4) 42(17) 43(12) 44(6) 45(2) 46(2) 47(12) 2+47(6) 8+47(2) "
      "13+47(4) 48(14) 0+48(13) 1+48(13) 49(16) 0+49(14) 1+49(14) 50(8) 4+50(2) "
      "48+50(9) 49+50(10) 51(6) 0+51(3) 1+51(3) 48+51(6) 0+48+51(6) 1+48+51(6) 49+51(6) "
      "0+49+51(6) 1+49+51(6) 50+51(3) 48+50+51(6) 49+50+51(6) 52(48) 53(10) 54(2) 55(1) "
      "56(1) 57(22) 55+57(1) 56+57(1) 58(1) 59(1) 60(3)";
  std::string got;
  for (const auto &c : utf8_combiners)
    got += (got.empty() ? "" : " ") + bits_text(c.key) + "(" + std::to_string(c.nrules) + ")";
  EXPECT_EQ(got, expected);
}

TEST(UnicodeCombiningTable, TellingAndDeviationRows) {
  // A shared key and base keeps the lower code point: not the Angstrom sign, not U+1E7A/B.
  // Outside the Greek block the acute keeps its own bit: alpha with oxia.
  const std::vector<std::tuple<uint64_t, uint32_t, uint32_t>> rows = {
      // clang-format off
      {key_of({0, 2}), 'A', 0xE1BAA6}, {key_of({0, 48}), 0xCE91, 0xE1BC8A}, {key_of({1}), 'q', 0},
      {key_of({5}), 'A', 0xC385}, {key_of({4, 7}), 'U', 0xC795}, {key_of({4, 7}), 'u', 0xC796},
      {key_of({16}), 0xCE91, 0xCE86}, {key_of({16}), 0xCF92, 0xCF93}, {key_of({16}), 0xC2A8, 0xCE85},
      {key_of({16}), 0xCC88, 0xCD84},
      {key_of({4, 16}), 0xCEB9, 0xCE90}, {key_of({4, 16}), 0xCF85, 0xCEB0},
      {key_of({4}), 0xC68F, 0xD39A}, {key_of({4}), 0xC9B5, 0xD3AB}, {key_of({10}), 0xCC86, 0xCC90},
      {key_of({21}), 0xE0A8A1, 0xE0A99C}, {key_of({34}), 0xE0B98D, 0xE0B8B3},
      {key_of({38}), 0xE0BE80, 0xE0BE81}, {key_of({38, 39}), 0xE0BEB2, 0xE0BDB7},
      {key_of({1, 51}), 0xCEBF, 0xE1BFB4}, {key_of({1}), 0xCEB1, 0xE1BDB1},
      // The Cyrillic schwa and barred o are reached only through the Latin bases; omega with
      // oxia and ypogegrammeni hangs off omicron, not omega.
      {key_of({4}), 0xD398, 0}, {key_of({4}), 0xD3A8, 0}, {key_of({1, 51}), 0xCF89, 0},
      // clang-format on
  };
  for (const auto &[key, base, repl] : rows)
    EXPECT_EQ(replacement(key, base), repl) << bits_text(key) << " " << std::hex << base;
}

TEST(UnicodeCombiningTable, CharactersNotReached) {
  std::set<uint32_t> replacements;
  for (const auto &r : utf8_combiner_rules) replacements.insert(r.replacement);
  const uint32_t absent[] = {
      0x01F8, 0x0218, 0x0226, 0x0233, 0x0400, 0x045D, 0x04EC,
      0x0622, 0x0A33, 0x0DDA, 0x1B06, 0x212B, 0x1E7A, 0x1E7B,
      0x2260,                          // not equal to: U+0338 isn't a listed mark
      0x226E, 0x2204, 0xAC00, 0xD7A3,  // nor is Hangul composed
  };
  for (uint32_t cp : absent) EXPECT_EQ(replacements.count(u8(cp)), 0u) << std::hex << "U+" << cp;
}

// ---------------------------------------------------------------------------
// Display width table

TEST(CodepointWidthTable, WideRunsAreExactlyTheListedOnes) {
  const std::vector<std::pair<uint32_t, uint32_t>> runs = {
      {0x1100, 0x1160},   {0x2329, 0x232B},   {0x2820, 0x2900},   {0x2E80, 0x2E9A},
      {0x2E9B, 0x2EF4},   {0x2F00, 0x2FD6},   {0x2FF0, 0x2FFC},   {0x3000, 0x302A},
      {0x302E, 0x303F},   {0x3040, 0x3097},   {0x309B, 0x312E},   {0x3131, 0x318F},
      {0x3190, 0x31BB},   {0x31C0, 0x31E4},   {0x31F0, 0x321F},   {0x3220, 0x3248},
      {0x3250, 0x32FF},   {0x3300, 0x4DC0},   {0x4E00, 0xA48D},   {0xA490, 0xA4C7},
      {0xA960, 0xA97D},   {0xAC00, 0xD7A4},   {0xF900, 0xFB00},   {0xFE10, 0xFE20},
      {0xFE30, 0xFE53},   {0xFE54, 0xFE67},   {0xFE68, 0xFE6C},   {0xFF01, 0xFF61},
      {0xFFE0, 0xFFE7},   {0x1B000, 0x1B002}, {0x1F200, 0x1F203}, {0x1F210, 0x1F23B},
      {0x1F240, 0x1F249}, {0x1F250, 0x1F252}, {0x20000, 0x2FFFE}, {0x30000, 0x3FFFE},
  };
  std::vector<std::pair<uint32_t, uint32_t>> got;
  for (size_t i = 0; i + 1 < cpwidth_table_rows; ++i)
    if (cpwidth_row_width(cpwidth_table[i]) == 2)
      got.emplace_back(cpwidth_row_codepoint(cpwidth_table[i]),
                       cpwidth_row_codepoint(cpwidth_table[i + 1]));
  EXPECT_EQ(got, runs);
}
