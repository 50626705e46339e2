// morvek-child: a child-process workload. With "--run" a worker thread writes numbered lines to
// standard output and standard error every 500 ms for up to a year; anything else prints usage.
#include <cstdio>
#include <cstring>

#include "app/ParentMonitoringThread.h"
#include "basicutil/Thread.h"
#include "basicutil/Timeval.h"

#ifndef MORVEK_CHILD_LIMIT_MS
#define MORVEK_CHILD_LIMIT_MS 31536000000ull
#endif

int main(int argc, char **argv) {
  using namespace morvek;
  if (argc != 2 || strcmp(argv[1], "--run") != 0) {
    puts("No arguments were provided, expected '--run'");
    return 0;
  }
  EmptyMainThread main_thread;
  {
    ParentMonitoringThread worker(MORVEK_CHILD_LIMIT_MS);
    worker._running = true;
    worker.go();
    // A plain load before each sleep; the call keeps it from being hoisted.
    while (worker._running.load(std::memory_order_relaxed)) sleepMilliseconds(1000);
  }
  return 0;
}
