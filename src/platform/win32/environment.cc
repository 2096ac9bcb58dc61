// Environment expansion in the Windows build.
#include <windows.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

std::uint32_t ExpandEnvironmentStringsW(const WString& source, WString& destination, std::uint32_t capacity) {
  QV_FAULT_POINT("ExpandEnvironmentStringsW", return 0, source);
  std::vector<wchar_t> buffer(capacity, L'\0');
  DWORD n = ::ExpandEnvironmentStringsW(win32::W(source), buffer.data(), capacity);
  if (n != 0 && n <= capacity) destination = win32::FromW(buffer.data());
  return n;
}

}  // namespace qv::platform
