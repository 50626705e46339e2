// The crash log writer's number and text forms, against fmt writing the same into memory.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstring>
#include <string>

#include "basicutil/CrashLog.h"

namespace {

// A fixed buffer writer, as cheap as the descriptor writer minus the system call.
struct BufferWriter {
  crash_log_writer base{&BufferWriter::append};
  char buf[4096];
  size_t used = 0;
  static void append(crash_log_writer *w, const char *bytes, size_t len) {
    BufferWriter *self = reinterpret_cast<BufferWriter *>(w);
    if (self->used + len > sizeof self->buf) self->used = 0;
    memcpy(self->buf + self->used, bytes, len);
    self->used += len;
  }
};

const double DOUBLES[] = {0.1, 123.456, 1.0 / 3.0, 6.02214076e5, 2.5e-3, 98765.4321};

void BM_CrashLogWriteDouble(benchmark::State &state) {
  BufferWriter bw;
  morvek::CrashLogWriter w(&bw.base);
  size_t i = 0;
  for (auto _ : state) {
    w.writeDouble(DOUBLES[i++ % 6]);
    benchmark::DoNotOptimize(bw.buf);
  }
}
BENCHMARK(BM_CrashLogWriteDouble)->Name("CrashLogWriter/double/Ours");

void BM_FmtShortestDouble(benchmark::State &state) {
  char buf[64];
  size_t i = 0;
  for (auto _ : state) {
    auto r = fmt::format_to_n(buf, sizeof buf, "{}", DOUBLES[i++ % 6]);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_FmtShortestDouble)->Name("CrashLogWriter/double/fmt");

void BM_CrashLogWriteUnsigned(benchmark::State &state) {
  BufferWriter bw;
  morvek::CrashLogWriter w(&bw.base);
  uint64_t v = 1234567890123ull;
  for (auto _ : state) {
    w.writeUnsigned(v++);
    benchmark::DoNotOptimize(bw.buf);
  }
}
BENCHMARK(BM_CrashLogWriteUnsigned)->Name("CrashLogWriter/unsigned/Ours");

void BM_FmtFormatInt(benchmark::State &state) {
  uint64_t v = 1234567890123ull;
  for (auto _ : state) {
    fmt::format_int f(v++);
    benchmark::DoNotOptimize(f.data());
  }
}
BENCHMARK(BM_FmtFormatInt)->Name("CrashLogWriter/unsigned/fmt");

void BM_CrashLogWriteQuoted(benchmark::State &state) {
  BufferWriter bw;
  morvek::CrashLogWriter w(&bw.base);
  std::string text = "GET /index.html?q=\"crash\"\tHTTP/1.1\r\n" + std::string(150, 'a');
  for (auto _ : state) {
    w.writeQuoted(text.data(), text.size());
    benchmark::DoNotOptimize(bw.buf);
  }
}
BENCHMARK(BM_CrashLogWriteQuoted)->Name("CrashLogWriter/quoted/Ours");

void BM_FmtEscapedString(benchmark::State &state) {
  std::string text = "GET /index.html?q=\"crash\"\tHTTP/1.1\r\n" + std::string(150, 'a');
  char buf[512];
  for (auto _ : state) {
    auto r = fmt::format_to_n(buf, sizeof buf, "{:?}", text);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_FmtEscapedString)->Name("CrashLogWriter/quoted/fmt");

}  // namespace

BENCHMARK_MAIN();
