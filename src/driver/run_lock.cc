#include "driver/run_lock.h"

namespace qv {

RunLock AcquireRunLock() {
  RunLock lock;
  lock.handle = platform::CreateMutexW(kRunLockName);
  if (lock.handle == platform::kNullHandle) return lock;
  lock.held = platform::WaitForSingleObject(lock.handle, kRunLockWaitMilliseconds) == platform::kWaitObject0;
  return lock;
}

void ReleaseRunLock(RunLock& lock) {
  if (lock.handle == platform::kNullHandle) return;
  if (lock.held) platform::ReleaseMutex(lock.handle);
  platform::CloseHandle(lock.handle);
  lock.handle = platform::kNullHandle;
  lock.held = false;
}

}  // namespace qv
