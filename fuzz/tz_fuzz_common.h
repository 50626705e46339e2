// What every zone fuzzer does with a table it managed to read: each lookup must stay inside
// the table, whatever the table holds.
#pragma once

#include <ctime>

#include "basicutil/DateTime.h"
#include "basicutil/Timezone.h"

namespace morvek_fuzz {

inline void exerciseLookups(const morvek::TimezoneData &tz) {
  using morvek::TimezoneData;
  const int64_t probes[] = {INT64_MIN, -2208988800, -1, 0, 1700000000, 4102444800, INT64_MAX};
  for (int64_t t : probes) {
    (void)tz.abbreviationAt(t);
    (void)tz.transitionTimeAt(t);
    int rtype;
    (void)tz.reverseSearch(t, rtype);
    for (int isdst = -1; isdst <= 1; ++isdst) (void)tz.offsetFromReverseSearch(t, isdst);
    struct tm tm;
    if (tz.breakDown(t, tm)) {
      (void)tz.toUnixTime(tm);
      (void)tz.toUnixTimeOrTransition(tm);
    }
  }
  for (uint32_t i = 0; i < tz.timecnt; ++i) {
    int rtype;
    (void)tz.offsetFromReverseSearch(morvek::addSaturating(tz.ats[i], tz.transitionType(i).gmtoff),
                                     1);
    (void)tz.reverseSearch(tz.ats[i], rtype);
  }
  (void)tz.recentOffset(true);
  (void)tz.fixedOffsetBetween(0, 2000000000);
  (void)tz.equivalentAt(tz, 1700000000);
  (void)tz.equivalentAt(*morvek::gmtTimezone(), 0);
}

}  // namespace morvek_fuzz
