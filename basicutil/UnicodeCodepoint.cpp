#include "basicutil/UnicodeCodepoint.h"

#include <cstring>

#include "basicutil/BasicConversions.h"
#include "basicutil/UnicodeTables.h"
#include "libzero/fatal-assert.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#define ARRAY_ELEMENTS(a) (sizeof(a) / sizeof((a)[0]))

namespace morvek {

namespace {

inline bool is_continuation(uint8_t b) { return (b & 0xC0) == 0x80; }

// Quick-walk step by lead byte. A continuation byte at a boundary steps 2: the walkers rely on
// it, so it stays.
constexpr uint8_t make_step(unsigned b) {
  return b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 1;
}
struct StepTable {
  uint8_t step[256];
  constexpr StepTable() : step() {
    for (unsigned b = 0; b < 256; ++b) step[b] = make_step(b);
  }
};
constexpr StepTable utf8_steps;

inline size_t step_of(uint8_t b) { return utf8_steps.step[b]; }

inline size_t ascii_prefix(const uint8_t *p, size_t len) {
  size_t i = 0;
#ifdef __SSE2__
  for (; i + 16 <= len; i += 16) {
    const int high = _mm_movemask_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i)));
    if (high != 0) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(high)));
  }
#else
  for (; i + 16 <= len; i += 16) {
    uint64_t w[2];
    memcpy(w, p + i, 16);
    if (((w[0] | w[1]) & 0x8080808080808080ull) != 0) break;
  }
#endif
  while (i < len && p[i] < 0x80) ++i;
  return i;
}

inline const uint8_t *bytes(const char *p) { return reinterpret_cast<const uint8_t *>(p); }

inline uint8_t ascii_lower(uint8_t c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; }
inline uint8_t ascii_upper(uint8_t c) { return c >= 'a' && c <= 'z' ? c - 32 : c; }

void append_utf8bytes(Str &out, uint32_t u) {
  char buf[4];
  size_t n = 0;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const uint8_t b = static_cast<uint8_t>(u >> shift);
    if (b != 0 || n != 0 || shift == 0) buf[n++] = static_cast<char>(b);
  }
  out.append(buf, n);
}

}  // namespace

