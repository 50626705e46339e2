// Hot paths against the C library routines a user would otherwise reach for: natural order and
// caseless ASCII comparison. Each pair runs on the same data in the same binary. Integer
// formatting is timed in Printf_bench, parsing in Conversions_bench, line scans in Str_bench.
#include <benchmark/benchmark.h>
#include <string.h>
#include <strings.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "basicutil/Str.h"
#include "basicutil/UnicodeCodepoint.h"

using morvek::StrSegment;

namespace {

// ---- Natural order -----------------------------------------------------------------------------

const char *const VERSION_PAIRS[][2] = {
    {"libfoo-1.2.10.tar.gz", "libfoo-1.2.9.tar.gz"},
    {"file0042.log", "file42.log"},
    {"node-17-b", "node-17-a"},
    {"release-2023-11-07", "release-2023-11-17"},
    {"kernel-6.1.0-13-amd64", "kernel-6.1.0-9-amd64"},
    {"app.log.12", "app.log.3"},
    {"same-name-exactly", "same-name-exactly"},
    {"img_0001.png", "img_0010.png"},
};

// Callers hold Str values, whose lengths are known: the lengths are taken once.
void NaturalOrder_Ours(benchmark::State &state) {
  std::vector<std::pair<StrSegment, StrSegment>> pairs;
  for (const auto &p : VERSION_PAIRS) pairs.emplace_back(StrSegment(p[0]), StrSegment(p[1]));
  for (auto _ : state) {
    for (const auto &p : pairs) {
      benchmark::DoNotOptimize(morvek::compareNaturally(p.first, p.second));
    }
  }
}
BENCHMARK(NaturalOrder_Ours)->Name("NaturalOrder/Versions/Ours");

void NaturalOrder_Strverscmp(benchmark::State &state) {
  for (auto _ : state) {
    for (const auto &p : VERSION_PAIRS) benchmark::DoNotOptimize(strverscmp(p[0], p[1]));
  }
}
BENCHMARK(NaturalOrder_Strverscmp)->Name("NaturalOrder/Versions/strverscmp");

// ---- Caseless ASCII comparison -----------------------------------------------------------------

// Equal but for case, so that both sides walk the whole text: 256 bytes and a 16-byte key.
struct CasePair {
  std::string a, b;
};
const CasePair &casePair(int64_t size) {
  static const std::array<CasePair, 2> pairs = [] {
    std::array<CasePair, 2> out;
    std::mt19937 rng(5);
    for (int k = 0; k < 2; ++k) {
      const size_t n = k == 0 ? 16 : 256;
      for (size_t i = 0; i < n; ++i) {
        char c = static_cast<char>(' ' + rng() % 95);
        out[k].a.push_back(c);
        out[k].b.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c);
      }
    }
    return out;
  }();
  return pairs[size == 16 ? 0 : 1];
}

void Caseless_Ours(benchmark::State &state) {
  const CasePair &p = casePair(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        morvek::mem_compare_caseless(p.a.data(), p.a.size(), p.b.data(), p.b.size()));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * p.a.size()));
}
BENCHMARK(Caseless_Ours)->Name("Caseless/Ascii/Ours")->Arg(16)->Arg(256);

void Caseless_Strcasecmp(benchmark::State &state) {
  const CasePair &p = casePair(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(strcasecmp(p.a.c_str(), p.b.c_str()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * p.a.size()));
}
BENCHMARK(Caseless_Strcasecmp)->Name("Caseless/Ascii/strcasecmp")->Arg(16)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
