#include "basicutil/Timezone.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "basicutil/FileDescriptor.h"
#include "basicutil/Thread.h"
#include "basicutil/TimezoneNames.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

constexpr size_t FAILED_NAMES_LIMIT = 2049;
const char *const SYSTEM_ZONEINFO = "/usr/share/zoneinfo";
const char *const ETC_LOCALTIME = "/etc/localtime";

// Process-wide and never destroyed: zones handed out must outlive every static destructor.
struct ZoneGlobals {
  PthreadMutex lock;
  std::map<Str, const TimezoneData *> by_name;
  std::set<Str> failed;
  Str override_dir;
  Str system_dir = SYSTEM_ZONEINFO;
};

ZoneGlobals &globals() {
  static ZoneGlobals *g = new ZoneGlobals;
  return *g;
}

std::atomic<const TimezoneData *> local_zone{nullptr};
std::atomic<const Str *> local_serialized{nullptr};

TimezoneData *makeGmt() {
  auto *tz = new TimezoneData;
  tz->chars.assign("GMT", 4);
  tz->fixed_offset = 0;
  return tz;
}

// "zoneinfo//Europe/Paris/" -> "Europe/Paris": the part after "zoneinfo" and one more byte,
// with runs of slashes folded and the ends trimmed.
Str nameFromLinkTarget(const Str &target) {
  const size_t at = target.find(StrSegment("zoneinfo"));
  if (at == Str::npos || at + 9 > target.size()) return Str();
  Str out;
  for (size_t i = at + 9; i < target.size(); ++i) {
    if (target[i] == '/' && (out.empty() || out.back() == '/')) continue;
    out.push_back(target[i]);
  }
  while (!out.empty() && out.back() == '/') out.pop_back();
  return out;
}

bool isInstantInIndex(const TimezoneData &tz, uint32_t i, int64_t u) {
  if (i > 0 && u < tz.ats[i]) return false;
  return i + 1 >= tz.timecnt || u < tz.ats[i + 1];
}

bool sameType(const TimezoneData &a, const TimezoneType &x, const TimezoneData &b,
              const TimezoneType &y) {
  return x.gmtoff == y.gmtoff && x.isdst == y.isdst &&
         strcmp(a.abbreviation(x), b.abbreviation(y)) == 0;
}

const TimezoneData *lookupLocked(StrSegment name, bool allow_aliases);

}  // namespace

// ---- The table

TimezoneData::TimezoneData() { clear(); }

void TimezoneData::clear() {
  timecnt = typecnt = 0;
  goback = goahead = 1;
  memset(ats, 0, sizeof ats);
  memset(types, 0, sizeof types);
  memset(ttis, 0, sizeof ttis);
  chars.clear();
  name.clear();
  fixed_offset = NOT_FIXED;
}

uint32_t TimezoneData::transitionIndexAt(int64_t t) const {
  // Branch-free halving: random instants would mispredict half of a branching search's steps.
  const int64_t *base = ats;
  for (uint32_t n = timecnt; n > 1;) {
    const uint32_t half = n / 2;
    base = base[half] <= t ? base + half : base;
    n -= half;
  }
  return static_cast<uint32_t>(base - ats);
}

int64_t TimezoneData::transitionTimeAt(int64_t t) const {
  if (timecnt == 0 || t < ats[0]) return INT64_MIN;
  return ats[transitionIndexAt(t)];
}

const TimezoneType &TimezoneData::typeAt(int64_t t) const {
  return transitionType(transitionIndexAt(t));
}

const char *TimezoneData::abbreviation(const TimezoneType &type) const {
  return type.abbrind < chars.size() ? chars.c_str() + type.abbrind : "";
}

bool TimezoneData::isAtTransition(int64_t t) const {
  return timecnt != 0 && std::binary_search(ats, ats + timecnt, t);
}

int64_t TimezoneData::recentOffset(bool isdst) const {
  if (timecnt == 0) return 0;
  for (uint32_t i = timecnt; i-- > 0;) {
    if (ttis[types[i]].isdst == isdst) return ttis[types[i]].gmtoff;
  }
  return ttis[types[timecnt - 1]].gmtoff;
}

