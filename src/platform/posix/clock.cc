// Time since boot, as GetTickCount64 gives it.
#include <time.h>

#include "platform/fault_injection.h"
#include "platform/platform.h"

namespace qv::platform {

std::uint64_t GetTickCount64() {
  QV_FAULT_POINT("GetTickCount64", return 0);
  // CLOCK_BOOTTIME goes on while the machine sleeps, as the Windows tick
  // count does.
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
}

}  // namespace qv::platform
