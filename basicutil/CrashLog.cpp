#include "basicutil/CrashLog.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "basicutil/BaseException.h"
#include "basicutil/BasicConversions.h"
#include "basicutil/FileDescriptor.h"
#include "basicutil/HexDumper.h"
#include "basicutil/PrintFloatingPoint.h"
#include "basicutil/PrintfFormat.h"
#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

constexpr char LOWER_HEX[] = "0123456789abcdef";
constexpr char UPPER_HEX[] = "0123456789ABCDEF";

// Bytes outside 32 to 126 as "?", tabs as blanks.
void makePrintable(char *p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(p[i]);
    if (c == '\t') {
      p[i] = ' ';
    } else if (c < 32 || c > 126) {
      p[i] = '?';
    }
  }
}

void writeErrorOpening(CrashLogWriter &w, int err) {
  w.write("*** ERROR OPENING FILE: ");
  const char *text = strerrordesc_np(err);
  w.write(text != nullptr ? text : "Unknown error");
  w.writeChar('\n');
}

}  // namespace

// ---- CrashLogWriter -----------------------------------------------------------------------------

void CrashLogWriter::write(const std::exception &e) { write(e.what()); }

void CrashLogWriter::writeUnsigned(uint64_t v) {
  char buf[20];
  write(buf, writeDecimalU64(buf, v));
}

void CrashLogWriter::writeSigned(int64_t v) {
  char buf[21];
  write(buf, writeDecimalI64(buf, v));
}

void CrashLogWriter::writeHex(uint64_t v) {
  char buf[16];
  size_t i = sizeof buf;
  do {
    buf[--i] = LOWER_HEX[v & 15];
    v >>= 4;
  } while (v != 0);
  write(buf + i, sizeof buf - i);
}

void CrashLogWriter::writeDouble(double v) {
  char buf[400];
  size_t n = FileDescriptor::formatFloatText(v, buf, sizeof buf);
  write(buf, n < sizeof buf ? n : 0);
}

void CrashLogWriter::printf(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  crashlog_vprintf(_handle, format, ap);
  va_end(ap);
}

void CrashLogWriter::writeFlag(const char *name, bool value) {
  write(name);
  write(value ? "=Y" : "=N");
}

void CrashLogWriter::writeHexBytes(const void *bytes, size_t len, const char *digits) {
  const unsigned char *p = static_cast<const unsigned char *>(bytes);
  char buf[64];
  size_t used = 0;
  for (size_t i = 0; i < len; ++i) {
    buf[used++] = digits[p[i] >> 4];
    buf[used++] = digits[p[i] & 15];
    if (used == sizeof buf) {
      write(buf, used);
      used = 0;
    }
  }
  if (used != 0) write(buf, used);
}

void CrashLogWriter::writeHexBytes(const void *bytes, size_t len) {
  writeHexBytes(bytes, len, LOWER_HEX);
}

void CrashLogWriter::writeHexBytesUpper(const void *bytes, size_t len) {
  writeHexBytes(bytes, len, UPPER_HEX);
}

void CrashLogWriter::writePointer(const void *p) {
  if (p == nullptr) {
    write("(nil)");
    return;
  }
  write("0x");
  writeHex(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)));
}

void CrashLogWriter::writeQuoted(const char *bytes, size_t len) {
  writeChar('"');
  size_t shown = len > 240 ? 75 : len;
  size_t run = 0;  // start of the pending run of plain bytes
  for (size_t i = 0; i < shown; ++i) {
    unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c >= 32 && c <= 126 && c != '"') continue;
    write(bytes + run, i - run);
    run = i + 1;
    switch (c) {
      case '"':
        write("\\\"");
        break;
      case '\t':
        write("\\t");
        break;
      case '\r':
        write("\\r");
        break;
      case '\n':
        write("\\n");
        break;
      default: {
        char esc[4] = {'\\', 'x', UPPER_HEX[c >> 4], UPPER_HEX[c & 15]};
        write(esc, 4);
      }
    }
  }
  write(bytes + run, shown - run);
  if (shown < len) {
    write("...[");
    writeUnsigned(static_cast<uint64_t>(len - shown));
    write(" more bytes]");
  }
  writeChar('"');
}

void CrashLogWriter::writeMemorySample(const char *name, const void *address, size_t count) {
  uintptr_t a = reinterpret_cast<uintptr_t>(address);
  long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) page = 4096;
  uintptr_t page_end = (a / static_cast<uintptr_t>(page) + 1) * static_cast<uintptr_t>(page);
  if (a < 4096) {
    count = 0;
  } else if (count > page_end - a) {
    count = page_end - a;
  }
  write("First ");
  writeUnsigned(static_cast<uint32_t>(count));
  write(" bytes of ");
  write(name);
  write(" @");
  writePointer(address);
  write(":\n");
  hexDumpToCrashLog(_handle, address, count);
}

