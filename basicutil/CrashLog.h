// CrashLogWriter: the thin class over a crash log writer through which notations render.
// Every operation is usable inside a signal handler: none allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libzero/create-crash-dump.h"

namespace morvek {

class CrashLogWriter {
 public:
  explicit CrashLogWriter(crash_log_write_handle *handle) : _handle(handle) {}

  crash_log_write_handle *handle() const { return _handle; }

  void write(const char *bytes, size_t len) { _handle->write(_handle, bytes, len); }
  void write(const char *cstr) { write(cstr, strlen(cstr)); }
  void writeChar(char c) { write(&c, 1); }
  // "Y" or "N", the form of flags in notations.
  void writeFlag(bool b) { writeChar(b ? 'Y' : 'N'); }
  void writeUnsigned(uint64_t v);
  void writeSigned(int64_t v);
  void writeHex(uint64_t v);
  // Each byte as two lower-case hex digits, in memory order.
  void writeHexBytes(const void *bytes, size_t len);

 private:
  crash_log_write_handle *_handle;
};

}  // namespace morvek
