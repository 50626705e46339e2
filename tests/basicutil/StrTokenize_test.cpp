// The tokenizers, the line accumulator and natural ordering.
#include <gtest/gtest.h>

#include "basicutil/Str.h"
#include "basicutil/StrVector.h"

using namespace morvek;

namespace {

constexpr uint32_t kNoLimit = StrSegment::SPLIT_NO_LIMIT;

// Tokens shown as "[a][][b]", so that no tokens and one empty token differ.
template <class Seq>
std::string show(const Seq &tokens) {
  std::string out;
  for (const auto &t : tokens) out += "[" + std::string(t.data(), t.size()) + "]";
  return out;
}

// Runs one split through all three forms and checks that they agree.
template <class Sep>
std::string splitAll(const char *input, Sep sep, uint32_t limit, bool skipping) {
  StrSegment in(input);
  std::vector<StrSegment> segs;
  StrVector strs;
  struct Collect : StrSegmentTokenAcceptor {
    std::vector<std::string> got;
    void acceptToken(const StrSegment &t) override { got.emplace_back(t.data(), t.size()); }
  } collect;
  if (skipping) {
    in.splitSkippingEmpty(segs, sep, limit);
    in.splitSkippingEmpty(strs, sep, limit);
    in.splitSkippingEmpty(collect, sep, limit);
  } else {
    in.split(segs, sep, limit);
    in.split(strs, sep, limit);
    in.split(collect, sep, limit);
  }
  EXPECT_EQ(show(strs), show(segs));
  EXPECT_EQ(show(collect.got), show(segs));
  return show(segs);
}

struct SplitCase {
  const char *input, *sep;
  uint32_t limit;
  const char *split, *skipping;
};

TEST(StrSplit, Separators) {
  const SplitCase cases[] = {
      // clang-format off
      {"a,,b", ",", kNoLimit, "[a][][b]", "[a][b]"}, {",,a,b,", ",", 0, "[,,a,b,]", "[a,b,]"},
      {"", ",", kNoLimit, "", ""}, {",", ",", kNoLimit, "[][]", ""},
      {",,a,,b,,", ",", 1, "[][,a,,b,,]", "[a][b,,]"},
      {"a::b::::c", "::", kNoLimit, "[a][b][][c]", "[a][b][c]"},
      {"a::b::c", "::", 1, "[a][b::c]", "[a][b::c]"}, {"a:::b", "::", kNoLimit, "[a][:b]", "[a][:b]"},
      {"a:", "::", kNoLimit, "[a:]", "[a:]"}, {"::::a::b::", "::", 0, "[::::a::b::]", "[a::b::]"},
      // The empty separator cuts single bytes and never leaves an empty token behind.
      {"abcd", "", 2, "[a][b][cd]", "[a][b][cd]"}, {"ab", "", 2, "[a][b]", "[a][b]"},
      {"ab", "", 0, "[ab]", "[ab]"},
      // clang-format on
  };
  for (const SplitCase &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << '"' << c.input << "\" by \"" << c.sep << "\" limit " << c.limit);
    auto check = [&](auto sep) {
      EXPECT_EQ(splitAll(c.input, sep, c.limit, false), c.split);
      EXPECT_EQ(splitAll(c.input, sep, c.limit, true), c.skipping);
    };
    check(StrSegment(c.sep));
    // A byte, a one-byte string and a one-member set separate alike.
    if (strlen(c.sep) == 1) check(c.sep[0]), check(ByteSet(c.sep, true));
  }
  EXPECT_EQ(splitAll("a b\tc", BYTESET_BLANKS, kNoLimit, false), "[a][b][c]");
}

TEST(StrSplitLines, Table) {
  const std::pair<const char *, const char *> cases[] = {
      {"a\r\nb\r", "[a][b\r]"}, {"\r\n", "[]"}, {"a\n\nb", "[a][][b]"}, {"x\r\r\n", "[x\r]"}};
  for (const auto &[input, lines] : cases) {
    std::vector<StrSegment> segs;
    StrSegment(input).splitLines(segs);
    EXPECT_EQ(show(segs), lines) << input;
    StrVector strs{"pre"};  // appended to, not replaced
    Str(input).splitLines(strs);
    EXPECT_EQ(show(strs), "[pre]" + std::string(lines)) << input;
  }
}

TEST(StrAccumulateLine, LinesAcrossBuffers) {
  Str line;
  StrSegment first("ab\r"), second("\ncd");
  EXPECT_TRUE(!accumulateLine(first, line) && first.empty());
  EXPECT_TRUE(accumulateLine(second, line));
  EXPECT_EQ(line, "ab") << "the CR came with the previous buffer";
  EXPECT_EQ(second, StrSegment("cd"));

  line = "q\r";
  StrSegment both("x\r\r\ny");
  EXPECT_TRUE(accumulateLine(both, line));
  EXPECT_EQ(line, "q\rx\r") << "only the CR right before the LF goes";
  EXPECT_EQ(both, StrSegment("y"));
}

TEST(StrNatural, Chunks) {
  struct Case {
    const char *input, *chunk, *rest;
    size_t result;
  } cases[] = {
      {"abc12", "abc", "12", StrSegment::npos}, {"0012x", "0012", "x", 2}, {"000", "000", "", 3}};
  for (const Case &c : cases) {
    StrSegment in(c.input), chunk;
    EXPECT_EQ(getNextChunk(in, chunk), c.result) << c.input;
    EXPECT_EQ(chunk, StrSegment(c.chunk)) << c.input;
    EXPECT_EQ(in, StrSegment(c.rest)) << c.input;
  }
  StrSegment empty, chunk;
  EXPECT_DEATH(getNextChunk(empty, chunk), "p < pend");
}

// "a < b": a sorts first; "~<" compares caselessly. Each pair is also checked the other way round.
TEST(StrNatural, Ordering) {
  const char *const pairs[] = {
      "a < a1",     "x10 > x9", "x010 = x10", "a007 = a7", "FILE2 ~< file10", "B < a", "B ~> a",
      "x2y < x02z", "1 < a",    "a00b < a0c", "ab1 < ab-", "x19 < x100",      " < a"};
  for (std::string c : pairs) {
    size_t at = c.find_first_of("<=>");
    bool caseless = c[at - 1] == '~';
    std::string a = c.substr(0, at - 1 - caseless), b = c.substr(at + 2);
    int order = c[at] == '<' ? -1 : c[at] == '>';
    auto sign = [](int v) { return (v > 0) - (v < 0); };
    EXPECT_EQ(sign(compareNaturally(a.c_str(), b.c_str(), caseless)), order) << c;
    EXPECT_EQ(sign(compareNaturally(b.c_str(), a.c_str(), caseless)), -order) << c;
  }
  // Caseless beyond ASCII.
  EXPECT_LT(compareNaturally("\303\211t\303\2512", "\303\251T\303\21110", true), 0);
}

}  // namespace
