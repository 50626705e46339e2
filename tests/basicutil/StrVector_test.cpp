// StrVector's text operations, the vector of views, and the ordered string containers.
#include "basicutil/StrVector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using morvek::Str;
using morvek::StrSegment;
using morvek::StrSegmentVector;
using morvek::StrSet;
using morvek::StrVector;

TEST(StrVectorJoin, SeparatorBeforeFirstOnlyWhenOutHasText) {
  struct Case {
    StrVector v;
    const char *out;
    const char *want;
  } cases[] = {{{"a", "b"}, "x", "x,a,b"}, {{""}, "x", "x,"}, {{}, "x", "x"}, {{"", ""}, "", ","}};
  for (const Case &c : cases) {
    Str a(c.out), b(c.out), d(c.out);
    c.v.join(a, ',');
    c.v.join(b, ",");
    c.v.join(d, ",;", 1);
    EXPECT_EQ(a, c.want) << c.v.debugString();
    EXPECT_EQ(b, c.want);
    EXPECT_EQ(d, c.want);
  }
  Str multi;
  StrVector{"a", "b", "c"}.join(multi, " - ");
  EXPECT_EQ(multi, "a - b - c");

  Str quoted;
  StrVector{"x", "a b", "OR", ""}.joinQuoted(quoted, ' ');
  EXPECT_EQ(quoted, "x \"a b\" \"OR\" \"\"");

  StrVector owners{"p", "q"};
  StrSegmentVector views{StrSegment("s")};
  views.appendAll(owners);
  EXPECT_EQ(views[1].data(), owners[0].data());  // views, not copies
  Str joined("<");
  views.join(joined, '|');
  EXPECT_EQ(joined, "<|s|p|q");
  StrSegmentVector more{StrSegment("m")};
  more.insertSegments(more.begin(), views.begin(), views.begin() + 2);
  Str all;
  more.join(all, "");
  EXPECT_EQ(all, "spm");
}

TEST(StrVectorEdit, AppendAndSteal) {
  StrVector v{"a"};
  v.push_back("cde", 1);
  v.push_back(static_cast<const char *>(nullptr));
  v.appendAll(v);  // from itself
  EXPECT_EQ(v, (StrVector{"a", "c", "", "a", "c", ""}));

  // Long strings are moved: their buffers travel into the receiving vector.
  const std::string longText(100, 'L');
  StrVector into{"first"};
  StrVector from{Str(longText), "s"};
  const char *buffer = from[0].data();
  into.appendStealing(std::move(from));
  EXPECT_EQ(into, (StrVector{"first", Str(longText), "s"}));
  EXPECT_EQ(into[1].data(), buffer);
  EXPECT_TRUE(from.empty());
  StrVector empty;
  empty.appendStealing(std::move(into));
  EXPECT_EQ(empty, (StrVector{"first", Str(longText), "s"}));
  EXPECT_FALSE(empty.contains("firs"));
}

TEST(StrVectorEdit, DuplicatesKeepFirstInOrder) {
  // Short and long strings both: the kept views must survive the moves.
  const Str longA(40, 'a'), longB(40, 'b');
  struct Case {
    StrVector in, kept, removed;
  } cases[] = {
      {{"z", "z", "z"}, {"z"}, {"z", "z"}},
      {{longA, "b", longA, longB, "b", longB, "c"}, {longA, "b", longB, "c"}, {longA, "b", longB}},
      {{"b", "a", "", "a", ""}, {"b", "a", ""}, {"a", ""}}};
  for (Case &c : cases) {
    StrVector v = c.in, removed;
    EXPECT_EQ(v.removeDuplicates(removed), c.removed.size());
    EXPECT_EQ(v, c.kept);
    EXPECT_EQ(removed, c.removed);
    StrVector w = c.in;
    EXPECT_EQ(w.removeDuplicates(), c.removed.size());
    EXPECT_EQ(w, c.kept);
  }
  StrVector adj{"a", "a", "b", "a", "a", "a"};
  EXPECT_EQ(adj.removeAdjacentDuplicates(), 3u);
  EXPECT_EQ(adj, (StrVector{"a", "b", "a"}));
}

TEST(StrVectorEdit, SortReverseShuffle) {
  StrVector v{"b", "a\xFF", "a", "", "B"};
  v.sort();
  EXPECT_EQ(v, (StrVector{"", "B", "a", "a\xFF", "b"}));
  v.reverse();
  EXPECT_EQ(v, (StrVector{"b", "a\xFF", "a", "B", ""}));

  // Every element survives, and every position gets every element sometimes.
  const StrVector base{"0", "1", "2", "3", "4"};
  int seen[5][5] = {};
  for (int round = 0; round < 2000; ++round) {
    StrVector s = base;
    s.shuffle();
    StrVector sorted = s;
    sorted.sort();
    ASSERT_EQ(sorted, base);
    for (int i = 0; i < 5; ++i) ++seen[i][s[i][0] - '0'];
  }
  for (auto &row : seen) {
    for (int count : row) EXPECT_GT(count, 250);  // 400 expected each
  }
}

TEST(StrVectorText, DebugAndListForms) {
  EXPECT_EQ(StrVector{}.listString(), "[]");
  EXPECT_EQ((StrVector{"a", "b"}.debugString()), "{[0]='a' [1]='b'}");
  EXPECT_EQ((StrVector{"a", "b c", "", "d\te"}.listString()), "[a 'b c'  'd\te']");
}

TEST(StrSetOps, EqualsJoinAssign) {
  StrSet a{"b", "a", "c"}, c{"a", "b"};
  EXPECT_FALSE(a.equals(c) || c.equals(a));
  Str out("=");
  a.join(out);
  EXPECT_EQ(out, "=a,b,c");
  c.assign(a);
  EXPECT_TRUE(c.equals(a));
  // A lookup by view goes through the mixed Str/StrSegment comparisons.
  EXPECT_NE(a.find(StrSegment("b")), a.end());
}

}  // namespace
