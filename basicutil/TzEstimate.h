// TZ variable estimation: a POSIX TZ string that makes a child process, or a platform routine
// without our zone files, behave like a loaded zone near a given time. Zone tables hold
// transitions, not rules, so the rules are inferred: each transition near the time proposes
// the rules that would name its wall-clock date ("M3.2.0", "J70", "70"), and the proposals of
// neighbouring years are intersected, one slot for the standard type and one for the dst type.
//
// Worked examples:
//   America/New_York at 1732000000 (2024-11-19): "EST5EDT,M3.2.0,M11.1.0" (changes at 02:00
//   wall-clock: no "/2"; the gap is local 02:00..02:59 on the second Sunday of March, the
//   overlap local 01:00..01:59 on the first Sunday of November).
//   Asia/Tokyo, no change for decades: "JST-9". Asia/Kolkata: "IST-5:30".
//   Asia/Dubai with utc_for_nonalpha: "UTC-4" (its abbreviation is "+04").
//   Europe/Paris in late 2026: "CET-1CEST,M3.5.0,M10.4.0/3". The last Sunday of October falls
//   on the 25th in 2026 (week 4) and on the 31st in 2027 (week 5): the proposals of the two
//   years share nothing, and then the slot keeps its first rule. The estimate is right for the
//   years whose last Sunday is in the fourth week only.
#pragma once

#include <cstdint>

#include "basicutil/Str.h"
#include "basicutil/Timezone.h"

namespace morvek {

// The estimate for tz near time: "std offset [dst [offset] ,start ,end]". A zone with no dst
// change near time is written as the name and offset of the type in force at the transition at
// or before time. Offsets are west-positive hours with ":m[:s]" when not whole; the dst offset
// is left out when it is the standard one plus an hour. A rule's time is left out at 02:00:00.
// A zero-based day rule ",%d" is written one larger than POSIX reads it, as it always was.
Str estimatedTzVariable(const TimezoneData &tz, int64_t time, bool utc_for_nonalpha);

// Appends the abbreviation of type: "EST"; "UTC" instead when utc_for_nonalpha is set and it
// holds any byte other than an ASCII letter ("+03", "-0330").
void appendAbbreviation(const TimezoneData &tz, const TimezoneType &type, Str &out,
                        bool utc_for_nonalpha);

// A TZ value for timezone that a child process can use, in out. False (out untouched) when the
// zone has no data, or is equivalent to the local zone now, so that no setting is needed. A
// name that is a file under /usr/share/zoneinfo and holds none of ". \ $ : ;" or a blank is
// used as it is (its alias target first); otherwise the estimate for now.
bool portableTzName(const Timezone &timezone, Str &out, bool utc_for_nonalpha);

// The text that describes the zone's setting: its Olson name when known, else portableTzName
// (non-letter abbreviations as "UTC"), else "default" (the local zone, or no zone).
void tzSettingText(const Timezone &timezone, Str &out);

}  // namespace morvek
