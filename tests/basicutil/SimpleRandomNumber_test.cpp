// The generator's arithmetic against values computed independently, and its per-thread use.
#include "basicutil/SimpleRandomNumber.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <thread>

#include "basicutil/Thread.h"

using morvek::SimpleRandomNumber;

namespace {

TEST(SimpleRandom, KnownAnswers) {
  SimpleRandomNumber g(1, 2);
  for (uint64_t want : {0x800045ull, 0x2000104ull, 0x4000020010c3ull}) EXPECT_EQ(g.next(), want);

  // SplitMix64's first output for seed 0 is the finalizer of the golden-ratio increment.
  EXPECT_EQ(SimpleRandomNumber::mix(0x9E3779B97F4A7C15ull), 0xE220A8397B1DCDAFull);
  SimpleRandomNumber r;
  r.seedFromValue(42);
  EXPECT_TRUE(r.next() == 0x47340967828e5620u && r.next() == 0x2fae0e4c54046284u);
}

TEST(SimpleRandom, DoublesStayBelowOne) {
  // This state makes the next output all ones, the largest mantissa there is.
  EXPECT_EQ(SimpleRandomNumber(0x7e07ff03fffe000ull, 0).nextDouble(), 1.0 - std::ldexp(1.0, -52));
}

TEST(SimpleRandom, FillTakesOneOutputPerEightBytesLowByteFirst) {
  SimpleRandomNumber a(1, 2), b(1, 2);
  unsigned char buf[11];
  a.fill(buf, sizeof buf);
  uint64_t first = b.next(), second = b.next();
  unsigned char expect[16];
  memcpy(expect, &first, 8);  // little-endian host
  memcpy(expect + 8, &second, 8);
  EXPECT_EQ(memcmp(buf, expect, sizeof buf), 0);
  EXPECT_EQ(a.next(), b.next()) << "11 bytes drew exactly two outputs";
  a.fill(buf, 0);
  EXPECT_EQ(a.next(), b.next()) << "0 bytes draw nothing";
}

TEST(SimpleRandom, PerThreadGenerators) {
  SimpleRandomNumber &mine = SimpleRandomNumber::perThread();
  EXPECT_TRUE(&mine == &SimpleRandomNumber::perThread() && mine.isSeeded());
  EXPECT_EQ(static_cast<void *>(&mine),
            static_cast<void *>(morvek::Thread::perThreadScratch()->_random_state));

  SimpleRandomNumber *worker_gen = nullptr;
  morvek::ThreadFunction worker([&] { worker_gen = &SimpleRandomNumber::perThread(); }, "rng");
  worker.go();
  worker.join();
  EXPECT_NE(worker_gen, &mine);

  // A thread the registry doesn't know shares the process-wide generator.
  SimpleRandomNumber *foreign1 = nullptr, *foreign2 = nullptr;
  std::thread([&] { foreign1 = &SimpleRandomNumber::perThread(); }).join();
  std::thread([&] { foreign2 = &SimpleRandomNumber::perThread(); }).join();
  EXPECT_TRUE(foreign1 == foreign2 && foreign1 != &mine && foreign1->isSeeded());
}

TEST(SimpleRandom, Helpers) {
  for (size_t n : {0u, 7u, 200u}) {
    morvek::Str hex("x");
    morvek::appendRandomHex(hex, n);
    EXPECT_EQ(hex.size(), 1 + n + n % 2) << n;
    EXPECT_EQ(hex.find_first_not_of("0123456789abcdef", 1), morvek::StrSegment::npos);
  }
  SimpleRandomNumber g;
  g.seedFromValue(9);
  struct Range {
    unsigned char low, high;
  } ranges[] = {{0, 255}, {'0', '0'}, {200, 255}};
  for (const Range &r : ranges) {
    morvek::Str out("garbage");
    morvek::fillRandomRange(g, r.low, r.high, 2000, out);
    ASSERT_EQ(out.size(), 2000u);
    std::set<unsigned char> seen(out.begin(), out.end());
    EXPECT_TRUE(*seen.begin() == r.low && *seen.rbegin() == r.high) << int(r.low);
  }
}

}  // namespace
