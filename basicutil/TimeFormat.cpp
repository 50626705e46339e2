#include "basicutil/TimeFormat.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

using TF = TimeFormat;

// Separators of the composite conversions and the two whitespace conversions. Index 0 is the
// two bytes ", ", every other index one byte.
constexpr char punct[] = ", :/-\t\n";
enum : uint64_t {
  PUNCT_COMMA_SPACE = 0,
  PUNCT_SPACE = 1,
  PUNCT_COLON = 2,
  PUNCT_SLASH = 3,
  PUNCT_DASH = 4,
  PUNCT_TAB = 5,
  PUNCT_NEWLINE = 6,
};

bool isFlagByte(char c) {
  switch (c) {
    case '^':
    case '#':
    case '_':
    case '-':
    case 'E':
    case 'O':
    case ':':
      return true;
    default:
      return c >= '0' && c <= '9';
  }
}

// Atoms a conversion expands to, as an upper bound for the array.
size_t atomsOfConversion(char c) {
  switch (c) {
    case '+':
      return 15;
    case 'c':
      return 13;
    case 'r':
    case 'x':
      return 7;
    case 'D':
    case 'F':
    case 'T':
    case 'X':
    case 'v':
      return 5;
    case 'R':
      return 3;
    default:
      return 1;
  }
}

// The sizing pass: an upper bound on the atom count, or false for a format that ends inside a
// conversion.
bool countAtoms(const char *p, const char *end, size_t &n) {
  n = 0;
  bool in_text = false;
  while (p < end) {
    if (*p != '%') {
      if (!in_text) ++n;
      in_text = true;
      ++p;
      continue;
    }
    ++p;
    while (p < end && isFlagByte(*p)) ++p;
    if (p == end) return false;
    in_text = false;
    n += atomsOfConversion(*p++);
  }
  return true;
}

// What one "%..." said before its conversion character.
struct Spec {
  uint32_t padding = TF::PAD_DEFAULT;
  uint32_t case_mod = TF::CASE_AS_IS;
  uint32_t mod = TF::FMODIFY_NONE;
  uint64_t width = 0;
  bool has_width = false;
  int colons = 0;
  bool anyFlag() const {
    return padding != TF::PAD_DEFAULT || case_mod != TF::CASE_AS_IS || mod != TF::FMODIFY_NONE ||
           has_width || colons != 0;
  }
};

class Compiler {
 public:
  Compiler(TimeFormatAtom *atoms, size_t capacity, Str &literal, bool parse_mode)
      : _a(atoms), _cap_end(atoms + capacity), _literal(literal), _parse_mode(parse_mode) {}

  bool run(const char *ftime, const char *ftime_end);
  TimeFormatAtom *end() const { return _a; }

 private:
  TimeFormatAtom &push(uint32_t what) {
    MV_ASSERT(_a < _cap_end);
    _in_text = false;
    TimeFormatAtom &na = *_a++;
    na = TimeFormatAtom{};
    na.what = what;
    return na;
  }
  void num(uint32_t what, uint64_t width, uint32_t padding) {
    TimeFormatAtom &na = push(what);
    na.x.conv.padding = padding;
    na.width = width;
    MV_ASSERT(na.x.conv.mod == TF::FMODIFY_NONE);
  }
  void text(uint32_t what, uint64_t width, uint32_t case_mod = TF::CASE_AS_IS) {
    TimeFormatAtom &na = push(what);
    na.x.conv.padding = TF::PAD_SPACE;
    na.x.conv.case_mod = case_mod;
    na.width = width;
  }
  void sep(uint64_t index) { push(TF::PUNCT).x.tmp = index; }
  void appendText(const char *p, size_t n) {
    if (!_in_text) {
      TimeFormatAtom &na = push(TF::LITERAL);
      na.x.tmp = _literal.size();
      _in_text = true;
    }
    _literal.append(p, n);
    _a[-1].width += n;
  }

