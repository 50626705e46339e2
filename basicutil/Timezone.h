// Time zones: the library's own zone engine. A TimezoneData is a complete table of transitions
// and types, filled from a compiled zone file (TZif versions 1 to 3, or the older headerless
// layout), from an entry of a .tzpack archive, or from a POSIX TZ rule string such as
// "EST5EDT,M3.2.0,M11.1.0". Zones are loaded once, cached by name for the life of the process
// and never freed; once published they are immutable and read without a lock. The platform's
// zone code (localtime_r, mktime, TZ) is never asked for an offset.
//
// Worked example, America/New_York:
//   1710053999 (2024-03-10 06:59:59 UTC) is 01:59:59 EST, offset -18000, isdst 0;
//   1710054000 is 03:00:00 EDT, offset -14400, isdst 1: local 02:00..02:59:59 that day is a
//   gap, so reverseSearch of local 2024-03-10 02:30 answers MIGHT_ALSO_BE_NEXT_INDEX and
//   offsetFromReverseSearch gives null;
//   local 2024-11-03 01:30 happens twice, 1730611800 (EDT) and 1730615400 (EST): reverseSearch
//   answers REVERSE_AMBIGUOUS and offsetFromReverseSearch picks by the isdst hint (1 gives EDT,
//   0 gives EST, -1 gives null).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

#include "basicutil/DateTime.h"
#include "basicutil/Str.h"

namespace morvek {

class PthreadMutex;

// One local-time type of a zone.
struct TimezoneType {
  enum Kind : uint32_t {
    KIND_WALL = 0,       // transitions given in wall-clock time
    KIND_STANDARD = 1,   // in standard time
    KIND_UNIVERSAL = 2,  // in UTC
  };
  int64_t gmtoff;    // seconds east of UTC
  uint64_t abbrind;  // index of the abbreviation in TimezoneData::chars
  uint8_t isdst;
  uint32_t kind;
};

// One rule of a POSIX TZ string: "J60" (Julian, 1-based, 29 February never counted), "59"
// (0-based yearday) or "M3.2.0" (month, week, weekday), with a time of day that may run to 167
// hours.
struct TzRule {
  enum Type : int { JULIAN = 0, ZERO_BASED = 1, DOW = 2 };
  int type;
  int month;     // 0-based, DOW only
  int week;      // (w - 1) * 7; 28 is "the last"
  int day;       // JULIAN: n - 1; ZERO_BASED: n; DOW: weekday - 11
  int64_t time;  // seconds after local midnight, 7200 by default
};

// Seconds from 1 January 00:00 of year to the moment the rule names, in the local time in force
// before the change. "M3.2.0" (second Sunday of March) in 2024: 10 March, so
// 68 * 86400 + 7200 = 5882400. Julian days at or past 59 are moved one day later in years that
// are NOT leap years, as this engine always has; zone tables built from rules depend on that.
int64_t secondsFromJanuary(const TzRule &rule, int64_t year);

class TimezoneData {
 public:
  static constexpr uint32_t MAX_TRANSITIONS = 1200;
  static constexpr uint32_t MAX_TYPES = 256;
  // Limits a zone file must respect.
  static constexpr uint32_t MAX_FILE_CHARS = 270;
  static constexpr uint32_t MAX_FILE_LEAPS = 500;
  // 400 Gregorian years in seconds: zones repeating with this period extend both ways.
  static constexpr int64_t FOUR_HUNDRED_YEARS = 12622780800;
  // Half-width of the window compared by equivalentAt: 3660 days.
  static constexpr int64_t EQUIVALENCE_WINDOW = 316224000;

  // reverseSearch's verdict on a local time.
  enum ReverseType : int {
    REVERSE_EXACT = 0,             // exactly one instant has this local time
    REVERSE_AMBIGUOUS = 1,         // two instants (an overlap); the index is the earlier one's
    MIGHT_ALSO_BE_NEXT_INDEX = 2,  // none (a gap)
  };

  // A cleared object: no transitions or types, goback and goahead 1, fixed_offset NOT_FIXED.
  TimezoneData();
  void clear();

  // ---- Loading. getTimezone() below is the normal way in; these build one uncached object
  // and are public for tools, tests and the serialized form. Each returns false on failure,
  // leaving the object in an unspecified but destructible state.

