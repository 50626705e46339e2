// The classic dump of bytes: offset, sixteen hex columns and the printable characters, one line
// at a time to a sink. The dump itself allocates nothing, so the crash path can use it.
#pragma once

#include <cstddef>

#include "basicutil/Logger.h"
#include "basicutil/Str.h"
#include "basicutil/StrVector.h"
#include "libzero/create-crash-dump.h"

namespace morvek {

class HexDumper {
 public:
  virtual ~HexDumper();
  // Every 16 bytes one line, then a line of the total size in 8 hex digits.
  void do_dump(const void *data, size_t size);

 protected:
  virtual void outputLine(const char *line, size_t len) = 0;
};

// Appends each line and a newline.
class HexDumper_to_Str : public HexDumper {
 public:
  explicit HexDumper_to_Str(Str *out) : _out(out) {}

 protected:
  void outputLine(const char *line, size_t len) override;

 private:
  Str *_out;
};

// One element per line.
class HexDumper_to_StrVector : public HexDumper {
 public:
  explicit HexDumper_to_StrVector(StrVector *out) : _out(out) {}

 protected:
  void outputLine(const char *line, size_t len) override;

 private:
  StrVector *_out;
};

// Each line is one record at ERROR.
class HexDumper_to_Logger : public HexDumper {
 public:
  explicit HexDumper_to_Logger(Logger *out) : _out(out) {}

 protected:
  void outputLine(const char *line, size_t len) override;

 private:
  Logger *_out;
};

// Lines separated by newlines, with no newline after the last; usable in a signal handler.
class HexDumper_to_CrashLog : public HexDumper {
 public:
  explicit HexDumper_to_CrashLog(crash_log_writer *out) : _out(out) {}

 protected:
  void outputLine(const char *line, size_t len) noexcept override;

 private:
  crash_log_writer *_out;
  bool _wrote_line = false;
};

void hexDumpToStr(Str &out, const void *data, size_t size);
void hexDumpToStrVector(StrVector &out, const void *data, size_t size);
void hexDumpToLogger(Logger &out, const void *data, size_t size);
void hexDumpToCrashLog(crash_log_writer *out, const void *data, size_t size) noexcept;

}  // namespace morvek
