#include "basicutil/HashedStr.h"

#include <array>
#include <cstddef>
#include <limits>
#include <stdexcept>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

inline uint64_t signedByte(unsigned char c) {
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}

inline unsigned char foldAscii(unsigned char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + 32) : c;
}

#if defined(__SSE2__)
// 33^k for k = 0 to 16.
constexpr auto POW33 = [] {
  std::array<uint64_t, 17> t{};
  t[0] = 1;
  for (size_t k = 1; k < t.size(); ++k) t[k] = t[k - 1] * 33;
  return t;
}();

// The polynomial of sixteen bytes, c0 * 33^15 + ... + c15. The bytes are weighted in the vector
// unit, pairs by 33 and then pairs of pairs by 33^2, leaving four sums of four bytes for the
// scalar multiplies. Every partial sum is exact (under 2^23), so the value is the byte loop's
// mod 2^64. Zero bytes in front add nothing, which is how a short tail is taken.
template <bool kCaseless>
inline uint64_t blockPolynomial(__m128i v) {
  if (kCaseless) {
    __m128i upper = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('A' - 1)),
                                  _mm_cmplt_epi8(v, _mm_set1_epi8('Z' + 1)));
    v = _mm_add_epi8(v, _mm_and_si128(upper, _mm_set1_epi8(32)));
  }
  __m128i lo = _mm_srai_epi16(_mm_unpacklo_epi8(v, v), 8);
  __m128i hi = _mm_srai_epi16(_mm_unpackhi_epi8(v, v), 8);
  const __m128i by33 = _mm_setr_epi16(33, 1, 33, 1, 33, 1, 33, 1);
  __m128i pairs = _mm_packs_epi32(_mm_madd_epi16(lo, by33), _mm_madd_epi16(hi, by33));
  __m128i quads = _mm_madd_epi16(pairs, _mm_setr_epi16(1089, 1, 1089, 1, 1089, 1, 1089, 1));
  alignas(16) int32_t q[4];
  _mm_store_si128(reinterpret_cast<__m128i *>(q), quads);
  auto wide = [](int32_t x) { return static_cast<uint64_t>(static_cast<int64_t>(x)); };
  return wide(q[0]) * POW33[12] + wide(q[1]) * POW33[8] + wide(q[2]) * POW33[4] + wide(q[3]);
}
#endif

// h * 33^4 + c0 * 33^3 + c1 * 33^2 + c2 * 33 + c3: four steps at once, the same value mod 2^64.
template <bool kCaseless>
uint64_t hashLoop(const unsigned char *p, size_t len, uint64_t h) {
  auto byte = [](unsigned char c) { return signedByte(kCaseless ? foldAscii(c) : c); };
  size_t i = 0;
#if defined(__SSE2__)
  if (len >= 16) {
    for (; i + 16 <= len; i += 16)
      h = h * POW33[16] +
          blockPolynomial<kCaseless>(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p + i)));
    if (i == len) return h;
    // The last sixteen bytes with those already taken masked to zero.
    static constexpr unsigned char TAIL_MASK[32] = {0,    0,    0,    0,    0,    0,    0,    0,
                                                    0,    0,    0,    0,    0,    0,    0,    0,
                                                    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                                    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    size_t k = len - i;
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + len - 16));
    v = _mm_and_si128(v, _mm_loadu_si128(reinterpret_cast<const __m128i *>(TAIL_MASK + k)));
    return h * POW33[k] + blockPolynomial<kCaseless>(v);
  }
#endif
  for (; i + 4 <= len; i += 4) {
    h = h * 1185921u + byte(p[i]) * 35937u + byte(p[i + 1]) * 1089u + byte(p[i + 2]) * 33u +
        byte(p[i + 3]);
  }
  for (; i < len; ++i) h = h * 33u + byte(p[i]);
  return h;
}

// The shared empty record: refcount 0, constant-initialised so it exists before any static
// initialiser can make a HashedStr.
constinit HashedStr::Record empty_record = {0, 0, HASH_SEED, {0, 0, 0, 0, 0, 0, 0, 0}};

constexpr size_t RECORD_HEADER = offsetof(HashedStr::Record, bytes);

}  // namespace

uint64_t hashBytesContinue(const void *data, size_t len, uint64_t h) {
  return hashLoop<false>(static_cast<const unsigned char *>(data), len, h);
}

