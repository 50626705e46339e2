#include "libzero/ospath-builder.h"

#include <string.h>

#include "libzero/fatal-assert.h"

namespace {

inline void check_invariant(const ospath_builder *builderp) {
  MV_ASSERT(builderp->space_left <= OSPATH_SIZE(&builderp->buf));
}

inline char *write_position(ospath_builder *builderp) {
  return builderp->buf + (OSPATH_SIZE(&builderp->buf) - builderp->space_left);
}

}  // namespace

extern "C" int ospath_copy(ospath_buf *dst, const char *src) {
  size_t n = strlen(src);
  if (n >= OSPATH_MAX) return -1;
  memcpy(*dst, src, n + 1);
  return 0;
}

extern "C" void ospath_builder_init(ospath_builder *builderp) {
  builderp->space_left = OSPATH_SIZE(&builderp->buf);
}

extern "C" int ospath_builder_ok(const ospath_builder *builderp) {
  return builderp->space_left != OSPATH_OVERFLOWED;
}

extern "C" size_t ospath_builder_appendn(ospath_builder *builderp, const char *data, size_t len) {
  if (builderp->space_left == OSPATH_OVERFLOWED) return OSPATH_OVERFLOWED;
  check_invariant(builderp);
  if (builderp->space_left < len) {
    builderp->space_left = OSPATH_OVERFLOWED;
    return OSPATH_OVERFLOWED;
  }
  size_t srclen = len;
  MV_ASSERT(srclen <= OSPATH_SIZE(&builderp->buf));
  memcpy(write_position(builderp), data, srclen);
  builderp->space_left -= srclen;
  return builderp->space_left;
}

extern "C" size_t ospath_builder_append(ospath_builder *builderp, const char *cstr) {
  return ospath_builder_appendn(builderp, cstr, strlen(cstr));
}

extern "C" size_t ospath_builder_appendc(ospath_builder *builderp, char ch) {
  if (builderp->space_left == OSPATH_OVERFLOWED) return OSPATH_OVERFLOWED;
  check_invariant(builderp);
  if (builderp->space_left == 0) {
    builderp->space_left = OSPATH_OVERFLOWED;
    return OSPATH_OVERFLOWED;
  }
  *write_position(builderp) = ch;
  return --builderp->space_left;
}

extern "C" size_t ospath_builder_append_number(ospath_builder *builderp, long long value) {
  char tmp[24];
  size_t i = sizeof tmp;
  // Negate in unsigned arithmetic so that the most negative value survives.
  unsigned long long v = value < 0 ? 0ull - static_cast<unsigned long long>(value)
                                   : static_cast<unsigned long long>(value);
  do {
    tmp[--i] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  if (value < 0) tmp[--i] = '-';
  return ospath_builder_appendn(builderp, tmp + i, sizeof tmp - i);
}

extern "C" size_t ospath_builder_append_slash(ospath_builder *builderp) {
  return ospath_builder_appendc(builderp, '/');
}

extern "C" int ospath_builder_finish(ospath_builder *builderp) {
  if (builderp->space_left == OSPATH_OVERFLOWED) return -1;
  check_invariant(builderp);
  if (builderp->space_left == 0) {
    builderp->space_left = OSPATH_OVERFLOWED;
    return -1;
  }
  *write_position(builderp) = '\0';
  --builderp->space_left;
  return 0;
}

extern "C" int ospath_build2(ospath_builder *builderp, const char *a, const char *c) {
  ospath_builder_init(builderp);
  ospath_builder_append(builderp, a);
  ospath_builder_append(builderp, c);
  return ospath_builder_finish(builderp);
}

extern "C" int ospath_join(ospath_builder *builderp, const char *a, const char *c) {
  ospath_builder_init(builderp);
  ospath_builder_append(builderp, a);
  ospath_builder_append_slash(builderp);
  ospath_builder_append(builderp, c);
  return ospath_builder_finish(builderp);
}
