#include "basicutil/Regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "basicutil/BasicConversions.h"
#include "basicutil/CrashLog.h"
#include "basicutil/Logger.h"
#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

Logger logger("Regex");

constexpr uint32_t COMPILE_OPTIONS = PCRE2_UTF | PCRE2_AUTO_CALLOUT;
static_assert(COMPILE_OPTIONS == 0x80004);
static_assert((COMPILE_OPTIONS | PCRE2_ANCHORED) == 0x80080004);
// PCRE2 numbers its compile errors from 100: its error 21 is the allocator giving up.
constexpr int COMPILE_ERROR_NO_MEMORY = 100 + 21;

// Stands in for a null subject, so PCRE2 always sees a real pointer.
const char EMPTY_TEXT[1] = {'\0'};

StrSegment nullSegment() {
  StrSegment s;
  s._data = nullptr;
  s._len = 0;
  return s;
}

bool segmentValid(const StrSegment &g) { return g._data != nullptr; }

void appendPcreErrorMessage(Str &out, int err) {
  PCRE2_UCHAR buf[512];
  int n = pcre2_get_error_message(err, buf, sizeof buf);
  if (n >= 0) out.append(reinterpret_cast<const char *>(buf), static_cast<size_t>(n));
}

[[noreturn]] void throwCompileError(int err) {
  if (err == COMPILE_ERROR_NO_MEMORY) throw std::bad_alloc();
  Str message("Regex: ");
  appendPcreErrorMessage(message, err);
  throw RegexException(message);
}

bool nameLess(const RegexNamedGroup &a, const char *name, size_t len) {
  int c = memcmp(a.name, name, std::min(a.name_len, len));
  return c != 0 ? c < 0 : a.name_len < len;
}

bool nameEquals(const RegexNamedGroup &a, const char *name, size_t len) {
  return a.name_len == len && memcmp(a.name, name, len) == 0;
}

// ---- Per-thread match data ----------------------------------------------------------------------

// Grown to the largest pattern the thread has used and never shrunk. Trivially destructible, so
// it stays readable after the reaper below has run at thread exit.
struct ThreadMatchData {
  pcre2_match_data *data;
  uint32_t pairs;
  bool reaped;
};
// Initial-exec: matching reads this on every call, and a general-dynamic access costs a call.
thread_local constinit ThreadMatchData thread_match_data
    __attribute__((tls_model("initial-exec"))) = {nullptr, 0, false};

struct ThreadMatchDataReaper {
  void arm() {}
  ~ThreadMatchDataReaper() {
    pcre2_match_data_free(thread_match_data.data);
    thread_match_data = {nullptr, 0, true};
  }
};
thread_local ThreadMatchDataReaper thread_match_data_reaper;

pcre2_match_data *createMatchData(uint32_t pairs) {
  pcre2_match_data *d = pcre2_match_data_create(pairs, nullptr);
  if (d == nullptr) throw std::bad_alloc();
  return d;
}

// The thread's match data with room for capture_count groups; once the thread's own has been
// freed at its exit, a temporary one for this match alone.
class ScopedMatchData {
 public:
  explicit ScopedMatchData(uint32_t capture_count) {
    ThreadMatchData &t = thread_match_data;
    if (t.reaped) {
      _data = _temporary = createMatchData(capture_count + 1);
      return;
    }
    if (capture_count >= t.pairs) {
      pcre2_match_data *d = createMatchData(capture_count + 1);
      thread_match_data_reaper.arm();
      pcre2_match_data_free(t.data);
      t.data = d;
      t.pairs = capture_count + 1;
    }
    _data = t.data;
  }
  ~ScopedMatchData() {
    if (_temporary != nullptr) pcre2_match_data_free(_temporary);
  }
  ScopedMatchData(const ScopedMatchData &) = delete;
  ScopedMatchData &operator=(const ScopedMatchData &) = delete;

  pcre2_match_data *get() const { return _data; }

 private:
  pcre2_match_data *_data;
  pcre2_match_data *_temporary = nullptr;
};

}  // namespace

// ---- Regex::Impl --------------------------------------------------------------------------------

struct Regex::Impl {
  Impl() = default;
  explicit Impl(StrSegment pattern) : _pattern(pattern) {}
  ~Impl() {
    pcre2_code_free(code);
    pcre2_code_free(full_match_code);
  }
  Impl(const Impl &) = delete;
  Impl &operator=(const Impl &) = delete;

  void _internal_init();

  pcre2_code *code = nullptr;
  pcre2_code *full_match_code = nullptr;
  uint32_t capture_count = 0;
  std::vector<RegexNamedGroup> _named_groups;
  bool anchored = false;
  HashedStr _pattern;
};

namespace {

// What an empty handle stands on: no code, so every match fails. Never destroyed.
const Regex::Impl &emptyImpl() {
  static const Regex::Impl *empty = new Regex::Impl();
  return *empty;
}

}  // namespace

