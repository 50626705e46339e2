// Reads text in any of the five Unicode encoding forms from a byte callback and hands it out as
// code points, UTF-8 bytes or lines of UTF-8. The encoding is guessed from a look-ahead of up to
// 64 bytes, and line ends are counted so that a writer can reproduce them. Nothing is allocated
// but the line buffer of utrans_readline_utf8.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

// The encoding word: the low byte is the encoding, the high bits are flags.
enum {
  UTRANS_ENC_AUTO = 0,   // to be detected
  UTRANS_ENC_EMPTY = 1,  // detection saw no bytes
  UTRANS_ENC_UTF8 = 2,
  UTRANS_ENC_UTF16LE = 3,
  UTRANS_ENC_UTF16BE = 4,
  UTRANS_ENC_UTF32LE = 5,
  UTRANS_ENC_UTF32BE = 6,
  UTRANS_ENC_MASK = 0xFF,
  UTRANS_ENC_FLAG_BOM = 0x8000,   // a byte-order mark is present, or is to be written
  UTRANS_ENC_FLAG_CRLF = 0x4000,  // lines end in CR LF
};

enum {
  UTRANS_ERRORMODE_IGNORE_INVALID = 0,  // an invalid sequence is skipped
  UTRANS_ERRORMODE_MARK_INVALID = 1,    // an invalid sequence reads as U+FFFD
};

// What utrans_read_codepoint_nosurrogate returns for an invalid sequence.
#define UTRANS_INVALID_CODE_UNIT 0xFFFFFF

// Returns 0 to 255, or -1 (EOF) at the end; errors of the source look like the end.
typedef int (*utrans_getbyte_func)(void *user);

#define UTRANS_READAHEAD_BYTES 64

typedef struct utrans_read_common {
  void *user;
  utrans_getbyte_func getbyte;
  uint32_t encoding;
  uint32_t error_mode;
} utrans_read_common;

typedef struct utrans_read_file {
  utrans_read_common common;
  struct {
    int state;  // 0 not yet read, 1 replaying buf, 2 exhausted
    unsigned char buf[UTRANS_READAHEAD_BYTES];
    uint32_t used;
    uint32_t sz;
  } rahed;
  struct {  // bytes given back by the UTF-8 decoder, last in first out
    unsigned char stack[3];
    uint32_t avail;
  } utf8in;
  int have_partner;  // a code unit read after a lone high surrogate
  int32_t partner;
  struct {  // the not yet returned UTF-8 bytes of a code point, next one last
    uint32_t avail;
    unsigned char bytes[4];
  } utf8out;
  struct {
    union {
      char *utf8;
    } buf;
    size_t bufbytes;
    uint64_t lf_lines;
    uint64_t crlf_lines;
  } rline;
} utrans_read_file;

// Clears the record and sets the byte source. Encoding and error mode start at 0 (detect,
// skip invalid); set common.encoding and common.error_mode before the first read to change them.
void utrans_init_read(utrans_read_file *ufil, void *user, utrans_getbyte_func getbyte);
// The same over a stdio stream, read with getc.
void utrans_init_read_stdio(utrans_read_file *ufil, FILE *fp);
// Frees the line buffer.
void utrans_release(utrans_read_file *ufil);

// The encoding word for the first bytes of a text (1 when empty); a byte-order mark sets
// UTRANS_ENC_FLAG_BOM.
uint32_t utrans_guess_encoding(const unsigned char *data, size_t len);

// The next byte, or -1. The first call fills the look-ahead and settles the encoding: a
// byte-order mark overrules what the caller set.
int utrans_read_rawbyte(utrans_read_file *ufil);
// The next code unit, UTRANS_INVALID_CODE_UNIT for an invalid sequence, or -1.
int32_t utrans_read_codepoint_nosurrogate(utrans_read_file *ufil);
// The next code point with surrogate pairs joined and invalid input handled by the error mode;
// -1 at the end. A byte-order mark arrives as U+FEFF.
int32_t utrans_read_codepoint(utrans_read_file *ufil);
// The next byte of the text as UTF-8, or -1. U+FEFF is dropped wherever it stands.
int utrans_getc_utf8(utrans_read_file *ufil);
// The next line without its LF (and without a CR before it), NUL-terminated in the reader's
// buffer, valid until the next call; NULL at the end or when the buffer can't grow. `length`
// may be NULL. Keeps the line-end counts and the UTRANS_ENC_FLAG_CRLF flag up to date.
char *utrans_readline_utf8(utrans_read_file *ufil, size_t *length);

// Writes 1 to 4 UTF-8 bytes of cp (at most 0x1FFFFF, surrogates not refused); returns the count.
unsigned utrans_encode_utf8(uint32_t cp, unsigned char out[4]);

#ifdef __cplusplus
}
#endif
