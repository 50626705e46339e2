#include "tools/ts/TsCore.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "basicutil/DateTime.h"
#include "basicutil/FileDescriptor.h"
#include "basicutil/Logger.h"
#include "basicutil/UnicodeCodepoint.h"

namespace morvek::ts {

namespace {

// Writes value with at least width digits; faster than the printf engine on the per-line path.
void appendDigits(Str &out, uint64_t value, int width) {
  char buf[24];
  int n = 0;
  do {
    buf[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n < width) buf[n++] = '0';
  while (n > 0) out.push_back(buf[--n]);
}

bool parseInt32(StrSegment text, int32_t &out) {
  if (text.empty() || text.size() > 12) return false;
  char buf[16];
  memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  char *end;
  errno = 0;
  const long v = strtol(buf, &end, 10);
  if (*end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX) return false;
  out = static_cast<int32_t>(v);
  return true;
}

// Reads exactly n digits at text[pos]; advances pos.
bool fixedDigits(StrSegment text, size_t &pos, int n, int &out) {
  if (pos + n > text.size()) return false;
  out = 0;
  for (int i = 0; i < n; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return false;
    out = out * 10 + (c - '0');
  }
  pos += n;
  return true;
}

bool fileExists(const Str &path) { return !path.empty() && access(path.c_str(), R_OK) == 0; }

// One option: a flag sets `flag`; a text goes to `text` and sets `flag` when there is one; a
// number in [min, max] goes to `number`.
struct OptionDef {
  const char *name;
  Str TsOptions::*text;
  bool TsOptions::*flag;
  int32_t TsOptions::*number;
  int32_t min, max;
  const char *range;  // what a number out of range is told
};

constexpr int32_t ANY_MAX = INT32_MAX;

const OptionDef OPTIONS[] = {
    {"--tz", &TsOptions::tz, &TsOptions::has_tz, nullptr, 0, 0, nullptr},
    {"--tz-alias", &TsOptions::tz_alias, &TsOptions::has_tz_alias, nullptr, 0, 0, nullptr},
    {"--now", &TsOptions::now_text, &TsOptions::has_now, nullptr, 0, 0, nullptr},
    {"--source", &TsOptions::source, &TsOptions::has_source, nullptr, 0, 0, nullptr},
    {"--format", &TsOptions::format, nullptr, nullptr, 0, 0, nullptr},
    {"--prefix", &TsOptions::prefix, nullptr, nullptr, 0, 0, nullptr},
    {"--patterns", &TsOptions::patterns, nullptr, nullptr, 0, 0, nullptr},
    {"--lookahead", nullptr, nullptr, &TsOptions::lookahead, -1, ANY_MAX, "-1 or a count of bytes"},
    {"--max-days-ago", nullptr, nullptr, &TsOptions::max_days_ago, 0, ANY_MAX, "a count of days"},
    {"--max-days-hence", nullptr, nullptr, &TsOptions::max_days_hence, 0, ANY_MAX,
     "a count of days"},
    {"-j", nullptr, nullptr, &TsOptions::jobs, 1, 256, "1 to 256"},
    {"--jobs", nullptr, nullptr, &TsOptions::jobs, 1, 256, "1 to 256"},
    {"--epoch", nullptr, &TsOptions::epoch, nullptr, 0, 0, nullptr},
    {"--events", nullptr, &TsOptions::events, nullptr, 0, 0, nullptr},
    {"--summary", nullptr, &TsOptions::summary, nullptr, 0, 0, nullptr},
    {"--verbose", nullptr, &TsOptions::verbose, nullptr, 0, 0, nullptr},
    {"--help", nullptr, &TsOptions::help, nullptr, 0, 0, nullptr},
    {"-h", nullptr, &TsOptions::help, nullptr, 0, 0, nullptr},
};

}  // namespace

bool parseOptions(const std::vector<Str> &args, TsOptions &opts, std::vector<Str> &files,
                  Str &error) {
  bool options_done = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const Str &arg = args[i];
    if (options_done || arg.size() < 2 || arg[0] != '-') {
      files.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    const size_t eq = arg.startsWith("--") ? arg.find('=') : Str::npos;
    const Str name = eq == Str::npos ? arg : Str(arg.substr(0, eq));
    const OptionDef *def = nullptr;
    for (const OptionDef &d : OPTIONS) {
      if (name == d.name) def = &d;
    }
    if (def == nullptr) {
      error.printf("unknown option \"%s\" (see --help)", arg.c_str());
      return false;
    }
    const bool takes_value = def->text != nullptr || def->number != nullptr;
    Str value;
    if (!takes_value) {
      if (eq != Str::npos) {
        error.printf("option %s takes no value", name.c_str());
        return false;
      }
    } else if (eq != Str::npos) {
      value = arg.substr(eq + 1);
    } else if (i + 1 < args.size()) {
      value = args[++i];
    } else {
      error.printf("option %s needs a value", name.c_str());
      return false;
    }
    if (def->number != nullptr) {
      int32_t number = 0;
      if (!parseInt32(value, number)) {
        error.printf("bad %s \"%s\": want a number", name.c_str(), value.c_str());
        return false;
      }
      if (number < def->min || number > def->max) {
        error.printf("bad %s %d: want %s", name.c_str(), number, def->range);
        return false;
      }
      opts.*def->number = number;
    }
    if (def->text != nullptr) opts.*def->text = value;
    if (def->flag != nullptr) opts.*def->flag = true;
    if (def->text == &TsOptions::now_text && !parseNowText(value, opts.now)) {
      error.printf("bad --now \"%s\": want epoch seconds or ISO 8601", value.c_str());
      return false;
    }
  }
  return true;
}

bool splitWords(StrSegment line, std::vector<Str> &words) {
  size_t i = 0;
  const size_t n = line.size();
  while (true) {
    while (i < n && (line[i] == ' ' || line[i] == '\t')) ++i;
    if (i == n) return true;
    Str word;
    while (i < n && line[i] != ' ' && line[i] != '\t') {
      const char c = line[i++];
      if (c != '\'' && c != '"') {
        word.push_back(c);
        continue;
      }
      const size_t close = line.find(c, i);
      if (close == StrSegment::npos) return false;
      word.append(line.data() + i, close - i);
      i = close + 1;
    }
    words.push_back(std::move(word));
  }
}

bool parseNowText(StrSegment text, Timeval &out) {
  if (text.empty()) return false;
  if (text.find_first_not_of("-0123456789.") == StrSegment::npos)
    return out.mem_parse_into(text.data(), text.size());
  size_t p = 0;
  int y, mo, d, h = 0, mi = 0, s = 0;
  if (!fixedDigits(text, p, 4, y) || p >= text.size() || text[p++] != '-' ||
      !fixedDigits(text, p, 2, mo) || p >= text.size() || text[p++] != '-' ||
      !fixedDigits(text, p, 2, d))
    return false;
  int32_t usec = 0;
  if (p < text.size() && (text[p] == 'T' || text[p] == ' ')) {
    ++p;
    if (!fixedDigits(text, p, 2, h) || p >= text.size() || text[p++] != ':' ||
        !fixedDigits(text, p, 2, mi))
      return false;
    if (p < text.size() && text[p] == ':') {
      ++p;
      if (!fixedDigits(text, p, 2, s)) return false;
      if (p < text.size() && (text[p] == '.' || text[p] == ',')) {
        ++p;
        int digits = 0, scale = 100000;
        for (; p < text.size() && text[p] >= '0' && text[p] <= '9'; ++p, ++digits) {
          usec += (text[p] - '0') * scale;
          scale /= 10;
        }
        if (digits == 0) return false;
      }
    }
  }
  int64_t offset = 0;
  if (p < text.size() && text[p] == 'Z') {
    ++p;
  } else if (p < text.size() && (text[p] == '+' || text[p] == '-')) {
    const int sign = text[p++] == '-' ? -1 : 1;
    int oh, om = 0;
    if (!fixedDigits(text, p, 2, oh)) return false;
    if (p < text.size() && text[p] == ':') ++p;
    if (p < text.size() && !fixedDigits(text, p, 2, om)) return false;
    if (oh > 23 || om > 59) return false;
    offset = sign * (oh * 3600 + om * 60);
  }
  if (p != text.size() || mo < 1 || mo > 12 || h > 23 || mi > 59 || s > 59) return false;
  struct tm tm {};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  if (d < 1 || !tmDayIsValid(tm)) return false;
  out = Timeval(dayStartTime(y, mo - 1, d) + h * 3600 + mi * 60 + s - offset, usec);
  return true;
}

bool configureParser(DateParser &parser, const TsOptions &o, Str &error) {
  parser.setMode(1);
  if (o.has_tz && !parser.setDefaultZoneText(o.tz)) {
    error.printf("unknown time zone \"%s\" (--tz)", o.tz.c_str());
    return false;
  }
  if (o.has_tz_alias && !parser.setTzAlias(o.tz_alias)) {
    error.printf("bad --tz-alias \"%s\": want ZONE=ZONE pairs, comma-separated, known zones",
                 o.tz_alias.c_str());
    return false;
  }
  if (o.lookahead != TsOptions::UNSET) parser.setLookahead(o.lookahead);
  if (!o.format.empty() && !parser.setFormat(o.format)) {
    error.printf("bad --format \"%s\"", o.format.c_str());
    return false;
  }
  if (!o.prefix.empty() && !parser.setPrefix(o.prefix)) {
    error.printf("bad --prefix \"%s\": not a regular expression", o.prefix.c_str());
    return false;
  }
  if (o.max_days_ago != TsOptions::UNSET || o.max_days_hence != TsOptions::UNSET) {
    parser.setMaxDays(o.max_days_ago != TsOptions::UNSET ? o.max_days_ago : 1825,
                      o.max_days_hence != TsOptions::UNSET ? o.max_days_hence : 7);
  }
  if (o.has_source) parser.setSource(o.source);
  return true;
}

void appendColumn(Str &out, bool ok, bool used_previous, const Timeval &t,
                  const ParseDetails &details, bool epoch) {
  if (!ok) {
    out.push_back('-');
    return;
  }
  if (used_previous) out.push_back('~');
  const int digits = details.precision > 0 ? details.precision : 0;
  if (epoch) {
    t.renderDecimal(out, digits);
    return;
  }
  const int64_t offset = details.offset == NOT_FIXED ? 0 : details.offset;
  struct tm tm;
  if (!breakDownUtc(t.seconds() + offset, tm)) {
    t.renderDecimal(out, digits);
    return;
  }
  appendDigits(out, tm.tm_year + 1900, 4);
  out.push_back('-');
  appendDigits(out, tm.tm_mon + 1, 2);
  out.push_back('-');
  appendDigits(out, tm.tm_mday, 2);
  out.push_back('T');
  appendDigits(out, tm.tm_hour, 2);
  out.push_back(':');
  appendDigits(out, tm.tm_min, 2);
  out.push_back(':');
  appendDigits(out, tm.tm_sec, 2);
  if (digits > 0) {
    out.push_back('.');
    uint64_t frac = t.microseconds();
    for (int i = digits; i < 6; ++i) frac /= 10;
    appendDigits(out, frac, std::min(digits, 6));
    for (int i = 6; i < digits; ++i) out.push_back('0');
  }
  const int64_t a = offset < 0 ? -offset : offset;
  out.push_back(offset < 0 ? '-' : '+');
  appendDigits(out, a / 3600, 2);
  out.push_back(':');
  appendDigits(out, a / 60 % 60, 2);
  if (a % 60 != 0) {
    out.push_back(':');
    appendDigits(out, a % 60, 2);
  }
}

Str shippedPatternsPath() {
  static const char RELATIVE[] = "/../share/morvek/timestamp-patterns.conf";
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n > 0) {
    Str dir(StrSegment(exe, n));
    dir.resize(dir.rfind('/'));
    Str path(dir, RELATIVE);
    if (fileExists(path)) return path;
  }
#ifdef MORVEK_TS_INSTALLED_PATTERNS
  if (fileExists(MORVEK_TS_INSTALLED_PATTERNS)) return Str(MORVEK_TS_INSTALLED_PATTERNS);
#endif
#ifdef MORVEK_TS_SOURCE_PATTERNS
  if (fileExists(MORVEK_TS_SOURCE_PATTERNS)) return Str(MORVEK_TS_SOURCE_PATTERNS);
#endif
  return Str();
}

bool loadPatterns(DateTimeRegexes &set, const TsOptions &opts, Str &error) {
  const Str path = opts.patterns.empty() ? shippedPatternsPath() : opts.patterns;
  if (path.empty()) {
    error =
        "no timestamp-patterns.conf found (looked in ../share/morvek beside the program, "
        "the install prefix and the source tree); give one with --patterns";
    return false;
  }
  return set.loadFile(path.c_str(), error);
}

namespace {

// Length of the well-formed UTF-8 sequence at p, or 0.
size_t sequenceLength(const unsigned char *p, size_t left) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  const size_t n = c < 0xC2 ? 0 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : c < 0xF5 ? 4 : 0;
  if (n == 0 || left < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
  }
  if ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] > 0x9F) || (c == 0xF0 && p[1] < 0x90) ||
      (c == 0xF4 && p[1] > 0x8F))
    return 0;
  return n;
}

}  // namespace

