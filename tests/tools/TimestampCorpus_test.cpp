// The annotated timestamp corpus through the library, set up exactly as morvek-ts sets it up;
// and the tool's own pieces: the --now reader, the option reader and the output column.
#include <gtest/gtest.h>

#include <cstdio>

#include "basicutil/DateParser.h"
#include "tools/ts/TsCore.h"

using namespace morvek;
using namespace morvek::ts;

namespace {

const char CORPUS_DIR[] = MORVEK_SOURCE_DIR "/tests/corpus/timestamps";

TEST(TimestampCorpus, EveryLineGivesItsAnnotatedColumn) {
  const std::vector<Str> files = corpusFilesIn(CORPUS_DIR);
  if (files.empty()) GTEST_SKIP() << "no corpus files in " << CORPUS_DIR;
  quietParserLogs();
  TsOptions shipped;
  shipped.patterns = MORVEK_SOURCE_DIR "/data/timestamp-patterns.conf";
  Str error;
  ASSERT_TRUE(loadPatterns(DateTimeRegexes::shared(), shipped, error)) << error;
  size_t lines = 0, failures = 0;
  for (const Str &path : files) {
    CorpusFile corpus;
    ASSERT_TRUE(loadCorpusFile(path.c_str(), corpus, error)) << error;
    // One parser per file, as the tool has: the pattern memory runs as it does for a user.
    LineTimer timer(corpus.opts);
    ASSERT_TRUE(timer.configure(error)) << path << ": " << error;
    for (const CorpusLine &line : corpus.lines) {
      Str got;
      timer.column(line.text, got);
      ++lines;
      if (got == line.expected) continue;
      ++failures;
      ADD_FAILURE_AT(path.c_str(), line.lineno)
          << "expected " << line.expected << "\n     got " << got << "\n    line " << line.text;
    }
  }
  EXPECT_GT(lines, 0u);
  printf("%zu corpus lines in %zu files, %zu wrong\n", lines, files.size(), failures);
}

TEST(TsNowText, ReadsEpochAndIsoForms) {
  struct Case {
    const char *text;
    bool ok;
    int64_t seconds;
    int32_t usec;
  } cases[] = {
      {"1710054000", true, 1710054000, 0},
      {"1710054000.25", true, 1710054000, 250000},
      {"2024-03-10T07:00:00Z", true, 1710054000, 0},
      {"2024-03-10 02:00:00.5-05:00", true, 1710054000, 500000},
      {"2024-03-10T12:30+0530", true, 1710054000, 0},
      {"2024-03-10T07:00:00", true, 1710054000, 0},  // no designator: UTC
      {"2024-02-29T00:00:00Z", true, 1709164800, 0},
      {"2023-02-29T00:00:00Z", false, 0, 0},
      {"2024-13-01T00:00:00Z", false, 0, 0},
      {"2024-03-10T24:00:00Z", false, 0, 0},
      {"2024-03-10T07:00:00.Z", false, 0, 0},
      {"2024-03-10T07:00:00+25:00", false, 0, 0},
      {"2024-03-10T07:00:00Zjunk", false, 0, 0},
      {"yesterday", false, 0, 0},
      {"", false, 0, 0},
  };
  for (const Case &c : cases) {
    Timeval t;
    EXPECT_EQ(parseNowText(c.text, t), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(t, Timeval(c.seconds, c.usec)) << c.text;
    }
  }
}

TEST(TsOptionsText, ReadsBothFormsAndRefusesBadValues) {
  auto parse = [](const char *line, TsOptions &opts, std::vector<Str> &files, Str &error) {
    std::vector<Str> words;
    return splitWords(line, words) && parseOptions(words, opts, files, error);
  };
  struct Case {
    const char *line;
    const char *error_part;
  } cases[] = {
      {"--bogus", "unknown option"},
      {"--lookahead", "needs a value"},
      {"--lookahead=ten", "want a number"},
      {"--epoch=1", "takes no value"},
      {"-j 0", "want 1 to 256"},
      {"--max-days-ago=-1", "count of days"},
      {"--now=tomorrow", "bad --now"},
  };
  TsOptions opts;
  std::vector<Str> files, words;
  Str error;
  for (const Case &c : cases) {
    EXPECT_FALSE(parse(c.line, opts, files, error)) << c.line;
    EXPECT_NE(error.find(c.error_part), Str::npos) << error;
  }
  opts = TsOptions();
  files.clear();
  ASSERT_TRUE(parse("--tz=UTC --now 2025-06-15T12:00:00Z -j 3 a.log - -- --b", opts, files, error));
  EXPECT_TRUE(opts.has_tz && opts.tz == "UTC" && opts.has_now && opts.jobs == 3);
  EXPECT_EQ(opts.now, Timeval(1749988800, 0));
  EXPECT_EQ(files, (std::vector<Str>{"a.log", "-", "--b"}));

  // Quotes; the corpus files' option lines use them too.
  ASSERT_TRUE(splitWords("--format='%d %b %Y' x\"y z\"", words));
  EXPECT_EQ(words, (std::vector<Str>{"--format=%d %b %Y", "xy z"}));
  EXPECT_FALSE(splitWords("--format='%d", words));
}

TEST(TsValidUtf8, MalformedBytesBecomeQuestionMarksInPlace) {
  struct Case {
    const char *in;
    const char *want;  // null: valid, left alone
  } cases[] = {
      {"plain 12:00", nullptr},
      {"caf\xc3\xa9 \xe4\xb8\x80\xe6\x9c\x88 \xf0\x9f\x98\x80", nullptr},
      {"a\xff b", "a? b"},
      {"\xe2\x28\xa1", "?(?"},
      {"\xc0\xaf overlong", "?? overlong"},
      {"\xed\xa0\x80 surrogate", "??? surrogate"},
      {"\xf4\x90\x80\x80 too big", "???? too big"},
      {"cut \xe4\xb8", "cut ??"},
  };
  for (const Case &c : cases) {
    Str out;
    EXPECT_EQ(replaceInvalidUtf8(c.in, out), c.want != nullptr) << c.in;
    if (c.want != nullptr) {
      EXPECT_EQ(out, c.want);
    }
  }
}

// The everyday forms, the marks and --epoch are shown end to end by the corpus and the tool's
// script; here the rarer ones.
TEST(TsColumn, IsoWithOffsetAndPrecision) {
  struct Case {
    int64_t seconds;
    int32_t usec, precision;
    int64_t offset;
    const char *want;
  } cases[] = {
      {1710054000, 0, -1, 0, "2024-03-10T07:00:00+00:00"},
      {1710054000, 5, 9, 19800, "2024-03-10T12:30:00.000005000+05:30"},
      {1710054000, 0, 0, -17762, "2024-03-10T02:03:58-04:56:02"},
      {-1, 500000, 1, 0, "1969-12-31T23:59:59.5+00:00"},
      {1710054000, 0, 0, NOT_FIXED, "2024-03-10T07:00:00+00:00"},
  };
  for (const Case &c : cases) {
    ParseDetails d{};
    d.precision = c.precision;
    d.offset = c.offset;
    Str out;
    appendColumn(out, true, false, Timeval(c.seconds, c.usec), d, false);
    EXPECT_EQ(out, c.want);
  }
}

}  // namespace
