#include "basicutil/Str.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "basicutil/StrVector.h"
#include "basicutil/UnicodeCodepoint.h"
#include "libzero/fatal-assert.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace morvek {

Str &Str::removeAll(char c) {
  erase(std::remove(begin(), end(), c), end());
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Block scans. Each runs 16 bytes at a time where SSE2 exists and must give exactly what its
// byte loop gives, tail included.

namespace {

#if defined(__SSE2__)
inline __m128i load16(const char *p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}
#endif

// Index of the first byte with its high bit set, or len.
size_t firstHighByte(const char *p, size_t len) {
  size_t i = 0;
#if defined(__SSE2__)
  for (; i + 64 <= len; i += 64) {
    __m128i any = _mm_or_si128(_mm_or_si128(load16(p + i), load16(p + i + 16)),
                               _mm_or_si128(load16(p + i + 32), load16(p + i + 48)));
    if (_mm_movemask_epi8(any) != 0) break;
  }
  for (; i + 16 <= len; i += 16) {
    int mask = _mm_movemask_epi8(load16(p + i));
    if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
  }
#endif
  for (; i < len; ++i) {
    if (static_cast<unsigned char>(p[i]) & 0x80) return i;
  }
  return len;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define MORVEK_LINE_END_AVX2 1
// memchr runs on AVX2 where the processor has it, and so does the line-end scan.
const bool line_end_avx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2") != 0);

// firstLineEnd for len >= 32. The aligned loop tests four blocks with one branch, as memchr does:
// a line is often a few hundred bytes, and one branch per 32 costs more than the compares.
__attribute__((target("avx2"))) size_t firstLineEndAvx2(const char *p, size_t len) {
  // A byte is a line end when the table entry for its low nibble is the byte itself: only the
  // entries for 0xA and 0xD hold their own byte, 0xFF matches no byte below 0x80, and bytes
  // from 0x80 up look up zero. One shuffle and one compare where two compares and an or were.
  const __m256i table =
      _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, '\n', -1, -1, '\r', -1, -1, -1, -1,
                       -1, -1, -1, -1, -1, -1, -1, -1, '\n', -1, -1, '\r', -1, -1);
  auto hits = [&](__m256i x) __attribute__((target("avx2"))) {
    return _mm256_cmpeq_epi8(_mm256_shuffle_epi8(table, x), x);
  };
  auto mask = [](__m256i h) __attribute__((target("avx2"))) {
    return static_cast<unsigned>(_mm256_movemask_epi8(h));
  };
  auto at = [&](size_t i) __attribute__((target("avx2"))) {
    return hits(_mm256_load_si256(reinterpret_cast<const __m256i *>(p + i)));
  };
  unsigned m = mask(hits(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(p))));
  if (m != 0) return static_cast<size_t>(__builtin_ctz(m));
  size_t i = 32 - (reinterpret_cast<uintptr_t>(p) & 31);
  for (; i + 128 <= len; i += 128) {
    const __m256i h0 = at(i), h1 = at(i + 32), h2 = at(i + 64), h3 = at(i + 96);
    const __m256i any = _mm256_or_si256(_mm256_or_si256(h0, h1), _mm256_or_si256(h2, h3));
    if (_mm256_testz_si256(any, any)) continue;
    const uint64_t lo = mask(h0) | static_cast<uint64_t>(mask(h1)) << 32;
    if (lo != 0) return i + static_cast<size_t>(__builtin_ctzll(lo));
    const uint64_t hi = mask(h2) | static_cast<uint64_t>(mask(h3)) << 32;
    return i + 64 + static_cast<size_t>(__builtin_ctzll(hi));
  }
  for (; i + 32 <= len; i += 32) {
    m = mask(at(i));
    if (m != 0) return i + static_cast<size_t>(__builtin_ctz(m));
  }
  if (i < len) {
    m = mask(hits(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + len - 32))));
    if (m != 0) return len - 32 + static_cast<size_t>(__builtin_ctz(m));
  }
  return len;
}

// countByte for len >= 128: byte lanes count down from zero four blocks at a time and are
// summed before they can wrap.
__attribute__((target("avx2"))) size_t countByteAvx2(const char *p, size_t len, char ch,
                                                     size_t &done) {
  const __m256i needle = _mm256_set1_epi8(ch);
  auto hit = [&](size_t at) __attribute__((target("avx2"))) {
    return _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(p + at)), needle);
  };
  size_t total = 0, i = 0;
  while (i + 128 <= len) {
    const size_t rounds = std::min<size_t>((len - i) / 128, 63);
    __m256i acc = _mm256_setzero_si256();
    for (size_t r = 0; r < rounds; ++r, i += 128) {
      const __m256i four = _mm256_add_epi8(_mm256_add_epi8(hit(i), hit(i + 32)),
                                           _mm256_add_epi8(hit(i + 64), hit(i + 96)));
      acc = _mm256_sub_epi8(acc, four);
    }
    const __m256i sums = _mm256_sad_epu8(acc, _mm256_setzero_si256());
    total += static_cast<size_t>(_mm256_extract_epi64(sums, 0) + _mm256_extract_epi64(sums, 1) +
                                 _mm256_extract_epi64(sums, 2) + _mm256_extract_epi64(sums, 3));
  }
  done = i;
  return total;
}
#endif

