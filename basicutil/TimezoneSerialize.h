// Serialized zones: a line-oriented text form of a TimezoneData, so that one process can hand
// its exact zone to another whatever zone files the other has. The writer covers a bounded span
// of the future (and keeps exactly one transition before 1970, for the type in force before
// the first kept change); the reader rebuilds an object and shares it through a process-wide
// cache keyed by the text, so the same text always gives the same object.
//
// The lines, in order: the header "### SERIALIZED TIMEZONE FORMAT 1.0"; "C<offset>" when the
// zone has had one offset since 1970; "Z" when it has no type table (a placeholder type line
// follows); one "Y<gmtoff> <Y|N><W|S|G> <hex bytes of the abbreviation>" per type; one
// "@<time> <type index>" per transition; "B" and "F" for the 400-year repetition flags; "$".
//
// Worked example, America/New_York written in November 2026 for 30 years (186 lines):
//   ### SERIALIZED TIMEZONE FORMAT 1.0
//   Y-17762 NW 4C 4D 54     type 0: LMT, -4:56:02
//   Y-14400 YW 45 44 54     type 1: EDT, dst
//   Y-18000 NW 45 53 54     type 2: EST
//   ...                     EST (universal), EWT, EPT, then the EDT and EST of the rule footer
//   @-5767200 2             1969-10-26 06:00 UTC into EST: the one change kept before 1970
//   @9961200 1              1970-04-26 07:00 UTC into EDT
//   ...
//   @1710054000 1           2024-03-10 07:00 UTC: local 02:00..02:59 is skipped
//   @1730613600 2           2024-11-03 06:00 UTC: local 01:00..01:59 happens twice
//   ...                     up to 2056
//   $
// A text that is its body cut short ("$" missing), that has a line "@1 256" (no such type
// index can exist), or whose transitions go back in time, rebuilds nothing.
#pragma once

#include <cstdint>

#include "basicutil/Str.h"
#include "basicutil/StrVector.h"
#include "basicutil/Timezone.h"

namespace morvek {

inline constexpr const char *SERIALIZED_TZ_HEADER = "### SERIALIZED TIMEZONE FORMAT 1.0";
// Years ahead written for the local zone.
inline constexpr int SERIALIZED_TZ_LOCAL_YEARS = 30;

// Appends the header and the body of tz to lines, one line an element without newline.
// Transitions later than now + years * 31536000 are left out; the product is taken in signed
// 32 bits, so more than 68 years wraps to a limit in the past (kept so: readers of old texts
// depend on the span they were given). Of the transitions before 1970 only the latest is written.
void serializeTimezone(const TimezoneData &tz, StrVector &lines, int years, int64_t now);
// The same from the present time.
void serializeTimezone(const TimezoneData &tz, StrVector &lines, int years);
// The lines joined for transport: each one, the last included, followed by a newline.
Str serializedTimezoneText(const TimezoneData &tz, int years, int64_t now);

// The local zone's text for SERIALIZED_TZ_LOCAL_YEARS, built once and kept: it lives until
// exit, and is built anew after setZoneInfoDir or clearZoneInfoDir (the old one stays valid).
const Str &serializedLocalTimezone();

// Reads lines from a text held elsewhere: each ends at LF (a final line needs none). The text
// must outlive the reader.
class SerializedTimezoneTextReader : public SerializedTimezoneReader {
 public:
  explicit SerializedTimezoneTextReader(StrSegment text) : _rest(text) {}
  bool readLine(Str &line) override;

 private:
  StrSegment _rest;
  bool _done = false;
};

// Rebuilds a zone from its serialized lines: null unless the first line is the header exactly
// and every further line is well formed, "$" last. The zone is shared by every reader of the
// same text and lives until exit; it has no name. Takes the zone lock twice, never while
// parsing.
const TimezoneData *deserializeTimezone(SerializedTimezoneReader &reader);
const TimezoneData *deserializeTimezone(StrSegment text);
// The same parse into an object of the caller's, with no cache: for tools and tests. On
// failure tz is left in an unspecified but destructible state.
bool parseSerializedTimezone(StrSegment text, TimezoneData &tz);

}  // namespace morvek
