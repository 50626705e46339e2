// Configuration files as people write them, in a process of its own: each parse rebuilds the
// channels and appenders, which is allowed only before any thread has started.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "basicutil/FileDescriptor.h"
#include "basicutil/LogConfig.h"
#include "basicutil/Logger.h"
#include "testutil.h"

using namespace morvek;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

Logger app_log("App");
Logger db_log("App.Db");
Logger chatty_log("Chatty");

std::string slurp(const std::string &path) {
  FileDescriptor fd;
  Str s;
  if (fd.openRead(path.c_str())) fd.readAll(s);
  return s;
}

void spit(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

// Parses text as dir/log.cfg (and local as dir/log-local.cfg); returns what went to stderr.
struct Parsed {
  std::string dir = testutil::makeTempDir();
  std::string cfg = dir + "/log.cfg";
  bool ok = false;
  std::string err;

  Parsed(const std::string &text, LogConfigRequest req = {}, const char *local = nullptr) {
    spit(cfg, text);
    if (local != nullptr) spit(dir + "/log-local.cfg", local);
    req.path = cfg;
    req.substitutions.emplace("@LOGDIR@", dir);
    testutil::StderrCapture cap;
    ok = parse_log_cfg_file(req);
    err = cap.finish();
  }
  std::string file(const char *leaf) const { return slurp(dir + "/" + leaf); }
};

TEST(LogConfig, AServiceConfigurationWithRotationAndAConsole) {
  Parsed p(R"(# Service logging
log4cpp.rootCategory = INFO, main
category.App.Db = DEBUG, main, db   # the database talks more
category.Chatty = ERROR

<!-- the console, for
     interactive runs -->
appender.console = ConsoleAppender
appender.console.layout = SimpleLayout

appender.main = RollingFileAppender
appender.main.fileName = @LOGDIR@/service.log
appender.main.maxFileSize = 200
appender.main.maxBackupIndex = 2
appender.main.layout = PatternLayout
appender.main.layout.ConversionPattern = %p %c: %m%n

log4cpp.appender.db = FileAppender
log4cpp.appender.db.fileName = @LOGDIR@/db.log
log4cpp.appender.db.layout.ConversionPattern = [%-5p] %m%n
)");
  // The console's warning went where the "Logger" channel writes: the main file.
  EXPECT_TRUE(p.ok && p.err.empty()) << p.err;
  testutil::StderrCapture cap;
  app_log.info("started on port %d", 8080);
  app_log.debug("not shown");
  db_log.debug("query took %d ms", 12);
  chatty_log.warn("hidden");
  chatty_log.error("shown\nwith a newline");
  for (int i = 0; i < 20; ++i) app_log.warn("request %d done", i);
  EXPECT_EQ(cap.finish(), "");
  EXPECT_EQ(p.file("db.log"), "[DEBUG] query took 12 ms\n");
  // 200 bytes per file and two backups: the oldest lines have fallen off the end.
  std::string all = p.file("service.log.2") + p.file("service.log.1") + p.file("service.log");
  EXPECT_THAT(all, StartsWith("WARN App: request 2 done\n"));
  EXPECT_THAT(all, EndsWith("WARN App: request 19 done\n"));
}

TEST(LogConfig, SectionsAndTheLocalOverride) {
  LogConfigRequest req;
  req.section = "DEV";
  Parsed p(R"(rootCategory = INFO, out
appender.out.fileName = @LOGDIR@/out.log
appender.out.layout.ConversionPattern = %m%n
[prod]
appender.out.fileName = /nonexistent/prod.log
[Dev]  
rootCategory = DEBUG, out
)",
           req,
           R"(appender.out.layout.ConversionPattern = local %p %m%n
appender.out.escape = false
)");
  EXPECT_TRUE(p.ok) << p.err;
  app_log.debug("tab\there\rcr");
  EXPECT_EQ(p.file("out.log"), "local DEBUG tab\there\\rcr\n");
}

