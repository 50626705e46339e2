// Timestamp extraction: finding the time of an event inside arbitrary log text.
//
// A DateParser serves one stream of events from one source. It runs a set of regular expressions
// whose named groups ("hour", "minute", "year", "litmonth", "zone", ...) say which part of a time
// each capture holds, scores the candidates, converts the best one through Timeval::set with a
// guesser that knows the previous event, and refuses times outside a window around the event's
// arrival. It remembers the patterns that worked last and the date text of the last event, so a
// busy log usually costs one regex match per line. The library holds no pattern text: callers
// load a pattern file (format below) or add patterns by code.
//
// Worked examples, with the default zone America/New_York and the event read at
// 2024-03-10 12:00 UTC (patterns for ISO dates, syslog dates and h:mm:ss times loaded):
//   "2024-03-10 01:59:59 host sshd" gives 1710053999 (EST, offset -18000).
//   "2024-03-10 02:30:00 ..." lies in the spring gap; it resolves as the zone's reverse search
//     chose, to 1710052200.
//   "2024-11-03 01:30:00 ..." read at 2024-11-03 12:00 UTC happens twice (EDT 1730611800, EST
//     1730615400); the later is nearer the anchor and is taken, offset -18000.
//   "Dec 31 23:59:58 ..." read at 2025-01-01 05:00:05 UTC is 2024-12-31 (1735707598).
//   "10:00:01 worker started" (no date) takes the date of the previous event or today.
//   A line with no time at all takes the previous event's time (usedPrevious() is then true).
//
// Pattern file format:
//   # comment; blank lines are ignored
//   [time]                     entries below go to the time list
//   iso-time  (?<hour>\d\d):(?<minute>\d\d)(?::(?<second>\d\d))?
//   [date]                     entries below go to the date list
//   iso-date  (?<year>\d{4})-(?<month>\d\d)-(?<day>\d\d)
//     (?:...)                  a line starting with a blank continues the previous pattern
// An entry is LABEL ([A-Za-z0-9_.:-]+, unique within its section), blanks, then the pattern to
// the end of the line with trailing blanks removed. Keep "zone" groups specific: a captured word
// that names no zone makes the whole time unusable unless an override zone is set. Only the
// first DEFAULT_LOOKAHEAD (128) bytes of an event are searched unless setLookahead says otherwise.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "basicutil/DateTime.h"
#include "basicutil/Logger.h"
#include "basicutil/Regex.h"
#include "basicutil/Str.h"
#include "basicutil/TimeFormat.h"
#include "basicutil/TimeResolve.h"
#include "basicutil/Timeval.h"

struct pcre2_real_code_8;
struct pcre2_real_match_data_8;

namespace morvek {

class DateParser;
class TimezoneData;

// Extraction codes of the capture names, in this order; any name beginning "ignored_" (and any
// unnamed or unknown group) is DTCODE_IGNORED.
enum DateTimeCode : uint32_t {
  DTCODE_YEAR = 0,
  DTCODE_MONTH = 1,
  DTCODE_LITMONTH = 2,
  DTCODE_DAY = 3,
  DTCODE_AMPM = 4,
  DTCODE_HOUR = 5,
  DTCODE_MINUTE = 6,
  DTCODE_SECOND = 7,
  DTCODE_SUBSECOND = 8,
  DTCODE_ZONE = 9,
  DTCODE_ORD = 10,
  DTCODE_UTCEPOCH = 11,
  DTCODE_HEXEPOCH = 12,
  DTCODE_IGNORED = 13,
};

// The captures of one match by code; absent parts are empty. count is the number of non-empty
// captures stored.
struct DateTimeCaptures {
  StrSegment part[13];
  uint32_t count;
};

// One pattern.
struct DateTimeRegex {
  Str label;                    // name from the pattern file ("" when added by code)
  Str pattern;                  // its text
  Regex regex;                  // empty when the pattern did not compile
  std::vector<uint32_t> codes;  // one per capture group in order; unnamed groups are 13
  // The same pattern compiled for speed (JIT, no callouts, safe on invalid UTF-8); owned by the
  // set. Null when that failed: regex then does the matching.
  pcre2_real_code_8 *fast = nullptr;
};

// What a list made of a match: the raw result, the zone text it owns (pr.tzname points into it
// while HAVE_TZNAM is set) and a zone that was refused, for the warning.
struct DateTimeParseResult {
  TimeFormatRawParseResult pr;
  Str zone;
  StrSegment invalid_zone;

