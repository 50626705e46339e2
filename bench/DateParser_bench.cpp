// Finding the time in log lines: the annotated corpus through warm parsers (one per file, so
// the pattern memory works as on a real stream) and through a new parser per line; and, on the
// corpus lines whose format strptime can express, our warm parser against strptime + timegm
// told each line's format (and, for syslog, its year) in advance: the oracle that already knows
// what the parser has to find out.
#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "basicutil/DateParser.h"
#include "basicutil/Logger.h"
#include "basicutil/Thread.h"
#include "tools/ts/TsCore.h"

using namespace morvek;
using namespace morvek::ts;

namespace {

struct Corpus {
  std::vector<CorpusFile> files;
  size_t lines = 0;
  bool ok = false;
};

const Corpus &corpus() {
  static const Corpus c = [] {
    Corpus c;
    quietParserLogs();
    TsOptions opts;
    Str error;
    if (!loadPatterns(DateTimeRegexes::shared(), opts, error)) {
      fprintf(stderr, "DateParser_bench: %s\n", error.c_str());
      return c;
    }
    for (const Str &path : corpusFilesIn(MORVEK_SOURCE_DIR "/tests/corpus/timestamps")) {
      c.files.emplace_back();
      if (!loadCorpusFile(path.c_str(), c.files.back(), error)) {
        fprintf(stderr, "DateParser_bench: %s\n", error.c_str());
        c.files.pop_back();
        continue;
      }
      c.lines += c.files.back().lines.size();
    }
    c.ok = c.lines > 0;
    return c;
  }();
  return c;
}

// A parser set up as morvek-ts sets it up for that file.
std::unique_ptr<DateParser> parserFor(const TsOptions &opts) {
  auto p = std::make_unique<DateParser>();
  Str error;
  if (!configureParser(*p, opts, error)) fprintf(stderr, "DateParser_bench: %s\n", error.c_str());
  return p;
}

// One warm parser per file; each line is given repeats times in a row. Once is the corpus as it
// stands, a mix of formats in every file. Repeated, it is the corpus as busy logs present it:
// each line followed by more of its own format, so that the time pattern runs alone after its
// tenth hit and the date text is reused, the road the pattern memory is built for.
void runWarm(benchmark::State &state, int repeats) {
  const Corpus &c = corpus();
  if (!c.ok) return state.SkipWithError("no corpus");
  std::vector<std::unique_ptr<DateParser>> parsers;
  for (const CorpusFile &f : c.files) parsers.push_back(parserFor(f.opts));
  for (auto _ : state) {
    for (size_t i = 0; i < c.files.size(); ++i) {
      const Timeval now = eventTime(c.files[i].opts);
      for (const CorpusLine &line : c.files[i].lines) {
        for (int r = 0; r < repeats; ++r) {
          Timeval t;
          benchmark::DoNotOptimize(parsers[i]->parse(t, line.text, now));
          benchmark::DoNotOptimize(t);
        }
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * c.lines * repeats);
}

void corpusWarm(benchmark::State &state) { runWarm(state, 1); }
void corpusStream(benchmark::State &state) { runWarm(state, 32); }

void corpusCold(benchmark::State &state) {
  const Corpus &c = corpus();
  if (!c.ok) return state.SkipWithError("no corpus");
  for (auto _ : state) {
    for (const CorpusFile &f : c.files) {
      const Timeval now = eventTime(f.opts);
      for (const CorpusLine &line : f.lines) {
        auto parser = parserFor(f.opts);
        Timeval t;
        benchmark::DoNotOptimize(parser->parse(t, line.text, now));
        benchmark::DoNotOptimize(t);
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * c.lines);
}

// Formats strptime can read, in the order a line is tried against them. at: where the time
// starts, found by the oracle as a fixed rule of the format (line start, or after the first
// '[' of an access log).
struct Family {
  const char *name;
  const char *format;
  char at;
  bool needs_year;
};

const Family FAMILIES[] = {
    {"iso", "%Y-%m-%dT%H:%M:%S", 0, false},     {"iso-space", "%Y-%m-%d %H:%M:%S", 0, false},
    {"slashes", "%Y/%m/%d %H:%M:%S", 0, false}, {"ctime", "%a %b %d %H:%M:%S %Y", 0, false},
    {"syslog", "%b %d %H:%M:%S", 0, true},      {"access", "%d/%b/%Y:%H:%M:%S %z", '[', false},
};

const char *timeStart(const Family &f, const char *line) {
  if (f.at == 0) return line;
  const char *p = strchr(line, f.at);
  return p == nullptr ? nullptr : p + 1;
}

// Lines of one file in one family, with the oracle's year.
struct KnownGroup {
  const Family *family;
  const CorpusFile *file;
  int year;
  std::vector<const Str *> lines;
};

const std::vector<KnownGroup> &knownGroups() {
  static const std::vector<KnownGroup> groups = [] {
    std::vector<KnownGroup> out;
    for (const CorpusFile &f : corpus().files) {
      struct tm now_tm;
      const Timeval now = eventTime(f.opts);
      breakDownUtc(now.seconds(), now_tm);
      for (const Family &fam : FAMILIES) {
        KnownGroup g{&fam, &f, now_tm.tm_year + 1900, {}};
        for (const CorpusLine &line : f.lines) {
          if (line.expected == "-" || line.expected.startsWith("~")) continue;
          bool earlier = false;
          for (const Family *e = FAMILIES; e != &fam && !earlier; ++e) {
            struct tm tm {};
            const char *p = timeStart(*e, line.text.c_str());
            earlier = p != nullptr && strptime(p, e->format, &tm) != nullptr;
          }
          struct tm tm {};
          const char *p = timeStart(fam, line.text.c_str());
          if (!earlier && p != nullptr && strptime(p, fam.format, &tm) != nullptr)
            g.lines.push_back(&line.text);
        }
        if (!g.lines.empty()) out.push_back(std::move(g));
      }
    }
    return out;
  }();
  return groups;
}

size_t knownLineCount() {
  size_t n = 0;
  for (const KnownGroup &g : knownGroups()) n += g.lines.size();
  return n;
}

void knownOurs(benchmark::State &state) {
  const size_t n = knownLineCount();
  if (n == 0) return state.SkipWithError("no corpus lines in a strptime format");
  std::vector<std::unique_ptr<DateParser>> parsers;
  for (const KnownGroup &g : knownGroups()) parsers.push_back(parserFor(g.file->opts));
  for (auto _ : state) {
    for (size_t i = 0; i < parsers.size(); ++i) {
      const KnownGroup &g = knownGroups()[i];
      const Timeval now = eventTime(g.file->opts);
      for (const Str *line : g.lines) {
        Timeval t;
        benchmark::DoNotOptimize(parsers[i]->parse(t, *line, now));
        benchmark::DoNotOptimize(t);
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.counters["lines"] = static_cast<double>(n);
}

void knownStrptime(benchmark::State &state) {
  const size_t n = knownLineCount();
  if (n == 0) return state.SkipWithError("no corpus lines in a strptime format");
  for (auto _ : state) {
    for (const KnownGroup &g : knownGroups()) {
      for (const Str *line : g.lines) {
        struct tm tm;
        memset(&tm, 0, sizeof tm);
        if (g.family->needs_year) tm.tm_year = g.year - 1900;
        const char *p = timeStart(*g.family, line->c_str());
        benchmark::DoNotOptimize(strptime(p, g.family->format, &tm));
        benchmark::DoNotOptimize(timegm(&tm));
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.counters["lines"] = static_cast<double>(n);
}

}  // namespace

BENCHMARK(corpusWarm)->Name("DateParser/corpus_warm/Ours");
BENCHMARK(corpusStream)->Name("DateParser/corpus_stream/Ours");
BENCHMARK(corpusCold)->Name("DateParser/corpus_cold/Ours");
BENCHMARK(knownOurs)->Name("DateParser/known_format/Ours");
BENCHMARK(knownStrptime)->Name("DateParser/known_format/strptime");

int main(int argc, char **argv) {
  EmptyMainThread main_thread;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
