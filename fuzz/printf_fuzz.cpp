// Random formats with random arguments into the three sinks. The Str and crash sinks must agree
// byte for byte, the vector sink must hold one element per conversion, and a compiled format
// must render like the one-pass driver.
//
// Input: one byte n, then n bytes of format, then the bytes the argument values are drawn from.
// The format is parsed first, so that each argument slot can be given a value of a safe kind:
// a %s slot always points at a real string, and "*" slots are kept small.
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "basicutil/PrintfFormat.h"

using morvek::PrintfFormatAtom;
using morvek::Str;
using morvek::StrSegment;
using morvek::StrVector;

namespace {

constexpr int GP_SLOTS = 40;
constexpr int FP_SLOTS = 8;  // all in registers, so reading them never disturbs the others

struct Args {
  uint64_t gp[GP_SLOTS];
  double fp[FP_SLOTS];
};

#define MV_GP(i) a.gp[i]
#define MV_GP8(i)                                                                               \
  MV_GP(i), MV_GP(i + 1), MV_GP(i + 2), MV_GP(i + 3), MV_GP(i + 4), MV_GP(i + 5), MV_GP(i + 6), \
      MV_GP(i + 7)
#define MV_ALL_ARGS                                                                             \
  MV_GP8(0), MV_GP8(8), MV_GP8(16), MV_GP8(24), MV_GP8(32), a.fp[0], a.fp[1], a.fp[2], a.fp[3], \
      a.fp[4], a.fp[5], a.fp[6], a.fp[7]

void toStr(const StrSegment *format, Str *out, ...) {
  va_list ap;
  va_start(ap, out);
  morvek::vappendPrintf(*out, *format, ap, 2);
  va_end(ap);
}

void toVector(const StrSegment *format, StrVector *out, ...) {
  va_list ap;
  va_start(ap, out);
  morvek::vappendPrintfToVector(*out, *format, ap, 2);
  va_end(ap);
}

struct Collector {
  crash_log_writer handle{&Collector::write};
  std::string text;
  static void write(crash_log_writer *h, const char *bytes, size_t len) {
    reinterpret_cast<Collector *>(h)->text.append(bytes, len);
  }
};

void toCrash(const StrSegment *format, Collector *out, ...) {
  va_list ap;
  va_start(ap, out);
  morvek::vprintfToCrashLog(&out->handle, *format, ap, 2);
  va_end(ap);
}

void compiled(const morvek::PrintfFormat *f, Str *out, ...) {
  va_list ap;
  va_start(ap, out);
  f->vrender(*out, ap, 2);
  va_end(ap);
}

struct ByteSource {
  const uint8_t *p, *end;
  uint64_t next() {
    uint64_t v = 0;
    for (int i = 0; i < 8 && p < end; ++i) v = v << 8 | *p++;
    return v;
  }
};

const char STRING_ARG[] = "fuzz string argument";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  size_t n = data[0];
  if (n > size - 1) n = size - 1;
  const char *fmt = reinterpret_cast<const char *>(data + 1);
  // Widths and precisions of thousands of digits only measure the allocator.
  for (size_t i = 0, run = 0; i < n; ++i) {
    run = (fmt[i] >= '0' && fmt[i] <= '9') ? run + 1 : 0;
    if (run > 3) return 0;
  }
  ByteSource src{data + 1 + n, data + size};

  Args a;
  for (uint64_t &g : a.gp) g = reinterpret_cast<uintptr_t>(STRING_ARG);
  for (double &d : a.fp) {
    uint64_t b = src.next();
    memcpy(&d, &b, sizeof d);
  }
  int gp = 0, fp = 0;
  size_t conversions = 0;
  StrSegment view(fmt, n);
  PrintfFormatAtom atom;
  while (atom.getNext(view)) {
    for (uint32_t star : {uint32_t(PrintfFormatAtom::FLAG_VARIABLE_WIDTH),
                          uint32_t(PrintfFormatAtom::FLAG_VARIABLE_PRECISION)}) {
      if (!(atom.flags & star)) continue;
      if (gp == GP_SLOTS) return 0;
      a.gp[gp++] = static_cast<uint64_t>(static_cast<int64_t>(src.next() % 129) - 64);
    }
    switch (atom.conversion) {
      case PrintfFormatAtom::CONV_CONSTANT_STRING:
        continue;
      case PrintfFormatAtom::CONV_ERRNO:
        break;
      case PrintfFormatAtom::CONV_FLOAT_EXPONENT:
      case PrintfFormatAtom::CONV_FLOAT_FIXED:
      case PrintfFormatAtom::CONV_FLOAT_CHOOSE:
      case PrintfFormatAtom::CONV_FLOAT_HEX:
        if (fp++ == FP_SLOTS) return 0;
        break;
      case PrintfFormatAtom::CONV_STRING:
        if (gp == GP_SLOTS) return 0;
        ++gp;  // keeps the string
        break;
      default:
        if (gp == GP_SLOTS) return 0;
        a.gp[gp++] = src.next();
        break;
    }
    ++conversions;
  }

  StrSegment format(fmt, n);
  Str via_str;
  toStr(&format, &via_str, MV_ALL_ARGS);
  Collector via_crash;
  toCrash(&format, &via_crash, MV_ALL_ARGS);
  if (via_crash.text != via_str) abort();

  StrVector via_vector;
  toVector(&format, &via_vector, MV_ALL_ARGS);
  if (via_vector.size() != conversions) abort();
  size_t converted = 0;
  for (const Str &s : via_vector) converted += s.size();
  if (converted > via_str.size()) abort();

  morvek::PrintfFormat pf(format);
  Str via_compiled;
  compiled(&pf, &via_compiled, MV_ALL_ARGS);
  if (via_compiled != via_str) abort();

  // The C-string entry points walk without measuring the format first.
  if (memchr(fmt, '\0', n) == nullptr) {
    Str cstr(format);
    Str via_cstr;
    errno = 2;  // what the other walks were given for %m
    via_cstr.appendf(cstr.c_str(), MV_ALL_ARGS);
    if (via_cstr != via_str) abort();
  }
  return 0;
}
