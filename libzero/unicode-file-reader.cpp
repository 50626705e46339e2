#include "libzero/unicode-file-reader.h"

#include <stdlib.h>
#include <string.h>

#include "libzero/fatal-assert.h"

namespace {

int stdio_getbyte(void *user) { return getc(static_cast<FILE *>(user)); }

inline bool is_continuation(int b) { return (b & 0xC0) == 0x80; }

// 0, or the encoding word for a byte-order mark at the start of the data.
uint32_t encoding_from_bom(const unsigned char *d, size_t len) {
  if (len >= 3 && d[0] == 0xEF && d[1] == 0xBB && d[2] == 0xBF)
    return UTRANS_ENC_FLAG_BOM | UTRANS_ENC_UTF8;
  if (len >= 4 && d[0] == 0x00 && d[1] == 0x00 && d[2] == 0xFE && d[3] == 0xFF)
    return UTRANS_ENC_FLAG_BOM | UTRANS_ENC_UTF32BE;
  if (len >= 8 && d[0] == 0xFF && d[1] == 0xFE && d[2] == 0x00 && d[3] == 0x00) {
    // FF FE 00 00 is also UTF-16LE with a NUL after the mark: believe UTF-32 only when the
    // words that follow are code points.
    bool plausible = true;
    for (size_t i = 4; i + 4 <= len; i += 4) {
      const uint32_t w = uint32_t{d[i]} | uint32_t{d[i + 1]} << 8 | uint32_t{d[i + 2]} << 16 |
                         uint32_t{d[i + 3]} << 24;
      if ((i == 4 && w == 0) || w > 0x10FFFF) {
        plausible = false;
        break;
      }
    }
    if (plausible) return UTRANS_ENC_FLAG_BOM | UTRANS_ENC_UTF32LE;
  }
  if (len >= 2 && d[0] == 0xFE && d[1] == 0xFF) return UTRANS_ENC_FLAG_BOM | UTRANS_ENC_UTF16BE;
  if (len >= 2 && d[0] == 0xFF && d[1] == 0xFE) return UTRANS_ENC_FLAG_BOM | UTRANS_ENC_UTF16LE;
  return 0;
}

// The next byte for the decoder: given-back bytes first.
int next_byte(utrans_read_file *ufil) {
  if (ufil->utf8in.avail > 0) return ufil->utf8in.stack[--ufil->utf8in.avail];
  return utrans_read_rawbyte(ufil);
}

// A sequence broke on `by`: give it and the continuation bytes before it back, so that each is
// decoded again on its own.
void put_rawbyte_back_on_stack(utrans_read_file *ufil, int by, const int *cont, int ncont) {
  ufil->utf8in.stack[ufil->utf8in.avail++] = static_cast<unsigned char>(by);
  for (int i = ncont - 1; i >= 0; --i)
    ufil->utf8in.stack[ufil->utf8in.avail++] = static_cast<unsigned char>(cont[i]);
}

int32_t read_translate_utf8(utrans_read_file *ufil, int first_byte) {
  MV_ASSERT(first_byte >= 0x80 && first_byte <= 0xFF);
  int extra;
  uint32_t cp;
  if (first_byte >= 0xC2 && first_byte <= 0xDF) {
    extra = 1;
    cp = first_byte & 0x1F;
  } else if (first_byte >= 0xE0 && first_byte <= 0xEF) {
    extra = 2;
    cp = first_byte & 0x0F;
  } else if (first_byte >= 0xF0 && first_byte <= 0xF4) {
    extra = 3;
    cp = first_byte & 0x07;
  } else {
    return UTRANS_INVALID_CODE_UNIT;
  }
  int cont[3];
  for (int i = 0; i < extra; ++i) {
    const int b = next_byte(ufil);
    if (b == EOF) return UTRANS_INVALID_CODE_UNIT;
    if (!is_continuation(b)) {
      put_rawbyte_back_on_stack(ufil, b, cont, i);
      return UTRANS_INVALID_CODE_UNIT;
    }
    cont[i] = b;
    cp = cp << 6 | (b & 0x3F);
  }
  if (extra == 3 && cp >= 0x110000) return UTRANS_INVALID_CODE_UNIT;
  return static_cast<int32_t>(cp);
}

int32_t read_utf16(utrans_read_file *ufil, int first, bool little_endian) {
  const int second = utrans_read_rawbyte(ufil);
  if (second == EOF) return UTRANS_INVALID_CODE_UNIT;
  return little_endian ? first | second << 8 : first << 8 | second;
}

int32_t read_utf32(utrans_read_file *ufil, int cp1, bool little_endian) {
  const int cp2 = utrans_read_rawbyte(ufil);
  const int cp3 = utrans_read_rawbyte(ufil);
  const int cp4 = utrans_read_rawbyte(ufil);
  if (cp4 == EOF) return UTRANS_INVALID_CODE_UNIT;
  MV_ASSERT(cp2 != EOF && cp3 != EOF);
  const uint32_t v =
      little_endian
          ? uint32_t(cp1) | uint32_t(cp2) << 8 | uint32_t(cp3) << 16 | uint32_t(cp4) << 24
          : uint32_t(cp1) << 24 | uint32_t(cp2) << 16 | uint32_t(cp3) << 8 | uint32_t(cp4);
  if ((v >= 0xD800 && v <= 0xDFFF) || v > 0x10FFFF) return UTRANS_INVALID_CODE_UNIT;
  return static_cast<int32_t>(v);
}

bool grow_line_buffer(utrans_read_file *ufil, size_t nchar) {
  MV_ASSERT(nchar == ufil->rline.bufbytes / sizeof(ufil->rline.buf.utf8[0]));
  const size_t want = nchar * 2 > 128 ? nchar * 2 : 128;
  char *grown = static_cast<char *>(realloc(ufil->rline.buf.utf8, want));
  if (grown == nullptr) return false;
  ufil->rline.buf.utf8 = grown;
  ufil->rline.bufbytes = want;
  return true;
}

}  // namespace

