#include "basicutil/DutyCycle.h"

#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

std::atomic<DutyCycleEstimate::Clock> duty_cycle_clock{nullptr};

// Nanoseconds from b to a; a clock that went back counts as no time.
uint64_t nanosecondsSince(const MonotonicTime &a, const MonotonicTime &b) {
  int64_t ns =
      (static_cast<int64_t>(a.seconds()) - static_cast<int64_t>(b.seconds())) * 1000000000 +
      (a.nanoseconds() - b.nanoseconds());
  return ns > 0 ? static_cast<uint64_t>(ns) : 0;
}

}  // namespace

// Idle for at least a whole window: with nothing busy yet, every start that far back gives the
// same value, so the clock isn't read. Every thread's scratch makes one, and the first reading
// of the monotonic clock is what fixes which clock the process uses.
DutyCycleEstimate::DutyCycleEstimate(uint64_t window_ns)
    : _estimate(0.0),
      _busy(false),
      _claimed(false),
      _window(window_ns),
      _last_update(MonotonicTime::lowest()),
      _inverse_window(1.0 / static_cast<double>(window_ns)) {}

DutyCycleEstimate::~DutyCycleEstimate() { MV_ASSERT(!_claimed); }

void DutyCycleEstimate::setClock(Clock clock) { duty_cycle_clock.store(clock); }

MonotonicTime DutyCycleEstimate::now() {
  Clock clock = duty_cycle_clock.load();
  return clock != nullptr ? clock() : MonotonicTime::now();
}

DutyCycleEstimate &DutyCycleEstimate::perThread() {
  if (Thread *thr = Thread::getCurrent()) {
    per_thread_state *scratch = thr->getScratch();
    MV_ASSERT(scratch != nullptr);
    return scratch->_duty_cycle;
  }
  Thread::assertNotMultithreadedYet();
  static DutyCycleEstimate without_thread;
  return without_thread;
}

void DutyCycleEstimate::resetDutyCycle() {
  ScopedMutexLock lock(_lock);
  _estimate = 0.0;
  _busy = false;
  _claimed = false;
  _last_update = MonotonicTime::lowest();
}

double DutyCycleEstimate::estimateAtLocked(const MonotonicTime &t) const {
  uint64_t e = nanosecondsSince(t, _last_update);
  if (e > _window) return _busy ? 1.0 : 0.0;
  double busy_part = _busy ? static_cast<double>(e) : 0.0;
  return (_estimate * static_cast<double>(_window - e) + busy_part) * _inverse_window;
}

void DutyCycleEstimate::setBusyAtLocked(const MonotonicTime &t, bool busy) {
  _estimate = estimateAtLocked(t);
  _last_update = t;
  _busy = busy;
}

double DutyCycleEstimate::estimateNow() {
  MonotonicTime t = now();
  ScopedMutexLock lock(_lock);
  return estimateAtLocked(t);
}

bool DutyCycleEstimate::isClaimed() {
  ScopedMutexLock lock(_lock);
  return _claimed;
}

ScopedDutyCycleClaimThread::ScopedDutyCycleClaimThread(bool busy)
    : DutyCycleEstimate(), _target(this), _busy_scope(busy) {
  DutyCycleEstimate &thread_estimate = perThread();
  {
    ScopedMutexLock lock(thread_estimate._lock);
    if (!thread_estimate._claimed) {
      thread_estimate._claimed = true;
      _target = &thread_estimate;
    }
  }
  if (busy) {
    MonotonicTime t = now();
    ScopedMutexLock lock(_target->_lock);
    _target->setBusyAtLocked(t, true);
  }
}

ScopedDutyCycleClaimThread::~ScopedDutyCycleClaimThread() {
  if (_target == this) return;
  // The busy stretch ends with the scope: left set, the idle time until the next scope would be
  // counted as busy.
  MonotonicTime t = now();
  ScopedMutexLock lock(_target->_lock);
  if (!_target->_claimed) {
    zero_assert_fail("~ScopedDutyCycleClaimThread", __func__, __FILE__, __LINE__);
  }
  if (_busy_scope) _target->setBusyAtLocked(t, false);
  _target->_claimed = false;
}

bool Thread::getDutyCycle(double &out) const {
  per_thread_state *scratch = getScratch();
  if (scratch == nullptr) return false;
  DutyCycleEstimate &d = scratch->_duty_cycle;
  MonotonicTime t = DutyCycleEstimate::now();
  ScopedMutexLock lock(d._lock);
  if (d._claimed) out = d.estimateAtLocked(t);
  return d._claimed;
}

}  // namespace morvek
