#include "basicutil/MutexByte.h"

#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

// A failed invariant on a chain lets the chain's mutex go first, so that whatever reports the
// failure can still look at the chain.
#define MB_CHAIN_ASSERT(chain, e) \
  (__builtin_expect(!!(e), 1)     \
       ? (void)0                  \
       : ((chain)->mutex.unlock(), zero_assert_fail(#e, __func__, __FILE__, __LINE__)))

inline void spinWaitHint() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

constexpr uint8_t STATE_CONTENDED = MutexByte::STATE_LOCKED | MutexByte::STATE_HAS_SLEEPERS;

void writePointer(CrashLogWriter &w, const void *p) {
  w.write("0x");
  w.writeHex(reinterpret_cast<uintptr_t>(p));
}

// The calling thread's scratch, for a thread that is about to sleep.
per_thread_state &sleeperScratch() {
  const bool main_thread_created = Thread::main_thread_created;
  MV_ASSERT(main_thread_created);
  Thread *thr = Thread::getCurrent();
  MV_ASSERT(thr != nullptr);
  per_thread_state &pts = *thr->getScratch();
  MV_ASSERT(pts._u.s.waitingOn == nullptr);
  return pts;
}

}  // namespace

MutexByte::Chain::Chain() : head(nullptr), tailp(&head) {}

MutexByte::Chain::~Chain() {
  MV_ASSERT(head == nullptr);
  MV_ASSERT(tailp == &head);
}

uint8_t MutexByte::shortSpin() {
  unsigned spins = 0;
  for (;;) {
    uint8_t cur_state = _byte.get(std::memory_order_relaxed);
    if (cur_state == 0) {
      if (_byte.compareAndSwap(cur_state, STATE_LOCKED, std::memory_order_acquire)) return 0;
      continue;
    }
    if (cur_state == STATE_LOCKED) {
      if (++spins < SPIN_OBSERVATIONS) {
        spinWaitHint();
        continue;
      }
      return STATE_LOCKED;
    }
    // A lock with sleepers is not spun on.
    MV_ASSERT(cur_state == (STATE_LOCKED | STATE_HAS_SLEEPERS));
    return cur_state;
  }
}

void MutexByte::_lock_slowpath(Chain *chain) {
  // Before the first thread, contention means the only thread already holds the lock.
  const bool have_already_started_threads = Thread::have_already_started_threads;
  MV_ASSERT(have_already_started_threads);
  for (;;) {
    uint8_t cur_state = shortSpin();
    if (cur_state == 0) break;
    if (attemptSleep(chain, cur_state)) break;
    // The byte moved on before we could sleep: a fresh spin budget.
  }
  MV_ASSERT((_byte.get(std::memory_order_relaxed) & ~MutexByte::STATE_HAS_SLEEPERS) ==
            MutexByte::STATE_LOCKED);
}

bool MutexByte::attemptSleep(Chain *chain, uint8_t cur_state) {
  per_thread_state &pts = sleeperScratch();
  // Nobody looks at these until the entry is linked.
  pts._u.s.waitingOn = this;
  pts._u.s.nextOnChain = nullptr;
  chain->mutex.lock();
  per_thread_state **old_tail = chain->tailp;
  MB_CHAIN_ASSERT(chain, *old_tail == nullptr);
  *old_tail = &pts;
  chain->tailp = &pts._u.s.nextOnChain;
  // Under the chain mutex with the entry already linked: an unlocker that sees the byte at 3
  // will find us.
  uint8_t expected = cur_state;
  if (_byte.compareAndSwap(expected, STATE_CONTENDED, std::memory_order_acquire)) {
    while (pts._u.s.waitingOn != nullptr) pts._cond.wait(chain->mutex);
    chain->mutex.unlock();
    return true;
  }
  *old_tail = nullptr;
  chain->tailp = old_tail;
  chain->mutex.unlock();
  pts._u.s.waitingOn = nullptr;
  return false;
}

void MutexByte::unlockWithSleepers(Chain *chain) {
  if (_byte.get(std::memory_order_relaxed) != STATE_CONTENDED) {
    threadFatalError("MutexByte::assertIsLockedAndHasSleepersFailed()", 0);
  }
  chain->mutex.lock();
  per_thread_state **link = &chain->head;
  per_thread_state *e = *link;
  while (e != nullptr && e->_u.s.waitingOn != this) {
    link = &e->_u.s.nextOnChain;
    e = *link;
  }
  MB_CHAIN_ASSERT(chain, e != nullptr);
  per_thread_state *follower = e->_u.s.nextOnChain;
  *link = follower;
  if (follower == nullptr) {
    MB_CHAIN_ASSERT(chain, chain->tailp == &e->_u.s.nextOnChain);
    chain->tailp = link;
  } else {
    MB_CHAIN_ASSERT(chain, chain->tailp != &e->_u.s.nextOnChain);
  }
  bool more = false;
  for (per_thread_state *f = follower; f != nullptr; f = f->_u.s.nextOnChain) {
    if (f->_u.s.waitingOn == this) {
      more = true;
      break;
    }
  }
  // The lock stays held throughout: no third thread can slip in before the sleeper wakes.
  if (!more) _byte.set(STATE_LOCKED, std::memory_order_relaxed);
  e->_u.s.nextOnChain = nullptr;
  e->_u.s.waitingOn = nullptr;
  e->_cond.signal();
  chain->mutex.unlock();
}

void MutexByte::bounceContended(Chain *chain) {
  if (_byte.get(std::memory_order_relaxed) != STATE_CONTENDED) {
    threadFatalError("MutexByte::assertIsLockedAndHasSleepersFailed()", 0);
  }
  per_thread_state &pts = sleeperScratch();
  pts._u.s.waitingOn = this;
  pts._u.s.nextOnChain = nullptr;
  chain->mutex.lock();
  per_thread_state **link = &chain->head;
  per_thread_state *e = *link;
  while (e != nullptr && e->_u.s.waitingOn != this) {
    link = &e->_u.s.nextOnChain;
    e = *link;
  }
  MB_CHAIN_ASSERT(chain, e != nullptr);
  if (e->_u.s.nextOnChain != nullptr) {
    *link = e->_u.s.nextOnChain;
    MB_CHAIN_ASSERT(chain, chain->tailp != &e->_u.s.nextOnChain);
    *chain->tailp = &pts;
  } else {
    *link = &pts;
    MB_CHAIN_ASSERT(chain, chain->tailp == &e->_u.s.nextOnChain);
  }
  chain->tailp = &pts._u.s.nextOnChain;
  e->_u.s.nextOnChain = nullptr;
  e->_u.s.waitingOn = nullptr;
  e->_cond.signal();
  while (pts._u.s.waitingOn != nullptr) pts._cond.wait(chain->mutex);
  chain->mutex.unlock();
}

void MutexByte::writeState(CrashLogWriter &w, uint8_t state) {
  switch (state) {
    case 0:
      w.write("unlocked");
      return;
    case STATE_LOCKED:
      w.write("LOCKED");
      return;
    case STATE_CONTENDED:
      w.write("LOCKED+CONTENDED");
      return;
    default: {
      static const char hex[] = "0123456789ABCDEF";
      char text[] = {'B', 'A', 'D', '(', '0', 'x', hex[state >> 4], hex[state & 15], ')', '!'};
      w.write(text, sizeof text);
    }
  }
}

void MutexByte::Chain::writeDebug(CrashLogWriter &w) const {
  w.write("MutexByte-chain={");
  bool head_empty = head == nullptr;
  bool tail_empty = tailp == &head;
  if (head_empty && tail_empty) {
    w.write("empty");
  } else {
    w.write("head=");
    writePointer(w, head);
    w.write(", tailp=");
    writePointer(w, tailp);
    if (head_empty != tail_empty) w.write(", CORRUPT");
  }
  w.writeChar('}');
}

void MutexByte::writeWaiting(CrashLogWriter &w, const per_thread_state &pts) {
  w.write("MutexByte-waiting={");
  const MutexByte *on = pts._u.s.waitingOn;
  if (on == nullptr) {
    w.write("none");
  } else {
    writePointer(w, on);
    if (pts._u.s.nextOnChain != nullptr) {
      w.write(", next=");
      writePointer(w, pts._u.s.nextOnChain);
    }
    w.write(", ");
    on->writeDebug(w);
  }
  w.writeChar('}');
}

void qmutex::writeDebug(CrashLogWriter &w) const {
  w.write("qmutex{");
  _byte.writeDebug(w);
  w.write(", ");
  Chain::writeDebug(w);
  w.writeChar('}');
}

}  // namespace morvek