uint32_t codepoint_to_utf8bytes(uint32_t cp) {
  MV_ASSERT(cp >= 0x80);
  MV_ASSERT(cp <= 0x10FFFF);
  if (cp < 0x800) return (0xC0 | cp >> 6) << 8 | (0x80 | (cp & 0x3F));
  if (cp < 0x10000)
    return (0xE0 | cp >> 12) << 16 | (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
  return (0xF0 | cp >> 18) << 24 | (0x80 | (cp >> 12 & 0x3F)) << 16 |
         (0x80 | (cp >> 6 & 0x3F)) << 8 | (0x80 | (cp & 0x3F));
}

uint32_t utf8bytes_to_codepoint(uint32_t u) {
  // Tested from the top so that a value in a gap between the forms trips an assertion.
  if (u >= 0xF0808080) {
    MV_ASSERT(u <= 0xF48FBFBF);
    return (u >> 24 & 0x07) << 18 | (u >> 16 & 0x3F) << 12 | (u >> 8 & 0x3F) << 6 | (u & 0x3F);
  }
  if (u > 0xE0807F) {
    MV_ASSERT(u <= 0xEFBFBF);
    return (u >> 16 & 0x0F) << 12 | (u >> 8 & 0x3F) << 6 | (u & 0x3F);
  }
  if (u >= 0xC280) {
    MV_ASSERT(u <= 0xDFBF);
    return (u >> 8 & 0x1F) << 6 | (u & 0x3F);
  }
  MV_ASSERT(u < 0x80);
  return u;
}

bool UnicodeCodepoint::_accumulateUtf8Byte(uint8_t by) {
  if (at_ground_state()) {
    MV_ASSERT(by >= 0x80);
    if (by >= 0xC2 && by <= 0xF4) _cp = uint32_t{by} << 24;
    return false;
  }
  if (!is_continuation(by)) {
    // The broken sequence is dropped; the byte is judged on its own.
    if (by < 0x80) {
      _cp = by;
      return true;
    }
    _cp = by >= 0xC2 && by <= 0xF4 ? uint32_t{by} << 24 : by;
    return false;
  }
  const uint32_t lead = _cp >> 24;
  const uint32_t second = _cp >> 16 & 0xFF;
  const uint32_t third = _cp >> 8 & 0xFF;
  if (lead < 0xE0) {
    _cp = (lead & 0x1F) << 6 | (by & 0x3F);
    MV_ASSERT(_cp >= 0x80);
    MV_ASSERT(_cp <= 0x7FF);
    return true;
  }
  if (second == 0) {
    _cp |= uint32_t{by} << 16;
    return false;
  }
  if (lead < 0xF0) {
    _cp = (lead & 0x0F) << 12 | (second & 0x3F) << 6 | (by & 0x3F);
    MV_ASSERT(_cp <= 0xFFFF);
    if ((_cp >= 0xD800 && _cp <= 0xDFFF) || _cp < 0x800) return false;
    MV_ASSERT(_cp >= 0x800);
    return true;
  }
  if (third == 0) {
    _cp |= uint32_t{by} << 8;
    MV_ASSERT(_cp >= 0xF0000000);
    MV_ASSERT(_cp <= 0xF4FFFFFF);
    return false;
  }
  if ((lead & 0xF8) != 0xF0 || !is_continuation(second) || !is_continuation(third)) {
    _cp = by;
    return false;
  }
  _cp = (lead & 0x07) << 18 | (second & 0x3F) << 12 | (third & 0x3F) << 6 | (by & 0x3F);
  MV_ASSERT(at_ground_state());
  return _cp >= 0x10000 && _cp <= 0x10FFFF;
}

unsigned Utf8CodepointWriter::_set(uint32_t codepoint) {
  MV_ASSERT(codepoint >= 0x80);
  if (codepoint < 0x800) {
    _bytes[0] = static_cast<char>(0xC0 | codepoint >> 6);
    _bytes[1] = static_cast<char>(0x80 | (codepoint & 0x3F));
    return 2;
  }
  if (codepoint < 0x10000) {
    _bytes[0] = static_cast<char>(0xE0 | codepoint >> 12);
    _bytes[1] = static_cast<char>(0x80 | (codepoint >> 6 & 0x3F));
    _bytes[2] = static_cast<char>(0x80 | (codepoint & 0x3F));
    return 3;
  }
  if (codepoint <= 0x10FFFF) {
    _bytes[0] = static_cast<char>(0xF0 | codepoint >> 18);
    _bytes[1] = static_cast<char>(0x80 | (codepoint >> 12 & 0x3F));
    _bytes[2] = static_cast<char>(0x80 | (codepoint >> 6 & 0x3F));
    _bytes[3] = static_cast<char>(0x80 | (codepoint & 0x3F));
    return 4;
  }
  return 0;
}

bool popCodepoint(StrSegment &segment, uint32_t &cp) {
  if (segment._len == 0) return false;
  const uint8_t *p = bytes(segment._data);
  const size_t len = segment._len;
  if (p[0] < 0x80) {
    cp = p[0];
    ++segment._data;
    --segment._len;
    return true;
  }
  // Windows instead of lead classification: each join subtracts the marker bits a proper lead
  // would carry, so overlong forms fall below the window and leads above 0xF4 rise above it.
  uint32_t v = p[0];
  static constexpr uint32_t offset[5] = {0, 0, 0x3080, 0xE2080, 0x3C82080};
  static constexpr uint32_t low[5] = {0, 0, 0x80, 0x800, 0x10000};
  static constexpr uint32_t high[5] = {0, 0, 0x7FF, 0xFFFF, 0x10FFFF};
  for (size_t n = 2; n <= 4; ++n) {
    if (len < n || !is_continuation(p[n - 1])) return false;
    v = (v << 6) + p[n - 1];
    const uint32_t c = v - offset[n];
    if (c >= low[n] && c <= high[n]) {
      cp = c;
      segment._data += n;
      segment._len -= n;
      return true;
    }
  }
  return false;
}

bool isValidUtf8(const char *data, size_t len) {
  const uint8_t *p = bytes(data);
  const uint8_t *const end = p + len;
  while (p < end) {
    const uint8_t c = *p;
    if (c < 0x80) {
      p += ascii_prefix(p, static_cast<size_t>(end - p));
      continue;
    }
    const size_t left = static_cast<size_t>(end - p);
    if (c < 0xC2) return false;
    if (c < 0xE0) {
      if (left < 2 || !is_continuation(p[1])) return false;
      p += 2;
    } else if (c < 0xF0) {
      if (left < 3 || !is_continuation(p[1]) || !is_continuation(p[2])) return false;
      if ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] > 0x9F)) return false;
      p += 3;
    } else if (c < 0xF5) {
      // The second byte is only held to the bounds after 0xF0 and 0xF4; callers depend on
      // the looseness.
      if (left < 4 || !is_continuation(p[2]) || !is_continuation(p[3])) return false;
      if ((c == 0xF0 && p[1] < 0x90) || (c == 0xF4 && p[1] > 0x8F)) return false;
      p += 4;
    } else {
      return false;
    }
  }
  return true;
}

