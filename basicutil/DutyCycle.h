// Duty cycle: the fraction of the recent past that a thread spent busy, as a number from 0 to 1,
// over a moving window of 15 seconds. The thread's own DutyCycleEstimate (in its scratch, see
// Thread.h) is driven by ScopedDutyCycleClaimThread and read from anywhere through
// Thread::getDutyCycle.
//
// The estimate treats the past window as evenly filled with its last value and shifts that by
// the time since, adding the busy part of it:
//   value(t) = (estimate * (window - e) + (busy ? e : 0)) / window, e = t - last update,
//   and simply 1 or 0 once e exceeds the window.
// Worked examples, window 15 s, starting idle:
//   busy scope entered at 100 s, read at 107.5 s:            0.5
//   still busy, read at 115 s or later:                      1.0
//   that scope left at 107.5 s (0.5), next read at 115 s:     0.25 (7.5 s of idle shift it)
//   an idle scope held from 100 s, read at 115 s:             0.0
#pragma once

#include "basicutil/Thread.h"

namespace morvek {

// Claims the calling thread's estimate for its lifetime; only the outermost scope on a thread
// counts, nested ones drive a private estimate of their own and change nothing. A busy scope
// marks the thread busy from its start to its end; an idle one leaves the state as it is.
// Thread::getDutyCycle answers only while some scope holds the estimate.
class ScopedDutyCycleClaimThread : public DutyCycleEstimate {
 public:
  explicit ScopedDutyCycleClaimThread(bool busy);
  ~ScopedDutyCycleClaimThread();

 private:
  DutyCycleEstimate *_target;
  bool _busy_scope;
};

}  // namespace morvek
