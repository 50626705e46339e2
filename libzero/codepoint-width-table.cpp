#include "libzero/codepoint-width-table.h"

#include "libzero/codepoint-width-table.inc"

namespace {

// A short table would be zero-filled up to the declared bound; the order
// check catches that as well as a misplaced row.
constexpr bool cpwidth_table_is_well_formed() {
  if (cpwidth_row_codepoint(cpwidth_table[0]) != 0x7F) return false;
  if (cpwidth_table[cpwidth_table_rows - 1] != cpwidth_sentinel) return false;
  for (std::size_t i = 0; i < cpwidth_table_rows; ++i) {
    if (cpwidth_row_width(cpwidth_table[i]) > 2) return false;
    if (i > 0 &&
        cpwidth_row_codepoint(cpwidth_table[i - 1]) >= cpwidth_row_codepoint(cpwidth_table[i]))
      return false;
  }
  return true;
}

}  // namespace

static_assert(cpwidth_table_is_well_formed());
