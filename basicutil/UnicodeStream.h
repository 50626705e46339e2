// Unicode text streams: class wrappers over the reader and writer records of libzero, with the
// bytes coming from or going to a virtual operation, and concrete streams that buffer a
// FileStar. The encoding word and error modes are the records' (UTRANS_ENC_*,
// UTRANS_ERRORMODE_*), so what a reader found can be handed to a writer to rewrite a file as it
// was read.
#pragma once

#include <concepts>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <type_traits>
#include <utility>

#include "basicutil/FileStar.h"
#include "basicutil/Str.h"
#include "libzero/unicode-file-reader.h"
#include "libzero/unicode-file-writer.h"

namespace morvek {

class ReadableUnicodeStream {
 public:
  ReadableUnicodeStream();
  virtual ~ReadableUnicodeStream();
  // The record points back at this object.
  ReadableUnicodeStream(const ReadableUnicodeStream &) = delete;
  ReadableUnicodeStream &operator=(const ReadableUnicodeStream &) = delete;

  // 0 to 255, or -1 at the end; errors of the source look like the end.
  virtual int read_byte() = 0;

  // The next line as UTF-8 without its line end. The segment points into the reader's buffer
  // and stays valid until the next read. False at the end (the segment is then empty).
  bool getLine(StrSegment &line);
  // The same, copied; the target is emptied at the end.
  bool getLine(Str &line);
  // The next code point, or -1; a byte-order mark arrives as U+FEFF.
  int32_t readCodepoint() { return utrans_read_codepoint(&_ufil); }

  // Before the first read, 0 detects the encoding; a byte-order mark overrules any setting.
  // Afterwards it tells what was found, with the CR LF flag following the lines read so far.
  uint32_t encoding() const { return _ufil.common.encoding; }
  void setEncoding(uint32_t encoding) { _ufil.common.encoding = encoding; }
  uint32_t errorMode() const { return _ufil.common.error_mode; }
  void setErrorMode(uint32_t mode) { _ufil.common.error_mode = mode; }

  utrans_read_file _ufil;

 private:
  static int getbyteTrampoline(void *user);
};

class WritableUnicodeStream {
 public:
  WritableUnicodeStream();
  virtual ~WritableUnicodeStream();
  WritableUnicodeStream(const WritableUnicodeStream &) = delete;
  WritableUnicodeStream &operator=(const WritableUnicodeStream &) = delete;

  virtual void write_byte(int byte) = 0;

  // UTF-8 text; a character may be split across calls. Bad UTF-8 follows the error mode.
  void write(const char *cstr);
  void write(StrSegment text);
  void printf(const char *format, ...) __attribute__((format(printf, 2, 3)));
  void vprintf(const char *format, va_list ap) __attribute__((format(printf, 2, 0)));
  void writeCodepoint(int32_t cp) { utrans_write_codepoint(&_ufil, cp); }

  // Decimal text, rendered on the stack.
  void writeNumber(long long value);
  void writeNumber(unsigned long long value);
  template <std::integral T>
  void writeNumber(T value) {
    if constexpr (std::is_signed_v<T>) {
      writeNumber(static_cast<long long>(value));
    } else {
      writeNumber(static_cast<unsigned long long>(value));
    }
  }
  // Shortest round-trip digits as plain decimal text, never with an exponent; rendered on the
  // stack.
  void writeDouble(double value);

  // Set before the first write, flags included (UTRANS_ENC_FLAG_BOM, UTRANS_ENC_FLAG_CRLF); 0
  // writes UTF-8. A UTF-32BE stream can take no text.
  uint32_t encoding() const { return _ufil.common.encoding; }
  void setEncoding(uint32_t encoding) { _ufil.common.encoding = encoding; }
  uint32_t errorMode() const { return _ufil.common.error_mode; }
  void setErrorMode(uint32_t mode) { _ufil.common.error_mode = mode; }

  utrans_write_file _ufil;

 private:
  static void putbyteTrampoline(void *user, int byte);
};

class ReadableUnicodeFileStar : public ReadableUnicodeStream {
 public:
  ReadableUnicodeFileStar() = default;
  explicit ReadableUnicodeFileStar(FileStar &&file) : _file(std::move(file)) {}
  // Opens path for reading; check valid().
  explicit ReadableUnicodeFileStar(const char *path) : _file(path, "r") {}

  bool valid() const { return _file.valid(); }
  FileStar &file() { return _file; }

  int read_byte() override;

  FileStar _file;
  unsigned char _buf[512];
  unsigned char *_bufp = _buf;
  unsigned char *_bufEnd = _buf;
};

class WritableUnicodeFileStar : public WritableUnicodeStream {
 public:
  WritableUnicodeFileStar() = default;
  explicit WritableUnicodeFileStar(FileStar &&file, uint32_t encoding = 0)
      : _file(std::move(file)) {
    setEncoding(encoding);
  }
  // Opens path with the stdio mode; check valid().
  WritableUnicodeFileStar(const char *path, const char *mode, uint32_t encoding = 0)
      : _file(path, mode) {
    setEncoding(encoding);
  }
  // Hands what is buffered to the FileStar, which flushes it as it closes.
  ~WritableUnicodeFileStar() override;

  bool valid() const { return _file.valid(); }
  FileStar &file() { return _file; }

  void write_byte(int byte) override;
  // Writes what is buffered, then fflush. False if the write fell short or fflush failed.
  bool flush();

  FileStar _file;
  unsigned char _buf[512];
  unsigned char *_bufp = _buf;

 private:
  // The bytes that went out, or -1 when nothing did although something was buffered.
  ssize_t drain();
};

}  // namespace morvek