int64_t TimezoneData::fixedOffsetBetween(int64_t t1, int64_t t2) const {
  if (fixed_offset != NOT_FIXED) return fixed_offset;
  const uint32_t i = transitionIndexAt(t1);
  const int64_t offset = transitionType(i).gmtoff;
  for (uint32_t j = i + 1; j < timecnt && ats[j] <= t2; ++j) {
    if (ttis[types[j]].gmtoff != offset) return NOT_FIXED;
  }
  return offset;
}

bool TimezoneData::equivalentAt(const TimezoneData &other, int64_t t) const {
  const int64_t lo = subtractSaturating(t, EQUIVALENCE_WINDOW);
  const int64_t hi = addSaturating(t, EQUIVALENCE_WINDOW);
  const int64_t mine = fixedOffsetBetween(lo, hi);
  if (mine != other.fixedOffsetBetween(lo, hi)) return false;
  if (mine != NOT_FIXED) return strcmp(abbreviationAt(t), other.abbreviationAt(t)) == 0;
  if (!sameType(*this, typeAt(lo), other, other.typeAt(lo))) return false;
  uint32_t i = static_cast<uint32_t>(std::upper_bound(ats, ats + timecnt, lo) - ats);
  uint32_t j =
      static_cast<uint32_t>(std::upper_bound(other.ats, other.ats + other.timecnt, lo) - other.ats);
  for (;; ++i, ++j) {
    const bool mine_done = i >= timecnt, other_done = j >= other.timecnt;
    if (mine_done || other_done) return mine_done && other_done;
    if (ats[i] != other.ats[j] ||
        !sameType(*this, transitionType(i), other, other.transitionType(j)))
      return false;
    if (ats[i] > hi) return true;
  }
}

uint32_t TimezoneData::reverseSearch(int64_t local, int &rtype) const {
  rtype = REVERSE_EXACT;
  if (timecnt == 0) return 0;
  const uint32_t i = transitionIndexAt(local);
  int64_t u;
  if (__builtin_sub_overflow(local, transitionType(i).gmtoff, &u))
    return local < 0x10000001 ? 0 : timecnt - 1;
  uint32_t k = i;
  if (i > 0 && u < ats[i]) {
    k = i - 1;
  } else if (i + 1 < timecnt && u >= ats[i + 1]) {
    k = i + 1;
  }
  if (k != i) {
    u = subtractSaturating(local, transitionType(k).gmtoff);
    if (!isInstantInIndex(*this, k, u)) {
      // Neither offset maps the local time into its own interval: a gap.
      rtype = MIGHT_ALSO_BE_NEXT_INDEX;
      return transitionType(k).gmtoff > transitionType(i).gmtoff ? std::max(i, k) : std::min(i, k);
    }
  }
  if (k > 0 && subtractSaturating(local, transitionType(k - 1).gmtoff) < ats[k]) {
    rtype = REVERSE_AMBIGUOUS;
    return k - 1;
  }
  if (k + 1 < timecnt && subtractSaturating(local, transitionType(k + 1).gmtoff) >= ats[k + 1]) {
    rtype = REVERSE_AMBIGUOUS;
    return k;
  }
  return k;
}

const TimezoneType *TimezoneData::offsetFromReverseSearch(int64_t local, int isdst) const {
  int rtype;
  const uint32_t k = reverseSearch(local, rtype);
  if (rtype == REVERSE_EXACT) return &transitionType(k);
  if (rtype == REVERSE_AMBIGUOUS) {
    const TimezoneType &first = transitionType(k), &next = transitionType(k + 1);
    if (isdst < 0 || first.isdst == next.isdst) return nullptr;
    const bool take_next = isdst > 0 ? next.isdst != 0 : next.isdst == 0;
    return take_next ? &next : &first;
  }
  MV_ASSERT(rtype == MIGHT_ALSO_BE_NEXT_INDEX);
  return nullptr;
}

bool TimezoneData::breakDown(int64_t t, struct tm &tm) const {
  const TimezoneType &type = typeAt(t);
  struct tm out;
  if (!breakDownUtc(addSaturating(t, type.gmtoff), out)) return false;
  out.tm_isdst = type.isdst;
  out.tm_gmtoff = type.gmtoff;
  out.tm_zone = abbreviation(type);
  tm = out;
  return true;
}

