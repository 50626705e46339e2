#include "basicutil/TimezoneSerialize.h"

#include <cinttypes>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "basicutil/BasicConversions.h"
#include "basicutil/HashedStr.h"
#include "basicutil/Thread.h"
#include "basicutil/Timeval.h"

namespace morvek {

namespace {

constexpr int64_t SECONDS_PER_365_DAYS = 31536000;

// A rebuilt zone and the body it was built from (its lines joined by newlines).
struct DeserializedEntry {
  Str text;
  const TimezoneData *tz;
};

// Hash of the body to the zones built from it; guarded by the zone lock, never freed.
std::multimap<uint64_t, DeserializedEntry> &deserializedCache() {
  static auto *cache = new std::multimap<uint64_t, DeserializedEntry>;
  return *cache;
}

const TimezoneData *findDeserialized(uint64_t hash, const Str &text) {
  auto range = deserializedCache().equal_range(hash);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second.text == text) return it->second.tz;
  }
  return nullptr;
}

char kindLetter(uint32_t kind) {
  return kind == TimezoneType::KIND_WALL ? 'W' : kind == TimezoneType::KIND_STANDARD ? 'S' : 'G';
}

// The writer runs on every hand-over of a zone: plain digit writers, not the printf engine.
void appendTypeLine(const TimezoneData &tz, const TimezoneType &type, StrVector &lines) {
  static const char HEX[] = "0123456789ABCDEF";
  char buf[24];
  Str line(1, 'Y');
  line.append(buf, writeDecimalI64(buf, type.gmtoff));
  line += ' ';
  line += type.isdst ? 'Y' : 'N';
  line += kindLetter(type.kind);
  for (const char *p = tz.abbreviation(type); *p != '\0'; ++p) {
    const unsigned char b = static_cast<unsigned char>(*p);
    const char hex[3] = {' ', HEX[b >> 4], HEX[b & 15]};
    line.append(hex, 3);
  }
  lines.push_back(std::move(line));
}

