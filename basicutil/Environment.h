// Environment variables in configuration text. "$NAME" is replaced by the variable's value,
// NAME being the longest run of letters, digits and '_'; an unknown name stays as written, and
// there are no braces and no escape. One rule of its own: "$MORVEK_HOME/etc" (or with '\\')
// followed by the end or a separator reads MORVEK_ETC instead, so that the configuration
// directory can live apart from the home:
//
//   MORVEK_HOME=/opt/mv MORVEK_ETC=/etc/mv   "$MORVEK_HOME/etc/log.cfg" -> "/etc/mv/log.cfg"
//                                             "$MORVEK_HOME/etcetera"    -> "/opt/mv/etcetera"
//   MORVEK_ETC unset                          "$MORVEK_HOME/etc/log.cfg" -> "$MORVEK_ETC/log.cfg"
#pragma once

#include <cstddef>
#include <cstdlib>
#include <functional>

#include "basicutil/Str.h"
#include "libzero/ospath-builder.h"

namespace morvek {

// The value of one variable as getenv gives it, null when unset.
class EnvironmentVariable {
 public:
  explicit EnvironmentVariable(const char *name) : _value(getenv(name)) {}
  bool isSet() const { return _value != nullptr; }
  const char *value() const { return _value; }
  // The value; nothing when unset or empty.
  void appendTo(Str &out) const {
    if (_value != nullptr) out.append(_value);
  }
  // "$" and the name, as a reference to the variable is written.
  static void appendName(Str &out, const char *name) {
    out.push_back('$');
    out.append(name);
  }

  const char *_value;
};

// Given a name, stores its value and says whether there was one.
using EnvironmentLookup = std::function<bool(const Str &name, Str &value)>;

// Expands the references in bytes[0, length); the end of the range counts as the end of the
// string for the MORVEK_HOME rule. A value is never expanded again.
Str expandEnvironment(const char *bytes, size_t length, const EnvironmentLookup &lookup);
// With getenv; an unset variable keeps its reference.
Str expandEnvironment(const char *bytes, size_t length);
Str expandEnvironment(const char *cstr);

// Heap-free: "$MORVEK_HOME/relative", or "./relative" when MORVEK_HOME is unset or empty.
// 0, or -1 when the result doesn't fit.
int buildHomePath(ospath_builder *builder, const char *relative);

}  // namespace morvek
