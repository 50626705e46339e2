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

template <typename F>
std::string render(F f) {
  return testutil::renderCrash<CrashLogWriter>(f);
}

TEST(CrashLogWriter, NumbersDoublesAndTextForms) {
  const unsigned char bytes[] = {0x00, 0xAB, 0x7f};
  EXPECT_EQ(render([&](CrashLogWriter &w) {
              w.writeSigned(std::numeric_limits<int64_t>::min());
              w.writeSigned(int32_t{-7});
              w.writeUnsigned(std::numeric_limits<uint64_t>::max());
              w.writeHex(uint32_t{0xBEEF});
              w.writeHex(uint64_t{0});
              w.writeDigit(true);
              w.writeDigit(false);
              w.write(static_cast<const char *>(nullptr));
              w.writeFlag(" ready", true);
              w.writeFlag(", busy", false);
              w.writeHexBytes(bytes, 3);
              w.writeHexBytesUpper(bytes, 3);
              w.writePointer(nullptr);
              w.writePointer(reinterpret_cast<void *>(0x1f2e));
              w.write(std::runtime_error("what text"));
              w.printf("%d-%s", 42, "x");
              w.writeDouble(-2.25);  // the descriptor's text form, checked with it
            }),
            "-9223372036854775808-718446744073709551615beef010 ready=Y, busy=N00ab7f00AB7F"
            "(nil)0x1f2ewhat text42-x-2.25");
  // Printf output is cut at 499 bytes.
  EXPECT_EQ(render([](CrashLogWriter &w) { w.printf("<%s>", std::string(600, 'p').c_str()); }),
            "<" + std::string(495, 'p') + "...");
}

TEST(CrashLogWriter, QuotedTextAndItsLimit) {
  auto quoted = [](const std::string &s) {
    return render([&](CrashLogWriter &w) { w.writeQuoted(StrSegment(s)); });
  };
  EXPECT_EQ(quoted("a\"b\\c\t\r\n\x01\xff~"), "\"a\\\"b\\c\\t\\r\\n\\x01\\xFF~\"");
  EXPECT_EQ(quoted(std::string(240, 'q')), "\"" + std::string(240, 'q') + "\"");
  std::string over(241, 'q');
  over.replace(74, 2, "EX");
  EXPECT_EQ(quoted(over), "\"" + std::string(74, 'q') + "E...[166 more bytes]\"");
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

TEST(CrashLogWriter, FileContentsAndLastLines) {
  const std::string dir = testutil::makeTempDir(), end = "--------------------\n\n";
  auto file = [&](const std::string &name, const std::string &content) {
    std::ofstream(dir + "/" + name, std::ios::binary) << content;
    return dir + "/" + name;
  };
  auto contents = [](const std::string &path, size_t limit) {
    return render([&](CrashLogWriter &w) { w.writeFileContents(path.c_str(), limit); });
  };
  const std::string small = file("small", "ab\tc\nd\x01"), empty = file("empty", "");
  const std::string head = "-------------------- FILE CONTENTS OF \"";
  EXPECT_EQ(contents(small, 7), head + small + "\"\nab c?d?\n" + end);  // exactly the limit
  EXPECT_EQ(contents(small, 3), head + small + "\"\nab <truncating output>\n" + end);
  EXPECT_EQ(contents(empty, 10), head + empty + "\"\n" + end);
  EXPECT_EQ(contents("/nonexistent/x", 10), head + "/nonexistent/x\"\n*** ERROR OPENING FILE: " +
                                                "No such file or directory\n" + end);
  const std::string big = file("big", std::string(3000, 'z'));  // more than one read
  EXPECT_NE(contents(big, 5000).find("\"\n" + std::string(3000, 'z') + "\n--"), std::string::npos);

  // NUL and CR dropped, tab to blank, other bytes to "?", empty lines skipped.
  const std::string lines =
      file("lines", std::string("first line\nsecond\tline\r\n\n\x01z\0y\xff\nthird", 36));
  const std::string tail_head = "-------------------- LAST FEW LINE OF FILE \"" + lines +
                                "\"\n Last few lines of the file):\n";
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileLastLines(lines.c_str(), 1000); }),
            tail_head + "    first line\n    second line\n    ?zy?\n    third\n\n" + end);
  // Cut inside "?zy?": the tail starts at the next whole line.
  EXPECT_EQ(render([&](CrashLogWriter &w) { w.writeFileLastLines(lines.c_str(), 10); }),
            tail_head + "    third\n\n" + end);
}

// ---- Notation lists -------------------------------------------------------------------------

