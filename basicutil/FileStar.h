// FileStar, the owner of one stdio stream, with a line reader that takes lines of any length and
// embedded NUL bytes, on seekable and unseekable streams alike.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

#include "basicutil/Str.h"
#include "basicutil/Timeval.h"

namespace morvek {

class FileStar {
 public:
  FileStar() : _fp(nullptr) {}
  // Takes ownership of fp.
  explicit FileStar(FILE *fp) : _fp(fp) {}
  FileStar(const char *path, const char *mode) : _fp(nullptr) { open(path, mode); }
  ~FileStar() { closeQuietly(); }

  FileStar(const FileStar &) = delete;
  FileStar &operator=(const FileStar &) = delete;
  FileStar(FileStar &&other) noexcept : _fp(other._fp) { other._fp = nullptr; }
  // Closes what this object held first; moving onto itself changes nothing.
  FileStar &operator=(FileStar &&other) noexcept {
    if (this != &other) {
      closeQuietly();
      _fp = other._fp;
      other._fp = nullptr;
    }
    return *this;
  }

  bool valid() const { return _fp != nullptr; }
  FILE *get() const { return _fp; }
  // Gives the stream up without closing it.
  FILE *release() {
    FILE *fp = _fp;
    _fp = nullptr;
    return fp;
  }

  // fopen. What was held before is replaced, not closed: close it first.
  bool open(const char *path, const char *mode);
  // True for a closed object; the object is closed afterwards whatever the result.
  bool close();
  // As close, but errno comes out as it went in.
  bool closeQuietly();

  // The count, 0 at the end of the file, -1 on an error.
  ssize_t read(void *buffer, size_t n);
  // The count, or -1 when nothing was written although n was not 0.
  ssize_t write(const void *buffer, size_t n);
  bool flush() { return fflush(_fp) == 0; }

  // Stores the next line without its line end ("\n" or "\r\n"). False at the end of the input.
  // A last line with no newline keeps a final "\r" on a seekable stream and loses it on one that
  // can't tell its position, such as a pipe. Reads through the stream, so it follows a seek.
  bool readline(Str &storeTo);

  // The count written, or -1.
  int writeFormat(const char *format, ...) __attribute__((format(printf, 2, 3)));
  // Text of the number; errors show in the stream's error flag.
  void writeSigned(int32_t n) { writeSigned(static_cast<int64_t>(n)); }
  void writeSigned(int64_t n);
  void writeUnsigned(uint32_t n) { writeUnsigned(static_cast<uint64_t>(n)); }
  void writeUnsigned(uint64_t n);
  // Lower-case digits, no prefix.
  void writeHex(uint32_t n) { writeHex(static_cast<uint64_t>(n)); }
  void writeHex(uint64_t n);
  // Shortest round-trip digits as plain decimal text, never with an exponent.
  void writeDouble(double x);

  // Full buffering in the caller's buffer; a failure is a bug and aborts.
  void setBuffer(char *buffer, size_t size);
  // The stream's error flag is set and errno is ESTALE: the file went away under an NFS mount.
  bool hasStaleError() const;
  bool modificationTime(Timeval &mtime) const;

  FILE *_fp;
};

}  // namespace morvek
