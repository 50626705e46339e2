// Whole-file reads through FileDescriptor against the usual C++ idioms.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "basicutil/FileDescriptor.h"

namespace {

const char *samplePath() {
  static const std::string path = [] {
    char tmpl[] = "/tmp/morvek-bench-XXXXXX";
    int fd = mkstemp(tmpl);
    std::string s(4u << 20, 'x');
    for (size_t i = 0; i < s.size(); i += 97) s[i] = '\n';
    if (fd < 0 || write(fd, s.data(), s.size()) != static_cast<ssize_t>(s.size())) abort();
    close(fd);
    std::atexit([] { unlink(samplePath()); });
    return std::string(tmpl);
  }();
  return path.c_str();
}

// Made before any timing: a short run would otherwise charge the file's creation to whichever
// benchmark comes first.
[[maybe_unused]] const char *const SAMPLE_PATH = samplePath();

void setBytes(benchmark::State &state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (4 << 20));
}

void BM_FileDescriptorReadAll(benchmark::State &state) {
  for (auto _ : state) {
    morvek::FileDescriptor fd(samplePath());
    morvek::Str s;
    fd.readAll(s);
    benchmark::DoNotOptimize(s.data());
  }
  setBytes(state);
}
BENCHMARK(BM_FileDescriptorReadAll)->Name("ReadFile/4MiB/Ours");

void BM_IfstreamRdbuf(benchmark::State &state) {
  for (auto _ : state) {
    std::ifstream in(samplePath(), std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    std::string s = std::move(ss).str();
    benchmark::DoNotOptimize(s.data());
  }
  setBytes(state);
}
BENCHMARK(BM_IfstreamRdbuf)->Name("ReadFile/4MiB/ifstream_rdbuf");

void BM_IfstreamSizedRead(benchmark::State &state) {
  for (auto _ : state) {
    std::ifstream in(samplePath(), std::ios::binary | std::ios::ate);
    std::string s(static_cast<size_t>(in.tellg()), '\0');
    in.seekg(0);
    in.read(s.data(), static_cast<std::streamsize>(s.size()));
    benchmark::DoNotOptimize(s.data());
  }
  setBytes(state);
}
BENCHMARK(BM_IfstreamSizedRead)->Name("ReadFile/4MiB/ifstream_read");

}  // namespace

BENCHMARK_MAIN();
