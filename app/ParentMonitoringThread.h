// The worker of the program's --run mode: writes numbered lines to both standard streams at a
// fixed rhythm until its time limit passes.
#pragma once

#include <atomic>
#include <cstdint>

#include "basicutil/Thread.h"

namespace morvek {

class ParentMonitoringThread : public Thread {
 public:
  // 365 days, in milliseconds.
  static constexpr uint64_t DEFAULT_LIMIT_MS = 31536000000ull;

  explicit ParentMonitoringThread(uint64_t limit_ms = DEFAULT_LIMIT_MS);
  ~ParentMonitoringThread() override;

  void main() override;

  // Set by main before go(); cleared by the body as its very last action.
  std::atomic<bool> _running{false};

 private:
  uint64_t _limit_ms;
};

}  // namespace morvek
