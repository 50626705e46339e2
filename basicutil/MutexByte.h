// MutexByte: a lock whose whole state is one byte, so that small objects can embed one each.
// Contended bytes share a Chain: one pthread mutex and a FIFO list of sleeping threads, each on
// the condition in its own per_thread_state. An unlock that finds sleepers hands the lock straight
// to the longest sleeper; the byte never passes through "unlocked" on the way.
#pragma once

#include <atomic>
#include <cstdint>

#include "basicutil/CrashLog.h"
#include "basicutil/Thread.h"

namespace morvek {

class MutexByte {
 public:
  static constexpr uint8_t STATE_LOCKED = 1;
  static constexpr uint8_t STATE_HAS_SLEEPERS = 2;
  // Observations of a plain held byte before the locker goes to sleep.
  static constexpr unsigned SPIN_OBSERVATIONS = 40;

  class AtomicByte {
   public:
    uint8_t get(std::memory_order order) const { return _v.load(order); }
    void set(uint8_t v, std::memory_order order) { _v.store(v, order); }
    bool compareAndSwap(uint8_t &expected, uint8_t desired, std::memory_order order) {
      return _v.compare_exchange_strong(expected, desired, order, std::memory_order_relaxed);
    }

   private:
    std::atomic<uint8_t> _v{0};
  };

  // The sleepers of any number of bytes; every walk selects entries by their byte.
  struct Chain {
    Chain();
    ~Chain();
    Chain(const Chain &) = delete;
    Chain &operator=(const Chain &) = delete;

    // "MutexByte-chain={empty}", or the two pointers, flagged CORRUPT when they disagree.
    void writeDebug(CrashLogWriter &w) const;

    per_thread_state *head;
    per_thread_state **tailp;  // &head when empty
    PthreadMutex mutex;        // guards the list, the sleepers' fields and every hand-off
  };

  MutexByte() = default;
  MutexByte(const MutexByte &) = delete;
  MutexByte &operator=(const MutexByte &) = delete;

  void lock(Chain *chain) {
    uint8_t expected = 0;
    if (!_byte.compareAndSwap(expected, STATE_LOCKED, std::memory_order_acquire)) {
      _lock_slowpath(chain);
    }
  }
  bool tryLock() {
    uint8_t expected = 0;
    return _byte.compareAndSwap(expected, STATE_LOCKED, std::memory_order_acquire);
  }
  void unlock(Chain *chain) {
    uint8_t expected = STATE_LOCKED;
    if (!_byte.compareAndSwap(expected, 0, std::memory_order_release)) unlockWithSleepers(chain);
  }
  uint8_t state() const { return _byte.get(std::memory_order_relaxed); }

  // Returns with the byte locked.
  void _lock_slowpath(Chain *chain);
  // 0 when it took the lock; else the state last seen: STATE_LOCKED once the spin budget is
  // spent, or STATE_LOCKED | STATE_HAS_SLEEPERS at once.
  uint8_t shortSpin();
  // True when the caller slept and now owns the lock; false when the byte left cur_state first.
  bool attemptSleep(Chain *chain, uint8_t cur_state);
  // The unlock of a byte with sleepers: ownership passes to the first sleeper on this byte.
  void unlockWithSleepers(Chain *chain);
  // The holder gives the lock to the longest sleeper and queues up behind the others.
  void bounceContended(Chain *chain);

  // "unlocked", "LOCKED", "LOCKED+CONTENDED" or "BAD(0xNN)!".
  static void writeState(CrashLogWriter &w, uint8_t state);
  void writeDebug(CrashLogWriter &w) const { writeState(w, state()); }
  // What a thread's scratch says it sleeps on: "MutexByte-waiting={none}" or the byte, its
  // follower on the chain and the byte's state.
  static void writeWaiting(CrashLogWriter &w, const per_thread_state &pts);

  AtomicByte _byte;
};

// One chain serving one byte.
class qmutex : public MutexByte::Chain {
 public:
  qmutex() = default;
  void lock() { _byte.lock(this); }
  bool tryLock() { return _byte.tryLock(); }
  void unlock() { _byte.unlock(this); }
  void bounceContended() { _byte.bounceContended(this); }
  // "qmutex{", the state, ", ", the chain, "}".
  void writeDebug(CrashLogWriter &w) const;

  MutexByte _byte;
};

}  // namespace morvek
