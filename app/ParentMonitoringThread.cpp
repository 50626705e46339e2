#include "app/ParentMonitoringThread.h"

#include <cstdio>

#include "basicutil/Timeval.h"

namespace morvek {

ParentMonitoringThread::ParentMonitoringThread(uint64_t limit_ms)
    : Thread("ParentMonitoringThread"), _limit_ms(limit_ms) {}

ParentMonitoringThread::~ParentMonitoringThread() { joinEvenIfUnstarted(); }

void ParentMonitoringThread::main() {
  Timeval limit = Timeval::now();
  limit._add(_limit_ms);
  if (Timeval::now() < limit) {
    int32_t idx = 0;
    do {
      // The first half stays in stdout's buffer, so a reader of the pipe sees whole lines.
      fwrite("Message from stdout,idx=", 1, 24, stdout);
      sleepMilliseconds(100);
      fprintf(stdout, "%d\n", idx);
      fflush(stdout);
      fprintf(stderr, "Message from stderr,idx=%d\n", idx);
      fflush(stderr);
      sleepMilliseconds(400);
      ++idx;
    } while (Timeval::now() < limit);
  }
  _running.exchange(false, std::memory_order_seq_cst);
}

}  // namespace morvek
