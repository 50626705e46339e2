// morvek-tz: looks inside time zones as the library sees them, and builds .tzpack archives.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "basicutil/FileDescriptor.h"
#include "basicutil/Timezone.h"

using namespace morvek;

namespace {

const char *const USAGE =
    "usage: morvek-tz [--zoneinfo DIR] VERB ARGS...\n"
    "\n"
    "  --zoneinfo DIR\n"
    "      Look for zones in DIR, then in the archive DIR.tzpack, before the system's.\n"
    "  dump ZONE [FROM_YEAR [TO_YEAR]]\n"
    "      Every transition of ZONE whose UTC year lies in the range, one a line:\n"
    "      UTC time, local time, offset, abbreviation, isdst=0|1.\n"
    "  at ZONE TIME...\n"
    "      Offset, abbreviation and isdst at each TIME: epoch seconds (\"1710054000\") or ISO\n"
    "      8601 (\"2024-03-10T03:00:00Z\", \"2024-03-10 03:00:00-04:00\"). An ISO time with no\n"
    "      zone designator is local time in ZONE: twice-occurring times give two lines, times\n"
    "      skipped by a change are an error.\n"
    "  pack ZONEINFO_DIR OUT.tzpack\n"
    "      Packs every compiled zone file under the directory (links followed) into one\n"
    "      archive; the library reads it when OUT names the override directory plus .tzpack.\n"
    "  ls PACK\n"
    "      Lists the entries of an archive: name and size of the zone file.\n"
    "\n"
    "ZONE is whatever the library accepts: \"Europe/London\", \"/path/to/file\",\n"
    "\"EST5EDT,M3.2.0,M11.1.0\", \"localtime\". Errors print one line on standard error and\n"
    "exit with status 1; usage errors with 2.\n";

int fail(const char *format, ...) __attribute__((format(printf, 1, 2)));
int fail(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  fputs("morvek-tz: ", stderr);
  vfprintf(stderr, format, ap);
  fputc('\n', stderr);
  va_end(ap);
  return 1;
}

bool parseInteger(const char *s, int64_t &out) {
  if (*s == '\0') return false;
  char *end;
  errno = 0;
  long long v = strtoll(s, &end, 10);
  if (*end != '\0' || errno != 0) return false;
  out = v;
  return true;
}

void appendOffset(Str &out, int64_t off) {
  const int64_t a = off < 0 ? -off : off;
  out.appendf("%c%02" PRId64 ":%02" PRId64, off < 0 ? '-' : '+', a / 3600, a / 60 % 60);
  if (a % 60 != 0) out.appendf(":%02" PRId64, a % 60);
}

void appendCivil(Str &out, int64_t t, bool utc) {
  struct tm tm;
  if (!breakDownUtc(t, tm)) {
    out.appendf("@%" PRId64, t);
    return;
  }
  out.appendf("%04d-%02d-%02dT%02d:%02d:%02d%s", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
              tm.tm_hour, tm.tm_min, tm.tm_sec, utc ? "Z" : "");
}

// UTC time, local time, offset, abbreviation, isdst.
void printInstant(const TimezoneData &tz, int64_t t, const TimezoneType &type) {
  Str line;
  appendCivil(line, t, true);
  line += ' ';
  appendCivil(line, addSaturating(t, type.gmtoff), false);
  line += ' ';
  appendOffset(line, type.gmtoff);
  line.appendf(" %s isdst=%d\n", tz.abbreviation(type), type.isdst);
  fputs(line.c_str(), stdout);
}

const TimezoneData *zoneOrFail(const char *name) {
  const TimezoneData *tz = getTimezone(name, true);
  if (tz == nullptr) fail("unknown time zone \"%s\"", name);
  return tz;
}

int dumpVerb(int argc, char **argv) {
  const TimezoneData *tz = zoneOrFail(argv[0]);
  if (tz == nullptr) return 1;
  int64_t from = INT64_MIN, to = INT64_MAX, year;
  if (argc > 1) {
    if (!parseInteger(argv[1], year) || year < 1 || year > 2999)
      return fail("bad FROM_YEAR \"%s\"", argv[1]);
    from = dayStartTime(year, 0, 1);
  }
  if (argc > 2) {
    if (!parseInteger(argv[2], year) || year < 1 || year > 2999)
      return fail("bad TO_YEAR \"%s\"", argv[2]);
    to = dayStartTime(year + 1, 0, 1) - 1;
  }
  for (uint32_t i = 0; i < tz->timecnt; ++i) {
    if (tz->ats[i] >= from && tz->ats[i] <= to)
      printInstant(*tz, tz->ats[i], tz->transitionType(i));
  }
  return 0;
}

// "YYYY-MM-DD[(T| )HH:MM[:SS]][Z|(+|-)HH[:]MM]". has_zone says whether a designator was given;
// without one, value is local time.
bool parseIso(const char *s, int64_t &value, bool &has_zone, int64_t &offset) {
  int y, mo, d, h = 0, mi = 0, sec = 0, n = 0;
  if (sscanf(s, "%4d-%2d-%2d%n", &y, &mo, &d, &n) != 3 || n != 10) return false;
  s += n;
  if (*s == 'T' || *s == ' ') {
    int m = 0;
    if (sscanf(s + 1, "%2d:%2d%n", &h, &mi, &m) != 2 || m != 5) return false;
    s += 1 + m;
    if (*s == ':') {
      if (sscanf(s + 1, "%2d%n", &sec, &m) != 1 || m != 2) return false;
      s += 1 + m;
    }
  }
  if (mo < 1 || mo > 12 || d < 1 || d > days_in_month_leapyear[mo - 1] || h > 23 || mi > 59 ||
      sec > 60)
    return false;
  struct tm tm {};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  if (!tmDayIsValid(tm)) return false;
  value = dayStartTime(y, mo - 1, d) + h * 3600 + mi * 60 + sec;
  has_zone = *s != '\0';
  offset = 0;
  if (*s == 'Z' && s[1] == '\0') return true;
  if (*s == '+' || *s == '-') {
    int oh, om = 0, m = 0;
    const char *p = s + 1;
    if (sscanf(p, "%2d%n", &oh, &m) != 1 || m != 2) return false;
    p += 2;
    if (*p == ':') ++p;
    if (*p != '\0' && (sscanf(p, "%2d%n", &om, &m) != 1 || m != 2 || p[2] != '\0')) return false;
    offset = (*s == '-' ? -1 : 1) * (oh * 3600 + om * 60);
    return oh < 24 && om < 60;
  }
  return *s == '\0';
}

int atVerb(int argc, char **argv) {
  const TimezoneData *tz = zoneOrFail(argv[0]);
  if (tz == nullptr) return 1;
  for (int i = 1; i < argc; ++i) {
    int64_t t, offset;
    bool has_zone;
    if (parseInteger(argv[i], t)) {
      printInstant(*tz, t, tz->typeAt(t));
      continue;
    }
    if (!parseIso(argv[i], t, has_zone, offset)) return fail("bad time \"%s\"", argv[i]);
    if (has_zone) {
      t -= offset;
      printInstant(*tz, t, tz->typeAt(t));
      continue;
    }
    int rtype;
    const uint32_t k = tz->reverseSearch(t, rtype);
    if (rtype == TimezoneData::MIGHT_ALSO_BE_NEXT_INDEX)
      return fail("local time \"%s\" does not exist in %s", argv[i], argv[0]);
    for (uint32_t j = k; j <= k + (rtype == TimezoneData::REVERSE_AMBIGUOUS); ++j) {
      const TimezoneType &type = tz->transitionType(j);
      printInstant(*tz, t - type.gmtoff, type);
    }
  }
  return 0;
}

bool collectZones(const Str &dir, const Str &rel, std::vector<std::pair<Str, Str>> &out) {
  DIR *d = opendir((rel.empty() ? dir : Str(dir, Str("/", rel))).c_str());
  if (d == nullptr) return false;
  std::vector<Str> names;
  while (struct dirent *e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
  }
  closedir(d);
  for (const Str &n : names) {
    const Str child = rel.empty() ? n : Str(rel, Str("/", n));
    const Str path(dir, Str("/", child));
    struct stat st, lst;
    if (stat(path.c_str(), &st) != 0 || lstat(path.c_str(), &lst) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      // Links to directories would pack zones twice, or loop.
      if (!S_ISLNK(lst.st_mode)) collectZones(dir, child, out);
      continue;
    }
    FileDescriptor fd;
    Str bytes;
    if (!S_ISREG(st.st_mode) || !fd.openRead(path.c_str()) || !fd.readAll(bytes)) continue;
    if (bytes.size() >= 4 && memcmp(bytes.data(), "TZif", 4) == 0)
      out.emplace_back(child, std::move(bytes));
  }
  return true;
}

int packVerb(int, char **argv) {
  std::vector<std::pair<Str, Str>> zones;
  Str dir(argv[0]);
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  if (!collectZones(dir, Str(), zones))
    return fail("cannot read directory \"%s\": %s", argv[0], strerror(errno));
  if (zones.empty()) return fail("no compiled zone files under \"%s\"", argv[0]);
  Str pack;
  TzPack::build(std::move(zones), pack);
  FileDescriptor out;
  if (!out.open(argv[1], O_WRONLY | O_CREAT | O_TRUNC, 0644) ||
      out.write(pack.data(), pack.size()) != static_cast<ssize_t>(pack.size()) || !out.close())
    return fail("cannot write \"%s\": %s", argv[1], strerror(errno));
  return 0;
}

int lsVerb(int, char **argv) {
  FileDescriptor fd;
  MappedFile map;
  TzPack pack;
  if (!fd.openRead(argv[0])) return fail("cannot open \"%s\": %s", argv[0], strerror(errno));
  if (!map.mapFile(fd.fd()) || !pack.open(map.segment()))
    return fail("\"%s\" is not a zone archive", argv[0]);
  for (uint32_t i = 0; i < pack.count(); ++i) {
    StrSegment name, data;
    if (!pack.entry(i, name, data)) return fail("entry %u of \"%s\" is broken", i + 1, argv[0]);
    printf("%.*s\t%zu\n", static_cast<int>(name.size()), name.data(), data.size());
  }
  return 0;
}

struct Verb {
  const char *name;
  int min_args, max_args;  // after the verb
  int (*run)(int argc, char **argv);
};

// New verbs go here.
const Verb VERBS[] = {
    {"dump", 1, 3, dumpVerb},
    {"at", 2, 1 << 20, atVerb},
    {"pack", 2, 2, packVerb},
    {"ls", 1, 1, lsVerb},
};

}  // namespace

int main(int argc, char **argv) {
  if (argc >= 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    fputs(USAGE, stdout);
    return 0;
  }
  if (argc >= 3 && strcmp(argv[1], "--zoneinfo") == 0) {
    setZoneInfoDir(argv[2]);
    argv += 2;
    argc -= 2;
  }
  if (argc < 2) {
    fputs(USAGE, stderr);
    return 2;
  }
  for (const Verb &v : VERBS) {
    if (strcmp(argv[1], v.name) != 0) continue;
    const int n = argc - 2;
    if (n < v.min_args || n > v.max_args) {
      fprintf(stderr, "morvek-tz: wrong number of arguments for \"%s\" (see --help)\n", v.name);
      return 2;
    }
    return v.run(n, argv + 2);
  }
  fprintf(stderr, "morvek-tz: unknown verb \"%s\" (see --help)\n", argv[1]);
  return 2;
}
