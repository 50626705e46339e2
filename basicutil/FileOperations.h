// What is done to the files that Pathnames name, beyond plain system calls: the bounded error
// accumulator of tree operations, whole-file reading, the retrying rename, and questions about
// the file system a path lives on.
//
// A tree operation meets many files and may fail on many: each failure is counted, the first
// maxErrors are kept with the file, the step and the system's reason, and errno comes back as the
// first failure left it. Rendered for a log message, 40 failed removals read
//   40 errors occurred, description of first 32 errors: [{operation:"failed to remove file",
//   error:"Permission denied", file:"/srv/x/a"}, ...]
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <variant>
#include <vector>

#include "basicutil/Pathname.h"
#include "basicutil/Str.h"
#include "basicutil/StrVector.h"
#include "basicutil/Timeval.h"

namespace morvek {

// One failure: a system error number or a message, on one file or a source and destination.
struct FileOperationError {
  Pathname src;
  Pathname dest;  // empty for a one-file operation
  std::variant<int, Str> error;
  StrSegment operation;  // a constant text, or empty

  // operation="...", error="...", file="..." (or src="..." dest="..."), with sep for '='.
  void appendTo(Str &out, char sep = '=') const;
  // The system's text for the error number, or the message.
  void appendErrorText(Str &out) const;
};

class FileOperationErrors {
 public:
  static constexpr unsigned DEFAULT_MAX_ERRORS = 32;

  unsigned maxErrors = DEFAULT_MAX_ERRORS;
  uint64_t count = 0;        // every failure reported, also past the list's capacity
  std::vector<int> ignored;  // error numbers that aren't failures for this operation
  std::vector<FileOperationError> errors;

  // Forgets the errors of a previous call; the limit and the ignored numbers stay.
  void clear() {
    count = 0;
    errors.clear();
  }
  // Drops an ignored error number, otherwise counts it and keeps it while within maxErrors.
  void report(FileOperationError &&error);
  // Nothing when count is 0.
  void appendTo(Str &out) const;
  Str toString() const {
    Str s;
    appendTo(s);
    return s;
  }
};

// Made on entry to every public tree operation: empties the accumulator and, on the way out,
// puts errno back to the first failure's value.
class FileOperationScope {
 public:
  explicit FileOperationScope(FileOperationErrors *errors) : _errors(errors) {
    if (_errors != nullptr) _errors->clear();
  }
  ~FileOperationScope() {
    if (_seen) errno = _first_errno;
  }
  FileOperationScope(const FileOperationScope &) = delete;
  FileOperationScope &operator=(const FileOperationScope &) = delete;

  // Reports the current errno for path (and dest, when not null) with a constant text.
  void fail(const char *operation, const Pathname &path, const Pathname *dest = nullptr);
  bool seen() const { return _seen; }

  FileOperationErrors *_errors;
  bool _seen = false;
  int _first_errno = 0;
};

struct RenameReport {
  Str operation{"Rename"};
  bool succeeded = false;
  int32_t errorCode = 0;
  unsigned attempts = 0;
  Timeval started;
  Timeval finished;

  // "Rename failed in 1 attempt(s) made between <started> and <finished> [status code: 24
  // description: \"Too many open files\"]"; the bracket only on failure. Times are seconds with
  // six decimals.
  void appendTo(Str &out) const;
};

// The contents, or what went wrong.
struct FileReadResult {
  std::variant<Str, FileOperationError> value;

  bool ok() const { return value.index() == 0; }
  const Str &contents() const { return std::get<0>(value); }
  const FileOperationError &error() const { return std::get<1>(value); }
};

// The whole file, refused (with "file size exceeds maximum_size=<binary byte size>") once it
// holds more than maximum_size bytes; a file of exactly that size is read.
FileReadResult readWholeFile(const Pathname &path, uint64_t maximum_size);

// ---- File-system information -----------------------------------------------------------------
// messages, when not null, is emptied by the operations that say so and receives one line per
// failed call: "<function>:<line> Failed to ...: <errno text>".

struct FilesystemConstants {
  uint64_t capacity = 0;
  Str fs_type;
  Pathname mount_point;

  void clear() {
    capacity = 0;
    fs_type.clear();
    mount_point.clear();
  }
  // "{capacity=1.500GiB fs_type=ext4 mount_point=/}"
  void appendTo(Str &out) const;
};

static constexpr size_t FS_TYPE_BUFFER = 16;

// The type name by the magic number statfs gives ("ext4", "tmpfs", ... "unknown(0x1234)").
Str filesystemTypeName(unsigned long magic);
// The name of path's file system, cut to fit 16 bytes with its NUL.
bool getFilesystemType(const char *path, char (&buffer)[FS_TYPE_BUFFER], StrVector *messages);
// Sizes in bytes from statvfs, each null-able; a product beyond INT64_MAX is held there.
bool wrap__statfs_or_statvfs(const char *path, uint64_t *total, uint64_t *free, uint64_t *available,
                             StrVector *messages);
// Bytes available to this user, or -1 with errno.
int64_t getFreeSpace(const char *path);
bool getSpace(const char *path, uint64_t *total, uint64_t *free);
bool getDeviceId(const char *path, uint32_t &out);
// Both on one device; messages is emptied first.
bool inSameFilesystemAs(const Pathname &ancestorDir, const Pathname &childDir, StrVector *messages);
// Capacity, type and mount point (the highest ancestor on path's device); messages is emptied
// and constants cleared first.
bool getFilesystemConstants(const Pathname &path, FilesystemConstants &constants,
                            StrVector *messages);

}  // namespace morvek