uint64_t hashCString(const char *cstr) {
  size_t len;
  return hashCString(cstr, len);
}

uint64_t hashCString(const char *cstr, size_t &len) {
  uint64_t h = HASH_SEED;
  const char *p = cstr;
  for (; *p != '\0'; ++p) h = h * 33u + signedByte(static_cast<unsigned char>(*p));
  len = static_cast<size_t>(p - cstr);
  return h;
}

uint64_t hashBytesCaseless(const void *data, size_t len) {
  return hashLoop<true>(static_cast<const unsigned char *>(data), len, HASH_SEED);
}

HashedStr::HashedStr() : _text(empty_record.bytes) {}

HashedStr::HashedStr(StrSegment text) : _text(empty_record.bytes) {
  if (text._len == 0) return;
  if (text._len > std::numeric_limits<uint32_t>::max()) throw std::length_error("HashedStr");
  // Whole 8-byte words from the array allocator, so the record is aligned for its fields.
  size_t words = (RECORD_HEADER + text._len + 1 + 7) / 8;
  auto *rec = reinterpret_cast<Record *>(new uint64_t[words]);
  rec->refcount = 1;
  rec->length = static_cast<uint32_t>(text._len);
  rec->hash = hashBytes(text._data, text._len);
  char *bytes = reinterpret_cast<char *>(rec) + RECORD_HEADER;
  memcpy(bytes, text._data, text._len);
  bytes[text._len] = '\0';
  _text = bytes;
}

HashedStr::HashedStr(const HashedStr &other) : _text(other._text) {
  Record *rec = record();
  if (rec != &empty_record) __atomic_add_fetch(&rec->refcount, 1, __ATOMIC_RELAXED);
}

HashedStr::HashedStr(HashedStr &&other) noexcept : _text(other._text) {
  other._text = empty_record.bytes;
}

HashedStr &HashedStr::operator=(const HashedStr &other) {
  HashedStr copy(other);
  swap(copy);
  return *this;
}

HashedStr &HashedStr::operator=(HashedStr &&other) noexcept {
  HashedStr moved(static_cast<HashedStr &&>(other));
  swap(moved);
  return *this;
}

HashedStr::~HashedStr() { release(); }

void HashedStr::release() {
  Record *rec = record();
  if (rec == &empty_record) return;
  if (__atomic_sub_fetch(&rec->refcount, 1, __ATOMIC_ACQ_REL) == 0) {
    delete[] reinterpret_cast<uint64_t *>(rec);
  }
}

HashedStr::Record *HashedStr::record() const {
  return reinterpret_cast<Record *>(const_cast<char *>(_text) - RECORD_HEADER);
}

bool HashedStr::equals(const HashedStr &other) const {
  if (_text == other._text) return true;
  const Record *a = record();
  const Record *b = other.record();
  return a->hash == b->hash && a->length == b->length && memcmp(_text, other._text, a->length) == 0;
}

bool HashedStr::equals(StrSegment text) const { return segment().equals(text); }

void HashedStr::swap(HashedStr &other) noexcept {
  const char *t = _text;
  _text = other._text;
  other._text = t;
}

uint32_t HashedStr::useCount() const {
  return __atomic_load_n(&record()->refcount, __ATOMIC_RELAXED);
}

void HashedStrListEntry::unlink() {
  if (_prevp == nullptr) return;
  *_prevp = _next;
  if (_next != nullptr) _next->_prevp = _prevp;
  _next = nullptr;
  _prevp = nullptr;
}

void HashedStrList::pushFront(HashedStrListEntry &entry) {
  entry.unlink();
  entry._next = _root;
  entry._prevp = &_root;
  if (_root != nullptr) _root->_prevp = &entry._next;
  _root = &entry;
}

void HashedStrList::swap(HashedStrList &other) {
  HashedStrListEntry *t = _root;
  _root = other._root;
  other._root = t;
  // Each first element still points back at the head it came from.
  if (_root != nullptr) {
    MV_ASSERT(_root->_prevp == &other._root);
    _root->_prevp = &_root;
  }
  if (other._root != nullptr) {
    MV_ASSERT(other._root->_prevp == &_root);
    other._root->_prevp = &other._root;
  }
}

}  // namespace morvek
