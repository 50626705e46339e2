// Terminal widths of code points and of UTF-8 text.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "libzero/codepoint-width.h"

namespace {

std::string U(uint32_t cp) {
  if (cp < 0x80) return std::string(1, static_cast<char>(cp));
  const int n = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
  std::string s(n, '\0');
  for (int i = n - 1; i > 0; --i, cp >>= 6) s[i] = static_cast<char>(0x80 | (cp & 0x3F));
  s[0] = static_cast<char>((0xF00 >> n) | cp);
  return s;
}

}  // namespace

TEST(CodepointWidth, SingleCodePointsAndTexts) {
  const std::vector<std::pair<uint32_t, unsigned>> cases = {
      // DEL is not the table's business; 0x3040 is unassigned but wide; 0x302A..0x302D and
      // 0x3099/A are marks between wide runs. Surrogates and private use count at the ends of
      // their ranges only.
      // clang-format off
      {0x1F, 0}, {0x20, 1}, {0x7F, 1}, {0x80, 0}, {0x9F, 0}, {0xA0, 1}, {0xAD, 0}, {0xAE, 1},
      {0x36F, 0}, {0x370, 1}, {0x115F, 2}, {0x1160, 1}, {0x200B, 0}, {0xD7A3, 2}, {0xD7A4, 1},
      {0x2FFFD, 2}, {0x2FFFE, 1}, {0xF0000, 0}, {0xF0001, 1}, {0x10FFFD, 0}, {0x10FFFE, 1},
      {0x10FFFF, 1}, {0x110000, 0}, {0xFFFFFFFF, 0}, {0x3040, 2}, {0x302A, 0}, {0x302D, 0},
      {0x309A, 0}, {0x0903, 1}, {0xD800, 0}, {0xD801, 1}, {0xDB7F, 0}, {0xDB80, 0}, {0xDB81, 1},
      {0xDFFF, 0}, {0xE000, 0}, {0xE001, 1}, {0xF8FF, 0}, {0xFFFFD, 0}, {0xFFFFE, 1},
      // clang-format on
  };
  for (const auto &[cp, width] : cases) EXPECT_EQ(codepoint_width(cp), width) << std::hex << cp;

  // Cut-off sequences count what came before; a stray continuation swallows the next byte; a
  // lead above 0xF4 is out of range; an overlong 'a' is not rejected.
  const std::vector<std::pair<std::string, size_t>> texts = {
      // clang-format off
      {"a\tb\n", 2}, {"ab\xE6\xBC", 2}, {"e\xCC\x81", 1}, {"\x80\x80x", 1},
      {"\xF8\x88\x80\x80z", 1}, {"\xC1\xA1", 1}, {"\xF0\x9F\x98\x80\xE4\xB8\x80", 3},
      // clang-format on
  };
  for (const auto &[text, width] : texts)
    EXPECT_EQ(mem_display_width(text.data(), text.size()), width) << testing::PrintToString(text);
}

TEST(DisplayWidth, SumsCodePointWidthsAtEveryBlockOffset) {
  for (uint32_t piece : {0x78, 0x01, 0x7F, 0xE9, 0x300, 0x4E00, 0x1F600, 0xAD}) {
    for (size_t pos = 0; pos < 40; ++pos) {
      const std::string text = std::string(pos, 'a') + U(piece) + std::string(37 - pos % 5, '\x1B');
      EXPECT_EQ(mem_display_width(text.data(), text.size()), pos + codepoint_width(piece))
          << std::hex << piece << " at " << std::dec << pos;
    }
  }
}
