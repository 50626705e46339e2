// Bytes as plain hexadecimal text, high nibble first, nothing between the bytes; and back.
#pragma once

#include <cstddef>

#include "basicutil/Str.h"
#include "libzero/create-crash-dump.h"

namespace morvek {

void appendHexBytes(Str &out, const void *data, size_t size);
void appendHexBytesUpper(Str &out, const void *data, size_t size);
// Lower case, from a signal handler.
void crashlogWriteHexBytes(crash_log_writer *w, const void *data, size_t size) noexcept;

// Exactly 2 * dest_size hexadecimal digits of either case into dest_size bytes (which must be
// at least one). False, with dest partly written, for any other text.
bool parse_from_hex(const char *text, size_t text_size, void *dest, size_t dest_size);

}  // namespace morvek