size_t mem_ascii_prefix_length(const char *data, size_t len) {
  return ascii_prefix(bytes(data), len);
}

size_t mem_count_utf8_codepoints(const char *data, size_t len) {
  if (len == 0) return 0;
  const uint8_t *d = bytes(data);
  const size_t n = len;
  const size_t i = ascii_prefix(d, n);
  if (i == n) return n;
  MV_ASSERT(i < n);
  size_t count = i + 1;
  size_t p = i + step_of(d[i]);
  while (p < n) {
    if (d[p] < 0x80) {
      const size_t run = ascii_prefix(d + p, n - p);
      count += run;
      p += run;
      continue;
    }
    ++count;
    p += step_of(d[p]);
  }
  return count;
}

void utf8_character_count_truncate(StrSegment &segment, size_t n) {
  using size_type = StrSegment::size_type;
  if (n >= segment._len) return;
  const char *const _data = segment._data;
  size_type &_len = segment._len;
  const uint8_t *p = bytes(_data);
  const uint8_t *const pend = p + _len;
  const size_t ascii = ascii_prefix(p, n);
  if (ascii == n) {
    _len = n;
    return;
  }
  p += ascii;
  n -= ascii;
  MV_ASSERT(pend > p);
  while (n > 0) {
    const size_t step = step_of(*p);
    if (step > static_cast<size_t>(pend - p)) {
      _len = static_cast<size_type>(p - bytes(_data));  // drop the broken tail
      return;
    }
    p += step;
    --n;
    if (p == pend) return;
  }
  MV_ASSERT(_len >= (size_type)(p - bytes(_data)));
  _len = static_cast<size_type>(p - bytes(_data));
}

size_t utf8ByteTruncate(StrSegment &segment, size_t n) {
  if (segment._len <= n) return segment._len;
  const uint8_t *d = bytes(segment._data);
  size_t cut = n;
  while (cut > 0 && is_continuation(d[cut])) --cut;
  segment._len = cut;
  return cut;
}

bool utf8CharacterRange(const char *data, size_t len, size_t start, size_t count, size_t &first,
                        size_t &last) {
  const uint8_t *d = bytes(data);
  size_t off = 0;
  for (size_t k = 0; k < start; ++k) {
    if (off >= len) return false;
    off += step_of(d[off]);
  }
  if (count >= len) {
    first = off;
    last = len;
    return true;
  }
  first = off;
  if (count == 0) {
    last = off;
    return true;
  }
  for (size_t k = 0; k < count; ++k) {
    if (off >= len) {
      last = len;
      return true;
    }
    off += step_of(d[off]);
  }
  last = off;
  return true;
}

// ---- character properties and case ----

uint32_t flags_from_utf8bytes(uint32_t utf8bytes) {
  MV_ASSERT(utf8bytes >= 0xC280);
  size_t lo = 0, hi = utf8_properties_count - 1;
  while (lo <= hi) {
    const size_t m = (lo + hi) / 2;
    if (utf8_properties[m].utf8bytes > utf8bytes) {
      MV_ASSERT(m > 0);
      hi = m - 1;
      continue;
    }
    if (m + 1 == utf8_properties_count || utf8_properties[m + 1].utf8bytes > utf8bytes)
      return utf8_properties[m].flags;
    lo = m + 1;
  }
  return 0;
}