// Index of the first CR or LF, or len. Log lines are short, so the first 16 bytes are tested
// before any loop; the loop then reads aligned blocks, which never straddle a cache line, and a
// tail is read as the last 16 bytes (bytes already seen hold no line end, so overlaps are safe).
size_t firstLineEnd(const char *p, size_t len) {
  size_t i = 0;
#if defined(__SSE2__)
  const __m128i cr = _mm_set1_epi8('\r');
  const __m128i lf = _mm_set1_epi8('\n');
  auto hits = [&](__m128i x) {
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(x, cr), _mm_cmpeq_epi8(x, lf))));
  };
  auto aligned = [&](size_t at) {
    return hits(_mm_load_si128(reinterpret_cast<const __m128i *>(p + at)));
  };
#if defined(MORVEK_LINE_END_AVX2)
  if (len >= 32 && line_end_avx2) return firstLineEndAvx2(p, len);
#endif
  if (len >= 16) {
    unsigned m = hits(load16(p));
    if (m != 0) return static_cast<size_t>(__builtin_ctz(m));
    i = 16 - (reinterpret_cast<uintptr_t>(p) & 15);
    for (; i + 32 <= len; i += 32) {
      m = aligned(i) | aligned(i + 16) << 16;
      if (m != 0) return i + static_cast<size_t>(__builtin_ctz(m));
    }
    if (i + 16 <= len) {
      m = aligned(i);
      if (m != 0) return i + static_cast<size_t>(__builtin_ctz(m));
      i += 16;
    }
    if (i < len) {
      m = hits(load16(p + len - 16));
      if (m != 0) return len - 16 + static_cast<size_t>(__builtin_ctz(m));
    }
    return len;
  }
#endif
  for (; i < len; ++i) {
    if (p[i] == '\r' || p[i] == '\n') return i;
  }
  return len;
}

size_t countByte(const char *p, size_t len, char ch) {
  size_t total = 0;
  size_t i = 0;
#if defined(MORVEK_LINE_END_AVX2)
  if (len >= 128 && line_end_avx2) total = countByteAvx2(p, len, ch, i);
#endif
#if defined(__SSE2__)
  const __m128i needle = _mm_set1_epi8(ch);
  const __m128i zero = _mm_setzero_si128();
  auto hit = [&](size_t at) { return _mm_cmpeq_epi8(load16(p + at), needle); };
  auto sumLanes = [&](__m128i acc) {
    __m128i sums = _mm_sad_epu8(acc, zero);
    return static_cast<size_t>(_mm_cvtsi128_si32(sums)) +
           static_cast<size_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
  };
  // Four blocks add at most 4 to a byte lane, so lanes are summed every 63 rounds.
  while (i + 64 <= len) {
    size_t rounds = std::min<size_t>((len - i) / 64, 63);
    __m128i acc = zero;
    for (size_t r = 0; r < rounds; ++r, i += 64) {
      __m128i four =
          _mm_add_epi8(_mm_add_epi8(hit(i), hit(i + 16)), _mm_add_epi8(hit(i + 32), hit(i + 48)));
      acc = _mm_sub_epi8(acc, four);
    }
    total += sumLanes(acc);
  }
  __m128i acc = zero;
  for (; i + 16 <= len; i += 16) acc = _mm_sub_epi8(acc, hit(i));
  total += sumLanes(acc);
#endif
  for (; i < len; ++i) total += p[i] == ch;
  return total;
}

// Flips the case of ASCII letters in [lo, hi] up to the first high byte, whose index (or len)
// it returns.
size_t asciiCaseFlip(char *p, size_t len, char lo, char hi) {
  size_t i = 0;
#if defined(__SSE2__)
  const __m128i below = _mm_set1_epi8(static_cast<char>(lo - 1));
  const __m128i above = _mm_set1_epi8(static_cast<char>(hi + 1));
  const __m128i flip = _mm_set1_epi8(0x20);
  for (; i + 16 <= len; i += 16) {
    __m128i x = load16(p + i);
    if (_mm_movemask_epi8(x) != 0) break;
    __m128i in_range = _mm_and_si128(_mm_cmpgt_epi8(x, below), _mm_cmplt_epi8(x, above));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(p + i),
                     _mm_xor_si128(x, _mm_and_si128(in_range, flip)));
  }
