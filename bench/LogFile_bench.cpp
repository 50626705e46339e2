// A "%d %p %c %m%n" line to a file, one record per write, on one and four threads: ours
// against spdlog's basic file sink flushed after every record and log4cpp's FileAppender with a
// PatternLayout (which writes each record straight away). Then what suppression costs: a
// suppressed repeat against an enabled write and a call at a disabled level.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>

#include "basicutil/LogFileAppender.h"
#include "basicutil/Logger.h"
#include "basicutil/Thread.h"

#ifdef MORVEK_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif
#ifdef MORVEK_BENCH_HAVE_LOG4CPP
#include <log4cpp/Category.hh>
#include <log4cpp/FileAppender.hh>
#include <log4cpp/PatternLayout.hh>
#endif

namespace {

std::string bench_dir;
morvek::Logger file_logger("LogFileBench");
morvek::Logger suppressed_logger("LogFileBenchSuppressed", true, 300, 10);

std::string freshFile(const char *name) {
  std::string path = bench_dir + "/" + name;
  unlink(path.c_str());
  return path;
}

void BM_Ours(benchmark::State &state) {
  if (state.thread_index() == 0) {
    morvek::LogFileAppender *a = morvek::LogFileAppender::find("bench", true);
    morvek::LogFileAppender::setPropertyAt("bench", "fileName", freshFile("ours.log"));
    morvek::LogFileAppender::setPropertyAt("bench", "layout.ConversionPattern",
                                           "%d{%Y-%m-%d %H:%M:%S,%l} %p %c %m%n");
    morvek::Logger::clearAppenders("LogFileBench");
    morvek::Logger::addAppender("LogFileBench", a);
  }
  int i = 0;
  for (auto _ : state) file_logger.info("request %d served in %d ms", ++i, 42);
}
BENCHMARK(BM_Ours)->Name("LogFile/1thread/Ours");
BENCHMARK(BM_Ours)->Name("LogFile/4threads/Ours")->Threads(4);
BENCHMARK(BM_Ours)->Name("LogSuppress/Enabled/Ours");

#ifdef MORVEK_BENCH_HAVE_SPDLOG
std::shared_ptr<spdlog::logger> spdlog_file;

void BM_Spdlog(benchmark::State &state) {
  if (state.thread_index() == 0) {
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(freshFile("spdlog.log"));
    spdlog_file = std::make_shared<spdlog::logger>("bench", sink);
    spdlog_file->set_pattern("%Y-%m-%d %H:%M:%S,%e %L %n %v");
    spdlog_file->flush_on(spdlog::level::info);
  }
  int i = 0;
  for (auto _ : state) spdlog_file->info("request {} served in {} ms", ++i, 42);
}
BENCHMARK(BM_Spdlog)->Name("LogFile/1thread/spdlog");
BENCHMARK(BM_Spdlog)->Name("LogFile/4threads/spdlog")->Threads(4);
#endif

#ifdef MORVEK_BENCH_HAVE_LOG4CPP
void BM_Log4cpp(benchmark::State &state) {
  log4cpp::Category &cat = log4cpp::Category::getInstance("LogFileBench");
  if (state.thread_index() == 0) {
    cat.removeAllAppenders();
    auto *appender = new log4cpp::FileAppender("bench", freshFile("log4cpp.log"));
    auto *layout = new log4cpp::PatternLayout;
    layout->setConversionPattern("%d{%Y-%m-%d %H:%M:%S,%l} %p %c %m%n");
    appender->setLayout(layout);
    cat.setAdditivity(false);
    cat.addAppender(appender);
    cat.setPriority(log4cpp::Priority::INFO);
  }
  int i = 0;
  for (auto _ : state) cat.info("request %d served in %d ms", ++i, 42);
}
BENCHMARK(BM_Log4cpp)->Name("LogFile/1thread/log4cpp");
BENCHMARK(BM_Log4cpp)->Name("LogFile/4threads/log4cpp")->Threads(4);
#endif

// After the first ten, every repeat is counted and dropped: a render, a map lookup and a sweep.
void BM_SuppressedRepeat(benchmark::State &state) {
  morvek::Logger::clearAppenders("LogFileBenchSuppressed");
  morvek::Logger::addAppender("LogFileBenchSuppressed",
                              morvek::LogFileAppender::find("bench", true));
  int i = 0;
  for (auto _ : state) suppressed_logger.info("request %d served in %d ms", ++i, 42);
}
BENCHMARK(BM_SuppressedRepeat)->Name("LogSuppress/Repeat/Ours");

void BM_DisabledCall(benchmark::State &state) {
  int i = 0;
  for (auto _ : state) file_logger.debug("request %d served in %d ms", ++i, 42);
}
BENCHMARK(BM_DisabledCall)->Name("LogSuppress/Disabled/Ours");

}  // namespace

int main(int argc, char **argv) {
  morvek::EmptyMainThread main_thread;
  morvek::Logger::initialize();
  char dir[] = "/tmp/morvek-logbench-XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  bench_dir = dir;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  morvek::Logger::clearAppenders("LogFileBench");
  for (const char *leaf : {"ours.log", "spdlog.log", "log4cpp.log"})
    unlink(freshFile(leaf).c_str());
  rmdir(dir);
  return 0;
}
