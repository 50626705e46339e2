#include "basicutil/BasicConversions.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <string_view>

namespace {

// The digit count comes from the bit length; the places it can go wrong are the powers of ten
// and of two, so every one of them is checked on both sides.
TEST(DecimalWriters, DigitCountsAtEveryBoundary) {
  std::vector<uint64_t> values = {0, UINT64_MAX, UINT32_MAX, uint64_t(UINT32_MAX) + 1};
  for (uint64_t p = 1; p <= UINT64_MAX / 10; p *= 10) {
    for (uint64_t v : {p - 1, p, p + 1, p * 10 - 1}) values.push_back(v);
  }
  for (int b = 0; b < 64; ++b) {
    uint64_t p = uint64_t(1) << b;
    for (uint64_t v : {p - 1, p, p + 1}) values.push_back(v);
  }
  for (uint64_t v : values) {
    std::string want = std::to_string(v);
    char buf[morvek::DECIMAL_U64_MAX_DIGITS];
    ASSERT_EQ(morvek::decimalDigitCountU64(v), want.size()) << v;
    ASSERT_EQ(std::string(buf, morvek::writeDecimalU64(buf, v)), want);
    if (v <= UINT32_MAX) {
      auto v32 = static_cast<uint32_t>(v);
      ASSERT_EQ(morvek::decimalDigitCountU32(v32), want.size()) << v;
      ASSERT_EQ(std::string(buf, morvek::writeDecimalU32(buf, v32)), want);
    }
  }
}

TEST(DecimalWriters, SignedExtremes) {
  char buf[morvek::DECIMAL_I64_MAX_CHARS];
  for (int64_t v : {int64_t(0), int64_t(-1), int64_t(-10), INT64_MIN, INT64_MAX}) {
    ASSERT_EQ(std::string(buf, morvek::writeDecimalI64(buf, v)), std::to_string(v));
  }
  char buf32[morvek::DECIMAL_I32_MAX_CHARS];
  for (int32_t v : {0, -1, -99, INT32_MIN, INT32_MAX}) {
    ASSERT_EQ(std::string(buf32, morvek::writeDecimalI32(buf32, v)), std::to_string(v));
  }
}

}  // namespace

