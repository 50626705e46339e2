#include "basicutil/CrashLog.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <string>
#include <thread>

#include "basicutil/BaseException.h"
#include "basicutil/Thread.h"
#include "testutil.h"

using morvek::CrashLogWriter;
using morvek::Str;
using morvek::StrSegment;

namespace {

struct Collector {
  crash_log_writer base{&Collector::append};
  std::string text;
  static void append(crash_log_writer *w, const char *bytes, size_t len) {
    reinterpret_cast<Collector *>(w)->text.append(bytes, len);
  }
};

template <typename F>
std::string render(F f) {
  Collector c;
  CrashLogWriter w(&c.base);
  f(w);
  return c.text;
}

TEST(CrashLogWriter, Numbers) {
  EXPECT_EQ(render([](CrashLogWriter &w) {
              w.writeSigned(std::numeric_limits<int64_t>::min());
              w.writeChar(' ');
              w.writeSigned(int32_t{-7});
              w.writeChar(' ');
              w.writeUnsigned(std::numeric_limits<uint64_t>::max());
              w.writeChar(' ');
              w.writeHex(uint32_t{0xBEEF});
              w.writeChar(' ');
              w.writeHex(uint64_t{0});
              w.writeDigit(true);
              w.writeDigit(false);
            }),
            "-9223372036854775808 -7 18446744073709551615 beef 010");
}

TEST(CrashLogWriter, DoublesWithoutExponent) {
  struct Case {
    double v;
    const char *want;
  } cases[] = {{0.0, "0."},
               {1.5, "1.5"},
               {-2.25, "-2.25"},
               {100.0, "100."},
               {1e21, "1000000000000000000000."},
               {0.1, "0.1"},
               {0.001, "0.001"},
               {1.25e-7, "0.000000125"},
               {123.456, "123.456"},
               {std::nan(""), "NaN"},
               {INFINITY, "Infinity"},
               {-INFINITY, "-Infinity"}};
  for (const Case &c : cases) {
    EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeDouble(c.v); }), c.want) << c.v;
  }
  // The shortest digits read back to the same value.
  std::string s = render([](CrashLogWriter &w) { w.writeDouble(1.0 / 3.0); });
  EXPECT_EQ(std::stod(s), 1.0 / 3.0) << s;
}

TEST(CrashLogWriter, TextForms) {
  unsigned char bytes[] = {0x00, 0xAB, 0x7f};
  EXPECT_EQ(render([&](CrashLogWriter &w) {
              w.write(static_cast<const char *>(nullptr));
              w.writeFlag("ready", true);
              w.writeFlag(", busy", false);
              w.writeChar(' ');
              w.writeHexBytes(bytes, 3);
              w.writeChar(' ');
              w.writeHexBytesUpper(bytes, 3);
              w.writeChar(' ');
              w.writePointer(nullptr);
              w.writeChar(' ');
              w.writePointer(reinterpret_cast<void *>(0x1f2e));
              w.writeChar(' ');
              w.write(std::runtime_error("what text"));
            }),
            "ready=Y, busy=N 00ab7f 00AB7F (nil) 0x1f2e what text");
}

TEST(CrashLogWriter, QuotedText) {
  EXPECT_EQ(render([](CrashLogWriter &w) { w.writeQuoted(StrSegment("a\"b\\c\t\r\n\x01\xff~")); }),
            "\"a\\\"b\\c\\t\\r\\n\\x01\\xFF~\"");
  std::string at_limit(240, 'q');
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeQuoted(at_limit.data(), at_limit.size()); }),
            "\"" + at_limit + "\"");
  std::string over(241, 'q');
  over[74] = 'E';
  over[75] = 'X';
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeQuoted(over.data(), over.size()); }),
            "\"" + std::string(74, 'q') + "E...[166 more bytes]\"");
}

TEST(CrashLogWriter, PrintfIsCutAt499Bytes) {
  std::string long_arg(600, 'p');
  std::string out = render([&](CrashLogWriter &w) { w.printf("<%s>", long_arg.c_str()); });
  EXPECT_EQ(out, "<" + std::string(495, 'p') + "...");
  EXPECT_EQ(render([](CrashLogWriter &w) { w.printf("%d-%s", 42, "x"); }), "42-x");
}

