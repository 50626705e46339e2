// The engine against the C library's snprintf over generated formats and values. Where the
// engine deliberately differs, the case is put in a named class and checked against what the
// engine promises instead; every other case must match byte for byte.
#include <gtest/gtest.h>

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
  std::string format(const std::string &drop_flags = "", const char *len = nullptr,
                     bool keep_width = true, bool keep_precision = true) const {
    std::string f = "<%";
    for (char c : flags)
      if (drop_flags.find(c) == std::string::npos) f += c;
    if (keep_width && width_star) f += '*';
    if (keep_width && !width_star && width >= 0) f += std::to_string(width);
    if (keep_precision && precision_star) f += ".*";
    if (keep_precision && !precision_star && bare_dot) f += '.';
    if (keep_precision && !precision_star && precision >= 0) f += "." + std::to_string(precision);
    f += len ? len : length.c_str();
    f += conv;
    return f + ">";
  }
  // The precision in force after the "*" arguments.
  int effectivePrecision() const {
    if (precision_star) return star_precision < 0 ? -1 : star_precision;
    return bare_dot ? 0 : precision;
  }
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

  uint64_t bits() { return rng(); }
  int pick(int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); }
  bool coin(int one_in) { return pick(one_in) == 0; }

  FormatCase randomCase(const std::string &flag_pool, char conv) {
    FormatCase s;
    s.conv = conv;
    for (char f : flag_pool)
      if (coin(3)) s.flags += f;
    switch (pick(4)) {
      case 0:
        s.width = pick(25);
        if (s.width == 0) s.width = -1;  // a leading "0" would read as a flag
        break;
      case 1:
        s.width_star = true;
        s.star_width = pick(41) - 20;
        break;
      default:
        break;
    }
    switch (pick(5)) {
      case 0:
        s.precision = pick(21);
        break;
      case 1:
        s.precision_star = true;
        s.star_precision = pick(25) - 4;
        break;
      case 2:
        s.bare_dot = coin(3);
        break;
      default:
        break;
    }
    return s;
  }

  void expectSame(const char *cls, const std::string &got, const std::string &want,
                  const std::string &fmt) {
    ++counts[cls];
    EXPECT_EQ(got, want) << "class " << cls << ", format " << fmt;
  }

  void TearDown() override {
    std::string line;
    for (auto &[cls, n] : counts) line += "  " + cls + ": " + std::to_string(n) + "\n";
    std::printf("cases per class:\n%s", line.c_str());
  }
};

// ---- Integers ----

// The grouped form as promised: commas every three digits, precision counting the commas,
// zeros after the sign, and a blank for " " that stays leftmost.
std::string groupedModel(const FormatCase &s, const std::string &plain) {
  std::string sign, digits = plain;
  if (!digits.empty() && (digits[0] == '-' || digits[0] == '+' || digits[0] == ' ')) {
    sign = digits.substr(0, 1);
    digits.erase(0, 1);
  }
  std::string body;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) body += ',';
    body += digits[i];
  }
  int prec = s.effectivePrecision();
  if (prec > static_cast<int>(body.size())) body.insert(0, prec - body.size(), '0');
  int width = s.width_star ? std::abs(s.star_width) : s.width;
  bool left_justify = s.has('-') || (s.width_star && s.star_width < 0);
  size_t total = sign.size() + body.size();
  size_t pad = width > static_cast<int>(total) ? width - total : 0;
  if (left_justify) return sign + body + std::string(pad, ' ');
  if (s.has('0') && !s.precision_star && s.precision < 0 && !s.bare_dot)
    return sign + std::string(pad, '0') + body;
  return std::string(pad, ' ') + sign + body;
}

