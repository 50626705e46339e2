// The serialized zone reader on arbitrary text: what it accepts must be a sound table, must
// write back to a text that reads again, and must survive every lookup and the TZ estimate.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <memory>

#include "basicutil/Str.h"
#include "basicutil/TimezoneSerialize.h"
#include "basicutil/TzEstimate.h"

using namespace morvek;

namespace {

void check(bool ok) {
  if (!ok) abort();
}

// Far enough ahead that every transition is written.
const int64_t LATE = INT64_MAX / 2;

void exercise(const TimezoneData &tz) {
  check(tz.typecnt <= TimezoneData::MAX_TYPES && tz.timecnt <= TimezoneData::MAX_TRANSITIONS);
  for (uint32_t i = 1; i < tz.timecnt; ++i) check(tz.ats[i - 1] <= tz.ats[i]);
  for (uint32_t i = 0; i < tz.timecnt; ++i) check(tz.types[i] <= tz.typecnt);

  const int64_t probes[] = {INT64_MIN,
                            -1,
                            0,
                            1710054000,
                            MAX_BROKEN_DOWN_TIME,
                            INT64_MAX,
                            tz.timecnt ? tz.ats[tz.timecnt / 2] : 0};
  for (int64_t t : probes) {
    (void)tz.offsetAt(t);
    struct tm tm;
    if (tz.breakDown(t, tm)) (void)tz.toUnixTimeOrTransition(tm);
    int rtype;
    (void)tz.reverseSearch(t, rtype);
    (void)tz.equivalentAt(tz, t);
    (void)estimatedTzVariable(tz, t, t & 1);
  }

  // Written back (which keeps one change before 1970) and read again, the text is a fixed
  // point.
  const Str once = serializedTimezoneText(tz, 0, LATE);
  auto again = std::make_unique<TimezoneData>();
  check(parseSerializedTimezone(once, *again));
  check(serializedTimezoneText(*again, 0, LATE) == once);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const StrSegment input(reinterpret_cast<const char *>(data), size);
  auto tz = std::make_unique<TimezoneData>();
  if (parseSerializedTimezone(input, *tz)) exercise(*tz);
  // Random bytes rarely make the header: give them one.
  const Str headed = Str(SERIALIZED_TZ_HEADER) + "\n" + Str(input);
  if (parseSerializedTimezone(headed, *tz)) exercise(*tz);
  return 0;
}
