// Takes the run lock of the prefix in $WINEPREFIX the way a run does, says
// "held" on standard output, and keeps it for the given milliseconds (or
// until it is killed).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "driver/run_lock.h"

int main(int argc, char** argv) {
  const long holdMs = argc > 1 ? std::atol(argv[1]) : 1000;
  qv::RunLock lock = qv::AcquireRunLock();
  if (!lock.held) {
    std::puts("not held");
    return 1;
  }
  std::puts("held");
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
  qv::ReleaseRunLock(lock);
  return 0;
}