  // One conversion as the user wrote it, with its defaults applied.
  TimeFormatAtom &user(uint32_t what, const Spec &s, uint64_t width, uint32_t padding) {
    TimeFormatAtom &na = push(what);
    na.x.conv.padding = s.padding != TF::PAD_DEFAULT ? s.padding : padding;
    na.x.conv.case_mod = s.case_mod;
    na.x.conv.mod = s.mod;
    na.width = s.has_width ? s.width : width;
    return na;
  }
  // The numbers where "#" means no padding.
  void hashNum(uint32_t what, const Spec &s, uint64_t width) {
    uint32_t pad =
        (s.case_mod == TF::CASE_SWAP && s.padding == TF::PAD_DEFAULT) ? TF::PAD_NONE : TF::PAD_ZERO;
    user(what, s, width, pad);
  }
  bool name(uint32_t what, const Spec &s, uint64_t width) {
    if (s.padding == TF::PAD_ZERO) return false;
    user(what, s, width, TF::PAD_SPACE);
    return true;
  }

  bool conversion(char c, const Spec &s);
  bool composite(char c, const Spec &s);
  void longDate(bool with_time);

  TimeFormatAtom *_a, *_cap_end;
  Str &_literal;
  bool _parse_mode;
  bool _in_text = false;
};

bool Compiler::run(const char *ftime, const char *ftime_end) {
  while (ftime < ftime_end) {
    if (*ftime != '%') {
      const char *run = ftime;
      while (ftime < ftime_end && *ftime != '%') ++ftime;
      appendText(run, static_cast<size_t>(ftime - run));
      continue;
    }
    ++ftime;
    Spec s;
    char c;
    for (;;) {
      MV_ASSERT(ftime < ftime_end);  // the sizing pass refused a dangling "%"
      c = *ftime++;
      if (c == '^' || c == '#') {
        if (s.has_width || s.mod != TF::FMODIFY_NONE || s.case_mod != TF::CASE_AS_IS) return false;
        s.case_mod = c == '^' ? TF::CASE_UPPER : TF::CASE_SWAP;
      } else if (c == '_' || c == '-') {
        if (s.has_width || s.mod != TF::FMODIFY_NONE || s.padding != TF::PAD_DEFAULT) return false;
        s.padding = c == '_' ? TF::PAD_SPACE : TF::PAD_NONE;
      } else if (c == '0' && !s.has_width) {
        if (s.mod != TF::FMODIFY_NONE || s.padding != TF::PAD_DEFAULT) return false;
        s.padding = TF::PAD_ZERO;
      } else if (c >= '0' && c <= '9') {
        if (s.mod != TF::FMODIFY_NONE) return false;
        s.width = s.width * 10 + static_cast<uint64_t>(c - '0');
        s.has_width = true;
        if (s.width > TF::MAX_FIELD_WIDTH) return false;
      } else if (c == 'E' || c == 'O') {
        if (s.mod != TF::FMODIFY_NONE) return false;
        s.mod = c == 'E' ? TF::FMODIFY_E : TF::FMODIFY_O;
      } else if (c == ':') {
        // Colons belong to z alone and stand right before it.
        do {
          ++s.colons;
          MV_ASSERT(ftime < ftime_end);
          c = *ftime++;
        } while (c == ':');
        if (c != 'z' || s.colons > 3) return false;
        break;
      } else {
        break;
      }
    }
    if (c == '%') {
      if (s.anyFlag()) return false;
      appendText("%", 1);
      continue;
    }
    if (!conversion(c, s)) return false;
  }
  MV_ASSERT(ftime == ftime_end);
  return true;
}

