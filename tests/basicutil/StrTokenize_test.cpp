// The tokenizers, the line accumulator and natural ordering.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "basicutil/Str.h"
#include "basicutil/StrVector.h"

using morvek::ByteSet;
using morvek::Str;
using morvek::StrSegment;
using morvek::StrVector;

namespace {

constexpr uint32_t kNoLimit = StrSegment::SPLIT_NO_LIMIT;
using Tokens = std::vector<std::string>;

Tokens strings(const std::vector<StrSegment> &v) {
  Tokens out;
  for (const StrSegment &s : v) out.emplace_back(s.data(), s.size());
  return out;
}

// Runs one split through all three forms and checks that they agree.
template <class Sep>
Tokens splitAll(const char *input, Sep sep, uint32_t limit, bool skipping) {
  StrSegment in(input);
  std::vector<StrSegment> segs;
  StrVector strs;
  struct Collect : morvek::StrSegmentTokenAcceptor {
    Tokens got;
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
  Tokens from_strs(strs.begin(), strs.end());
  EXPECT_EQ(from_strs, strings(segs));
  EXPECT_EQ(collect.got, strings(segs));
  for (const StrSegment &s : segs) {
    EXPECT_TRUE(s.data() >= in.data() && s.data() + s.size() <= in.data() + in.size())
        << "tokens are views into the input";
  }
  return strings(segs);
}

struct SplitCase {
  const char *input;
  uint32_t limit;
  Tokens split, skipping;
};

TEST(StrSplit, ByteSeparator) {
  const SplitCase cases[] = {
      {"a,,b", kNoLimit, {"a", "", "b"}, {"a", "b"}},
      {"a,b,c", 1, {"a", "b,c"}, {"a", "b,c"}},
      {"a,b", 0, {"a,b"}, {"a,b"}},
      {",,a,b,", 0, {",,a,b,"}, {"a,b,"}},
      {"", 0, {}, {}},
      {"", kNoLimit, {}, {}},
      {"a,", kNoLimit, {"a", ""}, {"a"}},
      {",", kNoLimit, {"", ""}, {}},
      {",,a,,b,,", 1, {"", ",a,,b,,"}, {"a", "b,,"}},
      {"abc", kNoLimit, {"abc"}, {"abc"}},
  };
  for (const SplitCase &c : cases) {
    SCOPED_TRACE(testing::Message() << '"' << c.input << "\" limit " << c.limit);
    EXPECT_EQ(splitAll(c.input, ',', c.limit, false), c.split);
    EXPECT_EQ(splitAll(c.input, ',', c.limit, true), c.skipping);
    // A one-byte string and a one-member set separate alike.
    EXPECT_EQ(splitAll(c.input, StrSegment(","), c.limit, false), c.split);
    EXPECT_EQ(splitAll(c.input, StrSegment(","), c.limit, true), c.skipping);
    EXPECT_EQ(splitAll(c.input, ByteSet(",", true), c.limit, false), c.split);
    EXPECT_EQ(splitAll(c.input, ByteSet(",", true), c.limit, true), c.skipping);
  }
  EXPECT_EQ(splitAll("a b\tc", morvek::BYTESET_BLANKS, kNoLimit, false), (Tokens{"a", "b", "c"}));
}

TEST(StrSplit, StringSeparators) {
  struct Case {
    const char *input, *sep;
    uint32_t limit;
    Tokens split, skipping;
  } cases[] = {
      {"a::b::::c", "::", kNoLimit, {"a", "b", "", "c"}, {"a", "b", "c"}},
      {"a::b::c", "::", 1, {"a", "b::c"}, {"a", "b::c"}},
      {"::a::", "::", kNoLimit, {"", "a", ""}, {"a"}},
      {"a:::b", "::", kNoLimit, {"a", ":b"}, {"a", ":b"}},
      {"a:", "::", kNoLimit, {"a:"}, {"a:"}},
      {"::::a::b::", "::", 0, {"::::a::b::"}, {"a::b::"}},
      {"", "::", kNoLimit, {}, {}},
      // The empty separator cuts single bytes and never leaves an empty token behind.
      {"abcd", "", 2, {"a", "b", "cd"}, {"a", "b", "cd"}},
      {"abc", "", kNoLimit, {"a", "b", "c"}, {"a", "b", "c"}},
      {"ab", "", 2, {"a", "b"}, {"a", "b"}},
      {"ab", "", 0, {"ab"}, {"ab"}},
      {"", "", 3, {}, {}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << '"' << c.input << "\" by \"" << c.sep << "\" limit " << c.limit);
    EXPECT_EQ(splitAll(c.input, StrSegment(c.sep), c.limit, false), c.split);
    EXPECT_EQ(splitAll(c.input, StrSegment(c.sep), c.limit, true), c.skipping);
  }
}

TEST(StrSplitLines, Table) {
  struct Case {
    const char *input;
    Tokens lines;
  } cases[] = {
      {"a\r\nb\r", {"a", "b\r"}}, {"\r\n", {""}},       {"", {}},
      {"a\n\nb", {"a", "", "b"}}, {"a\n", {"a"}},       {"a\rb\n", {"a\rb"}},
      {"\n\n", {"", ""}},         {"x\r\r\n", {"x\r"}}, {"\r", {"\r"}},
  };
  for (const Case &c : cases) {
    std::vector<StrSegment> segs;
    StrSegment(c.input).splitLines(segs);
    EXPECT_EQ(strings(segs), c.lines) << c.input;
    StrVector strs{"pre"};
    Str(c.input).splitLines(strs);
    Tokens expect{"pre"};
    expect.insert(expect.end(), c.lines.begin(), c.lines.end());
    EXPECT_EQ(Tokens(strs.begin(), strs.end()), expect) << c.input;
  }
}

TEST(StrAccumulateLine, LinesAcrossBuffers) {
  Str line;
  StrSegment first("ab\r"), second("\ncd");
  EXPECT_FALSE(morvek::accumulateLine(first, line));
  EXPECT_TRUE(first.empty());
  EXPECT_TRUE(morvek::accumulateLine(second, line));
  EXPECT_EQ(line, "ab") << "the CR came with the previous buffer";
  EXPECT_EQ(second, StrSegment("cd"));

  line = "q\r";
  StrSegment both("x\r\r\ny");
  EXPECT_TRUE(morvek::accumulateLine(both, line));
  EXPECT_EQ(line, "q\rx\r") << "only the CR right before the LF goes";
  EXPECT_EQ(both, StrSegment("y"));
}

TEST(StrNatural, Chunks) {
  struct Case {
    const char *input, *chunk, *rest;
    size_t result;
  } cases[] = {
      {"abc12", "abc", "12", StrSegment::npos},
      {"0012x", "0012", "x", 2},
      {"000", "000", "", 3},
      {"7", "7", "", 0},
      {"-1", "-", "1", StrSegment::npos},
  };
  for (const Case &c : cases) {
    StrSegment in(c.input), chunk;
    EXPECT_EQ(morvek::getNextChunk(in, chunk), c.result) << c.input;
    EXPECT_EQ(chunk, StrSegment(c.chunk)) << c.input;
    EXPECT_EQ(in, StrSegment(c.rest)) << c.input;
  }
  StrSegment empty, chunk;
  EXPECT_DEATH(morvek::getNextChunk(empty, chunk), "p < pend");
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST(StrNatural, Ordering) {
  struct Case {
    const char *a, *b;
    bool caseless;
    int order;
  } cases[] = {
      {"a", "a", false, 0},           {"a", "a1", false, -1},
      {"a1", "a", false, 1},          {"x10", "x9", false, 1},
      {"x010", "x10", false, 0},      {"a007", "a7", false, 0},
      {"file9", "file10", false, -1}, {"", "", false, 0},
      {"", "a", false, -1},           {"a", "", false, 1},
      {"FILE2", "file10", true, -1},  {"FILE2", "file10", false, -1},
      {"B", "a", false, -1},          {"B", "a", true, 1},
      {"x2y", "x02z", false, -1},     {"1", "a", false, -1},
      {"00", "0", false, 0},          {"a00b", "a0c", false, -1},
      {"v1.10", "v1.9", false, 1},    {"ab1", "ab-", false, -1},
      {"x19", "x100", false, -1},     {"x0019", "x019", false, 0},
      {"99", "100", false, -1},       {"abc", "ABC", true, 0},
      {"\xc3\x89t\xc3\xa9" "2", "\xc3\xa9T\xc3\x89" "10", true, -1},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(sign(morvek::compareNaturally(c.a, c.b, c.caseless)), c.order)
        << c.a << " vs " << c.b << (c.caseless ? " caseless" : "");
    EXPECT_EQ(sign(morvek::compareNaturally(c.b, c.a, c.caseless)), -c.order)
        << c.b << " vs " << c.a;
  }
}

}  // namespace
