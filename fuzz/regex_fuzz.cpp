// Random patterns, subjects and replacement texts through compile, every match mode,
// mem_regexmatch and replaceAll. A pattern that doesn't compile is fine; a crash, a failed
// assertion or a sanitizer report is not.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "basicutil/Regex.h"

using namespace morvek;

namespace {

// Matching trusts its subjects (the replacement text is one, for its parser) to be UTF-8.
bool validUtf8(const char *data, size_t size) {
  static pcre2_code *any = [] {
    int err;
    PCRE2_SIZE off;
    return pcre2_compile(reinterpret_cast<PCRE2_SPTR>(""), 0, PCRE2_UTF, &err, &off, nullptr);
  }();
  static pcre2_match_data *md = pcre2_match_data_create(1, nullptr);
  return pcre2_match(any, reinterpret_cast<PCRE2_SPTR>(data), size, 0, 0, md, nullptr) >= 0;
}

}  // namespace

// Layout: one byte of pattern length, the pattern, one byte of replacement length, the
// replacement, and the subject.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const char *p = reinterpret_cast<const char *>(data);
  const char *end = p + size;
  size_t pattern_len = static_cast<uint8_t>(*p++) % 96;
  pattern_len = std::min<size_t>(pattern_len, end - p);
  StrSegment pattern(p, pattern_len);
  p += pattern_len;
  size_t with_len = 0;
  if (p < end) {
    with_len = static_cast<uint8_t>(*p++) % 32;
    with_len = std::min<size_t>(with_len, end - p);
  }
  StrSegment with_text(p, with_len);
  p += with_len;
  StrSegment subject(p, std::min<size_t>(end - p, 512));
  if (!validUtf8(subject._data, subject._len) || !validUtf8(with_text._data, with_text._len)) {
    return 0;
  }

  Regex re;
  if (!re.tryAssign(pattern)) return 0;
  try {
    RegexMatch m;
    m.setLimits({20000, 200});
    bool cheap = true;
    for (MatchMode mode : {MATCH_SEARCH, MATCH_NOT_BOL, MATCH_FULL, MATCH_PARTIAL}) {
      size_t offset = 0;
      if (re.matchBase(subject._data, subject._len, &offset, &m, nullptr, mode)) {
        for (size_t i = 0; i < m.size(); ++i) {
          if (m.groupMatched(i)) (void)(m.getGroupMatchEnd(i) - m.getGroupMatchStart(i));
        }
      }
      cheap = cheap && m.limitHit() == REGEX_LIMIT_NONE;
    }
    re.lookupName(with_text);
    // Without limits of their own, these run only where the limited matches stayed cheap.
    if (cheap && subject._len <= 128) {
      for (int mode : {MEM_REGEXMATCH_SEARCH, MEM_REGEXMATCH_FULL, MEM_REGEXMATCH_ANCHORED}) {
        mem_regexmatch(re, subject._data, subject._len, mode);
      }
      RegexSubstitution with;
      with.initWithBackrefs(with_text._data, with_text._len);
      Str out;
      _replaceAll(re, subject._data, subject._len, with, out);
    }
  } catch (const std::bad_alloc &) {
  }
  return 0;
}
