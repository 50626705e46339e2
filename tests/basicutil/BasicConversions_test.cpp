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

using morvek::ByteSize;
using morvek::Str;
using morvek::StrSegment;

// What the parsers accept is checked against from_chars in the fast-path differential test.
TEST(DecimalParsing, FailureOutputsAndDefaults) {
  uint32_t u = 0;
  EXPECT_FALSE(morvek::parse_unsigned_val("5\n", 2, u));  // a newline is not a blank
  // The raw form keeps what it had read when the range ran out.
  uint64_t raw = 0;
  const char *text = "70000";
  EXPECT_FALSE(morvek::parse_unsigned_val(text, text + 5, raw, 65535));
  EXPECT_EQ(raw, 7000u);

  EXPECT_EQ(morvek::fetchOr(" \t-3", 4, int64_t(0)), -3);  // blanks before the sign
  EXPECT_EQ(morvek::fetchOr("70000", 5, uint16_t(1)), 1);
  EXPECT_EQ(morvek::fetchInBaseOr(StrSegment("ff"), uint32_t(1), 16), 255u);
  EXPECT_EQ(morvek::fetchInBaseOr(StrSegment("fg"), int64_t(-1), 16), -1);
}

template <class T>
void appendNumberAtBoundaries() {
  using L = std::numeric_limits<T>;
  for (T v : {L::min(), T(L::min() + 1), T(0), T(9), T(10), L::max()}) {
    Str s;
    morvek::appendNumber(s, v);
    EXPECT_EQ(s, std::to_string(v));
  }
}

TEST(DecimalWriters, AppendNumberAtTypeBoundaries) {
  appendNumberAtBoundaries<int16_t>(), appendNumberAtBoundaries<int32_t>();
  appendNumberAtBoundaries<int64_t>(), appendNumberAtBoundaries<uint16_t>();
  appendNumberAtBoundaries<uint32_t>(), appendNumberAtBoundaries<uint64_t>();
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

TEST(FetchInBase, RangeEdgesEmbeddedNulAndLongText) {
  int64_t s64 = 0;
  uint64_t u64 = 0;
  EXPECT_TRUE(morvek::fetchInBase("-9223372036854775808", s64, 10) && s64 == INT64_MIN);
  EXPECT_TRUE(morvek::fetchInBase("18446744073709551615", u64, 10) && u64 == UINT64_MAX);
  int32_t s = 0;
  EXPECT_FALSE(morvek::fetchInBase("2147483648", s, 10));
  EXPECT_FALSE(morvek::fetchInBase("-2147483649", s, 10));
  uint32_t u32 = 0;
  EXPECT_FALSE(morvek::fetchInBase("4294967296", u32, 10));
  EXPECT_FALSE(morvek::fetchInBase(StrSegment("12\0003", 4), u32, 10));
  // Longer than the stack buffer: the heap copy must parse the same.
  EXPECT_TRUE(morvek::fetchInBase(std::string(100, ' ') + "12345", u32, 10));
  EXPECT_EQ(u32, 12345u);
}

TEST(DoubleToInteger, BoundsAndExactness) {
  // Accepted by int16, int32, int64, uint16, uint32, uint64 in that order.
  struct Case {
    double v;
    const char *accepted;
  } cases[] = {
      // clang-format off
      {-32768.0, "111000"}, {-32768.4, "000000"}, {-32769.0, "011000"}, {65536.0, "011011"},
      {-0.0, "111111"}, {2147483648.0, "001011"}, {4294967296.0, "001001"},
      {9007199254740991.0, "001001"}, {9007199254740992.0, "000000"},
      {-9007199254740992.0, "001000"}, {std::nan(""), "000000"},
      // clang-format on
  };
  for (const Case &c : cases) {
    auto accepts = [&](auto out) { return "01"[morvek::doubleToInteger(c.v, out)]; };
    const std::string got = {accepts(int16_t()),  accepts(int32_t()),  accepts(int64_t()),
                             accepts(uint16_t()), accepts(uint32_t()), accepts(uint64_t())};
    EXPECT_EQ(got, c.accepted) << c.v;
    int64_t d = 0;
    if (morvek::doubleToInteger(c.v, d)) {
      EXPECT_EQ(static_cast<double>(d), c.v);
    }
  }
}

TEST(ParseBool, Words) {
  // 1 true, 0 false, -1 a failure.
  struct Case {
    const char *text;
    int want;
  } cases[] = {{"TRUE", 1}, {"Yes", 1}, {"t", 1},      {"no", 0},
               {"F", 0},    {"2", -1},  {" true", -1}, {"tru", -1}};
  for (const Case &c : cases) {
    bool v = c.want != 1;  // the opposite, so an untouched value shows
    bool ok = morvek::parseBool(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? int(v) : -1, c.want) << c.text;
    EXPECT_EQ(v, ok ? c.want == 1 : c.want != 1) << c.text;
  }
  EXPECT_TRUE(morvek::parseBoolOr("", 0, true, false));
  EXPECT_FALSE(morvek::parseBoolOr("maybe", 5, true, false));
}

TEST(ParseByteSize, UnitsLongFormsAndPlurals) {
  struct Case {
    const char *text;
    std::optional<uint64_t> decimal, binary;
  } cases[] = {
      // clang-format off
      {"1 KiB", 1024, 1024}, {"1kb", 1000, 1024}, {"00MB", 0, 0}, {"kB", {}, {}},
      {"1 parsec", {}, {}}, {"  12", 12, 12}, {"12 ", {}, {}}, {"3 MB \t", 3000000, 3145728},
      {"5 KILOBYTEs", 5000, 5120}, {"5 KILOBYTES", {}, {}}, {"7TB", 7000000000000, 7696581394432},
      {"18446744073709551616", {}, {}}, {"1.5MB", {}, {}},
      // clang-format on
  };
  for (const Case &c : cases) {
    uint64_t v = 42;
    bool ok = morvek::parseByteSize(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? std::optional<uint64_t>(v) : std::nullopt, c.decimal) << c.text;
    EXPECT_EQ(ok, v != 42);
    ok = morvek::parseByteSizeBinary(c.text, strlen(c.text), v);
    EXPECT_EQ(ok ? std::optional<uint64_t>(v) : std::nullopt, c.binary) << c.text;
  }
}

TEST(NumberText, ByteSizesHexAndDoubles) {
  struct Case {
    uint64_t value, hint;
    const char *want;
  } cases[] = {
      // clang-format off
      {1024, 0, "1KiB"}, {1536, 0, "1.500KiB"}, {1000, ByteSize::DECIMAL, "1kB"}, {1000, 0, "1000B"},
      {1023, ByteSize::BINARY, "1023B"}, {1048576, 4096, "1MiB"},
      {2500000, ByteSize::DECIMAL, "2.500MB"}, {5000000000000000, 10, "5000TB"},
      // clang-format on
  };
  for (const Case &c : cases) {
    Str s("x");
    morvek::appendByteSize(s, ByteSize{c.value, c.hint});
    EXPECT_EQ(s, std::string("x") + c.want);
  }

  Str h;
  morvek::appendHex(h, 0);
  morvek::appendHex(h, UINT64_MAX);
  morvek::appendHexUpper(h, 0xBEEF, 6);
  EXPECT_EQ(h, "0ffffffffffffffff00BEEF");

  Str d;
  morvek::appendDouble(d, 0.1);
  morvek::appendDouble(d, -INFINITY);
  morvek::appendDouble(d, 1e-7);
  EXPECT_EQ(d, "0.1-Infinity0.0000001");
}

}  // namespace