unsigned utrans_encode_utf8(uint32_t cp, unsigned char out[4]) {
  if (cp < 0x80) {
    out[0] = static_cast<unsigned char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | cp >> 6);
    out[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<unsigned char>(0xE0 | cp >> 12);
    out[1] = static_cast<unsigned char>(0x80 | (cp >> 6 & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<unsigned char>(0xF0 | (cp >> 18 & 0x07));
  out[1] = static_cast<unsigned char>(0x80 | (cp >> 12 & 0x3F));
  out[2] = static_cast<unsigned char>(0x80 | (cp >> 6 & 0x3F));
  out[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
  return 4;
}

void utrans_init_read(utrans_read_file *ufil, void *user, utrans_getbyte_func getbyte) {
  memset(ufil, 0, sizeof(*ufil));
  ufil->common.user = user;
  ufil->common.getbyte = getbyte;
}

void utrans_init_read_stdio(utrans_read_file *ufil, FILE *fp) {
  utrans_init_read(ufil, fp, stdio_getbyte);
}

void utrans_release(utrans_read_file *ufil) {
  free(ufil->rline.buf.utf8);
  ufil->rline.buf.utf8 = nullptr;
  ufil->rline.bufbytes = 0;
}

uint32_t utrans_guess_encoding(const unsigned char *data, size_t len) {
  if (len == 0) return UTRANS_ENC_EMPTY;
  const uint32_t bom = encoding_from_bom(data, len);
  if (bom != 0) return bom;
  if (len < 8) return UTRANS_ENC_UTF8;
  size_t even_zeros = 0, odd_zeros = 0;
  for (size_t i = 0; i < len; ++i)
    if (data[i] == 0) ++(i % 2 == 0 ? even_zeros : odd_zeros);
  // Deliberately weak: at most half the bytes sit at odd offsets, so this never holds and
  // unmarked UTF-16 reads as UTF-8. Kept so that existing files read as they always have.
  if (odd_zeros > len * 2 / 3 && even_zeros < len / 2) return UTRANS_ENC_UTF16LE;
  return UTRANS_ENC_UTF8;
}

int utrans_read_rawbyte(utrans_read_file *ufil) {
  switch (ufil->rahed.state) {
    case 0: {
      while (ufil->rahed.sz < UTRANS_READAHEAD_BYTES) {
        const int b = ufil->common.getbyte(ufil->common.user);
        if (b < 0) break;
        ufil->rahed.buf[ufil->rahed.sz++] = static_cast<unsigned char>(b);
      }
      const uint32_t flags = ufil->common.encoding & ~uint32_t{UTRANS_ENC_MASK};
      if ((ufil->common.encoding & UTRANS_ENC_MASK) != UTRANS_ENC_AUTO) {
        // A mark overrules the caller.
        const uint32_t bom = encoding_from_bom(ufil->rahed.buf, ufil->rahed.sz);
        if (bom != 0) ufil->common.encoding = flags | bom;
      } else {
        ufil->common.encoding = flags | utrans_guess_encoding(ufil->rahed.buf, ufil->rahed.sz);
      }
      ufil->rahed.state = 1;
      [[fallthrough]];
    }
    case 1: {
      if (ufil->rahed.sz == 0) {
        ufil->rahed.state = 2;
        return EOF;
      }
      const int b = ufil->rahed.buf[ufil->rahed.used++];
      if (ufil->rahed.used == ufil->rahed.sz) ufil->rahed.state = 2;
      return b;
    }
    default:
      return ufil->common.getbyte(ufil->common.user);
  }
}

int32_t utrans_read_codepoint_nosurrogate(utrans_read_file *ufil) {
  const int first = next_byte(ufil);
  if (first == EOF) return EOF;
  switch (ufil->common.encoding & UTRANS_ENC_MASK) {
    case UTRANS_ENC_UTF8:
      return first < 0x80 ? first : read_translate_utf8(ufil, first);
    case UTRANS_ENC_UTF16LE:
      return read_utf16(ufil, first, true);
    case UTRANS_ENC_UTF16BE:
      return read_utf16(ufil, first, false);
    case UTRANS_ENC_UTF32LE:
      return read_utf32(ufil, first, true);
    default:
      MV_ASSERT((ufil->common.encoding & 0xFF) == UTRANS_ENC_UTF32BE);
      return read_utf32(ufil, first, false);
  }
}

int32_t utrans_read_codepoint(utrans_read_file *ufil) {
  for (;;) {
    int32_t cp;
    if (ufil->have_partner) {
      // What followed a lone high surrogate is judged like any freshly read unit.
      ufil->have_partner = 0;
      cp = ufil->partner;
    } else {
      cp = utrans_read_codepoint_nosurrogate(ufil);
    }
    if (cp == EOF) return EOF;
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      const int32_t low = utrans_read_codepoint_nosurrogate(ufil);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
        MV_ASSERT(cp >= 0x10000);
        MV_ASSERT(cp <= 0x10FFFF);
        return cp;
      }
      ufil->partner = low;
      ufil->have_partner = 1;
    } else if (!(cp >= 0xDC00 && cp <= 0xDFFF) && cp != UTRANS_INVALID_CODE_UNIT) {
      MV_ASSERT(cp <= 0x10FFFF);
      return cp;
    }
    if (ufil->common.error_mode == UTRANS_ERRORMODE_IGNORE_INVALID) continue;
    MV_ASSERT(ufil->common.error_mode == UTRANS_ERRORMODE_MARK_INVALID);
    return 0xFFFD;
  }
}

int utrans_getc_utf8(utrans_read_file *ufil) {
  if (ufil->utf8out.avail > 0) return ufil->utf8out.bytes[--ufil->utf8out.avail];
  for (;;) {
    const int32_t cp = utrans_read_codepoint(ufil);
    if (cp < 0x80) return cp;
    if (cp == 0xFEFF) continue;  // a mark is never text, wherever it stands
    unsigned char enc[4];
    const unsigned n = utrans_encode_utf8(static_cast<uint32_t>(cp), enc);
    for (unsigned i = 0; i + 1 < n; ++i) ufil->utf8out.bytes[i] = enc[n - 1 - i];
    ufil->utf8out.avail = n - 1;
    return enc[0];
  }
}

char *utrans_readline_utf8(utrans_read_file *ufil, size_t *length) {
  size_t nchar = 0;
  int c;
  for (;;) {
    c = utrans_getc_utf8(ufil);
    if (c == EOF || c == '\n') break;
    if (nchar == ufil->rline.bufbytes && !grow_line_buffer(ufil, nchar)) {
      if (length) *length = 0;
      return nullptr;
    }
    ufil->rline.buf.utf8[nchar++] = static_cast<char>(c);
  }
  if (c == EOF && nchar == 0) {
    if (length) *length = 0;
    return nullptr;
  }
  if (nchar == ufil->rline.bufbytes && !grow_line_buffer(ufil, nchar)) {
    if (length) *length = 0;
    return nullptr;
  }
  if (nchar > 0 && ufil->rline.buf.utf8[nchar - 1] == '\r') {
    --nchar;
    ++ufil->rline.crlf_lines;
  } else {
    ++ufil->rline.lf_lines;
  }
  if (ufil->rline.crlf_lines > ufil->rline.lf_lines)
    ufil->common.encoding |= UTRANS_ENC_FLAG_CRLF;
  else if (ufil->rline.crlf_lines < ufil->rline.lf_lines)
    ufil->common.encoding &= ~uint32_t{UTRANS_ENC_FLAG_CRLF};
  ufil->rline.buf.utf8[nchar] = '\0';
  if (length) *length = nchar;
  return ufil->rline.buf.utf8;
}