  // By name, as getTimezone would: ":path" and "/path" are files only, "" is GMT, otherwise a
  // zone file
  // (by sanitized relative name under the override directory, its .tzpack, then the system
  // directory), then the alias hook, then a POSIX string.
  bool loadByName(StrSegment name);
  // A zone file by name alone. A name starting with "/" is a path to a regular file; any other
  // is sanitized (it cannot leave the zone directory) and searched as loadByName says.
  bool loadFile(StrSegment name, bool rules_allowed);
  // Parses a zone file held in memory. With rules_allowed the POSIX footer of a version 2+
  // file extends the table past its last transition.
  bool parseZoneFile(StrSegment bytes, bool rules_allowed);
  // Parses "std offset [dst [offset] [,start[/time],end[/time]]]". With a dst part and no
  // rules, the "posixrules" file is corrected to these offsets, or else the US rules
  // M3.2.0,M11.1.0 apply. "EST5EDT" gives EST -18000 and EDT -14400; "<+0330>-3:30" a fixed
  // +12600 named "+0330".
  bool parsePosixString(StrSegment text);

  // ---- Lookups. None takes a lock; all are valid on the GMT zone (no transitions, no types,
  // where the type at any time is an all-zero type named by chars: offset 0, "GMT").

  // The last transition at or before t; 0 before the first and with no transitions.
  uint32_t transitionIndexAt(int64_t t) const;
  // The time of that transition; INT64_MIN before the first and with no transitions.
  int64_t transitionTimeAt(int64_t t) const;
  // The type in force at t, and its offset in seconds east of UTC.
  const TimezoneType &typeAt(int64_t t) const;
  int64_t offsetAt(int64_t t) const { return typeAt(t).gmtoff; }
  // Type of transition index i (the placeholder type with no transitions).
  const TimezoneType &transitionType(uint32_t i) const { return ttis[timecnt == 0 ? 0 : types[i]]; }
  // NUL-terminated abbreviation of a type: "EDT".
  const char *abbreviation(const TimezoneType &type) const;
  const char *abbreviationAt(int64_t t) const { return abbreviation(typeAt(t)); }
  // The latest offset with the given isdst, walking back from the last transition; failing
  // that the latest with the other isdst; 0 with no transitions. New York: recentOffset(true)
  // is -14400.
  int64_t recentOffset(bool isdst) const;
  // The one offset in force from t1 to t2, or NOT_FIXED if it changes in between.
  int64_t fixedOffsetBetween(int64_t t1, int64_t t2) const;
  // True when the two zones behave alike for 3660 days either side of t: same offsets, and
  // the same abbreviations at t (fixed zones) or the same transitions (changing zones).
  // "US/Eastern" and "America/New_York" are equivalent; New York and Toronto too in 2024.
  bool equivalentAt(const TimezoneData &other, int64_t t) const;
  // The transition index for a local time (seconds since 1970 of the wall clock, as if UTC)
  // and the kind of answer in rtype (ReverseType).
  uint32_t reverseSearch(int64_t local, int &rtype) const;
  // The type for a local time: the only one, or in an overlap the one whose isdst matches the
  // hint (isdst < 0: no hint). Null in a gap or an unresolved overlap.
  const TimezoneType *offsetFromReverseSearch(int64_t local, int isdst) const;

  // ---- Broken-down time in this zone.

  // t broken down as local time, with tm_isdst, tm_gmtoff and tm_zone from the zone (tm_zone
  // points into this object). False above MAX_BROKEN_DOWN_TIME. New York, 1710054000:
  // 2024-03-10 03:00:00, isdst 1, gmtoff -14400, "EDT".
  bool breakDown(int64_t t, struct tm &tm) const;
  // The instant of a local broken-down time, tm_isdst the hint for an overlap. On success
  // tm_isdst, tm_gmtoff and tm_zone are filled. -1 in a gap or unresolved overlap, with
  // tm_isdst restored.
  int64_t toUnixTime(struct tm &tm) const;
  // As toUnixTime, but a time in a gap or unresolved overlap gives the last transition at or
  // before local + 1 day: local 2024-03-10 02:30 in New York gives 1710054000.
  int64_t toUnixTimeOrTransition(struct tm &tm) const;
  // Whether t is exactly a transition time.
  bool isAtTransition(int64_t t) const;

  // ---- The table. Sizes are fixed so that one allocation holds a whole zone.
  uint32_t timecnt;
  uint32_t typecnt;
  // Set by the 400-year test: the table repeats with a period of 400 years backwards/forwards.
  uint8_t goback, goahead;
  int64_t ats[MAX_TRANSITIONS];  // ascending
  uint8_t types[MAX_TRANSITIONS];
  TimezoneType ttis[MAX_TYPES];
  Str chars;  // NUL-separated abbreviations
  Str name;   // the Olson-style name when known: "America/New_York"
  // The single offset since 1970, or NOT_FIXED.
  int64_t fixed_offset;

