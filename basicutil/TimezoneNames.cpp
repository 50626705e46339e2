#include "basicutil/TimezoneNames.h"

#include <cstring>

namespace morvek {

namespace {

struct ZoneAbbreviationRow {
  char name[8];  // NUL-padded
  int64_t offset;
};

struct WindowsZoneNameRow {
  uint32_t hash;  // the low 31 bits only
  const char *name;
  int64_t offset;
};

struct ZoneAliasRow {
  const char *key;
  const char *zone;
};

#include "basicutil/TimezoneNames.inc"

template <typename Row, size_t N, typename Compare>
const Row *binarySearch(const Row (&rows)[N], Compare compare) {
  size_t lo = 0, hi = N;
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    int c = compare(rows[mid]);
    if (c == 0) return &rows[mid];
    if (c < 0) {
      hi = mid;
    } else {
      lo = mid + 1;
    }
  }
  return nullptr;
}

// Byte order, shorter first on a common prefix: the order of the generated tables.
int compareBytes(StrSegment a, const char *b, size_t blen) {
  int c = memcmp(a.data(), b, a.size() < blen ? a.size() : blen);
  if (c != 0) return c;
  return a.size() < blen ? -1 : a.size() > blen ? 1 : 0;
}

constexpr size_t ENDING_LEN = 14;  // " Standard Time", " Daylight Time"
constexpr size_t MEXICO_ENDING_LEN = 23;

const char *searchAliases(StrSegment key) {
  const ZoneAliasRow *row = binarySearch(zone_aliases, [key](const ZoneAliasRow &r) {
    return compareBytes(key, r.key, strlen(r.key));
  });
  return row ? row->zone : nullptr;
}

}  // namespace

bool zoneAbbreviationOffset(StrSegment name, int64_t &offset) {
  if (name.empty() || name.size() > 7) return false;
  char upper[8] = {};
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (c >= 'a' && c <= 'z') {
      c = static_cast<char>(c - 'a' + 'A');
    } else if (c < 'A' || c > 'Z') {
      return false;
    }
    upper[i] = c;
  }
  const ZoneAbbreviationRow *row = binarySearch(
      zone_abbreviations,
      [&upper](const ZoneAbbreviationRow &r) { return memcmp(upper, r.name, sizeof upper); });
  if (row == nullptr) return false;
  offset = row->offset;
  return true;
}

uint32_t windowsZoneNameHash(StrSegment name) {
  uint32_t s = 0, v = 0;
  for (char ch : name) {
    const uint32_t c = static_cast<unsigned char>(ch);
    s += c;
    v = 2 * v + c;
  }
  return ((v + s) << 8) | static_cast<uint32_t>(name.size() & 0xFF);
}

bool windowsZoneNameOffset(StrSegment name, int64_t &offset) {
  if (name.size() > 255) return false;
  const uint32_t hash = windowsZoneNameHash(name);
  const WindowsZoneNameRow *row =
      binarySearch(windows_zone_names, [hash](const WindowsZoneNameRow &r) {
        return hash < r.hash ? -1 : hash > r.hash ? 1 : 0;
      });
  // Equal hashes settle it: a different name there is a miss, not a reason to look further.
  if (row == nullptr || compareBytes(name, row->name, strlen(row->name)) != 0) return false;
  offset = row->offset;
  return true;
}

const char *aliasForZoneName(StrSegment name) {
  static const StrSegment standard(" Standard Time"), daylight(" Daylight Time");
  static const StrSegment us("US ");
  if (name.size() >= 15) {
    if (name.endsWith(standard)) {
      if (name.startsWith(us) && name.size() >= us.size() + ENDING_LEN) {
        StrSegment middle = name.substr(us.size(), name.size() - us.size() - ENDING_LEN);
        if (middle == "Mountain") return "America/Phoenix";
        if (middle == "Eastern") return "Etc/GMT+5";
        name = name.substr(us.size());
      }
      return searchAliases(name.substr(0, name.size() - ENDING_LEN));
    }
    if (name.endsWith(daylight)) {
      if (name.startsWith(us) && name.size() >= us.size() + ENDING_LEN) {
        name = name.substr(us.size());
      }
      if (name == "Greenwich Daylight Time") return "Europe/London";
      return searchAliases(name.substr(0, name.size() - ENDING_LEN));
    }
    if (name.size() >= 24 &&
        (name.endsWith(" Standard Time (Mexico)") || name.endsWith(" Daylight Time (Mexico)"))) {
      StrSegment front = name.substr(0, name.size() - MEXICO_ENDING_LEN);
      if (front == "Central") return "America/Mexico_City";
      if (front == "Mountain") return "America/Chihuahua";
      if (front == "Pacific") return "America/Tijuana";
      return nullptr;
    }
    if (name == "Mexico Standard Time 2" || name == "Mexico Daylight Time 2") {
      return "America/Chihuahua";
    }
  }
  // Too vague to stand for one zone; the longer Windows names that contain them are not.
  if (name == "GMT" || name == "Greenwich") return nullptr;
  return searchAliases(name);
}

}  // namespace morvek