namespace {

inline uint32_t flags_of_codepoint(uint32_t cp) {
  return flags_from_utf8bytes(codepoint_to_utf8bytes(cp));
}
inline bool ascii_alpha(uint32_t c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
inline bool ascii_digit(uint32_t c) { return c >= '0' && c <= '9'; }
inline bool ascii_graph(uint32_t c) { return c > 0x20 && c < 0x7F; }

}  // namespace

bool UnicodeCodepoint::isAlnum() const {
  if (_cp < 0x80) return ascii_alpha(_cp) || ascii_digit(_cp);
  return (flags_of_codepoint(_cp) & (UNICODE_LETTER | UNICODE_DIGIT)) != 0;
}

bool UnicodeCodepoint::isAlpha() const {
  if (_cp < 0x80) return ascii_alpha(_cp);
  return (flags_of_codepoint(_cp) & UNICODE_LETTER) != 0;
}

bool UnicodeCodepoint::isCntrl() const {
  if (_cp < 0x80) return _cp < 0x20 || _cp == 0x7F;
  return (flags_of_codepoint(_cp) & UNICODE_CONTROL) != 0;
}

bool UnicodeCodepoint::isGraph() const {
  if (_cp < 0x80) return ascii_graph(_cp);
  return (flags_of_codepoint(_cp) & (UNICODE_LETTER | UNICODE_DIGIT | UNICODE_PUNCTUATION)) != 0;
}

bool UnicodeCodepoint::isPrint() const {
  if (_cp < 0x80) return _cp >= 0x20 && _cp < 0x7F;
  return (flags_of_codepoint(_cp) & UNICODE_PRINTABLE) != 0;
}

bool UnicodeCodepoint::isPunct() const {
  if (_cp < 0x80) return ascii_graph(_cp) && !ascii_alpha(_cp) && !ascii_digit(_cp);
  return (flags_of_codepoint(_cp) & UNICODE_PUNCTUATION) != 0;
}

bool UnicodeCodepoint::isSpace() const {
  if (_cp < 0x80) return _cp == ' ' || (_cp >= '\t' && _cp <= '\r');
  return (flags_of_codepoint(_cp) & UNICODE_SPACE) != 0;
}

bool UnicodeCodepoint::isLower() const {
  if (_cp < 0x80) return _cp >= 'a' && _cp <= 'z';
  const uint32_t kind = flags_of_codepoint(_cp) & UNICODE_CASE_KIND;
  return kind == UNICODE_CASE_LOWER || (kind == UNICODE_CASE_ALTERNATING && (_cp & 1) != 0);
}

bool UnicodeCodepoint::isUpper() const {
  if (_cp < 0x80) return _cp >= 'A' && _cp <= 'Z';
  const uint32_t kind = flags_of_codepoint(_cp) & UNICODE_CASE_KIND;
  return kind == UNICODE_CASE_UPPER || (kind == UNICODE_CASE_ALTERNATING && (_cp & 1) == 0);
}

void UnicodeCodepoint::toLower() {
  if (_cp < 0x80) {
    _cp = ascii_lower(static_cast<uint8_t>(_cp));
    return;
  }
  const uint32_t u = codepoint_to_utf8bytes(_cp);
  const uint32_t flags = flags_from_utf8bytes(u);
  switch (flags & UNICODE_CASE_KIND) {
    case UNICODE_CASE_UPPER:
      _cp = utf8bytes_to_codepoint(u ^ (flags & UNICODE_CASE_MASK));
      break;
    case UNICODE_CASE_ALTERNATING:
      _cp |= 1;
      break;
  }
}

void UnicodeCodepoint::toUpper() {
  if (_cp < 0x80) {
    _cp = ascii_upper(static_cast<uint8_t>(_cp));
    return;
  }
  const uint32_t u = codepoint_to_utf8bytes(_cp);
  const uint32_t flags = flags_from_utf8bytes(u);
  switch (flags & UNICODE_CASE_KIND) {
    case UNICODE_CASE_LOWER:
      _cp = utf8bytes_to_codepoint(u ^ (flags & UNICODE_CASE_MASK));
      break;
    case UNICODE_CASE_ALTERNATING:
      _cp &= ~uint32_t{1};
      break;
  }
}

namespace {

// One character for the caseless comparison: a well-formed sequence by its lead, anything else
// one byte. Overlong forms and surrogates aren't looked for.
inline uint32_t take_caseless_char(const uint8_t *&p, const uint8_t *end) {
  const uint8_t c = *p;
  if (c >= 0xC2 && c <= 0xF4) {
    const size_t extra = c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    if (static_cast<size_t>(end - p) > extra) {
      uint32_t v = c;
      size_t k = 1;
      for (; k <= extra && is_continuation(p[k]); ++k) v = v << 8 | p[k];
      if (k > extra) {
        p += extra + 1;
        return v;
      }
    }
  }
  ++p;
  return c;
}

inline uint32_t fold_caseless(uint32_t v) {
  if (v >= UNICODE_FIRST_TABLE_KEY) {
    const uint32_t flags = flags_from_utf8bytes(v);
    switch (flags & UNICODE_CASE_KIND) {
      case UNICODE_CASE_UPPER:
        return v ^ (flags & UNICODE_CASE_MASK);
      case UNICODE_CASE_ALTERNATING:
        return v | 1;
      default:
        return v;
    }
  }
  return v >= 'A' && v <= 'Z' ? v + 32 : v;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define MORVEK_CASELESS_AVX2 1
// The C library's strcasecmp runs on AVX2 where the processor has it, and so does this.
const bool caseless_avx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2") != 0);

// caseless_ascii_prefix for n >= 32, 64 bytes a round. 'A' to 'Z' are moved to the bottom of
// the signed range, where one compare finds them. A byte is good when it is ASCII on both sides
// and equal once folded; a last block may overlap bytes already found good, which can't change
// the answer.
__attribute__((target("avx2"))) size_t caseless_ascii_prefix_avx2(const uint8_t *a,
                                                                  const uint8_t *b, size_t n) {
  const __m256i shift = _mm256_set1_epi8(static_cast<char>(0x80 - 'A'));
  const __m256i past_z = _mm256_set1_epi8(static_cast<char>(-128 + 26));
  const __m256i case_bit = _mm256_set1_epi8(0x20);
  // High bit set in each good byte.
  auto good = [&](size_t at) __attribute__((target("avx2"))) {
    const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + at));
    const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + at));
    const __m256i fa = _mm256_or_si256(
        va, _mm256_and_si256(_mm256_cmpgt_epi8(past_z, _mm256_add_epi8(va, shift)), case_bit));
    const __m256i fb = _mm256_or_si256(
        vb, _mm256_and_si256(_mm256_cmpgt_epi8(past_z, _mm256_add_epi8(vb, shift)), case_bit));
    return _mm256_andnot_si256(_mm256_or_si256(va, vb), _mm256_cmpeq_epi8(fa, fb));
  };
  auto first_bad = [](__m256i g) __attribute__((target("avx2"))) {
    return static_cast<size_t>(__builtin_ctz(~static_cast<unsigned>(_mm256_movemask_epi8(g))));
  };
  size_t i = 0;
  for (; i + 64 <= n; i += 64) {
    const __m256i g0 = good(i), g1 = good(i + 32);
    if (static_cast<unsigned>(_mm256_movemask_epi8(_mm256_and_si256(g0, g1))) != 0xFFFFFFFFu) {
      if (static_cast<unsigned>(_mm256_movemask_epi8(g0)) != 0xFFFFFFFFu) return i + first_bad(g0);
      return i + 32 + first_bad(g1);
    }
  }
  if (i + 32 <= n) {
    const __m256i g = good(i);
    if (static_cast<unsigned>(_mm256_movemask_epi8(g)) != 0xFFFFFFFFu) return i + first_bad(g);
    i += 32;
  }
  if (i < n) {
    const __m256i g = good(n - 32);
    if (static_cast<unsigned>(_mm256_movemask_epi8(g)) != 0xFFFFFFFFu) return n - 32 + first_bad(g);
  }
  return n;
}
#endif