bool Compiler::conversion(char c, const Spec &s) {
  switch (c) {
    case 'Y':
    case 'o':
      user(TF::YEAR_NUM, s, 4, TF::PAD_ZERO);
      return true;
    case 'C':
      user(TF::CENTURY_NUM, s, 2, TF::PAD_ZERO);
      return true;
    case 'y':
      hashNum(TF::YEAR2_NUM, s, 2);
      return true;
    case 'G':
      user(TF::ISOYEAR_NUM, s, 4, TF::PAD_ZERO);
      return true;
    case 'g':
      user(TF::ISOYEAR2_NUM, s, 2, TF::PAD_ZERO);
      return true;
    case 'm':
      hashNum(TF::MONTH_NUM, s, 2);
      return true;
    case 'U':
      hashNum(TF::WEEK_SUN_NUM, s, 2);
      return true;
    case 'W':
      hashNum(TF::WEEK_MON_NUM, s, 2);
      return true;
    case 'V':
      user(TF::WEEK_ISO_NUM, s, 2, TF::PAD_ZERO);
      return true;
    case 'd':
      hashNum(TF::MONTHDAY_NUM, s, 2);
      return true;
    case 'e':
      user(TF::MONTHDAY_NUM, s, 2, TF::PAD_SPACE);
      return true;
    case 'j':
      hashNum(TF::YEARDAY_NUM, s, 3);
      return true;
    case 'w':
      user(TF::WEEKDAY0_NUM, s, 1, TF::PAD_DEFAULT);
      return true;
    case 'u':
      user(TF::WEEKDAY1_NUM, s, 1, TF::PAD_DEFAULT);
      return true;
    case 'H':
      hashNum(TF::HOUR24_NUM, s, 2);
      return true;
    case 'k':
      user(TF::HOUR24_NUM, s, 2, TF::PAD_SPACE);
      return true;
    case 'I':
      hashNum(TF::HOUR12_NUM, s, 2);
      return true;
    case 'M':
      hashNum(TF::MINUTE_NUM, s, 2);
      return true;
    case 'S':
      hashNum(TF::SECOND_NUM, s, 2);
      return true;
    case 's':
      user(TF::EPOCH_NUM, s, 0, TF::PAD_ZERO);
      return true;
    // Decided once the whole format is known: milliseconds or the 12-hour clock.
    case 'l':
      user(TF::HOUR12_OR_MILLI, s, 0, TF::PAD_DEFAULT);
      return true;
    case 'N':
    case 'Q':
    case 'f':
    case 'q': {
      if (s.padding != TF::PAD_DEFAULT && s.padding != TF::PAD_ZERO) return false;
      uint64_t digits = c == 'N' ? 9 : c == 'Q' ? 3 : 6;
      user(TF::SUBSECOND_NUM, s, digits, TF::PAD_ZERO).x.conv.padding = TF::PAD_ZERO;
      return true;
    }
    case 'a':
      return !(s.has_width && s.width == 1) && name(TF::WEEKDAY_ABBR, s, 3);
    case 'A':
      return name(TF::WEEKDAY_FULL, s, 0);
    case 'b':
    case 'h':
      return !(s.has_width && s.width <= 2) && name(TF::MONTH_ABBR, s, 3);
    case 'B':
      return name(TF::MONTH_FULL, s, 0);
    case 'Z':
      return name(TF::TZ_NAME, s, 0);
    case 'p':
    case 'P': {
      if (!name(TF::AMPM, s, 2)) return false;
      // %p is upper case unless "#" asks otherwise; %P keeps what it was given.
      if (c == 'p')
        _a[-1].x.conv.case_mod = s.case_mod == TF::CASE_SWAP ? TF::CASE_AS_IS : TF::CASE_UPPER;
      return true;
    }
    case 'z': {
      static const uint32_t by_colons[4] = {TF::TZ_AS_HHMMOFFSET, TF::TZ_AS_COLONOFFSET,
                                            TF::TZ_AS_SECOFFSET, TF::TZ_AS_NEEDEDOFFSET};
      static const uint64_t widths[4] = {5, 6, 9, 0};
      if (s.colons == 0 && s.mod == TF::FMODIFY_E) {
        TimeFormatAtom &na = user(TF::TZ_AS_MINOFFSET, s, 4, TF::PAD_NONE);
        na.x.conv.mod = TF::FMODIFY_NONE;
        return true;
      }
      user(by_colons[s.colons], s, widths[s.colons], TF::PAD_ZERO);
      return true;
    }
    case 'n':
    case 't': {
      if (s.has_width || s.padding != TF::PAD_DEFAULT || s.mod != TF::FMODIFY_NONE) return false;
      push(TF::WHITESPACE).x.tmp = c == 't' ? PUNCT_TAB : PUNCT_NEWLINE;
      return true;
    }
    default:
      return composite(c, s);
  }
}

