// The engine against the C library's snprintf over generated formats and values. Where the
// engine deliberately differs, the case is put in a named class and checked against what the
// engine promises instead; every other case must match byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>

#include "basicutil/PrintfFormat.h"

namespace {

// Unchecked formats on purpose: the generated ones include what -Wformat would object to.
std::string ours(const char *fmt, ...) {
  morvek::Str s;
  va_list ap;
  va_start(ap, fmt);
  morvek::vappendPrintf(s, fmt, ap);
  va_end(ap);
  return s;
}

std::string theirs(const char *fmt, ...) {
  char buf[4096];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return n < 0 ? std::string("<error>") : std::string(buf, std::min<size_t>(n, sizeof buf - 1));
}

struct FormatCase {
  std::string flags, length;
  char conv = 'd';
  int width = -1, precision = -1;  // -1: none
  bool width_star = false, precision_star = false, bare_dot = false;
  int star_width = 0, star_precision = 0;

  bool has(char f) const { return flags.find(f) != std::string::npos; }
  std::string format(const std::string &drop_flags = "", const char *len = nullptr) const {
    std::string f = "<%";
    for (char c : flags)
      if (drop_flags.find(c) == std::string::npos) f += c;
    f += width_star ? "*" : width >= 0 ? std::to_string(width) : "";
    if (precision_star) f += ".*";
    if (!precision_star && bare_dot) f += '.';
    if (!precision_star && precision >= 0) f += "." + std::to_string(precision);
    return f + (len ? len : length.c_str()) + conv + ">";
  }
  // The precision in force after the "*" arguments.
  int effectivePrecision() const {
    if (precision_star) return star_precision < 0 ? -1 : star_precision;
    return bare_dot ? 0 : precision;
  }
  bool leftJustified() const { return has('-') || (width_star && star_width < 0); }
};

// Calls fn with the format and the "*" arguments the case owes, then the value.
template <class Fn, class... V>
std::string run(Fn fn, const FormatCase &s, const std::string &fmt, V... v) {
  const char *f = fmt.c_str();
  if (s.width_star && s.precision_star) return fn(f, s.star_width, s.star_precision, v...);
  if (s.width_star) return fn(f, s.star_width, v...);
  if (s.precision_star) return fn(f, s.star_precision, v...);
  return fn(f, v...);
}
const auto OURS = [](const char *f, auto... a) { return ours(f, a...); };
const auto THEIRS = [](const char *f, auto... a) { return theirs(f, a...); };

class Differential : public ::testing::Test {
 protected:
  std::mt19937_64 rng{20240607};
  std::map<std::string, int> counts;

  int pick(int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); }
  bool coin(int one_in) { return pick(one_in) == 0; }

  FormatCase randomCase(const std::string &flag_pool, char conv) {
    FormatCase s;
    s.conv = conv;
    for (char f : flag_pool)
      if (coin(3)) s.flags += f;
    std::shuffle(s.flags.begin(), s.flags.end(), rng);  // C reads flags in any order
    if (int w = pick(4); w == 0) {
      s.width = pick(25);
      if (s.width == 0) s.width = -1;  // a leading "0" would read as a flag
    } else if (w == 1) {
      s.width_star = true;
      s.star_width = pick(41) - 20;
    }
    if (int p = pick(5); p == 0) {
      s.precision = pick(21);
    } else if (p == 1) {
      s.precision_star = true;
      s.star_precision = pick(25) - 4;
    } else if (p == 2) {
      s.bare_dot = coin(3);
    }
    return s;
  }

  void expectSame(const std::string &cls, const std::string &got, const std::string &want,
                  const std::string &fmt) {
    ++counts[cls];
    EXPECT_EQ(got, want) << "class " << cls << ", format " << fmt;
  }
  void expectClassesSeen(std::initializer_list<const char *> classes, int at_least) {
    for (const char *cls : classes) EXPECT_GT(counts[cls], at_least) << cls;
  }
};