// Bytes from the front that are ASCII on both sides and equal once folded: those decide nothing.
// This form, for n < 32, makes no call and needs no frame.
__attribute__((always_inline)) inline size_t caseless_ascii_prefix_short(const uint8_t *a,
                                                                         const uint8_t *b,
                                                                         size_t n) {
#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  // A byte is good when both sides are the same ASCII byte, or the same letter in either case:
  // the sides differ in the case bit alone and lhs, with that bit set, lies in 'a' to 'z'. That
  // takes one range test where folding both sides takes two. Short texts are loaded in
  // overlapping halves, or in the low bytes of a zeroed block, so that nothing past the end is
  // read; zeros are good on both sides.
  auto good = [](__m128i va, __m128i vb) {
    const __m128i case_bit = _mm_set1_epi8(0x20);
    const __m128i diff = _mm_xor_si128(va, vb);
    const __m128i same_ascii = _mm_andnot_si128(va, _mm_cmpeq_epi8(diff, _mm_setzero_si128()));
    const __m128i letter = _mm_cmpgt_epi8(
        _mm_set1_epi8(static_cast<char>(-128 + 26)),
        _mm_add_epi8(_mm_or_si128(va, case_bit), _mm_set1_epi8(static_cast<char>(0x80 - 'a'))));
    const __m128i other_case = _mm_and_si128(letter, _mm_cmpeq_epi8(diff, case_bit));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(same_ascii, other_case)));
  };
  auto load16 = [](const uint8_t *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
  };
  auto halves = [](const uint8_t *p, size_t len) {
    return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)),
                              _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p + len - 8)));
  };
  unsigned g;
  if (n >= 16) {
    g = good(load16(a), load16(b));
    if (g != 0xFFFF) return static_cast<size_t>(__builtin_ctz(~g));
    // A text of exactly one block needs no second look.
    if (n == 16) return n;
    g = good(load16(a + n - 16), load16(b + n - 16));
    return g != 0xFFFF ? n - 16 + static_cast<size_t>(__builtin_ctz(~g)) : n;
  }
  if (n >= 8) {
    // A bad byte in the upper half that the lower half also holds would have shown there.
    g = good(halves(a, n), halves(b, n));
    if (g == 0xFFFF) return n;
    const size_t k = static_cast<size_t>(__builtin_ctz(~g));
    return k < 8 ? k : n - 16 + k;
  }
  if (n == 0) return 0;
  g = good(_mm_cvtsi64_si128(static_cast<long long>(loadLowBytes(a, n))),
           _mm_cvtsi64_si128(static_cast<long long>(loadLowBytes(b, n))));
  return g != 0xFFFF ? static_cast<size_t>(__builtin_ctz(~g)) : n;