  void clear();
  // Copies each field whose bit is in src and not here; joins the bits; adds the conflicts.
  void merge(const DateTimeParseResult &src);
  // Points pr.tzname at zone again (after a copy).
  void fixZone() {
    if (pr.have & TimeFormatRawParseResult::HAVE_TZNAM) {
      pr.tzname = zone.data();
      pr.tzname_len = zone.size();
    }
  }
};

// The memory of one list in one parser.
struct DateTimeListState {
  DateTimeRegex *last_regex = nullptr;
  uint32_t hits = 0;
  uint32_t capture_count = 0;
};

// An ordered list of patterns and the rules that turn their captures into a result.
class DateTimeRegexList {
 public:
  virtual ~DateTimeRegexList();
  // Fills result from the captures and returns the candidate's score, -1 when unusable.
  virtual int parse(const DateTimeCaptures &captures, DateTimeParseResult &result) = 0;
  // Whether a parsed candidate may be accepted by parser.
  virtual bool validate(DateTimeParseResult &result, DateParser &parser) = 0;

  std::vector<DateTimeRegex *> entries;
};

// Times of day and epochs. A 12-hour time with a meridian outscores the same digits without:
// "12:30 PM" beats "12:30". "25:00" is unusable.
class TimeRegexList : public DateTimeRegexList {
 public:
  int parse(const DateTimeCaptures &captures, DateTimeParseResult &result) override;
  bool validate(DateTimeParseResult &result, DateParser &parser) override;
};

// Dates. A date is valid only when it converts and lies inside the parser's window.
class DateRegexList : public DateTimeRegexList {
 public:
  int parse(const DateTimeCaptures &captures, DateTimeParseResult &result) override;
  bool validate(DateTimeParseResult &result, DateParser &parser) override;
};

// A pattern set: patterns by text, one time list and one date list. Read-only once built, so
// parsers of several threads may share it.
class DateTimeRegexes {
 public:
  DateTimeRegexes();
  ~DateTimeRegexes();
  DateTimeRegexes(const DateTimeRegexes &) = delete;
  DateTimeRegexes &operator=(const DateTimeRegexes &) = delete;

  // Adds a pattern to the end of a list (once; the same text again returns the same entry). An
  // unknown capture name is logged and ignored; a pattern that does not compile is logged at
  // ERROR and kept with an empty regex.
  DateTimeRegex *addTime(StrSegment pattern, StrSegment label = {});
  DateTimeRegex *addDate(StrSegment pattern, StrSegment label = {});

  // Reads a pattern file (format at the top of this header). On failure returns false and error
  // is one line "PATH:LINE: what is wrong" (no file, unknown section, entry outside a section,
  // duplicate label, a pattern that does not compile). Adds to what is already there; entries
  // before the faulty line stay.
  bool loadFile(const char *path, Str &error);
  bool loadText(StrSegment text, StrSegment source_name, Str &error);

  TimeRegexList &timeList() { return _time; }
  DateRegexList &dateList() { return _date; }
  bool empty() const { return _by_pattern.empty(); }

  // The process-wide set (empty until loaded).
  static DateTimeRegexes &shared();

 private:
  DateTimeRegex *add(DateTimeRegexList &list, StrSegment pattern, StrSegment label);

