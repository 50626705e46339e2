#include "basicutil/PrintFloatingPoint.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>

using morvek::DoubleToStringShortest;
using morvek::DoubleWithSignificantFigures;
using morvek::Str;

namespace {

Str plain(double x) {
  Str s;
  DoubleToStringShortest(x).appendPlainText(s);
  return s;
}

Str significant(double x, uint16_t sigfigs, uint16_t precision) {
  Str s;
  morvek::append_stringified(s, DoubleWithSignificantFigures(x, sigfigs, precision));
  return s;
}

TEST(DoubleShortest, PlainTextNeverUsesAnExponent) {
  const std::pair<double, const char *> cases[] = {
      // clang-format off
      {-0.0, "-0"}, {1500.0, "1500"}, {-0.00125, "-0.00125"}, {5e-324, nullptr}, {DBL_MAX, nullptr},
      {-123.0625, "-123.0625"},
      // clang-format on
  };
  for (const auto &[x, text] : cases) {
    Str s = plain(x);
    if (text) {
      EXPECT_EQ(s, text) << x;
    }
    EXPECT_EQ(s.find('e'), Str::npos);
    // The text reads back as the same double, and the raw-buffer form agrees with it.
    EXPECT_EQ(strtod(s.c_str(), nullptr), x) << s;
    DoubleToStringShortest d(x);
    char small[4], buf[400];
    EXPECT_EQ(d.writePlainText(small, sizeof small), s.size());
    ASSERT_EQ(d.writePlainText(buf, sizeof buf), s.size());
    EXPECT_STREQ(buf, s.c_str());
  }
  EXPECT_EQ(plain(5e-324).size(), 2u + 323u + 1u);
}

TEST(DoubleShortest, SignificantFiguresPlacesAndNonfiniteNames) {
  // Nines carry and keep their places; figures never cut into the integer part; a positive tie
  // goes up, a negative one toward positive infinity unless more digits follow; the places may
  // end before the first digit.
  const std::tuple<double, uint16_t, uint16_t, const char *> cases[] = {
      // clang-format off
      {1.995, 3, 10, "2.00"}, {12345.0, 2, 5, "12345"}, {0.125, 2, 10, "0.13"},
      {-0.125, 2, 10, "-0.12"}, {-0.1251, 2, 10, "-0.13"}, {3.14159, 10, 2, "3.14"},
      {0.004, 3, 2, "0"}, {0.006, 3, 2, "0.01"}, {9.96, 2, 5, "10"}, {2.71828, 65535, 3, "2.718"},
      {-INFINITY, 3, 2, "-Infinity"},
      // clang-format on
  };
  for (const auto &[x, sigfigs, precision, text] : cases)
    EXPECT_EQ(significant(x, sigfigs, precision), text) << x << " " << sigfigs << " " << precision;
  EXPECT_EQ(morvek::get_nonfinite_double_repl(-NAN).view(), "NaN");
  EXPECT_DEATH(DoubleToStringShortest d(NAN), "double_is_finite");
  DoubleToStringShortest d(1.0);
  EXPECT_DEATH(morvek::roundForSigfigsAndPrecision(d, DoubleWithSignificantFigures(1.0, 3)),
               "MAX_PRECISION");
}

TEST(DoubleParse, WholeTextFiniteOnly) {
  double v = 0;
  // Not NUL-terminated: only the given length counts.
  EXPECT_TRUE(morvek::parseDoubleStrict("1.5e3", 5, v) && v == 1500.0);
  EXPECT_TRUE(morvek::parseDoubleAllowingSpaces("  -2.25 ", 8, v) && v == -2.25);
  EXPECT_TRUE(morvek::parseDoubleStrict("7.5xyz", 3, v) && v == 7.5);
  v = 99;
  for (const char *bad : {" 1", "1 ", "", "inf", "1e400", "0x10"})
    EXPECT_FALSE(morvek::parseDoubleStrict(bad, strlen(bad), v)) << bad;
  EXPECT_FALSE(morvek::parseDoubleAllowingSpaces("1 2", 3, v));
  EXPECT_FALSE(morvek::parseDoubleAllowingSpaces(nullptr, 0, v));
  EXPECT_EQ(v, 99);
}

}  // namespace
