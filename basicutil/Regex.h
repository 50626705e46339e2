// Regex: a cheap shared handle on a pattern compiled by PCRE2 (8-bit, UTF), RegexMatch, the
// reusable result of a match, the process-wide cache that shares compiled patterns, and
// RegexSubstitution for replacements with back-references.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "basicutil/BaseException.h"
#include "basicutil/HashedStr.h"
#include "basicutil/Str.h"
#include "basicutil/StrVector.h"

struct pcre2_real_code_8;
struct pcre2_real_match_context_8;

namespace morvek {

class Logger;

class RegexException : public BaseException {
 public:
  using BaseException::BaseException;
};

enum MatchMode : int {
  MATCH_SEARCH = 0,
  MATCH_NOT_BOL = 1,
  // Uses the pattern compiled anchored at both ends; the match must cover the whole subject.
  MATCH_FULL = 2,
  MATCH_PARTIAL = 3,
};

// Both limits go straight to PCRE2; a match that hits one is false and says which.
struct RegexLimits {
  uint32_t match_limit;
  uint32_t depth_limit;
};

enum RegexLimitHit : uint32_t {
  REGEX_LIMIT_NONE = 0,
  REGEX_LIMIT_DEPTH = 1,
  REGEX_LIMIT_MATCH = 2,
};

// A named capture group: the name points into the compiled pattern, index counts from 0.
struct RegexNamedGroup {
  const char *name;
  size_t name_len;
  uint32_t index;
};

// The result of a match, reused from one match to the next so that matching doesn't allocate.
// Groups are views into the subject, which must outlive their use. Belongs to one thread.
class RegexMatch {
 public:
  RegexMatch() = default;
  ~RegexMatch();
  RegexMatch(const RegexMatch &) = delete;
  RegexMatch &operator=(const RegexMatch &) = delete;

  // Group 1 is at index 0. A group that took no part is a null view of length 0.
  size_t size() const { return _groups.size(); }
  const StrSegment &operator[](size_t idx) const { return _groups[idx]; }
  const StrSegment &group(size_t idx) const { return _groups[idx]; }
  bool groupMatched(size_t idx) const { return idx < _groups.size() && _groups[idx]._data; }
  const std::vector<StrSegment> &groups() const { return _groups; }

  // Offsets from the start of the subject; the group must have taken part.
  size_t getGroupMatchStart(size_t idx) const;
  size_t getGroupMatchEnd(size_t idx) const;

  bool matched() const { return _subject != nullptr; }
  StrSegment getMatch() const { return StrSegment(_match_start, _match_length); }
  size_t getMatchStart() const { return static_cast<size_t>(_match_start - _subject); }
  size_t getMatchEnd() const { return getMatchStart() + _match_length; }
  const char *subject() const { return _subject; }

  void setLimits(const RegexLimits &limits);
  uint32_t limitHit() const { return _limit_hit; }

  void reset();

 private:
  friend class Regex;

  std::vector<StrSegment> _groups;
  pcre2_real_match_context_8 *_match_context = nullptr;
  const char *_subject = nullptr;
  const char *_match_start = nullptr;
  size_t _match_length = 0;
  uint32_t _limit_hit = REGEX_LIMIT_NONE;
};

enum RegexCaseInsensitiveTag { REGEX_CASE_INSENSITIVE };

// Copies share one immutable compiled pattern; equal pattern texts share one through the cache.
// An empty handle is legal and never matches.
class Regex {
 public:
  struct Impl;
  // Runs when the last handle goes: the pattern retires into the cache instead of being freed.
  struct Deleter {
    void operator()(const Impl *impl) const;
  };

  Regex() = default;
  // All of these throw RegexException for a pattern that doesn't compile.
  explicit Regex(const char *pattern);
  // A Str or std::string passes as a StrSegment.
  explicit Regex(StrSegment pattern);
  Regex(const char *pattern, size_t len);
  Regex(const char *pattern, size_t len, uint64_t hash);
  explicit Regex(const HashedStr &pattern);
  // The pattern behind "(?i)".
  Regex(RegexCaseInsensitiveTag, StrSegment pattern);

  Regex &operator=(const char *pattern);
  Regex &operator=(StrSegment pattern);
  void assign(const char *pattern, size_t len);
  void assign(const char *pattern, size_t len, uint64_t hash);

  // False, with the handle left as it was, when the pattern doesn't compile.
  bool tryAssign(StrSegment pattern);
  bool tryAssignCaseInsensitive(StrSegment pattern);

  bool empty() const { return !_impl; }
  explicit operator bool() const { return !empty(); }
  void clear() { _impl.reset(); }
  bool sameCompiledPattern(const Regex &other) const { return _impl == other._impl; }
  // For identity checks only.
  const void *implAddress() const { return _impl.get(); }

  // The core matcher. text may be null when text_size is 0. offset, when given, is where the
  // search starts and receives the end of the match; rest receives what follows the match.
  bool matchBase(const char *text, size_t text_size, size_t *offset, RegexMatch *match,
                 StrSegment *rest, MatchMode mode = MATCH_SEARCH) const;
  // An empty subject is false; on success subject becomes the rest behind the match.
  bool match(StrSegment &subject, RegexMatch *match = nullptr, MatchMode mode = MATCH_SEARCH) const;
  // From offset on; false for an empty subject or an offset already at its end.
  bool match(StrSegment subject, size_t &offset, RegexMatch *match = nullptr,
             MatchMode mode = MATCH_SEARCH) const;
  // Whether the pattern matches somewhere in (or, with MATCH_FULL, all of) the text.
  bool matches(StrSegment text, RegexMatch *match = nullptr, MatchMode mode = MATCH_SEARCH) const {
    return matchBase(text._data, text._len, nullptr, match, nullptr, mode);
  }

