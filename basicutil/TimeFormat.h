// TimeFormat: a strftime-like format compiled once into an array of atoms, which both the time
// renderer and the time parser walk. The language is the usual one plus sub-second conversions
// (%N %Q %f %q, and %l read as milliseconds after seconds), offsets in five forms (%z %:z %::z
// %:::z %Ez), and a few flags. It is strict: whatever can't be rendered and parsed back exactly
// (an unknown conversion, a flag that means nothing where it stands, a width that would cut a
// name) is refused when the format is compiled, never at use.
//
// Worked example: "%FT%T.%Q%:z" compiles to fourteen atoms,
//   YEAR_NUM(4) "-" MONTH_NUM(2) "-" MONTHDAY_NUM(2) "T" HOUR24_NUM(2) ":" MINUTE_NUM(2) ":"
//   SECOND_NUM(2) "." SUBSECOND_NUM(3) TZ_AS_COLONOFFSET(6)
// with max_width 29, finest 3 (milliseconds) and coarsest -6 (years).
// For America/New_York at 1710054000.25 (2024-03-10 03:00:00.250 EDT, just after the spring gap
// from 02:00 to 03:00) it renders "2024-03-10T03:00:00.250-04:00"; at 1730615400 (2024-11-03
// 01:30:00 EST, the second pass through the autumn overlap) "2024-11-03T01:30:00.000-05:00".
#pragma once

#include <cstddef>
#include <cstdint>

#include "basicutil/Str.h"

namespace morvek {

// One compiled piece of a format. Conversions (what < WHITESPACE, and AMPM, TZ_NAME) read
// x.conv; LITERAL and WHITESPACE atoms read x.text, width bytes long, kept alive by their
// TimeFormat. PUNCT and HOUR12_OR_MILLI exist only while compiling: a compiled format holds
// neither.
struct TimeFormatAtom {
  uint32_t what;  // a TimeFormat::What
  union {
    struct {
      uint32_t padding;   // a TimeFormat::Padding
      uint32_t case_mod;  // a TimeFormat::Case
      uint32_t mod;       // a TimeFormat::Modifier; FMODIFY_NONE once compiled but for E and O
    } conv;
    uint64_t tmp;      // compiling only: offset into the literal text, or punctuation index
    const char *text;  // LITERAL, WHITESPACE
  } x;
  uint64_t width;  // conversions: the field width (0 for none); text: its length

  StrSegment literal() const { return StrSegment(x.text, width); }
};

class TimeFormat {
 public:
  // Atom kinds. The numeric kinds come first, up to SUBSECOND_NUM, so that "what <=
  // SUBSECOND_NUM" means "reads and writes digits" and "what < YEAR_NUM" means "an offset or the
  // epoch, which may carry a sign".
  enum What : uint32_t {
    TZ_AS_COLONOFFSET = 0,   // %:z   +hh:mm
    TZ_AS_SECOFFSET = 1,     // %::z  +hh:mm:ss
    TZ_AS_NEEDEDOFFSET = 2,  // %:::z +hh[:mm[:ss]], as precise as needed
    TZ_AS_MINOFFSET = 3,     // %Ez   +mmm, in minutes
    TZ_AS_HHMMOFFSET = 4,    // %z    +hhmm
    EPOCH_NUM = 5,           // %s
    YEAR_NUM = 6,            // %Y %o
    CENTURY_NUM = 7,         // %C
    YEAR2_NUM = 8,           // %y
    ISOYEAR_NUM = 9,         // %G
    ISOYEAR2_NUM = 10,       // %g
    YEAR_EITHER_NUM = 11,    // the year of %x compiled for parsing: two or four digits
    MONTH_NUM = 12,          // %m
    WEEK_SUN_NUM = 13,       // %U
    WEEK_MON_NUM = 14,       // %W
    WEEK_ISO_NUM = 15,       // %V
    MONTHWEEK_NUM = 16,      // week of the month; no conversion makes it
    MONTHDAY_NUM = 17,       // %d %e
    YEARDAY_NUM = 18,        // %j
    WEEKDAY0_NUM = 19,       // %w, Sunday 0
    WEEKDAY1_NUM = 20,       // %u, Sunday 7
    HOUR24_NUM = 21,         // %H %k
    HOUR12_NUM = 22,         // %I, and %l when it is not milliseconds
    MINUTE_NUM = 23,         // %M
    SECOND_NUM = 24,         // %S
    SUBSECOND_NUM = 25,      // %N %Q %f %q, and %l as milliseconds; width is the digit count
    WEEKDAY_ABBR = 26,       // %a
    WEEKDAY_FULL = 27,       // %A
    MONTH_ABBR = 28,         // %b %h
    MONTH_FULL = 29,         // %B
    AMPM = 30,               // %p %P
    TZ_NAME = 31,            // %Z
    WHITESPACE = 32,         // %n %t: one byte when rendered, any run of blanks when parsed
    LITERAL = 33,            // text, matched byte for byte
    PUNCT = 34,              // compiling only: separators of %T, %D and the like
    HOUR12_OR_MILLI = 35,    // compiling only: %l before it is decided
  };
  enum Padding : uint32_t { PAD_DEFAULT = 0, PAD_SPACE = 1, PAD_ZERO = 2, PAD_NONE = 3 };
  enum Case : uint32_t { CASE_AS_IS = 0, CASE_UPPER = 1, CASE_SWAP = 2 };
  enum Modifier : uint32_t { FMODIFY_NONE = 0, FMODIFY_E = 1, FMODIFY_O = 2 };

