// UTF-8 validation, counting, display width, caseless comparison and mark composition, against
// utf8proc and plain byte loops.

#include <benchmark/benchmark.h>
#include <strings.h>
#include <utf8proc.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "basicutil/UnicodeCodepoint.h"
#include "libzero/codepoint-width.h"

using namespace morvek;

namespace {

enum TextKind { ASCII, LATIN, CJK, MIXED };

// About 64 KiB of text of each kind.
const std::string &text(int kind) {
  static const std::vector<std::string> texts = [] {
    const char *ascii = "2024-05-01 12:00:01 INFO worker-7 request served in 12 ms, status=200\n";
    const char *latin = "Où est la boîte? Größe, Übermaß, façade, naïve, señor, smørrebrød. ";
    const char *cjk = "東京都の天気は晴れです。日本語の文章を処理します。";
    const char *mixed = "2024-05-01 12:00:01 WARN user=José city=Zürich msg=\"こんにちは\" 😀 ok\n";
    std::vector<std::string> out;
    for (const char *piece : {ascii, latin, cjk, mixed}) {
      std::string s;
      while (s.size() < 65536) s += piece;
      out.push_back(s);
    }
    return out;
  }();
  return texts[kind];
}

void label(benchmark::State &state, int kind) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text(kind).size()));
}

// A plain lead-byte decoder with full checks, one character at a time.
bool plain_validate(const unsigned char *p, size_t len) {
  const unsigned char *end = p + len;
  while (p < end) {
    const unsigned c = *p;
    size_t n;
    uint32_t cp;
    if (c < 0x80) {
      ++p;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      n = 1, cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      n = 2, cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      n = 3, cp = c & 0x07;
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) <= n) return false;
    for (size_t k = 1; k <= n; ++k) {
      if ((p[k] & 0xC0) != 0x80) return false;
      cp = cp << 6 | (p[k] & 0x3F);
    }
    if ((n == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
      return false;
    p += n + 1;
  }
  return true;
}

void BM_Validate_Morvek(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) benchmark::DoNotOptimize(isValidUtf8(s.data(), s.size()));
  label(state, kind);
}

void BM_Validate_Utf8proc(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) {
    const auto *p = reinterpret_cast<const utf8proc_uint8_t *>(s.data());
    utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(s.size());
    bool ok = true;
    while (left > 0) {
      utf8proc_int32_t cp;
      const utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
      if (n <= 0) {
        ok = false;
        break;
      }
      p += n;
      left -= n;
    }
    benchmark::DoNotOptimize(ok);
  }
  label(state, kind);
}

void BM_Validate_PlainLoop(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        plain_validate(reinterpret_cast<const unsigned char *>(s.data()), s.size()));
  label(state, kind);
}

void BM_Count_Morvek(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) benchmark::DoNotOptimize(mem_count_utf8_codepoints(s.data(), s.size()));
  label(state, kind);
}

void BM_Count_Utf8proc(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) {
    const auto *p = reinterpret_cast<const utf8proc_uint8_t *>(s.data());
    utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(s.size());
    size_t count = 0;
    while (left > 0) {
      utf8proc_int32_t cp;
      utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
      if (n <= 0) n = 1;
      p += n;
      left -= n;
      ++count;
    }
    benchmark::DoNotOptimize(count);
  }
  label(state, kind);
}

void BM_Count_PlainLoop(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) {
    size_t count = 0;
    for (unsigned char c : s) count += (c & 0xC0) != 0x80;
    benchmark::DoNotOptimize(count);
  }
  label(state, kind);
}

void BM_Width_Morvek(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) benchmark::DoNotOptimize(mem_display_width(s.data(), s.size()));
  label(state, kind);
}

void BM_Width_Utf8proc(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) {
    const auto *p = reinterpret_cast<const utf8proc_uint8_t *>(s.data());
    utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(s.size());
    size_t width = 0;
    while (left > 0) {
      utf8proc_int32_t cp;
      utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
      if (n <= 0)
        n = 1;
      else if (cp >= 0x20)
        width += static_cast<size_t>(utf8proc_charwidth(cp));
      p += n;
      left -= n;
    }
    benchmark::DoNotOptimize(width);
  }
  label(state, kind);
}

// One character at a time through codepoint_width, with no ASCII shortcut.
void BM_Width_PlainLoop(benchmark::State &state, int kind) {
  const std::string &s = text(kind);
  for (auto _ : state) {
    StrSegment seg(s);
    size_t width = 0;
    uint32_t cp;
    while (seg._len > 0)
      if (popCodepoint(seg, cp))
        width += codepoint_width(cp);
      else
        ++seg._data, --seg._len;
    benchmark::DoNotOptimize(width);
  }
  label(state, kind);
}

// Comparison pairs: the same text in two cases, so that the whole string is walked.
struct Pair {
  std::string a, b;
};
const Pair &pair(int kind) {
  static const std::vector<Pair> pairs = [] {
    std::vector<Pair> out;
    for (int k : {ASCII, LATIN, CJK, MIXED}) {
      StrSegment head(text(k));
      utf8ByteTruncate(head, 256);
      const std::string a(head._data, head._len);
      Str up;
      utf8ToUpper(StrSegment(a), up);
      out.push_back({a, up});
    }
    return out;
  }();
  return pairs[kind];
}

