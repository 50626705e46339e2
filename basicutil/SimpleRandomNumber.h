// SimpleRandomNumber: a small xorshift128+ generator, one per thread, for temporary names and
// shuffling. Not for anything that must be unpredictable to an adversary.
#pragma once

#include <cstddef>
#include <cstdint>

#include "basicutil/Str.h"

namespace morvek {

class SimpleRandomNumber {
 public:
  // All zero means unseeded.
  SimpleRandomNumber() : _state{0, 0} {}
  SimpleRandomNumber(uint64_t s0, uint64_t s1) : _state{s0, s1} {}

  // The calling thread's generator, seeded on first use; threads with no Thread object share
  // one process-wide generator.
  static SimpleRandomNumber &perThread();

  uint64_t next() {
    uint64_t x = _state[0];
    const uint64_t y = _state[1];
    _state[0] = y;
    x ^= x << 23;
    _state[1] = x ^ y ^ (x >> 17) ^ (y >> 26);
    return _state[1] + y;
  }
  // In [0, 1): 52 random mantissa bits under the exponent of 1.0, less 1.0.
  double nextDouble();
  // One output per 8 bytes, lowest byte first; the last output fills what is left.
  void fill(void *buffer, size_t len);

  // Seeds from the clock and the time stamp counter, mixed with a and b.
  void seed(uint64_t a, uint64_t b);
  void seedFromEnvironment();
  void reseed();
  void seedFromValue(uint64_t v);

  bool isSeeded() const { return (_state[0] | _state[1]) != 0; }
  uint64_t state0() const { return _state[0]; }
  uint64_t state1() const { return _state[1]; }

  // The SplitMix64 finalizer, and the second finalizer of seedFromValue.
  static uint64_t mix(uint64_t z);
  static uint64_t mix2(uint64_t z);

  uint64_t _state[2];
};

// Through the calling thread's generator.
void fillRandomBytes(void *buffer, size_t len);
// out becomes n bytes, each in [low, high]. A span of 256 leaves the bytes as drawn.
void fillRandomRange(SimpleRandomNumber &generator, unsigned char low, unsigned char high, size_t n,
                     Str &out);
// Appends n lower-case hexadecimal digits, n + 1 when n is odd.
void appendRandomHex(Str &out, size_t n);

}  // namespace morvek
