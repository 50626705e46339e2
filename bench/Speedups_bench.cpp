// Hot paths against the routines a user would otherwise reach for: integer formatting, regex
// cache hits, line scanning, natural order, unsigned parsing and caseless ASCII comparison.
// Each pair runs on the same data in the same binary.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <benchmark/benchmark.h>
#include <pcre2.h>
#include <string.h>
#include <strings.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "basicutil/BasicConversions.h"
#include "basicutil/Regex.h"
#include "basicutil/Str.h"
#include "basicutil/UnicodeCodepoint.h"

#if __has_include(<fmt/format.h>)
#include <fmt/format.h>
#define SPEEDUPS_HAVE_FMT 1
#endif

using morvek::Str;
using morvek::StrSegment;

namespace {

// ---- %d into a reused buffer -------------------------------------------------------------------

const int INTS[8] = {0, 7, -42, 1234567, -987654321, 31337, 2147483647, 100};

void IntFormat_Ours(benchmark::State &state) {
  Str s;
  s.reserve(64);
  unsigned i = 0;
  for (auto _ : state) {
    s.clear();
    s.appendf("%d", INTS[i++ & 7]);
    benchmark::DoNotOptimize(s.data());
  }
}
BENCHMARK(IntFormat_Ours)->Name("IntFormat/Decimal/Ours");

void IntFormat_Snprintf(benchmark::State &state) {
  char buf[64];
  unsigned i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(snprintf(buf, sizeof buf, "%d", INTS[i++ & 7]));
    benchmark::DoNotOptimize(buf);
  }
}
BENCHMARK(IntFormat_Snprintf)->Name("IntFormat/Decimal/snprintf");

#ifdef SPEEDUPS_HAVE_FMT
void IntFormat_Fmt(benchmark::State &state) {
  char buf[64];
  unsigned i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fmt::format_to(buf, "{}", INTS[i++ & 7]));
    benchmark::DoNotOptimize(buf);
  }
}
BENCHMARK(IntFormat_Fmt)->Name("IntFormat/Decimal/fmt");
#endif

// ---- Regex cache hit against a compile ---------------------------------------------------------

const char *const TIMESTAMP =
    "(\\d{4})-(\\d\\d)-(\\d\\d)[ T](\\d\\d):(\\d\\d):(\\d\\d)(?:[.,](\\d+))?";

void RegexCache_Ours(benchmark::State &state) {
  morvek::Regex held(TIMESTAMP);
  for (auto _ : state) {
    morvek::Regex again(TIMESTAMP);
    benchmark::DoNotOptimize(again.implAddress());
  }
}
BENCHMARK(RegexCache_Ours)->Name("RegexCache/Hit/Ours");

void RegexCache_Compile(benchmark::State &state) {
  for (auto _ : state) {
    int err;
    PCRE2_SIZE off;
    pcre2_code *code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(TIMESTAMP), strlen(TIMESTAMP),
                                     PCRE2_UTF, &err, &off, nullptr);
    benchmark::DoNotOptimize(code);
    pcre2_code_free(code);
  }
}
BENCHMARK(RegexCache_Compile)->Name("RegexCache/Hit/pcre2_compile");

// ---- Line ends and line counts -----------------------------------------------------------------

// Lines of 20 to 200 printable bytes, as in a log, 256 KiB in all.
const std::string &logText() {
  static const std::string text = [] {
    std::mt19937 rng(1);
    std::string s;
    while (s.size() < 256 * 1024) {
      const int len = 20 + static_cast<int>(rng() % 180);
      for (int i = 0; i < len; ++i) s.push_back(static_cast<char>(' ' + rng() % 95));
      s.push_back('\n');
    }
    return s;
  }();
  return text;
}

void LineEnd_Ours(benchmark::State &state) {
  StrSegment text(logText());
  for (auto _ : state) {
    size_t lines = 0;
    for (size_t pos = 0; (pos = text.findLineEnd(pos)) != StrSegment::npos; ++pos) ++lines;
    benchmark::DoNotOptimize(lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(LineEnd_Ours)->Name("LineEnd/Log/Ours");

// The same answer (the first CR or LF) with the C library: memchr for LF, then for CR before it.
void LineEnd_Memchr(benchmark::State &state) {
  const std::string &text = logText();
  for (auto _ : state) {
    size_t lines = 0;
    const char *p = text.data(), *end = p + text.size();
    while (p < end) {
      const char *lf = static_cast<const char *>(memchr(p, '\n', static_cast<size_t>(end - p)));
      const char *limit = lf ? lf : end;
      const char *cr = static_cast<const char *>(memchr(p, '\r', static_cast<size_t>(limit - p)));
      const char *hit = cr ? cr : lf;
      if (!hit) break;
      ++lines;
      p = hit + 1;
    }
    benchmark::DoNotOptimize(lines);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(LineEnd_Memchr)->Name("LineEnd/Log/memchr");

void LineCount_Ours(benchmark::State &state) {
  StrSegment text(logText());
  for (auto _ : state) benchmark::DoNotOptimize(text.lineCount());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(LineCount_Ours)->Name("LineCount/Log/Ours");

void LineCount_Memchr(benchmark::State &state) {
  const std::string &text = logText();
  for (auto _ : state) {
    size_t n = 1;
    const char *p = text.data(), *end = p + text.size();
    while ((p = static_cast<const char *>(memchr(p, '\n', static_cast<size_t>(end - p))))) {
      ++n;
      ++p;
    }
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(LineCount_Memchr)->Name("LineCount/Log/memchr");

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
