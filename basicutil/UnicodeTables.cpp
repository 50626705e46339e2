#include "basicutil/UnicodeTables.h"

namespace morvek {

#include "basicutil/UnicodeCombining.inc"
#include "basicutil/UnicodeProperties.inc"

namespace {

// The declared bounds would silently zero-fill a short table; these catch it
// at compile time, together with any ordering the bisections rely on.

constexpr bool properties_are_well_formed() {
  if (utf8_properties[0].utf8bytes != UNICODE_FIRST_TABLE_KEY) return false;
  const Utf8PropertyRow &last = utf8_properties[utf8_properties_count - 1];
  if (last.utf8bytes != UNICODE_PROPERTY_SENTINEL || last.flags != 0) return false;
  for (std::size_t i = 1; i < utf8_properties_count; ++i)
    if (utf8_properties[i - 1].utf8bytes >= utf8_properties[i].utf8bytes) return false;
  return true;
}

constexpr bool combiners_are_well_formed() {
  for (std::size_t i = 0; i < utf8_combiner_marks_count; ++i) {
    const uint64_t flag = utf8_combiner_marks[i].flag;
    if (flag == 0 || (flag & (flag - 1)) != 0) return false;
    if (i > 0 && utf8_combiner_marks[i - 1].utf8bytes >= utf8_combiner_marks[i].utf8bytes)
      return false;
  }
  std::size_t next = 0;
  for (std::size_t i = 0; i < utf8_combiners_count; ++i) {
    const Utf8Combiner &c = utf8_combiners[i];
    if (i > 0 && utf8_combiners[i - 1].key >= c.key) return false;
    if (c.rules != utf8_combiner_rules + next || c.nrules == 0) return false;
    for (uint32_t r = 1; r < c.nrules; ++r)
      if (c.rules[r - 1].base >= c.rules[r].base) return false;
    next += c.nrules;
  }
  return next == utf8_combiner_rules_count;
}

}  // namespace

static_assert(properties_are_well_formed());
static_assert(combiners_are_well_formed());

}  // namespace morvek
