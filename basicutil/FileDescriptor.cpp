#include "basicutil/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstring>

#include "basicutil/PrintFloatingPoint.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

inline int get_errno() { return errno; }

constexpr size_t COPY_BLOCK = 8192;

ssize_t readLoop(int fd, void *buffer, size_t n) {
  char *p = static_cast<char *>(buffer);
  size_t done = 0;
  while (done < n) {
    size_t ask = std::min(n - done, FileDescriptor::MAX_IO_CHUNK);
    ssize_t got = ::read(fd, p + done, ask);
    if (got < 0) {
      if (errno == EINTR) continue;
      return done != 0 ? static_cast<ssize_t>(done) : got;
    }
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

ssize_t writeLoop(int fd, const void *buffer, size_t n) {
  const char *p = static_cast<const char *>(buffer);
  size_t done = 0;
  while (done < n) {
    size_t ask = std::min(n - done, FileDescriptor::MAX_IO_CHUNK);
    ssize_t put = ::write(fd, p + done, ask);
    if (put < 0) {
      if (errno == EINTR) continue;
      return done != 0 ? static_cast<ssize_t>(done) : put;
    }
    if (put == 0) break;
    done += static_cast<size_t>(put);
  }
  return static_cast<ssize_t>(done);
}

ssize_t writevOnce(int fd, const struct iovec *vectors, size_t count) {
  ssize_t rv;
  do {
    rv = ::writev(fd, vectors, static_cast<int>(count));
  } while (rv < 0 && errno == EINTR);
  return rv;
}

// Digits written back to front; returns where they start in buf[0..20).
char *formatUnsigned(uint64_t n, char *end) {
  char *p = end;
  do {
    *--p = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n != 0);
  return p;
}

// Standard alphabet, with padding; out needs 4 * ceil(n / 3) bytes.
size_t base64Encode(const unsigned char *in, size_t n, char *out) {
  static const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t o = 0;
  size_t i = 0;
  for (; i + 3 <= n; i += 3) {
    uint32_t v = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8) | in[i + 2];
    out[o++] = ALPHABET[(v >> 18) & 63];
    out[o++] = ALPHABET[(v >> 12) & 63];
    out[o++] = ALPHABET[(v >> 6) & 63];
    out[o++] = ALPHABET[v & 63];
  }
  if (i < n) {
    uint32_t v = uint32_t(in[i]) << 16;
    if (i + 1 < n) v |= uint32_t(in[i + 1]) << 8;
    out[o++] = ALPHABET[(v >> 18) & 63];
    out[o++] = ALPHABET[(v >> 12) & 63];
    out[o++] = i + 1 < n ? ALPHABET[(v >> 6) & 63] : '=';
    out[o++] = '=';
  }
  return o;
}

}  // namespace

size_t FileDescriptor::formatShortestDouble(double x, char *buf, size_t cap) {
  if (!double_is_finite(x)) {
    StrSegment text = get_nonfinite_double_repl(x);
    if (text._len <= cap) memcpy(buf, text._data, text._len);
    return text._len;
  }
  DoubleToStringShortest digits(x);
  size_t n = digits.plainTextLength();
  // The engine also writes a NUL, so it needs one byte more than the text.
  if (n < cap) digits.writePlainText(buf, cap);
  return n < cap ? n : n + 1;
}

size_t FileDescriptor::formatFloatText(double x, char *buf, size_t cap) {
  size_t n = formatShortestDouble(x, buf, cap);
  // Text that fitted leaves room for one more byte.
  if (!double_is_finite(x) || n >= cap || memchr(buf, '.', n) != nullptr) return n;
  buf[n] = '.';
  return n + 1;
}

FileDescriptor::FileDescriptor(const char *path) : _fd(-1) { openRead(path); }

FileDescriptor::FileDescriptor(const char *path, int flags, mode_t mode) : _fd(-1) {
  open(path, flags, mode);
}

