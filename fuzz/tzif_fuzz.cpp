// Arbitrary bytes as a compiled zone file, with and without its footer rules.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "tz_fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static auto *tz = new morvek::TimezoneData;
  const morvek::StrSegment bytes(reinterpret_cast<const char *>(data), size);
  for (bool rules : {false, true}) {
    if (tz->parseZoneFile(bytes, rules)) morvek_fuzz::exerciseLookups(*tz);
  }
  return 0;
}
