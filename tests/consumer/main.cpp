// Uses the installed headers and library as an outside program would.
#include <morvek/basicutil/Thread.h>
#include <morvek/basicutil/Timeval.h>

#include <cstdio>

int main() {
  morvek::EmptyMainThread main_thread;
  int result = 0;
  morvek::ThreadFunction worker([&] { result = 42; }, "consumer worker");
  worker.go();
  worker.join();
  morvek::Timeval t = morvek::MAX_TIME;
  t.addSeconds(1);
  if (result != 42 || !t.isMax() || worker.getName() != "consumerworker") return 1;
  puts("consumer ok");
  return 0;
}
