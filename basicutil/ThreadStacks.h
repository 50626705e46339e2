// Stacks of every running thread, for a process that seems stuck. Each listed thread and the main
// thread record their own call stack inside the SIGUSR1 handler (Thread::runInUnixSignalContext),
// starting at the instruction they were interrupted at; the capturing thread records its own
// directly. A thread is only interrupted, never stopped: one blocked in read(2) goes back to its
// read once its stack is taken.
//
// Text form, one block per thread, the capturing thread marked:
//   Thread "reader" id 48213:
//     #0 0x00007f3a1c2e4992 read + 18 (libc.so.6 + 0xfe992)
//     #1 0x000055d0b1a0c5e1 drainPipe + 33 (logd + 0x1c5e1)
//   Thread "MainThread" id 48200 (capturing):
//     ...
//   Thread "flusher" id 48215: no stack (the thread ended first)
#pragma once

#include <cstdint>
#include <vector>

#include "basicutil/CrashLog.h"
#include "basicutil/Str.h"

namespace morvek {

class ThreadStacks {
 public:
  static constexpr int MAX_FRAMES = 64;

  struct Stack {
    Str name;
    uint64_t thread_id = 0;
    bool captured = false;   // false when the thread ended before it could answer
    bool capturing = false;  // the thread that took the snapshot
    int frame_count = 0;
    void *frames[MAX_FRAMES];  // innermost first
  };

  // Replaces the snapshot with the stacks of the running listed threads, the main thread and
  // the caller. Holds the global thread lock meanwhile, so that no listed thread can be joined
  // under it; each thread answers within a few microseconds unless it blocks SIGUSR1. Not for
  // signal handlers. Returns the number of stacks captured.
  size_t capture();

  const std::vector<Stack> &stacks() const { return _stacks; }
  // The first stack of that thread name, or null.
  const Stack *find(StrSegment name) const;

  // The text form above. writeTo allocates nothing, so a snapshot taken earlier can go into a
  // crash report.
  void appendTo(Str &out) const;
  void writeTo(CrashLogWriter &w) const;

 private:
  std::vector<Stack> _stacks;
};

}  // namespace morvek