TEST(LogConfig, EveryBadLineIsReportedWithItsLineAndTheRestStillWorks) {
  LogConfigRequest req;
  req.allowed_properties = LOG_PROP_ALL & ~LOG_PROP_FILE_NAME;
  Parsed p(R"(rootCategory=INFO
rootCategory=WARN, nosuch, out
category.a.b=INFO
category.nothing
appender.
appender.A=SomeClass
appender.A.fileName
appender.out.maxMessageSize = 20000
appender.out.maxMessageSize = 500
x = <!-- a --> 1
justakey
appender.out.bufferSize  =  64 KiB
  <!-- one --> appender.out<!-- two -->.escape=no
)",
           req);
  EXPECT_FALSE(p.ok);
  const char *c = p.cfg.c_str();
  char expected[2048];
  snprintf(expected, sizeof expected,
           // Reported while "out" (the "Logger" channel's appender) was still closed, and
           // by "out" itself, which may not report to itself.
           "WARN - Appender \"out\" has no filename, assuming stderr\n"
           "%s:5: Parse error at \"appender.\"\n"
           "%s:7: Parse error at \"appender.A.fileName\"\n"
           "%s:9: Parse error at \"appender.out.maxMessageSize = 500\"\n"
           "%s:10: Parse error at \"x =  1\"\n"
           "%s:11: Parse error at \"justakey\"\n"
           "%s:2: Parse error at \"WARN, nosuch, out\"\n"
           "%s:4: Parse error at \"nothing\"\n",
           c, c, c, c, c, c, c);
  EXPECT_EQ(p.err, expected);
  EXPECT_EQ(Logger::getCoarseLevel("a.b"), 2);
  LogFileAppender *out = LogFileAppender::find("out", false);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->getMaxMessageSize(), 20000u);  // the first value stands
  EXPECT_FALSE(out->getEscape());
  // The root kept its level and its good appender.
  testutil::StderrCapture cap;
  app_log.info("quiet");
  app_log.warn("loud");
  EXPECT_EQ(cap.finish(), "loud\n");
}

TEST(LogConfig, CommentsThatNeverEndAndFilesThatDoNotOpen) {
  Parsed unterminated("rootCategory=INFO\n<!--\nrootCategory=ERROR\n");
  EXPECT_FALSE(unterminated.ok);
  EXPECT_EQ(unterminated.err, unterminated.cfg + ":2: Unterminated XML comment started\n");

  LogConfigRequest req;
  req.path = "/nonexistent/log.cfg";
  testutil::StderrCapture cap;
  EXPECT_FALSE(parse_log_cfg_file(req));
  EXPECT_EQ(cap.finish(),
            "Couldn't open log file configuration \"/nonexistent/log.cfg\": No such file or "
            "directory\n");
}

TEST(LogConfig, TheShippedExampleReadsCleanlyWithAndWithoutItsSection) {
  std::string example = slurp(MORVEK_SOURCE_DIR "/examples/log.properties");
  ASSERT_FALSE(example.empty());
  Parsed plain(example);
  EXPECT_TRUE(plain.ok && plain.err.empty()) << plain.err;
  app_log.info("to the main file");
  EXPECT_THAT(plain.file("service.log"), HasSubstr(" INFO  App: to the main file\n"));

  LogConfigRequest req;
  req.section = "console";
  Parsed console(example, req);
  EXPECT_TRUE(console.ok);
  EXPECT_EQ(console.err, "WARN - Appender \"console\" has no filename, assuming stderr\n");
  testutil::StderrCapture cap;
  app_log.debug("to the terminal");
  EXPECT_EQ(cap.finish(), "DEBUG   : to the terminal\n");
}

TEST(LogConfig, SuspendedPathsAndNoStderr) {
  LogConfigRequest req;
  req.allow_stderr = false;
  req.suspended_paths.insert("@LATER@");
  Parsed p(R"(rootCategory=INFO, late, quiet
appender.late.fileName=@LATER@/late.log
appender.quiet=ConsoleAppender
appender.quiet.maxBackupIndex=3
bad line
)",
           req);
  EXPECT_FALSE(p.ok);
  EXPECT_EQ(p.err, "");  // nothing reaches descriptor 2, not even the parse error
  testutil::StderrCapture cap;
  app_log.info("dropped");
  LogFileAppender::unsuspendAll({{"@LATER@", p.dir}});
  app_log.info("kept");
  EXPECT_EQ(cap.finish(), "");
  EXPECT_EQ(p.file("late.log"), "kept\n");
  Logger::setQuietStderr(false);
}

}  // namespace