  std::map<Str, std::unique_ptr<DateTimeRegex>> _by_pattern;
  TimeRegexList _time;
  DateRegexList _date;
};

// Supplies what text leaves out, knowing the stream: the previous event anchors years and
// dates, aliases and an override zone take part in zone lookups, and conversions within one
// local hour reuse one offset.
class DateParserGuesser : public TimeGuesser {
 public:
  bool lookupZone(const char *name, TzSpec &spec) override;
  bool localToUtc(TzSpec spec, int64_t &t) override;
  int64_t anchorTime() override;
  bool anchorIsFuture() override;
  bool guessDate(TimeFormatRawParseResult &r, TzSpec spec) override;
  const TimezoneData *defaultZone() override;

  Timeval previous;
  Timeval now;
  int32_t max_diff_ago = 3600;
  int32_t max_diff_hence = 604800;
  std::map<Str, Str> aliases;
  const TimezoneData *default_zone = nullptr;
  char cached_zone_name[8] = {0};
  TzSpec cached_zone_spec;
  bool override_set = false;
  TzSpec override_spec;
  int64_t cached_hour_bucket = -1;
  int64_t cached_hour_delta = 0;
  const TimezoneData *cached_hour_zone = nullptr;
  struct {
    int32_t year = -1, month = 0, day = 0, hour = 0;
  } base_date;
  int64_t max_ago_secs = 1825 * 86400LL;
  int64_t max_hence_secs = 7 * 86400LL;
  bool use_system_now = false;
};

// Warnings of a DateParser, on the channel "DateParserVerbose".
enum DateParserWarning : int {
  TIMESTAMP_USING_PREVIOUS = 0,
  TIMESTAMP_CONSECUTIVE_LIMIT = 1,
  TIMESTAMP_TOO_FAR_FROM_PREVIOUS = 2,
  TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS = 3,
  TIMESTAMP_FORMAT_CHANGED = 4,
  TIMESTAMP_INVALID_TIMEZONE = 5,
  TIMESTAMP_STRPTIME_GENERIC_FAIL = 6,
  TIMESTAMP_STRPTIME_OUTSIDE_WINDOW = 7,
  TIMESTAMP_REGEX_GENERIC_FAIL = 8,
  TIMESTAMP_REGEX_OUTSIDE_WINDOW = 9,
};

// Appends the parser's context to each warning.
class EnvContextCallback : public LogFormatCallback {
 public:
  explicit EnvContextCallback(const Str &context) : _context(context) {}
  ~EnvContextCallback() override;
  void append(Str &message) override;

 private:
  const Str &_context;
};

class DateParser {
 public:
  static constexpr int32_t MAX_DAYS_LIMIT = 10950;
  static constexpr int32_t DEFAULT_LOOKAHEAD = 128;

  // A new parser is off (mode 0) until setMode(1). set null: the shared pattern set.
  explicit DateParser(bool use_cache = true, DateTimeRegexes *set = nullptr);
  virtual ~DateParser();
  DateParser(const DateParser &) = delete;
  DateParser &operator=(const DateParser &) = delete;

  // The time of the event text read at event_time into out. A line without a believable time
  // takes the previous event's time (usedPrevious() then says so); false when there is none.
  // Offsets, when given, receive where the date and the time were found (-1 when not).
  bool parse(Timeval &out, StrSegment text, Timeval event_time, int32_t *date_begin = nullptr,
             int32_t *date_end = nullptr, int32_t *time_begin = nullptr,
             int32_t *time_end = nullptr, ParseDetails *details = nullptr);
  // The extraction alone: no previous time, no counting.
  bool dateTimeFromString(Timeval &out, StrSegment text, int32_t *date_begin = nullptr,
                          int32_t *date_end = nullptr, int32_t *time_begin = nullptr,
                          int32_t *time_end = nullptr, ParseDetails *details = nullptr);
  // Whether the line carries a believable new time (for breaking a stream into events).
  bool isTimestampLine(StrSegment text);
  // Takes a date from a source path ("/var/log/app-2024-03-10.log"): lines with a time and no
  // date are then read on that date, advancing when the hour falls back.
  void setSource(StrSegment name);