// %#c, and with with_time false the date half that %#x writes before its year.
void Compiler::longDate(bool with_time) {
  text(TF::WEEKDAY_FULL, 0);
  sep(PUNCT_COMMA_SPACE);
  text(TF::MONTH_FULL, 0);
  sep(PUNCT_SPACE);
  num(TF::MONTHDAY_NUM, 2, TF::PAD_NONE);
  sep(PUNCT_COMMA_SPACE);
  if (!with_time) return;
  num(TF::YEAR_NUM, 4, TF::PAD_NONE);
  sep(PUNCT_COMMA_SPACE);
  num(TF::HOUR24_NUM, 2, TF::PAD_NONE);
  sep(PUNCT_COLON);
  num(TF::MINUTE_NUM, 2, TF::PAD_ZERO);
  sep(PUNCT_COLON);
  num(TF::SECOND_NUM, 2, TF::PAD_ZERO);
}

bool Compiler::composite(char c, const Spec &s) {
  if (c != 'D' && c != 'x' && c != 'F' && c != 'T' && c != 'X' && c != 'R' && c != 'r' &&
      c != 'v' && c != 'c' && c != '+') {
    return false;
  }
  if (s.has_width || s.padding != TF::PAD_DEFAULT || s.mod == TF::FMODIFY_O) return false;
  if (s.mod == TF::FMODIFY_E && c != 'c' && c != 'x' && c != 'X') return false;
  const bool alt = s.case_mod == TF::CASE_SWAP;
  // "^" is honoured on the names; "#" chooses the long forms of %c and %x.
  const uint32_t name_case = s.case_mod == TF::CASE_UPPER ? TF::CASE_UPPER : TF::CASE_AS_IS;
  auto hms = [this](bool seconds) {
    num(TF::HOUR24_NUM, 2, TF::PAD_ZERO);
    sep(PUNCT_COLON);
    num(TF::MINUTE_NUM, 2, TF::PAD_ZERO);
    if (!seconds) return;
    sep(PUNCT_COLON);
    num(TF::SECOND_NUM, 2, TF::PAD_ZERO);
  };
  switch (c) {
    case 'x':
      if (alt) {
        longDate(false);
        if (_parse_mode) {
          num(TF::YEAR_EITHER_NUM, 2, TF::PAD_NONE);
        } else {
          num(TF::YEAR_NUM, 4, TF::PAD_NONE);
        }
        return true;
      }
      [[fallthrough]];
    case 'D':
      num(TF::MONTH_NUM, 2, TF::PAD_ZERO);
      sep(PUNCT_SLASH);
      num(TF::MONTHDAY_NUM, 2, TF::PAD_ZERO);
      sep(PUNCT_SLASH);
      num(c == 'x' && _parse_mode ? TF::YEAR_EITHER_NUM : TF::YEAR2_NUM, 2, TF::PAD_ZERO);
      return true;
    case 'F':
      num(TF::YEAR_NUM, 4, TF::PAD_ZERO);
      sep(PUNCT_DASH);
      num(TF::MONTH_NUM, 2, TF::PAD_ZERO);
      sep(PUNCT_DASH);
      num(TF::MONTHDAY_NUM, 2, TF::PAD_ZERO);
      return true;
    case 'T':
    case 'X':
      MV_ASSERT(c == 'T' || c == 'X');
      hms(true);
      return true;
    case 'R':
      hms(false);
      return true;
    case 'r':
      num(TF::HOUR12_NUM, 2, TF::PAD_ZERO);
      sep(PUNCT_COLON);
      num(TF::MINUTE_NUM, 2, TF::PAD_ZERO);
      sep(PUNCT_COLON);
      num(TF::SECOND_NUM, 2, TF::PAD_ZERO);
      sep(PUNCT_SPACE);
      text(TF::AMPM, 2, TF::CASE_UPPER);
      return true;
    case 'v':
      num(TF::MONTHDAY_NUM, 2, TF::PAD_SPACE);
      sep(PUNCT_DASH);
      text(TF::MONTH_ABBR, 3, name_case);
      sep(PUNCT_DASH);
      num(TF::YEAR_NUM, 4, TF::PAD_SPACE);
      return true;
    default:  // 'c', '+'
      if (alt && c == 'c') {
        longDate(true);
        return true;
      }
      text(TF::WEEKDAY_ABBR, 3, name_case);
      sep(PUNCT_SPACE);
      text(TF::MONTH_ABBR, 3, name_case);
      sep(PUNCT_SPACE);
      num(TF::MONTHDAY_NUM, 2, TF::PAD_SPACE);
      sep(PUNCT_SPACE);
      hms(true);
      sep(PUNCT_SPACE);
      if (c == '+') {
        text(TF::TZ_NAME, 0, name_case);
        sep(PUNCT_SPACE);
      }
      num(TF::YEAR_NUM, 2, TF::PAD_ZERO);
      return true;
  }
}