TEST_F(Differential, Integers) {
  const int64_t edges[] = {0,         1,         -1,        7,           255,     256,
                           -128,      32767,     -32768,    65535,       65536,   999,
                           1000,      1234567,   -1234,     INT_MAX,     INT_MIN, UINT_MAX,
                           LLONG_MAX, LLONG_MIN, 1LL << 32, -(1LL << 40)};
  const char *lengths[] = {"", "", "", "hh", "h", "l", "ll", "z", "j", "t", "q"};
  const char convs[] = "diuxXo";
  for (int iter = 0; iter < 20000; ++iter) {
    FormatCase s = randomCase(" +-0#'", convs[pick(6)]);
    s.length = lengths[pick(11)];
    int64_t v = coin(3) ? edges[pick(sizeof edges / sizeof edges[0])]
                        : static_cast<int64_t>(bits() >> pick(64));
    if (coin(2)) v = static_cast<int64_t>(0 - static_cast<uint64_t>(v));
    bool wide = s.length != "" && s.length != "h" && s.length != "hh";
    int iv = static_cast<int>(v);
    std::string fmt = s.format();
    std::string got = wide ? run(OURS, s, fmt, (long long)v) : run(OURS, s, fmt, iv);
    auto c = [&](const std::string &f) {
      return wide ? run(THEIRS, s, f, (long long)v) : run(THEIRS, s, f, iv);
    };
    bool is_signed = s.conv == 'd' || s.conv == 'i';
    bool grouped = s.has('\'') && (is_signed || s.conv == 'u');
    int prec = s.effectivePrecision();
    bool narrowed_differs =
        (s.length == "hh" &&
         (is_signed ? (int)(signed char)iv != iv : (unsigned)(unsigned char)iv != (unsigned)iv)) ||
        (s.length == "h" &&
         (is_signed ? (int)(short)iv != iv : (unsigned)(unsigned short)iv != (unsigned)iv));
    // Each deviation changes what C is asked for; the first one found names the case.
    std::string cls, drop;
    const char *len = nullptr;
    auto name = [&](const char *n) {
      if (cls.empty()) cls = n;
    };
    bool zero = wide ? v == 0 : iv == 0;
    if (is_signed && zero && prec == 0 && (s.has('+') || s.has(' '))) {
      name("zero with precision 0 has no sign");
      drop += " +";
    }
    if (s.precision_star && s.star_precision < 0 && s.has('0') && !s.has('-') &&
        !(s.width_star && s.star_width < 0)) {
      name("zero flag dropped by a variable precision");
      drop += "0";
    }
    if (narrowed_differs) {
      name("sizes 1 and 2 not narrowed");
      len = "";
    }
    if (grouped) {
      std::string bare = s.format(drop + "'-0", len, false, false);
      std::string plain = wide ? theirs(bare.c_str(), (long long)v) : theirs(bare.c_str(), iv);
      plain = plain.substr(1, plain.size() - 2);
      if (prec == 0 && zero) plain.clear();
      name("digit grouping");
      expectSame(cls.c_str(), got, "<" + groupedModel(s, plain) + ">", fmt);
    } else {
      name("same as C");
      expectSame(cls.c_str(), got, c(s.format(drop, len)), fmt);
    }
  }
  for (const char *cls : {"zero with precision 0 has no sign", "sizes 1 and 2 not narrowed",
                          "zero flag dropped by a variable precision", "digit grouping"})
    EXPECT_GT(counts[cls], 10) << cls;
}

// ---- Text, characters, pointers, %m, %% and literals ----

TEST_F(Differential, TextPointersAndLiterals) {
  const char *strings[] = {"", "a", "hello", "with blank", "0123456789abcdefghij"};
  const uintptr_t pointers[] = {0, 1, 0x10, 0xdeadbeef, 0x7fffffffe123, UINTPTR_MAX};
  for (int iter = 0; iter < 8000; ++iter) {
    switch (pick(6)) {
      case 0: {
        FormatCase s = randomCase("-0 +#", 's');
        std::string fmt = s.format();
        const char *str = strings[pick(5)];
        expectSame("same as C", run(OURS, s, fmt, str), run(THEIRS, s, fmt, str), fmt);
        break;
      }
      case 1: {
        FormatCase s = randomCase("-0", 'c');
        std::string fmt = s.format();
        int ch = coin(10) ? 0 : 32 + pick(95);
        expectSame("same as C", run(OURS, s, fmt, ch), run(THEIRS, s, fmt, ch), fmt);
        break;
      }
      case 2: {
        FormatCase s = randomCase("-0 +#", 'p');
        std::string fmt = s.format();
        void *p = reinterpret_cast<void *>(pointers[pick(6)]);
        std::string got = run(OURS, s, fmt, p);
        std::string cls, drop;
        if (p && (s.has('+') || s.has(' '))) {
          cls = "pointer takes no sign";
          drop = " +";
        }
        int width = s.width_star ? s.star_width : s.width;
        if (p && s.has('0') && s.effectivePrecision() >= 0 && !s.has('-') && width > 0) {
          // The zero flag survives a precision on %p, unlike on the integers.
          if (cls.empty()) cls = "pointer keeps zero padding with a precision";
          FormatCase z = s;
          z.width_star = false, z.width = -1;
          std::string core = run(THEIRS, z, z.format(drop + "0"), p);
          core = core.substr(1, core.size() - 2);
          if (width > static_cast<int>(core.size())) core.insert(2, width - core.size(), '0');
          expectSame(cls.c_str(), got, "<" + core + ">", fmt);
        } else {
          expectSame(cls.empty() ? "same as C" : cls.c_str(), got,
                     run(THEIRS, s, s.format(drop), p), fmt);
        }
        break;
      }
      case 3: {
        FormatCase s = randomCase("-", 'm');
        std::string fmt = s.format();
        int e = coin(4) ? 4000 + pick(1000) : 1 + pick(130);
        bool known = strncmp(strerror(e), "Unknown error", 13) != 0;
        errno = e;
        std::string got = run(OURS, s, fmt, 0);
        if (!known) {
          FormatCase t = s;
          t.conv = 's';
          expectSame("unknown errno text", got, run(THEIRS, t, t.format(), "UNKNOWN ERROR"), fmt);
        } else {
          errno = e;
          expectSame("same as C", got, run(THEIRS, s, fmt, 0), fmt);
        }
        break;
      }
      case 4: {
        FormatCase s = randomCase("-0 +#", '%');
        s.width_star = s.precision_star = false;
        std::string fmt = s.format();
        expectSame("same as C", ours(fmt.c_str()), theirs(fmt.c_str()), fmt);
        break;
      }
      default: {
        // No "L" modifier: the text stands as written, and no argument is consumed.
        FormatCase s = randomCase("-+ #", "efgaEFGA"[pick(8)]);
        s.width_star = s.precision_star = false;
        s.length = "L";
        std::string fmt = s.format() + "%d";
        std::string want = fmt.substr(0, fmt.size() - 2) + "7";
        expectSame("L is literal text", ours(fmt.c_str(), 7), want, fmt);
        break;
      }
    }
  }
  EXPECT_GT(counts["pointer takes no sign"], 10);
  EXPECT_GT(counts["unknown errno text"], 10);
}