void appendTransitionLine(const TimezoneData &tz, uint32_t i, StrVector &lines) {
  char buf[32];
  buf[0] = '@';
  size_t n = 1 + writeDecimalI64(buf + 1, tz.ats[i]);
  buf[n++] = ' ';
  n += writeDecimalU32(buf + n, tz.types[i]);
  lines.push_back(buf, n);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The index of abbreviation in tz.chars, appending it (with its NUL) when it isn't there as a
// whole string: types that share a name share its bytes.
uint64_t internAbbreviation(TimezoneData &tz, const Str &abbreviation) {
  const Str &chars = tz.chars;
  for (size_t at = 0; at < chars.size();) {
    const char *s = chars.c_str() + at;
    const size_t len = strnlen(s, chars.size() - at);
    if (len == abbreviation.size() && memcmp(s, abbreviation.data(), len) == 0) return at;
    at += len + 1;
  }
  const uint64_t at = chars.size();
  tz.chars.append(abbreviation.data(), abbreviation.size() + 1);
  return at;
}

// "Y-18000 NW 45 53 54": offset, isdst and kind, then the abbreviation's bytes.
bool parseTypeLine(StrSegment rest, TimezoneData &tz, std::vector<StrSegment> &tokens) {
  if (tz.typecnt >= TimezoneData::MAX_TYPES) return false;
  tokens.clear();
  rest.splitSkippingEmpty(tokens, BYTESET_WHITESPACE);
  if (tokens.size() < 2) return false;
  int64_t gmtoff;
  if (!fetchInBase(tokens[0], gmtoff, 10)) return false;
  const StrSegment flags = tokens[1];
  if (flags.size() != 2 || (flags[0] != 'Y' && flags[0] != 'N')) return false;
  uint32_t kind;
  switch (flags[1]) {
    case 'W':
      kind = TimezoneType::KIND_WALL;
      break;
    case 'S':
      kind = TimezoneType::KIND_STANDARD;
      break;
    case 'G':
      kind = TimezoneType::KIND_UNIVERSAL;
      break;
    default:
      return false;
  }
  Str abbreviation;
  for (size_t i = 2; i < tokens.size(); ++i) {
    const StrSegment byte = tokens[i];
    if (byte.size() != 2) return false;
    const int hi = hexValue(byte[0]), lo = hexValue(byte[1]);
    // A NUL would cut the name short where it is stored: no writer makes one.
    if (hi < 0 || lo < 0 || (hi | lo) == 0) return false;
    abbreviation.push_back(static_cast<char>(hi * 16 + lo));
  }
  TimezoneType &type = tz.ttis[tz.typecnt++];
  type.gmtoff = gmtoff;
  type.isdst = flags[0] == 'Y';
  type.kind = kind;
  type.abbrind = internAbbreviation(tz, abbreviation);
  return true;
}

// "@1710054000 1": time and type index.
bool parseTransitionLine(StrSegment rest, TimezoneData &tz, std::vector<StrSegment> &tokens) {
  if (tz.timecnt >= TimezoneData::MAX_TRANSITIONS) return false;
  tokens.clear();
  rest.splitSkippingEmpty(tokens, BYTESET_WHITESPACE);
  int64_t at;
  uint64_t type;
  if (tokens.size() != 2 || !fetchInBase(tokens[0], at, 10) || !fetchInBase(tokens[1], type, 10) ||
      type >= TimezoneData::MAX_TYPES)
    return false;
  tz.ats[tz.timecnt] = at;
  tz.types[tz.timecnt++] = static_cast<uint8_t>(type);
  return true;
}

// Fills tz (cleared, goback and goahead 1) from the body lines; false on the first bad one.
bool parseBody(const StrVector &lines, TimezoneData &tz) {
  bool ended = false, go_back = false, go_ahead = false, no_types = false;
  std::vector<StrSegment> tokens;  // reused: one allocation for the whole text
  for (const Str &line : lines) {
    if (line.empty()) return false;
    ended = false;
    const StrSegment rest = line.segment().substr(1);
    switch (line[0]) {
      case '$':
        ended = true;
        break;
      case 'B':
        go_back = true;
        break;
      case 'F':
        go_ahead = true;
        break;
      case 'Z':
        no_types = true;
        break;
      case 'C':
        if (!fetchInBase(rest, tz.fixed_offset, 10)) return false;
        break;
      case 'Y':
        if (!parseTypeLine(rest, tz, tokens)) return false;
        break;
      case '@':
        if (!parseTransitionLine(rest, tz, tokens)) return false;
        break;
      default:
        return false;
    }
  }
  if (!ended || tz.typecnt == 0) return false;
  tz.goback = go_back;
  tz.goahead = go_ahead;
  if (tz.timecnt == 0 && tz.fixed_offset == NOT_FIXED) return false;
  if (no_types) {
    if (tz.typecnt != 1) return false;
    tz.typecnt = 0;
  }
  for (uint32_t i = 1; i < tz.timecnt; ++i) {
    if (tz.ats[i] < tz.ats[i - 1]) return false;
  }
  // An index equal to typecnt names the zero-filled record past the table: harmless, and
  // accepted as it always has been.
  for (uint32_t i = 0; i < tz.timecnt; ++i) {
    if (tz.types[i] > tz.typecnt) return false;
  }
  return true;
}

// The lines after the header, and their hash; false when the header isn't there.
bool readBody(SerializedTimezoneReader &reader, StrVector &lines, uint64_t &hash) {
  Str line;
  if (!reader.readLine(line) || line != SERIALIZED_TZ_HEADER) return false;
  hash = HASH_SEED;
  while (reader.readLine(line)) {
    hash = hashBytesContinue(line.data(), line.size(), hash);
    lines.push_back(std::move(line));
    line.clear();
  }
  return true;
}

std::atomic<const Str *> &localSlot() { return serializedLocalTimezoneSlot(); }

}  // namespace

