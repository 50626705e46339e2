// A log call at a disabled level, and a printf-style message through the root appender to
// /dev/null, against spdlog's synchronous logger with a file sink on /dev/null and the same
// pattern (message and newline).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "basicutil/LogFileAppender.h"
#include "basicutil/Logger.h"
#include "basicutil/Thread.h"

#ifdef MORVEK_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

morvek::Logger bench_logger("Bench");

void BM_LoggerDisabledLevel(benchmark::State &state) {
  int i = 0;
  for (auto _ : state) bench_logger.debug("message number %d with a string %s", ++i, "abc");
}
BENCHMARK(BM_LoggerDisabledLevel)->Name("Logger/disabled_level/Ours");

void BM_LoggerEnabledToDevNull(benchmark::State &state) {
  int i = 0;
  for (auto _ : state) bench_logger.info("message number %d with a string %s", ++i, "abc");
}
BENCHMARK(BM_LoggerEnabledToDevNull)->Name("Logger/to_dev_null/Ours");

#ifdef MORVEK_BENCH_HAVE_SPDLOG
std::shared_ptr<spdlog::logger> spdlogDevNull(bool flush_each) {
  auto sink = std::make_shared<spdlog::sinks::basic_file_sink_st>("/dev/null");
  auto logger = std::make_shared<spdlog::logger>("bench", sink);
  logger->set_pattern("%v");
  logger->set_level(spdlog::level::info);
  if (flush_each) logger->flush_on(spdlog::level::info);
  return logger;
}

void BM_SpdlogDisabledLevel(benchmark::State &state) {
  auto logger = spdlogDevNull(false);
  int i = 0;
  for (auto _ : state) logger->debug("message number {} with a string {}", ++i, "abc");
}
BENCHMARK(BM_SpdlogDisabledLevel)->Name("Logger/disabled_level/spdlog");

// spdlog's file sink writes through stdio: records reach the file in 4 KiB batches.
void BM_SpdlogFileSinkDevNull(benchmark::State &state) {
  auto logger = spdlogDevNull(false);
  int i = 0;
  for (auto _ : state) logger->info("message number {} with a string {}", ++i, "abc");
}
BENCHMARK(BM_SpdlogFileSinkDevNull)->Name("Logger/to_dev_null/spdlog_buffered");

// The same with a flush per record: one system call each, as the root appender makes.
void BM_SpdlogFileSinkDevNullFlushEach(benchmark::State &state) {
  auto logger = spdlogDevNull(true);
  int i = 0;
  for (auto _ : state) logger->info("message number {} with a string {}", ++i, "abc");
}
BENCHMARK(BM_SpdlogFileSinkDevNullFlushEach)->Name("Logger/to_dev_null/spdlog");
#endif

}  // namespace

int main(int argc, char **argv) {
  morvek::EmptyMainThread main_thread;  // the scratch buffer lives on the thread
  morvek::Logger::initialize();
  {
    // As in a real program, a second thread has existed: glibc's locks are atomic from then on.
    morvek::ThreadFunction once([] {}, "once");
    once.go();
    once.join();
  }
  int devnull = open("/dev/null", O_WRONLY);
  morvek::LogFileAppender::root()->resetToDefaults(devnull);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  morvek::LogFileAppender::root()->resetToDefaults(2);
  close(devnull);
  return 0;
}
