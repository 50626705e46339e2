// Regex costs against their baselines: a cache hit against a fresh compile, matchBase against
// bare pcre2_match on the same compiled code and options, and mem_regexmatch against
// std::regex_search.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <benchmark/benchmark.h>
#include <pcre2.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "basicutil/Regex.h"

using namespace morvek;

namespace {

const char *const TIMESTAMP =
    "(\\d{4})-(\\d\\d)-(\\d\\d)[ T](\\d\\d):(\\d\\d):(\\d\\d)(?:[.,](\\d+))?";
const char *const LEVEL_AND_SOURCE = "\\b(INFO|WARN|ERROR|DEBUG)\\s+\\[([^\\]]+)\\]";

const std::vector<std::string> &logLines() {
  static const std::vector<std::string> lines = {
      "2024-03-17 08:15:02,331 INFO  [main] Server started on port 8080 in 1532 ms",
      "2024-03-17T08:15:03.004 WARN  [pool-2-thread-7] Connection to db-2 slow: 812 ms",
      "Mar 17 08:15:04 host sshd[2211]: Accepted publickey for deploy from 10.0.0.7 port 52144",
      "2024-03-17 08:15:05 ERROR [http-nio-8080-exec-3] Request /api/v2/orders failed: timeout",
      "127.0.0.1 - - [17/Mar/2024:08:15:06 +0000] \"GET /index.html HTTP/1.1\" 200 5123",
      "2024-03-17 08:15:07,912 DEBUG [scheduler] Job cleanup-temp finished, 0 files removed",
      "{\"ts\":\"2024-03-17T08:15:08Z\",\"level\":\"info\",\"msg\":\"heartbeat\",\"seq\":88123}",
      "kernel: [12345.678901] eth0: link up, 1000 Mbps, full duplex, flow control rx/tx",
  };
  return lines;
}

pcre2_code *compileRaw(const char *pattern) {
  int err;
  PCRE2_SIZE off;
  return pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), strlen(pattern),
                       PCRE2_UTF | PCRE2_AUTO_CALLOUT, &err, &off, nullptr);
}

void BM_CacheHit(benchmark::State &state) {
  Regex held(TIMESTAMP);
  for (auto _ : state) {
    Regex again(TIMESTAMP);
    benchmark::DoNotOptimize(again.implAddress());
  }
}
BENCHMARK(BM_CacheHit)->Name("RegexCache/hit/Ours");

// The same hit with the hash computed once, as callers holding a HashedStr get it.
void BM_CacheHitPrecomputedHash(benchmark::State &state) {
  HashedStr pattern{StrSegment(TIMESTAMP)};
  Regex held(pattern);
  for (auto _ : state) {
    Regex again(pattern);
    benchmark::DoNotOptimize(again.implAddress());
  }
}
BENCHMARK(BM_CacheHitPrecomputedHash)->Name("RegexCache/hit_hashed/Ours");

// Two patterns in turn: each build misses the thread's front and takes the shared maps.
void BM_CacheHitAlternating(benchmark::State &state) {
  Regex held[2] = {Regex(TIMESTAMP), Regex(LEVEL_AND_SOURCE)};
  const char *const patterns[2] = {TIMESTAMP, LEVEL_AND_SOURCE};
  size_t i = 0;
  for (auto _ : state) {
    Regex again(patterns[i++ & 1]);
    benchmark::DoNotOptimize(again.implAddress());
  }
}
BENCHMARK(BM_CacheHitAlternating)->Name("RegexCache/hit_alternating/Ours");

void BM_FreshPcre2Compile(benchmark::State &state) {
  for (auto _ : state) {
    pcre2_code *code = compileRaw(TIMESTAMP);
    benchmark::DoNotOptimize(code);
    pcre2_code_free(code);
  }
}
// What a miss costs, beside both hits.
BENCHMARK(BM_FreshPcre2Compile)->Name("RegexCache/hit/pcre2_compile");
BENCHMARK(BM_FreshPcre2Compile)->Name("RegexCache/hit_hashed/pcre2_compile");
BENCHMARK(BM_FreshPcre2Compile)->Name("RegexCache/hit_alternating/pcre2_compile");

void BM_MatchBaseWithGroups(benchmark::State &state, const char *pattern) {
  Regex re(pattern);
  RegexMatch m;
  const auto &lines = logLines();
  size_t i = 0, found = 0;
  for (auto _ : state) {
    const std::string &line = lines[i++ & 7];
    found += re.matchBase(line.data(), line.size(), nullptr, &m, nullptr, MATCH_SEARCH);
    benchmark::DoNotOptimize(m.size() ? m[0]._data : nullptr);
  }
  benchmark::DoNotOptimize(found);
}
BENCHMARK_CAPTURE(BM_MatchBaseWithGroups, timestamp, TIMESTAMP)
    ->Name("RegexMatch/groups_timestamp/Ours");
BENCHMARK_CAPTURE(BM_MatchBaseWithGroups, level, LEVEL_AND_SOURCE)
    ->Name("RegexMatch/groups_level/Ours");

void BM_RawPcre2Match(benchmark::State &state, const char *pattern) {
  pcre2_code *code = compileRaw(pattern);
  pcre2_match_data *md = pcre2_match_data_create_from_pattern(code, nullptr);
  const auto &lines = logLines();
  size_t i = 0, found = 0;
  for (auto _ : state) {
    const std::string &line = lines[i++ & 7];
    found += pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(line.data()), line.size(), 0,
                         PCRE2_NO_UTF_CHECK, md, nullptr) > 0;
    benchmark::DoNotOptimize(pcre2_get_ovector_pointer(md)[2]);
  }
  benchmark::DoNotOptimize(found);
  pcre2_match_data_free(md);
  pcre2_code_free(code);
}
BENCHMARK_CAPTURE(BM_RawPcre2Match, timestamp, TIMESTAMP)
    ->Name("RegexMatch/groups_timestamp/pcre2");
BENCHMARK_CAPTURE(BM_RawPcre2Match, level, LEVEL_AND_SOURCE)->Name("RegexMatch/groups_level/pcre2");

void BM_MemRegexMatch(benchmark::State &state) {
  Regex re(TIMESTAMP);
  const auto &lines = logLines();
  size_t i = 0;
  ssize_t sum = 0;
  for (auto _ : state) {
    const std::string &line = lines[i++ & 7];
    sum += mem_regexmatch(re, line.data(), line.size(), MEM_REGEXMATCH_SEARCH);
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_MemRegexMatch)->Name("RegexMatch/position_timestamp/Ours");

void BM_StdRegexSearch(benchmark::State &state) {
  std::regex re(TIMESTAMP);
  const auto &lines = logLines();
  size_t i = 0;
  ssize_t sum = 0;
  std::cmatch m;
  for (auto _ : state) {
    const std::string &line = lines[i++ & 7];
    sum += std::regex_search(line.data(), line.data() + line.size(), m, re) ? m.position(0) : -1;
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_StdRegexSearch)->Name("RegexMatch/position_timestamp/std_regex");

}  // namespace

BENCHMARK_MAIN();