#else
  size_t i = 0;
  while (i < n && (a[i] | b[i]) < 0x80 && ascii_lower(a[i]) == ascii_lower(b[i])) ++i;
  return i;
#endif
}

inline size_t caseless_ascii_prefix(const uint8_t *a, const uint8_t *b, size_t n) {
#if defined(MORVEK_CASELESS_AVX2)
  if (n >= 32 && caseless_avx2) return caseless_ascii_prefix_avx2(a, b, n);
#endif
  return caseless_ascii_prefix_short(a, b, n);
}

// The comparison from a byte that is not ASCII on both sides, character by character.
__attribute__((noinline)) int compare_caseless_from(const uint8_t *lhs, const uint8_t *lhs_end,
                                                    const uint8_t *rhs, const uint8_t *rhs_end) {
  for (;;) {
    if (lhs >= lhs_end) {
      MV_ASSERT(lhs == lhs_end);
      if (rhs >= rhs_end) {
        MV_ASSERT(rhs == rhs_end);
        return 0;
      }
      return -1;
    }
    if (rhs >= rhs_end) {
      MV_ASSERT(rhs == rhs_end);
      return 1;
    }
    const uint8_t a = *lhs, b = *rhs;
    if ((a | b) < 0x80) {
      const uint8_t fa = ascii_lower(a), fb = ascii_lower(b);
      if (fa != fb) return fa < fb ? -1 : 1;
      // Equal so far: take the rest of the ASCII run in blocks.
      const size_t left =
          static_cast<size_t>(lhs_end - lhs < rhs_end - rhs ? lhs_end - lhs : rhs_end - rhs);
      const size_t same = caseless_ascii_prefix(lhs, rhs, left);
      lhs += same;
      rhs += same;
      continue;
    }
    const uint32_t l = take_caseless_char(lhs, lhs_end);
    const uint32_t r = take_caseless_char(rhs, rhs_end);
    if (l == r) continue;
    const uint32_t fl = fold_caseless(l);
    if (fl == r) continue;
    const uint32_t fr = fold_caseless(r);
    if (fl == fr) continue;
    return fl < fr ? -1 : 1;
  }
}

