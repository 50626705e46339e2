// A path assembled in a fixed buffer, for places where the heap is off limits (a crash handler).
// Running out of room puts the builder into an overflow state that every later step respects,
// so callers check once, at the end.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define OSPATH_MAX 1024
#define OSPATH_SIZE(bufp) (sizeof(*(bufp)))
#define OSPATH_OVERFLOWED ((size_t)-1)

typedef char ospath_buf[OSPATH_MAX];

typedef struct ospath_builder {
  ospath_buf buf;
  size_t space_left;  // OSPATH_OVERFLOWED once anything failed to fit
} ospath_builder;

// Copies a NUL-terminated string into a path buffer: -1 if it has 1024 bytes or more, else 0.
int ospath_copy(ospath_buf *dst, const char *src);

void ospath_builder_init(ospath_builder *builderp);
int ospath_builder_ok(const ospath_builder *builderp);
// Each append returns the new space_left.
size_t ospath_builder_appendn(ospath_builder *builderp, const char *data, size_t len);
size_t ospath_builder_append(ospath_builder *builderp, const char *cstr);
size_t ospath_builder_appendc(ospath_builder *builderp, char ch);
size_t ospath_builder_append_number(ospath_builder *builderp, long long value);
size_t ospath_builder_append_slash(ospath_builder *builderp);
// Terminates the text: 0, or -1 when anything overflowed (including the NUL itself).
int ospath_builder_finish(ospath_builder *builderp);

// Init, append a and c, finish: 0 or -1.
int ospath_build2(ospath_builder *builderp, const char *a, const char *c);
// Init, a, "/", c, finish: 0 or -1. A trailing slash of a is kept as it is.
int ospath_join(ospath_builder *builderp, const char *a, const char *c);

#ifdef __cplusplus
}
#endif
