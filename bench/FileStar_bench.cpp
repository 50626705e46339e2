// Line reading and number writing on stdio streams, against the C library's getline, the C++
// library's std::getline and fmt's printing.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

#include "basicutil/FileStar.h"

namespace {

// About 8 MiB of log-like lines, 0 to 200 bytes long.
const std::string &sampleText() {
  static const std::string text = [] {
    std::mt19937 rng(42);
    std::string s;
    while (s.size() < (8u << 20)) {
      size_t len = rng() % 201;
      for (size_t i = 0; i < len; ++i) s.push_back(static_cast<char>(' ' + rng() % 95));
      s.push_back('\n');
    }
    return s;
  }();
  return text;
}

const char *samplePath() {
  static const std::string path = [] {
    char tmpl[] = "/tmp/morvek-bench-XXXXXX";
    int fd = mkstemp(tmpl);
    const std::string &s = sampleText();
    if (fd < 0 || write(fd, s.data(), s.size()) != static_cast<ssize_t>(s.size())) abort();
    close(fd);
    std::atexit([] { unlink(samplePath()); });
    return std::string(tmpl);
  }();
  return path.c_str();
}

// A stream over memory with no seek function, so the byte-wise reader is taken.
struct MemCookie {
  const std::string *text;
  size_t pos;
};

ssize_t cookieRead(void *c, char *buf, size_t n) {
  auto *m = static_cast<MemCookie *>(c);
  size_t left = m->text->size() - m->pos;
  if (n > left) n = left;
  memcpy(buf, m->text->data() + m->pos, n);
  m->pos += n;
  return static_cast<ssize_t>(n);
}

FILE *openUnseekable(MemCookie &cookie) {
  cookie = {&sampleText(), 0};
  cookie_io_functions_t io{cookieRead, nullptr, nullptr, nullptr};
  return fopencookie(&cookie, "r", io);
}

// Made before any timing: a short run would otherwise charge the file's creation to whichever
// benchmark comes first.
[[maybe_unused]] const char *const SAMPLE_PATH = samplePath();

void setBytes(benchmark::State &state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * sampleText().size()));
}

void BM_FileStarReadlineSeekable(benchmark::State &state) {
  for (auto _ : state) {
    morvek::FileStar in(samplePath(), "r");
    morvek::Str line;
    size_t n = 0;
    while (in.readline(line)) n += line.size();
    benchmark::DoNotOptimize(n);
  }
  setBytes(state);
}
BENCHMARK(BM_FileStarReadlineSeekable)->Name("ReadLine/seekable/Ours");

void BM_PosixGetlineSeekable(benchmark::State &state) {
  for (auto _ : state) {
    FILE *fp = fopen(samplePath(), "r");
    char *line = nullptr;
    size_t cap = 0, n = 0;
    ssize_t len;
    while ((len = getline(&line, &cap, fp)) >= 0) n += static_cast<size_t>(len);
    free(line);
    fclose(fp);
    benchmark::DoNotOptimize(n);
  }
  setBytes(state);
}
BENCHMARK(BM_PosixGetlineSeekable)->Name("ReadLine/seekable/getline");

void BM_StdGetlineSeekable(benchmark::State &state) {
  for (auto _ : state) {
    std::ifstream in(samplePath());
    std::string line;
    size_t n = 0;
    while (std::getline(in, line)) n += line.size();
    benchmark::DoNotOptimize(n);
  }
  setBytes(state);
}
BENCHMARK(BM_StdGetlineSeekable)->Name("ReadLine/seekable/std_getline");

void BM_FileStarReadlineUnseekable(benchmark::State &state) {
  for (auto _ : state) {
    MemCookie cookie;
    morvek::FileStar in(openUnseekable(cookie));
    morvek::Str line;
    size_t n = 0;
    while (in.readline(line)) n += line.size();
    benchmark::DoNotOptimize(n);
  }
  setBytes(state);
}
BENCHMARK(BM_FileStarReadlineUnseekable)->Name("ReadLine/unseekable/Ours");

void BM_PosixGetlineUnseekable(benchmark::State &state) {
  for (auto _ : state) {
    MemCookie cookie;
    FILE *fp = openUnseekable(cookie);
    char *line = nullptr;
    size_t cap = 0, n = 0;
    ssize_t len;
    while ((len = getline(&line, &cap, fp)) >= 0) n += static_cast<size_t>(len);
    free(line);
    fclose(fp);
    benchmark::DoNotOptimize(n);
  }
  setBytes(state);
}
BENCHMARK(BM_PosixGetlineUnseekable)->Name("ReadLine/unseekable/getline");

// Number text into a stream whose buffer is big; the flushes go to /dev/null.
FILE *devNull() {
  static FILE *fp = [] {
    FILE *f = fopen("/dev/null", "w");
    static char buf[1 << 16];
    setvbuf(f, buf, _IOFBF, sizeof buf);
    return f;
  }();
  return fp;
}

const double DOUBLES[] = {0.1, 3.14159, 1234.5678, 1e-7, 6.02214076e23, 42.0, -2.5, 1.0 / 3};

void BM_FileStarWriteDouble(benchmark::State &state) {
  morvek::FileStar out(devNull());
  size_t i = 0;
  for (auto _ : state) out.writeDouble(DOUBLES[i++ & 7]);
  out.release();
}
BENCHMARK(BM_FileStarWriteDouble)->Name("StreamWrite/double/Ours");

void BM_FmtPrintDouble(benchmark::State &state) {
  FILE *fp = devNull();
  size_t i = 0;
  for (auto _ : state) fmt::print(fp, "{}", DOUBLES[i++ & 7]);
}
BENCHMARK(BM_FmtPrintDouble)->Name("StreamWrite/double/fmt");

void BM_FileStarWriteSigned(benchmark::State &state) {
  morvek::FileStar out(devNull());
  int64_t v = -1234567890123;
  for (auto _ : state) out.writeSigned(v++);
  out.release();
}
BENCHMARK(BM_FileStarWriteSigned)->Name("StreamWrite/int64/Ours");

void BM_FmtPrintSigned(benchmark::State &state) {
  FILE *fp = devNull();
  int64_t v = -1234567890123;
  for (auto _ : state) fmt::print(fp, "{}", v++);
}
BENCHMARK(BM_FmtPrintSigned)->Name("StreamWrite/int64/fmt");

}  // namespace

BENCHMARK_MAIN();
