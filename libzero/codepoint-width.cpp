#include "libzero/codepoint-width.h"

#include "libzero/codepoint-width-table.h"
#include "libzero/fatal-assert.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

unsigned codepoint_width(uint32_t codepoint) {
  // ASCII never reaches the table, whose first row would make DEL zero wide.
  if (codepoint <= 0x7F) return codepoint < 0x20 ? 0 : 1;
  if (codepoint > 0x10FFFF) return 0;
  size_t s = 0, e = cpwidth_table_rows - 1;
  for (;;) {
    MV_ASSERT(e >= s);
    const size_t m = (s + e) / 2;
    const uint32_t mcp = cpwidth_row_codepoint(cpwidth_table[m]);
    if (mcp > codepoint) {
      MV_ASSERT(m > 0);
      e = m - 1;
      continue;
    }
    // The sentinel lies above every code point, so row m isn't the last one here.
    if (cpwidth_row_codepoint(cpwidth_table[m + 1]) > codepoint)
      return cpwidth_row_width(cpwidth_table[m]);
    MV_ASSERT(codepoint > mcp);
    s = m + 1;
  }
}

size_t mem_display_width(const char *data, size_t len) {
  const unsigned char *p = reinterpret_cast<const unsigned char *>(data);
  size_t width = 0;
  while (len > 0) {
#ifdef __SSE2__
    if (len >= 16) {
      // Sixteen ASCII bytes at a time: each printable one is a column.
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
      const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(v));
      unsigned printable =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(v, _mm_set1_epi8(0x1F))));
      const unsigned ascii = high == 0 ? 16 : static_cast<unsigned>(__builtin_ctz(high));
      printable &= (1u << ascii) - 1;
      width += static_cast<size_t>(__builtin_popcount(printable));
      p += ascii;
      len -= ascii;
      if (ascii == 16) continue;
    }
#endif
    const unsigned lead = *p++;
    --len;
    if (lead < 0x80) {
      width += lead < 0x20 ? 0 : 1;
      continue;
    }
    const size_t extra = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    if (extra > len) break;
    MV_ASSERT(extra <= len);
    // Taking the lead's marker off by subtraction sends a stray continuation byte or a lead
    // above 0xF4 out of range, where the width is 0.
    static constexpr uint32_t marker[4] = {0, 0xC0, 0xE0, 0xF0};
    uint32_t cp = (uint32_t{lead} - marker[extra]) << (6 * extra);
    for (size_t k = 0; k < extra; ++k) cp += uint32_t{p[k] & 0x3Fu} << (6 * (extra - 1 - k));
    p += extra;
    len -= extra;
    width += codepoint_width(cp);
  }
  return width;
}