namespace {

using morvek::ByteSize;
using morvek::Str;
using morvek::StrSegment;

template <class T>
std::optional<T> unsignedVal(std::string_view s) {
  T v{};
  if (!morvek::parse_unsigned_val(s.data(), s.size(), v)) return std::nullopt;
  return v;
}

template <class T>
std::optional<T> signedVal(std::string_view s) {
  T v{};
  if (!morvek::do_signed_fetch(s.data(), s.size(), v)) return std::nullopt;
  return v;
}

TEST(DecimalParsing, UnsignedAcceptsBlanksAroundDigitsOnly) {
  struct Case {
    const char *text;
    std::optional<uint16_t> want;
  } cases[] = {
      {" 42 ", 42}, {"\t7\t", 7},     {"4 2", {}},   {"", {}},
      {" ", {}},    {"65535", 65535}, {"65536", {}}, {"+1", {}},
      {"-1", {}},   {"-0", {}},       {"12a", {}},   {"0x10", {}},
      {"007", 7},   {"\n5", {}},      {"5\n", {}},   {"99999999999999999999999", {}},
  };
  for (const Case &c : cases) EXPECT_EQ(unsignedVal<uint16_t>(c.text), c.want) << c.text;
  EXPECT_EQ(unsignedVal<uint32_t>("4294967295"), 4294967295u);
  EXPECT_EQ(unsignedVal<uint32_t>("4294967296"), std::nullopt);
  EXPECT_EQ(unsignedVal<uint64_t>("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(unsignedVal<uint64_t>("18446744073709551616"), std::nullopt);
  EXPECT_EQ(unsignedVal<uint64_t>("18446744073709551620"), std::nullopt);
  // Leading zeros past the width where overflow becomes possible still parse.
  EXPECT_EQ(unsignedVal<uint16_t>("000000000000000000000065535 "), 65535);
  EXPECT_EQ(unsignedVal<uint64_t>("0000018446744073709551615"), UINT64_MAX);
  EXPECT_EQ(unsignedVal<uint64_t>("0000018446744073709551616"), std::nullopt);
}

TEST(DecimalParsing, FailureLeavesTypedOutputAlone) {
  uint32_t u = 77;
  EXPECT_FALSE(morvek::parse_unsigned_val("12x", 3, u));
  EXPECT_EQ(u, 77u);
  int16_t s = 77;
  EXPECT_FALSE(morvek::do_signed_fetch("32768", 5, s));
  EXPECT_EQ(s, 77);
  // The raw form keeps what it had read, which callers use for diagnostics.
  uint64_t raw = 0;
  const char *text = "70000";
  EXPECT_FALSE(morvek::parse_unsigned_val(text, text + 5, raw, 65535));
  EXPECT_EQ(raw, 7000u);
}

TEST(DecimalParsing, SignedRangesAndLooseMinus) {
  EXPECT_EQ(signedVal<int16_t>("-32768"), int16_t(-32768));
  EXPECT_EQ(signedVal<int16_t>("-32769"), std::nullopt);
  EXPECT_EQ(signedVal<int16_t>("32768"), std::nullopt);
  EXPECT_EQ(signedVal<int16_t>("32767"), int16_t(32767));
  EXPECT_EQ(signedVal<int32_t>("-2147483648"), INT32_MIN);
  EXPECT_EQ(signedVal<int64_t>("-9223372036854775808"), INT64_MIN);
  EXPECT_EQ(signedVal<int64_t>("9223372036854775808"), std::nullopt);
  EXPECT_EQ(signedVal<int32_t>("- 1"), -1);
  EXPECT_EQ(signedVal<int32_t>("  -12 "), -12);
  for (const char *bad : {"", " ", "-", "--1", "+1", "1-", "- "}) {
    EXPECT_EQ(signedVal<int32_t>(bad), std::nullopt) << bad;
  }
  int32_t v = 5;
  EXPECT_FALSE(morvek::do_signed_fetch(nullptr, 3, v));
  EXPECT_EQ(morvek::fetchOr("x", 1, int32_t(-9)), -9);
  EXPECT_EQ(morvek::fetchOr("-3", 2, int64_t(0)), -3);
  EXPECT_EQ(morvek::fetchOr("70000", 5, uint16_t(1)), 1);
  EXPECT_EQ(morvek::fetchOr("65000", 5, uint16_t(1)), 65000);
}

// Rendering then parsing must give the value back at every type boundary.
template <class T>
void expectRoundTrip(T v) {
  Str s;
  morvek::appendNumber(s, v);
  ASSERT_EQ(s, std::to_string(v));
  T back{};
  if constexpr (std::is_signed_v<T>) {
    ASSERT_TRUE(morvek::do_signed_fetch(s.data(), s.size(), back)) << s;
    int64_t wide = 0;
    ASSERT_TRUE(morvek::fetchInBase(s, wide, 10)) << s;
    ASSERT_EQ(wide, v);
  } else {
    ASSERT_TRUE(morvek::parse_unsigned_val(s.data(), s.size(), back)) << s;
    uint64_t wide = 0;
    ASSERT_TRUE(morvek::fetchInBase(s, wide, 10)) << s;
    ASSERT_EQ(wide, v);
  }
  ASSERT_EQ(back, v);
}

template <class T>
void roundTripBoundaries() {
  using L = std::numeric_limits<T>;
  for (T v : {L::min(), T(L::min() + 1), T(0), T(1), T(9), T(10), T(L::max() - 1), L::max()}) {
    expectRoundTrip(v);
  }
  if constexpr (std::is_signed_v<T>) expectRoundTrip(T(-1));
}

TEST(DecimalParsing, AppendNumberRoundTripsAtTypeBoundaries) {
  roundTripBoundaries<int16_t>();
  roundTripBoundaries<int32_t>();
  roundTripBoundaries<int64_t>();
  roundTripBoundaries<uint16_t>();
  roundTripBoundaries<uint32_t>();
  roundTripBoundaries<uint64_t>();
}

// The base-honouring family defers to the C library: random texts must get the C library's
// answer except where the stated rules differ (trailing text, '-' for unsigned, range).
TEST(FetchInBase, AgreesWithCLibrary) {
  std::mt19937_64 rng(20240611);
  const char alphabet[] = " \t+-0123456789abcdefxXz";
  for (int i = 0; i < 20000; ++i) {
    std::string s;
    const size_t n = rng() % 24;
    for (size_t k = 0; k < n; ++k) s.push_back(alphabet[rng() % (sizeof(alphabet) - 1)]);
    const int base = std::array{0, 8, 10, 16, 36}[rng() % 5];

    char *end = nullptr;
    errno = 0;
    long long sref = strtoll(s.c_str(), &end, base);
    bool sok = end != s.c_str() && *end == '\0' &&
               !(errno == ERANGE && (sref == LLONG_MAX || sref == LLONG_MIN));
    int64_t sv = 0;
    ASSERT_EQ(morvek::fetchInBase(s, sv, base), sok) << s << " base " << base;
    if (sok) {
      ASSERT_EQ(sv, sref);
    }

    errno = 0;
    unsigned long long uref = strtoull(s.c_str(), &end, base);
    bool uok = end != s.c_str() && *end == '\0' && !(errno == ERANGE && uref == ULLONG_MAX) &&
               StrSegment(s).trimmed().find('-') != 0;
    uint64_t uv = 0;
    ASSERT_EQ(morvek::fetchInBase(s, uv, base), uok) << s << " base " << base;
    if (uok) {
      ASSERT_EQ(uv, uref);
    }
  }
}

TEST(FetchInBase, RulesOfItsOwn) {
  uint64_t u = 9;
  EXPECT_FALSE(morvek::fetchInBase(" -1", u, 10));  // strtoull would wrap it
  EXPECT_EQ(u, 9u);
  EXPECT_TRUE(morvek::fetchInBase("0x1F", u, 0));
  EXPECT_EQ(u, 31u);
  int32_t s = 0;
  EXPECT_FALSE(morvek::fetchInBase("2147483648", s, 10));
  EXPECT_TRUE(morvek::fetchInBase("-2147483648", s, 10));
  EXPECT_EQ(s, INT32_MIN);
  uint32_t u32 = 0;
  EXPECT_FALSE(morvek::fetchInBase("4294967296", u32, 10));
  EXPECT_FALSE(morvek::fetchInBase(StrSegment("12\0"
                                              "3",
                                              4),
                                   u32, 10));
  // A text longer than the stack buffer takes the heap copy and must still parse exactly.
  std::string longText(100, ' ');
  longText += "12345";
  EXPECT_TRUE(morvek::fetchInBase(longText, u32, 10));
  EXPECT_EQ(u32, 12345u);
  EXPECT_EQ(morvek::fetchInBaseOr(StrSegment("ff"), uint32_t(1), 16), 255u);
  EXPECT_EQ(morvek::fetchInBaseOr(StrSegment("fg"), int64_t(-1), 16), -1);
}

TEST(DoubleToInteger, BoundsAndExactness) {
  struct Case {
    double v;
    bool i16, i32, i64, u16, u32, u64;
  } cases[] = {
      {-32768.0, true, true, true, false, false, false},
      {-32768.4, false, false, false, false, false, false},
      {-32769.0, false, true, true, false, false, false},
      {32767.0, true, true, true, true, true, true},
      {65535.0, false, true, true, true, true, true},
      {65536.0, false, true, true, false, true, true},
      {-0.0, true, true, true, true, true, true},
      {1.5, false, false, false, false, false, false},
      {-2147483648.0, false, true, true, false, false, false},
      {2147483648.0, false, false, true, false, true, true},
      {4294967295.0, false, false, true, false, true, true},
      {4294967296.0, false, false, true, false, false, true},
      {9007199254740991.0, false, false, true, false, false, true},
      {9007199254740992.0, false, false, false, false, false, false},
      {-9007199254740992.0, false, false, true, false, false, false},
      {-9007199254740994.0, false, false, false, false, false, false},
      {std::nan(""), false, false, false, false, false, false},
      {INFINITY, false, false, false, false, false, false},
  };
  for (const Case &c : cases) {
    int16_t a;
    int32_t b;
    int64_t d;
    uint16_t e;
    uint32_t f;
    uint64_t g;
    EXPECT_EQ(morvek::doubleToInteger(c.v, a), c.i16) << c.v;
    EXPECT_EQ(morvek::doubleToInteger(c.v, b), c.i32) << c.v;
    EXPECT_EQ(morvek::doubleToInteger(c.v, d), c.i64) << c.v;
    EXPECT_EQ(morvek::doubleToInteger(c.v, e), c.u16) << c.v;
    EXPECT_EQ(morvek::doubleToInteger(c.v, f), c.u32) << c.v;
    EXPECT_EQ(morvek::doubleToInteger(c.v, g), c.u64) << c.v;
    if (c.i64) {
      EXPECT_EQ(static_cast<double>(d), c.v);
    }
  }
}

TEST(ParseBool, Words) {
  struct Case {
    const char *text;
    int want;  // -1 failure
  } cases[] = {{"TRUE", 1}, {"Yes", 1},   {"t", 1},     {"1", 1},  {"no", 0},
               {"F", 0},    {"0", 0},     {"FaLsE", 0}, {"2", -1}, {" true", -1},
               {"tru", -1}, {"yes ", -1}, {"", -1}};
  for (const Case &c : cases) {
    bool v = c.want != 1;  // the opposite, so an untouched value shows
    bool ok = morvek::parseBool(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? int(v) : -1, c.want) << c.text;
    if (!ok) {
      EXPECT_EQ(v, c.want != 1) << c.text;
    }
  }
  EXPECT_TRUE(morvek::parseBoolOr("", 0, true, false));
  EXPECT_FALSE(morvek::parseBoolOr("maybe", 5, true, false));
  EXPECT_FALSE(morvek::parseBoolOr("off", 3, true, false));
  EXPECT_TRUE(morvek::parseBoolOr("YES", 3, false, false));
}

TEST(ParseByteSize, UnitsLongFormsAndPlurals) {
  struct Case {
    const char *text;
    std::optional<uint64_t> decimal, binary;
  } cases[] = {
      {"1kB", 1000, 1024},
      {"1 KiB", 1024, 1024},
      {"1kb", 1000, 1024},
      {"0", 0, 0},
      {"00MB", 0, 0},
      {"kB", {}, {}},
      {"1 parsec", {}, {}},
      {"  12", 12, 12},
      {"12 ", {}, {}},
      {"3 MB \t", 3000000, 3145728},
      {"2 gigabytes", 2000000000, 2147483648},
      {"1 bytes", 1, 1},
      {"5 KILOBYTEs", 5000, 5120},
      {"5 KILOBYTES", {}, {}},
      {"1 tebibyte", 1099511627776, 1099511627776},
      {"7TB", 7000000000000, 7696581394432},
      {"18446744073709551615", UINT64_MAX, UINT64_MAX},
      {"18446744073709551616", {}, {}},
      {"000018446744073709551615", UINT64_MAX, UINT64_MAX},
      {"123456789012345678901", {}, {}},
      {"1.5MB", {}, {}},
      {"", {}, {}},
      {"-1", {}, {}},
  };
  for (const Case &c : cases) {
    uint64_t v = 42;
    bool ok = morvek::parseByteSize(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? std::optional<uint64_t>(v) : std::nullopt, c.decimal) << c.text;
    if (!ok) {
      EXPECT_EQ(v, 42u);
    }
    ok = morvek::parseByteSizeBinary(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? std::optional<uint64_t>(v) : std::nullopt, c.binary) << c.text;
  }
  // Products past 64 bits wrap rather than fail.
  uint64_t v = 0;
  ASSERT_TRUE(morvek::parseByteSizeBinary("16777216 TiB", 12, v));
  EXPECT_EQ(v, 0u);
}

TEST(NumberText, ByteSizesHexAndDoubles) {
  struct Case {
    uint64_t value, hint;
    const char *want;
  } cases[] = {
      {1024, 0, "1KiB"},
      {1536, 0, "1.500KiB"},
      {1000, ByteSize::DECIMAL, "1kB"},
      {1000, 0, "1000B"},
      {999, ByteSize::DECIMAL, "999B"},
      {1023, ByteSize::BINARY, "1023B"},
      {1048576, 4096, "1MiB"},
      {2500000, ByteSize::DECIMAL, "2.500MB"},
      {uint64_t(3) << 40, 0, "3TiB"},
      {5000000000000000, 10, "5000TB"},
      {0, 0, "0B"},
  };
  for (const Case &c : cases) {
    Str s("x");
    morvek::appendByteSize(s, ByteSize{c.value, c.hint});
    EXPECT_EQ(s, std::string("x") + c.want);
  }

  Str h;
  morvek::appendHex(h, 0);
  morvek::appendHex(h, 0xBEEF);
  morvek::appendHexUpper(h, 0xBEEF, 6);
  morvek::appendHex(h, UINT64_MAX);
  morvek::appendHex(h, 0xab, 1);
  EXPECT_EQ(h, "0beef00BEEFffffffffffffffffab");

  Str d;
  for (double x : {0.1, 1500.0, -2.5, 1e-7, 0.0}) {
    d.clear();
    morvek::appendDouble(d, x);
    EXPECT_EQ(strtod(d.c_str(), nullptr), x) << d;
    EXPECT_EQ(d.find('e'), Str::npos) << d;
  }
  d.clear();
  morvek::appendDouble(d, 0.1);
  morvek::appendDouble(d, -INFINITY);
  morvek::appendDouble(d, NAN);
  EXPECT_EQ(d, "0.1-InfinityNaN");
}

}  // namespace