int64_t TimezoneData::toUnixTime(struct tm &tm) const {
  const int64_t local = timegmOf(tm);
  const TimezoneType *type = offsetFromReverseSearch(local, tm.tm_isdst);
  if (type == nullptr) return -1;
  struct tm normal;
  if (breakDownUtc(local, normal)) {
    normal.tm_isdst = tm.tm_isdst;
    tm = normal;
  }
  tm.tm_isdst = type->isdst;
  tm.tm_gmtoff = type->gmtoff;
  tm.tm_zone = abbreviation(*type);
  return subtractSaturating(local, type->gmtoff);
}

int64_t TimezoneData::toUnixTimeOrTransition(struct tm &tm) const {
  const int64_t local = timegmOf(tm);
  const int64_t t = toUnixTime(tm);
  if (t != -1 || offsetFromReverseSearch(local, tm.tm_isdst) != nullptr) return t;
  return transitionTimeAt(addSaturating(local, SECONDS_PER_DAY));
}

// ---- Loading by name

void sanitizeZoneName(StrSegment name, Str &out) {
  out.clear();
  std::vector<StrSegment> parts;
  name.splitSkippingEmpty(parts, '/');
  for (const StrSegment &part : parts) {
    if (!out.empty()) out.push_back('/');
    for (size_t i = 0; i < part.size(); ++i) {
      const char c = part[i];
      const bool kept_inside = c == ' ' || c == '+' || c == '-' || c == '.' || c == ':';
      out.push_back(BYTESET_ALPHANUMERICS.contains(c) || (kept_inside && i > 0) ? c : '_');
    }
  }
}

bool TimezoneData::loadPath(const char *path, StrSegment leaf, bool rules_allowed) {
  FileDescriptor fd;
  if (!fd.openRead(path) || !fd.isRegularFile()) return false;
  MappedFile map;
  if (!map.mapFile(fd.fd()) || !parseZoneFile(map.segment(), rules_allowed)) return false;
  if (!leaf.equals("localtime")) {
    name = Str(leaf);
    return true;
  }
  struct stat st;
  char target[4096];
  ssize_t n;
  if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode) &&
      (n = readlink(path, target, sizeof target)) > 0) {
    name = nameFromLinkTarget(Str(target, static_cast<size_t>(n)));
  }
  return true;
}

bool TimezoneData::loadFile(StrSegment zone, bool rules_allowed) {
  if (zone.startsWith("/")) {
    const size_t slash = zone.rfind('/');
    return loadPath(Str(zone).c_str(), zone.substr(slash + 1), rules_allowed);
  }
  Str rel;
  sanitizeZoneName(zone, rel);
  if (rel.empty()) return false;
  if (rel == "localtime" && loadPath(ETC_LOCALTIME, rel, rules_allowed)) return true;
  const ZoneGlobals &g = globals();
  if (!g.override_dir.empty()) {
    Str dir = g.override_dir;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    if (loadPath(Str(dir, Str("/", rel)).c_str(), rel, rules_allowed)) return true;
    FileDescriptor fd;
    MappedFile map;
    TzPack pack;
    StrSegment data;
    if (fd.openRead(Str(dir, ".tzpack").c_str()) && map.mapFile(fd.fd()) &&
        pack.open(map.segment()) && pack.find(rel, data) && parseZoneFile(data, rules_allowed)) {
      if (rel != "localtime") name = rel;
      return true;
    }
  }
  return loadPath(Str(g.system_dir, Str("/", rel)).c_str(), rel, rules_allowed);
}

bool TimezoneData::loadByName(StrSegment zone) {
  clear();
  // A path is a file or nothing.
  if (zone.startsWith(":")) return loadFile(zone.substr(1), true);
  if (zone.startsWith("/")) return loadFile(zone, true);
  if (zone.empty()) {
    *this = *gmtTimezone();
    return true;
  }
  if (loadFile(zone, true)) return true;
  if (const char *alias = timezoneAliasTarget(zone); alias != nullptr && loadFile(alias, true))
    return true;
  return parsePosixString(zone);
}

const char *timezoneAliasTarget(StrSegment name) { return aliasForZoneName(name); }