TEST(CrashLogWriter, MemorySampleStaysInsideItsPage) {
  long page = sysconf(_SC_PAGESIZE);
  std::vector<unsigned char> buf(3 * page);
  for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<unsigned char>(i);
  uintptr_t page_start = (reinterpret_cast<uintptr_t>(buf.data()) / page + 1) * page;
  const unsigned char *near_end = reinterpret_cast<const unsigned char *>(page_start + page - 20);
  std::string out = render([&](CrashLogWriter &w) { w.writeMemorySample("buf", near_end, 64); });
  std::string head = "First 20 bytes of buf @" +
                     render([&](CrashLogWriter &w) { w.writePointer(near_end); }) + ":\n";
  ASSERT_EQ(out.substr(0, head.size()), head) << out;
  // The hex dump's lines of 16 and 4 bytes and its closing offset, no newline behind the last.
  std::string dump = out.substr(head.size());
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 2) << dump;
  EXPECT_EQ(dump.substr(dump.size() - 9), "\n00000014") << dump;

  EXPECT_EQ(render([](CrashLogWriter &w) {
              w.writeMemorySample("low", reinterpret_cast<void *>(4000), 16);
            }),
            "First 0 bytes of low @0xfa0:\n00000000");
}

std::string writeTemp(const std::string &content) {
  std::string path = testutil::makeTempDir() + "/f.txt";
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

TEST(CrashLogWriter, FileContents) {
  const std::string frame_end = "--------------------\n\n";
  std::string path = writeTemp("ab\tc\nd\x01");
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileContents(path.c_str(), 100); }),
            "-------------------- FILE CONTENTS OF \"" + path + "\"\nab c?d?\n" + frame_end);
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileContents(path.c_str(), 3); }),
            "-------------------- FILE CONTENTS OF \"" + path + "\"\nab <truncating output>\n" +
                frame_end);
  std::string big = writeTemp(std::string(3000, 'z'));
  std::string out = render([&](CrashLogWriter &w) { w.writeFileContents(big.c_str(), 5000); });
  EXPECT_NE(out.find("\"\n" + std::string(3000, 'z') + "\n--"), std::string::npos);
  std::string empty = writeTemp("");
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileContents(empty.c_str(), 10); }),
            "-------------------- FILE CONTENTS OF \"" + empty + "\"\n" + frame_end);
  EXPECT_EQ(render([](CrashLogWriter &w) { w.writeFileContents("/nonexistent/x", 10); }),
            "-------------------- FILE CONTENTS OF \"/nonexistent/x\"\n*** ERROR OPENING FILE: "
            "No such file or directory\n" +
                frame_end);
}

TEST(CrashLogWriter, FileLastLines) {
  std::string path = writeTemp("first line\nsecond\tline\r\n\nthird\n");
  std::string head = "-------------------- LAST FEW LINE OF FILE \"" + path + "\"\n";
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileLastLines(path.c_str(), 1000); }),
            head + " Last few lines of the file):\n    first line\n    second line\n    third\n\n" +
                "--------------------\n\n");
  // Cut inside "second...": the tail starts at the next whole line.
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileLastLines(path.c_str(), 16); }),
            head + " Last few lines of the file):\n    third\n\n--------------------\n\n");
}

// ---- Notation lists -------------------------------------------------------------------------

// Renders a list as the crash handler does: each entry that wrote something gets a newline.
std::string renderList(crashlog_notation_entry *root) {
  Collector c;
  for (crashlog_notation_entry *e = root; e != nullptr; e = e->next) {
    size_t before = c.text.size();
    e->ent.render(e, &c.base);
    if (c.text.size() != before) c.text += "\n";
  }
  return c.text;
}

class CrashNotations : public testing::Test {
 protected:
  void SetUp() override {
    crash_log_set_notation_perthread_state_func(&morvek::threadCrashlogNotationState);
  }
  void TearDown() override { crash_log_set_notation_perthread_state_func(nullptr); }
  static crashlog_notation_perthread_state *mine() { return morvek::threadCrashlogNotationState(); }
};

TEST_F(CrashNotations, ScopesStackInPushOrder) {
  ASSERT_NE(mine(), nullptr);
  crashlog_notation_entry *root_before = mine()->root;
  Str pattern("a(b");
  {
    morvek::ScopedPerThreadCrashLogConstantStringNotation a("outer");
    { morvek::ScopedPerThreadCrashLogConstantStrlikeNotation gone(StrSegment("gone")); }
    morvek::CrashlogAnnotateRegexCompile b(&pattern, "caseless");
    morvek::CrashlogAnnotateRegexCompile c(&pattern);
    ASSERT_EQ(crashlog_notation_perthread_push_string("", 0), 0);  // renders nothing
    EXPECT_TRUE(a.isAttached());
    EXPECT_EQ(renderList(mine()->root),
              "outer\n\nWHILE COMPILING REGEX: /a(b/ (caseless)\n\n"
              "WHILE COMPILING REGEX: /a(b/\n\n");
    crashlog_notation_perthread_pop();
  }
  EXPECT_EQ(mine()->root, root_before);
  EXPECT_EQ(mine()->last, nullptr);
}

