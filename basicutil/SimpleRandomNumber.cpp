#include "basicutil/SimpleRandomNumber.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <type_traits>

#include "basicutil/Thread.h"
#include "libzero/fatal-assert.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace morvek {

// The per-thread generator is the scratch area's two words seen as a generator.
static_assert(std::is_standard_layout_v<SimpleRandomNumber>);
static_assert(sizeof(SimpleRandomNumber) == sizeof(per_thread_state::_random_state));

namespace {

uint64_t timeStampCounter() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
#endif
}

uint64_t errnoAddress() { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&errno)); }

uint64_t processId() { return static_cast<uint64_t>(getpid()); }

// For threads the registry doesn't know. It has no lock: a race costs only quality.
SimpleRandomNumber process_generator;

[[maybe_unused]] const bool process_generator_seeded =
    (process_generator.seedFromEnvironment(), true);

}  // namespace

uint64_t SimpleRandomNumber::mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

uint64_t SimpleRandomNumber::mix2(uint64_t z) {
  z = (z ^ (z >> 31)) * 0x7FB5D329728EA185ull;
  z = (z ^ (z >> 27)) * 0x81DADEF4BC2DD44Dull;
  return z ^ (z >> 33);
}

double SimpleRandomNumber::nextDouble() {
  uint64_t bits = (next() & ((uint64_t(1) << 52) - 1)) | 0x3FF0000000000000ull;
  double d;
  memcpy(&d, &bits, sizeof d);
  return d - 1.0;
}

void SimpleRandomNumber::fill(void *buffer, size_t len) {
  auto *p = static_cast<unsigned char *>(buffer);
  while (len > 0) {
    uint64_t r = next();
    size_t take = len < 8 ? len : 8;
    for (size_t i = 0; i < take; ++i, r >>= 8) p[i] = static_cast<unsigned char>(r);
    p += take;
    len -= take;
  }
}

void SimpleRandomNumber::seed(uint64_t a, uint64_t b) {
  timeval tv;
  gettimeofday(&tv, nullptr);
  uint64_t tsc = timeStampCounter();
  uint64_t seconds = static_cast<uint64_t>(tv.tv_sec);
  uint64_t micros = static_cast<uint64_t>(tv.tv_usec);
  _state[0] = mix(tsc - __builtin_bswap64(seconds)) ^ a;
  _state[1] = mix(micros + __builtin_bswap64(tsc)) ^ b;
}

void SimpleRandomNumber::seedFromEnvironment() {
  uint64_t a = __builtin_bswap64(0xCD37739AC11D399Bull ^ processId()) ^ (errnoAddress() >> 2);
  uint64_t b = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(_state)) ^ 0x273B2DBAF60DF78Bull;
  seed(a, b);
}

void SimpleRandomNumber::reseed() {
  uint64_t a = ((errnoAddress() >> 2) ^ __builtin_bswap64(processId())) + _state[1];
  uint64_t b = _state[0];
  seed(a, b);
}

void SimpleRandomNumber::seedFromValue(uint64_t v) {
  _state[0] = mix(v);
  _state[1] = mix2(v);
}

SimpleRandomNumber &SimpleRandomNumber::perThread() {
  Thread *thr = Thread::getCurrent();
  if (thr == nullptr) {
    if (!process_generator.isSeeded()) {
      process_generator.seed(0x3C46C5A19D794B4Dull ^ processId(), 0xE948F79CCCC409C2ull);
    }
    return process_generator;
  }
  per_thread_state *scratch = thr->getScratch();
  if (scratch == nullptr) {
    zero_assert_fail("thr->_scratchp != nullptr", __func__, __FILE__, __LINE__);
  }
  auto &gen = *reinterpret_cast<SimpleRandomNumber *>(scratch->_random_state);
  if (!gen.isSeeded()) {
    gen.seedFromEnvironment();
    gen._state[0] ^= static_cast<uint64_t>(reinterpret_cast<uintptr_t>(thr));
  }
  return gen;
}

void fillRandomBytes(void *buffer, size_t len) {
  SimpleRandomNumber::perThread().fill(buffer, len);
}

void fillRandomRange(SimpleRandomNumber &generator, unsigned char low, unsigned char high, size_t n,
                     Str &out) {
  out.resize(n);
  generator.fill(out.data(), n);
  const unsigned span = static_cast<unsigned>(high) - static_cast<unsigned>(low) + 1u;
  for (char &c : static_cast<std::string &>(out)) {
    unsigned b = static_cast<unsigned char>(c);
    if (b >= span) b %= span;
    c = static_cast<char>(low + b);
  }
}

void appendRandomHex(Str &out, size_t n) {
  static const char digits[] = "0123456789abcdef";
  SimpleRandomNumber &gen = SimpleRandomNumber::perThread();
  size_t bytes = (n + 1) / 2;
  out.reserve(out.size() + bytes * 2);
  unsigned char chunk[64];
  while (bytes > 0) {
    size_t take = bytes < sizeof chunk ? bytes : sizeof chunk;
    gen.fill(chunk, take);
    for (size_t i = 0; i < take; ++i) {
      out.push_back(digits[chunk[i] >> 4]);
      out.push_back(digits[chunk[i] & 15]);
    }
    bytes -= take;
  }
}

}  // namespace morvek
