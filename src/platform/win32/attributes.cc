// Changing a file's attributes: the Win32 call itself.
#include <windows.h>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

bool SetFileAttributesW(const WString& path, std::uint32_t attributes) {
  QV_FAULT_POINT("SetFileAttributesW", return false, path);
  return ::SetFileAttributesW(win32::FilePath(path), attributes) != 0;
}

}  // namespace qv::platform
