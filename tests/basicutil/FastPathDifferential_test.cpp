// The fast paths (bare printf conversions, the caseless block scan, the one-pass natural order,
// inline digit parsing) against independent references on random and edge inputs.
#include <gtest/gtest.h>
#include <strings.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "basicutil/BasicConversions.h"
#include "basicutil/PrintfFormat.h"
#include "basicutil/Str.h"
#include "basicutil/UnicodeCodepoint.h"

using morvek::Str;
using morvek::StrSegment;

namespace {

int sign(int v) { return (v > 0) - (v < 0); }

// ---- printf: bare conversions into Strs of every fill state -------------------------------

// Empty, short form nearly full, heap form exactly full, heap form with room.
std::vector<Str> startingStrs() {
  Str full(40, 'f');
  full.shrink_to_fit();
  full.resize(full.capacity(), 'f');
  Str roomy("r");
  roomy.reserve(200);
  return {Str(), Str(14, 's'), full, roomy};
}

// errno is EDOM throughout, for "%m" and to see that it is kept.
template <class... Args>
void expectLikeSnprintf(const char *format, Args... args) {
  char want[256];
  errno = EDOM;
  snprintf(want, sizeof want, format, args...);
  for (const Str &start : startingStrs()) {
    Str s = start;
    s.appendf(format, args...);
    EXPECT_EQ(errno, EDOM) << format;
    EXPECT_EQ(s, start + want) << format;
    s.printf(format, args...);
    EXPECT_EQ(s, want) << format;
  }
  EXPECT_EQ(Str(Str::FORMAT, format, args...), want) << format;
}

TEST(FastPathDifferential, BareConversionsMatchSnprintf) {
  const long long edges[] = {0,         1,         -1,         9,          10,          99,
                             100,       -100,      999999999,  1000000000, INT_MAX,     INT_MIN,
                             LLONG_MAX, LLONG_MIN, 4294967295, 9999999999, -12345678901};
  for (long long v : edges) {
    const int i = static_cast<int>(v);
    const unsigned u = static_cast<unsigned>(v);
    expectLikeSnprintf("%d", i);
    expectLikeSnprintf("%i|%u", i, u);
    expectLikeSnprintf("<%ld>", static_cast<long>(v));
    expectLikeSnprintf("%lld%llu", v, static_cast<unsigned long long>(v));
    expectLikeSnprintf("%lu and %s then %d%% %m", static_cast<unsigned long>(v), "text", i);
    expectLikeSnprintf("%5d|%-3u|%s", i, u, "");
  }
  expectLikeSnprintf("%llu", ULLONG_MAX);
}

// ---- caseless comparison ------------------------------------------------------------------

int caseless(const std::string &a, const std::string &b) {
  return morvek::mem_compare_caseless(a.data(), a.size(), b.data(), b.size());
}

std::string flipCase(std::string s, std::mt19937 &rng) {
  for (char &c : s) {
    if (rng() % 2 && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) c ^= 0x20;
  }
  return s;
}

// On ASCII without NUL the order is strcasecmp's, at every length around the block sizes.
TEST(FastPathDifferential, AsciiCaselessAgreesWithStrcasecmp) {
  std::mt19937 rng(11);
  for (int round = 0; round < 20000; ++round) {
    std::string a;
    const size_t len = rng() % 80;
    for (size_t i = 0; i < len; ++i) a.push_back(static_cast<char>(1 + rng() % 127));
    // Equal but for case, one byte changed, cut short or made longer.
    std::string b = flipCase(a, rng);
    const unsigned change = rng() % 4;
    if (change == 1 && !b.empty()) b[rng() % b.size()] = static_cast<char>(1 + rng() % 127);
    if (change == 2) b.resize(rng() % (b.size() + 1));
    if (change == 3) b.push_back(static_cast<char>(1 + rng() % 127));
    ASSERT_EQ(sign(caseless(a, b)), sign(strcasecmp(a.c_str(), b.c_str()))) << a << " | " << b;
  }
}

// Any text behind an ASCII prefix that is equal but for case compares as the text alone: the
// block scan may hand over at any offset, and what follows (multi-byte, broken, high bytes)
// must come out as if the scan had not run.
TEST(FastPathDifferential, CaselessAfterAnAsciiPrefixIsTheTailsOrder) {
  const std::string_view pieces[] = {
      "a",        "Z",        "[",        "@",        "`",        "{", "\x7f",
      "\xc3\x89", "\xc3\xa9", "\xc4\x80", "\xc4\x81", "\xc4\xb0", "i", "\xe1\xba\x9e",
      "\xc3\x9f", "\xc3",     "\xe2\x82", "\xff",     {"\0", 1}};
  std::mt19937 rng(12);
  for (int round = 0; round < 20000; ++round) {
    std::string x, y, prefix;
    for (int k = static_cast<int>(rng() % 4); k > 0; --k) x += pieces[rng() % std::size(pieces)];
    for (int k = static_cast<int>(rng() % 4); k > 0; --k) y += pieces[rng() % std::size(pieces)];
    for (size_t n = rng() % 70; n > 0; --n) prefix.push_back(static_cast<char>(' ' + rng() % 95));
    const int want = caseless(x, y);
    ASSERT_EQ(caseless(prefix + x, flipCase(prefix, rng) + y), want) << prefix << x << "|" << y;
  }
}

// ---- natural order ------------------------------------------------------------------------

// The order as chunks define it, through the public chunker.
int naturalByChunks(StrSegment a, StrSegment b) {
  for (;;) {
    if (a.empty()) return b.empty() ? 0 : -1;
    if (b.empty()) return 1;
    StrSegment ca, cb;
    const size_t za = morvek::getNextChunk(a, ca), zb = morvek::getNextChunk(b, cb);
    if (za == StrSegment::npos || zb == StrSegment::npos) {
      if (int r = ca.compare(cb)) return sign(r);
      continue;
    }
    const size_t sa = ca.size() - za, sb = cb.size() - zb;
    if (sa != sb) return sa < sb ? -1 : 1;
    if (int r = memcmp(ca.data() + za, cb.data() + zb, sa)) return sign(r);
  }
}

TEST(FastPathDifferential, NaturalOrderAgreesWithTheChunkOrder) {
  const char alphabet[] = "0012789.-_aZ~\x80";
  std::mt19937 rng(13);
  auto text = [&](size_t max) {
    std::string s;
    for (size_t n = rng() % max; n > 0; --n) s.push_back(alphabet[rng() % (sizeof alphabet - 1)]);
    return s;
  };
  for (int round = 0; round < 30000; ++round) {
    const std::string common = text(20);
    const std::string a = common + text(8), b = common + text(8);
    ASSERT_EQ(sign(morvek::compareNaturally(a, b)), naturalByChunks(a, b)) << a << " | " << b;
  }
}

// ---- digit parsing ------------------------------------------------------------------------

// What the parsers accept: blanks, the digits from_chars takes whole, blanks; the signed ones
// also take blanks between the sign and the digits.
template <class T>
bool referenceParse(const std::string &text, T &out) {
  size_t b = text.find_first_not_of(" \t"), e = text.find_last_not_of(" \t");
  if (b == std::string::npos) return false;
  std::string core = text.substr(b, e - b + 1);
  if (core[0] == '-' && std::is_signed_v<T>) {
    const std::string digits = core.substr(std::min(core.find_first_not_of(" \t", 1), core.size()));
    if (digits.empty() || digits[0] == '-') return false;
    core = "-" + digits;
  }
  if (core[0] == '+' || (core[0] == '-' && std::is_unsigned_v<T>)) return false;
  auto r = std::from_chars(core.data(), core.data() + core.size(), out);
  return r.ec == std::errc() && r.ptr == core.data() + core.size();
}

template <class T>
void expectParsesLikeFromChars(const std::string &text) {
  const T untouched = 77;
  T want = untouched, got = untouched;
  const bool ok = referenceParse(text, want);
  bool ours;
  if constexpr (std::is_unsigned_v<T>) {
    ours = morvek::parse_unsigned_val(text.data(), text.size(), got);
  } else {
    ours = morvek::do_signed_fetch(text.data(), text.size(), got);
  }
  ASSERT_EQ(ours, ok) << "'" << text << "'";
  ASSERT_EQ(got, ok ? want : untouched) << "'" << text << "'";
}

TEST(FastPathDifferential, ParsingAgreesWithFromChars) {
  std::vector<StrSegment> edges;
  StrSegment(
      "0|00000000000000000000000000042|65535|65536|4294967295|4294967296|9223372036854775807|"
      "9223372036854775808|-9223372036854775808|-9223372036854775809|18446744073709551615|"
      "18446744073709551616|99999999999999999999|1234567/|1234:678|-| 12 |\t-7|- 5")
      .split(edges, '|');
  std::vector<std::string> texts = {""};
  for (StrSegment e : edges) texts.emplace_back(e.data(), e.size());
  const char alphabet[] = "0123456789000999/:- \t+a";
  std::mt19937 rng(14);
  for (int round = 0; round < 20000; ++round) {
    std::string s;
    const size_t len = rng() % 24;
    for (size_t i = 0; i < len; ++i) {
      // Mostly digits, so that long numbers and the eight-digit blocks come up.
      s.push_back(rng() % 4 ? static_cast<char>('0' + rng() % 10)
                            : alphabet[rng() % (sizeof alphabet - 1)]);
    }
    texts.push_back(s);
  }
  for (const std::string &t : texts) {
    expectParsesLikeFromChars<uint16_t>(t);
    expectParsesLikeFromChars<uint32_t>(t);
    expectParsesLikeFromChars<uint64_t>(t);
    expectParsesLikeFromChars<int16_t>(t);
    expectParsesLikeFromChars<int32_t>(t);
    expectParsesLikeFromChars<int64_t>(t);
  }
}

}  // namespace
