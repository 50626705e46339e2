// The string layer's inner loops against the obvious alternatives.
#include <benchmark/benchmark.h>
#include <string.h>

#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "basicutil/StaticStrHashSet.h"
#include "basicutil/Str.h"

#if defined(MORVEK_BENCH_HAVE_ABSL)
#include "absl/strings/str_split.h"
#endif

using morvek::Str;
using morvek::StrSegment;

namespace {

// 64 lines of 4 KiB printable ASCII, each ended by LF.
const std::string &asciiLines() {
  static const std::string text = [] {
    std::mt19937 rng(1);
    std::string s;
    for (int line = 0; line < 64; ++line) {
      for (int i = 0; i < 4095; ++i) s.push_back(static_cast<char>(' ' + rng() % 95));
      s.push_back('\n');
    }
    return s;
  }();
  return text;
}

void BM_FindLineEnd_Str(benchmark::State &state) {
  StrSegment text(asciiLines());
  for (auto _ : state) {
    size_t lines = 0;
    for (size_t pos = 0; (pos = text.findLineEnd(pos)) != StrSegment::npos; ++pos) ++lines;
    benchmark::DoNotOptimize(lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_FindLineEnd_Memchr(benchmark::State &state) {
  const std::string &text = asciiLines();
  for (auto _ : state) {
    size_t lines = 0;
    const char *p = text.data(), *end = p + text.size();
    while (p < end) {
      // The first CR or LF: two memchr calls, the second bounded by the first hit.
      const char *lf = static_cast<const char *>(memchr(p, '\n', end - p));
      const char *limit = lf ? lf : end;
      const char *cr = static_cast<const char *>(memchr(p, '\r', limit - p));
      const char *hit = cr ? cr : lf;
      if (!hit) break;
      ++lines;
      p = hit + 1;
    }
    benchmark::DoNotOptimize(lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_FindLineEnd_FindFirstOf(benchmark::State &state) {
  std::string_view text(asciiLines());
  for (auto _ : state) {
    size_t lines = 0;
    for (size_t pos = 0; (pos = text.find_first_of("\r\n", pos)) != std::string_view::npos; ++pos) {
      ++lines;
    }
    benchmark::DoNotOptimize(lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_LineCount_Str(benchmark::State &state) {
  StrSegment text(asciiLines());
  for (auto _ : state) benchmark::DoNotOptimize(text.lineCount());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_LineCount_Memchr(benchmark::State &state) {
  const std::string &text = asciiLines();
  for (auto _ : state) {
    size_t n = 1;
    const char *p = text.data(), *end = p + text.size();
    while ((p = static_cast<const char *>(memchr(p, '\n', end - p))) != nullptr) {
      ++n;
      ++p;
    }
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_HasHighByte_Str(benchmark::State &state) {
  StrSegment text(asciiLines());
  for (auto _ : state) benchmark::DoNotOptimize(text.hasHighByte());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_HasHighByte_ByteLoop(benchmark::State &state) {
  const std::string &text = asciiLines();
  for (auto _ : state) {
    const char *p = text.data();
    benchmark::DoNotOptimize(p);
    bool high = false;
    for (size_t i = 0; i < text.size(); ++i) {
      if (static_cast<unsigned char>(p[i]) & 0x80) {
        high = true;
        break;
      }
    }
    benchmark::DoNotOptimize(high);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_ToUpper_Str(benchmark::State &state) {
  Str text(asciiLines());
  for (auto _ : state) {
    text.toUpperInPlace();
    text.toLowerInPlace();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
}

void BM_ToUpper_ByteLoop(benchmark::State &state) {
  std::string text(asciiLines());
  for (auto _ : state) {
    char *p = text.data();
    benchmark::DoNotOptimize(p);
    for (size_t i = 0; i < text.size(); ++i) {
      if (static_cast<unsigned char>(p[i]) & 0x80) break;
      if (p[i] >= 'a' && p[i] <= 'z') p[i] = static_cast<char>(p[i] - 32);
    }
    benchmark::ClobberMemory();
    for (size_t i = 0; i < text.size(); ++i) {
      if (static_cast<unsigned char>(p[i]) & 0x80) break;
      if (p[i] >= 'A' && p[i] <= 'Z') p[i] = static_cast<char>(p[i] + 32);
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
}

// A CSV-like record of 40 fields.
const std::string &csvLine() {
  static const std::string line = [] {
    std::string s;
    for (int i = 0; i < 40; ++i) {
      if (i) s.push_back(',');
      s += (i % 5 == 0) ? "" : "field" + std::to_string(i * 37);
    }
    return s;
  }();
  return line;
}

void BM_Split_Str(benchmark::State &state) {
  StrSegment line(csvLine());
  std::vector<StrSegment> out;
  for (auto _ : state) {
    out.clear();
    line.split(out, ',');
    benchmark::DoNotOptimize(out.data());
  }
}

#if defined(MORVEK_BENCH_HAVE_ABSL)
void BM_Split_Absl(benchmark::State &state) {
  // Debian's abseil keeps a string_view of its own.
  absl::string_view line(csvLine().data(), csvLine().size());
  std::vector<absl::string_view> out;
  for (auto _ : state) {
    out.clear();
    for (absl::string_view piece : absl::StrSplit(line, ',')) out.push_back(piece);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_Split_Absl)->Name("StrSplit/csv_40_fields/absl");
#endif

std::vector<Str> &setWords(size_t n) {
  static std::vector<Str> words[2];
  std::vector<Str> &w = words[n == 16 ? 0 : 1];
  if (w.empty()) {
    for (size_t i = 0; i < n; ++i) w.emplace_back("keyword_" + std::to_string(i * 7919));
  }
  return w;
}

// Half hits, half misses of the same shape.
std::vector<std::string> probes(size_t n) {
  std::vector<std::string> p;
  for (size_t i = 0; i < 64; ++i) {
    p.push_back("keyword_" + std::to_string((i * 5 % n) * 7919 + (i & 1)));
  }
  return p;
}

// Both sets are filled before the first look-up, which ends the filling of every set.
morvek::StaticStrHashSet &staticSet(size_t n) {
  static morvek::StaticStrHashSet sets[2];
  static const bool filled = [] {
    for (const Str &w : setWords(16)) sets[0].insert(w);
    for (const Str &w : setWords(1000)) sets[1].insert(w);
    return true;
  }();
  (void)filled;
  return sets[n == 16 ? 0 : 1];
}

void BM_StaticSetContains(benchmark::State &state) {
  size_t n = static_cast<size_t>(state.range(0));
  morvek::StaticStrHashSet &set = staticSet(n);
  std::vector<std::string> keys = probes(n);
  for (auto _ : state) {
    for (const std::string &k : keys) benchmark::DoNotOptimize(set.contains(k.data(), k.size()));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.size()));
}

void BM_UnorderedSetContains(benchmark::State &state) {
  size_t n = static_cast<size_t>(state.range(0));
  std::unordered_set<std::string_view> set;
  for (const Str &w : setWords(n)) set.insert(std::string_view(w));
  std::vector<std::string> keys = probes(n);
  for (auto _ : state) {
    for (const std::string &k : keys) benchmark::DoNotOptimize(set.count(k));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.size()));
}

}  // namespace

BENCHMARK(BM_FindLineEnd_Str)->Name("StrScan/find_line_end/Ours");
BENCHMARK(BM_FindLineEnd_Memchr)->Name("StrScan/find_line_end/memchr");
BENCHMARK(BM_FindLineEnd_FindFirstOf)->Name("StrScan/find_line_end/find_first_of");
BENCHMARK(BM_LineCount_Str)->Name("StrScan/line_count/Ours");
BENCHMARK(BM_LineCount_Memchr)->Name("StrScan/line_count/memchr");
BENCHMARK(BM_HasHighByte_Str)->Name("StrScan/has_high_byte/Ours");
BENCHMARK(BM_HasHighByte_ByteLoop)->Name("StrScan/has_high_byte/byte_loop");
BENCHMARK(BM_ToUpper_Str)->Name("StrScan/to_upper_lower/Ours");
BENCHMARK(BM_ToUpper_ByteLoop)->Name("StrScan/to_upper_lower/byte_loop");
BENCHMARK(BM_Split_Str)->Name("StrSplit/csv_40_fields/Ours");
BENCHMARK(BM_StaticSetContains)->Name("StrHashSet/contains/Ours")->Arg(16)->Arg(1000);
BENCHMARK(BM_UnorderedSetContains)->Name("StrHashSet/contains/unordered_set")->Arg(16)->Arg(1000);
BENCHMARK_MAIN();
