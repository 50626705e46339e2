// Characters of UTF-8 text without decoding it into arrays: code points, utf8bytes values, a
// byte-at-a-time accumulator, quick walkers, character classes, caseless comparison and the
// composition of combining marks.
//
// Nothing here fails on bad UTF-8: walkers step over it, checks say no, and comparisons treat
// what isn't a well-formed character as single bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "basicutil/Str.h"

namespace morvek {

// A character's UTF-8 bytes in one integer, first byte most significant and no leading zero
// bytes, so values order as the bytes do. The key of all Unicode tables.
using utf8bytes = uint32_t;

// cp from 0x80 to 0x10FFFF; ASCII is the caller's to handle. Surrogates encode.
uint32_t codepoint_to_utf8bytes(uint32_t cp);
// Any value in one of the four utf8bytes ranges, or below 0x80; anything else is fatal.
uint32_t utf8bytes_to_codepoint(uint32_t u);

class UnicodeCodepoint {
 public:
  UnicodeCodepoint() : _cp(0) {}
  explicit UnicodeCodepoint(uint32_t cp) : _cp(cp) {}

  // Below 0x1000000 `_cp` is a code point (or the leftover of a rejected sequence); above it,
  // a sequence being assembled: lead in bits 24-31, then the second and third bytes.
  bool at_ground_state() const { return _cp < 0x1000000u; }

  // Feeds one byte of UTF-8; true when `_cp` holds a finished, valid code point. ASCII at
  // ground state must not come here: callers take it themselves.
  bool _accumulateUtf8Byte(uint8_t by);

  // ASCII answers by the POSIX classes, everything else from the property table.
  bool isAlnum() const;
  bool isAlpha() const;
  bool isCntrl() const;
  bool isGraph() const;
  bool isPrint() const;
  bool isPunct() const;
  bool isSpace() const;
  bool isLower() const;
  bool isUpper() const;
  // Simple one-to-one mappings, in place; characters without another form stay.
  void toLower();
  void toUpper();

  uint32_t _cp;
};

// Holds the UTF-8 bytes of one non-ASCII character.
struct Utf8CodepointWriter {
  // Writes 2 to 4 bytes and returns the count; 0 and nothing written above 0x10FFFF.
  // Surrogates encode.
  unsigned _set(uint32_t codepoint);

  const char *data() const { return _bytes; }

  char _bytes[4];
};

// Takes one code point from the front of `segment` and advances past it. False, with neither
// argument touched, at the end or for a malformed sequence. Unlike the other checks here,
// surrogate code points are accepted.
bool popCodepoint(StrSegment &segment, uint32_t &cp);

// Strict UTF-8, except that the second byte of a four-byte sequence is only held to the bounds
// after 0xF0 and 0xF4, not required to be a continuation byte: callers rely on that.
bool isValidUtf8(const char *data, size_t len);
inline bool isValidUtf8(StrSegment s) { return isValidUtf8(s._data, s._len); }

// The quick walkers step by lead byte alone (no validation): 0x80..0xDF steps 2, so a stray
// continuation byte swallows the byte after it. Steps may run past the end of the data; the
// character still counts once.
size_t mem_count_utf8_codepoints(const char *data, size_t len);
// Cuts `segment` to at most n characters; a character broken by the end is dropped.
void utf8_character_count_truncate(StrSegment &segment, size_t n);
// Cuts `segment` to at most n bytes without splitting a character; returns the new length.
size_t utf8ByteTruncate(StrSegment &segment, size_t n);
// The byte range of `count` characters from character `start`. False when `start` lies past
// the end. `last` may exceed `len` when a broken tail was stepped over.
bool utf8CharacterRange(const char *data, size_t len, size_t start, size_t count, size_t &first,
                        size_t &last);

// Length of the leading run of bytes below 0x80.
size_t mem_ascii_prefix_length(const char *data, size_t len);

// Flags word of the property row holding `utf8bytes` (from 0xC280).
uint32_t flags_from_utf8bytes(uint32_t utf8bytes);

// Caseless order of raw UTF-8: the order of the lower-case utf8bytes values, character by
// character. Allocates nothing. Returns -1, 0 or 1.
int mem_compare_caseless(const char *lhs, size_t lhsLen, const char *rhs, size_t rhsLen);
int mem_compare_caseless(const char *lhs, size_t lhsLen, const char *rhs);

// Whole-string simple case conversion; `dst` is replaced (it may be `src` itself).
void utf8ToUpper(StrSegment src, Str &dst);
void utf8ToLower(StrSegment src, Str &dst);

// Rewrites a base followed by combining marks as the precomposed character where one exists.
// Pure ASCII costs one scan and no allocation; `s` is replaced only when something composed.
void resolveUnicodeCombiningMarks(Str &s);

// The mark's bit in a combiner key, or 0 when `u` isn't a known combining mark.
uint64_t combiner_flag_for_utf8bytes(uint32_t u);
// The precomposed character for `base` with exactly the marks in `flags`, or 0.
uint32_t replacement_for_utf8bytes(uint32_t base, uint64_t flags);

}  // namespace morvek