namespace {

// The frame shared by the file blocks: heading with the path, the body on the open descriptor
// (or the reason it could not be opened), and the closing rule.
template <typename Body>
void writeFileBlock(CrashLogWriter &w, const char *heading, const char *path, Body body) {
  w.write(heading);
  w.write(path);
  w.write("\"\n");
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    writeErrorOpening(w, errno);
  } else {
    body(fd);
    close(fd);
  }
  w.write("--------------------\n\n");
}

}  // namespace

void CrashLogWriter::writeFileContents(const char *path, size_t limit) {
  writeFileBlock(*this, "-------------------- FILE CONTENTS OF \"", path, [&](int fd) {
    char block[1024];
    size_t total = 0;
    bool any = false;
    for (;;) {
      ssize_t n = read(fd, block, sizeof block);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      size_t take = static_cast<size_t>(n);
      bool truncated = total + take > limit;
      if (truncated) take = limit - total;
      makePrintable(block, take);
      write(block, take);
      total += take;
      any = true;
      if (truncated) {
        write("<truncating output>");
        break;
      }
    }
    // Line ends were replaced above, so the text never ends in one.
    if (any) writeChar('\n');
  });
}

void CrashLogWriter::writeFileLastLines(const char *path, size_t limit) {
  writeFileBlock(*this, "-------------------- LAST FEW LINE OF FILE \"", path, [&](int fd) {
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && st.st_size > 0 &&
              crashlog_seek_to_tail(fd, st.st_size,
                                    limit > INT64_MAX ? INT64_MAX : static_cast<off_t>(limit)) != 0;
    if (ok) {
      write(" Last few lines of the file):\n");
      crashlog_write_filtered_lines(_handle, fd);
    }
  });
}

// ---- Scoped notations ---------------------------------------------------------------------------

ScopedPerThreadCrashLogNotation::ScopedPerThreadCrashLogNotation() {
  _entry.ent.ent.render = &ScopedPerThreadCrashLogNotation::render;
  _entry.ent.ent.destruct = [](crashlog_notation_entry *) {};
  _entry.ent.next = nullptr;
  _entry.ent.prev = nullptr;
  _entry.owner = this;
  _attached = crashlog_notation_perthread_push(&_entry.ent) == 0;
}

ScopedPerThreadCrashLogNotation::~ScopedPerThreadCrashLogNotation() {
  if (_attached) crashlog_notation_perthread_pop();
}

MV_CRASH_PATH void ScopedPerThreadCrashLogNotation::render(crashlog_notation_entry *e,
                                                           crash_log_writer *w) {
  CrashLogWriter writer(w);
  reinterpret_cast<Entry *>(e)->owner->write(writer);
}

MV_CRASH_PATH void ScopedPerThreadCrashLogConstantStringNotation::write(CrashLogWriter &writer) {
  writer.write(_text);
  writer.writeChar('\n');
}

MV_CRASH_PATH void ScopedPerThreadCrashLogConstantStrlikeNotation::write(CrashLogWriter &writer) {
  writer.write(_data, _len);
  writer.writeChar('\n');
}

MV_CRASH_PATH void CrashlogAnnotateRegexCompile::write(CrashLogWriter &writer) {
  writer.write("WHILE COMPILING REGEX: /");
  if (_pattern != nullptr) writer.write(*_pattern);
  writer.writeChar('/');
  if (_detail != nullptr) {
    writer.write(" (");
    writer.write(_detail);
    writer.writeChar(')');
  }
  writer.writeChar('\n');
}

// ---- Process-wide notes -------------------------------------------------------------------------

namespace {

pthread_mutex_t crash_note_mutex = PTHREAD_MUTEX_INITIALIZER;

void attachCopy(const char *data, size_t len) {
  char *copy = static_cast<char *>(malloc(len == 0 ? 1 : len));
  if (copy == nullptr) return;
  memcpy(copy, data, len);
  pthread_mutex_lock(&crash_note_mutex);
  int rc = crashlog_notation_attach_string(copy, len);
  pthread_mutex_unlock(&crash_note_mutex);
  if (rc != 0) free(copy);
}

}  // namespace

void addCrashLogNote(const Str &text) noexcept { attachCopy(text.data(), text.size()); }

void addCrashLogNotef(const char *format, ...) noexcept {
  Str text;
  va_list ap;
  va_start(ap, format);
  text.vprintf(format, ap);
  va_end(ap);
  attachCopy(text.data(), text.size());
}