bool modifierAllowed(const TimeFormatAtom &a) {
  switch (a.x.conv.mod) {
    case TF::FMODIFY_NONE:
      return true;
    case TF::FMODIFY_E:
      return a.what == TF::YEAR_NUM || a.what == TF::CENTURY_NUM || a.what == TF::YEAR2_NUM;
    default:
      switch (a.what) {
        case TF::YEAR2_NUM:
        case TF::MONTH_NUM:
        case TF::WEEK_SUN_NUM:
        case TF::WEEK_MON_NUM:
        case TF::WEEK_ISO_NUM:
        case TF::MONTHDAY_NUM:
        case TF::WEEKDAY0_NUM:
        case TF::WEEKDAY1_NUM:
        case TF::HOUR24_NUM:
        case TF::HOUR12_NUM:
        case TF::MINUTE_NUM:
        case TF::SECOND_NUM:
        case TF::MONTH_FULL:
          return true;
        default:
          return false;
      }
  }
}

bool isHourField(uint32_t what) {
  return what == TF::HOUR24_NUM || what == TF::HOUR12_NUM || what == TF::HOUR12_OR_MILLI;
}

bool unadorned(const TimeFormatAtom &a) {
  return a.x.conv.padding == TF::PAD_DEFAULT && a.x.conv.case_mod == TF::CASE_AS_IS &&
         a.x.conv.mod == TF::FMODIFY_NONE && a.width == 0;
}

bool isSecondsSource(const TimeFormatAtom &a) {
  return a.what == TF::EPOCH_NUM || a.what == TF::SECOND_NUM;
}

bool isOneCharDecimalPoint(const TimeFormatAtom &a) {
  return a.what == TF::LITERAL && a.width == 1 && (a.x.text[0] == '.' || a.x.text[0] == ',');
}

// The seconds atom an unadorned %l at i follows, directly or across a "." or ",", or null.
const TimeFormatAtom *millisecondsAfter(const TimeFormatAtom *atoms, const TimeFormatAtom *a) {
  if (a > atoms && isSecondsSource(a[-1])) return &a[-1];
  if (a - atoms >= 2 && isOneCharDecimalPoint(a[-1]) && isSecondsSource(a[-2])) return &a[-2];
  return nullptr;
}

// Counted widths of the atoms whose length varies.
uint64_t countedWidth(const TimeFormatAtom &a) {
  uint64_t least = 0;
  switch (a.what) {
    case TF::TZ_AS_NEEDEDOFFSET:
    case TF::WEEKDAY_FULL:
    case TF::MONTH_FULL:
      least = 9;
      break;
    case TF::EPOCH_NUM:
      least = 10;
      break;
    case TF::TZ_NAME:
      least = 3;
      break;
    default:
      break;
  }
  return a.width > least ? a.width : least;
}

