// Terminal widths of code points and of UTF-8 text.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "libzero/codepoint-width.h"

namespace {

std::string U(uint32_t cp) {
  std::string s;
  if (cp < 0x80) {
    s += static_cast<char>(cp);
  } else if (cp < 0x800) {
    s += static_cast<char>(0xC0 | cp >> 6);
    s += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    s += static_cast<char>(0xE0 | cp >> 12);
    s += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    s += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    s += static_cast<char>(0xF0 | cp >> 18);
    s += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    s += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    s += static_cast<char>(0x80 | (cp & 0x3F));
  }
  return s;
}

}  // namespace

TEST(CodepointWidth, SingleCodePoints) {
  const std::vector<std::pair<uint32_t, unsigned>> cases = {
      {0x00, 0},     {0x1F, 0},     {0x20, 1},     {0x7E, 1},     {0x7F, 1},  // DEL: not the table
      {0x80, 0},     {0x9F, 0},     {0xA0, 1},     {0xAD, 0},     {0xAE, 1},     {0x300, 0},
      {0x36F, 0},    {0x370, 1},    {0x1100, 2},   {0x115F, 2},   {0x1160, 1},   {0x200B, 0},
      {0x4E00, 2},   {0xAC00, 2},   {0xD7A3, 2},   {0xD7A4, 1},   {0xFF01, 2},   {0xFF61, 1},
      {0x1F600, 1},  {0x20000, 2},  {0x2FFFD, 2},  {0x2FFFE, 1},  {0xF0000, 0},  {0xF0001, 1},
      {0x10FFFD, 0}, {0x10FFFE, 1}, {0x10FFFF, 1}, {0x110000, 0}, {0x1FFFFF, 0}, {0xFFFFFFFF, 0},
  };
  for (const auto &[cp, width] : cases) EXPECT_EQ(codepoint_width(cp), width) << std::hex << cp;
}

TEST(DisplayWidth, Texts) {
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"", 0},
      {"abc", 3},
      {"a\tb\n", 2},
      {"a" + U(0x6F22), 3},
      {"ab\xE6", 2},  // cut off: what came before counts
      {"ab\xE6\xBC", 2},
      {"e" + U(0x301), 1},       // the mark takes no column
      {"\x80\x80x", 1},          // a stray continuation swallows the next byte, width 0
      {"\xF8\x88\x80\x80z", 1},  // lead above 0xF4: out of range
      {U(0x1F600) + U(0x4E00), 3},
      {"\xC1\xA1", 1},  // an overlong 'a' is not rejected
  };
  for (const auto &[text, width] : cases)
    EXPECT_EQ(mem_display_width(text.data(), text.size()), width) << testing::PrintToString(text);
}

TEST(DisplayWidth, SumsCodePointWidthsAtEveryBlockOffset) {
  const std::vector<uint32_t> pieces = {'x', 0x01, 0x7F, 0xE9, 0x300, 0x4E00, 0x1F600, 0xAD};
  for (uint32_t piece : pieces) {
    for (size_t pos = 0; pos < 40; ++pos) {
      const std::string text = std::string(pos, 'a') + U(piece) + std::string(37 - pos % 5, '\x1B');
      const size_t expected = pos + codepoint_width(piece);
      EXPECT_EQ(mem_display_width(text.data(), text.size()), expected)
          << std::hex << piece << " at " << std::dec << pos;
    }
  }
}