#endif
  for (; i < len; ++i) {
    char c = p[i];
    if (static_cast<unsigned char>(c) & 0x80) return i;
    if (c >= lo && c <= hi) p[i] = static_cast<char>(c ^ 0x20);
  }
  return len;
}

// Past the first non-ASCII byte the code-point tables decide; the converted ASCII prefix maps to
// itself, so the whole string goes through.
void convertCaseNonAscii(Str &s, bool upper) {
  Str out;
  if (upper) {
    utf8ToUpper(s, out);
  } else {
    utf8ToLower(s, out);
  }
  s.swap(out);
}

inline bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

ByteSet byteSetOf(const StrSegment &chars) {
  ByteSet set;
  set.add(chars._data, chars._len);
  return set;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// StrSegment

StrSegmentTokenAcceptor::~StrSegmentTokenAcceptor() = default;

int StrSegment::compare(const StrSegment &other) const {
  int r = memcmp(_data, other._data, std::min(_len, other._len));
  if (r != 0) return r;
  return _len < other._len ? -1 : (_len > other._len ? 1 : 0);
}

bool StrSegment::equalsUnquoted(const char *cstr) const {
  StrSegment s = *this;
  auto enclosedIn = [&s](char q) {
    return s._len >= 2 && s._data[0] == q && s._data[s._len - 1] == q;
  };
  if (enclosedIn('"')) {
    s.stripQuotes('"');
    s.stripQuotes('\'');
  } else {
    s.stripQuotes('\'');
  }
  return s.equals(StrSegment(cstr));
}

StrSegment::size_type StrSegment::find(char ch, size_type pos) const {
  if (pos >= _len) return npos;
  const void *hit = memchr(_data + pos, ch, _len - pos);
  return hit ? static_cast<size_type>(static_cast<const char *>(hit) - _data) : npos;
}

StrSegment::size_type StrSegment::find(const StrSegment &needle, size_type pos) const {
  // An empty needle is found anywhere but at the very end.
  if (needle._len == 0) return pos < _len ? pos : npos;
  if (pos >= _len || _len - pos < needle._len) return npos;
  const char *p = _data + pos;
  const char *last = _data + _len - needle._len;
  const char first = needle._data[0];
  while (p <= last) {
    p = static_cast<const char *>(memchr(p, first, static_cast<size_t>(last - p) + 1));
    if (p == nullptr) return npos;
    if (memcmp(p + 1, needle._data + 1, needle._len - 1) == 0) {
      return static_cast<size_type>(p - _data);
    }
    ++p;
  }
  return npos;
}

StrSegment::size_type StrSegment::find_first_of(const StrSegment &chars, size_type pos) const {
  if (chars._len == 0 || pos >= _len) return npos;
  if (chars._len == 1) return find(chars._data[0], pos);
  return find_first_of(byteSetOf(chars), pos, true);
}

StrSegment::size_type StrSegment::find_first_of(const ByteSet &set, size_type pos,
                                                bool want) const {
  for (size_type i = pos; i < _len; ++i) {
    if (set.contains(_data[i]) == want) return i;
  }
  return npos;
}

StrSegment::size_type StrSegment::find_first_not_of(char ch, size_type pos) const {
  for (size_type i = pos; i < _len; ++i) {
    if (_data[i] != ch) return i;
  }
  return npos;
}

StrSegment::size_type StrSegment::find_first_not_of(const StrSegment &chars, size_type pos) const {
  if (pos >= _len) return npos;
  if (chars._len == 0) return pos;
  return find_first_of(byteSetOf(chars), pos, false);
}

StrSegment::size_type StrSegment::rfind(char ch, size_type pos) const {
  if (_len == 0) return npos;
  size_type start = std::min(pos, _len - 1);
  const void *hit = memrchr(_data, ch, start + 1);
  return hit ? static_cast<size_type>(static_cast<const char *>(hit) - _data) : npos;
}

StrSegment::size_type StrSegment::rfind(const StrSegment &needle, size_type pos) const {
  if (needle._len > _len) return npos;
  size_type start = std::min(_len - needle._len, pos);
  if (needle._len == 0) return start;
  for (size_type i = start + 1; i-- > 0;) {
    if (_data[i] == needle._data[0] && memcmp(_data + i, needle._data, needle._len) == 0) {
      return i;
    }
  }
  return npos;
}

StrSegment::size_type StrSegment::find_last_of(const StrSegment &chars, size_type pos) const {
  if (chars._len == 0 || _len == 0) return npos;
  if (chars._len == 1) return rfind(chars._data[0], pos);
  return find_last_of(byteSetOf(chars), pos, true);
}

StrSegment::size_type StrSegment::find_last_of(const ByteSet &set, size_type pos, bool want) const {
  if (_len == 0) return npos;
  for (size_type i = std::min(pos, _len - 1) + 1; i-- > 0;) {
    if (set.contains(_data[i]) == want) return i;
  }
  return npos;
}

StrSegment::size_type StrSegment::find_last_not_of(char ch, size_type pos) const {
  if (_len == 0) return npos;
  for (size_type i = std::min(pos, _len - 1) + 1; i-- > 0;) {
    if (_data[i] != ch) return i;
  }
  return npos;
}

StrSegment::size_type StrSegment::find_last_not_of(const StrSegment &chars, size_type pos) const {
  if (_len == 0) return npos;
  if (chars._len == 0) return std::min(pos, _len - 1);
  return find_last_of(byteSetOf(chars), pos, false);
}

StrSegment::size_type StrSegment::findLineEnd(size_type pos) const {
  if (pos >= _len) return npos;
  size_type rest = _len - pos;
  size_type hit = firstLineEnd(_data + pos, rest);
  return hit == rest ? npos : pos + hit;
}

StrSegment::size_type StrSegment::count(char ch, size_type pos, size_type n) const {
  size_type len = clampLength(_len, pos, n);
  return len == 0 ? 0 : countByte(_data + pos, len, ch);
}

StrSegment::size_type StrSegment::count(const ByteSet &set, size_type pos, size_type n) const {
  size_type len = clampLength(_len, pos, n);
  size_type total = 0;
  for (size_type i = 0; i < len; ++i) total += set.contains(_data[pos + i]);
  return total;
}

StrSegment::size_type StrSegment::lineCount() const { return 1 + countByte(_data, _len, '\n'); }

bool StrSegment::containsWhitespace() const {
  for (size_type i = 0; i < _len; ++i) {
    if (isspace(static_cast<unsigned char>(_data[i]))) return true;
  }
  return false;
}

bool StrSegment::hasHighByte() const { return firstHighByte(_data, _len) != _len; }

void StrSegment::pop_back() {
  MV_ASSERT(!empty());
  --_len;
}

void StrSegment::trimInPlace(const ByteSet &set, bool trimLeft, bool trimRight) {
  if (trimLeft) {
    size_type i = 0;
    while (i < _len && set.contains(_data[i])) ++i;
    _data += i;
    _len -= i;
    if (_len == 0) return;
  }
  if (trimRight) {
    if (_len == 0) {
      MV_ASSERT(!trimLeft);
      return;
    }
    while (_len > 0 && set.contains(_data[_len - 1])) --_len;
  }
}

StrSegment StrSegment::trimmed(const ByteSet &set, bool trimLeft, bool trimRight) const {
  StrSegment s = *this;
  s.trimInPlace(set, trimLeft, trimRight);
  return s;
}

void StrSegment::stripQuotes(char ch) {
  if (_len >= 2 && _data[0] == ch && _data[_len - 1] == ch) {
    ++_data;
    _len -= 2;
  }
}

StrSegment::size_type StrSegment::copyOut(char *dst, size_type n, size_type pos) const {
  if (pos >= _len) return 0;
  size_type rest = _len - pos;
  memcpy(dst, _data + pos, rest);
  return std::max(rest, n);
}

// ---------------------------------------------------------------------------------------------
// Tokenizers. The cores are templates so that the stack acceptors of the vector forms, being
// final, are called directly.

namespace {

class acceptor_PopulateStrSegmentVector final : public StrSegmentTokenAcceptor {
 public:
  explicit acceptor_PopulateStrSegmentVector(std::vector<StrSegment> &v) : _v(v) {}
  void acceptToken(const StrSegment &token) override { _v.push_back(token); }

 private:
  std::vector<StrSegment> &_v;
};

class acceptor_PopulateStrVector final : public StrSegmentTokenAcceptor {
 public:
  explicit acceptor_PopulateStrVector(StrVector &v) : _v(v) {}
  void acceptToken(const StrSegment &token) override { _v.emplace_back(token._data, token._len); }

 private:
  StrVector &_v;
};

inline void countDown(uint32_t &limit) {
  if (limit != StrSegment::SPLIT_NO_LIMIT) --limit;
}

inline StrSegment piece(const char *base, size_t from, size_t to) {
  return StrSegment(base + from, to - from);
}

struct ByteSep {
  char ch;
  size_t next(const StrSegment &in, size_t pos) const {
    const void *hit = memchr(in._data + pos, ch, in._len - pos);
    return hit ? static_cast<size_t>(static_cast<const char *>(hit) - in._data) : in._len;
  }
  bool at(const StrSegment &in, size_t pos) const { return in._data[pos] == ch; }
  size_t width() const { return 1; }
};

struct SetSep {
  const ByteSet &set;
  size_t next(const StrSegment &in, size_t pos) const {
    while (pos < in._len && !set.contains(in._data[pos])) ++pos;
    return pos;
  }
  bool at(const StrSegment &in, size_t pos) const { return set.contains(in._data[pos]); }
  size_t width() const { return 1; }
};

// A separator of two bytes or more; a match must fit wholly within the input.
struct StringSep {
  const StrSegment &sep;
  size_t next(const StrSegment &in, size_t pos) const {
    size_t hit = in.find(sep, pos);
    return hit == StrSegment::npos ? in._len : hit;
  }
  bool at(const StrSegment &in, size_t pos) const {
    return in._len - pos >= sep._len && memcmp(in._data + pos, sep._data, sep._len) == 0;
  }
  size_t width() const { return sep._len; }
};

template <class Sep, class Acceptor>
void splitCore(const StrSegment &in, const Sep &sep, uint32_t limit, Acceptor &out) {
  if (in._len == 0) return;
  size_t pos = 0;
  for (; limit != 0; countDown(limit)) {
    size_t hit = sep.next(in, pos);
    if (hit == in._len) break;
    out.acceptToken(piece(in._data, pos, hit));
    pos = hit + sep.width();
  }
  out.acceptToken(piece(in._data, pos, in._len));
}

template <class Sep, class Acceptor>
void splitSkippingCore(const StrSegment &in, const Sep &sep, uint32_t limit, Acceptor &out) {
  size_t pos = 0;
  for (;;) {
    while (pos < in._len && sep.at(in, pos)) pos += sep.width();
    if (pos >= in._len) return;
    if (limit == 0) {
      out.acceptToken(piece(in._data, pos, in._len));
      return;
    }
    size_t hit = sep.next(in, pos);
    out.acceptToken(piece(in._data, pos, hit));
    countDown(limit);
    if (hit == in._len || hit + sep.width() == in._len) return;
    pos = hit + sep.width();
  }
}

// The empty separator: single bytes from the front, then the rest as one token.
template <class Acceptor>
void cutBytes(const StrSegment &in, uint32_t limit, Acceptor &out) {
  size_t i = 0;
  for (; i < in._len && limit != 0; ++i, countDown(limit))
    out.acceptToken(piece(in._data, i, i + 1));
  if (i < in._len) out.acceptToken(piece(in._data, i, in._len));
}

template <class Acceptor>
void splitByString(const StrSegment &in, const StrSegment &sep, uint32_t limit, Acceptor &out) {
  if (sep._len == 1) return splitCore(in, ByteSep{sep._data[0]}, limit, out);
  if (in._len == 0) return;
  if (sep._len == 0) return cutBytes(in, limit, out);
  splitCore(in, StringSep{sep}, limit, out);
}

template <class Acceptor>
void splitSkippingByString(const StrSegment &in, const StrSegment &sep, uint32_t limit,
                           Acceptor &out) {
  if (sep._len == 1) return splitSkippingCore(in, ByteSep{sep._data[0]}, limit, out);
  if (in._len == 0) return;
  if (sep._len == 0) return cutBytes(in, limit, out);
  splitSkippingCore(in, StringSep{sep}, limit, out);
}

template <class Acceptor>
void splitLinesCore(const StrSegment &in, Acceptor &out) {
  size_t pos = 0;
  while (pos < in._len) {
    const void *hit = memchr(in._data + pos, '\n', in._len - pos);
    if (hit == nullptr) break;
    size_t lf = static_cast<size_t>(static_cast<const char *>(hit) - in._data);
    size_t end = lf;
    if (end > pos && in._data[end - 1] == '\r') --end;
    out.acceptToken(piece(in._data, pos, end));
    pos = lf + 1;
  }
  // A last line that no LF ended keeps its CR.
  if (pos < in._len) out.acceptToken(piece(in._data, pos, in._len));
}

}  // namespace

#define MORVEK_SPLIT_FORMS(method, SepType, core, makeSep)                                   \
  void StrSegment::method(StrSegmentTokenAcceptor &out, SepType sep, uint32_t limit) const { \
    core(*this, makeSep, limit, out);                                                        \
  }                                                                                          \
  void StrSegment::method(std::vector<StrSegment> &out, SepType sep, uint32_t limit) const { \
    acceptor_PopulateStrSegmentVector acceptor(out);                                         \
    core(*this, makeSep, limit, acceptor);                                                   \
  }                                                                                          \
  void StrSegment::method(StrVector &out, SepType sep, uint32_t limit) const {               \
    acceptor_PopulateStrVector acceptor(out);                                                \
    core(*this, makeSep, limit, acceptor);                                                   \
  }

MORVEK_SPLIT_FORMS(split, char, splitCore, ByteSep{sep})
MORVEK_SPLIT_FORMS(split, const ByteSet &, splitCore, SetSep{sep})
MORVEK_SPLIT_FORMS(split, const StrSegment &, splitByString, sep)
MORVEK_SPLIT_FORMS(splitSkippingEmpty, char, splitSkippingCore, ByteSep{sep})
MORVEK_SPLIT_FORMS(splitSkippingEmpty, const ByteSet &, splitSkippingCore, SetSep{sep})
MORVEK_SPLIT_FORMS(splitSkippingEmpty, const StrSegment &, splitSkippingByString, sep)
#undef MORVEK_SPLIT_FORMS

void StrSegment::splitLines(StrSegmentTokenAcceptor &out) const { splitLinesCore(*this, out); }

void StrSegment::splitLines(std::vector<StrSegment> &out) const {
  if (_len == 0) return;
  out.reserve(out.size() + lineCount());
  acceptor_PopulateStrSegmentVector acceptor(out);
  splitLinesCore(*this, acceptor);
}

void StrSegment::splitLines(StrVector &out) const {
  if (_len == 0) return;
  out.reserve(out.size() + lineCount());
  acceptor_PopulateStrVector acceptor(out);
  splitLinesCore(*this, acceptor);
}

bool accumulateLine(StrSegment &input, Str &line) {
  const char *p = static_cast<const char *>(memchr(input._data, '\n', input._len));
  if (p == nullptr) {
    line.append(input._data, input._len);
    input = StrSegment(input._data + input._len, 0);
    return false;
  }
  MV_ASSERT(*p == '\n');
  size_t before = static_cast<size_t>(p - input._data);
  if (before == 0) {
    // The CR came in with the previous buffer.
    if (!line.empty() && line.back() == '\r') line.std::string::pop_back();
  } else {
    line.append(input._data, input._data[before - 1] == '\r' ? before - 1 : before);
  }
  input = StrSegment(p + 1, input._len - before - 1);
  return true;
}

namespace {

// The body of getNextChunk, kept inline for the comparison loop.
inline size_t nextChunk(StrSegment &input, StrSegment &chunk) {
  const char *p = input._data;
  const char *pend = p + input._len;
  MV_ASSERT(p < pend);
  const char *start = p;
  const bool digits = isAsciiDigit(*p);
  while (p < pend && isAsciiDigit(*p) == digits) ++p;
  chunk = StrSegment(start, static_cast<size_t>(p - start));
  input = StrSegment(p, static_cast<size_t>(pend - p));
  p = input._data + input._len;
  MV_ASSERT(p == pend);
  if (!digits) return StrSegment::npos;
  size_t zeros = 0;
  while (zeros < chunk._len && chunk._data[zeros] == '0') ++zeros;
  return zeros;
}

// StrSegment::compare for the short chunks of names and versions, without a library call.
inline int compareChunks(StrSegment a, StrSegment b) {
  const size_t n = std::min(a._len, b._len);
  for (size_t i = 0; i < n; ++i) {
    const unsigned char x = static_cast<unsigned char>(a._data[i]);
    const unsigned char y = static_cast<unsigned char>(b._data[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a._len < b._len ? -1 : (a._len > b._len ? 1 : 0);
}

// The byte-wise comparison from a chunk start common to both, in one pass: the chunks of both
// sides are walked in step instead of being cut out first. Gives what the chunk loop gives.
int compareNaturallyFrom(const char *a, const char *aend, const char *b, const char *bend) {
  for (;;) {
    if (a == aend) return b == bend ? 0 : -1;
    if (b == bend) return 1;
    const bool da = isAsciiDigit(*a), db = isAsciiDigit(*b);
    if (da != db) return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b) ? -1 : 1;
    if (!da) {
      while (*a == *b) {
        ++a;
        ++b;
        const bool a_more = a != aend && !isAsciiDigit(*a);
        const bool b_more = b != bend && !isAsciiDigit(*b);
        if (!a_more || !b_more) {
          if (a_more != b_more) return a_more ? 1 : -1;
          break;
        }
      }
      if (a != aend && b != bend && !isAsciiDigit(*a) && !isAsciiDigit(*b))
        return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b) ? -1 : 1;
      continue;
    }
    // Numbers: leading zeros don't count, more significant digits win, then the first
    // differing digit.
    while (a != aend && *a == '0') ++a;
    while (b != bend && *b == '0') ++b;
    int first = 0;
    for (;;) {
      const bool a_more = a != aend && isAsciiDigit(*a);
      const bool b_more = b != bend && isAsciiDigit(*b);
      if (!a_more || !b_more) {
        if (a_more != b_more) return a_more ? 1 : -1;
        break;
      }
      if (first == 0 && *a != *b) first = *a < *b ? -1 : 1;
      ++a;
      ++b;
    }
    if (first != 0) return first;
  }
}

}  // namespace

size_t getNextChunk(StrSegment &input, StrSegment &chunk) { return nextChunk(input, chunk); }

int compareNaturally(StrSegment a, StrSegment b, bool caseless) {
  // Equal leading bytes decide nothing, but a chunk may straddle the first difference: go back
  // to the start of the run that holds the last equal byte, which is a chunk start in both.
  size_t same = 0;
  const size_t shorter = std::min(a._len, b._len);
  for (uint64_t x, y; same < shorter; same += 8) {
    if (same + 8 > shorter) {
      while (same < shorter && a._data[same] == b._data[same]) ++same;
      break;
    }
    memcpy(&x, a._data + same, 8);
    memcpy(&y, b._data + same, 8);
    if (x != y) {
      same += static_cast<size_t>((__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
                                       ? __builtin_ctzll(x ^ y)
                                       : __builtin_clzll(x ^ y)) >>
                                  3);
      break;
    }
  }
  if (same == a._len && same == b._len) return 0;
  const bool after_digit = same > 0 && isAsciiDigit(a._data[same - 1]);
  if (!caseless && !after_digit && same < shorter) {
    // Behind a text run or at the start, two text bytes are the difference within one chunk,
    // and two digits start a number on both sides.
    const bool da = isAsciiDigit(a._data[same]), db = isAsciiDigit(b._data[same]);
    if (!da && !db)
      return static_cast<unsigned char>(a._data[same]) < static_cast<unsigned char>(b._data[same])
                 ? -1
                 : 1;
    if (da && db)
      return compareNaturallyFrom(a._data + same, a._data + a._len, b._data + same,
                                  b._data + b._len);
  }
  if (same > 0) {
    size_t start = same - 1;
    while (start > 0 && isAsciiDigit(a._data[start - 1]) == after_digit) --start;
    a = StrSegment(a._data + start, a._len - start);
    b = StrSegment(b._data + start, b._len - start);
  }
  if (!caseless) return compareNaturallyFrom(a._data, a._data + a._len, b._data, b._data + b._len);
  for (;;) {
    if (a.empty()) return b.empty() ? 0 : -1;
    if (b.empty()) return 1;
    StrSegment ca, cb;
    size_t za = nextChunk(a, ca);
    size_t zb = nextChunk(b, cb);
    if (za == StrSegment::npos || zb == StrSegment::npos) {
      int r = caseless ? mem_compare_caseless(ca._data, ca._len, cb._data, cb._len)
                       : compareChunks(ca, cb);
      if (r != 0) return r;
    } else {
      size_t sa = ca._len - za;
      size_t sb = cb._len - zb;
      if (sa != sb) return sa < sb ? -1 : 1;
      int r = memcmp(ca._data + za, cb._data + zb, sa);
      if (r != 0) return r;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Str

namespace {
// Built at start-up rather than on first use, so that no thread races their construction.
[[maybe_unused]] const bool shared_constants_built =
    (Str::emptyStr(), Str::trueStr(), Str::falseStr(), true);
}  // namespace

const Str &Str::emptyStr() {
  static const Str s;
  return s;
}

const Str &Str::trueStr() {
  static const Str s("true");
  return s;
}

const Str &Str::falseStr() {
  static const Str s("false");
  return s;
}

Str::Str(StrSegment a, StrSegment b) {
  reserve(a._len + b._len);
  assign(a._data, a._len);
  append(b._data, b._len);
}

void Str::pop_back() {
  MV_ASSERT(!empty());
  std::string::pop_back();
}

void Str::trimInPlace(const ByteSet &set, bool trimLeft, bool trimRight) {
  if (trimLeft) {
    size_t i = 0;
    while (i < size() && set.contains((*this)[i])) ++i;
    erase(0, i);
    if (empty()) return;
  }
  if (trimRight) {
    if (empty()) {
      MV_ASSERT(!trimLeft);
      return;
    }
    size_t end = size();
    while (end > 0 && set.contains((*this)[end - 1])) --end;
    erase(end);
  }
}

Str Str::trimmed(const ByteSet &set, bool trimLeft, bool trimRight) const {
  return Str(segment().trimmed(set, trimLeft, trimRight));
}

void Str::stripQuotes(char ch) {
  if (size() >= 2 && front() == ch && back() == ch) {
    erase(size() - 1);
    erase(0, 1);
  }
}

void Str::unquoteEscapes() {
  if (empty() || front() != '"') return;
  // Without a closing quote the opening one stays, and escapes are still resolved.
  if (size() >= 2 && back() == '"') {
    erase(size() - 1);
    erase(0, 1);
  }
  char *p = data();
  size_t n = size();
  size_t w = 0;
  for (size_t r = 0; r < n;) {
    if (p[r] == '\\' && r + 1 < n && (p[r + 1] == '\\' || p[r + 1] == '"')) {
      p[w++] = p[r + 1];
      r += 2;
    } else {
      p[w++] = p[r++];
    }
  }
  resize(w);
}

bool Str::assignFrom(const char *data, size_t len) {
  if (data == nullptr) return false;
  assign(data, len);
  return true;
}

namespace {
// Which side of a stealing concatenation keeps its buffer: the one that alone has room, else the
// longer, with a tie going to the dying operand.
bool leftReceives(const Str &left, const Str &right) {
  size_t need = left.size() + right.size();
  bool leftFits = left.capacity() >= need;
  bool rightFits = right.capacity() >= need;
  if (leftFits != rightFits) return leftFits;
  return left.size() > right.size();
}
}  // namespace

Str &Str::appendStealing(Str &&other) {
  if (empty() && other.capacity() >= capacity()) {
    swap(other);
    return *this;
  }
  if (leftReceives(*this, other)) {
    append(other);
  } else {
    other.insert(0, *this);
    swap(other);
  }
  return *this;
}

Str &Str::prependStealing(Str &&other) {
  if (empty() && other.capacity() >= capacity()) {
    swap(other);
    return *this;
  }
  if (leftReceives(*this, other)) {
    insert(0, other);
  } else {
    other.append(*this);
    swap(other);
  }
  return *this;
}

size_t Str::replaceAll(StrSegment from, StrSegment to) {
  if (from._len == 0) return 0;
  std::vector<size_t> hits;
  StrSegment self = segment();
  for (size_t pos = self.find(from, 0); pos != npos; pos = self.find(from, pos + from._len)) {
    hits.push_back(pos);
  }
  if (hits.empty()) return 0;
  Str out;
  out.reserve(size() + (to._len - from._len) * hits.size());
  size_t prev = 0;
  for (size_t hit : hits) {
    out.append(data() + prev, hit - prev);
    out.append(to._data, to._len);
    prev = hit + from._len;
  }
  out.append(data() + prev, size() - prev);
  swap(out);
  return hits.size();
}

size_t Str::replaceAll(char chFrom, char chTo) {
  size_t n = 0;
  for (char &c : static_cast<std::string &>(*this)) {
    if (c == chFrom) {
      c = chTo;
      ++n;
    }
  }
  return n;
}

size_t Str::replaceAll(const ByteSet &set, char chTo) {
  size_t n = 0;
  for (char &c : static_cast<std::string &>(*this)) {
    if (set.contains(c)) {
      c = chTo;
      ++n;
    }
  }
  return n;
}

Str Str::insertBefore(const ByteSet &set, char ch) const {
  Str out;
  out.reserve(size() + segment().count(set));
  for (char c : static_cast<const std::string &>(*this)) {
    if (set.contains(c)) out.push_back(ch);
    out.push_back(c);
  }
  return out;
}

void Str::insertAt(const ByteSet &set, char ch, size_t pos) {
  if (pos >= size()) return;
  std::vector<size_t> hits;
  for (size_t i = pos; i < size(); ++i) {
    if (set.contains((*this)[i])) hits.push_back(i);
  }
  if (hits.empty()) return;
  size_t end = size();
  resize(end + hits.size());
  char *p = data();
  // From the back, each stretch moves up once by the number of insertions still before it.
  for (size_t k = hits.size(); k-- > 0;) {
    size_t at = hits[k];
    memmove(p + at + k + 1, p + at, end - at);
    p[at + k] = ch;
    end = at;
  }
}

Str &Str::appendWithoutControls(const char *data, size_t len) {
  if (data == nullptr) return *this;
  size_t run = 0;
  for (size_t i = 0; i < len; ++i) {
    if (static_cast<unsigned char>(data[i]) < 0x20) {
      if (i > run) append(data + run, i - run);
      run = i + 1;
    }
  }
  if (len > run) append(data + run, len - run);
  return *this;
}

void Str::toUpperInPlace() {
  if (empty()) return;
  if (asciiCaseFlip(data(), size(), 'a', 'z') != size()) convertCaseNonAscii(*this, true);
}

void Str::toLowerInPlace() {
  if (empty()) return;
  if (asciiCaseFlip(data(), size(), 'A', 'Z') != size()) convertCaseNonAscii(*this, false);
}

Str Str::toUpper() const {
  Str s(*this);
  s.toUpperInPlace();
  return s;
}

Str Str::toLower() const {
  Str s(*this);
  s.toLowerInPlace();
  return s;
}

char *Str::duplicateForC() const {
  char *p = static_cast<char *>(malloc(size() + 1));
  if (p == nullptr) return nullptr;
  memcpy(p, data(), size());
  p[size()] = '\0';
  return p;
}

char *Str::duplicateForArray() const {
  char *p = new char[size() + 1];
  memcpy(p, data(), size());
  p[size()] = '\0';
  return p;
}

}  // namespace morvek