namespace {

const TimezoneData *lookupLocked(StrSegment name, bool allow_aliases) {
  ZoneGlobals &g = globals();
  const Str key(name);
  if (auto hit = g.by_name.find(key); hit != g.by_name.end()) return hit->second;
  if (g.failed.count(key) != 0) return nullptr;
  if (allow_aliases) {
    if (const char *alias = timezoneAliasTarget(name); alias != nullptr) {
      if (const TimezoneData *tz = lookupLocked(alias, false); tz != nullptr) {
        g.by_name.emplace(key, tz);
        return tz;
      }
    }
  }
  std::unique_ptr<TimezoneData> tz(new TimezoneData);
  if (!tz->loadByName(name)) {
    if (g.failed.size() >= FAILED_NAMES_LIMIT) g.failed.clear();
    g.failed.insert(key);
    return nullptr;
  }
  return g.by_name.emplace(key, tz.release()).first->second;
}

}  // namespace

const TimezoneData *getTimezone(StrSegment name, bool allow_aliases) {
  ScopedMutexLock lock(globals().lock);
  return lookupLocked(name, allow_aliases);
}

const TimezoneData *getTimezone(const char *name, bool allow_aliases) {
  MV_ASSERT(name != nullptr);
  return getTimezone(StrSegment(name), allow_aliases);
}

const TimezoneData *gmtTimezone() {
  static const TimezoneData *gmt = makeGmt();
  return gmt;
}

namespace {

const TimezoneData *resolveLocalZone() {
  static PthreadMutex *resolve_lock = new PthreadMutex;
  ScopedMutexLock outer(*resolve_lock);
  if (const TimezoneData *tz = local_zone.load(std::memory_order_acquire)) return tz;
  const char *env = getenv("TZ");
  const Str name = env != nullptr && *env != '\0' ? env : "localtime";
  const TimezoneData *tz;
  {
    ScopedMutexLock inner(globals().lock);
    tz = lookupLocked(name, true);
    if (tz == nullptr) tz = lookupLocked("GMT", true);
    if (tz == nullptr) tz = lookupLocked("", true);
  }
  local_zone.exchange(tz, std::memory_order_acq_rel);
  return tz;
}

}  // namespace

const TimezoneData *getTimezone() {
  if (const TimezoneData *tz = local_zone.load(std::memory_order_acquire)) return tz;
  // Before the first thread, a resolve that comes back here (through a logger rendering the
  // time, say) would deadlock on its own mutex: it gets a plain GMT zone instead. Re-entry can
  // only come from the same thread, so the flag is the thread's own: threads not made by this
  // library (which leave the first-thread mark unset) don't see each other's resolves.
  static thread_local bool resolving = false;
  const bool guarded = !Thread::have_already_started_threads;
  if (guarded) {
    if (resolving) {
      static const TimezoneData *fallback = makeGmt();
      return fallback;
    }
    resolving = true;
  }
  const TimezoneData *tz = resolveLocalZone();
  if (guarded) resolving = false;
  return tz;
}

void setZoneInfoDir(StrSegment path) {
  {
    ScopedMutexLock lock(globals().lock);
    globals().override_dir = Str(path);
  }
  tzset();
  local_zone.exchange(nullptr);
  local_serialized.exchange(nullptr);
}

void clearZoneInfoDir() { setZoneInfoDir(StrSegment()); }

Str zoneInfoDir() {
  ScopedMutexLock lock(globals().lock);
  return globals().override_dir;
}

void setSystemZoneInfoDir(StrSegment path) {
  ScopedMutexLock lock(globals().lock);
  globals().system_dir = path.empty() ? Str(SYSTEM_ZONEINFO) : Str(path);
}

PthreadMutex &timezoneLock() { return globals().lock; }

std::atomic<const Str *> &serializedLocalTimezoneSlot() { return local_serialized; }

// ---- The handle

SerializedTimezoneReader::~SerializedTimezoneReader() = default;

bool Timezone::set(StrSegment zone) {
  _tz = getTimezone(zone, true);
  if (_tz == nullptr) {
    _name.clear();
    return false;
  }
  _name = Str(zone);
  return true;
}

}  // namespace morvek
