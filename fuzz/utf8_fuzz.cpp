// The UTF-8 operations on arbitrary bytes: walkers within bounds, decoders agreeing where their
// contracts agree, caseless order antisymmetric, composition only shrinking.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "basicutil/UnicodeCodepoint.h"
#include "libzero/codepoint-width.h"

using namespace morvek;

namespace {

void check(bool ok) {
  if (!ok) abort();
}

int sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *text = reinterpret_cast<const char *>(data);
  // Exact-size copy, so that any read past the end is caught.
  std::vector<char> buf(text, text + size);
  const char *p = buf.data();

  const bool valid = isValidUtf8(p, size);
  const size_t count = mem_count_utf8_codepoints(p, size);
  check(count <= size);

  // popCodepoint and the accumulator agree on well-formed text.
  std::vector<uint32_t> popped, accumulated;
  bool pops = true, surrogate = false, clean = true;
  for (StrSegment seg(p, size); seg._len > 0;) {
    uint32_t cp;
    if (!popCodepoint(seg, cp)) {
      pops = false;
      break;
    }
    surrogate |= cp >= 0xD800 && cp <= 0xDFFF;
    popped.push_back(cp);
  }
  UnicodeCodepoint u;
  for (size_t i = 0; i < size; ++i) {
    const uint8_t by = data[i];
    if (!u.at_ground_state() && (by & 0xC0) != 0x80) clean = false;
    if (u.at_ground_state() && by < 0x80) {
      accumulated.push_back(by);
    } else if (u._accumulateUtf8Byte(by)) {
      check(u._cp <= 0x10FFFF && (u._cp < 0xD800 || u._cp > 0xDFFF));
      if (u._cp < 0x80) clean = false;
      accumulated.push_back(u._cp);
    } else if (u.at_ground_state()) {
      clean = false;
    }
  }
  clean = clean && u.at_ground_state();
  check(clean == (pops && !surrogate));
  if (clean) check(valid && accumulated == popped && count == popped.size());

  // Truncations stay inside the data.
  const size_t n = size ? data[0] % (size + 1) : 0;
  StrSegment seg(p, size);
  utf8_character_count_truncate(seg, n);
  check(seg._len <= size);
  seg = StrSegment(p, size);
  check(utf8ByteTruncate(seg, n) <= n || n >= size);
  size_t first = 0, last = 0;
  if (utf8CharacterRange(p, size, n / 2, n, first, last))
    check(first <= size + 3 && last <= size + 3);

  // Caseless order: reflexive and antisymmetric over the two halves.
  const size_t half = size / 2;
  check(mem_compare_caseless(p, size, p, size) == 0);
  check(sign(mem_compare_caseless(p, half, p + half, size - half)) ==
        -sign(mem_compare_caseless(p + half, size - half, p, half)));

  Str upper, lower;
  utf8ToUpper(StrSegment(p, size), upper);
  utf8ToLower(StrSegment(p, size), lower);
  if (valid) check(isValidUtf8(upper) && isValidUtf8(lower));

  Str composed(StrSegment(p, size));
  resolveUnicodeCombiningMarks(composed);
  check(composed.size() <= size);

  check(mem_display_width(p, size) <= 2 * size);
  return 0;
}
