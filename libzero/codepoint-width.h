// Terminal columns taken by a code point, and by UTF-8 text. Constant data only: safe anywhere,
// including signal handlers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// 0 for controls, marks, format characters and values past 0x10FFFF; 2 for East Asian wide and
// fullwidth characters; 1 for everything else, unassigned code points included.
unsigned codepoint_width(uint32_t codepoint);

// The sum of the widths over the text. A character cut off by the end ends the walk; bytes that
// aren't UTF-8 give odd values, usually of width 0.
size_t mem_display_width(const char *data, size_t len);

#ifdef __cplusplus
}
#endif
