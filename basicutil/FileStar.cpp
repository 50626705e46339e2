#include "basicutil/FileStar.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "basicutil/FileDescriptor.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

inline int get_errno() { return errno; }

// fgets buffer of the seekable path and block of the unseekable one.
constexpr size_t LINE_CHUNK = 256;

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

bool FileStar::readline(Str &storeTo) {
  storeTo.clear();
  off_t before = ftello(_fp);
  if (before < 0) return readlineUnseekable(storeTo);

  // fgets says nothing of how much it stored, and a NUL byte inside a line makes strlen lie;
  // the stream's position does not. strlen can be trusted when it finds a full buffer or a
  // newline at its end, which spares the position query (a system call) on most pieces.
  char buf[LINE_CHUNK];
  char last = '\0';
  while (fgets(buf, sizeof buf, _fp) != nullptr) {
    off_t str_size = static_cast<off_t>(strlen(buf));
    if (str_size != static_cast<off_t>(sizeof buf - 1) &&
        (str_size == 0 || buf[str_size - 1] != '\n')) {
      str_size = ftello(_fp) - before;
    }
    MV_ASSERT(str_size > 0);
    MV_ASSERT(str_size < static_cast<off_t>(sizeof buf));
    storeTo.append(buf, static_cast<size_t>(str_size));
    before += str_size;
    last = buf[str_size - 1];
    if (str_size != static_cast<off_t>(sizeof buf - 1) || last == '\n') break;
  }

  bool newline = last == '\n';
  if (last == '\0' && !storeTo.empty()) {
    storeTo.pop_back();
    newline = !storeTo.empty() && storeTo.back() == '\n';
  }
  if (newline) {
    MV_ASSERT(!storeTo.empty());
    storeTo.pop_back();
    if (!storeTo.empty() && storeTo.back() == '\r') storeTo.pop_back();
  }

  if (!storeTo.empty()) return true;
  if (feof(_fp)) return false;
  return !ferror(_fp);
}

bool FileStar::readlineUnseekable(Str &storeTo) {
  char block[LINE_CHUNK];
  size_t n = 0;
  bool any = false;
  flockfile(_fp);
  for (;;) {
    int c = getc_unlocked(_fp);
    if (c == EOF) break;
    any = true;
    if (c == '\n') break;
    block[n++] = static_cast<char>(c);
    if (n == sizeof block) {
      storeTo.append(block, n);
      n = 0;
    }
  }
  funlockfile(_fp);
  if (!any) return false;
  // The carriage return may sit at the end of a block that has already been stored.
  if (n > 0) {
    if (block[n - 1] == '\r') --n;
  } else if (!storeTo.empty() && storeTo.back() == '\r') {
    storeTo.pop_back();
  }
  storeTo.append(block, n);
  return true;
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
