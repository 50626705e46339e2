#include "libzero/codepoint-width.h"

#include "libzero/codepoint-width-table.h"
#include "libzero/fatal-assert.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace {

// The table row whose run holds `codepoint`, from 0x80 to 0x10FFFF.
size_t cpwidth_row_index(uint32_t codepoint) {
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
    if (cpwidth_row_codepoint(cpwidth_table[m + 1]) > codepoint) return m;
    MV_ASSERT(codepoint > mcp);
    s = m + 1;
  }
}

}  // namespace

unsigned codepoint_width(uint32_t codepoint) {
  // ASCII never reaches the table, whose first row would make DEL zero wide.
  if (codepoint <= 0x7F) return codepoint < 0x20 ? 0 : 1;
  if (codepoint > 0x10FFFF) return 0;
  return cpwidth_row_width(cpwidth_table[cpwidth_row_index(codepoint)]);
}

size_t mem_display_width(const char *data, size_t len) {
  const unsigned char *p = reinterpret_cast<const unsigned char *>(data);
  size_t width = 0;
  // The runs of the last few table lookups, most recent first: text tends to stay within a
  // script or two (CJK mixes ideographs, kana and punctuation), so most characters need no search.
  struct Run {
    uint32_t first, end;
    unsigned width;
  };
  Run runs[4] = {};
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
    if (cp < 0x80 || cp > 0x10FFFF) {  // overlong forms and values out of range
      width += codepoint_width(cp);
      continue;
    }
    size_t i = 0;
    while (i < 4 && cp - runs[i].first >= runs[i].end - runs[i].first) ++i;
    Run hit;
    if (i < 4) {
      hit = runs[i];
    } else {
      const size_t row = cpwidth_row_index(cp);
      hit = {cpwidth_row_codepoint(cpwidth_table[row]),
             cpwidth_row_codepoint(cpwidth_table[row + 1]), cpwidth_row_width(cpwidth_table[row])};
      i = 3;
    }
    for (; i > 0; --i) runs[i] = runs[i - 1];
    runs[0] = hit;
    width += hit.width;
  }
  return width;
}
