// Time since boot in the Windows build.
#include <windows.h>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

std::uint64_t GetTickCount64() {
  QV_FAULT_POINT("GetTickCount64", return 0);
  return ::GetTickCount64();
}

}  // namespace qv::platform
