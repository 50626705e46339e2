// Raw parsing: a compiled TimeFormat matched against text, recording what each field said in a
// TimeFormatRawParseResult without interpreting it: no defaults, no zone, no calendar check
// beyond each field's own range. Unlike strptime it splits runs of digits by field width and
// value ("%Y%m%d" reads "20240229" as 2024, 02, 29), reads English, Chinese, Japanese and Korean
// month and meridian forms, and counts contradictions (two different %d) in `conflicts` instead
// of failing.
//
// Worked example: "%Y-%m-%d %H:%M:%S %Z" on "2024-11-03 01:30:00 EST" stores year 2024, month
// 10, monthday 3, hour 1, minute 30, second 0 and the name "EST"; which of the two 01:30 of that
// night in America/New_York is meant (the overlap when clocks go back from 02:00 EDT) is for
// the resolver that turns the result into a time. "2024-03-10 02:30:00 EST" parses just as
// well, though 02:30 did not exist in New York that day.
#pragma once

#include <cstdint>

#include "basicutil/TimeFormat.h"

namespace morvek {

struct TimeFormatRawParseResult;

// Matches format against [begin, end) and returns the end of what was consumed, or null when the
// text does not fit (an empty format never fits). r must have have, conflicts and subsec
// cleared and finest and coarsest set from the format; fields are stored on first sight and
// later different values only count in r.conflicts.
const char *rawParse(const TimeFormat &format, TimeFormatRawParseResult &r, const char *begin,
                     const char *end);

// Stores the sub-second digits of [begin, end) (all digits): the first six are microseconds,
// more are ignored. A value already stored from more digits wins; one from fewer is replaced.
void setFracsec(TimeFormatRawParseResult &r, const char *begin, const char *end);

// Month index 0..11, or -1. monthFromAbbr judges the first three bytes in any case ("sep",
// "SEPTEMBER"); monthFromName wants the whole text to be a full English name, "May" or a
// three-letter abbreviation; monthFromCjk looks at the text from begin for "一月" to "十二月"
// and sets *len to the bytes it took.
int monthFromAbbr(const char *begin, const char *end);
int monthFromName(const char *begin, const char *end);
int monthFromCjk(const char *begin, const char *end, size_t *len = nullptr);

// A zone offset in seconds east of UTC from the whole of [begin, end): an optional sign, then
// "h", "hh", "hmm", "hhmm", "hh:mm" or "hh:mm:ss" (no digits means 0), below 24 hours:
// "+0530" and "+05:30" give 19800, "-8" gives -28800. False for anything else.
bool parseOffset(const char *begin, const char *end, int64_t &offset);
// The same for a sign and a count of minutes up to 1439: "-300" gives -18000.
bool parseMinutesOffset(const char *begin, const char *end, int64_t &offset);

}  // namespace morvek
