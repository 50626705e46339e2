#include "basicutil/StaticStrHashSet.h"

#include <algorithm>
#include <utility>

#include "basicutil/HashedStr.h"
#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// Constant-initialised: sets queue themselves from any static initialiser, in any order.
constinit StaticStrHashSet *queue_head = nullptr;

const std::vector<const Str *> &emptyMembers() {
  static const std::vector<const Str *> none;
  return none;
}

}  // namespace

StaticStrHashSet::StaticStrHashSet()
    : _state(STATE_UNPOPULATED), _next_to_finalize(queue_head), _queued(true) {
  queue_head = this;
}

StaticStrHashSet::~StaticStrHashSet() { unqueue(); }

void StaticStrHashSet::unqueue() {
  if (!_queued) return;
  for (StaticStrHashSet **pp = &queue_head; *pp != nullptr; pp = &(*pp)->_next_to_finalize) {
    if (*pp == this) {
      *pp = _next_to_finalize;
      break;
    }
  }
  _next_to_finalize = nullptr;
  _queued = false;
}

void StaticStrHashSet::insert(const Str &str) {
  Thread::assertNotMultithreadedYet();
  if (_state != STATE_POPULATING) {
    MV_ASSERT(_state == STATE_UNPOPULATED);
    v.clear();
    hashes.clear();
    _state = STATE_POPULATING;
  }
  v.push_back(&str);
}

void StaticStrHashSet::_finalize() {
  Thread::assertNotMultithreadedYet();
  if (_state == STATE_UNPOPULATED) {
    v.clear();
    hashes.clear();
    _state = STATE_FINALIZED;
    return;
  }
  MV_ASSERT(_state == STATE_POPULATING);
  StaticStrHashSet *const _i = this;
  MV_ASSERT(!_i->v.empty());
  MV_ASSERT(_i->hashes.empty());
  std::vector<std::pair<uint64_t, const Str *>> sorted;
  sorted.reserve(v.size());
  for (const Str *s : v) sorted.emplace_back(hashBytes(s->data(), s->size()), s);
  // Among equal hashes the order is of no interest, so the unstable introsort does.
  std::sort(sorted.begin(), sorted.end(),
            [](const auto &a, const auto &b) { return a.first < b.first; });
  hashes.reserve(sorted.size());
  for (size_t k = 0; k < sorted.size(); ++k) {
    hashes.push_back(sorted[k].first);
    v[k] = sorted[k].second;
  }
  _state = STATE_FINALIZED;
}

void StaticStrHashSet::finalizeAll() {
  // A set leaves the queue only once it is finalised, so an exception leaves the rest queued.
  while (queue_head != nullptr) {
    StaticStrHashSet *set = queue_head;
    if (set->_state != STATE_FINALIZED) set->_finalize();
    queue_head = set->_next_to_finalize;
    set->_next_to_finalize = nullptr;
    set->_queued = false;
  }
}

bool StaticStrHashSet::contains(const char *text, size_t len) const {
  return contains(StrSegment(text, len), hashBytes(text, len));
}

bool StaticStrHashSet::contains(const char *cstr) const {
  size_t len;
  uint64_t hash = hashCString(cstr, len);
  return contains(StrSegment(cstr, len), hash);
}

bool StaticStrHashSet::contains(StrSegment text, uint64_t hash) const {
  switch (_state) {
    case STATE_UNPOPULATED:
      return false;
    case STATE_POPULATING:
      Thread::assertNotMultithreadedYet();
      try {
        finalizeAll();
      } catch (...) {
        // Out of memory while sorting: the answer is still there, the slow way.
        for (const Str *s : v) {
          if (s->segment().equals(text)) return true;
        }
        return false;
      }
      break;
    case STATE_FINALIZED:
      break;
    default:
      MV_ASSERT(_state == STATE_FINALIZED || _state == STATE_POPULATING);
  }
  size_t n = hashes.size();
  if (n == 0) return false;
  // Bisection without branches on the data: the compiler makes the step a conditional move.
  const uint64_t *base = hashes.data();
  while (n > 1) {
    size_t half = n / 2;
    base = base[half - 1] < hash ? base + half : base;
    n -= half;
  }
  const uint64_t *end = hashes.data() + hashes.size();
  for (const uint64_t *h = base + (*base < hash); h != end && *h == hash; ++h) {
    const Str *s = v[static_cast<size_t>(h - hashes.data())];
    if (s->size() == text._len && memcmp(s->data(), text._data, text._len) == 0) return true;
  }
  return false;
}

size_t StaticStrHashSet::size() const { return _state == STATE_UNPOPULATED ? 0 : v.size(); }

StaticStrHashSet::const_iterator StaticStrHashSet::begin() const {
  if (_state == STATE_UNPOPULATED) return emptyMembers().begin();
  MV_ASSERT(_state == STATE_FINALIZED || _state == STATE_POPULATING);
  return v.begin();
}

StaticStrHashSet::const_iterator StaticStrHashSet::end() const {
  if (_state == STATE_UNPOPULATED) return emptyMembers().end();
  MV_ASSERT(_state == STATE_FINALIZED || _state == STATE_POPULATING);
  return v.end();
}

void StaticStrHashSet::join(Str &out) const {
  bool first = true;
  for (const Str *s : *this) {
    if (!first) out.push_back(',');
    out.append(*s);
    first = false;
  }
}

}  // namespace morvek
