// The version resource of the seam in the Windows build.
#include <windows.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FilePath;

namespace {

// The version functions, from System32's version.dll. It is not a KnownDLL,
// so an import of it would be looked for beside the program first; it is
// loaded here by its full path, its own imports from System32 only.
struct VersionFunctions {
  decltype(&::GetFileVersionInfoSizeW) infoSize = nullptr;
  decltype(&::GetFileVersionInfoW) info = nullptr;
  decltype(&::VerQueryValueW) queryValue = nullptr;
};

const VersionFunctions& Version() {
  static const VersionFunctions functions = [] {
    VersionFunctions found;
    std::vector<wchar_t> folder(MAX_PATH, L'\0');
    UINT length = ::GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size()));
    if (length >= folder.size()) {
      folder.assign(length, L'\0');
      length = ::GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size()));
    }
    if (length == 0 || length >= folder.size()) return found;
    const std::wstring path = std::wstring(folder.data(), length) + L"\\version.dll";
    HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr) return found;
    // Kept loaded for the life of the process.
    found.infoSize = reinterpret_cast<decltype(found.infoSize)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "GetFileVersionInfoSizeW")));
    found.info = reinterpret_cast<decltype(found.info)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "GetFileVersionInfoW")));
    found.queryValue = reinterpret_cast<decltype(found.queryValue)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "VerQueryValueW")));
    return found;
  }();
  return functions;
}

}  // namespace

std::uint32_t GetFileVersionInfoSizeW(const WString& path) {
  QV_FAULT_POINT("GetFileVersionInfoSizeW", return 0, path);
  DWORD ignored = 0;
  const auto infoSize = Version().infoSize;
  if (infoSize == nullptr) return 0;
  const DWORD size = infoSize(FilePath(path), &ignored);
  if (size <= kLargestVersionInfo) return size;
  ::SetLastError(ERROR_RESOURCE_DATA_NOT_FOUND);
  return 0;
}

bool GetFileVersionInfoW(const WString& path, std::uint32_t size, std::vector<std::uint8_t>& data) {
  QV_FAULT_POINT("GetFileVersionInfoW", return false, path);
  data.assign(size, 0);
  const auto info = Version().info;
  return info != nullptr && info(FilePath(path), 0, size, data.data()) != 0;
}

bool VerQueryValueRootW(const std::vector<std::uint8_t>& data, FixedFileInfo& info) {
  QV_FAULT_POINT("VerQueryValueW", return false, u"\\");
  void* block = nullptr;
  UINT length = 0;
  const auto queryValue = Version().queryValue;
  if (queryValue == nullptr || !queryValue(data.data(), L"\\", &block, &length) || block == nullptr) return false;
  const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(block);
  info.signature = fixed->dwSignature;
  info.fileVersionMS = fixed->dwFileVersionMS;
  info.fileVersionLS = fixed->dwFileVersionLS;
  return true;
}

}  // namespace qv::platform