bool replaceInvalidUtf8(StrSegment text, Str &out) {
  const unsigned char *p = reinterpret_cast<const unsigned char *>(text.data());
  const size_t len = text.size();
  size_t i = mem_ascii_prefix_length(text.data(), len);
  bool copied = false;
  while (i < len) {
    const size_t n = sequenceLength(p + i, len - i);
    if (n != 0) {
      i += n;
      continue;
    }
    if (!copied) {
      out.assign(text.data(), len);
      copied = true;
    }
    out[i++] = '?';
  }
  return copied;
}

void quietParserLogs() {
  // Channels made before initialisation would not see the levels set here.
  Logger::initialize();
  Logger::setLevel("DateParser", "FATAL");
  Logger::setLevel("DateParserVerbose", "FATAL");
}

void TsStats::add(const TsStats &o) {
  lines += o.lines;
  found += o.found;
  previous += o.previous;
  none += o.none;
  continuation += o.continuation;
  for (const auto &[re, n] : o.time_hits) time_hits[re] += n;
  for (const auto &[re, n] : o.date_hits) date_hits[re] += n;
}

void TsStats::render(Str &out, const char *line_prefix, bool with_continuation) const {
  out.appendf("%slines %llu found %llu previous %llu none %llu\n", line_prefix,
              static_cast<unsigned long long>(lines), static_cast<unsigned long long>(found),
              static_cast<unsigned long long>(previous), static_cast<unsigned long long>(none));
  if (with_continuation)
    out.appendf("%scontinuation %llu\n", line_prefix,
                static_cast<unsigned long long>(continuation));
  for (const auto *hits : {&time_hits, &date_hits}) {
    std::map<Str, uint64_t> by_label;
    for (const auto &[re, n] : *hits) by_label[re->label.empty() ? re->pattern : re->label] += n;
    for (const auto &[label, n] : by_label)
      out.appendf("%s%s %s %llu\n", line_prefix, hits == &time_hits ? "time" : "date",
                  label.c_str(), static_cast<unsigned long long>(n));
  }
}

