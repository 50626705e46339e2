#include "basicutil/UnicodeStream.h"

#include <cstring>

#include "basicutil/FileDescriptor.h"
#include "libzero/fatal-assert.h"

namespace morvek {

// ---- ReadableUnicodeStream

ReadableUnicodeStream::ReadableUnicodeStream() {
  utrans_init_read(&_ufil, this, getbyteTrampoline);
}

ReadableUnicodeStream::~ReadableUnicodeStream() { utrans_release(&_ufil); }

int ReadableUnicodeStream::getbyteTrampoline(void *user) {
  return static_cast<ReadableUnicodeStream *>(user)->read_byte();
}

bool ReadableUnicodeStream::getLine(StrSegment &line) {
  size_t length = 0;
  const char *text = utrans_readline_utf8(&_ufil, &length);
  if (text == nullptr) {
    line = StrSegment();
    return false;
  }
  line = StrSegment(text, length);
  return true;
}

bool ReadableUnicodeStream::getLine(Str &line) {
  StrSegment seg;
  bool ok = getLine(seg);
  line.assign(seg._data, seg._len);
  return ok;
}

// ---- WritableUnicodeStream

WritableUnicodeStream::WritableUnicodeStream() {
  utrans_init_write(&_ufil, this, putbyteTrampoline);
}

WritableUnicodeStream::~WritableUnicodeStream() = default;

void WritableUnicodeStream::putbyteTrampoline(void *user, int byte) {
  static_cast<WritableUnicodeStream *>(user)->write_byte(byte);
}

void WritableUnicodeStream::write(const char *cstr) {
  if (cstr != nullptr) utrans_write_utf8(&_ufil, cstr, static_cast<ptrdiff_t>(strlen(cstr)));
}

void WritableUnicodeStream::write(StrSegment text) {
  utrans_write_utf8(&_ufil, text._data, static_cast<ptrdiff_t>(text._len));
}

void WritableUnicodeStream::printf(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vprintf(format, ap);
  va_end(ap);
}

void WritableUnicodeStream::vprintf(const char *format, va_list ap) {
  Str text;
  text.vappendf(format, ap);
  write(text.segment());
}

namespace {

// Digits of n ending just before end; returns where they start.
char *renderDecimal(unsigned long long n, char *end) {
  char *p = end;
  do {
    *--p = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n != 0);
  return p;
}

}  // namespace

void WritableUnicodeStream::writeNumber(long long value) {
  char buf[24];
  char *end = buf + sizeof buf;
  // The magnitude is taken unsigned so that the most negative value survives.
  unsigned long long magnitude = value < 0 ? 0 - static_cast<unsigned long long>(value)
                                           : static_cast<unsigned long long>(value);
  char *p = renderDecimal(magnitude, end);
  if (value < 0) *--p = '-';
  write(StrSegment(p, static_cast<size_t>(end - p)));
}

void WritableUnicodeStream::writeNumber(unsigned long long value) {
  char buf[24];
  char *end = buf + sizeof buf;
  char *p = renderDecimal(value, end);
  write(StrSegment(p, static_cast<size_t>(end - p)));
}

void WritableUnicodeStream::writeDouble(double value) {
  char buf[400];
  size_t n = FileDescriptor::formatShortestDouble(value, buf, sizeof buf);
  MV_ASSERT(n <= sizeof buf);
  write(StrSegment(buf, n));
}

// ---- ReadableUnicodeFileStar

int ReadableUnicodeFileStar::read_byte() {
  if (_bufp == _bufEnd) {
    if (!_file.valid()) return -1;
    ssize_t bytes = _file.read(_buf, sizeof _buf);
    if (bytes < 1) return -1;
    MV_ASSERT(bytes <= (ssize_t)sizeof(_buf));
    _bufp = _buf;
    _bufEnd = _buf + bytes;
  }
  MV_ASSERT(_bufp < _bufEnd);
  return *_bufp++;
}

// ---- WritableUnicodeFileStar

WritableUnicodeFileStar::~WritableUnicodeFileStar() { drain(); }

ssize_t WritableUnicodeFileStar::drain() {
  size_t pending = static_cast<size_t>(_bufp - _buf);
  _bufp = _buf;
  if (pending == 0) return 0;
  if (!_file.valid()) return -1;
  return _file.write(_buf, pending);
}

void WritableUnicodeFileStar::write_byte(int byte) {
  MV_ASSERT(_bufp < &_buf[sizeof(_buf)]);
  *_bufp++ = static_cast<unsigned char>(byte);
  // A failed write is dropped here; only flush reports.
  if (_bufp == &_buf[sizeof(_buf)]) drain();
}

bool WritableUnicodeFileStar::flush() {
  size_t pending = static_cast<size_t>(_bufp - _buf);
  ssize_t put = drain();
  if (put != static_cast<ssize_t>(pending)) return false;
  return _file.valid() && _file.flush();
}

}  // namespace morvek
