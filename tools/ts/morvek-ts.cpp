// morvek-ts: prints the time the library finds in each line of log text.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "basicutil/FileDescriptor.h"
#include "basicutil/Logger.h"
#include "basicutil/Thread.h"
#include "libzero/unicode-file-reader.h"
#include "tools/ts/TsCore.h"

using namespace morvek;
using namespace morvek::ts;

namespace {

const char *const USAGE =
    "usage: morvek-ts [OPTIONS] [FILE...]\n"
    "\n"
    "Finds the time of each line of log text (FILE, or standard input when there is none or\n"
    "for \"-\"; any Unicode encoding, invalid bytes read as U+FFFD) and prints one line per\n"
    "input line:\n"
    "    COLUMN<TAB>LINE\n"
    "COLUMN is the time found, in the offset the text resolved to and with as many fraction\n"
    "digits as the text had (\"2024-03-10T01:59:59.123-05:00\"; epoch inputs show \"+00:00\");\n"
    "\"~\" and the previous line's time when the line has none of its own; \"-\" when there is\n"
    "no time at all. With several files each line starts with FILE<TAB>, in argument order.\n"
    "\n"
    "  --tz ZONE             zone of text that names none (\"America/New_York\", \"EST5EDT\",\n"
    "                        \"+0200\"); default the local zone\n"
    "  --tz-alias TEXT       zone words meaning other zones: \"EST=America/New_York,IST=+0530\"\n"
    "  --now TIME            the time each line is taken to be read at, which bounds what is\n"
    "                        believable and completes dates: epoch seconds or ISO 8601\n"
    "                        (\"2025-06-15T12:00:00Z\"; no designator is UTC); default the clock\n"
    "  --lookahead N         look at the first N bytes of a line only (-1: all)\n"
    "  --format FORMAT       try this strftime-style TIME_FORMAT before the patterns\n"
    "  --prefix REGEX        the time follows the first match of REGEX; lines without one\n"
    "                        have no time of their own\n"
    "  --max-days-ago N      refuse times more than N days before --now (default 1825)\n"
    "  --max-days-hence N    refuse times more than N days after --now (default 7)\n"
    "  --source PATH         take the date that lines leave out from a date in PATH\n"
    "                        (\"app-2024-03-10.log\"); default each FILE's own path\n"
    "  --patterns FILE       use this pattern file instead of the shipped one\n"
    "  --epoch               print epoch seconds instead (\"1710053999.123\", \"~...\", \"-\")\n"
    "  --events              group lines into events: a line starts a new event when it holds a\n"
    "                        believable new time, others continue it. One output line per\n"
    "                        event: COLUMN<TAB>+N<TAB>FIRST LINE, N the continuation lines\n"
    "  -j, --jobs N          read up to N files at once, one parser each; output order stays\n"
    "  --summary             at the end, on standard error, lines of the form\n"
    "                        \"summary: lines N found N previous N none N\" (with --events these\n"
    "                        count events, and \"continuation N\" the other lines), then\n"
    "                        \"summary: time LABEL N\" and\n"
    "                        \"summary: date LABEL N\" for the patterns that found the times\n"
    "  --verbose             let the parser log its warnings on standard error\n"
    "  -h, --help            this text\n"
    "\n"
    "The shipped patterns are in share/morvek/timestamp-patterns.conf beside the bin directory\n"
    "of this program (or the install prefix's, or the source tree's data/). A progress line is\n"
    "shown on standard error when it is a terminal and the input is large. Errors print one\n"
    "line on standard error: bad options exit with 2, unreadable files, bad zones and bad\n"
    "pattern files with 1.\n";

constexpr size_t OUTPUT_CHUNK = 64 * 1024;
constexpr uint64_t PROGRESS_MIN_BYTES = 64ull << 20;

void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
void complain(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  fflush(stdout);
  fputs("morvek-ts: ", stderr);
  vfprintf(stderr, format, ap);
  fputc('\n', stderr);
  va_end(ap);
}

// A read(2) source for the Unicode reader that counts what it handed out.
struct ByteSource {
  int fd = -1;
  int error = 0;
  uint64_t consumed = 0;
  size_t pos = 0, len = 0;
  unsigned char buf[64 * 1024];

