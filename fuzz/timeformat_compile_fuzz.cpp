// Random format text compiled both ways. A compiled format must hold only final atom kinds, its
// text atoms must point at readable bytes, its widths must add up to max_width as counted, and
// its resolutions must lie on the library's scale. A copy must describe the same atoms.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "basicutil/TimeFormat.h"

using morvek::Str;
using morvek::TimeFormat;
using morvek::TimeFormatAtom;

namespace {

void check(const TimeFormat &f, size_t text_len) {
  if (!f.compiled()) {
    if (!f.empty() || f.max_width() != 0) abort();
    return;
  }
  // Each byte of text yields at most one atom but for the composites, which yield at most 15 for
  // their two bytes.
  if (f.size() > 8 * text_len + 1) abort();
  // Every atom counts its width, or up to 10 for the names and numbers of varying length.
  uint64_t least = 0, most = 0;
  for (const TimeFormatAtom &a : f) {
    if (a.what == TimeFormat::PUNCT || a.what >= TimeFormat::HOUR12_OR_MILLI) abort();
    if (a.what == TimeFormat::LITERAL || a.what == TimeFormat::WHITESPACE) {
      if (a.width == 0) abort();
      volatile char sink = 0;
      for (char c : a.literal()) sink = sink ^ c;  // ASan checks the bytes are alive
      least += a.width;
      most += a.width;
      continue;
    }
    if (a.x.conv.padding > TimeFormat::PAD_NONE || a.x.conv.case_mod > TimeFormat::CASE_SWAP) {
      abort();
    }
    if (a.width > TimeFormat::MAX_FIELD_WIDTH) abort();
    least += a.width != 0 ? a.width : 1;
    most += a.width > 10 ? a.width : 10;
  }
  if (f.max_width() < least || f.max_width() > most) abort();
  if (f.finest() < TimeFormat::RES_NONE || f.coarsest() > 1) abort();
  if (f.coarsest() > f.finest() && !(f.finest() == TimeFormat::RES_NONE && f.coarsest() == 1)) {
    abort();
  }
  Str java;
  if (!f.toJavaPattern(java) && !java.empty()) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *text = reinterpret_cast<const char *>(data);
  TimeFormat f;
  bool ok = f.set(morvek::StrSegment(text, size));
  if (ok != f.compiled()) abort();
  check(f, size);

  TimeFormat p;
  bool parse_ok = p.setForParse(text, size);
  if (parse_ok != ok) abort();  // reading only changes which year atom %x makes
  check(p, size);
  if (ok && p.size() != f.size()) abort();

  TimeFormat copy(f);
  TimeFormat moved(std::move(copy));
  check(moved, size);
  if (moved.size() != f.size() || moved.max_width() != f.max_width()) abort();
  for (size_t i = 0; i < f.size(); ++i) {
    const TimeFormatAtom &a = f.begin()[i], &b = moved.begin()[i];
    if (a.what != b.what || a.width != b.width) abort();
    if (a.what == TimeFormat::LITERAL && a.literal().view() != b.literal().view()) abort();
  }
  return 0;
}