  void setMode(int mode);  // 0 off, 1 normal, 2 current time
  int mode() const { return _mode; }
  void setLookahead(int32_t n);  // bytes of text searched; -1 no limit
  bool setPrefix(StrSegment regex);
  bool setFormat(StrSegment time_format);  // empty clears
  void setMaxDiffSecs(int32_t ago, int32_t hence);
  void setMaxDays(int32_t ago, int32_t hence);
  // The zone for text that names none and for names that are not zones; logged on "DateParser".
  bool setDefaultZoneText(StrSegment zone);
  // The zone for text that names none (null: the local zone).
  void setDefaultZone(const TimezoneData *zone);
  bool setTzAlias(StrSegment tz_alias);
  // " Context: TEXT" appended to each warning.
  void setContext(StrSegment text);
  void setUseSystemNow(bool use);

  bool usedPrevious() const { return _used_previous; }
  const DateTimeRegex *lastTimeRegex() const { return _time_state.last_regex; }
  const DateTimeRegex *lastDateRegex() const { return _date_state.last_regex; }
  DateParserGuesser &guesser() { return _guesser; }
  const Str &context() const { return _context; }

  // Each alias value through the plain zone lookup; the valid pairs join the guesser's aliases.
  // False when any was invalid.
  bool applyTzAliases(const std::map<Str, Str> &aliases);

  // Window test against the guesser's now and the days window, with a day's grace around the
  // system clock.
  bool inWindow(const Timeval &t);

  virtual void warn(Logger &logger, int code, ...);
  virtual bool shouldWarn(Logger &logger, int code);
  virtual void vwarn(Logger &logger, int code, const char *format, va_list ap);

 private:
  bool prepareText(StrSegment &text, int32_t &shift);
  bool runList(DateTimeRegexList &list, DateTimeListState &state, StrSegment text,
               DateTimeParseResult &result, int32_t &begin, int32_t &end, bool strict);
  // The number of groups set plus one, 0 for no match; the offsets are in _match_data.
  int matchFast(pcre2_real_code_8 *code, StrSegment text, uint32_t pairs);
  bool matchOne(DateTimeRegex &re, StrSegment text, int32_t &begin, int32_t &end);
  bool convert(Timeval &out, DateTimeParseResult &r, ParseDetails *details);
  bool formatParse(Timeval &out, StrSegment text, ParseDetails *details, int32_t &consumed);
  void forgetPatterns();
  void warnText(int code, StrSegment text);
  void timeText(Str &out, const Timeval &t);

  DateTimeRegexes *_regexes;
  DateTimeListState _time_state, _date_state;
  int32_t _lookahead = DEFAULT_LOOKAHEAD;
  int32_t _misses = 0;
  bool _use_cache;
  int32_t _cached_hour = -1, _cached_minute = -1;
  int32_t _cached_date_begin = -1, _cached_date_end = -1;
  Str _cached_date_text;
  int32_t _avg_gap = 600;
  DateTimeParseResult _cached_date_result;
  int _mode = 0;
  Regex _prefix;
  pcre2_real_code_8 *_prefix_fast = nullptr;
  TimeFormat _format;
  DateParserGuesser _guesser;
  ParseDetails _details_cache;
  bool _details_valid = false;
  Str _context;
  uint32_t _same_time_count = 0;
  bool _used_previous = false;

  // Scratch reused by every call, so the warm path allocates nothing.
  RegexMatch _match;
  pcre2_real_match_data_8 *_match_data = nullptr;
  uint32_t _match_pairs = 0;
  DateTimeCaptures _captures;
  DateTimeParseResult _scratch, _time_result, _date_result;
  Str _warn_text;
};

// "KEY=VALUE,KEY=VALUE": zone words to zones. Logs each pair or the trouble on "DateParser";
// any error makes the whole setting false (out then holds the pairs seen before it).
bool parseTzAlias(StrSegment text, std::map<Str, Str> &out);

}  // namespace morvek