bool FileDescriptor::open(const char *path, int flags, mode_t mode) {
  closeQuietly();
  int fd;
  do {
    fd = ::open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  _fd = fd < 0 ? -1 : fd;
  return valid();
}

bool FileDescriptor::openRead(const char *path) { return open(path, O_RDONLY); }

bool FileDescriptor::openReadNonBlocking(const char *path) {
  return open(path, O_RDONLY | O_NONBLOCK);
}

bool FileDescriptor::close() {
  if (_fd < 0) return true;
  // Linux releases the number even when close fails, so it must not be tried again.
  bool rv = ::close(_fd) == 0;
  _fd = -1;
  MV_ASSERT(rv || get_errno() != EBADF);
  return rv;
}

bool FileDescriptor::closeQuietly() {
  int saved = errno;
  bool rv = close();
  errno = saved;
  return rv;
}

ssize_t FileDescriptor::read(void *buffer, size_t n) { return readLoop(_fd, buffer, n); }

ssize_t FileDescriptor::write(const void *buffer, size_t n) { return writeLoop(_fd, buffer, n); }

bool FileDescriptor::readAll(Str &to) {
  uint64_t sz;
  if (size(sz)) to.reserve(to.size() + static_cast<size_t>(sz));
  char block[COPY_BLOCK];
  for (;;) {
    ssize_t got = readLoop(_fd, block, sizeof block);
    if (got < 0) return false;
    if (got == 0) return true;
    to.append(block, static_cast<size_t>(got));
  }
}

ssize_t FileDescriptor::writev(const struct iovec *vectors, size_t count) {
  if (count <= MAX_IOV_BATCH) return writevOnce(_fd, vectors, count);
  ssize_t total = 0;
  size_t n = count;
  for (;;) {
    size_t take = std::min(n, MAX_IOV_BATCH);
    ssize_t rv = writevOnce(_fd, vectors, take);
    if (rv < 0) return total != 0 ? total : rv;
    total += rv;
    size_t wanted = 0;
    for (size_t i = 0; i < take; ++i) wanted += vectors[i].iov_len;
    // A short batch means the file can take no more now; going on would reorder the data.
    if (wanted > static_cast<size_t>(rv) || take == n) return total;
    MV_ASSERT(n > take);
    n -= take;
    vectors += take;
  }
}

ssize_t FileDescriptor::writeFormat(const char *format, ...) {
  Str text;
  va_list ap;
  va_start(ap, format);
  text.vappendf(format, ap);
  va_end(ap);
  return write(text.data(), text.size());
}

void FileDescriptor::writeString(const char *text) {
  if (text != nullptr) write(text, strlen(text));
}

void FileDescriptor::writeSigned(int64_t n) {
  char buf[24];
  char *end = buf + sizeof buf;
  // Negating in unsigned arithmetic keeps INT64_MIN whole.
  uint64_t magnitude = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  char *p = formatUnsigned(magnitude, end);
  if (n < 0) *--p = '-';
  write(p, static_cast<size_t>(end - p));
}

void FileDescriptor::writeUnsigned(uint64_t n) {
  char buf[24];
  char *end = buf + sizeof buf;
  char *p = formatUnsigned(n, end);
  write(p, static_cast<size_t>(end - p));
}

void FileDescriptor::writeDouble(double x) {
  char buf[400];
  size_t n = formatFloatText(x, buf, sizeof buf);
  MV_ASSERT(n <= sizeof buf);
  write(buf, n);
}

bool FileDescriptor::size(uint64_t &size) const {
  struct stat st;
  if (fstat(_fd, &st) != 0) return false;
  size = static_cast<uint64_t>(st.st_size);
  return true;
}

bool FileDescriptor::isRegularFile() const {
  struct stat st;
  return fstat(_fd, &st) == 0 && S_ISREG(st.st_mode);
}

bool FileDescriptor::isDirectory() const {
  struct stat st;
  return fstat(_fd, &st) == 0 && S_ISDIR(st.st_mode);
}

bool FileDescriptor::modificationTime(Timeval &mtime) const {
  struct stat st;
  if (fstat(_fd, &st) != 0) return false;
  mtime = Timeval(st.st_mtim.tv_sec, static_cast<int32_t>(st.st_mtim.tv_nsec / 1000));
  return true;
}

bool FileDescriptor::setMode(mode_t mode) { return fchmod(_fd, mode) == 0; }

bool FileDescriptor::seek(uint64_t offset) {
  return lseek(_fd, static_cast<off_t>(offset), SEEK_SET) >= 0;
}

int64_t FileDescriptor::seekToEnd() { return lseek(_fd, 0, SEEK_END); }

int64_t FileDescriptor::tell() { return lseek(_fd, 0, SEEK_CUR); }

bool FileDescriptor::truncateTo(uint64_t size) {
  return seek(size) && ftruncate(_fd, static_cast<off_t>(size)) == 0;
}

bool FileDescriptor::sync() { return fsync(_fd) == 0; }

bool FileDescriptor::copyTo(int destination) {
  char block[COPY_BLOCK];
  for (;;) {
    ssize_t got = readLoop(_fd, block, sizeof block);
    if (got == 0) return true;
    if (got < 0) return false;
    size_t done = 0;
    while (done < static_cast<size_t>(got)) {
      ssize_t put = writeLoop(destination, block + done, static_cast<size_t>(got) - done);
      if (put == 0) {
        errno = ENOSPC;
        return false;
      }
      if (put < 0) return false;
      done += static_cast<size_t>(put);
    }
  }
}

bool FileDescriptor::copyToPath(const char *path) {
  if (!valid()) return false;
  struct stat st;
  if (fstat(_fd, &st) != 0) return false;
  FileDescriptor out(path, O_WRONLY | O_CREAT | O_TRUNC, st.st_mode & 0777);
  if (!out.valid()) return false;
  bool ok = copyTo(out._fd);
  out.closeQuietly();
  return ok;
}

bool FileDescriptor::appendEtag(Str &to) const {
  struct stat st;
  if (fstat(_fd, &st) != 0) return false;
  morvek::appendEtag(to, st);
  return true;
}

void appendEtag(Str &to, const struct stat &st) {
  static_assert(sizeof(Timeval) == 16, "the validator's layout has a 16-byte time");
  unsigned char block[32];
  memset(block, 0, sizeof block);
  Timeval mtime(st.st_mtim.tv_sec, static_cast<int32_t>(st.st_mtim.tv_nsec / 1000));
  memcpy(block, &mtime._tv.tv_sec, sizeof mtime._tv.tv_sec);
  memcpy(block + 8, &mtime._tv.tv_usec, sizeof mtime._tv.tv_usec);
  uint64_t inode = static_cast<uint64_t>(st.st_ino);
  uint64_t size = static_cast<uint64_t>(st.st_size);
  memcpy(block + 16, &inode, 8);
  memcpy(block + 24, &size, 8);
  char encoded[44];
  size_t esz = base64Encode(block, sizeof block, encoded);
  MV_ASSERT(esz > 0);
  while (esz > 0 && encoded[esz - 1] == '=') --esz;
  to.append("s-");
  to.append(encoded, esz);
}

MappedFile::MappedFile(int fd) : _map(MAP_FAILED), _length(0) { mapFile(fd); }

bool MappedFile::mapFile(int fd) {
  unmap();
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  void *m = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  if (m == MAP_FAILED) return false;
  _map = m;
  _length = static_cast<uint64_t>(st.st_size);
  return true;
}

void MappedFile::unmap() {
  if (!valid()) return;
  int saved = errno;
  munmap(_map, static_cast<size_t>(_length));
  errno = saved;
  _map = MAP_FAILED;
  _length = 0;
}

}  // namespace morvek