// ---- Floating point ----

// The shortest digits that read back as x, found with the C library alone: the first precision
// whose correctly rounded text round-trips.
struct Shortest {
  std::string digits;
  int point;  // x = 0.digits * 10^point
};
Shortest shortestOf(double x) {
  char buf[64];
  for (int p = 0; p < 17; ++p) {
    snprintf(buf, sizeof buf, "%.*e", p, std::fabs(x));
    if (strtod(buf, nullptr) == std::fabs(x) || p == 16) {
      Shortest s;
      char *e = strchr(buf, 'e');
      for (char *q = buf; q < e; ++q)
        if (*q != '.') s.digits += *q;
      while (s.digits.size() > 1 && s.digits.back() == '0') s.digits.pop_back();
      s.point = atoi(e + 1) + 1;
      return s;
    }
  }
  return {};
}

// All significant digits of x, exactly.
std::string exactDigitsOf(double x) {
  static char buf[1200];
  snprintf(buf, sizeof buf, "%.800e", std::fabs(x));
  std::string d;
  for (char *q = buf; *q && *q != 'e'; ++q)
    if (*q != '.') d += *q;
  while (d.size() > 1 && d.back() == '0') d.pop_back();
  return d;
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
    case 0: {  // few binary digits: the decimal text is exact
      double v = static_cast<double>(rng() % 100000) / static_cast<double>(1u << (rng() % 12));
      return v * std::pow(2.0, static_cast<int>(rng() % 20));
    }
    case 1: {  // decimal-looking
      double v = static_cast<double>(rng() % 10000000);
      return v / std::pow(10.0, static_cast<int>(rng() % 12));
    }
    case 2: {
      uint64_t b = rng();
      double v;
      memcpy(&v, &b, sizeof v);
      return std::isfinite(v) ? v : 1.0;
    }
    default: {
      double v = static_cast<double>(rng() >> 11) / 9007199254740992.0;
      return v * std::pow(10.0, static_cast<int>(rng() % 40) - 20);
    }
  }
}

