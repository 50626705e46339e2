#include "basicutil/Regex.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "basicutil/BasicConversions.h"

using namespace morvek;

namespace {

std::string str(StrSegment s) { return std::string(s._data, s._len); }

TEST(RegexCompile, BadPatternsThrowWithPcreText) {
  for (const char *bad : {"(", "a{2,1}", "[z-a]", "\xff(", "(?<n>a)|(?<n>b)"}) {
    std::string what = "compiled";
    try {
      Regex r(bad);
    } catch (const RegexException &e) {
      what = e.what();
    }
    EXPECT_TRUE(what.rfind("Regex: ", 0) == 0 && what.size() > 7) << bad << ": " << what;
  }
  Regex kept("keep");
  EXPECT_FALSE(kept.tryAssign("("));
  EXPECT_STREQ(kept.getPattern().c_str(), "keep");
  EXPECT_TRUE(kept.tryAssignCaseInsensitive("x"));
  EXPECT_TRUE(kept.matches("X"));
}

TEST(RegexMatching, ModesAgainstSubjects) {
  struct Case {
    const char *pattern, *subject;
    MatchMode mode;
    bool want;
    const char *matched;
  } cases[] = {
      {"a|ab", "ab", MATCH_FULL, true, "ab"},  // needs the anchored form, not a span test
      {"a|ab", "ab", MATCH_SEARCH, true, "a"},
      {"b", "ab", MATCH_FULL, false, ""},
      {"(?x) a b  # trailing comment", "ab", MATCH_FULL, true, "ab"},  // span-test fallback
      {"(?x) a  # trailing comment", "ab", MATCH_FULL, false, ""},
      {"^a", "a", MATCH_NOT_BOL, false, ""},
      {"(?m)^a", "b\na", MATCH_NOT_BOL, true, "a"},
      {"abc", "xab", MATCH_PARTIAL, true, "ab"},
      {"\\d+", "id=\xc3\xa9 42", MATCH_SEARCH, true, "42"},
      {"\\w", "\xc3\xa9", MATCH_FULL, false, ""},  // \w is ASCII-only without UCP
      {".", "\xc3\xa9", MATCH_FULL, true, "\xc3\xa9"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " / " + c.subject);
    Regex r(c.pattern);
    RegexMatch m;
    ASSERT_EQ(r.matches(c.subject, &m, c.mode), c.want);
    EXPECT_EQ(c.want ? str(m.getMatch()) : "", c.matched);
  }
}

TEST(RegexMatching, GroupsAreViewsAndUnsetGroupsAreNull) {
  RegexMatch m;
  // Fill the thread's match data with set pairs first, so stale offsets would show.
  ASSERT_TRUE(Regex("(x)(y)(z)(w)").matches("xyzw", &m));
  std::string subject = "--b--";
  ASSERT_TRUE(Regex("(a)?(b)(c)?(d)?").matches(subject, &m));
  ASSERT_EQ(m.size(), 4u);
  EXPECT_TRUE(m[0]._data == nullptr && m[0]._len == 0 && m[2]._data == nullptr &&
              m[3]._data == nullptr);
  EXPECT_EQ(m[1]._data, subject.data() + 2);
  EXPECT_TRUE(m.getGroupMatchStart(1) == 2 && m.getGroupMatchEnd(1) == 3 && m.getMatchStart() == 2);
  EXPECT_DEATH(m.getGroupMatchStart(0), "segmentValid");
  EXPECT_DEATH(m.getGroupMatchEnd(4), "idx < size");

  // A failed match leaves nothing of the previous one behind.
  EXPECT_FALSE(Regex("(q)").matches("zzz", &m) || m.matched() || m.size() != 0);
}

TEST(RegexMatching, SubjectForms) {
  Regex empty_ok("a*"), needs_a("a");
  EXPECT_TRUE(empty_ok.matchBase(nullptr, 0, nullptr, nullptr, nullptr));
  EXPECT_FALSE(needs_a.matchBase(nullptr, 0, nullptr, nullptr, nullptr));
  EXPECT_EQ(mem_regexmatch(empty_ok, nullptr, size_t(0), MEM_REGEXMATCH_SEARCH), 0);

  // Walking a segment: each match leaves the rest behind it.
  Regex word("[a-z]+");
  StrSegment text("one, two; three");
  std::vector<std::string> words;
  RegexMatch m;
  while (word.match(text, &m)) words.push_back(str(m.getMatch()));
  EXPECT_EQ(words, (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_TRUE(text.empty());

  size_t offset = 4;
  EXPECT_TRUE(word.match(StrSegment("one two"), offset, &m));
  EXPECT_EQ(offset, 7u);
  EXPECT_FALSE(word.match(StrSegment("one two"), offset, &m));
  EXPECT_FALSE(Regex("").match(StrSegment(""), offset = 0));

  Regex none;
  EXPECT_FALSE(none.matches("", &m) || none.matches("anything", &m, MATCH_FULL));
  EXPECT_EQ(mem_regexmatch(none, "x", 1, MEM_REGEXMATCH_SEARCH), -1);
}

TEST(RegexMatching, MemRegexMatchModes) {
  struct Case {
    const char *pattern, *subject;
    int mode;
    ssize_t want;
  } cases[] = {
      {"b+", "aabbc", MEM_REGEXMATCH_SEARCH, 2},   {"b+", "aabbc", MEM_REGEXMATCH_ANCHORED, -1},
      {"a+", "aabbc", MEM_REGEXMATCH_ANCHORED, 0}, {"a|ab", "ab", MEM_REGEXMATCH_FULL, 0},
      {"a", "ab", MEM_REGEXMATCH_FULL, -1},        {"(?x)ab#c", "ab", MEM_REGEXMATCH_FULL, -1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.pattern);
    EXPECT_EQ(mem_regexmatch(Regex(c.pattern), c.subject, strlen(c.subject), c.mode), c.want);
  }
  const char *s = "xxab";
  EXPECT_EQ(mem_regexmatch(Regex("ab"), s + 1, s + 4, MEM_REGEXMATCH_SEARCH), 1);
  EXPECT_EQ(mem_regexmatch(Regex("ab"), s + 4, s + 1, MEM_REGEXMATCH_SEARCH), -1);
}

TEST(RegexPatternInfo, NamesAnchoringAndEmptyMatches) {
  Regex dated("(?<year>\\d{4})-(?<mon>\\d\\d)(?<monthname>[A-Z]+)?");
  for (auto [name, index] :
       {std::pair{"year", 0}, {"mon", 1}, {"monthname", 2}, {"mo", -1}, {"months", -1}}) {
    auto *found = dated.lookupName(StrSegment(name));
    EXPECT_EQ(found ? int(found->index) : -1, index) << name;
  }

  testing::internal::CaptureStderr();
  Regex dup("(?J)(?<n>a)|(?<n>b)");
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Multiple named subpatterns with the same name"), std::string::npos);
  ASSERT_EQ(dup.namedGroups().size(), 1u);
  EXPECT_EQ(dup.lookupName("n")->index, 1u);

  EXPECT_TRUE(Regex("^a").isAnchored() && !Regex("a").isAnchored());
  EXPECT_TRUE(Regex("a*").canMatchEmpty() && !Regex("a+").canMatchEmpty());
  EXPECT_EQ(Regex("(a)(?:b)(c)").getCaptureGroupCount(), 2u);

  Regex caseless(REGEX_CASE_INSENSITIVE, "abc");
  EXPECT_STREQ(caseless.getPattern().c_str(), "(?i)abc");
  EXPECT_TRUE(caseless.matches("xABCx"));
}

TEST(RegexMatching, LimitsAreReportedNotThrown) {
  Regex catastrophic("(a+)+$");
  std::string subject(28, 'a');
  subject += 'b';
  RegexMatch m;
  testing::internal::CaptureStderr();
  m.setLimits({1000, 10000000});
  EXPECT_TRUE(!catastrophic.matches(subject, &m) && m.limitHit() == REGEX_LIMIT_MATCH);
  m.setLimits({100000000, 3});
  EXPECT_TRUE(!catastrophic.matches(subject, &m) && m.limitHit() == REGEX_LIMIT_DEPTH);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("PCRE_ERROR_MATCHLIMIT for regex: (a+)+$"), std::string::npos);
  EXPECT_NE(log.find("PCRE_ERROR_DEPTHLIMIT"), std::string::npos);
  // The next match starts with a clean record.
  EXPECT_TRUE(Regex("a").matches("a", &m) && m.limitHit() == REGEX_LIMIT_NONE);
}

TEST(RegexQuote, EscapesEverythingButWordBytes) {
  using namespace std::string_literals;
  // A NUL before a digit takes the long octal form, so that the digit is not read into it.
  EXPECT_EQ(Regex::quote("a_Z9 1.5*[x]\xc3\xa9-\0001\08\0"s),
            "a_Z9\\ 1\\.5\\*\\[x\\]\xc3\xa9\\-\\0001\\08\\0");
  const std::string nasty = "a.b\\c(d)[e]{2}^$|?+*/ \t\0007z"s;
  EXPECT_TRUE(Regex(Regex::quote(nasty)).matches(nasty, nullptr, MATCH_FULL));
}

TEST(RegexThreads, SharedHandleAcrossThreadsAndMatchDataAtExit) {
  Regex shared("(\\w+)=(\\d+)");
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      RegexMatch m;
      // A wide pattern first grows this thread's match data; the reaper frees it at exit.
      Regex wide("(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)(k)");
      for (int i = 0; i < 200; ++i) {
        std::string s = "k" + std::to_string(t) + "=" + std::to_string(i);
        if (shared.matches(s, &m) && str(m[0]) == "k" + std::to_string(t) &&
            wide.matches("abcdefghijk"))
          ++ok[t];
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(ok, std::vector<int>(4, 200));
}

TEST(RegexSubstitutionParse, PiecesAndReferences) {
  struct Case {
    const char *text;
    std::vector<std::string> pieces;
    std::vector<size_t> refs;
  } cases[] = {
      {"a\\1b", {"a", "b"}, {0}},
      {"\\2\\1", {}, {1, 0}},
      {"a\\\\1", {"a\\1"}, {}},
      {"\\0", {}, {RegexSubstitution::WHOLE_MATCH}},
      {"<\\12>\\3", {"<", ">"}, {11, 2}},
      {"\\x\\\\", {"\\x\\"}, {}},
      {"", {}, {}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    RegexSubstitution s;
    s.initWithBackrefs(c.text);
    ASSERT_TRUE(s.valid());
    EXPECT_EQ(std::vector<std::string>(s.pieces().begin(), s.pieces().end()), c.pieces);
    EXPECT_EQ(s.references(), c.refs);
  }
  EXPECT_FALSE(RegexSubstitution().valid());
  EXPECT_EQ(RegexSubstitution(StrSegment("\\1")).pieces().front(), "\\1");
}

TEST(RegexSubstitutionApply, ReplaceAll) {
  struct Case {
    const char *pattern, *with, *subject, *want;
    size_t count;
  } cases[] = {
      // clang-format off
      {"x*", "-", "abc", "-a-b-c", 3}, {"^a", "X", "aaa", "Xaa", 1},
      {"(\\w+)@(\\w+)", "\\2 at \\1", "me@host, you@there", "host at me, there at you", 2},
      {"(a)|(b)", "[\\1\\2]", "ab", "[a][b]", 2}, {"(a)(b)", "\\5", "ab", "\\5", 1},
      {"b", "<\\0>", "abcb", "a<b>c<b>", 2}, {"z", "-", "abc", "abc", 0}, {"", "-", "", "", 0},
      {"\\d", "", "a1b22", "ab", 3}, {"a|", "-", "ba", "-b-", 2},
      // clang-format on
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " -> " + c.with);
    RegexSubstitution with;
    with.initWithBackrefs(c.with);
    Str out("stale");
    EXPECT_EQ(_replaceAll(Regex(c.pattern), c.subject, strlen(c.subject), with, out), c.count);
    EXPECT_EQ(out, c.want);
    Str in_place(c.subject);
    EXPECT_EQ(replaceAll(Regex(c.pattern), in_place, with), c.count);
    EXPECT_EQ(in_place, c.want);
  }
  Str s("a1b2");
  EXPECT_EQ(removeAll(Regex("[0-9]"), s), 2u);
  EXPECT_EQ(s, "ab");
}

TEST(RegexSubstitutionApply, ContiguityTracking) {
  Regex r("(\\w+) (\\w+)");
  RegexMatch m;
  std::string subject = "ab cd";
  ASSERT_TRUE(r.matches(subject, &m));
  auto run = [&](const char *with) {
    RegexSubstitution s;
    s.initWithBackrefs(with);
    Str out;
    StrSegment contiguous("");
    s.substitute(out, m, &contiguous);
    return contiguous;
  };
  EXPECT_EQ(run("\\1")._data, subject.data());
  EXPECT_EQ(run("\\0")._len, 5u);
  EXPECT_EQ(run("\\2\\1")._data, nullptr);
  EXPECT_EQ(run("x\\1")._data, nullptr);
}

}  // namespace