TEST_F(CrashNotations, WorkerThreadListStartsWithItsDescription) {
  std::string text;
  morvek::ThreadFunction t(
      [&] {
        morvek::ScopedPerThreadCrashLogConstantStringNotation n("in worker");
        text = renderList(mine()->root);
      },
      "noted worker");
  t.go();
  t.join();
  EXPECT_EQ(text.rfind("Thread: \"notedworker\", did_join=", 0), 0u) << text;
  EXPECT_NE(text.find("\nin worker\n\n"), std::string::npos) << text;
}

TEST_F(CrashNotations, ThreadWithoutStateDoesNotAttach) {
  bool attached = true;
  int push = 0;
  // A plain OS thread is no Thread and not the main thread: it has no list.
  std::thread t([&] {
    morvek::ScopedPerThreadCrashLogConstantStringNotation n("nowhere");
    attached = n.isAttached();
    push = crashlog_notation_perthread_push_string("x", 1);
  });
  t.join();
  EXPECT_FALSE(attached);
  EXPECT_EQ(push, -1);
  crash_log_set_notation_perthread_state_func(nullptr);
  morvek::ScopedPerThreadCrashLogConstantStringNotation n("no getter");
  EXPECT_FALSE(n.isAttached());
}

TEST(CrashNotationsGlobal, NotesAreAppendedAndCopied) {
  crashlog_notation_perthread_state *list = crashlog_notation_global_list();
  crashlog_notation_entry *before_last = list->last;
  Str text("copied note");
  morvek::addCrashLogNote(text);
  text.assign("changed");
  morvek::addCrashLogNote("formatted %d", 7);
  morvek::addCrashLogNote("permanent");
  crashlog_notation_entry *first_new = before_last != nullptr ? before_last->next : list->root;
  EXPECT_EQ(renderList(first_new), "copied note\nformatted 7\npermanent\n");
}

// ---- The crash path's writer limits ---------------------------------------------------------

