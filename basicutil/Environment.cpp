#include "basicutil/Environment.h"

#include <cstring>

namespace morvek {

namespace {

constexpr ByteSet NAME_BYTES{"0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_",
                             true};

bool isSeparator(char c) { return c == '/' || c == '\\'; }

bool getenvLookup(const Str &name, Str &value) {
  const char *v = getenv(name.c_str());
  if (v == nullptr) return false;
  value.assign(v);
  return true;
}

}  // namespace

Str expandEnvironment(const char *bytes, size_t length, const EnvironmentLookup &lookup) {
  Str out;
  if (bytes == nullptr || length == 0) return out;
  out.reserve(length);
  const char *p = bytes;
  const char *const end = bytes + length;
  Str name, value;
  while (p < end) {
    const char *dollar = static_cast<const char *>(memchr(p, '$', static_cast<size_t>(end - p)));
    if (dollar == nullptr) {
      out.append(p, static_cast<size_t>(end - p));
      break;
    }
    out.append(p, static_cast<size_t>(dollar - p));
    const char *q = dollar + 1;
    while (q < end && NAME_BYTES.contains(*q)) ++q;
    if (q == dollar + 1) {
      out.push_back('$');
      p = q;
      continue;
    }
    name.assign(dollar + 1, static_cast<size_t>(q - dollar - 1));
    // The end of the given text counts as the end of the string, so nothing past it is read.
    auto at = [q, end](size_t k) { return q + k < end ? q[k] : '\0'; };
    if (name == "MORVEK_HOME" && isSeparator(at(0)) && at(1) == 'e' && at(2) == 't' &&
        at(3) == 'c' && (at(4) == '\0' || isSeparator(at(4)))) {
      name.assign("MORVEK_ETC");
      q += 4;
    }
    value.clear();
    if (lookup(name, value)) {
      out.append(value);
    } else {
      out.push_back('$');
      out.append(name);
    }
    p = q;
  }
  return out;
}

Str expandEnvironment(const char *bytes, size_t length) {
  return expandEnvironment(bytes, length, getenvLookup);
}

Str expandEnvironment(const char *cstr) {
  return expandEnvironment(cstr, cstr != nullptr ? strlen(cstr) : 0);
}

int buildHomePath(ospath_builder *builder, const char *relative) {
  const char *home = getenv("MORVEK_HOME");
  return ospath_join(builder, home != nullptr && *home != '\0' ? home : ".", relative);
}

}  // namespace morvek
