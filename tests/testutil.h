// Helpers shared by the tests: running a program and reading its output.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "libzero/create-crash-dump.h"

namespace testutil {

// A crash-log writer that keeps what is written, for checking renderings.
struct CollectingWriter {
  crash_log_writer handle{&CollectingWriter::write};
  std::string text;
  static void write(crash_log_writer *h, const char *bytes, size_t len) {
    reinterpret_cast<CollectingWriter *>(h)->text.append(bytes, len);
  }
};

// What f writes through a CrashLogWriter (any type constructible from the writer handle).
template <typename Writer, typename F>
std::string renderCrash(F f) {
  CollectingWriter c;
  Writer w(&c.handle);
  f(w);
  return c.text;
}

struct ChildProcess {
  pid_t pid = -1;
  int out_fd = -1;  // the child's standard output, or -1
  int err_fd = -1;  // the child's standard error, or -1
};

// Starts argv[0] with the given arguments and pipes on both standard streams.
ChildProcess spawnWithPipes(const std::vector<std::string> &argv);

// Runs the program to its end and collects both streams and the wait status.
struct RunResult {
  std::string out;
  std::string err;
  int status = 0;
};
RunResult runToCompletion(const std::vector<std::string> &argv, int timeout_ms = 10000);

// Reads one line (without the newline) from fd, waiting at most timeout_ms. False on EOF or
// time-out.
bool readLine(int fd, std::string &line, int timeout_ms);

// Waits for the child; returns its wait status, or -1 on time-out (the child is then killed).
int waitWithTimeout(pid_t pid, int timeout_ms);

std::string makeTempDir();

// Sends descriptor 2 to an unlinked temporary file until finish(), which restores it and returns
// what was written.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  std::string finish();

 private:
  int _saved = -1;
  int _fd = -1;
};

// Sets TZ (and calls tzset) for its lifetime, then restores the previous value or its absence.
class ScopedTz {
 public:
  explicit ScopedTz(const char *zone);
  ~ScopedTz();

 private:
  bool _had;
  std::string _saved;
};

}  // namespace testutil
