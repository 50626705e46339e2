// Rendering a compiled TimeFormat: the library's own strftime. It appends the text of each atom
// for a broken-down time and a microsecond value, and asks a table of three callbacks for what a
// struct tm alone can't say (the instant, the zone's name, the offset), so that one engine serves
// the platform's local time, any zone of the library's engine, and UTC alike.
//
// Worked examples, "%FT%T.%6N%:z" (the ISO 8601 form with microseconds):
//   UTC, 1710054000.123456                 -> "2024-03-10T07:00:00.123456+00:00"
//   America/New_York, 1710053999 (EST)     -> "2024-03-10T01:59:59.000000-05:00"
//   America/New_York, 1710054000 (EDT)     -> "2024-03-10T03:00:00.000000-04:00"
//     (local 02:00 to 02:59:59 that day is the spring gap: no instant renders as it)
//   America/New_York, 1730611800 and 1730615400 both render 01:30:00, with "-04:00" and "-05:00"
//     (the autumn overlap; the offset tells them apart, and %Z gives "EDT" and "EST")
//   Asia/Kathmandu, 0                      -> "1970-01-01T05:30:00.000000+05:30"
// "%s.%6N" of -1.5 s (seconds -2, microseconds 500000) is "-1.500000": before 1970 the integer
// part is written as the floor's complement and the fraction as 1000000 minus the microseconds,
// so the text reads as the signed decimal value. The same complement applies to %N and its
// siblings in any format whose time lies before 1970, with or without %s.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "basicutil/Str.h"
#include "basicutil/TimeFormat.h"

namespace morvek {

class TimezoneData;
class Timeval;
struct StructTmInTimezoneHires;

// What render asks about a broken-down time. zone is the table's own context: a TimezoneData
// for the given-zone table, unused by the other two. A negative tm_isdst means "unknown".
struct TimeRenderCallbacks {
  // Slot 0: the instant of tm, or -1 when there is none (a gap).
  int64_t (*time_from_tm)(const struct tm &tm, const void *zone);
  // Slot 1: the zone's abbreviation into buf (NUL-terminated, truncated to size); false when it
  // is not known, and then %Z writes nothing.
  bool (*zone_name)(const struct tm &tm, const void *zone, char *buf, size_t size);
  // Slot 2: seconds east of UTC, or NOT_FIXED when unknown (the offset conversions then write
  // nothing).
  int64_t (*offset_of)(const struct tm &tm, const void *zone);
};

// The platform's local time: mktime on a copy, tm_zone or tzname, tm_gmtoff or mktime.
extern const TimeRenderCallbacks TIME_RENDER_LOCAL;
// A zone of the library's engine (zone must be a TimezoneData): the reverse search, tm_zone or
// the type found, tm_gmtoff or the fixed offset or the type found (0 if none).
extern const TimeRenderCallbacks TIME_RENDER_ZONE;
// UTC: timegm, "UTC", 0.
extern const TimeRenderCallbacks TIME_RENDER_UTC;

// Appends format's text for tm and usec (0..999999). First reserves out.size() plus
// format.max_width(), so a caller that reserved that much sees no allocation for any text of
// that width. Names are English; numbers never depend on the locale.
void render(const TimeFormat &format, Str &out, const struct tm &tm, int32_t usec,
            const TimeRenderCallbacks &callbacks, const void *zone = nullptr);

// Thin forms. A time the broken-down conversion refuses (past the year 3000 limit) renders the
// far value the conversion gives (9999-12-31 23:59:59.999999), the zone and local forms after
// their warning on "Timeval".
void render(const TimeFormat &format, Str &out, const StructTmInTimezoneHires &tm);
void render(const TimeFormat &format, Str &out, const Timeval &t, const TimezoneData *zone);
void renderUtc(const TimeFormat &format, Str &out, const Timeval &t);
void renderLocal(const TimeFormat &format, Str &out, const Timeval &t);

}  // namespace morvek
