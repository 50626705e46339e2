// The text hash, and HashedStr: a shared, immutable string whose hash is computed once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "basicutil/Str.h"

namespace morvek {

// Bernstein's hash over signed bytes: h = h * 33 + c from 5381. Works without the heap.
constexpr uint64_t HASH_SEED = 5381;
uint64_t hashBytesContinue(const void *data, size_t len, uint64_t h);
inline uint64_t hashBytes(const void *data, size_t len) {
  return hashBytesContinue(data, len, HASH_SEED);
}
inline uint64_t hashBytes(StrSegment text) { return hashBytes(text._data, text._len); }
uint64_t hashCString(const char *cstr);
// Also reports the length of the string.
uint64_t hashCString(const char *cstr, size_t &len);
// Folds 'A' to 'Z' to lower case first.
uint64_t hashBytesCaseless(const void *data, size_t len);

// A handle of one pointer on a reference-counted record that holds the length, the hash and the
// bytes with a NUL, so the handle reads as a C string. Copies share the record.
class HashedStr {
 public:
  HashedStr();
  explicit HashedStr(StrSegment text);
  HashedStr(const HashedStr &other);
  HashedStr(HashedStr &&other) noexcept;
  HashedStr &operator=(const HashedStr &other);
  HashedStr &operator=(HashedStr &&other) noexcept;
  ~HashedStr();

  const char *c_str() const { return _text; }
  const char *data() const { return _text; }
  uint32_t size() const { return record()->length; }
  bool empty() const { return size() == 0; }
  uint64_t hash() const { return record()->hash; }
  StrSegment segment() const { return StrSegment(_text, size()); }
  operator StrSegment() const { return segment(); }

  bool equals(const HashedStr &other) const;
  bool equals(StrSegment text) const;
  bool operator==(const HashedStr &other) const { return equals(other); }
  void swap(HashedStr &other) noexcept;
  // 0 for the shared empty record, which is never freed.
  uint32_t useCount() const;

  struct Record {
    uint32_t refcount;
    uint32_t length;
    uint64_t hash;
    char bytes[8];  // really length + 1 bytes
  };

 private:
  Record *record() const;
  void release();

  const char *_text;
};

// Intrusive list of HashedStr entries: each entry's _prevp points at the word pointing at it.
class HashedStrListEntry {
 public:
  explicit HashedStrListEntry(HashedStr str) : _str(static_cast<HashedStr &&>(str)) {}
  ~HashedStrListEntry() { unlink(); }
  HashedStrListEntry(const HashedStrListEntry &) = delete;
  HashedStrListEntry &operator=(const HashedStrListEntry &) = delete;

  bool isLinked() const { return _prevp != nullptr; }
  void unlink();

  HashedStr _str;
  HashedStrListEntry *_next = nullptr;
  HashedStrListEntry **_prevp = nullptr;
};

class HashedStrList {
 public:
  HashedStrList() = default;
  HashedStrList(const HashedStrList &) = delete;
  HashedStrList &operator=(const HashedStrList &) = delete;

  void pushFront(HashedStrListEntry &entry);
  void swap(HashedStrList &other);
  bool empty() const { return _root == nullptr; }

  HashedStrListEntry *_root = nullptr;
};

}  // namespace morvek