void label_pair(benchmark::State &state, int kind) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pair(kind).a.size()));
}

void BM_Caseless_Morvek(benchmark::State &state, int kind) {
  const Pair &p = pair(kind);
  for (auto _ : state)
    benchmark::DoNotOptimize(mem_compare_caseless(p.a.data(), p.a.size(), p.b.data(), p.b.size()));
  label_pair(state, kind);
}

void BM_Caseless_Utf8procFoldMemcmp(benchmark::State &state, int kind) {
  const Pair &p = pair(kind);
  for (auto _ : state) {
    utf8proc_uint8_t *fa = nullptr, *fb = nullptr;
    const auto na = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t *>(p.a.data()),
                                 static_cast<utf8proc_ssize_t>(p.a.size()), &fa, UTF8PROC_CASEFOLD);
    const auto nb = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t *>(p.b.data()),
                                 static_cast<utf8proc_ssize_t>(p.b.size()), &fb, UTF8PROC_CASEFOLD);
    int r = memcmp(fa, fb, static_cast<size_t>(na < nb ? na : nb));
    if (r == 0) r = (na > nb) - (na < nb);
    benchmark::DoNotOptimize(r);
    free(fa);
    free(fb);
  }
  label_pair(state, kind);
}

void BM_Caseless_Strcasecmp(benchmark::State &state) {
  const Pair &p = pair(ASCII);
  for (auto _ : state) benchmark::DoNotOptimize(strcasecmp(p.a.c_str(), p.b.c_str()));
  label_pair(state, ASCII);
}

// Decomposed Latin: every accented letter as base plus combining mark.
const std::string &decomposed() {
  static const std::string s = [] {
    std::string piece =
        "Ou\xCC\x80 est la boi\xCC\x82te? Gro\xCC\x88sse, U\xCC\x88"
        "berma\xC3\x9F, fac\xCC\xA7"
        "ade, nai\xCC\x88ve, sen\xCC\x83or. ";
    std::string out;
    while (out.size() < 65536) out += piece;
    return out;
  }();
  return s;
}

void BM_Combine_Morvek_Ascii(benchmark::State &state) {
  Str s(text(ASCII));
  for (auto _ : state) {
    resolveUnicodeCombiningMarks(s);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.size()));
}

void BM_Combine_Morvek_Decomposed(benchmark::State &state) {
  for (auto _ : state) {
    Str s(decomposed());
    resolveUnicodeCombiningMarks(s);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * decomposed().size()));
}

void BM_Combine_Utf8procNFC_Decomposed(benchmark::State &state) {
  for (auto _ : state) {
    utf8proc_uint8_t *out =
        utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t *>(decomposed().c_str()));
    benchmark::DoNotOptimize(out);
    free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * decomposed().size()));
}

void BM_Combine_Utf8procNFC_Ascii(benchmark::State &state) {
  for (auto _ : state) {
    utf8proc_uint8_t *out =
        utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t *>(text(ASCII).c_str()));
    benchmark::DoNotOptimize(out);
    free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text(ASCII).size()));
}

const char *const KIND_NAMES[] = {"ascii", "latin", "cjk", "mixed"};

// Each text kind is a case of its own: Group/<kind>/<impl>.
bool registerKinds(const char *group, const char *impl, void (*fn)(benchmark::State &, int)) {
  for (int k = ASCII; k <= MIXED; ++k)
    benchmark::RegisterBenchmark((std::string(group) + "/" + KIND_NAMES[k] + "/" + impl).c_str(),
                                 fn, k);
  return true;
}

[[maybe_unused]] const bool registered =
    registerKinds("Utf8Validate", "Ours", BM_Validate_Morvek) &&
    registerKinds("Utf8Validate", "utf8proc", BM_Validate_Utf8proc) &&
    registerKinds("Utf8Validate", "plain_loop", BM_Validate_PlainLoop) &&
    registerKinds("Utf8Count", "Ours", BM_Count_Morvek) &&
    registerKinds("Utf8Count", "utf8proc", BM_Count_Utf8proc) &&
    registerKinds("Utf8Count", "plain_loop", BM_Count_PlainLoop) &&
    registerKinds("DisplayWidth", "Ours", BM_Width_Morvek) &&
    registerKinds("DisplayWidth", "utf8proc", BM_Width_Utf8proc) &&
    registerKinds("DisplayWidth", "plain_loop", BM_Width_PlainLoop) &&
    registerKinds("Caseless", "Ours", BM_Caseless_Morvek) &&
    registerKinds("Caseless", "utf8proc", BM_Caseless_Utf8procFoldMemcmp);

}  // namespace

BENCHMARK(BM_Caseless_Strcasecmp)->Name("Caseless/ascii/strcasecmp");
BENCHMARK(BM_Combine_Morvek_Ascii)->Name("CombiningMarks/ascii/Ours");
BENCHMARK(BM_Combine_Utf8procNFC_Ascii)->Name("CombiningMarks/ascii/utf8proc");
BENCHMARK(BM_Combine_Morvek_Decomposed)->Name("CombiningMarks/decomposed/Ours");
BENCHMARK(BM_Combine_Utf8procNFC_Decomposed)->Name("CombiningMarks/decomposed/utf8proc");

BENCHMARK_MAIN();
