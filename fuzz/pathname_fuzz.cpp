// Pathname's text operations and "$NAME" expansion on arbitrary bytes: normalising never climbs
// and settles at once, removed ".." never come back, joined words split back unchanged, and an
// expansion whose every lookup fails gives the text back.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "basicutil/Environment.h"
#include "basicutil/Pathname.h"

using namespace morvek;

namespace {

void check(bool ok) {
  if (!ok) abort();
}

bool hasComponent(const Pathname &p, StrSegment name) {
  std::vector<StrSegment> parts;
  p.segment().split(parts, '/');
  for (const StrSegment &c : parts) {
    if (c == name) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Exact-size copy, so that any read past the end is caught.
  std::vector<char> buf(reinterpret_cast<const char *>(data),
                        reinterpret_cast<const char *>(data) + size);
  const StrSegment text(buf.data(), buf.size());
  const Pathname input(text);

  Pathname n(input);
  n.normalize();
  check(!hasComponent(n, "..") && !hasComponent(n, "."));
  check(n.find("//") == Str::npos);
  check(input.isAbsolute() == n.isAbsolute());
  Pathname again(n);
  check(again.normalize() && again == n);

  Pathname d(input);
  d.removeDotDots();
  check(!hasComponent(d, "..") && d.size() <= input.size());
  Pathname c(input);
  c.collapseSlashes();
  check(c.find("//") == Str::npos);

  Pathname parent = input.parent();
  check(input.startsWith(parent) || parent == "/");
  Pathname leaf = input.toLeaf();
  check(!leaf.empty());
  check(input.stripExt(2).size() <= input.size());
  check(input.ext(1).size() < input.size() || input.empty());
  input.stem();
  Pathname joined(input, text);
  check(joined.size() <= 2 * input.size() + 1);
  Pathname glob(input);
  glob.toGlobRegex();

  StrVector words, back;
  Pathname::splitWords(text, words);
  Str line;
  Pathname::joinWords(words, line);
  Pathname::splitWords(line, back);
  check(back == words);

  auto none = [](const Str &, Str &) { return false; };
  Str kept = expandEnvironment(buf.data(), buf.size(), none);
  check(text.find(StrSegment("MORVEK_HOME")) != StrSegment::npos || kept == text);
  auto dollar = [](const Str &name, Str &value) {
    value = "$" + name;
    return true;
  };
  check(expandEnvironment(buf.data(), buf.size(), dollar).size() <= size + 16 * size);
  return 0;
}