// The resolution an atom gives, or 1 for one that gives none.
int32_t resolutionOf(const TimeFormatAtom &a) {
  switch (a.what) {
    case TF::EPOCH_NUM:
    case TF::SECOND_NUM:
      return TF::RES_SECOND;
    case TF::YEAR_NUM:
    case TF::CENTURY_NUM:
    case TF::YEAR2_NUM:
    case TF::ISOYEAR_NUM:
    case TF::ISOYEAR2_NUM:
    case TF::YEAR_EITHER_NUM:
      return TF::RES_YEAR;
    case TF::MONTH_NUM:
    case TF::MONTH_ABBR:
    case TF::MONTH_FULL:
      return TF::RES_MONTH;
    case TF::WEEK_SUN_NUM:
    case TF::WEEK_MON_NUM:
    case TF::WEEK_ISO_NUM:
    case TF::MONTHWEEK_NUM:
      return TF::RES_WEEK;
    case TF::MONTHDAY_NUM:
    case TF::YEARDAY_NUM:
    case TF::WEEKDAY0_NUM:
    case TF::WEEKDAY1_NUM:
    case TF::WEEKDAY_ABBR:
    case TF::WEEKDAY_FULL:
      return TF::RES_DAY;
    case TF::HOUR24_NUM:
    case TF::HOUR12_NUM:
      return TF::RES_HOUR;
    case TF::MINUTE_NUM:
      return TF::RES_MINUTE;
    case TF::SUBSECOND_NUM:
      return static_cast<int32_t>(a.width);
    default:
      return 1;
  }
}

bool isResolutionAtom(const TimeFormatAtom &a) {
  return (a.what >= TF::EPOCH_NUM && a.what <= TF::SUBSECOND_NUM) || a.what == TF::WEEKDAY_ABBR ||
         a.what == TF::WEEKDAY_FULL || a.what == TF::MONTH_ABBR || a.what == TF::MONTH_FULL;
}

}  // namespace

bool TimeFormat::_setFtime(const char *ftime, size_t length, bool parse_mode) {
  MV_ASSERT(_atoms == nullptr);
  const char *ftime_end = ftime + length;
  size_t n;
  if (!countAtoms(ftime, ftime_end, n)) return false;

  // One spare slot, so that an empty format still owns an array and counts as compiled.
  std::unique_ptr<TimeFormatAtom[]> atoms(new TimeFormatAtom[n + 1]);
  _literal.clear();
  Compiler compiler(atoms.get(), n, _literal, parse_mode);
  if (!compiler.run(ftime, ftime_end)) {
    _literal.clear();
    return false;
  }
  TimeFormatAtom *const first = atoms.get();
  TimeFormatAtom *const last = compiler.end();
  MV_ASSERT(last <= &first[n]);

  // Resolve: modifiers, then text offsets into pointers. The literal text no longer moves.
  for (TimeFormatAtom *a = first; a < last; ++a) {
    switch (a->what) {
      case PUNCT:
        MV_ASSERT(a->x.tmp < sizeof(punct));
        a->what = LITERAL;
        a->width = a->x.tmp == PUNCT_COMMA_SPACE ? 2 : 1;
        a->x.text = punct + a->x.tmp;
        break;
      case WHITESPACE:
        MV_ASSERT(a->x.tmp < sizeof(punct));
        a->width = 1;
        a->x.text = punct + a->x.tmp;
        break;
      case LITERAL:
        MV_ASSERT(a->x.tmp + a->width <= _literal.size());
        a->x.text = _literal.data() + a->x.tmp;
        break;
      default:
        if (!modifierAllowed(*a)) {
          _literal.clear();
          return false;
        }
        break;
    }
  }

  // %l right after the seconds is milliseconds, unless it can only be the hour of "%M:%S.%l".
  bool has_minute = false;
  int hour_fields = 0;
  for (const TimeFormatAtom *a = first; a < last; ++a) {
    has_minute |= a->what == MINUTE_NUM;
    hour_fields += isHourField(a->what);
  }
  for (TimeFormatAtom *a = first; a < last; ++a) {
    if (a->what != HOUR12_OR_MILLI || !unadorned(*a)) continue;
    const TimeFormatAtom *secs = millisecondsAfter(first, a);
    if (secs == nullptr) continue;
    if (secs->what == SECOND_NUM && has_minute && hour_fields == 1) continue;
    a->what = SUBSECOND_NUM;
    a->x.conv.padding = PAD_ZERO;
    a->width = 3;
  }

  // Widths and resolutions.
  uint64_t max_width = 0;
  int32_t finest = RES_NONE, coarsest = 1;
  for (TimeFormatAtom *a = first; a < last; ++a) {
    if (a->what == HOUR12_OR_MILLI) {
      a->what = HOUR12_NUM;
      if (a->x.conv.padding == PAD_DEFAULT) a->x.conv.padding = PAD_SPACE;
      if (a->width == 0) a->width = 2;
    }
    uint64_t ewidth = a->what == LITERAL || a->what == WHITESPACE ? a->width : countedWidth(*a);
    MV_ASSERT(ewidth != 0);
    max_width += ewidth;
    if (!isResolutionAtom(*a)) continue;
    int32_t res = resolutionOf(*a);
    if (res > finest) finest = res;
    if (res < coarsest) coarsest = res;
  }

  _atoms = atoms.release();
  _atoms_end = last;
  _max_width = max_width;
  _finest = finest;
  _coarsest = coarsest;
  return true;
}

