// Profile strings and the version resource of the seam.
#include <windows.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/profile_reader.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FilePath;
using win32::W;

namespace {

profile::CachedProfile& Cache() {
  static profile::CachedProfile* cache = new profile::CachedProfile;
  return *cache;
}

// The system's profile calls take the file's full path in a MAX_PATH buffer
// and read nothing from a longer one, long-path opt-in or not. Such a file is
// read here with the reader the Linux host uses, which gives Wine's answers.
std::uint32_t ReadLongPathProfile(const WString& section, const WString& key, const WString& defaultValue,
                                  WString& value, std::uint32_t size, const FilePath& file) {
  profile::CachedProfile& cache = Cache();
  // The sharing of the system's own reader: a file held without it cannot
  // be read.
  HANDLE handle =
      ::CreateFileW(file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    cache.Clear();
    // A missing file reads as an empty one; any other failure gives the
    // default as written, quotes and all.
    if (::GetLastError() == ERROR_FILE_NOT_FOUND) {
      return profile::ReadProfileString(std::string_view(), section, key, defaultValue, value, size);
    }
    return profile::UnreadableProfileDefault(defaultValue, value, size);
  }
  BY_HANDLE_FILE_INFORMATION info{};
  bool ok = ::GetFileInformationByHandle(handle, &info) != 0;
  const std::uint64_t length = (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  const profile::FileVersion version{
      WideToUtf8(win32::FromW(file.text().c_str(), file.text().size())), info.dwVolumeSerialNumber,
      (static_cast<std::uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow, length,
      (static_cast<std::uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32) | info.ftLastWriteTime.dwLowDateTime};
  if (ok && cache.Holds(version)) {
    ::CloseHandle(handle);
    return cache.Answer(section, key, defaultValue, value, size);
  }
  std::string bytes;
  while (ok) {
    char chunk[1 << 16];
    DWORD read = 0;
    ok = ::ReadFile(handle, chunk, sizeof chunk, &read, nullptr) != 0;
    if (read == 0) break;
    bytes.append(chunk, read);
  }
  const DWORD error = ::GetLastError();
  ::CloseHandle(handle);
  if (!ok) {
    cache.Clear();
    ::SetLastError(error);
    return profile::UnreadableProfileDefault(defaultValue, value, size);
  }
  cache.Store(version, std::move(bytes));
  return cache.Answer(section, key, defaultValue, value, size);
}

}  // namespace

std::uint32_t GetPrivateProfileStringW(const WString& section, const WString& key, const WString& defaultValue,
                                       WString& value, std::uint32_t size, const WString& path) {
  QV_FAULT_POINT("GetPrivateProfileStringW", return profile::UnreadableProfileDefault(defaultValue, value, size),
                 section, key, path);
  // A bare file name is looked for in the Windows folder, and stays short.
  if (path.find_first_of(u"\\/") != WString::npos &&
      win32::FullPathName(std::wstring(W(path), path.size())).size() >= MAX_PATH) {
    return ReadLongPathProfile(section, key, defaultValue, value, size, FilePath(path));
  }
  std::vector<wchar_t> buffer(size, L'\0');
  DWORD n = ::GetPrivateProfileStringW(W(section), W(key), W(defaultValue), buffer.data(), size, W(path));
  value = win32::FromW(buffer.data(), n);
  return n;
}

bool FlushPrivateProfileCache(const WString& path) {
  QV_FAULT_POINT("WritePrivateProfileStringW", return false, path);
  Cache().Clear();
  return ::WritePrivateProfileStringW(nullptr, nullptr, nullptr, W(path)) != 0;
}

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
  return infoSize(FilePath(path), &ignored);
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
