// StrVector: a growable sequence of Str.
#pragma once

#include <vector>

#include "basicutil/Str.h"

namespace morvek {

class StrVector : public std::vector<Str> {
 public:
  using std::vector<Str>::vector;
};

}  // namespace morvek
