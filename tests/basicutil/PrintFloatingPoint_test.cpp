#include "basicutil/PrintFloatingPoint.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>

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
  struct {
    double x;
    const char *text;
  } cases[] = {{0.0, "0"},           {-0.0, "-0"},
               {1.0, "1"},           {1500.0, "1500"},
               {2.5, "2.5"},         {-0.00125, "-0.00125"},
               {0.1, "0.1"},         {1e21, "1000000000000000000000"},
               {123.456, "123.456"}, {5e-324, nullptr},
               {DBL_MAX, nullptr}};
  for (auto &c : cases) {
    Str s = plain(c.x);
    if (c.text) {
      EXPECT_EQ(s, c.text) << c.x;
    }
    EXPECT_EQ(s.find('e'), Str::npos);
    // The text reads back as the same double, and the raw-buffer form agrees with it.
    EXPECT_EQ(strtod(s.c_str(), nullptr), c.x) << s;
    DoubleToStringShortest d(c.x);
    char small[4];
    EXPECT_EQ(d.writePlainText(small, sizeof small), s.size());
    char buf[400];
    ASSERT_EQ(d.writePlainText(buf, sizeof buf), s.size());
    EXPECT_STREQ(buf, s.c_str());
  }
  EXPECT_EQ(plain(5e-324).size(), 2u + 323u + 1u);
}

TEST(DoubleShortest, RandomValuesRoundTrip) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < 20000; ++i) {
    uint64_t b = rng();
    double x;
    memcpy(&x, &b, sizeof x);
    if (!std::isfinite(x)) continue;
    Str s = plain(x);
    ASSERT_EQ(strtod(s.c_str(), nullptr), x) << s;
    DoubleToStringShortest d(x);
    ASSERT_TRUE(d.length == 1 || d.digits[d.length - 1] != '0') << d.digits;
  }
}

TEST(DoubleShortest, NonfiniteNames) {
  EXPECT_EQ(morvek::get_nonfinite_double_repl(INFINITY).view(), "Infinity");
  EXPECT_EQ(morvek::get_nonfinite_double_repl(-INFINITY).view(), "-Infinity");
  EXPECT_EQ(morvek::get_nonfinite_double_repl(-NAN).view(), "NaN");
  EXPECT_EQ(significant(-INFINITY, 3, 2), "-Infinity");
  EXPECT_DEATH(DoubleToStringShortest d(NAN), "double_is_finite");
}

TEST(DoubleShortest, SignificantFiguresAndPlaces) {
  struct {
    double x;
    uint16_t sigfigs, precision;
    const char *text;
  } cases[] = {
      {1.995, 3, 10, "2.00"},     // nines carry and keep their places
      {12345.0, 2, 5, "12345"},   // figures never cut into the integer part
      {0.125, 2, 10, "0.13"},     // a positive tie goes up
      {-0.125, 2, 10, "-0.12"},   // a negative tie goes toward positive infinity
      {-0.1251, 2, 10, "-0.13"},  // unless more digits follow
      {3.14159, 10, 2, "3.14"},     {0.004, 3, 2, "0"},
      {0.006, 3, 2, "0.01"},        {0.0004, 3, 2, "0"},  // the places end before the first digit
      {9.96, 2, 5, "10"},           {42.0, 65535, 65535, "42"},
      {2.71828, 65535, 3, "2.718"}, {271828.0, 3, 65535, "271828"},
  };
  for (auto &c : cases)
    EXPECT_EQ(significant(c.x, c.sigfigs, c.precision), c.text)
        << c.x << " " << c.sigfigs << " " << c.precision;
  DoubleToStringShortest d(1.0);
  EXPECT_DEATH(morvek::roundForSigfigsAndPrecision(d, DoubleWithSignificantFigures(1.0, 3)),
               "MAX_PRECISION");
}

TEST(DoubleParse, WholeTextFiniteOnly) {
  double v = 0;
  EXPECT_TRUE(morvek::parseDoubleStrict("1.5e3", 5, v));
  EXPECT_EQ(v, 1500.0);
  EXPECT_TRUE(morvek::parseDoubleAllowingSpaces("  -2.25 ", 8, v));
  EXPECT_EQ(v, -2.25);
  // Not NUL-terminated: only the given length counts.
  EXPECT_TRUE(morvek::parseDoubleStrict("7.5xyz", 3, v));
  EXPECT_EQ(v, 7.5);
  v = 99;
  for (const char *bad : {" 1", "1 ", "1x", "", "inf", "nan", "1e400", "--1", "0x10"})
    EXPECT_FALSE(morvek::parseDoubleStrict(bad, strlen(bad), v)) << bad;
  EXPECT_FALSE(morvek::parseDoubleAllowingSpaces("1 2", 3, v));
  EXPECT_FALSE(morvek::parseDoubleAllowingSpaces(nullptr, 0, v));
  EXPECT_EQ(v, 99);
}

}  // namespace
