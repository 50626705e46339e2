#include "libzero/unicode-file-writer.h"

#include <string.h>

#include "libzero/fatal-assert.h"

namespace {

void stdio_putbyte(void *user, int by) { putc(by, static_cast<FILE *>(user)); }

void put(const utrans_write_common *cufil, int by) { cufil->putbyte(cufil->user, by); }

// Every byte of output passes here, so the mark comes before whatever is written first.
void emit(utrans_write_file *ufil, int by) {
  if (!ufil->started) {
    const uint32_t low = ufil->common.encoding & UTRANS_ENC_MASK;
    if (low == UTRANS_ENC_AUTO || low == UTRANS_ENC_EMPTY)
      ufil->common.encoding =
          (ufil->common.encoding & ~uint32_t{UTRANS_ENC_MASK}) | UTRANS_ENC_UTF8;
    if (ufil->common.encoding & UTRANS_ENC_FLAG_BOM) utrans_write_bom(ufil);
    ufil->started = 1;
  }
  put(&ufil->common, by);
}

void write_cp_utf8(utrans_write_file *ufil, uint32_t cp) {
  unsigned char enc[4];
  const unsigned n = utrans_encode_utf8(cp, enc);
  for (unsigned i = 0; i < n; ++i) emit(ufil, enc[i]);
}

void write_cp_utf16(utrans_write_file *ufil, uint32_t cp, bool little_endian,
                    utrans_codepoint_writer self) {
  if (cp >= 0x10000) {
    cp -= 0x10000;
    MV_ASSERT(cp <= 0xFFFFF);
    self(ufil, (cp >> 10) | 0xD800);
    self(ufil, (cp & 0x3FF) | 0xDC00);
    return;
  }
  if (little_endian) {
    emit(ufil, cp & 0xFF);
    emit(ufil, cp >> 8 & 0xFF);
  } else {
    emit(ufil, cp >> 8 & 0xFF);
    emit(ufil, cp & 0xFF);
  }
}

void write_cp_utf16le(utrans_write_file *ufil, uint32_t cp) {
  write_cp_utf16(ufil, cp, true, write_cp_utf16le);
}
void write_cp_utf16be(utrans_write_file *ufil, uint32_t cp) {
  write_cp_utf16(ufil, cp, false, write_cp_utf16be);
}

void write_cp_utf32le(utrans_write_file *ufil, uint32_t cp) {
  emit(ufil, cp & 0xFF);
  emit(ufil, cp >> 8 & 0xFF);
  emit(ufil, cp >> 16 & 0xFF);
  emit(ufil, 0);
}

// Indexed by the encoding's low byte. UTF-32BE has no entry: see utrans_write_codepoint.
const utrans_codepoint_writer codepoint_writers[] = {
    write_cp_utf8,    write_cp_utf8,    write_cp_utf8,
    write_cp_utf16le, write_cp_utf16be, write_cp_utf32le,
};

utrans_codepoint_writer writer_for(utrans_write_file *ufil) {
  if (ufil->writer == nullptr) {
    const uint32_t low = ufil->common.encoding & UTRANS_ENC_MASK;
    if (low >= sizeof(codepoint_writers) / sizeof(codepoint_writers[0])) {
      // Code points were never wired up for UTF-32BE; such a stream stays limited to marks and
      // raw bytes, and this assertion always fails.
      MV_ASSERT((ufil->common.encoding & 0xFF) == UTRANS_ENC_UTF16BE);
    }
    ufil->writer = codepoint_writers[low];
  }
  return ufil->writer;
}

void write_invalid(utrans_write_file *ufil) {
  ufil->utf8_pending = 0;
  if (ufil->common.error_mode == UTRANS_ERRORMODE_MARK_INVALID) {
    writer_for(ufil)(ufil, 0xFFFD);
    ufil->last_was_cr = 0;
  }
}

}  // namespace

void utrans_init_write(utrans_write_file *ufil, void *user, utrans_putbyte_func putbyte) {
  memset(ufil, 0, sizeof(*ufil));
  ufil->common.user = user;
  ufil->common.putbyte = putbyte;
}

void utrans_init_write_stdio(utrans_write_file *ufil, FILE *fp) {
  utrans_init_write(ufil, fp, stdio_putbyte);
}

void utrans_write_bom(utrans_write_file *ufil) {
  const utrans_write_common *cufil = &ufil->common;
  switch (cufil->encoding & 0xFF) {
    case UTRANS_ENC_UTF8:
      put(cufil, 0xEF), put(cufil, 0xBB), put(cufil, 0xBF);
      break;
    case UTRANS_ENC_UTF16LE:
      put(cufil, 0xFF), put(cufil, 0xFE);
      break;
    case UTRANS_ENC_UTF16BE:
      put(cufil, 0xFE), put(cufil, 0xFF);
      break;
    case UTRANS_ENC_UTF32LE:
      put(cufil, 0xFF), put(cufil, 0xFE), put(cufil, 0x00), put(cufil, 0x00);
      break;
    default:
      MV_ASSERT((cufil->encoding & 0xFF) == UTRANS_ENC_UTF32BE);
      put(cufil, 0x00), put(cufil, 0x00), put(cufil, 0xFE), put(cufil, 0xFF);
      break;
  }
}

void utrans_write_rawbyte(utrans_write_file *ufil, int by) {
  MV_ASSERT(by >= 0);
  MV_ASSERT(by <= 0xFF);
  emit(ufil, by);
}

void utrans_write_codepoint(utrans_write_file *ufil, int32_t cp) {
  MV_ASSERT(cp >= 0);
  MV_ASSERT(cp <= 0x10FFFF);
  const utrans_codepoint_writer writer = writer_for(ufil);
  if (cp == '\n' && !ufil->last_was_cr && (ufil->common.encoding & UTRANS_ENC_FLAG_CRLF))
    writer(ufil, '\r');
  writer(ufil, static_cast<uint32_t>(cp));
  ufil->last_was_cr = cp == '\r';
}

void utrans_write_utf8(utrans_write_file *ufil, const char *data, ptrdiff_t len) {
  if (len <= 0) return;
  const unsigned char *p = reinterpret_cast<const unsigned char *>(data);
  for (ptrdiff_t i = 0; i < len; ++i) {
    const unsigned char by = p[i];
    if (ufil->utf8_pending > 0) {
      if ((by & 0xC0) == 0x80) {
        ufil->utf8_cp = ufil->utf8_cp << 6 | (by & 0x3F);
        if (--ufil->utf8_pending == 0) {
          // Leads F4 90 and up assemble past the last code point: invalid like any bad sequence.
          if (ufil->utf8_cp > 0x10FFFF)
            write_invalid(ufil);
          else
            utrans_write_codepoint(ufil, static_cast<int32_t>(ufil->utf8_cp));
        }
        continue;
      }
      write_invalid(ufil);
    }
    if (by < 0x80) {
      utrans_write_codepoint(ufil, by);
    } else if (by >= 0xC2 && by <= 0xDF) {
      ufil->utf8_pending = 1;
      ufil->utf8_cp = by & 0x1F;
    } else if (by >= 0xE0 && by <= 0xEF) {
      ufil->utf8_pending = 2;
      ufil->utf8_cp = by & 0x0F;
    } else if (by >= 0xC2 && by <= 0xF4) {
      ufil->utf8_pending = 3;
      ufil->utf8_cp = by & 0x07;
    } else {
      write_invalid(ufil);
    }
  }
}
