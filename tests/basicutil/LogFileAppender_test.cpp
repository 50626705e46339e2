// The file appender: rotation walks, rotation under load from many threads, files moved or
// removed behind its back, a full disk, and the property rules of configuration lines.
#include "basicutil/LogFileAppender.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <thread>

#include "basicutil/FileDescriptor.h"
#include "basicutil/LogFormat.h"
#include "testutil.h"

using namespace morvek;

namespace {

std::string slurp(const std::string &path) {
  FileDescriptor fd;
  Str s;
  if (fd.openRead(path.c_str())) fd.readAll(s);
  return s;
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

void spit(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

// A named appender on a fresh file in a fresh directory, fed directly with events whose time
// the test chooses.
struct FileFixture {
  std::string dir = testutil::makeTempDir();
  std::string path = dir + "/app.log";
  LogFileAppender *a;
  Logger *logger;

  explicit FileFixture(const char *name, const char *pattern = "%m%n") {
    static Logger probe("LogFileAppenderProbe");
    logger = &probe;
    a = LogFileAppender::find(name, true);
    EXPECT_TRUE(LogFileAppender::setPropertyAt(name, "fileName", path));
    EXPECT_TRUE(LogFileAppender::setPropertyAt(name, "layout.ConversionPattern", pattern));
  }
  void write(const char *text, int64_t seconds = 1000, bool buffered = false) {
    LogEvent ev{Timeval(seconds, 0), logger, LOG_INFO};
    LoggerEscaped esc(text, true);
    a->append(ev, esc, nullptr, buffered);
  }
};

TEST(LogFileAppender, RotationWalksUpToTheFirstGapOrDropsTheOldest) {
  struct Case {
    const char *name;
    uint32_t backups;
    std::vector<int> present;        // suffixes that exist before the write, holding their number
    std::vector<std::string> after;  // content of base, .1, .2, .3 afterwards ("-" for absent)
  } cases[] = {
      {"LogRotGap", 3, {0, 1, 3}, {"", "new\n", "1", "3"}},
      {"LogRotFull", 3, {0, 1, 2, 3}, {"", "new\n", "1", "2"}},
      {"LogRotNone", 0, {0, 1}, {"", "1", "-", "-"}},  // the base is simply removed
  };
  for (const Case &c : cases) {
    FileFixture f(c.name);
    f.a->setProperty("maxFileSize", "1", LOG_PROP_ALL, {}, {});
    f.a->setProperty("maxBackupIndex", std::to_string(c.backups), LOG_PROP_ALL, {}, {});
    for (int s : c.present) {
      if (s > 0) spit(f.path + "." + std::to_string(s), std::to_string(s));
    }
    // maxFileSize 1: the first write rotates at once.
    f.write("new");
    for (size_t s = 0; s < c.after.size(); ++s) {
      std::string p = s == 0 ? f.path : f.path + "." + std::to_string(s);
      if (c.after[s] == "-") {
        EXPECT_FALSE(exists(p)) << c.name << " " << p;
      } else {
        EXPECT_EQ(slurp(p), c.after[s]) << c.name << " " << p;
      }
    }
  }
}

TEST(LogFileAppender, RotationUnderLoadLosesTearsAndDuplicatesNothing) {
  static Logger load("LogRotationLoad");
  Logger::initialize();
  FileFixture f("LogRotLoadApp", "%c %m%n");
  f.a->setProperty("maxFileSize", "262144", LOG_PROP_ALL, {}, {});
  f.a->setProperty("maxBackupIndex", "1000", LOG_PROP_ALL, {}, {});
  Logger::addAppender("LogRotationLoad", f.a);

  constexpr int THREADS = 8, LINES = 100000;
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < LINES; ++i) load.info("t%d n%06d ....", t, i);
    });
  }
  for (auto &th : threads) th.join();

  std::vector<std::vector<uint8_t>> seen(THREADS, std::vector<uint8_t>(LINES, 0));
  size_t files = 0, torn = 0, dup = 0, total = 0;
  for (uint32_t s = 0; s <= 1000; ++s) {
    std::string p = s == 0 ? f.path : f.path + "." + std::to_string(s);
    if (!exists(p)) break;
    ++files;
    std::string text = slurp(p);  // a last line without its newline counts as lost
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
      int t, i, used = 0;
      std::string line = text.substr(start, nl - start);
      if (sscanf(line.c_str(), "LogRotationLoad t%d n%06d ....%n", &t, &i, &used) != 2 ||
          used != static_cast<int>(line.size()) || t < 0 || t >= THREADS || i < 0 || i >= LINES) {
        ++torn;
        continue;
      }
      if (seen[t][i]++) ++dup;
      ++total;
    }
  }
  EXPECT_GT(files, 50u);
  EXPECT_EQ(torn + dup, 0u);
  EXPECT_EQ(total, size_t(THREADS) * LINES) << "lost " << size_t(THREADS) * LINES - total;
  Logger::clearAppenders("LogRotationLoad");
}