void LineTimer::column(StrSegment line, Str &out) {
  Timeval t;
  ParseDetails details{};
  int32_t date_begin, date_end, time_begin, time_end;
  const StrSegment text = replaceInvalidUtf8(line, _valid) ? StrSegment(_valid) : line;
  const bool ok = _parser.parse(t, text, eventTime(_opts), &date_begin, &date_end, &time_begin,
                                &time_end, &details);
  const bool previous = ok && _parser.usedPrevious();
  ++_stats.lines;
  if (!ok) {
    ++_stats.none;
  } else if (previous) {
    ++_stats.previous;
  } else {
    ++_stats.found;
    // The last patterns outlive the lines they matched: the offsets say what this line used.
    const DateTimeRegex *re = _parser.lastTimeRegex();
    if (re != nullptr && time_begin >= 0) ++_stats.time_hits[re];
    re = _parser.lastDateRegex();
    if (re != nullptr && date_begin >= 0) ++_stats.date_hits[re];
  }
  appendColumn(out, ok, previous, t, details, _opts.epoch);
}

bool loadCorpusFile(const char *path, CorpusFile &out, Str &error) {
  FileDescriptor fd;
  Str bytes;
  if (!fd.openRead(path) || !fd.readAll(bytes)) {
    error.printf("%s: %s", path, strerror(errno));
    return false;
  }
  out.path = path;
  std::vector<StrSegment> lines;
  bytes.splitLines(lines);
  bool have_options = false;
  for (size_t i = 0; i < lines.size(); ++i) {
    const StrSegment line = lines[i];
    const uint32_t lineno = static_cast<uint32_t>(i + 1);
    if (line.startsWith("#!") && !have_options) {
      std::vector<Str> words, files;
      have_options = true;
      Str why;
      if (!splitWords(line.substr(2), words)) {
        why = "unterminated quote";
      } else if (parseOptions(words, out.opts, files, why) && !files.empty()) {
        why.printf("stray word \"%s\" in the options", files[0].c_str());
      }
      if (!why.empty()) {
        error.printf("%s:%u: %s", path, lineno, why.c_str());
        return false;
      }
      continue;
    }
    if (line.empty() || line[0] == '#') continue;
    const size_t tab = line.find('\t');
    if (tab == StrSegment::npos) {
      error.printf("%s:%u: no tab between the expected column and the line", path, lineno);
      return false;
    }
    out.lines.push_back({lineno, Str(line.substr(0, tab)), Str(line.substr(tab + 1))});
  }
  return true;
}

std::vector<Str> corpusFilesIn(const char *dir) {
  std::vector<Str> out;
  DIR *d = opendir(dir);
  if (d == nullptr) return out;
  while (struct dirent *e = readdir(d)) {
    const StrSegment name(e->d_name);
    if (name.endsWith(".txt")) out.emplace_back(Str(dir, Str("/", name)));
  }
  closedir(d);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace morvek::ts