  static int getByte(void *user) {
    ByteSource *s = static_cast<ByteSource *>(user);
    if (s->pos == s->len) {
      ssize_t n;
      do n = read(s->fd, s->buf, sizeof s->buf);
      while (n < 0 && errno == EINTR);
      if (n <= 0) {
        if (n < 0) s->error = errno;
        return -1;
      }
      s->consumed += n;
      s->pos = 0;
      s->len = static_cast<size_t>(n);
    }
    return s->buf[s->pos++];
  }
};

struct Job {
  Str path;               // "-" for standard input
  FILE *spill = nullptr;  // output made before this job's turn
  bool direct = false;    // its turn: output goes straight to stdout
  bool done = false;
  Str error;
  TsStats stats;
  std::atomic<uint64_t> consumed{0};
};

class Runner {
 public:
  Runner(const TsOptions &opts, std::vector<Str> &files) : _opts(opts) {
    if (files.empty()) files.push_back("-");
    for (Str &f : files) {
      _jobs.push_back(std::make_unique<Job>());
      _jobs.back()->path = std::move(f);
    }
    _with_names = _jobs.size() > 1;
    if (isatty(2)) {
      for (const auto &job : _jobs) {
        struct stat st;
        if (job->path != "-" && stat(job->path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
          _total_bytes += st.st_size;
      }
      _show_progress = _total_bytes >= PROGRESS_MIN_BYTES;
    }
  }

  // Runs every job; the exit status.
  int run() {
    const size_t workers = std::min<size_t>(_opts.jobs, _jobs.size());
    std::vector<std::unique_ptr<ThreadFunction>> threads;
    if (workers > 1) {
      for (size_t i = 0; i < workers; ++i) {
        threads.push_back(std::make_unique<ThreadFunction>([this] { work(); }, "morvek-ts"));
        threads.back()->go();
      }
    }
    int status = 0;
    for (auto &job : _jobs) {
      takeTurn(*job);
      if (workers <= 1) runJob(*job);
      ScopedMutexLock lock(_mutex);
      while (!job->done) _cond.wait(_mutex);
      // A job's error stands where its output ends.
      if (!job->error.empty()) {
        complain("%s", job->error.c_str());
        status = 1;
      }
      _stats.add(job->stats);
    }
    for (auto &t : threads) t->join();
    if (_show_progress) fputs("\r\033[K", stderr);
    if (fflush(stdout) != 0) {
      complain("cannot write the output: %s", strerror(errno));
      status = 1;
    }
    if (_opts.summary) {
      Str text;
      _stats.render(text, "summary: ", _opts.events);
      fputs(text.c_str(), stderr);
    }
    return status;
  }

 private:
  // Output made so far goes out; from now on the job writes straight to stdout.
  void takeTurn(Job &job) {
    ScopedMutexLock lock(_mutex);
    if (job.spill != nullptr) {
      char buf[64 * 1024];
      rewind(job.spill);
      size_t n;
      while ((n = fread(buf, 1, sizeof buf, job.spill)) > 0) fwrite(buf, 1, n, stdout);
      fclose(job.spill);
      job.spill = nullptr;
    }
    job.direct = true;
  }

  void work() {
    for (size_t i; (i = _next.fetch_add(1)) < _jobs.size();) runJob(*_jobs[i]);
  }

  void runJob(Job &job) {
    ByteSource src;
    FileDescriptor owned;
    if (job.path == "-") {
      src.fd = 0;
    } else if (owned.openRead(job.path.c_str())) {
      src.fd = owned.fd();
    } else {
      job.error.printf("cannot open %s: %s", job.path.c_str(), strerror(errno));
      finish(job);
      return;
    }
    TsOptions opts = _opts;
    if (!opts.has_source && job.path != "-") {
      opts.source = job.path;
      opts.has_source = true;
    }
    LineTimer timer(opts);
    Str why;
    if (!timer.configure(why)) {  // checked once before; a file's own source can't fail here
      job.error = why;
      finish(job);
      return;
    }
    utrans_read_file reader;
    utrans_init_read(&reader, &src, &ByteSource::getByte);
    reader.common.error_mode = UTRANS_ERRORMODE_MARK_INVALID;
    const Str name_column = _with_names ? Str(job.path, "\t") : Str();
    Str out, column, first_line;
    uint64_t continuation = 0;
    bool have_event = false;
    auto emitEvent = [&] {
      out += name_column;
      out += column;
      out.appendf("\t+%llu\t", static_cast<unsigned long long>(continuation));
      out += first_line;
      out.push_back('\n');
    };
    size_t len;
    while (const char *bytes = utrans_readline_utf8(&reader, &len)) {
      const StrSegment line(bytes, len);
      if (_opts.events) {
        if (have_event && !timer.parser().isTimestampLine(line)) {
          ++continuation;
          continue;
        }
        if (have_event) emitEvent();
        timer.addContinuation(continuation);
        column.clear();
        timer.column(line, column);
        first_line.assign(line.data(), line.size());
        continuation = 0;
        have_event = true;
      } else {
        out += name_column;
        timer.column(line, out);
        out.push_back('\t');
        out.append(line.data(), line.size());
        out.push_back('\n');
      }
      if (out.size() >= OUTPUT_CHUNK) flush(job, out, src.consumed);
    }
    if (have_event) emitEvent();
    timer.addContinuation(continuation);
    flush(job, out, src.consumed);
    if (src.error != 0)
      job.error.printf("cannot read %s: %s", job.path.c_str(), strerror(src.error));
    utrans_release(&reader);
    job.stats = timer.stats();
    finish(job);
  }

  void finish(Job &job) {
    ScopedMutexLock lock(_mutex);
    job.done = true;
    _cond.broadcast();
  }

  void flush(Job &job, Str &out, uint64_t consumed) {
    ScopedMutexLock lock(_mutex);
    if (job.direct) {
      fwrite(out.data(), 1, out.size(), stdout);
    } else {
      if (job.spill == nullptr) job.spill = tmpfile();
      if (job.spill == nullptr || fwrite(out.data(), 1, out.size(), job.spill) != out.size()) {
        if (job.error.empty())
          job.error.printf("cannot keep the output of %s: %s", job.path.c_str(), strerror(errno));
      }
    }
    out.clear();
    job.consumed.store(consumed, std::memory_order_relaxed);
    if (_show_progress) progress();
  }

  void progress() {
    const MonotonicTime now = MonotonicTime::now();
    if (now.seconds() == _last_progress && _progress_shown) return;
    _last_progress = now.seconds();
    _progress_shown = true;
    uint64_t done = 0;
    for (const auto &job : _jobs) done += job->consumed.load(std::memory_order_relaxed);
    fprintf(stderr, "\rmorvek-ts: %3llu%% of %llu MB",
            (unsigned long long)(done * 100 / _total_bytes),
            (unsigned long long)(_total_bytes >> 20));
  }

  const TsOptions &_opts;
  std::vector<std::unique_ptr<Job>> _jobs;
  bool _with_names = false;
  PthreadMutex _mutex;
  PthreadCondition _cond;
  std::atomic<size_t> _next{0};
  TsStats _stats;
  bool _show_progress = false, _progress_shown = false;
  uint64_t _total_bytes = 0;
  uint32_t _last_progress = 0;
};

}  // namespace

int main(int argc, char **argv) {
  EmptyMainThread main_thread;
  std::vector<Str> args(argv + 1, argv + argc), files;
  TsOptions opts;
  Str error;
  if (!parseOptions(args, opts, files, error)) {
    complain("%s", error.c_str());
    return 2;
  }
  if (opts.help) {
    fputs(USAGE, stdout);
    return 0;
  }
  if (!opts.verbose) quietParserLogs();
  if (!loadPatterns(DateTimeRegexes::shared(), opts, error)) {
    complain("%s", error.c_str());
    return 1;
  }
  {
    // Settings are checked once, before any output.
    LineTimer probe(opts);
    if (!probe.configure(error)) {
      complain("%s", error.c_str());
      return 1;
    }
  }
  static char stdout_buffer[256 * 1024];
  setvbuf(stdout, stdout_buffer, _IOFBF, sizeof stdout_buffer);
  return Runner(opts, files).run();
}
