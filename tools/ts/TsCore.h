// The pieces of morvek-ts that its tests and benchmarks share: the options and how they set up a
// DateParser, the output column, the pattern file's location, and the annotated corpus files.
//
// The column of a line, for the zone America/New_York:
//   "Mar 10 01:59:59.123 host sshd[1]: ..." read on 2024-03-10 -> "2024-03-10T01:59:59.123-05:00"
//   "2024-03-10 03:00:00 ..." (the spring gap ends at 03:00 EDT) -> "2024-03-10T03:00:00-04:00"
//   "1710054000 ..." (epoch seconds)                             -> "2024-03-10T07:00:00+00:00"
//   "  at Foo.bar()" after a line with a time                   -> "~" and that line's column
//   anything before the first time                               -> "-"
// With --epoch the same times read "1710053999.123", "1710054000", "~1710054000" and "-".
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "basicutil/DateParser.h"
#include "basicutil/Str.h"
#include "basicutil/Timeval.h"

namespace morvek::ts {

// What the command line (or a corpus file's "#!" line) asks for. Unset values leave the
// parser's defaults alone.
struct TsOptions {
  static constexpr int32_t UNSET = INT32_MIN;

  Str tz;        // --tz: zone for text that names none
  Str tz_alias;  // --tz-alias: "EST=America/New_York,..."
  Str format;    // --format: a TIME_FORMAT tried before the patterns
  Str prefix;    // --prefix: a regex that must match before the time
  Str source;    // --source: a path whose date fills in dates the text leaves out
  Str patterns;  // --patterns: a pattern file used instead of the shipped one
  bool has_tz = false, has_tz_alias = false, has_source = false;
  bool has_now = false;
  Str now_text;  // --now: the event time given for every line, as given
  Timeval now;   // and as read
  int32_t lookahead = UNSET;
  int32_t max_days_ago = UNSET, max_days_hence = UNSET;
  bool epoch = false, events = false, summary = false, verbose = false, help = false;
  int32_t jobs = 1;
};

// Reads options from args into opts and the other words into files; "-" is a file (standard
// input) and "--" ends the options. "--opt=value" and "--opt value" are both accepted. False
// with a one-line error for an unknown option, a missing or malformed value.
bool parseOptions(const std::vector<Str> &args, TsOptions &opts, std::vector<Str> &files,
                  Str &error);

// Splits a line into words the way a shell would for plain words and '...' or "..." quoting
// (no escapes, no expansions): "--format='%d %b' -j 2" gives --format=%d %b, -j, 2.
// False for an unterminated quote.
bool splitWords(StrSegment line, std::vector<Str> &words);

// "1710054000", "1710054000.25", "2024-03-10T07:00:00Z", "2024-03-10 02:00:00.5-05:00"; a
// time with no designator is UTC. False for anything else.
bool parseNowText(StrSegment text, Timeval &out);

// Sets the parser up as opts says and turns it on. False with a one-line error for a zone, an
// alias setting, a prefix or a format that the parser refuses.
bool configureParser(DateParser &parser, const TsOptions &opts, Str &error);

// The event time for the next line: --now, or the clock.
inline Timeval eventTime(const TsOptions &opts) { return opts.has_now ? opts.now : Timeval::now(); }

// The output column for one parse: "-" when ok is false; otherwise the time in the offset the
// text resolved to, with as many fraction digits as the text had, "~" first when it was the
// previous event's. With epoch, seconds since 1970 instead.
void appendColumn(Str &out, bool ok, bool used_previous, const Timeval &t,
                  const ParseDetails &details, bool epoch);

// The shipped pattern file: share/morvek/timestamp-patterns.conf beside the executable's bin
// directory, else under the install prefix the build was configured for, else the source
// tree's data/. Empty when none of them exists.
Str shippedPatternsPath();

// Loads opts.patterns, or the shipped file, into set. False with "PATH:LINE: what" or a line
// saying that no pattern file was found.
bool loadPatterns(DateTimeRegexes &set, const TsOptions &opts, Str &error);

// Regular expressions may only be run on valid UTF-8. When text is not, out receives a copy
// with each byte of every malformed sequence (overlong forms and surrogates included) made '?',
// so offsets stay, and the answer is true; valid text is left alone and the answer is false.
bool replaceInvalidUtf8(StrSegment text, Str &out);

// Keeps the parser's warnings and settings reports off standard error.
void quietParserLogs();

// Counts over a run, summed over files.
struct TsStats {
  uint64_t lines = 0, found = 0, previous = 0, none = 0;
  uint64_t continuation = 0;  // lines that continued an event (--events)
  std::map<const DateTimeRegex *, uint64_t> time_hits, date_hits;

  void add(const TsStats &other);
  // One line each, every one starting with line_prefix: "lines N found N previous N none N",
  // "continuation N" when asked for, then "time LABEL N" and "date LABEL N" by label; patterns
  // added without a label show their text.
  void render(Str &out, const char *line_prefix, bool with_continuation) const;
};

// One parser per input, with what the tool prints for each line.
class LineTimer {
 public:
  explicit LineTimer(const TsOptions &opts) : _opts(opts) {}
  bool configure(Str &error) { return configureParser(_parser, _opts, error); }
  DateParser &parser() { return _parser; }
  const TsStats &stats() const { return _stats; }
  void addContinuation(uint64_t n) { _stats.continuation += n; }

  // Parses one line and appends its column (no tab) to out.
  void column(StrSegment line, Str &out);

 private:
  const TsOptions _opts;
  DateParser _parser;
  TsStats _stats;
  Str _valid;
};

// One annotated line of a corpus file: "EXPECTED<TAB>LINE".
struct CorpusLine {
  uint32_t lineno;
  Str expected;
  Str text;
};

struct CorpusFile {
  Str path;
  TsOptions opts;  // from the first "#!" line
  std::vector<CorpusLine> lines;
};

// Reads a corpus file; comments and blank lines are skipped. False with "PATH:LINE: what".
bool loadCorpusFile(const char *path, CorpusFile &out, Str &error);
// The corpus files (*.txt) of a directory, sorted by name.
std::vector<Str> corpusFilesIn(const char *dir);

}  // namespace morvek::ts
