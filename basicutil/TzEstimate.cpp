#include "basicutil/TzEstimate.h"

#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <vector>

#include "basicutil/Timeval.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// How far the walk may go from the time: one leap year's length per two transitions.
constexpr int64_t WINDOW_PER_PAIR = 31622400;
constexpr int MAX_STEP = 16;

// The rules that one kind of type (standard or dst) still agrees on, and the type that proposed
// them. A rule is what follows a comma in a TZ value, comma included: ",M3.2.0".
struct Slot {
  const TimezoneType *type = nullptr;
  std::vector<Str> transitions;
};

// The rules that name the wall-clock moment of transition e: the time is read on the clock in
// force before it. False when that moment can't be broken down.
bool candidateRules(const TimezoneData &tz, uint32_t e, std::vector<Str> &out) {
  const int64_t wall = addSaturating(tz.ats[e], tz.transitionType(e - 1).gmtoff);
  struct tm tm;
  if (!breakDownUtc(wall, tm)) return false;
  Str at;
  if (tm.tm_hour != 2 || tm.tm_min != 0 || tm.tm_sec != 0) {
    at.appendf("/%d", tm.tm_hour);
    if (tm.tm_min != 0 || tm.tm_sec != 0) at.appendf(":%d", tm.tm_min);
    if (tm.tm_sec != 0) at.appendf(":%d", tm.tm_sec);
  }
  const bool leap = is_leap_year(tm.tm_year + 1900LL);
  out.clear();
  out.push_back(Str(Str::FORMAT, ",M%d.%d.%d%s", tm.tm_mon + 1, (tm.tm_mday + 6) / 7, tm.tm_wday,
                    at.c_str()));
  out.push_back(
      Str(Str::FORMAT, ",J%d%s", tm.tm_yday + 1 - (leap && tm.tm_mon >= 2 ? 1 : 0), at.c_str()));
  // One larger than the zero-based day POSIX reads: what this has always written.
  if (tm.tm_yday <= 364 && tm.tm_mon >= 2)
    out.push_back(Str(Str::FORMAT, ",%d%s", tm.tm_yday + 1, at.c_str()));
  return true;
}

// Keeps what the slot's rules and the new ones share; a slot down to one rule is settled, and
// one whose rules share nothing with the new ones falls back to its first.
void merge(Slot &slot, const std::vector<Str> &candidates) {
  if (slot.transitions.size() == 1) return;
  if (slot.transitions.empty()) {
    slot.transitions = candidates;
    return;
  }
  Str first = slot.transitions.front();
  auto gone = std::remove_if(slot.transitions.begin(), slot.transitions.end(), [&](const Str &r) {
    return std::find(candidates.begin(), candidates.end(), r) == candidates.end();
  });
  slot.transitions.erase(gone, slot.transitions.end());
  if (slot.transitions.empty()) slot.transitions.push_back(std::move(first));
}

