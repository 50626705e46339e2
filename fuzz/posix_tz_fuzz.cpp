// Arbitrary text as a POSIX TZ string, and as a name given to the loader (which sanitizes it
// before it touches the file system).
#include <cstddef>
#include <cstdint>

#include "tz_fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static auto *tz = new morvek::TimezoneData;
  const morvek::StrSegment text(reinterpret_cast<const char *>(data), size);
  if (tz->parsePosixString(text)) morvek_fuzz::exerciseLookups(*tz);
  morvek::Str clean;
  morvek::sanitizeZoneName(text, clean);
  // No component may start with a dot, so none can climb out of the zone directory.
  if (clean.startsWith(".") || clean.find(morvek::StrSegment("/.")) != morvek::Str::npos)
    __builtin_trap();
  // Names, not paths: absolute ones would send the fuzzer round the whole file system.
  if (size < 64 && !text.startsWith("/") && !text.startsWith(":") && tz->loadByName(text))
    morvek_fuzz::exerciseLookups(*tz);
  return 0;
}