TEST_F(Differential, Integers) {
  const int64_t edges[] = {0,    1,       255,     256,     -128,     32767,     65536,
                           1000, 1234567, INT_MAX, INT_MIN, UINT_MAX, LLONG_MAX, LLONG_MIN};
  const char *lengths[] = {"", "", "", "hh", "h", "l", "ll", "z", "j", "t", "q"};
  for (int iter = 0; iter < 20000; ++iter) {
    // Digit grouping, which C lacks, is checked by fixed cases.
    FormatCase s = randomCase(" +-0#", "diuxXo"[pick(6)]);
    s.length = lengths[pick(11)];
    int64_t v = coin(3) ? edges[pick(std::size(edges))] : static_cast<int64_t>(rng() >> pick(64));
    if (coin(2)) v = static_cast<int64_t>(0 - static_cast<uint64_t>(v));
    const bool wide = s.length != "" && s.length != "h" && s.length != "hh";
    const int iv = static_cast<int>(v);
    auto call = [&](auto fn, const std::string &f) {
      return wide ? run(fn, s, f, (long long)v) : run(fn, s, f, iv);
    };
    const std::string fmt = s.format(), got = call(OURS, fmt);
    const bool is_signed = s.conv == 'd' || s.conv == 'i';
    const int prec = s.effectivePrecision();
    const bool narrowed_differs =
        (s.length == "hh" &&
         (is_signed ? (int)(signed char)iv != iv : (unsigned)(unsigned char)iv != (unsigned)iv)) ||
        (s.length == "h" &&
         (is_signed ? (int)(short)iv != iv : (unsigned)(unsigned short)iv != (unsigned)iv));
    const bool zero = wide ? v == 0 : iv == 0;
    // Each deviation changes what C is asked for; the first one found names the case.
    std::string cls, drop;
    const char *len = nullptr;
    auto name = [&](const char *n) { cls = cls.empty() ? n : cls; };
    if (is_signed && zero && prec == 0 && (s.has('+') || s.has(' '))) {
      name("zero with precision 0 has no sign");
      drop += " +";
    }
    if (s.precision_star && s.star_precision < 0 && s.has('0') && !s.leftJustified()) {
      name("zero flag dropped by a variable precision");
      drop += "0";
    }
    if (narrowed_differs) {
      name("sizes 1 and 2 not narrowed");
      len = "";
    }
    name("same as C");
    expectSame(cls, got, call(THEIRS, s.format(drop, len)), fmt);
  }
  expectClassesSeen({"zero with precision 0 has no sign", "sizes 1 and 2 not narrowed",
                     "zero flag dropped by a variable precision"},
                    5);
}

// Text, characters and %%; pointers, where the engine differs, have fixed cases.
TEST_F(Differential, TextAndLiterals) {
  const char *strings[] = {"", "a", "hello", "with blank", "0123456789abcdefghij"};
  for (int iter = 0; iter < 6000; ++iter) {
    // %m and the literal "L" forms are checked by their fixed cases.
    const int kind = pick(3);
    FormatCase s = randomCase(kind == 1 ? "-0" : "-0 +#", "sc%"[kind]);
    if (kind == 2) s.width_star = s.precision_star = false;
    const std::string fmt = s.format();
    if (kind == 0) {
      const char *str = strings[pick(5)];
      expectSame("same as C", run(OURS, s, fmt, str), run(THEIRS, s, fmt, str), fmt);
    } else if (kind == 1) {
      int ch = coin(10) ? 0 : 32 + pick(95);
      expectSame("same as C", run(OURS, s, fmt, ch), run(THEIRS, s, fmt, ch), fmt);
    } else {
      expectSame("same as C", ours(fmt.c_str()), theirs(fmt.c_str()), fmt);
    }
  }
}

// The shortest digits that read back as x, found with the C library alone: the first precision
// whose correctly rounded text round-trips.
struct Shortest {
  std::string digits;
  int point;  // x = 0.digits * 10^point
};
// The digits of "%.*e" text, trailing zeros dropped, and its exponent.
Shortest digitsOf(const char *buf) {
  Shortest s;
  const char *e = strchr(buf, 'e');
  for (const char *q = buf; q < e; ++q)
    if (*q != '.') s.digits += *q;
  while (s.digits.size() > 1 && s.digits.back() == '0') s.digits.pop_back();
  s.point = atoi(e + 1) + 1;
  return s;
}
Shortest shortestOf(double x) {
  char buf[64];
  int p = 0;
  do snprintf(buf, sizeof buf, "%.*e", p, std::fabs(x));
  while (strtod(buf, nullptr) != std::fabs(x) && ++p < 17);
  return digitsOf(buf);
}
// All significant digits of x, exactly.
std::string exactDigitsOf(double x) {
  static char buf[1200];
  snprintf(buf, sizeof buf, "%.800e", std::fabs(x));
  return digitsOf(buf).digits;
}

// digits rounded to k places by the engine's rule: ties to even on the text.
Shortest roundHalfEven(Shortest s, int k) {
  if (k < 0 || k >= static_cast<int>(s.digits.size())) return s;
  char c = s.digits[k];
  bool last = k == static_cast<int>(s.digits.size()) - 1;
  s.digits.resize(k);
  bool up = c > '5' || (c == '5' && (!last || (k > 0 && (s.digits[k - 1] - '0') % 2 == 1)));
  if (!up) return s.digits.empty() ? Shortest{"0", 1} : s;
  int i = k - 1;
  while (i >= 0 && s.digits[i] == '9') s.digits[i--] = '0';
  if (i < 0) return Shortest{"1", s.point + 1};
  ++s.digits[i];
  return s;
}

long double valueOf(const Shortest &s, bool negative) {
  std::string t = (negative ? "-0." : "0.") + s.digits + "e" + std::to_string(s.point);
  return strtold(t.c_str(), nullptr);
}

