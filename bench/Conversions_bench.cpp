// Number parsing and rendering against the standard library and fmt; base64 decoding against a
// plain table decoder; URL encoding of text that is mostly safe already.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "basicutil/BasicConversions.h"
#include "basicutil/Str.h"

#ifdef MORVEK_BENCH_HAVE_FMT
#include <fmt/format.h>
#endif

using morvek::Str;

namespace {

// Numbers as configuration files hold them: mostly short, some up to the full width.
std::vector<std::string> numberTexts(bool negative) {
  std::mt19937_64 rng(3);
  std::vector<std::string> out;
  for (int i = 0; i < 1024; ++i) {
    const int digits = 1 + static_cast<int>(rng() % (i % 4 == 0 ? 18 : 6));
    uint64_t v = rng() % 10;
    for (int d = 1; d < digits; ++d) v = v * 10 + rng() % 10;
    std::string text;
    if (negative && (i & 1)) text.push_back('-');
    text += std::to_string(v);
    out.push_back(std::move(text));
  }
  return out;
}

const std::vector<std::string> &unsignedTexts() {
  static const auto v = numberTexts(false);
  return v;
}
const std::vector<std::string> &signedTexts() {
  static const auto v = numberTexts(true);
  return v;
}

void BM_ParseUnsigned_Morvek(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : unsignedTexts()) {
      uint64_t v = 0;
      benchmark::DoNotOptimize(morvek::parse_unsigned_val(s.data(), s.size(), v));
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ParseUnsigned_Morvek)->Name("ParseInt/unsigned/Ours");

void BM_ParseUnsigned_FromChars(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : unsignedTexts()) {
      uint64_t v = 0;
      auto r = std::from_chars(s.data(), s.data() + s.size(), v);
      benchmark::DoNotOptimize(r.ptr == s.data() + s.size());
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ParseUnsigned_FromChars)->Name("ParseInt/unsigned/from_chars");

void BM_ParseUnsigned_Strtoull(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : unsignedTexts()) {
      char *end;
      benchmark::DoNotOptimize(strtoull(s.c_str(), &end, 10));
      benchmark::DoNotOptimize(*end == '\0');
    }
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ParseUnsigned_Strtoull)->Name("ParseInt/unsigned/strtoull");

void BM_ParseSigned_Morvek(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : signedTexts()) {
      int64_t v = 0;
      benchmark::DoNotOptimize(morvek::do_signed_fetch(s.data(), s.size(), v));
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ParseSigned_Morvek)->Name("ParseInt/signed/Ours");

void BM_ParseSigned_FromChars(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : signedTexts()) {
      int64_t v = 0;
      auto r = std::from_chars(s.data(), s.data() + s.size(), v);
      benchmark::DoNotOptimize(r.ptr == s.data() + s.size());
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ParseSigned_FromChars)->Name("ParseInt/signed/from_chars");

void BM_ParseSigned_Strtoll(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : signedTexts()) {
      char *end;
      benchmark::DoNotOptimize(strtoll(s.c_str(), &end, 10));
      benchmark::DoNotOptimize(*end == '\0');
    }
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_ParseSigned_Strtoll)->Name("ParseInt/signed/strtoll");

const std::vector<int64_t> &numbers() {
  static const std::vector<int64_t> v = [] {
    std::vector<int64_t> out;
    for (const std::string &s : signedTexts()) out.push_back(std::stoll(s));
    return out;
  }();
  return v;
}

