// Writes text in any of the five Unicode encoding forms through a byte callback: raw bytes, code
// points or UTF-8 in pieces of any size, with the stream's byte-order mark and line ending. The
// encoding word and error modes are the reader's, so a file can be rewritten as it was read.
// Nothing here allocates.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "libzero/unicode-file-reader.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*utrans_putbyte_func)(void *user, int by);

typedef struct utrans_write_common {
  void *user;
  utrans_putbyte_func putbyte;
  uint32_t encoding;
  uint32_t error_mode;
} utrans_write_common;

typedef struct utrans_write_file utrans_write_file;
typedef void (*utrans_codepoint_writer)(utrans_write_file *ufil, uint32_t cp);

struct utrans_write_file {
  utrans_write_common common;
  int started;                     // the mark phase is over
  utrans_codepoint_writer writer;  // chosen from the encoding on first use
  int last_was_cr;
  uint32_t utf8_pending;  // continuation bytes still expected by utrans_write_utf8
  uint32_t utf8_cp;
};

// Clears the record and sets the sink. Encoding 0 writes UTF-8; set common.encoding (flags
// included) and common.error_mode before the first write.
void utrans_init_write(utrans_write_file *ufil, void *user, utrans_putbyte_func putbyte);
// The same over a stdio stream, written with putc.
void utrans_init_write_stdio(utrans_write_file *ufil, FILE *fp);

// Writes the mark of the stream's encoding, straight to the sink.
void utrans_write_bom(utrans_write_file *ufil);
void utrans_write_rawbyte(utrans_write_file *ufil, int by);
// LF becomes CR LF when UTRANS_ENC_FLAG_CRLF is set. A UTF-32BE stream takes marks and raw
// bytes but no code points: writing one is fatal.
void utrans_write_codepoint(utrans_write_file *ufil, int32_t cp);
// UTF-8 bytes; a character may be split across calls. Bad UTF-8 follows the error mode.
void utrans_write_utf8(utrans_write_file *ufil, const char *data, ptrdiff_t len);

#ifdef __cplusplus
}
#endif