double randomDouble(std::mt19937_64 &rng) {
  switch (rng() % 4) {
    case 0:  // few binary digits: the decimal text is exact
      return static_cast<double>(rng() % 100000) / static_cast<double>(1u << (rng() % 12)) *
             std::pow(2.0, static_cast<int>(rng() % 20));
    case 1:  // decimal-looking
      return static_cast<double>(rng() % 10000000) / std::pow(10.0, static_cast<int>(rng() % 12));
    case 2: {
      uint64_t b = rng();
      double v;
      memcpy(&v, &b, sizeof v);
      return std::isfinite(v) ? v : 1.0;
    }
    default:
      return static_cast<double>(rng() >> 11) / 9007199254740992.0 *
             std::pow(10.0, static_cast<int>(rng() % 40) - 20);
  }
}

TEST_F(Differential, FloatingPoint) {
  const double edges[] = {0.0,      0.5,      2.5,    1.005,    1e23, 999999.5, 0.000099999999,
                          1e-5,     DBL_MAX,  5e-324, INFINITY, NAN,  -NAN,     0x1.28p0,
                          0x1.f8p0, 0x1.08p-3};
  for (int iter = 0; iter < 20000; ++iter) {
    const char conv = "eEfFgGaA"[pick(8)], lower = static_cast<char>(conv | 0x20);
    FormatCase s = randomCase(" +-0#", conv);
    double x = coin(4) ? edges[pick(std::size(edges))] : randomDouble(rng);
    if (coin(3)) x = -x;
    if (coin(5)) s.length = "l";
    // Grouping is checked on its own below; the C library ignores it.
    const std::string fmt = s.format(), got = run(OURS, s, fmt, x), want = run(THEIRS, s, fmt, x);
    const bool negative = std::signbit(x);
    if (!std::isfinite(x)) {
      const bool signed_nan = std::isnan(x) && negative;
      expectSame(signed_nan ? "NaN has no sign" : "same as C", got,
                 run(THEIRS, s, fmt, signed_nan ? std::fabs(x) : x), fmt);
      continue;
    }
    const int prec = s.effectivePrecision();
    if (lower == 'a') {
      // A tie on the dropped bits rounds away from zero, not to even.
      uint64_t b;
      memcpy(&b, &x, sizeof b);
      const uint64_t dropped = prec >= 0 && prec < 13 ? b & ((1ull << (52 - 4 * prec)) - 1) : 0;
      if (dropped != 0 && dropped == 1ull << (51 - 4 * prec)) {
        const double nudged = std::nextafter(x, std::copysign(INFINITY, x));
        expectSame("hex tie rounds away from zero", got, run(THEIRS, s, fmt, nudged), fmt);
      } else {
        expectSame("same as C", got, want, fmt);
      }
      continue;
    }
    const Shortest sh = shortestOf(x);
    const bool exact = exactDigitsOf(x) == sh.digits;
    const int P = prec < 0 ? 6 : prec, sig = static_cast<int>(sh.digits.size());
    const int k = lower == 'e' ? P + 1 : lower == 'f' ? sh.point + P : (P == 0 ? 1 : P);
    const std::string as_long = s.format("", "L");
    if (lower == 'g' && x != 0) {
      const Shortest r = roundHalfEven(sh, k);
      if (sh.point >= -3 && sh.point <= k && r.point > k) {
        // The choice of form is made before rounding: 999999.5 is "1000000", not "1e+06".
        FormatCase f = s;
        f.conv = conv == 'G' ? 'F' : 'f';
        f.precision_star = false, f.bare_dot = false, f.precision = 0;
        expectSame("%g form chosen before rounding", got,
                   run(THEIRS, f, f.format(), static_cast<double>(valueOf(r, negative))), fmt);
        continue;
      }
    }
    if (!exact && k >= sig) {
      // Digits past the shortest ones are zeros, not the binary value's expansion; all the
      // shortest digits are shown, so the text reads back as the same double.
      ++counts["shortest digits then zeros"];
      EXPECT_EQ(strtod(got.c_str() + 1, nullptr), x) << fmt << " " << got;
      if (k <= 19) {
        EXPECT_EQ(got, run(THEIRS, s, as_long, valueOf(sh, negative))) << fmt;
      }
    } else if (!exact && k >= 0 && k == sig - 1 && sh.digits.back() == '5') {
      // A tie on the shortest digits goes to even, whatever the binary value says.
      expectSame("tie on the shortest digits", got,
                 run(THEIRS, s, as_long, valueOf(roundHalfEven(sh, k), negative)), fmt);
    } else {
      expectSame("same as C", got, want, fmt);
    }
  }
  expectClassesSeen({"shortest digits then zeros", "tie on the shortest digits",
                     "hex tie rounds away from zero", "NaN has no sign"},
                    5);
}

}  // namespace
