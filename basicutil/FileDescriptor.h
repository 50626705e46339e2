// FileDescriptor, the owner of one OS file descriptor, and MappedFile, a read-only map of an
// open file. Neither throws: results are booleans or signed counts with errno left as the
// system set it.
#pragma once

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "basicutil/Str.h"
#include "basicutil/Timeval.h"

namespace morvek {

class FileStar;

class FileDescriptor {
 public:
  // Largest count handed to one read or write call; the kernel refuses more.
  static constexpr size_t MAX_IO_CHUNK = 0x7FFFFFFF;
  // Largest vector count handed to one writev call.
  static constexpr size_t MAX_IOV_BATCH = 1024;

  FileDescriptor() : _fd(-1) {}
  // Takes ownership of fd; a negative value makes an invalid object.
  explicit FileDescriptor(int fd) : _fd(fd < 0 ? -1 : fd) {}
  // As openRead.
  explicit FileDescriptor(const char *path);
  // As open.
  FileDescriptor(const char *path, int flags, mode_t mode = 0);
  ~FileDescriptor() { closeQuietly(); }

  FileDescriptor(const FileDescriptor &) = delete;
  FileDescriptor &operator=(const FileDescriptor &) = delete;
  FileDescriptor(FileDescriptor &&other) noexcept : _fd(other._fd) { other._fd = -1; }
  // Closes what this object held first; moving onto itself changes nothing.
  FileDescriptor &operator=(FileDescriptor &&other) noexcept {
    if (this != &other) {
      closeQuietly();
      _fd = other._fd;
      other._fd = -1;
    }
    return *this;
  }

  bool valid() const { return _fd >= 0; }
  int fd() const { return _fd; }
  // Gives the descriptor up without closing it.
  int release() {
    int fd = _fd;
    _fd = -1;
    return fd;
  }

  // Closes quietly what was held, then opens; true when the new descriptor is valid.
  bool open(const char *path, int flags, mode_t mode = 0);
  bool openRead(const char *path);
  bool openReadNonBlocking(const char *path);

  // True once the descriptor is closed; the object is invalid afterwards whatever the result.
  bool close();
  // As close, but errno comes out as it went in.
  bool closeQuietly();

  // Reads until n bytes are in, the end of the file or an error. Returns the count, or a
  // negative result when the first call failed; EINTR never shows.
  ssize_t read(void *buffer, size_t n);
  // Appends everything up to the end of the file; false on an error (what was read stays).
  bool readAll(Str &to);
  // Writes until n bytes are out or an error; the count, or a negative result when nothing
  // went out.
  ssize_t write(const void *buffer, size_t n);
  // Writes in batches of MAX_IOV_BATCH vectors, stopping at the first short batch.
  ssize_t writev(const struct iovec *vectors, size_t count);
  ssize_t writeFormat(const char *format, ...) __attribute__((format(printf, 2, 3)));

  // Decimal text; errors are ignored.
  void writeString(const char *text);
  void writeSigned(int64_t n);
  void writeUnsigned(uint64_t n);
  // Shortest round-trip digits as plain decimal text, never with an exponent.
  void writeDouble(double x);

  bool size(uint64_t &size) const;
  bool isRegularFile() const;
  bool isDirectory() const;
  bool modificationTime(Timeval &mtime) const;
  bool setMode(mode_t mode);
  // From the start of the file.
  bool seek(uint64_t offset);
  // The resulting position, or -1.
  int64_t seekToEnd();
  int64_t tell();
  // Leaves the position at size.
  bool truncateTo(uint64_t size);
  bool sync();

  // Copies from the current position to the end into the raw descriptor destination. A
  // destination that takes nothing is reported as ENOSPC.
  bool copyTo(int destination);
  // Creates or truncates path with this file's permission bits and copies into it.
  bool copyToPath(const char *path);

  // Appends the validator of appendEtag(Str&, const struct stat&) for this file.
  bool appendEtag(Str &to) const;

  int _fd;

  // Plain decimal text of x: shortest round-trip digits, never an exponent; "NaN", "Infinity"
  // or "-Infinity" when not finite. Returns the length it needs, writing only when it fits in
  // cap; 400 bytes always suffice. Shared by every writer of doubles until the printf engine
  // has its own.
  static size_t formatShortestDouble(double x, char *buf, size_t cap);
  // The float text of the descriptor, stdio and crash-log writers: the same, but a finite value
  // always has its point, so that it reads as a float: 5.0 gives "5.", 1e21
  // "1000000000000000000000.", -0.0 "-0.", 0.25 "0.25"; NaN, "-NaN", "Infinity", "-Infinity".
  static size_t formatFloatText(double x, char *buf, size_t cap);
};

// Appends "s-" and the unpadded Base64 text of a 32-byte block: the modification time as a
// Timeval (16 bytes, zero padded), the inode number and the size, in host byte order.
void appendEtag(Str &to, const struct stat &st);

class MappedFile {
 public:
  MappedFile() : _map(MAP_FAILED), _length(0) {}
  // As mapFile.
  explicit MappedFile(int fd);
  ~MappedFile() { unmap(); }
  MappedFile(const MappedFile &) = delete;
  MappedFile &operator=(const MappedFile &) = delete;

  // Maps the whole file read-only and private; an empty file cannot be mapped and gives false.
  bool mapFile(int fd);
  bool valid() const { return _map != MAP_FAILED; }
  const char *data() const { return static_cast<const char *>(_map); }
  uint64_t length() const { return _length; }
  StrSegment segment() const { return StrSegment(data(), static_cast<size_t>(_length)); }
  void unmap();

  void *_map;
  uint64_t _length;
};

}  // namespace morvek