void TimeFormat::clear() {
  delete[] _atoms;
  _atoms = _atoms_end = nullptr;
  _literal.clear();
  _max_width = 0;
  _finest = RES_NONE;
  _coarsest = 1;
}

TimeFormat::TimeFormat(StrSegment text) {
  if (_setFtime(text.data(), text.size(), false)) return;
  static const char msg[] = "TimeFormat: cannot compile the format \"";
  ssize_t ignored = write(2, msg, sizeof(msg) - 1);
  ignored = write(2, text.data(), text.size());
  ignored = write(2, "\"\n", 2);
  (void)ignored;
  abort();
}

// Literals that point into another object's text are moved onto this one's; the shared
// punctuation stays where it is.
void TimeFormat::rebaseLiterals(const char *old_text, size_t old_size) {
  const uintptr_t lo = reinterpret_cast<uintptr_t>(old_text);
  for (TimeFormatAtom *a = _atoms; a < _atoms_end; ++a) {
    if (a->what != LITERAL) continue;
    const uintptr_t at = reinterpret_cast<uintptr_t>(a->x.text);
    if (at >= lo && at < lo + old_size) a->x.text = _literal.data() + (at - lo);
  }
}

void TimeFormat::copyFrom(const TimeFormat &other) {
  if (!other.compiled()) return;
  const size_t n = other.size();
  _atoms = new TimeFormatAtom[n + 1];
  _atoms_end = _atoms + n;
  std::copy(other._atoms, other._atoms_end, _atoms);
  _literal = other._literal;
  _max_width = other._max_width;
  _finest = other._finest;
  _coarsest = other._coarsest;
  rebaseLiterals(other._literal.data(), other._literal.size());
}

void TimeFormat::stealFrom(TimeFormat &other) {
  const char *old_text = other._literal.data();
  const size_t old_size = other._literal.size();
  _atoms = other._atoms;
  _atoms_end = other._atoms_end;
  _literal = std::move(other._literal);
  _max_width = other._max_width;
  _finest = other._finest;
  _coarsest = other._coarsest;
  other._atoms = other._atoms_end = nullptr;
  other.clear();
  // A short string moves its bytes, not its buffer.
  if (_literal.data() != old_text) rebaseLiterals(old_text, old_size);
}

TimeFormat::TimeFormat(const TimeFormat &other) { copyFrom(other); }
TimeFormat::TimeFormat(TimeFormat &&other) noexcept { stealFrom(other); }

TimeFormat &TimeFormat::operator=(const TimeFormat &other) {
  if (this != &other) {
    clear();
    copyFrom(other);
  }
  return *this;
}

TimeFormat &TimeFormat::operator=(TimeFormat &&other) noexcept {
  if (this != &other) {
    clear();
    stealFrom(other);
  }
  return *this;
}

namespace {

void appendJavaLetter(Str &out, char letter, const TimeFormatAtom &a, bool &ok) {
  switch (a.x.conv.padding) {
    case TF::PAD_ZERO:
    case TF::PAD_NONE:
      out += letter;
      out += letter;
      return;
    case TF::PAD_DEFAULT:
      out += letter;
      return;
    default:
      ok = false;
  }
}

void appendJavaLiteral(Str &out, StrSegment text) {
  bool quote = text.find_first_of(BYTESET_LETTERS) != StrSegment::npos;
  if (quote) out += '\'';
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  if (quote) out += '\'';
}

}  // namespace