TEST_F(Differential, FloatingPoint) {
  const double edges[] = {
      0.0,      -0.0,           0.5,       1.5,    2.5,   1.005,    0.1,       1e22,      1e23,
      999999.5, 0.000099999999, 9.5,       100000, 1e6,   1e-4,     1e-5,      123456789, DBL_MAX,
      DBL_MIN,  5e-324,         1234567.5, 0.125,  -3.75, INFINITY, -INFINITY, NAN,       -NAN,
      0x1.28p0, 0x1.f8p0,       0x1.08p-3};
  const char convs[] = "eEfFgGaA";
  for (int iter = 0; iter < 20000; ++iter) {
    char conv = convs[pick(8)];
    FormatCase s = randomCase(" +-0#", conv);
    double x = coin(4) ? edges[pick(sizeof edges / sizeof edges[0])] : randomDouble(rng);
    if (coin(3)) x = -x;
    if (coin(5)) s.length = "l";
    // Grouping is checked on its own below; the C library ignores it.
    std::string fmt = s.format();
    std::string got = run(OURS, s, fmt, x);
    std::string want = run(THEIRS, s, fmt, x);
    char lower = static_cast<char>(conv | 0x20);
    if (std::isnan(x)) {
      if (std::signbit(x)) {
        expectSame("NaN has no sign", got, run(THEIRS, s, fmt, std::fabs(x)), fmt);
      } else {
        expectSame("same as C", got, want, fmt);
      }
      continue;
    }
    if (std::isinf(x)) {
      expectSame("same as C", got, want, fmt);
      continue;
    }
    int prec = s.effectivePrecision();
    if (lower == 'a') {
      // A tie on the dropped bits rounds away from zero, not to even.
      uint64_t b;
      memcpy(&b, &x, sizeof b);
      uint64_t m = b & ((1ull << 52) - 1);
      bool tie = false;
      if (prec >= 0 && prec < 13) {
        uint64_t dropped = m & ((1ull << (52 - 4 * prec)) - 1);
        tie = dropped == (1ull << (51 - 4 * prec));
      }
      if (tie) {
        double nudged = std::nextafter(x, std::copysign(INFINITY, x));
        expectSame("hex tie rounds away from zero", got, run(THEIRS, s, fmt, nudged), fmt);
      } else {
        expectSame("same as C", got, want, fmt);
      }
      continue;
    }
    Shortest sh = shortestOf(x);
    bool exact = exactDigitsOf(x) == sh.digits;
    int P = prec < 0 ? 6 : prec;
    int k = lower == 'e' ? P + 1 : lower == 'f' ? sh.point + P : (P == 0 ? 1 : P);
    if (lower == 'g' && x != 0) {
      Shortest r = roundHalfEven(sh, k);
      int gp = P == 0 ? 1 : P;
      if (sh.point >= -3 && sh.point <= gp && r.point > gp) {
        // The choice of form is made before rounding: 999999.5 is "1000000", not "1e+06".
        FormatCase f = s;
        f.conv = conv == 'G' ? 'F' : 'f';
        f.precision_star = false, f.bare_dot = false, f.precision = 0;
        double rounded = static_cast<double>(valueOf(r, std::signbit(x)));
        expectSame("%g form chosen before rounding", got, run(THEIRS, f, f.format(), rounded), fmt);
        continue;
      }
    }
    if (!exact && k >= static_cast<int>(sh.digits.size())) {
      // Digits past the shortest ones are zeros, not the binary value's expansion.
      ++counts["shortest digits then zeros"];
      // All the shortest digits are shown, so the text reads back as the same double.
      EXPECT_EQ(strtod(got.c_str() + 1, nullptr), x) << fmt << " " << got;
      if (k <= 19) {
        std::string fl = s.format("", "L");
        EXPECT_EQ(got, run(THEIRS, s, fl, valueOf(sh, std::signbit(x)))) << fmt;
      }
    } else if (!exact && k >= 0 && k == static_cast<int>(sh.digits.size()) - 1 &&
               sh.digits.back() == '5') {
      // A tie on the shortest digits goes to even, whatever the binary value says.
      std::string fl = s.format("", "L");
      expectSame("tie on the shortest digits", got,
                 run(THEIRS, s, fl, valueOf(roundHalfEven(sh, k), std::signbit(x))), fmt);
    } else {
      expectSame("same as C", got, want, fmt);
    }
  }
  for (const char *cls : {"shortest digits then zeros", "tie on the shortest digits",
                          "hex tie rounds away from zero", "NaN has no sign"})
    EXPECT_GT(counts[cls], 5) << cls;
}

TEST_F(Differential, FloatGrouping) {
  // Values whose decimal text is exact, so only the commas differ from C.
  for (int iter = 0; iter < 3000; ++iter) {
    FormatCase s = randomCase(" +#", "fFgG"[pick(4)]);
    s.flags += '\'';
    s.width = -1, s.width_star = false;
    double x = static_cast<double>(bits() % 100000000000ull) / (1 << pick(6));
    if (coin(2)) x = -x;
    std::string fmt = s.format();
    std::string plain = run(THEIRS, s, s.format("'"), x);
    size_t start = plain.find_first_of("0123456789");
    size_t end = plain.find_first_not_of("0123456789", start);
    std::string digits = plain.substr(start, end - start);
    if (plain.find_first_of("eE") == std::string::npos) {
      std::string grouped;
      for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
      }
      plain.replace(start, end - start, grouped);
    }
    expectSame("digit grouping", run(OURS, s, fmt, x), plain, fmt);
  }
}

}  // namespace
