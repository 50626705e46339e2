#include "basicutil/Pathname.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "basicutil/BasicConversions.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// Bytes that need no quoting in a command word.
constexpr ByteSet SHELL_SAFE{
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_-./,:=+@%^", true};

constexpr ByteSet WORD_SEPARATORS{"\t\n ", true};

}  // namespace

const Pathname::always_true Pathname::ALWAYS_TRUE;

Pathname::predicate::~predicate() = default;

Pathname::Pathname(StrSegment base, StrSegment component) {
  reserve(base.size() + component.size() + 1);
  append(base.data(), base.size());
  appendComponent(component);
}

void Pathname::appendComponent(const char *data, size_t len) {
  if (len == 0) return;
  size_t skip = 0;
  while (skip < len && data[skip] == '/') ++skip;
  // Appending a view of ourselves: the separator could move the bytes under it.
  const char *own = this->data();
  if (data >= own && data < own + capacity()) {
    Str copy(data + skip, len - skip);
    appendComponent(copy.data(), copy.size());
    return;
  }
  bool needSlash = empty() || back() != '/';
  reserve(size() + (needSlash ? 1 : 0) + (len - skip));
  if (needSlash) push_back('/');
  append(data + skip, len - skip);
}

void Pathname::ensureTrailingSlash() {
  if (empty() || back() != '/') push_back('/');
}

void Pathname::stripTrailingSlashes() {
  size_t last = find_last_not_of('/');
  if (last == npos) {
    if (!empty()) resize(1);
  } else {
    resize(last + 1);
  }
}

Pathname Pathname::toLeaf() const {
  size_t last = find_last_not_of('/');
  if (last == npos) return Pathname("/");
  size_t slash = rfind('/', last);
  const char *x = data() + (slash == npos ? 0 : slash + 1);
  const char *p = data() + last + 1;
  MV_ASSERT(x < p);
  return Pathname(StrSegment(x, static_cast<size_t>(p - x)));
}

void Pathname::toParent() {
  size_t last = find_last_not_of('/');
  if (last == npos) return;  // "" stays "", all slashes stay the root
  size_t slash = rfind('/', last);
  if (slash == npos) {
    clear();
    return;
  }
  size_t keep = find_last_not_of('/', slash);
  resize(keep == npos ? 1 : keep + 1);
}

Pathname Pathname::parent() const {
  Pathname p(*this);
  p.toParent();
  return p;
}

Str Pathname::ext(unsigned nExts) const {
  MV_ASSERT(nExts > 0);
  unsigned seen = 0;
  for (size_t i = size(); i-- > 0;) {
    char c = (*this)[i];
    if (c == '/') break;
    if (c == '.' && ++seen == nExts) return Str(StrSegment(data() + i + 1, size() - i - 1));
  }
  return Str();
}

Str Pathname::stem() const {
  size_t slash = rfind('/');
  size_t start = slash == npos ? 0 : slash + 1;
  StrSegment leaf(data() + start, size() - start);
  size_t dot = leaf.rfind('.');
  if (dot == npos || dot == 0) return Str(leaf);
  return Str(leaf.substr(0, dot));
}

Pathname Pathname::stripExt(unsigned nExts) const {
  size_t slash = rfind('/');
  size_t end = size();
  for (unsigned k = 0; k < nExts; ++k) {
    size_t dot = end == 0 ? npos : rfind('.', end - 1);
    if (dot == npos || dot == 0) return *this;
    if (slash != npos && dot <= slash + 1) return *this;
    end = dot;
  }
  return Pathname(StrSegment(data(), end));
}

void Pathname::collapseSlashes() {
  if (find("//") == npos) return;
  char *p = data();
  size_t w = 0;
  for (size_t r = 0, n = size(); r < n; ++r) {
    if (p[r] == '/' && w > 0 && p[w - 1] == '/') continue;
    p[w++] = p[r];
  }
  resize(w);
}

Pathname Pathname::collapsedSlashes() const {
  Pathname p(*this);
  p.collapseSlashes();
  return p;
}

void Pathname::removeDotDots() {
  // A removal keeps component boundaries where they were, so the scan can go on from the
  // start of the removed component instead of from the beginning.
  enum { IN_COMPONENT, AT_START, ONE_DOT, TWO_DOTS };
  int state = AT_START;
  size_t i = 0;
  while (i <= size()) {
    bool atEnd = i == size();
    char c = atEnd ? '/' : (*this)[i];
    if (state == TWO_DOTS && c == '/') {
      size_t start = i - 2;
      if (!atEnd) {
        erase(start, 3);
      } else {
        bool behindRoot = start > 0 && find_first_not_of('/') >= start;
        if (start > 0 && !behindRoot) {
          erase(start - 1, 3);
        } else {
          erase(start, 2);
        }
      }
      i = start;
      state = AT_START;
      continue;
    }
    if (atEnd) break;
    if (c == '/') {
      state = state == TWO_DOTS ? IN_COMPONENT : AT_START;
    } else if (c == '.' && state == AT_START) {
      state = ONE_DOT;
    } else if (c == '.' && state == ONE_DOT) {
      state = TWO_DOTS;
    } else {
      state = IN_COMPONENT;
    }
    ++i;
  }
}

