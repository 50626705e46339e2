// Crash log notations: what code leaves behind for the crash log, and CrashLogWriter, the thin
// class through which notations render. Every writer operation is usable inside a signal
// handler: none allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>

#include "basicutil/Str.h"
#include "libzero/create-crash-dump.h"

namespace morvek {

// For the class-layer code that runs in the crash handler: the sanitizers' vptr check probes
// memory through a pipe, which can't be made at the descriptor limit a report has to survive.
#define MV_CRASH_PATH __attribute__((no_sanitize("vptr")))

class CrashLogWriter {
 public:
  explicit CrashLogWriter(crash_log_writer *handle) : _handle(handle) {}

  crash_log_writer *handle() const { return _handle; }

  void write(const char *bytes, size_t len) { _handle->do_write(_handle, bytes, len); }
  // A null string writes nothing.
  void write(const char *cstr) {
    if (cstr != nullptr) write(cstr, strlen(cstr));
  }
  void write(StrSegment s) { write(s._data, s._len); }
  void write(const Str &s) { write(s.data(), s.size()); }
  // The exception's what() text.
  void write(const std::exception &e);
  void writeChar(char c) { write(&c, 1); }
  // "0" or "1".
  void writeDigit(bool one) { writeChar(one ? '1' : '0'); }
  void writeSigned(int32_t v) { writeSigned(static_cast<int64_t>(v)); }
  void writeSigned(int64_t v);
  void writeUnsigned(uint32_t v) { writeUnsigned(static_cast<uint64_t>(v)); }
  void writeUnsigned(uint64_t v);
  // Lower-case hex digits, no prefix.
  void writeHex(uint32_t v) { writeHex(static_cast<uint64_t>(v)); }
  void writeHex(uint64_t v);
  // Shortest digits that read back to v, always with a point and never with an exponent.
  void writeDouble(double v);
  void printf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  // name, then "=Y" or "=N".
  void writeFlag(const char *name, bool value);
  // "Y" or "N" alone.
  void writeFlag(bool value) { writeChar(value ? 'Y' : 'N'); }
  // Each byte as two hex digits, in memory order.
  void writeHexBytes(const void *bytes, size_t len);
  void writeHexBytesUpper(const void *bytes, size_t len);
  // As "%p": "(nil)" or "0x" and lower-case digits.
  void writePointer(const void *p);
  // Untrusted bytes in double quotes, escaped; more than 240 bytes show only the first 75.
  void writeQuoted(const char *bytes, size_t len);
  void writeQuoted(StrSegment s) { writeQuoted(s._data, s._len); }
  // A header and a hex dump of at most count bytes at address, never past the end of its page.
  void writeMemorySample(const char *name, const void *address, size_t count);
  // The file, made printable, up to limit bytes.
  void writeFileContents(const char *path, size_t limit);
  // The lines in the last limit bytes of the file.
  void writeFileLastLines(const char *path, size_t limit);

 private:
  void writeHexBytes(const void *bytes, size_t len, const char *digits);

  crash_log_writer *_handle;
};

// A scope whose text appears in the crash log if the process dies inside it. The entry goes on
// the calling thread's notation stack; a thread without notation state just doesn't attach.
class ScopedPerThreadCrashLogNotation {
 public:
  ScopedPerThreadCrashLogNotation();
  virtual ~ScopedPerThreadCrashLogNotation();
  ScopedPerThreadCrashLogNotation(const ScopedPerThreadCrashLogNotation &) = delete;
  ScopedPerThreadCrashLogNotation &operator=(const ScopedPerThreadCrashLogNotation &) = delete;

  virtual void write(CrashLogWriter &writer) = 0;
  bool isAttached() const { return _attached; }

 private:
  struct Entry {
    crashlog_notation_entry ent;
    ScopedPerThreadCrashLogNotation *owner;
  };
  static void render(crashlog_notation_entry *e, crash_log_writer *w);

  Entry _entry;
  bool _attached;
};

// The text (which must outlive the scope) and a newline.
class ScopedPerThreadCrashLogConstantStringNotation : public ScopedPerThreadCrashLogNotation {
 public:
  explicit ScopedPerThreadCrashLogConstantStringNotation(const char *text) : _text(text) {}
  void write(CrashLogWriter &writer) override;

 private:
  const char *_text;
};

class ScopedPerThreadCrashLogConstantStrlikeNotation : public ScopedPerThreadCrashLogNotation {
 public:
  ScopedPerThreadCrashLogConstantStrlikeNotation(const char *data, size_t len)
      : _data(data), _len(len) {}
  explicit ScopedPerThreadCrashLogConstantStrlikeNotation(StrSegment s)
      : _data(s._data), _len(s._len) {}
  void write(CrashLogWriter &writer) override;

 private:
  const char *_data;
  size_t _len;
};

// "WHILE COMPILING REGEX: /pattern/ (detail)".
class CrashlogAnnotateRegexCompile : public ScopedPerThreadCrashLogNotation {
 public:
  explicit CrashlogAnnotateRegexCompile(const Str *pattern, const char *detail = nullptr)
      : _pattern(pattern), _detail(detail) {}
  void write(CrashLogWriter &writer) override;

 private:
  const Str *_pattern;
  const char *_detail;
};

// Process-wide notes; they stay for the life of the process. A note that can't be allocated is
// lost. The first two copy the text; the last attaches a string that must never go away.
void addCrashLogNote(const Str &text) noexcept;
void addCrashLogNotef(const char *format, ...) noexcept __attribute__((format(printf, 1, 2)));
// A format with at least one argument; a lone string goes to the permanent form below.
template <typename Arg, typename... Args>
void addCrashLogNote(const char *format, Arg arg, Args... args) noexcept {
  addCrashLogNotef(format, arg, args...);
}
void addCrashLogNote(const char *permanent_text) noexcept;

// The notation state of the calling thread when the process runs Thread objects: the main
// thread (and, before MainThread exists, the thread that installed the crash logger) uses the
// static list; other threads use their Thread's own list, which starts with its description.
crashlog_notation_perthread_state *threadCrashlogNotationState();

// Installs the crash logger with everything the class layer adds: thread names and counts, the
// exception report and the terminate handler. A prefix directory, or standard error.
int installCrashLogger(const Str &prefix);
int installCrashLoggerToStderr();
// In a forked child: the thread recorded as the pre-main crash thread, if any, becomes the caller.
void crashLogPremainThreadAfterFork();

// The symbol rendering of an address into a Str. std::bad_alloc is raised once rendering ends.
void appendSymbolInformation(Str &out, const void *address);
// "[0x%016llX]  \"", the rendering, "\"".
void appendQuotedSymbolInformation(Str &out, const void *address);
// What render writes, appended to out; std::bad_alloc is raised once rendering ends.
void appendCrashLogRendering(Str &out, const std::function<void(CrashLogWriter &)> &render);
// The renderings of addrs from the third on, each followed by separator.
void appendBacktraceSymbols(Str &out, void *const *addrs, int count, char separator);

}  // namespace morvek