// Runs f with a crash log handle on a temporary file, and returns the file.
template <typename F>
std::string writeThroughHandle(F f) {
  std::string path = testutil::makeTempDir() + "/log";
  int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  crash_log_write_handle z;
  crash_log_write_handle_init(&z, fd);
  f(&z.whand);
  close(fd);
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(CrashLogLimits, SingleWriteLimit) {
  std::string big(51201, 'b');
  std::string out = writeThroughHandle([&](crash_log_writer *w) {
    crashlog_write(w, big.data(), 51200);
    crashlog_write(w, big.data(), 51201);
  });
  const std::string refused = "Crash log write attempted over the limit of (50kB), skipping.\n";
  EXPECT_EQ(refused.size(), 62u);
  EXPECT_EQ(out, std::string(51200, 'b') + refused);
}

TEST(CrashLogLimits, TotalLimitTruncatesOnce) {
  std::string chunk(50000, 'c');
  std::string out = writeThroughHandle([&](crash_log_writer *w) {
    for (int i = 0; i < 12; ++i) crashlog_write(w, chunk.data(), chunk.size());
  });
  const std::string last = "Crash log has overflowed the allowed limit (512kB), truncated.\n";
  ASSERT_EQ(out.size(), 10 * 50000 + last.size());
  EXPECT_EQ(out.substr(500000), last);
}

// ---- Backtraces -----------------------------------------------------------------------------

struct Frames {
  void *a[64], *b[64];
  int na, nb;
  void *return_address;
};

__attribute__((noinline)) void captureFrames(Frames &f) {
  f.na = crash_backtrace(f.a, 64, 0);
  f.nb = crash_backtrace(f.b, 64, 1);
  f.return_address = __builtin_return_address(0);
  __asm__ volatile("" ::: "memory");
}

TEST(CrashBacktrace, SkipCountsFromTheCaller) {
  Frames f;
  captureFrames(f);
  ASSERT_GE(f.na, 3);
  EXPECT_EQ(f.nb, f.na - 1);
  // The first frame is the caller itself, the second its caller.
  uintptr_t fn = reinterpret_cast<uintptr_t>(&captureFrames);
  uintptr_t first = reinterpret_cast<uintptr_t>(f.a[0]);
  EXPECT_TRUE(first > fn && first < fn + 512) << std::hex << first << " vs " << fn;
  EXPECT_EQ(f.a[1], f.return_address);
  EXPECT_EQ(f.b[0], f.a[1]);
}

TEST(CrashBacktrace, DispatcherFormsAgree) {
  void *addrs[4];
  size_t sizes[4] = {9, 9, 9, 9};
  int left = -1;
  int n = crash_backtrace_any(addrs, sizes, 1, 0, nullptr, &left);
  EXPECT_EQ(n, 1);
  EXPECT_GT(left, 0);
  EXPECT_EQ(sizes[0], 0u);
  EXPECT_EQ(sizes[1], 9u);
  EXPECT_EQ(crash_backtrace_any(addrs, nullptr, 0, 0, nullptr, nullptr), 0);
}

int replacementCalls = 0;
int replacement(void **, size_t *, int, int, const void *, int *) {
  ++replacementCalls;
  return 5;
}

TEST(CrashBacktrace, ReplacementTakesAllCalls) {
  void *addrs[4];
  crash_backtrace_set_replacement(&replacement);
  EXPECT_EQ(crash_backtrace(addrs, 4, 0), 5);
  EXPECT_EQ(crash_backtrace_any(addrs, nullptr, 4, 0, addrs, nullptr), 5);
  crash_backtrace_set_replacement(nullptr);
  EXPECT_EQ(replacementCalls, 2);
}

// ---- BaseException --------------------------------------------------------------------------

TEST(BaseException, Messages) {
  EXPECT_STREQ(morvek::BaseException().what(), "BaseException");
  EXPECT_STREQ(morvek::BaseException("").what(), "BaseException");
  EXPECT_EQ(morvek::BaseException(Str()).getMessage(), "BaseException");
  EXPECT_STREQ(morvek::BaseException(ENOENT, "open %s: %m", "f").what(),
               "open f: No such file or directory");
  EXPECT_STREQ(morvek::BaseException("cannot start: ", EAGAIN, "%s: %m", "t1").what(),
               "cannot start: t1: Resource temporarily unavailable");
  errno = EACCES;
  morvek::BaseException from_errno(morvek::BaseException::USE_ERRNO, nullptr, "%m");
  EXPECT_STREQ(from_errno.what(), "Permission denied");
  EXPECT_EQ(errno, EACCES);

  Str out("x=");
  from_errno.appendTo(out);
  EXPECT_EQ(out, "x=Permission denied");
  EXPECT_EQ(render([&](CrashLogWriter &w) { morvek::BaseException().write(w); }), "BaseException");
}

TEST(BaseException, CopyAndMove) {
  morvek::BaseException a("moved text");
  morvek::BaseException copy(a);
  morvek::BaseException moved(std::move(a));
  EXPECT_STREQ(copy.what(), "moved text");
  EXPECT_STREQ(moved.what(), "moved text");
  EXPECT_STREQ(a.what(), "BaseException");  // NOLINT: the source is left empty
  morvek::BaseException assigned("old");
  assigned = copy;
  EXPECT_STREQ(assigned.what(), "moved text");
  assigned.setMessage("new");
  EXPECT_STREQ(assigned.what(), "new");
  EXPECT_STREQ(copy.what(), "moved text");
}

[[noreturn]] __attribute__((noinline)) void throwFromWhat() { throw 1; }
struct ThrowingWhat;
[[noreturn]] __attribute__((noinline)) void throwThrowingWhat();

struct ThrowingWhat : std::exception {
  const char *what() const noexcept override { throwFromWhat(); }
};

void throwThrowingWhat() { throw ThrowingWhat(); }

TEST(TerminateHandlerDeathTest, WhatThatThrowsEndsInTheRecursionText) {
  EXPECT_EXIT(
      {
        std::set_terminate(&morvek::terminateHandler);
        []() noexcept { throwThrowingWhat(); }();
      },
      testing::KilledBySignal(SIGABRT),
      "terminate called after throwing an instance of '.*ThrowingWhat.*'\n"
      "terminate called recursively\n");
}

TEST(TerminateHandler, NothingToReportBeforeTerminate) {
  Collector c;
  EXPECT_EQ(morvek::crashLogExceptionReport(&c.base), 0);
  EXPECT_EQ(c.text, "");
}

}  // namespace