// The answer once the first same bytes are ASCII and equal but for case.
inline int compare_caseless_after(const uint8_t *lhs, size_t lhsLen, const uint8_t *rhs,
                                  size_t rhsLen, size_t same) {
  if (same == (lhsLen < rhsLen ? lhsLen : rhsLen))
    return lhsLen == rhsLen ? 0 : (lhsLen < rhsLen ? -1 : 1);
  const uint8_t a = lhs[same], b = rhs[same];
  if ((a | b) < 0x80) return ascii_lower(a) < ascii_lower(b) ? -1 : 1;
  return compare_caseless_from(lhs + same, lhs + lhsLen, rhs + same, rhs + rhsLen);
}

__attribute__((noinline)) int compare_caseless_long(const uint8_t *lhs, size_t lhsLen,
                                                    const uint8_t *rhs, size_t rhsLen) {
  return compare_caseless_after(lhs, lhsLen, rhs, rhsLen,
                                caseless_ascii_prefix(lhs, rhs, lhsLen < rhsLen ? lhsLen : rhsLen));
}

}  // namespace

// ASCII text settles in the block scan, the first ASCII difference too; the character loop
// takes over at a high byte. Short texts go without a call, so without a frame.
int mem_compare_caseless(const char *lhs_bytes, size_t lhsLen, const char *rhs_bytes,
                         size_t rhsLen) {
  // An empty lhs needs no test of its own: the scan finds nothing and the lengths decide.
  const uint8_t *lhs = bytes(lhs_bytes);
  const uint8_t *rhs = bytes(rhs_bytes);
  const size_t n = lhsLen < rhsLen ? lhsLen : rhsLen;
  if (n >= 32) return compare_caseless_long(lhs, lhsLen, rhs, rhsLen);
  return compare_caseless_after(lhs, lhsLen, rhs, rhsLen, caseless_ascii_prefix_short(lhs, rhs, n));
}

int mem_compare_caseless(const char *lhs, size_t lhsLen, const char *rhs) {
  return mem_compare_caseless(lhs, lhsLen, rhs, rhs ? strlen(rhs) : 0);
}

namespace {

void convert_case(StrSegment src, Str &dst, bool upper) {
  Str out;
  out.reserve(src._len);
  const uint8_t *p = bytes(src._data);
  const uint8_t *const end = p + src._len;
  while (p < end) {
    const uint8_t c = *p;
    if (c < 0x80) {
      out.push_back(static_cast<char>(upper ? ascii_upper(c) : ascii_lower(c)));
      ++p;
      continue;
    }
    if (p + 1 >= end || !is_continuation(p[1])) {
      out.push_back(static_cast<char>(c));
      ++p;
      continue;
    }
    // An over-long run keeps only its last four bytes, as the value is a 32-bit window.
    uint32_t v = c;
    const uint8_t *q = p + 1;
    for (; q < end && is_continuation(*q); ++q) v = v << 8 | *q;
    if (v < UNICODE_FIRST_TABLE_KEY) {
      out.push_back(static_cast<char>(c));
      ++p;
      continue;
    }
    const uint32_t flags = flags_from_utf8bytes(v);
    const uint32_t kind = flags & UNICODE_CASE_KIND;
    if (kind == UNICODE_CASE_ALTERNATING)
      v = upper ? v & ~uint32_t{1} : v | 1;
    else if (kind == (upper ? UNICODE_CASE_LOWER : UNICODE_CASE_UPPER))
      v ^= flags & UNICODE_CASE_MASK;
    append_utf8bytes(out, v);
    p = q;
  }
  dst.swap(out);
}

}  // namespace

void utf8ToUpper(StrSegment src, Str &dst) { convert_case(src, dst, true); }
void utf8ToLower(StrSegment src, Str &dst) { convert_case(src, dst, false); }

// ---- combining marks ----