void BM_AppendNumber_Morvek(benchmark::State &state) {
  Str out;
  for (auto _ : state) {
    out.clear();
    for (int64_t v : numbers()) morvek::appendNumber(out, v);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_AppendNumber_Morvek)->Name("AppendInt/int64/Ours");

void BM_AppendNumber_ToChars(benchmark::State &state) {
  Str out;
  for (auto _ : state) {
    out.clear();
    for (int64_t v : numbers()) {
      char buf[24];
      auto r = std::to_chars(buf, buf + sizeof buf, v);
      out.append(buf, static_cast<size_t>(r.ptr - buf));
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_AppendNumber_ToChars)->Name("AppendInt/int64/to_chars");

#ifdef MORVEK_BENCH_HAVE_FMT
void BM_AppendNumber_FmtFormatInt(benchmark::State &state) {
  Str out;
  for (auto _ : state) {
    out.clear();
    for (int64_t v : numbers()) {
      fmt::format_int f(v);
      out.append(f.data(), f.size());
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(BM_AppendNumber_FmtFormatInt)->Name("AppendInt/int64/fmt");
#endif

const std::string &base64Text() {
  static const std::string text = [] {
    static const char *A = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::mt19937 rng(5);
    std::string s;
    for (int i = 0; i < 16384; ++i) s.push_back(A[rng() % 64]);
    return s;
  }();
  return text;
}

// The textbook decoder: one table lookup a symbol, four symbols to three bytes.
bool plainBase64Decode(std::string &out, const char *data, size_t len) {
  static const auto table = [] {
    std::vector<int> t(256, -1);
    const char *A = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(A[i])] = i;
    return t;
  }();
  if (len % 4 != 0) return false;
  out.reserve(out.size() + len / 4 * 3);
  for (size_t i = 0; i < len; i += 4) {
    int a = table[static_cast<unsigned char>(data[i])];
    int b = table[static_cast<unsigned char>(data[i + 1])];
    int c = table[static_cast<unsigned char>(data[i + 2])];
    int d = table[static_cast<unsigned char>(data[i + 3])];
    if ((a | b | c | d) < 0) return false;
    out.push_back(static_cast<char>(a << 2 | b >> 4));
    out.push_back(static_cast<char>((b & 15) << 4 | c >> 2));
    out.push_back(static_cast<char>((c & 3) << 6 | d));
  }
  return true;
}

void BM_Base64Decode_Morvek(benchmark::State &state) {
  const std::string &text = base64Text();
  Str out;
  for (auto _ : state) {
    out.clear();
    benchmark::DoNotOptimize(morvek::base64Decode(out, text.data(), text.size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Base64Decode_Morvek)->Name("Base64/decode/Ours");

void BM_Base64Decode_PlainTable(benchmark::State &state) {
  const std::string &text = base64Text();
  std::string out;
  for (auto _ : state) {
    out.clear();
    benchmark::DoNotOptimize(plainBase64Decode(out, text.data(), text.size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Base64Decode_PlainTable)->Name("Base64/decode/plain_table");

// Query-string values: words and digits with the odd blank or slash.
const std::string &mostlySafeText() {
  static const std::string text = [] {
    std::mt19937 rng(9);
    const char *safe = "abcdefghijklmnopqrstuvwxyz0123456789-_.";
    std::string s;
    for (int i = 0; i < 4096; ++i)
      s.push_back(rng() % 40 == 0 ? " /&"[rng() % 3] : safe[rng() % 39]);
    return s;
  }();
  return text;
}

void BM_UrlEncode_Morvek(benchmark::State &state) {
  const std::string &text = mostlySafeText();
  Str out;
  for (auto _ : state) {
    out.clear();
    morvek::urlEncode(out, text.data(), text.size());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_UrlEncode_Morvek)->Name("UrlEncode/mostly_safe/Ours");

// The straightforward encoder: a table of 256 strings, one append a byte.
void BM_UrlEncode_PerByteTable(benchmark::State &state) {
  static const auto table = [] {
    std::vector<std::string> t(256);
    const char *safe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
    for (int b = 0; b < 256; ++b) {
      if (b != 0 && strchr(safe, b)) {
        t[b] = std::string(1, static_cast<char>(b));
      } else {
        char buf[4];
        snprintf(buf, sizeof buf, "%%%02X", b);
        t[b] = buf;
      }
    }
    return t;
  }();
  const std::string &text = mostlySafeText();
  std::string out;
  for (auto _ : state) {
    out.clear();
    for (char c : text) out.append(table[static_cast<unsigned char>(c)]);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_UrlEncode_PerByteTable)->Name("UrlEncode/mostly_safe/per_byte_table");

// Nothing to encode: one scan, no copy.
void BM_UrlEncodeInPlace_AllSafe(benchmark::State &state) {
  Str text(4096, 'a');
  for (auto _ : state) {
    morvek::urlEncodeInPlace(text);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(state.iterations() * 4096);
}
BENCHMARK(BM_UrlEncodeInPlace_AllSafe)->Name("UrlEncode/in_place_all_safe/Ours");

}  // namespace

BENCHMARK_MAIN();