void addCrashLogNote(const char *permanent_text) noexcept {
  pthread_mutex_lock(&crash_note_mutex);
  crashlog_notation_attach_string(permanent_text, strlen(permanent_text));
  pthread_mutex_unlock(&crash_note_mutex);
}

// ---- Thread glue --------------------------------------------------------------------------------

namespace {

// The thread that installed the crash logger before MainThread existed.
std::atomic<bool> premain_thread_recorded{false};
pthread_t premain_thread;

const char *currentThreadName() { return Thread::getCurrentThreadNameCStr(); }
unsigned currentThreadCount() { return Thread::threadsActive(); }

void connectClassLayer() {
  crash_log_set_extra_report_func(&crashLogExceptionReport);
  std::set_terminate(&terminateHandler);
  crash_log_set_thread_name_func(&currentThreadName);
  // Formatted crash text goes through the library's own printf, which allocates nothing.
  crash_log_set_printf_func([](crash_log_writer *w, const char *format, va_list ap) {
    vprintfToCrashLog(w, format, ap);
  });
  crash_log_set_thread_count_func(&currentThreadCount);
  crash_log_set_notation_perthread_state_func(&threadCrashlogNotationState);
  if (!Thread::main_thread_created) {
    premain_thread = pthread_self();
    premain_thread_recorded.store(true, std::memory_order_release);
  }
}

}  // namespace

MV_CRASH_PATH crashlog_notation_perthread_state *threadCrashlogNotationState() {
  if (Thread::main_thread_created) {
    if (Thread *t = Thread::getCurrent()) {
      return Thread::currentIsMainThread() ? crashlog_notation_single_thread_state()
                                           : t->crashNotationState();
    }
    return Thread::currentIsMainThread() ? crashlog_notation_single_thread_state() : nullptr;
  }
  if (premain_thread_recorded.load(std::memory_order_acquire) &&
      pthread_equal(premain_thread, pthread_self())) {
    return crashlog_notation_single_thread_state();
  }
  return nullptr;
}

void crashLogPremainThreadAfterFork() {
  if (premain_thread_recorded.load(std::memory_order_acquire)) premain_thread = pthread_self();
}

int installCrashLogger(const Str &prefix) {
  int rc = crash_log_creator_init(prefix.c_str());
  if (crash_log_creator_is_set_up()) connectClassLayer();
  return rc;
}

int installCrashLoggerToStderr() {
  int rc = crash_log_creator_init(nullptr);
  if (crash_log_creator_is_set_up()) connectClassLayer();
  return rc;
}

// ---- Symbols into a Str -------------------------------------------------------------------------

namespace {

// Rendering can't throw through the C layer: an allocation failure is remembered and raised
// once the rendering is done.
struct StrWriter {
  crash_log_writer base;
  Str *out;
  bool failed;

  explicit StrWriter(Str &s) : base{&StrWriter::append}, out(&s), failed(false) {}
  static void append(crash_log_writer *w, const char *bytes, size_t len) {
    StrWriter *self = reinterpret_cast<StrWriter *>(w);
    if (self->failed) return;
    try {
      self->out->append(bytes, len);
    } catch (const std::bad_alloc &) {
      self->failed = true;
    }
  }
  void finish() const {
    if (failed) throw std::bad_alloc();
  }
};

void renderSymbol(StrWriter &sw, const void *address) {
  backtrace_symbol_information info;
  backtrace_symbol_information_init(&info, address);
  backtrace_symbol_information_print(&sw.base, &info);
}

}  // namespace

void appendSymbolInformation(Str &out, const void *address) {
  StrWriter sw(out);
  renderSymbol(sw, address);
  sw.finish();
}

void appendQuotedSymbolInformation(Str &out, const void *address) {
  StrWriter sw(out);
  char head[24] = "[0x";
  uint64_t v = reinterpret_cast<uintptr_t>(address);
  for (int i = 0; i < 16; ++i) head[3 + i] = UPPER_HEX[(v >> (60 - 4 * i)) & 15];
  memcpy(head + 19, "]  \"", 4);
  StrWriter::append(&sw.base, head, 23);
  renderSymbol(sw, address);
  StrWriter::append(&sw.base, "\"", 1);
  sw.finish();
}

void appendCrashLogRendering(Str &out, const std::function<void(CrashLogWriter &)> &render) {
  StrWriter sw(out);
  CrashLogWriter w(&sw.base);
  render(w);
  sw.finish();
}

void appendBacktraceSymbols(Str &out, void *const *addrs, int count, char separator) {
  StrWriter sw(out);
  for (int i = 2; i < count; ++i) {
    if (i != 2) StrWriter::append(&sw.base, &separator, 1);
    renderSymbol(sw, addrs[i]);
  }
  sw.finish();
}

}  // namespace morvek
