// Takes the run lock the way a run does, says "held" on standard output and
// keeps it while the file named by its argument exists.
#include <chrono>
#include <cstdio>
#include <thread>

#include "driver/run_lock.h"
#include "platform/platform.h"

int main(int, char** argv) {
  qv::RunLock lock = qv::AcquireRunLock();
  if (!lock.held) return 1;
  std::puts("held");
  std::fflush(stdout);
  const qv::WString gate = qv::Utf8ToWide(argv[1]);
  while (qv::platform::GetFileAttributesW(gate) != qv::platform::kInvalidFileAttributes) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  qv::ReleaseRunLock(lock);
  return 0;
}