uint64_t distance(int64_t a, int64_t b) {
  return a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
               : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

// West-positive, as TZ writes offsets: -18000 is "5", 19800 is "-5:30", 3723 is "-1:2:3".
void appendWestOffset(Str &out, int64_t gmtoff) {
  const uint64_t a = gmtoff < 0 ? 0 - static_cast<uint64_t>(gmtoff) : static_cast<uint64_t>(gmtoff);
  if (gmtoff > 0) out += '-';
  out.appendf("%" PRIu64, a / 3600);
  if (a % 3600 != 0) {
    out.appendf(":%" PRIu64, a / 60 % 60);
    if (a % 60 != 0) out.appendf(":%" PRIu64, a % 60);
  }
}

// The search of the transitions around the time, nearest first, alternating sides.
class RuleSearch {
 public:
  RuleSearch(const TimezoneData &tz, int64_t time)
      : _tz(tz), _time(time), _origin(tz.transitionIndexAt(time)) {}

  void run() {
    int64_t e = _origin;
    const bool origin_nearer =
        _origin + 1 < _tz.timecnt &&
        distance(_time, _tz.ats[_origin]) < distance(_tz.ats[_origin + 1], _time);
    int step = origin_nearer ? 1 : -1;
    if (visit(e)) return;
    while (std::abs(step) <= MAX_STEP && (_backward || _forward)) {
      e += step;
      if (visit(e)) return;
      step = step < 0 ? 1 - step : ~step;
    }
  }

  Slot _std, _dst;
  const TimezoneData &_tz;
  const int64_t _time;
  const uint32_t _origin;

 private:
  // True when both slots are settled.
  bool visit(int64_t e) {
    if (e < 1 || e >= _tz.timecnt) return false;
    if (e < _origin) {
      if (!_backward) return false;
      const int64_t reach = (_origin + 1 - e) / 2 * WINDOW_PER_PAIR;
      if (_tz.ats[e] < subtractSaturating(_time, reach)) {
        _backward = false;
        return false;
      }
    } else if (e > _origin) {
      if (!_forward) return false;
      const int64_t reach = (e + 1 - _origin) / 2 * WINDOW_PER_PAIR;
      if (_tz.ats[e] > addSaturating(_time, reach)) {
        _forward = false;
        return false;
      }
    }
    const TimezoneType &type = _tz.transitionType(static_cast<uint32_t>(e));
    Slot &slot = type.isdst ? _dst : _std;
    if (slot.type != nullptr && slot.type != &type) {
      // The rules changed there: nothing further on that side belongs to the present ones.
      if (e < _origin) {
        _backward = false;
      } else {
        const int64_t elem = e;
        const uint32_t orig_elem = _origin;
        MV_ASSERT(((unsigned)elem) > orig_elem);
        _forward = false;
      }
      return false;
    }
    if (!candidateRules(_tz, static_cast<uint32_t>(e), _candidates)) return false;
    slot.type = &type;
    merge(slot, _candidates);
    return _std.transitions.size() == 1 && _dst.transitions.size() == 1;
  }

  bool _backward = true, _forward = true;
  std::vector<Str> _candidates;
};

bool hasForbiddenByte(StrSegment name) {
  for (char c : name.view()) {
    if (c == '.' || c == '\\' || c == '$' || c == ':' || c == ';' || c == ' ') return true;
  }
  return false;
}

bool isSystemZoneFile(StrSegment name) {
  struct stat st;
  return stat(Str("/usr/share/zoneinfo/", name).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

void appendAbbreviation(const TimezoneData &tz, const TimezoneType &type, Str &out,
                        bool utc_for_nonalpha) {
  const char *name = tz.abbreviation(type);
  if (utc_for_nonalpha) {
    for (const char *p = name; *p != '\0'; ++p) {
      if (!BYTESET_LETTERS.contains(*p)) {
        out += "UTC";
        return;
      }
    }
  }
  out += name;
}

Str estimatedTzVariable(const TimezoneData &tz, int64_t time, bool utc_for_nonalpha) {
  RuleSearch search(tz, time);
  search.run();
  Str out;
  const Slot &std_slot = search._std, &dst_slot = search._dst;
  if (std_slot.type == nullptr || dst_slot.type == nullptr) {
    const TimezoneType &type = tz.transitionType(search._origin);
    appendAbbreviation(tz, type, out, utc_for_nonalpha);
    appendWestOffset(out, type.gmtoff);
    return out;
  }
  MV_ASSERT(!dst_slot.transitions.empty());
  MV_ASSERT(!std_slot.transitions.empty());
  appendAbbreviation(tz, *std_slot.type, out, utc_for_nonalpha);
  appendWestOffset(out, std_slot.type->gmtoff);
  appendAbbreviation(tz, *dst_slot.type, out, utc_for_nonalpha);
  if (dst_slot.type->gmtoff != addSaturating(std_slot.type->gmtoff, 3600))
    appendWestOffset(out, dst_slot.type->gmtoff);
  out += dst_slot.transitions.front();
  out += std_slot.transitions.front();
  return out;
}

bool portableTzName(const Timezone &timezone, Str &out, bool utc_for_nonalpha) {
  const TimezoneData *tz = timezone.data();
  if (tz == nullptr) return false;
  const int64_t now = Timeval::now().seconds();
  if (getTimezone()->equivalentAt(*tz, now)) return false;
  const Str &name = timezone.name();
  if (!name.empty()) {
    const char *alias = timezoneAliasTarget(name);
    const StrSegment candidate = alias != nullptr ? StrSegment(alias) : name.segment();
    if (!hasForbiddenByte(candidate) && isSystemZoneFile(candidate)) {
      out = Str(candidate);
      return true;
    }
  }
  out = estimatedTzVariable(*tz, now, utc_for_nonalpha);
  return true;
}

void tzSettingText(const Timezone &timezone, Str &out) {
  if (timezone.data() != nullptr && !timezone->name.empty()) {
    out = timezone->name;
    return;
  }
  if (!portableTzName(timezone, out, true)) out = "default";
}

}  // namespace morvek
