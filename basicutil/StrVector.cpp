#include "basicutil/StrVector.h"

#include <algorithm>
#include <utility>

#include "basicutil/BasicConversions.h"
#include "basicutil/SimpleRandomNumber.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// What libc++ keeps inside the object; the footprint is reported in those terms on every
// standard library so that figures compare across builds.
constexpr size_t STR_SHORT_FORM_CAPACITY = 22;

bool isInline(const Str &s) {
  const char *object = reinterpret_cast<const char *>(&s);
  return s.data() >= object && s.data() < object + sizeof(Str);
}

template <class Elements>
void joinElements(const Elements &v, Str &out, const char *sep, size_t sepLen) {
  if (v.empty()) return;
  size_t sum = 0;
  for (const auto &e : v) sum += e.size() + sepLen;
  bool separatorFirst = !out.empty();
  if (separatorFirst) {
    out.reserve(out.size() + sum);
  } else {
    out.reserve(sum - sepLen);
  }
  for (const auto &e : v) {
    if (separatorFirst) out.append(sep, sepLen);
    out.append(e.data(), e.size());
    separatorFirst = true;
  }
}

}  // namespace

void StrVector::appendAll(const std::vector<StrSegment> &segments) {
  reserve(size() + segments.size());
  for (const StrSegment &s : segments) emplace_back(s._data, s._len);
}

void StrVector::appendAll(const StrVector &other) {
  if (&other == this) {
    const size_t n = size();
    reserve(2 * n);
    for (size_t i = 0; i < n; ++i) push_back((*this)[i]);
    return;
  }
  reserve(size() + other.size());
  for (const Str &s : other) push_back(s);
}

void StrVector::appendStealing(StrVector &&other) {
  if (empty() && other.capacity() >= capacity()) {
    swap(other);
    return;
  }
  if (other.empty()) return;
  const size_t base = size();
  const size_t n = other.size();
  resize(base + n);
  size_t i = 0;
  for (; i + 1 < n; i += 2) {
    (*this)[base + i].swap(other[i]);
    (*this)[base + i + 1].swap(other[i + 1]);
  }
  if (i < n) (*this)[base + i].swap(other[i]);
  other.clear();
}

void StrVector::join(Str &out, char sep) const { joinElements(*this, out, &sep, 1); }

void StrVector::join(Str &out, const char *sep, size_t sepLen) const {
  joinElements(*this, out, sep, sepLen);
}

void StrVector::join(Str &out, const char *sep) const {
  joinElements(*this, out, sep, sep ? strlen(sep) : 0);
}

void StrVector::joinQuoted(Str &out, char sep) const {
  bool separatorFirst = !out.empty();
  for (const Str &e : *this) {
    if (separatorFirst) out.push_back(sep);
    out.append(searchQuoted(e));
    separatorFirst = true;
  }
}

bool StrVector::contains(StrSegment text) const {
  for (const Str &e : *this) {
    if (e.size() == text._len && memcmp(e.data(), text._data, text._len) == 0) return true;
  }
  return false;
}

size_t StrVector::removeDuplicates() { return removeDuplicatesImpl(nullptr); }

size_t StrVector::removeDuplicates(StrVector &removed) { return removeDuplicatesImpl(&removed); }

size_t StrVector::removeDuplicatesImpl(StrVector *removed) {
  if (size() < 2) return 0;
  // Views of the kept elements, always taken at their final position: a short string's bytes
  // move with it.
  std::set<StrSegment, StrLess> seen;
  size_t kept = 0;
  size_t count = 0;
  for (size_t i = 0; i < size(); ++i) {
    Str &e = (*this)[i];
    if (seen.find(e.segment()) != seen.end()) {
      ++count;
      if (removed != nullptr) removed->push_back(std::move(e));
      continue;
    }
    if (kept != i) (*this)[kept] = std::move(e);
    seen.insert((*this)[kept].segment());
    ++kept;
  }
  if (count != 0) resize(kept);
  return count;
}

size_t StrVector::removeAdjacentDuplicates() {
  const auto last = std::unique(begin(), end());
  const size_t count = static_cast<size_t>(end() - last);
  erase(last, end());
  return count;
}

void StrVector::sort() {
  std::sort(begin(), end(), [](const Str &a, const Str &b) { return a.compare(b) < 0; });
}

void StrVector::reverse() {
  if (size() < 2) return;
  Str *a = data();
  Str *b = data() + size() - 1;
  MV_ASSERT(b > a);
  for (; a < b; ++a, --b) a->swap(*b);
}

void StrVector::shuffle() {
  const size_t n = size();
  if (n < 2) return;
  SimpleRandomNumber &gen = SimpleRandomNumber::perThread();
  for (size_t i = 0; i + 1 < n; ++i) {
    const uint64_t remaining = n - i;
    // Rejection below the covering power of two keeps every position equally likely; a
    // modulo would favour the low ones.
    const uint64_t mask = remaining <= 1 ? 0 : (~uint64_t(0) >> __builtin_clzll(remaining - 1));
    uint64_t r;
    do {
      r = gen.next() & mask;
    } while (r >= remaining);
    if (r != 0) (*this)[i].swap((*this)[i + r]);
  }
}

size_t StrVector::memoryFootprint() const {
  size_t total = capacity() * sizeof(Str);
  for (const Str &e : *this) total += isInline(e) ? STR_SHORT_FORM_CAPACITY : e.capacity();
  return total;
}

Str StrVector::debugString() const {
  Str out("{");
  for (size_t i = 0; i < size(); ++i) {
    if (i != 0) out.push_back(' ');
    out.push_back('[');
    appendNumber(out, i);
    out.append("]='");
    out.append((*this)[i]);
    out.push_back('\'');
  }
  out.push_back('}');
  return out;
}

Str StrVector::listString() const {
  Str out("[");
  for (size_t i = 0; i < size(); ++i) {
    const Str &e = (*this)[i];
    if (i != 0) out.push_back(' ');
    if (e.containsWhitespace()) {
      out.push_back('\'');
      out.append(e);
      out.push_back('\'');
    } else {
      out.append(e);
    }
  }
  out.push_back(']');
  return out;
}

void StrSegmentVector::appendAll(const std::vector<StrSegment> &segments) {
  insert(end(), segments.begin(), segments.end());
}

void StrSegmentVector::appendAll(const StrVector &other) {
  reserve(size() + other.size());
  for (const Str &s : other) push_back(s.segment());
}

void StrSegmentVector::join(Str &out, char sep) const { joinElements(*this, out, &sep, 1); }

void StrSegmentVector::join(Str &out, const char *sep, size_t sepLen) const {
  joinElements(*this, out, sep, sepLen);
}

void StrSegmentVector::join(Str &out, const char *sep) const {
  joinElements(*this, out, sep, sep ? strlen(sep) : 0);
}

bool StrSet::equals(const StrSet &other) const {
  if (size() != other.size()) return false;
  return std::equal(begin(), end(), other.begin(),
                    [](const Str &a, const Str &b) { return a.equals(b); });
}

void StrSet::join(Str &out) const {
  bool first = true;
  for (const Str &e : *this) {
    if (!first) out.push_back(',');
    out.append(e);
    first = false;
  }
}

}  // namespace morvek
