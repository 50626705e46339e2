// Base64 decoding and URL encoding on arbitrary bytes: bounded reads, and the round trips that
// the formats promise.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "basicutil/BasicConversions.h"
#include "basicutil/Str.h"
#include "basicutil/UnicodeCodepoint.h"

using namespace morvek;

namespace {

void check(bool ok) {
  if (!ok) abort();
}

Str encodeBase64(StrSegment in) {
  static const char *A = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  Str out;
  for (size_t i = 0; i < in._len; i += 3) {
    uint32_t v = uint32_t(uint8_t(in[i])) << 16;
    if (i + 1 < in._len) v |= uint32_t(uint8_t(in[i + 1])) << 8;
    if (i + 2 < in._len) v |= uint8_t(in[i + 2]);
    out.push_back(A[v >> 18]);
    out.push_back(A[(v >> 12) & 63]);
    out.push_back(i + 1 < in._len ? A[(v >> 6) & 63] : '=');
    out.push_back(i + 2 < in._len ? A[v & 63] : '=');
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<char> buf(reinterpret_cast<const char *>(data),
                        reinterpret_cast<const char *>(data) + size);
  const StrSegment text(buf.data(), size);

  Str decoded;
  base64Decode(decoded, text._data, text._len);
  check(decoded.size() <= size * 3 / 4 + 1);
  Str again;
  const Str canonical = encodeBase64(decoded);
  check(base64Decode(again, canonical.data(), canonical.size()) && again == decoded);

  const Str encoded = urlEncoded(text);
  for (size_t i = 0; i < encoded.size(); ++i) {
    const char c = encoded[i];
    check(c != '+' && static_cast<unsigned char>(c) > 0x20 && static_cast<unsigned char>(c) < 0x7F);
  }
  Str roundTrip = encoded;
  const bool valid = isValidUtf8(text);
  check(urlDecodeInPlace(roundTrip) == valid);
  check(roundTrip == (valid ? Str(text) : encoded));

  Str inPlace(text);
  urlEncodeInPlace(inPlace);
  check(inPlace == encoded);

  Str raw(text);
  if (urlDecodeInPlace(raw)) {
    check(isValidUtf8(raw));
  } else {
    check(raw == Str(text));
  }

  Str printable(text);
  makePrintableInPlace(printable);
  for (char c : printable) check(c >= 0x20 && c <= 0x7E);
  return 0;
}
