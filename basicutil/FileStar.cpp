#include "basicutil/FileStar.h"

#include <sys/stat.h>
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "basicutil/FileDescriptor.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

inline int get_errno() { return errno; }

char *formatUnsigned(uint64_t n, char *end, unsigned base) {
  static const char DIGITS[] = "0123456789abcdef";
  char *p = end;
  do {
    *--p = DIGITS[n % base];
    n /= base;
  } while (n != 0);
  return p;
}

}  // namespace

bool FileStar::open(const char *path, const char *mode) {
  _fp = fopen(path, mode);
  return _fp != nullptr;
}

bool FileStar::close() {
  if (_fp == nullptr) return true;
  bool ok = fclose(_fp) == 0;
  _fp = nullptr;
  MV_ASSERT(ok || get_errno() != EBADF);
  return ok;
}

bool FileStar::closeQuietly() {
  int saved = errno;
  bool ok = close();
  errno = saved;
  return ok;
}

ssize_t FileStar::read(void *buffer, size_t n) {
  size_t got = fread(buffer, 1, n, _fp);
  if (got == 0 && n != 0 && ferror(_fp)) return -1;
  return static_cast<ssize_t>(got);
}

ssize_t FileStar::write(const void *buffer, size_t n) {
  size_t put = fwrite(buffer, 1, n, _fp);
  if (put == 0 && n != 0) return -1;
  return static_cast<ssize_t>(put);
}

namespace {

// Unlocks on the way out, also when an append throws. A process with one thread takes no lock,
// as the C library's own line readers do: nothing can start a thread while this one reads.
class ScopedStreamLock {
 public:
  explicit ScopedStreamLock(FILE *fp) : _fp(singleThreaded() ? nullptr : fp) {
    if (_fp != nullptr) flockfile(_fp);
  }
  ~ScopedStreamLock() {
    if (_fp != nullptr) funlockfile(_fp);
  }
  ScopedStreamLock(const ScopedStreamLock &) = delete;
  ScopedStreamLock &operator=(const ScopedStreamLock &) = delete;

 private:
  static bool singleThreaded() {
#if defined(__GLIBC__) && __has_include(<sys/single_threaded.h>)
    return __libc_single_threaded;
#else
    return false;
#endif
  }
  FILE *_fp;
};

// Appends the bytes up to and including the next newline, or up to the end of the input or an
// error. True when a newline ended it. With the C library's buffer in view the line is found
// with memchr and copied a run at a time, as getline does; getc_unlocked refills the buffer (or
// leaves a pushed-back byte's area) through the library's own path.
bool appendThroughNewline(FILE *fp, Str &storeTo) {
  ScopedStreamLock lock(fp);
  for (;;) {
#if defined(__GLIBC__)
    char *p = fp->_IO_read_ptr;
    if (p < fp->_IO_read_end) {
      size_t avail = static_cast<size_t>(fp->_IO_read_end - p);
      auto *nl = static_cast<char *>(memchr(p, '\n', avail));
      size_t n = nl != nullptr ? static_cast<size_t>(nl - p) + 1 : avail;
      storeTo.append(p, n);
      fp->_IO_read_ptr = p + n;
      if (nl != nullptr) return true;
    }
#endif
    int c = getc_unlocked(fp);
    if (c == EOF) return false;
    storeTo.push_back(static_cast<char>(c));
    if (c == '\n') return true;
  }
}

}  // namespace

// The stream's position is asked only for a line that the end of the input cut off, the one
// case where seekable and unseekable streams differ; a position query costs a system call.
bool FileStar::readline(Str &storeTo) {
  storeTo.clear();
  if (appendThroughNewline(_fp, storeTo)) {
    storeTo.pop_back();
    if (!storeTo.empty() && storeTo.back() == '\r') storeTo.pop_back();
    return true;
  }
  if (storeTo.empty()) return false;
  if (ftello(_fp) < 0) {
    // Unseekable: the end counts as a line end.
    if (storeTo.back() == '\r') storeTo.pop_back();
    return true;
  }
  // Seekable: the line stays as the end left it, carriage return and all, less a final NUL.
  if (storeTo.back() == '\0') storeTo.pop_back();
  return !storeTo.empty();
}

int FileStar::writeFormat(const char *format, ...) {
  Str text;
  va_list ap;
  va_start(ap, format);
  text.vappendf(format, ap);
  va_end(ap);
  size_t put = fwrite(text.data(), 1, text.size(), _fp);
  if (put != text.size()) return -1;
  return static_cast<int>(put);
}

void FileStar::writeSigned(int64_t n) {
  char buf[24];
  char *end = buf + sizeof buf;
  uint64_t magnitude = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  char *p = formatUnsigned(magnitude, end, 10);
  if (n < 0) *--p = '-';
  fwrite(p, 1, static_cast<size_t>(end - p), _fp);
}

void FileStar::writeUnsigned(uint64_t n) {
  char buf[24];
  char *end = buf + sizeof buf;
  char *p = formatUnsigned(n, end, 10);
  fwrite(p, 1, static_cast<size_t>(end - p), _fp);
}

void FileStar::writeHex(uint64_t n) {
  char buf[24];
  char *end = buf + sizeof buf;
  char *p = formatUnsigned(n, end, 16);
  fwrite(p, 1, static_cast<size_t>(end - p), _fp);
}

void FileStar::writeDouble(double x) {
  char buf[400];
  size_t n = FileDescriptor::formatFloatText(x, buf, sizeof buf);
  MV_ASSERT(n <= sizeof buf);
  fwrite(buf, 1, n, _fp);
}

void FileStar::setBuffer(char *buffer, size_t size) {
  if (setvbuf(_fp, buffer, _IOFBF, size) != 0) abort();
}

bool FileStar::hasStaleError() const { return _fp != nullptr && ferror(_fp) && errno == ESTALE; }

bool FileStar::modificationTime(Timeval &mtime) const {
  if (_fp == nullptr) return false;
  struct stat st;
  if (fstat(fileno(_fp), &st) != 0) return false;
  mtime = Timeval(st.st_mtim.tv_sec, static_cast<int32_t>(st.st_mtim.tv_nsec / 1000));
  return true;
}

}  // namespace morvek
