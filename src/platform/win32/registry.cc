// Registry calls of the seam in the Windows build.
#include <windows.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

std::int32_t RegOpenKeyExW(RegKey root, const WString& subKey, std::uint32_t options, std::uint32_t samDesired,
                           RegKey& result) {
  QV_FAULT_POINT_CODE("RegOpenKeyExW", subKey);
  HKEY key = nullptr;
  LONG status = ::RegOpenKeyExW(win32::K(root), win32::W(subKey), options, samDesired, &key);
  result = reinterpret_cast<RegKey>(key);
  return status;
}

std::int32_t RegEnumKeyExW(RegKey key, std::uint32_t index, WString& name, std::uint32_t nameCapacity) {
  QV_FAULT_POINT_CODE("RegEnumKeyExW", DecimalText(index));
  std::vector<wchar_t> buffer(nameCapacity, L'\0');
  DWORD size = nameCapacity;
  LONG status = ::RegEnumKeyExW(win32::K(key), index, buffer.data(), &size, nullptr, nullptr, nullptr, nullptr);
  if (status == ERROR_SUCCESS) name = win32::FromW(buffer.data(), size);
  return status;
}

std::int32_t RegQueryValueExW(RegKey key, const WString& valueName, std::uint32_t& type, std::uint8_t* data,
                              std::uint32_t& size) {
  QV_FAULT_POINT_CODE("RegQueryValueExW", valueName);
  DWORD valueType = 0;
  DWORD valueSize = size;
  LONG status = ::RegQueryValueExW(win32::K(key), win32::W(valueName), nullptr, &valueType, data, &valueSize);
  type = valueType;
  size = valueSize;
  return status;
}

std::int32_t RegCloseKey(RegKey key) {
  QV_FAULT_POINT_CODE("RegCloseKey", DecimalText(key));
  return ::RegCloseKey(win32::K(key));
}

}  // namespace qv::platform