  uint32_t getCaptureGroupCount() const;
  bool isAnchored() const;
  // Throws RegexException when PCRE2 can't tell.
  bool canMatchEmpty() const;
  const HashedStr &getPattern() const;
  // Null when there is no group of that name.
  const RegexNamedGroup *lookupName(StrSegment name) const;
  const RegexNamedGroup *lookupName(const char *name) const { return lookupName(StrSegment(name)); }
  const std::vector<RegexNamedGroup> &namedGroups() const;

  // The text as a pattern that matches it literally.
  static Str quote(StrSegment text);
  static void appendQuoted(Str &out, StrSegment text);

  // Builds through the cache; exposed for the cache tests and mem_regexmatch callers.
  static Regex _get(const char *text, size_t size, uint64_t hash);

 private:
  friend ssize_t mem_regexmatch(const Regex &rgx, const char *data, size_t datalen, int mode);

  const Impl &impl() const;
  // What _get returns, built in place in the handle. The form without a hash hashes the text
  // only when the thread's last pattern isn't it.
  static std::shared_ptr<const Impl> cached(const char *text, size_t size, uint64_t hash);
  static std::shared_ptr<const Impl> cached(const char *text, size_t size);

  std::shared_ptr<const Impl> _impl;
};

// Modes of mem_regexmatch, numbered apart from MatchMode.
enum MemRegexMatchMode : int {
  MEM_REGEXMATCH_SEARCH = 0,
  MEM_REGEXMATCH_FULL = 1,
  MEM_REGEXMATCH_ANCHORED = 2,
};

// Where the first match starts, or -1. No groups, no limits.
ssize_t mem_regexmatch(const Regex &rgx, const char *data, size_t datalen, int mode);
// The same over [start, end); -1 when start is above end.
ssize_t mem_regexmatch(const Regex &rgx, const char *start, const char *end, int mode);

// ---- The cache ----------------------------------------------------------------------------------

struct RegexCacheStats {
  uint32_t hits;
  uint32_t misses;
  uint32_t races_lost;
  uint64_t evicted_by_rotation;
  uint32_t rotations;
};

enum RegexCacheState : int {
  REGEX_CACHE_UNITIALIZED = 0,
  REGEX_CACHE_INITIALIZED = 1,
  REGEX_CACHE_DESTROYED = 2,
};
RegexCacheState regexCacheState();

// The young generation rotates into the old when it holds more than this many retired
// patterns; default 8.
void setRegexCacheRotationLimit(uint64_t limit);
uint64_t regexCacheRotationLimit();
// Zeroes the statistics and returns what they were.
RegexCacheStats takeAndResetRegexCacheStats();
// Drops the old generation and makes the young one old. Does nothing before the cache exists
// or after it is destroyed.
void rotate_regex_cache();

struct RegexCacheCounts {
  size_t live;
  size_t young;
  size_t old;
};
RegexCacheCounts regexCacheCounts();

// Called on a miss before compiling, outside the cache's lock; null by default. For tests that
// need two threads to miss together.
void setRegexCacheMissHook(void (*hook)());

// MORVEK_RE2_REGEXES: a state only (1 disabled, 2 enabled, 0 not read yet); PCRE2 does all
// matching either way.
enum Re2RegexState : int { RE2_NOT_READ = 0, RE2_DISABLED = 1, RE2_ENABLED = 2 };
Re2RegexState re2RegexState();
// Reads the variable if not read yet; an unusable value is logged on the "Regex" channel.
Re2RegexState readRe2RegexState();
// Logs the state on logger and registers it with the crash log, once. Before any thread starts.
void initRe2RegexState(Logger &logger);
// Forgets the state so that the variable is read again. For tests.
void resetRe2RegexStateForTesting();

// ---- Substitution -------------------------------------------------------------------------------

// A replacement text parsed into literal pieces and group references ("\1" is group 1, "\0" the
// whole match). Read-only once built, so it can be shared between threads.
class RegexSubstitution {
 public:
  static constexpr size_t WHOLE_MATCH = ~size_t(0);
  static constexpr size_t INVALID = ~size_t(0);

  // Not valid() until initialised.
  RegexSubstitution() = default;
  // A plain text: one literal piece, no references.
  explicit RegexSubstitution(StrSegment text) { init(text); }
  void init(StrSegment text);
  void initWithBackrefs(const char *text, size_t size);
  void initWithBackrefs(const char *cstr) { initWithBackrefs(cstr, cstr ? strlen(cstr) : 0); }

  bool valid() const { return _count != INVALID; }
  size_t count() const { return _count; }
  const StrVector &pieces() const { return _pieces; }
  const std::vector<size_t> &references() const { return _references; }

  // Appends the replacement for match. When contiguous is given it tracks whether the output so
  // far is one unbroken view of the subject.
  void substitute(Str &out, const RegexMatch &match, StrSegment *contiguous = nullptr) const;

  // The empty substitution, which deletes what it replaces.
  static const RegexSubstitution &empty();

 private:
  void clear();

  StrVector _pieces;
  std::vector<size_t> _references;
  size_t _count = INVALID;
};

// Writes text with every match replaced into out; returns the number of replacements. With no
// match, out is a copy of text.
size_t _replaceAll(const Regex &regex, const char *text, size_t size, const RegexSubstitution &with,
                   Str &out);
// In place.
size_t replaceAll(const Regex &regex, Str &str, const RegexSubstitution &with);
// Deletes every match.
size_t removeAll(const Regex &regex, Str &str);

}  // namespace morvek
