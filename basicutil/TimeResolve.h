// Time resolution: turning what the parser saw (a TimeFormatRawParseResult) into an instant.
// Text rarely says everything: the zone, the year, the date or whether "05:00" is morning may be
// missing, and a local time may fall into a daylight-saving gap or happen twice. Every guess made
// about such text is a virtual operation of a TimeGuesser, so that a caller with better knowledge
// (the time of the previous event in a log, a configured zone) replaces just that guess.
//
// Worked examples with the zone America/New_York and the present at 2024-03-10 12:00 UTC:
//   "2024-03-10 01:59:59" gives 1710053999 (EST, -05:00).
//   "2024-03-10 02:30:00" lies in the spring gap (02:00 EST became 03:00 EDT); it takes the
//     offset the zone's reverse search chose, EDT, and gives 1710052200 (= 01:30 EST), with no
//     conflict counted.
//   "2024-11-03 01:30:00" happens twice (1730611800 EDT, then 1730615400 EST): the earlier
//     instant is taken unless the later one is closer to the present, and `conflicts` rises by
//     one. "01:30:00 EST" says which: the abbreviation is a fixed offset, -18000.
//   "Mar  9 23:10:00" (no year) read on 10 March is 2024-03-09; "Dec 31 23:59:59" read on
//     1 January 2025 is 2024-12-31; "Feb 29" read in 2025 is 2024-02-29.
//   "24-06-01" ("%y") is 2024; "69-06-01" is 1969.
#pragma once

#include <cstddef>
#include <cstdint>

#include "basicutil/DateTime.h"
#include "basicutil/Str.h"
#include "basicutil/TimeFormat.h"
#include "basicutil/Timeval.h"

namespace morvek {

class TimezoneData;

// A zone as the resolver uses it: a fixed offset (seconds east of UTC), or a zone of the engine
// (null means UTC with no name).
struct TzSpec {
  uint8_t is_fixed = 1;
  union {
    int64_t offset = 0;
    const TimezoneData *zone;
  };

  static TzSpec fixed(int64_t seconds_east) {
    TzSpec s;
    s.offset = seconds_east;
    return s;
  }
  // A zone whose fixed_offset is set becomes a fixed spec.
  static TzSpec of(const TimezoneData *zone);
  // Seconds east of UTC at the instant t (0 for a null zone).
  int64_t offsetAt(int64_t t) const;
};

// What a resolution found besides the instant.
struct ParseDetails {
  // Sub-second digits (0 for whole seconds), RES_MINUTE with no seconds, RES_HOUR for an hour
  // alone, RES_DAY for no time of day, RES_NONE for "now".
  int32_t precision;
  uint8_t zone_given;                      // the text named a zone or offset
  int64_t offset;                          // seconds east of UTC of the local time found
  int32_t year, month, monthday, weekday;  // month 0..11, weekday 0 = Sunday
  int32_t hour, minute, second;            // second may be 60
};

// The heuristics of resolution. This class is stateless; one static instance serves every
// resolution that names no guesser. Subclasses override the guesses they know better.
class TimeGuesser {
 public:
  virtual ~TimeGuesser();

  // name is NUL-terminated or null. Null or empty: defaultZone(). "GMT" followed by more text
  // drops the "GMT" ("GMT+5" is five hours EAST, against POSIX's sign). "+hh[mm]" and the like
  // are fixed offsets; "EST" (up to 7 letters, any case) an abbreviation; "Tokyo Standard Time"
  // a Windows name when its table can match it; anything else a zone by name or alias. A zone
  // with one offset since 1970 gives a fixed spec. False when nothing matches.
  virtual bool lookupZone(const char *name, TzSpec &spec);
  // Local wall-clock seconds (as if UTC) to an instant in place. False only in an overlap,
  // where t becomes the earlier of the two instants. In a gap the offset the zone's reverse
  // search chose applies.
  virtual bool localToUtc(TzSpec spec, int64_t &t);
  // Fills r.year for a month and day given without year, relative to anchorTime(): the year
  // that puts the date nearest before the anchor (or after it, for a future anchor), with the
  // New Year and 29 February handled apart. False past the year 3000.
  virtual bool guessYear(TimeFormatRawParseResult &r);
  // Fills r.year, r.month, r.monthday and r.hour for a time of day given without a date: today
  // in spec's local time, or yesterday when the time is more than three hours ahead. A 12-hour
  // time without AM/PM takes the nearer half day. False without minutes.
  virtual bool guessDate(TimeFormatRawParseResult &r, TzSpec spec);
  // Whether t + 3600 (or + 43200) is closer to the anchor than t, a distance into the past
  // counting eight times one into the future.
  virtual bool hourLaterIsCloser(int64_t t);
  virtual bool halfDayLaterIsCloser(int64_t t);
  // 0..68 are 2000..2068, 69..99 are 1969..1999.
  virtual int32_t expandTwoDigitYear(int32_t year);
  // The present second, from Timeval::cachedNow.
  virtual int64_t anchorTime();
  // Whether the texts being read tend to lie after the anchor.
  virtual bool anchorIsFuture();
  // The zone of text that names none: the process's local zone.
  virtual const TimezoneData *defaultZone();

  // The shared plain guesser.
  static TimeGuesser &plain();

 protected:
  // The closeness test of hourLaterIsCloser, for any step.
  bool laterIsCloser(int64_t t, int64_t step);
};

// A plain guesser whose default zone is the given one (the local zone when null).
class OnlyOverrideTimezoneTimeGuesser : public TimeGuesser {
 public:
  explicit OnlyOverrideTimezoneTimeGuesser(const TimezoneData *zone) : _zone(zone) {}
  const TimezoneData *defaultZone() override;

 private:
  const TimezoneData *_zone;
};

// Parses text with format into out: a raw parse, then Timeval::set. Returns the bytes consumed,
// or -1 when the text does not fit or can't be resolved (out is then unchanged). zone, used only
// when guesser is null, is the zone for text that names none. conflicts, when given, receives
// the count of contradictions (two different days, an ambiguous local time).
//   parseTime(TimeFormat("%Y-%m-%d %H:%M:%S %z"), "2025-03-09 01:59:59 -0500", t) == 25,
//   t == 1741503599.
int64_t parseTime(const TimeFormat &format, StrSegment text, Timeval &out,
                  TimeGuesser *guesser = nullptr, const TimezoneData *zone = nullptr,
                  ParseDetails *details = nullptr, int32_t *conflicts = nullptr);

}  // namespace morvek