TEST(LogFileAppender, AFileMovedOrRemovedIsReopenedAfterTheNextPathCheck) {
  FileFixture f("LogMovedApp");
  f.write("a", 1000);
  ASSERT_EQ(rename(f.path.c_str(), (f.path + ".moved").c_str()), 0);
  f.write("b", 1005);  // within 5 s of the last check: still the open (moved) file
  f.write("c", 1006);  // checked: gone, so a new file
  ASSERT_EQ(unlink(f.path.c_str()), 0);
  f.write("d", 1003);  // a clock that went back checks as well
  f.write("e", 1004);
  EXPECT_EQ(slurp(f.path + ".moved"), "a\nb\n");
  EXPECT_EQ(slurp(f.path), "d\ne\n");
}

TEST(LogFileAppender, AFullDiskKeepsTheRecordPendingAndLeavesNoPartialLine) {
  FileFixture f("LogFullDiskApp");
  std::string line(99, 'x');
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 2);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit rl = {1050, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &rl);
    for (int i = 0; i < 13; ++i) {
      if (i == 12) {
        // Space comes back; the held records go out first.
        rl.rlim_cur = RLIM_INFINITY;
        setrlimit(RLIMIT_FSIZE, &rl);
      }
      std::string text = std::to_string(i % 10) + line;
      f.write(text.c_str(), 1000 + i);
      if (i >= 10 && i < 12 && f.a->pendingSize() != (i - 9) * 101u) _exit(3);
    }
    _exit(f.a->pendingSize() == 0 ? 0 : 4);
  }
  int status = testutil::waitWithTimeout(pid, 20000);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  std::string expected;
  for (int i = 0; i < 13; ++i) expected += std::to_string(i % 10) + line + "\n";
  EXPECT_EQ(slurp(f.path), expected);
}

TEST(LogFileAppender, PropertyRules) {
  LogFileAppender *a = LogFileAppender::find("LogPropsApp", true);
  struct Case {
    const char *key, *value;
    uint32_t allowed;
    bool ok;
  } cases[] = {
      {"maxFileSize", "1000 ", LOG_PROP_ALL, true},
      {"maxFileSize", "0100", LOG_PROP_ALL, false},
      {"maxFileSize", " 10", LOG_PROP_ALL, false},
      {"maxFileSize", "999", 511 - 4, false},  // restricted: may only grow
      {"maxFileSize", "2000", 1, true},
      {"maxFileSize", "3000", 2, false},  // bit not allowed
      {"maxMessageSize", "500", 64, false},
      {"layout", "FancyLayout", LOG_PROP_ALL, false},
      {"layout.ConversionPattern", "%p %m%n", LOG_PROP_ALL, true},
      {"serialization", "XML", LOG_PROP_ALL, false},
      {"serialization", "JSON", LOG_PROP_ALL, true},
      {"bufferSize", "4 KiB", LOG_PROP_ALL, true},
      {"escape", "maybe", LOG_PROP_ALL, false},
      {"colour", "red", LOG_PROP_ALL, false},
  };
  testutil::StderrCapture cap;
  for (const Case &c : cases) {
    EXPECT_EQ(a->setProperty(c.key, c.value, c.allowed, {}, {}), c.ok) << c.key << "=" << c.value;
  }
  std::string err = cap.finish();
  EXPECT_THAT(err, testing::HasSubstr("Invalid serialization='XML'"));
  EXPECT_EQ(a->getMaxFileSize(), 2000);
  EXPECT_EQ(a->getBufferSize(), 4096u);

  // Substitutions go into the path; the raw value decides suspension.
  LogSubstitutions subs{{"@DIR@", "/tmp/x"}, {"@N@", "7"}};
  std::set<Str, std::less<>> suspended{"@DIR@"};
  EXPECT_TRUE(a->setProperty("fileName", "@DIR@/log@N@.@N@", LOG_PROP_ALL, subs, suspended));
  EXPECT_EQ(a->getPath(), "/tmp/x/log7.7");
  a->fixUp("LogPropsApp", true);
  EXPECT_TRUE(a->isSilenced());
  std::string dir = testutil::makeTempDir();
  a->unsuspend({{"@DIR@", dir}, {"@N@", "8"}});
  EXPECT_FALSE(a->isSilenced());
  EXPECT_EQ(a->getPath(), dir + "/log8.8");
  EXPECT_TRUE(exists(dir + "/log8.8"));
}

TEST(LogFileAppender, ReplacementDoesNotRescanInsertedText) {
  const struct {
    const char *v, *from, *to, *out;
  } cases[] = {
      {"aXbXc", "X", "XX", "aXXbXXc"},
      {"ab", "abc", "y", "ab"},
      {"aaaa", "aa", "a", "aa"},
  };
  for (const auto &c : cases) {
    Str v(c.v), scratch;
    do_replacement(&v, c.from, c.to, scratch);
    EXPECT_EQ(v, c.out) << c.v;
  }
}

}  // namespace