void Regex::Impl::_internal_init() {
  // The crash notation reads a Str; a compile costs far more than the copy.
  const Str pattern(_pattern.segment());
  CrashlogAnnotateRegexCompile annotator(&pattern);

  int err = 0;
  PCRE2_SIZE err_offset = 0;
  code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                       COMPILE_OPTIONS, &err, &err_offset, nullptr);
  if (code == nullptr) throwCompileError(err);

  pcre2_pattern_info(code, PCRE2_INFO_CAPTURECOUNT, &capture_count);
  uint32_t all_options = 0;
  int rc = pcre2_pattern_info(code, PCRE2_INFO_ALLOPTIONS, &all_options);
  if (rc != 0) {
    logger.error("Failed to lookup PCRE options with return=%d (regex=%s).", rc, pattern.c_str());
  } else {
    anchored = (all_options & PCRE2_ANCHORED) != 0;
  }

  MV_ASSERT(_named_groups.empty());
  uint32_t name_count = 0;
  pcre2_pattern_info(code, PCRE2_INFO_NAMECOUNT, &name_count);
  if (name_count != 0) {
    uint32_t entry_size = 0;
    PCRE2_SPTR table = nullptr;
    if (pcre2_pattern_info(code, PCRE2_INFO_NAMEENTRYSIZE, &entry_size) != 0 ||
        pcre2_pattern_info(code, PCRE2_INFO_NAMETABLE, &table) != 0) {
      logger.error("Failed to get info about name table (regex=%s).", pattern.c_str());
    } else {
      _named_groups.reserve(name_count);
      for (uint32_t i = 0; i < name_count; ++i) {
        PCRE2_SPTR entry = table + static_cast<size_t>(i) * entry_size;
        uint32_t group_id = (static_cast<uint32_t>(entry[0]) << 8) | entry[1];
        MV_ASSERT(group_id > 0);
        const char *name = reinterpret_cast<const char *>(entry + 2);
        _named_groups.push_back({name, strlen(name), group_id - 1});
      }
      std::stable_sort(_named_groups.begin(), _named_groups.end(),
                       [](const RegexNamedGroup &a, const RegexNamedGroup &b) {
                         return nameLess(a, b.name, b.name_len);
                       });
      // Of equal names the one of the highest group stays: the last match is the one reported.
      size_t kept = 0;
      for (size_t i = 0; i < _named_groups.size(); ++i) {
        if (kept > 0 &&
            nameEquals(_named_groups[kept - 1], _named_groups[i].name, _named_groups[i].name_len)) {
          logger.warn(
              "Multiple named subpatterns with the same name were found. This is not supported. "
              "The last match will be returned.");
          _named_groups[kept - 1] = _named_groups[i];
        } else {
          _named_groups[kept++] = _named_groups[i];
        }
      }
      _named_groups.resize(kept);
    }
  }

  // The anchored whole-subject form. Patterns that can't be wrapped (a trailing comment under
  // "(?x)", say) fail here quietly and MATCH_FULL falls back on a span test.
  Str full;
  full.reserve(pattern.size() + 7);
  full.append("(?:").append(pattern).append(")\\z");
  {
    CrashlogAnnotateRegexCompile full_annotator(&pattern, "compiling full-match pattern");
    full_match_code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(full.data()), full.size(),
                                    COMPILE_OPTIONS | PCRE2_ANCHORED, &err, &err_offset, nullptr);
  }
  if (full_match_code == nullptr && err == COMPILE_ERROR_NO_MEMORY) throw std::bad_alloc();
}

// ---- RegexMatch ---------------------------------------------------------------------------------

RegexMatch::~RegexMatch() { pcre2_match_context_free(_match_context); }

void RegexMatch::reset() {
  _groups.clear();
  _subject = nullptr;
  _match_start = nullptr;
  _match_length = 0;
  _limit_hit = REGEX_LIMIT_NONE;
}

size_t RegexMatch::getGroupMatchStart(size_t idx) const {
  MV_ASSERT(idx < size());
  const StrSegment &g = _groups[idx];
  MV_ASSERT(segmentValid(g));
  return static_cast<size_t>(g._data - _subject);
}

size_t RegexMatch::getGroupMatchEnd(size_t idx) const {
  MV_ASSERT(idx < size());
  const StrSegment &g = _groups[idx];
  MV_ASSERT(segmentValid(g));
  return static_cast<size_t>(g._data - _subject) + g._len;
}

void RegexMatch::setLimits(const RegexLimits &limits) {
  if (_match_context == nullptr) {
    _match_context = pcre2_match_context_create(nullptr);
    if (_match_context == nullptr) throw std::bad_alloc();
  }
  pcre2_set_match_limit(_match_context, limits.match_limit);
  pcre2_set_depth_limit(_match_context, limits.depth_limit);
}

// ---- Regex --------------------------------------------------------------------------------------

