// Arbitrary bytes as a .tzpack archive: the header, every entry, look-ups of names taken from
// the input, and the zone files the entries point at.
#include <cstddef>
#include <cstdint>

#include "tz_fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static auto *tz = new morvek::TimezoneData;
  morvek::TzPack pack;
  if (!pack.open(morvek::StrSegment(reinterpret_cast<const char *>(data), size))) return 0;
  morvek::StrSegment name, entry;
  for (uint32_t i = 0; i < pack.count() && i < 64; ++i) {
    if (!pack.entry(i, name, entry)) continue;
    if (pack.find(name, entry) && tz->parseZoneFile(entry, true)) morvek_fuzz::exerciseLookups(*tz);
  }
  for (const char *key : {"", "a", "America\\New_York", "zzzz", "\xff"})
    (void)pack.find(key, entry);
  return 0;
}