bool TimeFormat::toJavaPattern(Str &out) const {
  out.clear();
  bool ok = true;
  for (const TimeFormatAtom *a = begin(); ok && a < end(); ++a) {
    switch (a->what) {
      case TZ_AS_COLONOFFSET:
        out += "ZZ";
        break;
      case TZ_AS_HHMMOFFSET:
        out += 'Z';
        break;
      case YEAR_NUM:
      case YEAR2_NUM:
      case YEAR_EITHER_NUM:
        out += a->width == 1 ? "y" : a->width == 2 ? "yy" : "yyyy";
        break;
      case MONTH_NUM:
        appendJavaLetter(out, 'M', *a, ok);
        break;
      case MONTHDAY_NUM:
        appendJavaLetter(out, 'd', *a, ok);
        break;
      case HOUR24_NUM:
        appendJavaLetter(out, 'H', *a, ok);
        break;
      case HOUR12_NUM:
        appendJavaLetter(out, 'h', *a, ok);
        break;
      case MINUTE_NUM:
        appendJavaLetter(out, 'm', *a, ok);
        break;
      case SECOND_NUM:
        appendJavaLetter(out, 's', *a, ok);
        break;
      case SUBSECOND_NUM:
        out.append(a->width, 'S');
        break;
      case WEEKDAY_ABBR:
      case WEEKDAY_FULL:
        out += 'E';
        break;
      case MONTH_ABBR:
      case MONTH_FULL:
        out += "MMM";
        break;
      case AMPM:
        if (a->x.conv.case_mod == CASE_UPPER) {
          out += 'a';
        } else {
          ok = false;
        }
        break;
      case TZ_NAME:
        out += "zzz";
        break;
      case LITERAL:
        appendJavaLiteral(out, a->literal());
        break;
      default:
        ok = false;
        break;
    }
  }
  if (!ok) out.clear();
  return ok;
}

namespace {

const char *const whole_formats[TimeFormat::WHOLE_FORMAT_COUNT] = {
    "%UT",    "%UT.%Q", "%UT.%3Q", "%UT.%6Q", "%UT.%9Q", "%s",     "%s.%Q",
    "%s.%3Q", "%s.%6Q", "%s.%9Q",  "%UT%Q",   "%UT%3Q",  "%UT%6Q", "%UT%9Q",
    "%s%Q",   "%s%3Q",  "%s%6Q",   "%s%9Q",   "%ST",
};

}  // namespace

int TimeFormat::wholeFormatIndex(StrSegment name) {
  for (int i = 0; i < WHOLE_FORMAT_COUNT; ++i) {
    if (name.equals(whole_formats[i])) return i;
  }
  return -1;
}

void TimeFormat::appendWholeFormatName(Str &out, int index) {
  if (index < 0 || index >= WHOLE_FORMAT_COUNT) {
    out.appendf("Unknown Morvek Time Format: %d", index);
  } else if (index == 2) {
    out += "UT.%3Q";  // written so, without its "%", since the first release
  } else {
    out += whole_formats[index];
  }
}

namespace {

const char *const standard_texts[TIMEFORMAT_STANDARD_COUNT] = {
    "%FT%T%:z",
    "%FT%T.%Q%:z",
    "%A, %d-%b-%y %H:%M:%S GMT",
    "%a, %d %b %Y %H:%M:%S GMT",
    "%a %b %e %H:%M:%S %Y",
    "%a %b %e %H:%M:%S %Y %z",
};

const TimeFormat *standardFormats() {
  // Built on first use, and forced before main below, so that a broken one stops the process at
  // start and a static initialiser elsewhere can still use them.
  static const TimeFormat formats[TIMEFORMAT_STANDARD_COUNT] = {
      TimeFormat(standard_texts[0]), TimeFormat(standard_texts[1]), TimeFormat(standard_texts[2]),
      TimeFormat(standard_texts[3]), TimeFormat(standard_texts[4]), TimeFormat(standard_texts[5]),
  };
  return formats;
}

[[maybe_unused]] const TimeFormat *const standard_formats_at_start = standardFormats();

}  // namespace

const TimeFormat &standardTimeFormat(StandardTimeFormat which) {
  MV_ASSERT(static_cast<unsigned>(which) < TIMEFORMAT_STANDARD_COUNT);
  return standardFormats()[which];
}

}  // namespace morvek