Regex::Regex(const char *pattern) : Regex(StrSegment(pattern)) {}
Regex::Regex(StrSegment pattern) : Regex(pattern._data, pattern._len) {}
Regex::Regex(const char *pattern, size_t len) : _impl(cached(pattern, len)) {}
Regex::Regex(const char *pattern, size_t len, uint64_t hash) : _impl(cached(pattern, len, hash)) {}
Regex::Regex(const HashedStr &pattern) : Regex(pattern.data(), pattern.size(), pattern.hash()) {}
Regex::Regex(RegexCaseInsensitiveTag, StrSegment pattern) : Regex(Str("(?i)", pattern)) {}

Regex &Regex::operator=(const char *pattern) { return *this = StrSegment(pattern); }
Regex &Regex::operator=(StrSegment pattern) {
  assign(pattern._data, pattern._len);
  return *this;
}
void Regex::assign(const char *pattern, size_t len) { *this = Regex(pattern, len); }
void Regex::assign(const char *pattern, size_t len, uint64_t hash) {
  *this = Regex(pattern, len, hash);
}

bool Regex::tryAssign(StrSegment pattern) {
  try {
    *this = Regex(pattern);
    return true;
  } catch (const RegexException &) {
    return false;
  }
}

bool Regex::tryAssignCaseInsensitive(StrSegment pattern) {
  try {
    *this = Regex(REGEX_CASE_INSENSITIVE, pattern);
    return true;
  } catch (const RegexException &) {
    return false;
  }
}

const Regex::Impl &Regex::impl() const { return _impl ? *_impl : emptyImpl(); }

uint32_t Regex::getCaptureGroupCount() const { return impl().capture_count; }
bool Regex::isAnchored() const { return impl().anchored; }
const HashedStr &Regex::getPattern() const { return impl()._pattern; }
const std::vector<RegexNamedGroup> &Regex::namedGroups() const { return impl()._named_groups; }

bool Regex::canMatchEmpty() const {
  const Impl &re = impl();
  uint32_t value = 0;
  int rc = pcre2_pattern_info(re.code, PCRE2_INFO_MATCHEMPTY, &value);
  if (rc != 0) {
    Str message(Str::FORMAT, "Regex %s: ", re._pattern.c_str());
    appendPcreErrorMessage(message, rc);
    throw RegexException(message);
  }
  return value == 1;
}

const RegexNamedGroup *Regex::lookupName(StrSegment name) const {
  const std::vector<RegexNamedGroup> &groups = impl()._named_groups;
  auto it = std::lower_bound(
      groups.begin(), groups.end(), name,
      [](const RegexNamedGroup &g, const StrSegment &n) { return nameLess(g, n._data, n._len); });
  if (it == groups.end() || !nameEquals(*it, name._data, name._len)) return nullptr;
  return &*it;
}

bool Regex::matchBase(const char *text, size_t text_size, size_t *offset, RegexMatch *match,
                      StrSegment *rest, MatchMode mode) const {
  if (!_impl) return false;
  if (match != nullptr) match->reset();
  if (text == nullptr) {
    MV_ASSERT(text_size == 0);
    text = EMPTY_TEXT;
  }
  const Impl *regex = _impl.get();
  pcre2_code *code =
      mode == MATCH_FULL && regex->full_match_code ? regex->full_match_code : regex->code;
  if (code == nullptr) return false;

  ScopedMatchData scoped(regex->capture_count);
  pcre2_match_data *match_data = scoped.get();
  size_t start = offset != nullptr ? *offset : 0;
  uint32_t options = PCRE2_NO_UTF_CHECK;
  if (mode == MATCH_PARTIAL) options |= PCRE2_PARTIAL_HARD;
  if (mode == MATCH_NOT_BOL) options |= PCRE2_NOTBOL;
  int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(text), text_size, start, options,
                       match_data, match != nullptr ? match->_match_context : nullptr);
  bool partial = false;
  if (rc == PCRE2_ERROR_PARTIAL) {
    partial = true;
    rc = 1;
  } else if (rc < 0) {
    switch (rc) {
      case PCRE2_ERROR_MATCHLIMIT:
        logger.error("Failed in pcre_exec: Error PCRE_ERROR_MATCHLIMIT for regex: %s",
                     regex->_pattern.c_str());
        if (match != nullptr) match->_limit_hit = REGEX_LIMIT_MATCH;
        return false;
      case PCRE2_ERROR_DEPTHLIMIT:
        logger.error("Failed in pcre_exec: Error PCRE_ERROR_DEPTHLIMIT for regex: %s",
                     regex->_pattern.c_str());
        if (match != nullptr) match->_limit_hit = REGEX_LIMIT_DEPTH;
        return false;
      case PCRE2_ERROR_NOMEMORY:
        throw std::bad_alloc();
      default:
        return false;
    }
  }
  MV_ASSERT(rc > 0);
  MV_ASSERT(getCaptureGroupCount() + 1 >= (size_t)rc);
  MV_ASSERT(::pcre2_get_ovector_count(match_data) >= (size_t)rc);

  const PCRE2_SIZE *ov = pcre2_get_ovector_pointer(match_data);
  if (mode == MATCH_FULL && (ov[0] != start || ov[1] != text_size)) return false;
  size_t end = std::min<size_t>(ov[1], text_size);
  if (rest != nullptr) *rest = StrSegment(text + end, text_size - end);
  if (offset != nullptr) *offset = end;
  if (match == nullptr) return true;

  RegexMatch *my_data = match;
  MV_ASSERT(regex != nullptr);
  MV_ASSERT(my_data != nullptr);
  size_t match_start = std::min<size_t>(ov[0], end);
  my_data->_subject = text;
  my_data->_match_start = text + match_start;
  my_data->_match_length = end - match_start;
  my_data->_groups.resize(regex->capture_count);
  for (uint32_t i = 0; i < regex->capture_count; ++i) {
    PCRE2_SIZE s = ov[2 * (i + 1)];
    PCRE2_SIZE e = ov[2 * (i + 1) + 1];
    // A partial match reports its extent only.
    if (partial || s == PCRE2_UNSET || e < s) {
      my_data->_groups[i] = nullSegment();
    } else {
      my_data->_groups[i] = StrSegment(text + s, e - s);
    }
  }
  return true;
}

