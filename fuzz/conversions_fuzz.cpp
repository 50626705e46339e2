// The numeric, byte-size and duration parsers on arbitrary bytes: no reads past the end, and
// every accepted text means what an independent reading of it says.
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <charconv>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "basicutil/BasicConversions.h"
#include "basicutil/Str.h"
#include "basicutil/Timeval.h"

using namespace morvek;

namespace {

void check(bool ok) {
  if (!ok) abort();
}

// The digits between blanks, as the standard library reads them.
bool referenceUnsigned(StrSegment s, uint64_t &out) {
  StrSegment t = s.trimmed(BYTESET_BLANKS);
  if (t.empty() || t.find_first_of(BYTESET_DIGITS, 0, false) != StrSegment::npos) return false;
  auto r = std::from_chars(t._data, t._data + t._len, out);
  return r.ec == std::errc() && r.ptr == t._data + t._len;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Exact-size copy, so that any read past the end is caught.
  std::vector<char> buf(reinterpret_cast<const char *>(data),
                        reinterpret_cast<const char *>(data) + size);
  const char *p = buf.data();
  const StrSegment text(p, size);

  uint64_t u = 0, ref = 0;
  const bool ok = parse_unsigned_val(p, size, u);
  check(ok == referenceUnsigned(text, ref));
  if (ok) check(u == ref);
  uint16_t u16 = 0;
  check(parse_unsigned_val(p, size, u16) == (ok && ref <= UINT16_MAX));

  int64_t s = 0;
  if (do_signed_fetch(p, size, s)) {
    Str back;
    appendNumber(back, s);
    int64_t again = 0;
    check(do_signed_fetch(back.data(), back.size(), again) && again == s);
  }
  int32_t s32 = 0;
  if (do_signed_fetch(p, size, s32)) check(do_signed_fetch(p, size, s) && s == s32);

  // The base family reads through the C library; base 10 must agree with it.
  const int saved = errno;
  int64_t b = 0;
  std::string terminated(p, size);
  char *end = nullptr;
  errno = 0;
  const long long want = strtoll(terminated.c_str(), &end, 10);
  const bool wantOk = end != terminated.c_str() && end == terminated.c_str() + size &&
                      !(errno == ERANGE && (want == LLONG_MAX || want == LLONG_MIN));
  check(fetchInBase(text, b, 10) == wantOk);
  if (wantOk) check(b == want);
  uint64_t ub = 0;
  if (fetchInBase(text, ub, 0)) check(text.trimmed().find('-') != 0);
  errno = saved;

  uint64_t bytes = 0, binary = 0;
  const bool dec = parseByteSize(p, size, bytes);
  check(dec == parseByteSizeBinary(p, size, binary));
  if (dec && referenceUnsigned(text, ref)) check(bytes == ref && binary == ref);

  errno = EDOM;
  uint64_t ms = 0;
  parseDuration(p, size, ms);
  uint64_t secondsMs = 0;
  mem_parse_into(p, size, secondsMs);
  check(errno == EDOM);

  if (size >= sizeof(double)) {
    double d;
    memcpy(&d, p, sizeof d);
    int64_t i = 0;
    if (doubleToInteger(d, i)) check(static_cast<double>(i) == d);
    uint32_t u32 = 0;
    if (doubleToInteger(d, u32)) check(static_cast<double>(u32) == d);
  }
  return 0;
}
