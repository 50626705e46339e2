// Paths against std::filesystem: lexical normalising, reading a directory of 10,000 entries, and
// copying then removing a tree of 10,000 small files. The trees live on /dev/shm when there is
// one, so that the disk doesn't drown the difference in system calls.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "basicutil/DirectoryDescriptor.h"
#include "basicutil/FileOperations.h"
#include "basicutil/Pathname.h"

namespace fs = std::filesystem;

namespace {

const std::vector<std::string> &samplePaths() {
  static const std::vector<std::string> paths = {
      "/var/log/./app/../app/current/server.log",
      "a/b/c/../../d/./e/f/",
      "/usr/local/lib/../share/doc/pkg/../../man/man1/tool.1.gz",
      "./relative/path/with/no/dots/at/all/inside/it.txt",
      "/srv//data///2026/11/23//../24/./events.jsonl",
      "../../outside/start/x/y/../z"};
  return paths;
}

std::string makeRoot() {
  const char *base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string tmpl = std::string(base) + "/morvek-bench-XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) abort();
  return tmpl;
}

// dirs directories of perDir files each, a few bytes per file.
std::string makeTree(int dirs, int perDir) {
  std::string root = makeRoot();
  for (int d = 0; d < dirs; ++d) {
    std::string dir = root + "/dir" + std::to_string(d);
    mkdir(dir.c_str(), 0755);
    for (int f = 0; f < perDir; ++f) {
      std::string file = dir + "/file" + std::to_string(f) + ".log";
      int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || write(fd, "small file\n", 11) != 11) abort();
      close(fd);
    }
  }
  return root;
}

const std::string &flatDirectory() {
  static const std::string root = [] {
    std::string r = makeTree(1, 10000) + "/dir0";
    std::atexit([] { fs::remove_all(fs::path(flatDirectory()).parent_path()); });
    return r;
  }();
  return root;
}

const std::string &smallFileTree() {
  static const std::string root = [] {
    std::string r = makeTree(100, 100);
    std::atexit([] { fs::remove_all(smallFileTree()); });
    return r;
  }();
  return root;
}

void BM_Normalize_Ours(benchmark::State &state) {
  morvek::Pathname p;
  for (auto _ : state) {
    for (const std::string &s : samplePaths()) {
      p.assign(s);
      p.normalize();
      benchmark::DoNotOptimize(p.data());
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * samplePaths().size()));
}

void BM_Normalize_Std(benchmark::State &state) {
  for (auto _ : state) {
    for (const std::string &s : samplePaths()) {
      fs::path p = fs::path(s).lexically_normal();
      benchmark::DoNotOptimize(p.native().data());
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * samplePaths().size()));
}

void BM_Iterate_Ours(benchmark::State &state) {
  morvek::Pathname dir(flatDirectory());
  for (auto _ : state) {
    morvek::DirectoryReader reader(dir);
    morvek::Str name;
    size_t n = 0;
    while (reader.next(name)) n += name.size();
    benchmark::DoNotOptimize(n);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 10000));
}

void BM_Iterate_Std(benchmark::State &state) {
  fs::path dir(flatDirectory());
  for (auto _ : state) {
    size_t n = 0;
    for (const fs::directory_entry &e : fs::directory_iterator(dir)) {
      n += e.path().filename().native().size();
    }
    benchmark::DoNotOptimize(n);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 10000));
}

void BM_CopyRemoveTree_Ours(benchmark::State &state) {
  morvek::Pathname src(smallFileTree());
  morvek::Pathname dest(src + "-copy");
  morvek::FileOperationErrors errors;
  for (auto _ : state) {
    if (!src.copyTree(dest, &errors) || !dest.removeTree(morvek::Pathname::ALWAYS_TRUE, &errors)) {
      state.SkipWithError(errors.toString().c_str());
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 10000));
}

void BM_CopyRemoveTree_Std(benchmark::State &state) {
  fs::path src(smallFileTree());
  fs::path dest(smallFileTree() + "-copy");
  for (auto _ : state) {
    fs::copy(src, dest, fs::copy_options::recursive);
    fs::remove_all(dest);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * 10000));
}

}  // namespace

BENCHMARK(BM_Normalize_Ours)->Name("Path/normalize/Ours");
BENCHMARK(BM_Normalize_Std)->Name("Path/normalize/std_filesystem");
BENCHMARK(BM_Iterate_Ours)->Name("Path/iterate10k/Ours");
BENCHMARK(BM_Iterate_Std)->Name("Path/iterate10k/std_filesystem");
BENCHMARK(BM_CopyRemoveTree_Ours)
    ->Name("Path/copyRemoveTree10k/Ours")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyRemoveTree_Std)
    ->Name("Path/copyRemoveTree10k/std_filesystem")
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