bool Regex::match(StrSegment &subject, RegexMatch *match, MatchMode mode) const {
  if (subject.empty()) return false;
  StrSegment rest;
  if (!matchBase(subject._data, subject._len, nullptr, match, &rest, mode)) return false;
  subject = rest;
  return true;
}

bool Regex::match(StrSegment subject, size_t &offset, RegexMatch *match, MatchMode mode) const {
  if (subject.empty() || offset >= subject._len) return false;
  return matchBase(subject._data, subject._len, &offset, match, nullptr, mode);
}

ssize_t mem_regexmatch(const Regex &rgx, const char *data, size_t datalen, int mode) {
  const Regex::Impl &re = rgx.impl();
  if (data == nullptr) {
    MV_ASSERT(datalen == 0);
    data = EMPTY_TEXT;
  }
  pcre2_code *code = mode == MEM_REGEXMATCH_FULL ? re.full_match_code : re.code;
  if (code == nullptr) return -1;
  uint32_t options = PCRE2_NO_UTF_CHECK;
  if (mode == MEM_REGEXMATCH_ANCHORED && !re.anchored) options |= PCRE2_ANCHORED;

  ScopedMatchData scoped(re.capture_count);
  pcre2_match_data *match_data = scoped.get();
  int rc = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(data), datalen, 0, options, match_data,
                       nullptr);
  if (rc == PCRE2_ERROR_NOMEMORY) throw std::bad_alloc();
  if (rc < 0) return -1;
  MV_ASSERT(rc > 0);
  MV_ASSERT(rgx.getCaptureGroupCount() + 1 >= (size_t)rc);
  MV_ASSERT(::pcre2_get_ovector_count(match_data) >= (size_t)rc);
  const PCRE2_SIZE *ov = pcre2_get_ovector_pointer(match_data);
  if (mode == MEM_REGEXMATCH_FULL && (ov[0] != 0 || ov[1] != datalen)) return -1;
  return static_cast<ssize_t>(ov[0]);
}

ssize_t mem_regexmatch(const Regex &rgx, const char *start, const char *end, int mode) {
  if (start > end) return -1;
  return mem_regexmatch(rgx, start, static_cast<size_t>(end - start), mode);
}

void Regex::appendQuoted(Str &out, StrSegment text) {
  out.reserve(out.size() + text._len * 2);
  for (size_t i = 0; i < text._len; ++i) {
    unsigned char c = static_cast<unsigned char>(text._data[i]);
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '_' || c > 127;
    if (plain) {
      out.push_back(static_cast<char>(c));
    } else if (c == '\0') {
      // "\0" followed by an octal digit would read as a longer escape.
      bool octal_next = i + 1 < text._len && text._data[i + 1] >= '0' && text._data[i + 1] <= '7';
      out.append(octal_next ? "\\000" : "\\0");
    } else {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    }
  }
}

Str Regex::quote(StrSegment text) {
  Str out;
  appendQuoted(out, text);
  return out;
}

// ---- The cache ----------------------------------------------------------------------------------

