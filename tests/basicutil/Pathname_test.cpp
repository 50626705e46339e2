// Pathname's text operations: joining, parts, normalising, globs and command words.
#include "basicutil/Pathname.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

namespace {

using morvek::Pathname;
using morvek::Str;
using morvek::StrSegment;
using morvek::StrVector;

TEST(PathnameJoin, ExactlyOneSeparator) {
  struct Case {
    const char *base, *component, *want;
  } cases[] = {{"a/", "b", "a/b"}, {"a", "/b", "a/b"},     {"a", "", "a"},
               {"", "b", "/b"},    {"a//", "//b", "a//b"}, {"", "", ""}};
  for (const Case &c : cases) {
    Pathname p(c.base);
    p.appendComponent(c.component);
    EXPECT_EQ(p, c.want) << c.base << " + " << c.component;
    EXPECT_EQ(Pathname(StrSegment(c.base), StrSegment(c.component)), c.want);
  }
  Pathname self("ab");
  self.appendComponent(self);  // a view of itself survives the separator's reallocation
  EXPECT_EQ(self, "ab/ab");

  struct Slash {
    const char *in, *ensured, *stripped;
  } slashes[] = {{"", "/", ""}, {"a", "a/", "a"}, {"a//", "a//", "a"}, {"///", "///", "/"}};
  for (const Slash &s : slashes) {
    Pathname e(s.in), t(s.in);
    e.ensureTrailingSlash();
    t.stripTrailingSlashes();
    EXPECT_EQ(e, s.ensured) << s.in;
    EXPECT_EQ(t, s.stripped) << s.in;
  }
}

TEST(PathnameParts, LeafParentAndExtensions) {
  struct Case {
    const char *path, *leaf, *parent;
  } cases[] = {{"/", "/", "/"},  {"a//", "a", ""}, {"a//b/", "b", "a"},
               {"/a", "a", "/"}, {"", "/", ""},    {"//a//b", "b", "//a"}};
  for (const Case &c : cases) {
    EXPECT_EQ(Pathname(c.path).toLeaf(), c.leaf) << c.path;
    EXPECT_EQ(Pathname(c.path).parent(), c.parent) << c.path;
  }

  struct Ext {
    const char *path;
    unsigned n;
    const char *ext;
  } exts[] = {{"a.tar.gz", 2, "tar.gz"},
              {"a.tar.gz", 3, ""},
              {".profile", 1, "profile"},
              {"dir.d/file", 1, ""},
              {"d.x/y.z", 2, ""}};
  for (const Ext &e : exts) EXPECT_EQ(Pathname(e.path).ext(e.n), e.ext) << e.path << e.n;
  EXPECT_DEATH(Pathname("a.b").ext(0), "nExts > 0");

  struct Stem {
    const char *path, *stem;
  } stems[] = {{".profile", ".profile"}, {"a.b.c", "a.b"}, {"dir/", ""}, {"d.x/file", "file"}};
  for (const Stem &s : stems) EXPECT_EQ(Pathname(s.path).stem(), s.stem) << s.path;

  struct Strip {
    const char *path;
    unsigned n;
    const char *want;
  } strips[] = {{"a.b", 2, "a.b"},
                {"d.x/file", 1, "d.x/file"},
                {"d/a.tar.gz", 2, "d/a"},
                {"d/.a.b", 2, "d/.a.b"},
                {"d/.a.b", 1, "d/.a"}};
  for (const Strip &s : strips) {
    EXPECT_EQ(Pathname(s.path).stripExt(s.n), s.want) << s.path << " " << s.n;
  }
}

TEST(PathnameNormalize, TextOnly) {
  struct Case {
    const char *in, *want;
    bool ok;
  } cases[] = {{"a/./b/../c", "a/c", true},
               // clang-format off
               {"../a", "a", false}, {"/../a", "/a", false}, {"a/b/", "a/b/", true},
               {"//a//b", "/a/b", true}, {"a/..", "", true}, {"/a/../", "/", true},
               {"a/b/../../..", "", false}, {"x/.../y", "x/.../y", true},
               // clang-format on
               {"/a/b/c/../../d/", "/a/d/", true}};
  for (const Case &c : cases) {
    Pathname p(c.in);
    EXPECT_EQ(p.normalize(), c.ok) << c.in;
    EXPECT_EQ(p, c.want) << c.in;
  }

  struct DotDots {
    const char *in, *want;
  } dots[] = {{"../x", "x"},        {"a/..", "a"},      {"/..", "/"},
              {"a/../../b", "a/b"}, {"a/...", "a/..."}, {"..a/b..", "..a/b.."}};
  for (const DotDots &d : dots) {
    Pathname p(d.in);
    p.removeDotDots();
    EXPECT_EQ(p, d.want) << d.in;
  }
  EXPECT_EQ(Pathname("a//b///c").collapsedSlashes(), "a/b/c");
}

TEST(PathnameGlob, MatchesWithinAndAcrossComponents) {
  Pathname g("/var/log/*.log");
  ASSERT_TRUE(g.toGlobRegex());
  EXPECT_EQ(g, "/var/log/[^/]*\\.log");
  Pathname deep("/srv/.../x.gz");
  ASSERT_TRUE(deep.toGlobRegex());
  EXPECT_EQ(deep, "/srv/.*/x\\.gz");
  EXPECT_FALSE(Pathname("/srv/plain").toGlobRegex());  // nothing to translate
}

TEST(PathnameWords, TakeSplitAndJoin) {
  struct Case {
    const char *in;
    bool ok;
    const char *word, *rest;
  } cases[] = {{"a\\ b c", true, "a b", " c"},   {"  \"x y\"z", true, "x yz", ""},
               {"'a\\b' c", true, "a\\b", " c"}, {"\"\"", false, "", ""},
               {"\"open", false, "", ""},        {"trail\\", false, "", ""},
               {"a\tb", true, "a", "\tb"}};
  for (const Case &c : cases) {
    Str word;
    StrSegment rest("unchanged");
    EXPECT_EQ(Pathname::takeWord(c.in, word, rest), c.ok) << c.in;
    if (c.ok) {
      EXPECT_EQ(word, c.word) << c.in;
      EXPECT_EQ(rest.view(), c.rest) << c.in;
    }
  }

  // Whatever joinWords writes, splitWords reads back.
  StrVector odd{"plain",     "with space", "q\"uote",   "back\\slash", "it's",
                "tab\there", "AND",        "new\nline", "$HOME"};
  Str line("cmd");
  Pathname::joinWords(odd, line);
  StrVector back;
  Pathname::splitWords(line, back);
  odd.insert(odd.begin(), "cmd");
  EXPECT_EQ(back, odd) << line;

  Str list;
  Pathname::appendWordList(list, {"a", "b c"});
  EXPECT_EQ(list, "{a \"b c\"}");
}

TEST(PathnameSystem, CurrentDirectoryAndResolve) {
  Pathname cwd;
  ASSERT_TRUE(Pathname::getCurrentDirectory(cwd));
  EXPECT_EQ(cwd, std::filesystem::current_path().string());
  Pathname out("kept");
  EXPECT_FALSE(Pathname("/no/such/dir/x").resolveTo(out));
  EXPECT_EQ(out, "kept");
  Pathname dots("/usr/../usr/./bin");
  ASSERT_TRUE(dots.resolveInPlace());
  EXPECT_EQ(dots, std::filesystem::canonical("/usr/bin").string());
}

}  // namespace