  // Resolutions, the one scale of the library: digits of a second when positive.
  static constexpr int32_t RES_SECOND = 0;
  static constexpr int32_t RES_MINUTE = -1;
  static constexpr int32_t RES_HOUR = -2;
  static constexpr int32_t RES_DAY = -3;
  static constexpr int32_t RES_WEEK = -4;
  static constexpr int32_t RES_MONTH = -5;
  static constexpr int32_t RES_YEAR = -6;
  static constexpr int32_t RES_NONE = -7;

  // A larger width is refused: nothing could render it usefully, and the sum of widths must not
  // overflow.
  static constexpr uint64_t MAX_FIELD_WIDTH = 4096;

  // An empty object: no atoms, not compiled.
  TimeFormat() = default;
  // Compiles text; a bad format is a programming error here, so it writes the format to
  // descriptor 2 and aborts. Use set() for formats that come from outside.
  explicit TimeFormat(StrSegment text);
  explicit TimeFormat(const char *text) : TimeFormat(StrSegment(text)) {}
  ~TimeFormat() { clear(); }

  TimeFormat(const TimeFormat &other);
  TimeFormat(TimeFormat &&other) noexcept;
  TimeFormat &operator=(const TimeFormat &other);
  TimeFormat &operator=(TimeFormat &&other) noexcept;

  // Compiles text for rendering and parsing: true, or false leaving the object empty.
  // set("%H:%M") gives HOUR24_NUM ":" MINUTE_NUM; set("%2b") is false (it would cut names).
  bool set(StrSegment text) {
    clear();
    return _setFtime(text.data(), text.size(), false);
  }
  // The same, but the year of %x may be written with two or four digits (YEAR_EITHER_NUM),
  // which suits reading only.
  bool setForParse(const char *text, size_t length) {
    clear();
    return _setFtime(text, length, true);
  }
  // Frees the atoms; the object is empty again.
  void clear();

  // The compiler proper; the object must be empty (fatal assertion otherwise).
  bool _setFtime(const char *ftime, size_t length, bool parse_mode);

  // The atoms, in format order. An empty format compiles to none.
  const TimeFormatAtom *begin() const { return _atoms; }
  const TimeFormatAtom *end() const { return _atoms_end; }
  size_t size() const { return static_cast<size_t>(_atoms_end - _atoms); }
  bool empty() const { return _atoms == _atoms_end; }
  bool compiled() const { return _atoms != nullptr; }

  // Reserve hint for rendering: the sum of all widths, with names and the epoch counted at a
  // typical length (%A %B %:::z 9, %s 10, %Z 3).
  uint64_t max_width() const { return _max_width; }
  // The finest and coarsest resolution any atom gives: "%Y-%m-%d %H:%M" is -1 and -6,
  // "%s.%6Q" 6 and 0. With no time atom at all, finest is RES_NONE and coarsest 1.
  int32_t finest() const { return _finest; }
  int32_t coarsest() const { return _coarsest; }

  // The same format in Java's SimpleDateFormat letters: "%Y-%m-%d %H:%M:%S.%Q" gives
  // "yyyy-MM-dd HH:mm:ss.SSS", "%d at %H" gives "dd' at 'HH". False, with out emptied, when some
  // atom has no such letter (%e pads with spaces, %P is lower case, %j has none).
  bool toJavaPattern(Str &out) const;

  // Whole-value formats: a time written as one number, in Unix seconds ("%s", "%UT") or with a
  // fraction, indexed 0..18. The index of a name, comparing the whole text, or -1.
  static int wholeFormatIndex(StrSegment name);
  // Appends the name of an index: 7 gives "%s.%3Q", 19 "Unknown Morvek Time Format: 19".
  static void appendWholeFormatName(Str &out, int index);
  static constexpr int WHOLE_FORMAT_COUNT = 19;

 private:
  void copyFrom(const TimeFormat &other);
  void stealFrom(TimeFormat &other);
  void rebaseLiterals(const char *old_text, size_t old_size);

  TimeFormatAtom *_atoms = nullptr;
  TimeFormatAtom *_atoms_end = nullptr;
  Str _literal;  // all literal text; LITERAL atoms point into it
  uint64_t _max_width = 0;
  int32_t _finest = RES_NONE;
  int32_t _coarsest = 1;
};

// The standard formats, compiled before main; a failure to compile one aborts at start-up.
enum StandardTimeFormat {
  TIMEFORMAT_ISO8601 = 0,         // "%FT%T%:z"          2024-03-10T03:00:00-04:00
  TIMEFORMAT_ISO8601_MILLIS = 1,  // "%FT%T.%Q%:z"       2024-03-10T03:00:00.250-04:00
  TIMEFORMAT_COOKIE = 2,          // "%A, %d-%b-%y %H:%M:%S GMT"  Sunday, 10-Mar-24 07:00:00 GMT
  TIMEFORMAT_HTTP = 3,            // "%a, %d %b %Y %H:%M:%S GMT"  Sun, 10 Mar 2024 07:00:00 GMT
  TIMEFORMAT_ASCTIME = 4,         // "%a %b %e %H:%M:%S %Y"       Sun Mar 10 03:00:00 2024
  TIMEFORMAT_ASCTIME_OFFSET = 5,  // "%a %b %e %H:%M:%S %Y %z"    Sun Mar 10 03:00:00 2024 -0400
  TIMEFORMAT_STANDARD_COUNT = 6,
};
const TimeFormat &standardTimeFormat(StandardTimeFormat which);

}  // namespace morvek
