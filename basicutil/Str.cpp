#include "basicutil/Str.h"

#include <algorithm>

namespace morvek {

Str &Str::removeAll(char c) {
  erase(std::remove(begin(), end(), c), end());
  return *this;
}

}  // namespace morvek