uint64_t combiner_flag_for_utf8bytes(uint32_t u) {
  if (u < utf8_combiner_marks[0].utf8bytes ||
      u > utf8_combiner_marks[ARRAY_ELEMENTS(utf8_combiner_marks) - 1].utf8bytes)
    return 0;
  size_t b = 0, e = ARRAY_ELEMENTS(utf8_combiner_marks) - 1;
  while (b <= e) {
    MV_ASSERT(e >= b);
    MV_ASSERT(b < ARRAY_ELEMENTS(utf8_combiner_marks));
    const size_t m = (b + e) / 2;
    const uint32_t key = utf8_combiner_marks[m].utf8bytes;
    if (key == u) return utf8_combiner_marks[m].flag;
    if (key < u) {
      b = m + 1;
    } else {
      if (m == 0) break;
      e = m - 1;
    }
  }
  return 0;
}

uint32_t replacement_for_utf8bytes(uint32_t base, uint64_t flags) {
  const Utf8Combiner *mu = nullptr;
  size_t b = 0, e = ARRAY_ELEMENTS(utf8_combiners) - 1;
  while (b <= e) {
    MV_ASSERT(e >= b);
    MV_ASSERT(b < ARRAY_ELEMENTS(utf8_combiners));
    const size_t m = (b + e) / 2;
    const uint64_t key = utf8_combiners[m].key;
    if (key == flags) {
      mu = &utf8_combiners[m];
      break;
    }
    if (key < flags) {
      b = m + 1;
    } else {
      if (m == 0) break;
      e = m - 1;
    }
  }
  if (mu == nullptr) return 0;
  b = 0;
  e = mu->nrules - 1;
  while (b <= e) {
    MV_ASSERT(e >= b);
    MV_ASSERT(b < mu->nrules);
    const size_t m = (b + e) / 2;
    const uint32_t key = mu->rules[m].base;
    if (key == base) return mu->rules[m].replacement;
    if (key < base) {
      b = m + 1;
    } else {
      if (m == 0) break;
      e = m - 1;
    }
  }
  return 0;
}

namespace {

// U+01D5 and U+1E7A (and their small forms) have the same marks in a different order, which a
// set of mark bits can't tell apart: the order is read off the run itself.
uint32_t u1d5_and_u1d6_workaround(uint32_t utf8bytes, const uint8_t *p) {
  MV_ASSERT((utf8bytes == 0xC795 && *p == 'U') || (utf8bytes == 0xC796 && *p == 'u'));
  if (p[2] == 0x84) return utf8bytes + 0xE0F225;  // macron first: U+1E7A / U+1E7B
  return utf8bytes;
}

}  // namespace

void resolveUnicodeCombiningMarks(Str &s) {
  if (s.empty() || ascii_prefix(bytes(s.data()), s.size()) == s.size()) return;
  Str out;
  out.reserve(s.size());
  const uint8_t *p = bytes(s.data());
  const uint8_t *const pend = p + s.size();
  MV_ASSERT(p < pend);
  const uint8_t *run = p;
  uint32_t base = 0;
  uint64_t flags = 0;
  bool changed = false;

  auto resolve_run = [&]() {
    uint32_t replacement = flags != 0 ? replacement_for_utf8bytes(base, flags) : 0;
    if (replacement == 0) {
      out.append(reinterpret_cast<const char *>(run), static_cast<size_t>(p - run));
      return;
    }
    if (replacement == 0xC795 || replacement == 0xC796)
      replacement = u1d5_and_u1d6_workaround(replacement, run);
    append_utf8bytes(out, replacement);
    changed = true;
  };

  while (p < pend) {
    const uint8_t c = *p;
    const size_t left = static_cast<size_t>(pend - p);
    size_t n = 1;
    if (c >= 0xC2) {
      if (c < 0xE0) {
        if (left >= 2) n = 2;
      } else if (c < 0xF0) {
        if (left >= 3) n = 3;
      } else if (c <= 0xF4) {
        if (left >= 4) n = 4;
      }
    }
    uint32_t u = 0;
    for (size_t k = 0; k < n; ++k) u = u << 8 | p[k];
    const uint64_t flag = combiner_flag_for_utf8bytes(u);
    if (flag != 0 && base != 0) {
      flags |= flag;
      p += n;
      continue;
    }
    resolve_run();
    run = p;
    base = u;
    flags = 0;
    p += n;
  }
  MV_ASSERT(p == pend);
  resolve_run();
  if (changed) s.swap(out);
}

}  // namespace morvek