// Renders a list as the crash handler does: each entry that wrote something gets a newline.
std::string renderList(crashlog_notation_entry *root) {
  testutil::CollectingWriter c;
  for (crashlog_notation_entry *e = root; e != nullptr; e = e->next) {
    size_t before = c.text.size();
    e->ent.render(e, &c.handle);
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

// A worker's own list is checked through a real crash report; a plain OS thread is no Thread
// and not the main thread: it has no list.
TEST_F(CrashNotations, ForeignThreadsHaveNone) {
  bool attached = true;
  int push = 0;
  std::thread([&] {
    morvek::ScopedPerThreadCrashLogConstantStringNotation n("nowhere");
    attached = n.isAttached();
    push = crashlog_notation_perthread_push_string("x", 1);
  }).join();
  EXPECT_FALSE(attached);
  EXPECT_EQ(push, -1);
  crash_log_set_notation_perthread_state_func(nullptr);
  EXPECT_FALSE(morvek::ScopedPerThreadCrashLogConstantStringNotation("no getter").isAttached());
}

TEST(CrashNotationsGlobal, NotesAreAppendedAndCopied) {
  crashlog_notation_perthread_state *list = crashlog_notation_global_list();
  crashlog_notation_entry *before_last = list->last;
  Str text("copied note");
  morvek::addCrashLogNote(text);
  text.assign("changed");
  crashlog_notation_entry *first_new = before_last != nullptr ? before_last->next : list->root;
  EXPECT_EQ(renderList(first_new), "copied note\n");
}

// The crash path's limit on one write, through a crash log handle on a temporary file; the total
// limit is checked through a real crash report.
TEST(CrashLogLimits, SingleWriteLimit) {
  std::string path = testutil::makeTempDir() + "/log", big(51201, 'b');
  int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
  crash_log_write_handle z;
  crash_log_write_handle_init(&z, fd);
  crashlog_write(&z.whand, big.data(), 51200);
  crashlog_write(&z.whand, big.data(), 51201);
  close(fd);
  std::ifstream in(path, std::ios::binary);
  EXPECT_EQ(
      std::string(std::istreambuf_iterator<char>(in), {}),
      std::string(51200, 'b') + "Crash log write attempted over the limit of (50kB), skipping.\n");
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

int replacementCalls = 0;
int replacement(void **, size_t *, int, int, const void *, int *) {
  ++replacementCalls;
  return 5;
}

TEST(CrashBacktrace, SkipCountsFromTheCallerAndFormsAgree) {
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

  void *addrs[4];
  size_t sizes[4] = {9, 9, 9, 9};
  int left = -1;
  EXPECT_EQ(crash_backtrace_any(addrs, sizes, 1, 0, nullptr, &left), 1);
  EXPECT_TRUE(left > 0 && sizes[0] == 0 && sizes[1] == 9);

  // A replacement takes all calls.
  crash_backtrace_set_replacement(&replacement);
  EXPECT_EQ(crash_backtrace(addrs, 4, 0), 5);
  EXPECT_EQ(crash_backtrace_any(addrs, nullptr, 4, 0, addrs, nullptr), 5);
  crash_backtrace_set_replacement(nullptr);
  EXPECT_EQ(replacementCalls, 2);
}

// ---- BaseException --------------------------------------------------------------------------

TEST(BaseException, MessagesCopiesAndMoves) {
  EXPECT_STREQ(morvek::BaseException("").what(), "BaseException");
  EXPECT_STREQ(morvek::BaseException(ENOENT, "open %s: %m", "f").what(),
               "open f: No such file or directory");
  EXPECT_STREQ(morvek::BaseException("cannot start: ", EAGAIN, "%s: %m", "t1").what(),
               "cannot start: t1: Resource temporarily unavailable");
  errno = EACCES;
  morvek::BaseException from_errno(morvek::BaseException::USE_ERRNO, nullptr, "%m");
  EXPECT_STREQ(from_errno.what(), "Permission denied");
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(render([&](CrashLogWriter &w) { from_errno.write(w); }), "Permission denied");

  morvek::BaseException a("moved text");
  morvek::BaseException moved(std::move(a));
  EXPECT_STREQ(moved.what(), "moved text");
  EXPECT_STREQ(a.what(), "BaseException");  // NOLINT: the source is left empty
}

[[noreturn]] __attribute__((noinline)) void throwFromWhat() { throw 1; }
struct ThrowingWhat : std::exception {
  const char *what() const noexcept override { throwFromWhat(); }
};
[[noreturn]] __attribute__((noinline)) void throwThrowingWhat() { throw ThrowingWhat(); }

TEST(TerminateHandlerDeathTest, WhatThatThrowsEndsInTheRecursionText) {
  testutil::CollectingWriter c;
  EXPECT_EQ(morvek::crashLogExceptionReport(&c.handle), 0);  // nothing to report yet
  EXPECT_EQ(c.text, "");
  EXPECT_EXIT(
      {
        std::set_terminate(&morvek::terminateHandler);
        []() noexcept { throwThrowingWhat(); }();
      },
      testing::KilledBySignal(SIGABRT),
      "terminate called after throwing an instance of '.*ThrowingWhat.*'\n"
      "terminate called recursively\n");
}

}  // namespace