namespace {

std::atomic<int> regex_cache_state{REGEX_CACHE_UNITIALIZED};
std::atomic<uint64_t> rotation_limit{8};
std::atomic<void (*)()> miss_hook{nullptr};

// Set while this thread holds the cache's mutex: a Deleter run from under it (a handle whose
// control block couldn't be allocated) must not lock again.
thread_local bool holding_cache_lock = false;

bool sameText(const HashedStr &key, const char *text, size_t size) {
  return key.size() == size && (size == 0 || memcmp(key.data(), text, size) == 0);
}

// The pattern this thread last built twice in a row, looked at before the shared maps, so that
// a thread which builds the same Regex again and again takes neither the hash nor the mutex;
// taking a pattern in costs reference counts, which patterns built in turn don't repay. It holds
// the key text and a weak reference, never a handle, so it changes nothing in the cache's rules:
// - it keeps no pattern live: the last handle's end still retires the pattern into young, and
//   rotations age and drop it as before, whatever fronts name it;
// - it answers only while its weak reference locks, that is while some handle exists; then the
//   pattern is in live under this text, and the shared lookup would return this same object;
// - once expired a weak reference never locks again, so a retired, evicted or freed pattern is
//   never handed out from here: the shared lookup revives it or compiles anew;
// - its hits count as hits.
struct ThreadFront {
  HashedStr key;
  std::weak_ptr<const Regex::Impl> weak;
  // The hash of the last pattern built, if the shared maps gave it; else 0.
  uint64_t last_hash = 0;
  // Written by its thread alone, without a locked instruction; the statistics take what was
  // added since they last looked, under the cache's mutex.
  std::atomic<uint32_t> hits{0};
  uint32_t hits_taken = 0;
  // In the cache's list of fronts once the thread has used the cache.
  ThreadFront *next = nullptr;
  ThreadFront **prevp = nullptr;
  ~ThreadFront();
};
// Both trivially destructible, so they can be read after the front has gone at thread exit;
// the pointer spares the hot path the guard of the front's own initialisation.
thread_local constinit bool thread_front_gone = false;
thread_local constinit ThreadFront *thread_front_ptr __attribute__((tls_model("initial-exec"))) =
    nullptr;
thread_local ThreadFront thread_front;

// Keys are the patterns' own texts: a live entry's Impl outlives the entry, since its Deleter
// removes the entry before it frees anything.
class GlobalRegexCache {
 public:
  struct LiveEntry {
    std::weak_ptr<const Regex::Impl> weak;
    const Regex::Impl *raw;
  };
  using Retired = std::unique_ptr<const Regex::Impl>;
  using Generation = std::multimap<uint64_t, Retired>;

  static GlobalRegexCache &instance() {
    static GlobalRegexCache *cache = [] {
      auto *c = new GlobalRegexCache();
      int expected = REGEX_CACHE_UNITIALIZED;
      regex_cache_state.compare_exchange_strong(expected, REGEX_CACHE_INITIALIZED);
      return c;
    }();
    return *cache;
  }

  class Lock {
   public:
    explicit Lock(GlobalRegexCache &cache) : _cache(cache) {
      _cache._mutex.lock();
      holding_cache_lock = true;
    }
    ~Lock() { unlock(); }
    void unlock() {
      if (!_locked) return;
      _locked = false;
      holding_cache_lock = false;
      _cache._mutex.unlock();
    }

   private:
    GlobalRegexCache &_cache;
    bool _locked = true;
  };

  // Under the mutex. A retired pattern found in young or old comes back to live.
  std::shared_ptr<const Regex::Impl> lookup(uint64_t hash, const char *text, size_t size) {
    // One descent: equal hashes sit next to each other from the lower bound on.
    for (auto it = _live.lower_bound(hash); it != _live.end() && it->first == hash; ++it) {
      if (!sameText(it->second.raw->_pattern, text, size)) continue;
      if (auto handle = it->second.weak.lock()) return handle;
      _live.erase(it);
      break;
    }
    for (Generation *gen : {&_young, &_old}) {
      auto [gb, ge] = gen->equal_range(hash);
      for (auto it = gb; it != ge; ++it) {
        if (!sameText(it->second->_pattern, text, size)) continue;
        const Regex::Impl *raw = it->second.release();
        gen->erase(it);
        std::shared_ptr<const Regex::Impl> handle(raw, Regex::Deleter());
        _live.emplace(hash, LiveEntry{handle, raw});
        return handle;
      }
    }
    return nullptr;
  }

  void rotateLocked() {
    MV_ASSERT(regex_cache_state == REGEX_CACHE_INITIALIZED);
    _stats.evicted_by_rotation += _old.size();
    _stats.rotations += 1;
    _old.clear();
    _young.swap(_old);
  }

  void listFrontLocked(ThreadFront &front) {
    if (front.prevp != nullptr) return;
    front.next = _fronts;
    if (_fronts != nullptr) _fronts->prevp = &front.next;
    _fronts = &front;
    front.prevp = &_fronts;
  }
  void unlistFrontLocked(ThreadFront &front) {
    takeFrontHitsLocked(front);
    *front.prevp = front.next;
    if (front.next != nullptr) front.next->prevp = front.prevp;
    front.prevp = nullptr;
  }
  void takeFrontHitsLocked(ThreadFront &front) {
    uint32_t n = front.hits.load(std::memory_order_relaxed);
    _stats.hits += n - front.hits_taken;
    front.hits_taken = n;
  }

