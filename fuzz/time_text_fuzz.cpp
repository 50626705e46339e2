// Outside text read as a time (sortable form, signed decimal, whole seconds) and as a format that
// is then rendered. What parses must write back to the same time; every compiled format must
// render in UTC, in a zone and through callbacks that know nothing, without a fatal assertion.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "basicutil/TimeFormat.h"
#include "basicutil/TimeRender.h"
#include "basicutil/Timeval.h"
#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

const TimeRenderCallbacks CLUELESS = {
    [](const struct tm &, const void *) -> int64_t { return -1; },
    [](const struct tm &, const void *, char *, size_t) { return false; },
    [](const struct tm &, const void *) -> int64_t { return NOT_FIXED; },
};

void checkTextForms(const char *text, size_t size) {
  Timeval t;
  if (t.fromSortableString(text, size) && t.seconds() > 0 && t.microseconds() < 1000000 &&
      t != MAX_TIME) {
    Str s;
    t.toSortableString(s);
    Timeval back;
    if (!back.fromSortableString(s.data(), s.size()) || back != t) abort();
  }
  if (t.mem_parse_into(text, size)) {
    Str s;
    t.renderDecimal(s, 6);
    Timeval back;
    if (!back.mem_parse_into(s.data(), s.size()) || back != t) abort();
  }
  int64_t whole;
  parseWholeSeconds(text, size, whole);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *text = reinterpret_cast<const char *>(data);
  checkTextForms(text, size);
  if (size < 8) return 0;

  // The first eight bytes choose the instant, the rest is the format.
  int64_t raw;
  memcpy(&raw, data, sizeof raw);
  const Timeval t(raw % 40000000000, static_cast<int32_t>((raw >> 8) % 1000000 + 1000000) % 1000000);
  TimeFormat f;
  if (!f.set(StrSegment(text + 8, size - 8))) return 0;
  static const TimezoneData *zone = getTimezone("America/New_York");
  Str out;
  renderUtc(f, out, t);
  if (zone != nullptr) render(f, out, t, zone);
  struct tm tm = {};
  tm.tm_year = static_cast<int>(raw % 3000);
  tm.tm_mon = static_cast<int>(raw % 17) - 2;
  tm.tm_wday = static_cast<int>(raw % 11) - 2;
  tm.tm_isdst = -1;
  render(f, out, tm, t.microseconds(), CLUELESS);
  return 0;
}
