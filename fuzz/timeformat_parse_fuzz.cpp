// Random format text compiled for parsing and run against random input: no crash, no read
// outside the input, and a success consumes a prefix of it with every stored zone name inside
// what was read; the result is then resolved into a time, which must be well formed.
//
// Input: one byte n, then n bytes of format, then the text to parse.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "basicutil/DateTime.h"
#include "basicutil/TimeFormatParse.h"
#include "basicutil/TimeResolve.h"
#include "basicutil/Timezone.h"

namespace {

// A fixed present, so that a crash reproduces; half the inputs read it as lying in the past.
struct FixedGuesser : morvek::TimeGuesser {
  bool future = false;
  int64_t anchorTime() override { return 1741564800; }
  bool anchorIsFuture() override { return future; }
  const morvek::TimezoneData *defaultZone() override { return morvek::gmtTimezone(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  size_t n = data[0];
  if (n > size - 1) n = size - 1;
  morvek::TimeFormat f;
  if (!f.setForParse(reinterpret_cast<const char *>(data + 1), n)) return 0;
  // A copy of exactly the input's bytes, so that ASan sees any read past its end.
  const size_t len = size - 1 - n;
  std::unique_ptr<char[]> text(new char[len ? len : 1]);
  memcpy(text.get(), data + 1 + n, len);
  morvek::TimeFormatRawParseResult r;
  memset(&r, 0, sizeof r);
  r.finest = f.finest();
  r.coarsest = f.coarsest();
  const char *stop = morvek::rawParse(f, r, text.get(), text.get() + len);
  if (stop == nullptr) return 0;
  if (stop < text.get() || stop > text.get() + len) abort();
  if (r.have & morvek::TimeFormatRawParseResult::HAVE_TZNAM) {
    if (r.tzname < text.get() || r.tzname + r.tzname_len > stop || r.tzname_len == 0) abort();
  }
  if (r.subsec > 999999 || r.subsec_digits > 6 || r.conflicts < 0) abort();
  FixedGuesser guesser;
  guesser.future = (n & 1) != 0;
  morvek::Timeval t;
  morvek::ParseDetails details;
  const int32_t conflicts = r.conflicts;
  if (!t.set(r, &guesser, &details)) return 0;
  if (t.microseconds() < 0 || t.microseconds() > 999999 || r.conflicts < conflicts) abort();
  if ((r.have & morvek::TimeFormatRawParseResult::HAVE_EPOCH) == 0 &&
      (details.month < 0 || details.month > 11 || details.monthday < 1 || details.monthday > 31))
    abort();
  return 0;
}