bool Pathname::normalize() {
  if (empty()) return true;
  const bool absolute = front() == '/';
  const bool trailing = back() == '/';
  // Rewritten in place: the write position never passes the read position, so each kept
  // component moves towards the front and the stack is the text already written.
  char *p = data();
  const size_t n = size();
  const size_t base = absolute ? 1 : 0;
  size_t w = base;
  bool climbed = false;
  for (size_t r = 0; r < n;) {
    if (p[r] == '/') {
      ++r;
      continue;
    }
    size_t b = r;
    while (r < n && p[r] != '/') ++r;
    size_t len = r - b;
    if (len == 1 && p[b] == '.') continue;
    if (len == 2 && p[b] == '.' && p[b + 1] == '.') {
      if (w == base) {
        climbed = true;
        continue;
      }
      while (w > base && p[w - 1] != '/') --w;
      if (w > base) --w;  // the separator before the popped component
      continue;
    }
    if (w > base) p[w++] = '/';
    memmove(p + w, p + b, len);
    w += len;
  }
  resize(w);
  // A relative path that came to nothing stays empty rather than turn into the root.
  if (trailing && w > base) push_back('/');
  return !climbed;
}

bool Pathname::toGlobRegex() {
  Str out;
  out.reserve(size() + 16);
  bool changed = false;
  for (size_t i = 0, n = size(); i < n; ++i) {
    char c = (*this)[i];
    if (c == '*') {
      out.append("[^/]*");
      changed = true;
    } else if (c == '.' && i + 2 < n && (*this)[i + 1] == '.' && (*this)[i + 2] == '.') {
      out.append(".*");
      i += 2;
      changed = true;
    } else if (c == '.') {
      out.append("\\.");
      changed = true;
    } else {
      out.push_back(c);
    }
  }
  if (changed) swap(out);
  return changed;
}

bool Pathname::getCurrentDirectory(Pathname &out) {
  char buf[1024];
  if (getcwd(buf, sizeof buf) == nullptr) return false;
  out.assign(buf);
  return true;
}

bool Pathname::resolveTo(Pathname &out) const {
  char *resolved = realpath(c_str(), nullptr);
  if (resolved == nullptr) return false;
  out.assign(resolved);
  free(resolved);
  return true;
}

bool Pathname::resolveInPlace() { return resolveTo(*this); }

bool Pathname::takeWord(StrSegment input, Str &word, StrSegment &rest) {
  enum { OUTSIDE, IN_DOUBLE, IN_SINGLE };
  word.clear();
  size_t i = input.find_first_of(WORD_SEPARATORS, 0, false);
  if (i == npos) i = input.size();
  int state = OUTSIDE;
  bool escaped = false;
  for (; i < input.size(); ++i) {
    char c = input[i];
    if (escaped) {
      word.push_back(c);
      escaped = false;
    } else if (state == OUTSIDE) {
      if (WORD_SEPARATORS.contains(c)) break;
      if (c == '"') {
        state = IN_DOUBLE;
      } else if (c == '\'') {
        state = IN_SINGLE;
      } else if (c == '\\') {
        escaped = true;
      } else {
        word.push_back(c);
      }
    } else if (state == IN_DOUBLE) {
      if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        state = OUTSIDE;
      } else {
        word.push_back(c);
      }
    } else if (c == '\'') {
      state = OUTSIDE;
    } else {
      word.push_back(c);
    }
  }
  if (state != OUTSIDE || escaped || word.empty()) return false;
  rest = input.substr(i);
  return true;
}

void Pathname::splitWords(StrSegment text, StrVector &words) {
  // The words may come from words itself: keep a copy of the input.
  Str copy(text);
  StrSegment rest = copy.segment().trimmed(BYTESET_BLANKS, true, false);
  Str word;
  while (takeWord(rest, word, rest)) words.push_back(std::move(word));
}

void Pathname::joinWords(const StrVector &words, Str &text) {
  for (const Str &w : words) {
    if (!text.empty()) text.push_back(' ');
    text.append(searchQuoted(w, SHELL_SAFE));
  }
}

void Pathname::appendWordList(Str &out, const StrVector &words) {
  out.push_back('{');
  Str joined;
  joinWords(words, joined);
  out.append(joined);
  out.push_back('}');
}

}  // namespace morvek
