// StrVector, the growable sequence of Str, with the vector of views beside it, and the ordered
// string containers StrSet and StrMap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "basicutil/Str.h"

namespace morvek {

// Byte order, shorter first on a common prefix; a Str and a view compare without a copy.
struct StrLess {
  using is_transparent = void;
  bool operator()(StrSegment a, StrSegment b) const { return a.compare(b) < 0; }
  bool operator()(const Str &a, const Str &b) const { return a.compare(b) < 0; }
  bool operator()(const Str &a, StrSegment b) const { return a.segment().compare(b) < 0; }
  bool operator()(StrSegment a, const Str &b) const { return a.compare(b.segment()) < 0; }
};

class StrSegmentVector;

class StrVector : public std::vector<Str> {
 public:
  using std::vector<Str>::vector;
  using std::vector<Str>::push_back;

  // A null string pushes an empty element.
  void push_back(const char *cstr) { cstr ? emplace_back(cstr) : emplace_back(); }
  void push_back(const char *data, size_t len) { emplace_back(data, len); }

  void appendAll(const std::vector<StrSegment> &segments);
  void appendAll(const StrVector &other);
  // Takes other's elements without copying their bytes, and leaves other empty.
  void appendStealing(StrVector &&other);

  // The elements with sep between them. When out already has text, a separator goes first, so
  // joining into a prefix never glues the first element to it.
  void join(Str &out, char sep) const;
  void join(Str &out, const char *sep, size_t sepLen) const;
  void join(Str &out, const char *sep) const;
  // The same, each element as searchQuoted gives it.
  void joinQuoted(Str &out, char sep) const;

  bool contains(StrSegment text) const;

  // Keep the first of equal elements, in their order; return how many went. The removed ones
  // are added to removed, in the order met.
  size_t removeDuplicates();
  size_t removeDuplicates(StrVector &removed);
  size_t removeAdjacentDuplicates();

  void sort();
  void reverse();
  // Uniform permutation from the calling thread's generator.
  void shuffle();

  // Heap bytes held: the element array plus each element's capacity, counting an inline string
  // at the short form's size.
  size_t memoryFootprint() const;

  // {[0]='a' [1]='b'}
  Str debugString() const;
  // [a 'b c']: elements with whitespace in single quotes.
  Str listString() const;

 private:
  size_t removeDuplicatesImpl(StrVector *removed);
};

// Views into strings that somebody else keeps alive.
class StrSegmentVector : public std::vector<StrSegment> {
 public:
  using std::vector<StrSegment>::vector;

  void appendAll(const std::vector<StrSegment> &segments);
  // Views of other's elements: they live as long as other's strings do.
  void appendAll(const StrVector &other);
  template <class It>
  iterator insertSegments(const_iterator pos, It first, It last) {
    return insert(pos, first, last);
  }

  void join(Str &out, char sep) const;
  void join(Str &out, const char *sep, size_t sepLen) const;
  void join(Str &out, const char *sep) const;
};

class StrSet : public std::set<Str, StrLess> {
 public:
  using std::set<Str, StrLess>::set;

  // Same size and the same elements.
  bool equals(const StrSet &other) const;
  // The elements in order, separated by ','.
  void join(Str &out) const;
  // Copies other, reusing this set's nodes where it can.
  void assign(const StrSet &other) { *this = other; }
};

class StrMap : public std::map<Str, Str, StrLess> {
 public:
  using std::map<Str, Str, StrLess>::map;
};

}  // namespace morvek