  PthreadMutex _mutex;
  std::multimap<uint64_t, LiveEntry> _live;
  Generation _young;
  Generation _old;
  RegexCacheStats _stats{};
  ThreadFront *_fronts = nullptr;
};

// Moves the cache's state to initialised before main and to destroyed among the static
// destructors. Live entries stay, as handles may outlive this; they free themselves on arrival.
struct GlobalRegexCacheSingletonConstructor {
  GlobalRegexCacheSingletonConstructor() { GlobalRegexCache::instance(); }
  ~GlobalRegexCacheSingletonConstructor() {
    MV_ASSERT(regex_cache_state == REGEX_CACHE_INITIALIZED);
    GlobalRegexCache &cache = GlobalRegexCache::instance();
    GlobalRegexCache::Generation young, old;
    {
      GlobalRegexCache::Lock lock(cache);
      regex_cache_state = REGEX_CACHE_DESTROYED;
      young.swap(cache._young);
      old.swap(cache._old);
    }
  }
} regex_cache_singleton_constructor;

ThreadFront::~ThreadFront() {
  thread_front_gone = true;
  thread_front_ptr = nullptr;
  if (prevp == nullptr) return;
  GlobalRegexCache &cache = GlobalRegexCache::instance();
  GlobalRegexCache::Lock lock(cache);
  cache.unlistFrontLocked(*this);
}

// Null once the thread's front has gone at its exit.
ThreadFront *threadFront() {
  if (ThreadFront *front = thread_front_ptr) return front;
  if (thread_front_gone) return nullptr;
  return thread_front_ptr = &thread_front;
}

std::shared_ptr<const Regex::Impl> frontLookup(ThreadFront *front, const char *text, size_t size) {
  if (front == nullptr || !sameText(front->key, text, size)) return nullptr;
  std::shared_ptr<const Regex::Impl> handle = front->weak.lock();
  if (handle) {
    front->hits.store(front->hits.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    front->last_hash = 0;  // a pattern that alternates with the front's doesn't displace it
  }
  return handle;
}

void frontRemember(ThreadFront *front, const std::shared_ptr<const Regex::Impl> &handle,
                   uint64_t hash) {
  if (front == nullptr) return;
  bool again = front->last_hash == hash;
  front->last_hash = hash;
  if (!again) return;
  if (front->key.data() != handle->_pattern.data()) front->key = handle->_pattern;
  front->weak = handle;
}

// Lookup in the shared maps, and on a miss the compile.
std::shared_ptr<const Regex::Impl> sharedLookupOrCompile(const char *text, size_t size,
                                                         uint64_t hash, ThreadFront *front) {
  GlobalRegexCache &cache = GlobalRegexCache::instance();
  std::shared_ptr<const Regex::Impl> handle;
  {
    GlobalRegexCache::Lock lock(cache);
    if (front != nullptr) cache.listFrontLocked(*front);
    handle = cache.lookup(hash, text, size);
    if (handle) {
      cache._stats.hits += 1;
      lock.unlock();
      frontRemember(front, handle, hash);
      return handle;
    }
    cache._stats.misses += 1;
  }
  if (void (*hook)() = miss_hook.load()) hook();

  auto fresh = std::make_unique<Regex::Impl>(StrSegment(text, size));
  MV_ASSERT(hash == fresh->_pattern.hash());
  fresh->_internal_init();
  std::shared_ptr<const Regex::Impl> created(fresh.release(), Regex::Deleter());
  {
    GlobalRegexCache::Lock lock(cache);
    handle = cache.lookup(hash, text, size);
    if (handle) {
      cache._stats.races_lost += 1;
      lock.unlock();
      frontRemember(front, handle, hash);
      return handle;  // created goes now, outside the lock
    }
    cache._live.emplace(hash, GlobalRegexCache::LiveEntry{created, created.get()});
  }
  frontRemember(front, created, hash);
  return created;
}

// The thread's front first; the shared maps, with the hash that hash_of gives, only on a miss.
template <class HashOf>
std::shared_ptr<const Regex::Impl> frontThenShared(const char *text, size_t size, HashOf hash_of) {
  if (text == nullptr) {
    MV_ASSERT(size == 0);
    text = EMPTY_TEXT;
  }
  ThreadFront *front = threadFront();
  if (auto handle = frontLookup(front, text, size)) return handle;
  return sharedLookupOrCompile(text, size, hash_of(text, size), front);
}

}  // namespace

std::shared_ptr<const Regex::Impl> Regex::cached(const char *text, size_t size) {
  return frontThenShared(text, size, [](const char *t, size_t n) { return hashBytes(t, n); });
}

std::shared_ptr<const Regex::Impl> Regex::cached(const char *text, size_t size, uint64_t hash) {
  return frontThenShared(text, size, [hash](const char *, size_t) { return hash; });
}

Regex Regex::_get(const char *text, size_t size, uint64_t hash) {
  Regex result;
  result._impl = cached(text, size, hash);
  return result;
}

void Regex::Deleter::operator()(const Impl *impl) const {
  MV_ASSERT(regex_cache_state != REGEX_CACHE_UNITIALIZED);
  std::unique_ptr<const Impl> doomed(impl);
  if (holding_cache_lock) return;
  GlobalRegexCache &cache = GlobalRegexCache::instance();
  GlobalRegexCache::Lock lock(cache);
  if (cache._live.empty()) return;
  uint64_t hash = impl->_pattern.hash();
  auto [lb, le] = cache._live.equal_range(hash);
  auto entry = std::find_if(lb, le, [impl](const auto &e) { return e.second.raw == impl; });
  if (entry == le || !entry->second.weak.expired()) return;
  cache._live.erase(entry);
  if (regex_cache_state == REGEX_CACHE_DESTROYED) return;

  auto [yb, ye] = cache._young.equal_range(hash);
  auto same = std::find_if(yb, ye, [impl](const auto &e) {
    return sameText(e.second->_pattern, impl->_pattern.data(), impl->_pattern.size());
  });
  if (same != ye) {
    same->second.swap(doomed);
  } else {
    cache._young.emplace(hash, std::move(doomed));
  }
  if (cache._young.size() > rotation_limit.load(std::memory_order_relaxed)) cache.rotateLocked();
}

RegexCacheState regexCacheState() { return static_cast<RegexCacheState>(regex_cache_state.load()); }

void setRegexCacheRotationLimit(uint64_t limit) { rotation_limit.store(limit); }
uint64_t regexCacheRotationLimit() { return rotation_limit.load(); }

RegexCacheStats takeAndResetRegexCacheStats() {
  RegexCacheStats taken{};
  if (regex_cache_state == REGEX_CACHE_UNITIALIZED) return taken;
  GlobalRegexCache &cache = GlobalRegexCache::instance();
  GlobalRegexCache::Lock lock(cache);
  for (ThreadFront *front = cache._fronts; front != nullptr; front = front->next) {
    cache.takeFrontHitsLocked(*front);
  }
  std::swap(taken, cache._stats);
  return taken;
}

void rotate_regex_cache() {
  if (regex_cache_state == REGEX_CACHE_UNITIALIZED) return;
  GlobalRegexCache &cache = GlobalRegexCache::instance();
  GlobalRegexCache::Lock lock(cache);
  if (regex_cache_state == REGEX_CACHE_INITIALIZED) cache.rotateLocked();
}

RegexCacheCounts regexCacheCounts() {
  if (regex_cache_state == REGEX_CACHE_UNITIALIZED) return {0, 0, 0};
  GlobalRegexCache &cache = GlobalRegexCache::instance();
  GlobalRegexCache::Lock lock(cache);
  return {cache._live.size(), cache._young.size(), cache._old.size()};
}

void setRegexCacheMissHook(void (*hook)()) { miss_hook.store(hook); }

// ---- MORVEK_RE2_REGEXES -------------------------------------------------------------------------

namespace {

constexpr const char *RE2_VARIABLE = "MORVEK_RE2_REGEXES";
std::atomic<int> re2_state{RE2_NOT_READ};
std::atomic<bool> re2_crash_note_added{false};

}  // namespace

Re2RegexState re2RegexState() { return static_cast<Re2RegexState>(re2_state.load()); }

Re2RegexState readRe2RegexState() {
  int state = re2_state.load();
  if (state != RE2_NOT_READ) return static_cast<Re2RegexState>(state);
  const char *value = getenv(RE2_VARIABLE);
  if (value == nullptr || value[0] == '\0') {
    state = RE2_ENABLED;
  } else if (strchr("FNfn0", value[0]) != nullptr) {
    state = RE2_DISABLED;
  } else if (strchr("TYty1", value[0]) != nullptr) {
    state = RE2_ENABLED;
  } else {
    logger.error("Can't parse %s setting of \"%s\", disabling re2", RE2_VARIABLE, value);
    state = RE2_DISABLED;
  }
  int expected = RE2_NOT_READ;
  if (!re2_state.compare_exchange_strong(expected, state)) state = expected;
  return static_cast<Re2RegexState>(state);
}

void initRe2RegexState(Logger &log) {
  Thread::assertNotMultithreadedYet();
  bool enabled = readRe2RegexState() == RE2_ENABLED;
  log.info("RE2 library %s", enabled ? "enabled" : "disabled");
  if (!re2_crash_note_added.exchange(true)) {
    addCrashLogNote(enabled ? "RE2 regex engine enabled\n" : "RE2 regex engine disabled\n");
  }
}

void resetRe2RegexStateForTesting() { re2_state.store(RE2_NOT_READ); }

// ---- Substitution -------------------------------------------------------------------------------

namespace {

struct BackrefParser {
  // A literal run (where a backslash escapes anything but a digit), or the start, then "\digits".
  Regex reference{"((?:[^\\\\]|(?:\\\\[\\D]))+|^)(?:\\\\(\\d+))"};
  Regex double_backslash{"\\\\\\\\"};
  RegexSubstitution one_backslash{StrSegment("\\")};
};

// Built on first use and never destroyed, so replacements work from static destructors too.
const BackrefParser &backrefParser() {
  static const BackrefParser *parser = new BackrefParser();
  return *parser;
}

void pushCollapsed(StrVector &pieces, const char *data, size_t size) {
  const BackrefParser &parser = backrefParser();
  pieces.emplace_back();
  _replaceAll(parser.double_backslash, data, size, parser.one_backslash, pieces.back());
}

}  // namespace

void RegexSubstitution::clear() {
  _pieces.clear();
  _references.clear();
  _count = 0;
}

void RegexSubstitution::init(StrSegment text) {
  clear();
  if (!text.empty()) _pieces.emplace_back(text);
  _count = _pieces.size();
}

void RegexSubstitution::initWithBackrefs(const char *text, size_t size) {
  clear();
  const BackrefParser &parser = backrefParser();
  StrSegment rest(text, size);
  RegexMatch m;
  while (!rest.empty()) {
    const char *run_start = rest._data;
    if (!parser.reference.match(rest, &m)) break;
    // The run's text, from wherever the search began up to the backslash.
    const StrSegment &run = m[0];
    const char *run_end = segmentValid(run) ? run._data + run._len : m.getMatch()._data;
    pushCollapsed(_pieces, run_start, static_cast<size_t>(run_end - run_start));
    const StrSegment &digits = m[1];
    size_t index = 0;
    if (parse_unsigned_val(digits._data, digits._data + digits._len, index, ~size_t(0))) {
      _references.push_back(index - 1);
    }
  }
  pushCollapsed(_pieces, rest._data, rest._len);
  while (!_pieces.empty() && _pieces.back().empty()) _pieces.pop_back();
  _count = std::max(_pieces.size(), _references.size());
  MV_ASSERT(valid());
}

const RegexSubstitution &RegexSubstitution::empty() {
  static const RegexSubstitution *empty = new RegexSubstitution(StrSegment());
  return *empty;
}

void RegexSubstitution::substitute(Str &out, const RegexMatch &match,
                                   StrSegment *contiguous) const {
  MV_ASSERT(valid());
  auto breakContiguity = [contiguous] {
    if (contiguous != nullptr) *contiguous = nullSegment();
  };
  auto appendSubjectPart = [&out, contiguous](StrSegment part) {
    out.append(part._data, part._len);
    if (contiguous == nullptr || !segmentValid(*contiguous)) return;
    if (contiguous->_len == 0) {
      *contiguous = part;
    } else if (contiguous->_data + contiguous->_len == part._data) {
      contiguous->_len += part._len;
    } else {
      *contiguous = nullSegment();
    }
  };
  for (size_t i = 0; i < _count; ++i) {
    if (i < _pieces.size() && !_pieces[i].empty()) {
      out.append(_pieces[i]);
      breakContiguity();
    }
    if (i >= _references.size()) continue;
    size_t ref = _references[i];
    if (ref == WHOLE_MATCH) {
      appendSubjectPart(match.getMatch());
    } else if (ref < match.size()) {
      if (match.groupMatched(ref)) appendSubjectPart(match[ref]);
    } else {
      out.appendf("\\%zu", ref + 1);
      breakContiguity();
    }
  }
}

size_t _replaceAll(const Regex &regex, const char *text, size_t size, const RegexSubstitution &with,
                   Str &out) {
  MV_ASSERT(with.valid());
  RegexMatch m;
  if (size == 0 || !regex.matchBase(text, size, nullptr, &m, nullptr, MATCH_SEARCH)) {
    if (size == 0) {
      out.clear();
    } else {
      out.assign(text, size);
    }
    return 0;
  }
  out.clear();
  const char *pos = text;
  const char *end = text + size;
  size_t n = 1;
  for (;;) {
    StrSegment whole = m.getMatch();
    out.append(pos, static_cast<size_t>(whole._data - pos));
    with.substitute(out, m);
    pos = whole._data + whole._len;
    if (whole._len == 0) {
      // Step over one byte, or an empty match would be found here forever.
      if (pos == end) break;
      out.push_back(*pos++);
    }
    if (pos == end) break;
    if (!regex.matchBase(pos, static_cast<size_t>(end - pos), nullptr, &m, nullptr,
                         MATCH_NOT_BOL)) {
      out.append(pos, static_cast<size_t>(end - pos));
      break;
    }
    ++n;
  }
  return n;
}

size_t replaceAll(const Regex &regex, Str &str, const RegexSubstitution &with) {
  MV_ASSERT(with.valid());
  Str out;
  size_t n = _replaceAll(regex, str.data(), str.size(), with, out);
  if (n != 0) str.swap(out);
  return n;
}

size_t removeAll(const Regex &regex, Str &str) {
  return replaceAll(regex, str, RegexSubstitution::empty());
}

}  // namespace morvek