void serializeTimezone(const TimezoneData &tz, StrVector &lines, int years, int64_t now) {
  lines.reserve(lines.size() + tz.typecnt + tz.timecnt + 3);
  lines.push_back(SERIALIZED_TZ_HEADER);
  if (tz.fixed_offset != NOT_FIXED) lines.push_back(Str(Str::FORMAT, "C%" PRId64, tz.fixed_offset));
  if (tz.typecnt == 0) {
    lines.push_back("Z");
    appendTypeLine(tz, tz.ttis[0], lines);
  }
  for (uint32_t i = 0; i < tz.typecnt; ++i) appendTypeLine(tz, tz.ttis[i], lines);

  const int32_t span = static_cast<int32_t>(static_cast<uint32_t>(years * SECONDS_PER_365_DAYS));
  const int64_t limit = addSaturating(now, span);
  // Of the changes before 1970 only the latest is kept: it gives the type in force up to the
  // first later one.
  int64_t before_epoch = -1;
  for (uint32_t i = 0; i < tz.timecnt && tz.ats[i] <= limit; ++i) {
    if (tz.ats[i] < 0) {
      before_epoch = i;
      continue;
    }
    if (before_epoch >= 0) appendTransitionLine(tz, static_cast<uint32_t>(before_epoch), lines);
    before_epoch = -1;
    appendTransitionLine(tz, i, lines);
  }
  if (before_epoch >= 0) appendTransitionLine(tz, static_cast<uint32_t>(before_epoch), lines);

  if (tz.goback) lines.push_back("B");
  if (tz.goahead) lines.push_back("F");
  lines.push_back("$");
}

void serializeTimezone(const TimezoneData &tz, StrVector &lines, int years) {
  serializeTimezone(tz, lines, years, Timeval::now().seconds());
}

Str serializedTimezoneText(const TimezoneData &tz, int years, int64_t now) {
  StrVector lines;
  serializeTimezone(tz, lines, years, now);
  Str text;
  text.reserve(lines.size() * 16);
  for (const Str &line : lines) {
    text += line;
    text += '\n';
  }
  return text;
}

const Str &serializedLocalTimezone() {
  if (const Str *text = localSlot().load(std::memory_order_acquire)) return *text;
  static PthreadMutex *build_lock = new PthreadMutex;
  // Every text built, so that one replaced by a change of zone directory stays alive (and
  // reachable) for the callers that still hold it.
  static std::vector<std::unique_ptr<const Str>> *built =
      new std::vector<std::unique_ptr<const Str>>;
  ScopedMutexLock lock(*build_lock);
  if (const Str *text = localSlot().load(std::memory_order_acquire)) return *text;
  built->push_back(std::make_unique<const Str>(
      serializedTimezoneText(*getTimezone(), SERIALIZED_TZ_LOCAL_YEARS, Timeval::now().seconds())));
  const Str *text = built->back().get();
  localSlot().exchange(text, std::memory_order_acq_rel);
  return *text;
}

bool SerializedTimezoneTextReader::readLine(Str &line) {
  if (_done || _rest.empty()) return false;
  const size_t nl = _rest.find('\n');
  if (nl == StrSegment::npos) {
    line.assign(_rest.data(), _rest.size());
    _done = true;
    return true;
  }
  // A text that went through a CRLF system still reads.
  line.assign(_rest.data(), nl > 0 && _rest[nl - 1] == '\r' ? nl - 1 : nl);
  _rest = _rest.substr(nl + 1);
  return true;
}

const TimezoneData *deserializeTimezone(SerializedTimezoneReader &reader) {
  StrVector lines;
  uint64_t hash;
  if (!readBody(reader, lines, hash)) return nullptr;
  Str text;
  lines.join(text, '\n');
  {
    ScopedMutexLock lock(timezoneLock());
    if (const TimezoneData *hit = findDeserialized(hash, text)) return hit;
  }
  std::unique_ptr<TimezoneData> tz(new TimezoneData);
  if (!parseBody(lines, *tz)) return nullptr;
  ScopedMutexLock lock(timezoneLock());
  // Another thread may have built the same text meanwhile: the first one entered wins.
  if (const TimezoneData *hit = findDeserialized(hash, text)) return hit;
  const TimezoneData *built = tz.release();
  deserializedCache().emplace(hash, DeserializedEntry{std::move(text), built});
  return built;
}

bool parseSerializedTimezone(StrSegment text, TimezoneData &tz) {
  SerializedTimezoneTextReader reader(text);
  StrVector lines;
  uint64_t hash;
  tz.clear();
  return readBody(reader, lines, hash) && parseBody(lines, tz);
}

const TimezoneData *deserializeTimezone(StrSegment text) {
  SerializedTimezoneTextReader reader(text);
  return deserializeTimezone(reader);
}

const TimezoneData *Timezone::setFromSerialized(SerializedTimezoneReader &reader) {
  _tz = deserializeTimezone(reader);
  _name = _tz != nullptr ? _tz->name : Str();
  return _tz;
}

}  // namespace morvek
