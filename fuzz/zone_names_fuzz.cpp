// Random zone names through the three name tables: no crash, no read past the name, and an
// alias is always a zone path ("Area/Place") from the table.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "basicutil/TimezoneNames.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // A copy of exactly the input's bytes, so that ASan sees any read past its end.
  std::unique_ptr<char[]> name(new char[size ? size : 1]);
  memcpy(name.get(), data, size);
  morvek::StrSegment text(name.get(), size);
  int64_t offset = 0;
  if (morvek::zoneAbbreviationOffset(text, offset) && (offset < -86400 || offset > 86400)) abort();
  if (morvek::windowsZoneNameOffset(text, offset) && (offset < -86400 || offset > 86400)) abort();
  if (const char *zone = morvek::aliasForZoneName(text)) {
    if (strchr(zone, '/') == nullptr) abort();
  }
  return 0;
}