 private:
  bool parseHeaderless(StrSegment bytes);
  void mergeFooter(StrSegment text);
  void correctPosixRules(const TimezoneData &rules, int64_t std_off, int64_t dst_off,
                         uint64_t dst_abbrind);
  void buildFromRules(const TzRule &start, const TzRule &end, int64_t std_off, int64_t dst_off);
  bool loadPath(const char *path, StrSegment leaf, bool rules_allowed);
  void finishTable();
  void computeFixedOffset();
};

// ---- The process-wide zones.

// The cached lookup by name: the cache, then the set of failed names (null), then, with
// allow_aliases, the alias hook, then a load. The object is shared by every caller of the same
// name and lives until exit. Null if the zone can't be had; the name is then remembered as
// failed (a set that is emptied before it would grow past 2049 names). Takes the zone lock.
const TimezoneData *getTimezone(StrSegment name, bool allow_aliases = true);
const TimezoneData *getTimezone(const char *name, bool allow_aliases = true);
// The local zone: TZ when set and not empty, else "localtime" (/etc/localtime); failing those
// "GMT", then the GMT zone. Lock-free after the first call.
const TimezoneData *getTimezone();
// The static GMT zone: abbreviation "GMT", no transitions or types, fixed_offset 0.
const TimezoneData *gmtTimezone();

// Looks for zone files under path first (path/NAME, then path.tzpack) and forgets the local
// zone, so that it is resolved again. Zones already handed out stay valid.
void setZoneInfoDir(StrSegment path);
void clearZoneInfoDir();
// The override directory, empty when none.
Str zoneInfoDir();
// Replaces the system directory "/usr/share/zoneinfo", for tests and tools that must not see
// the system's zones; an empty path restores it. Call it before zones are looked up.
void setSystemZoneInfoDir(StrSegment path);

// The Olson name an alias stands for ("US/Eastern" -> "America/New_York"), or null.
const char *timezoneAliasTarget(StrSegment name);

// The zone lock: guards the zone caches and every load. Taken after the local zone's own mutex
// when both are needed.
PthreadMutex &timezoneLock();
// The local zone's serialized text, published by atomic exchange and cleared whenever the
// override directory changes. Null until someone builds it.
std::atomic<const Str *> &serializedLocalTimezoneSlot();

// The relative name a zone is searched by: split at "/", empty components dropped, and in each
// component a blank, "+", "-", "." or ":" kept except in first place, where it becomes "_", and
// any other byte but letters and digits "_". "../../etc/passwd" gives "_./_./etc/passwd".
void sanitizeZoneName(StrSegment name, Str &out);

// ---- The .tzpack archive: big-endian, 16-byte units. A header of the magic "MorvekTZpk1!" and
// the entry count N; then N index units (name offset, data offset in units, data length, 0),
// sorted by name byte-wise; then the NUL-terminated names and the zone files, each starting on
// a unit boundary. Names are lower-case relative names: "america/new_york".
class TzPack {
 public:
  static constexpr char MAGIC[13] = "MorvekTZpk1!";

  // Takes a view of a whole pack; false if the header is broken.
  bool open(StrSegment bytes);
  uint32_t count() const { return _count; }
  // Entry i, 0-based: false if its offsets point outside the pack.
  bool entry(uint32_t i, StrSegment &name, StrSegment &data) const;
  // The entry for a relative zone name in any case, backslashes standing for "/".
  bool find(StrSegment name, StrSegment &data) const;

  // Builds a pack from (name, zone file) pairs; names are lowered and sorted here.
  static void build(std::vector<std::pair<Str, Str>> entries, Str &out);

 private:
  StrSegment _bytes;
  uint32_t _count = 0;
};

// ---- The handle callers hold.

// What Timezone::setFromSerialized reads from, line by line (without the newline).
class SerializedTimezoneReader {
 public:
  virtual ~SerializedTimezoneReader();
  virtual bool readLine(Str &line) = 0;
};

class Timezone {
 public:
  Timezone() = default;
  explicit Timezone(StrSegment name) { set(name); }
  explicit Timezone(const TimezoneData *tz) : _tz(tz) {
    if (tz != nullptr) _name = tz->name;
  }

  // getTimezone(name, true); false (and a null zone) when it fails.
  bool set(StrSegment name);
  // The requested name; empty for a null zone.
  const Str &name() const { return _tz != nullptr ? _name : Str::emptyStr(); }
  const TimezoneData *data() const { return _tz; }
  const TimezoneData *operator->() const { return _tz; }
  explicit operator bool() const { return _tz != nullptr; }

  // Reads a serialized zone ("### SERIALIZED TIMEZONE FORMAT 1.0" ... "$"); the zone or null.
  const TimezoneData *setFromSerialized(SerializedTimezoneReader &reader);

  Str _name;
  const TimezoneData *_tz = nullptr;
};

}  // namespace morvek
