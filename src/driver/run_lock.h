// The run lock: a named mutex of the login session, held for a whole run.
#pragma once

#include "platform/platform.h"

namespace qv {

struct RunLock {
  platform::Handle handle = platform::kNullHandle;
  bool held = false;
};

inline constexpr char16_t kRunLockName[] = u"Local\\KELDARO_Quorvane_Setup_Profiles";
inline constexpr std::uint32_t kRunLockWaitMilliseconds = 30000;

// Opens the mutex and waits for it. The lock is held only on WAIT_OBJECT_0:
// an abandoned mutex means a run died while it held it, and counts as not
// obtained.
RunLock AcquireRunLock();
void ReleaseRunLock(RunLock& lock);

}  // namespace qv
