// Named mutexes in the Windows build.
#include <windows.h>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FromH;
using win32::H;

Handle CreateMutexW(const WString& name) {
  QV_FAULT_POINT("CreateMutexW", return kNullHandle, name);
  return FromH(::CreateMutexW(nullptr, FALSE, win32::W(name)));
}

std::uint32_t WaitForSingleObject(Handle handle, std::uint32_t milliseconds) {
  QV_FAULT_POINT("WaitForSingleObject", return kWaitFailed);
  return ::WaitForSingleObject(H(handle), milliseconds);
}

bool ReleaseMutex(Handle mutex) {
  QV_FAULT_POINT("ReleaseMutex", return false);
  return ::ReleaseMutex(H(mutex)) != 0;
}

}  // namespace qv::platform
