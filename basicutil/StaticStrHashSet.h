// StaticStrHashSet: a set of strings filled during start-up and searched afterwards with no lock.
#pragma once

#include <cstdint>
#include <vector>

#include "basicutil/Str.h"

namespace morvek {

// Sets made during static initialisation queue themselves; MainThread's constructor finalises
// the queue, and so does the first look-up in a set that is still being filled. The set points at
// Str objects that it doesn't own and that must outlive it.
class StaticStrHashSet {
 public:
  enum State : int32_t { STATE_UNPOPULATED = 1, STATE_POPULATING = 2, STATE_FINALIZED = 3 };
  using const_iterator = std::vector<const Str *>::const_iterator;

  StaticStrHashSet();
  ~StaticStrHashSet();
  StaticStrHashSet(const StaticStrHashSet &) = delete;
  StaticStrHashSet &operator=(const StaticStrHashSet &) = delete;

  // Only before any thread was started. Duplicates are kept.
  void insert(const Str &str);

  bool contains(const char *text, size_t len) const;
  bool contains(const char *cstr) const;
  bool contains(StrSegment text) const { return contains(text._data, text._len); }
  bool contains(StrSegment text, uint64_t hash) const;

  size_t size() const;
  const_iterator begin() const;
  const_iterator end() const;
  // Appends the members separated by ",".
  void join(Str &out) const;
  State getState() const { return _state; }

  void _finalize();
  static void finalizeAll();

 private:
  void unqueue();

  std::vector<const Str *> v;
  std::vector<uint64_t> hashes;
  State _state;
  StaticStrHashSet *_next_to_finalize;
  bool _queued;
};

}  // namespace morvek
