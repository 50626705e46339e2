// The pattern-file reader on any text: a file that is refused must say where, one line.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "basicutil/DateParser.h"
#include "basicutil/Logger.h"

using namespace morvek;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool quiet = [] {
    Logger::initialize();
    Logger::setLevel("DateParser", "FATAL");
    Logger::setLevel("Regex", "FATAL");
    return true;
  }();
  (void)quiet;
  DateTimeRegexes set;
  Str error;
  const StrSegment text(reinterpret_cast<const char *>(data), size);
  if (!set.loadText(text, "fuzz.conf", error)) {
    if (!error.startsWith("fuzz.conf:") || error.find('\n') != Str::npos) {
      fprintf(stderr, "bad error text: %s\n", error.c_str());
      abort();
    }
  }
  return 0;
}
