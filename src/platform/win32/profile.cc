// Profile strings of the seam in the Windows build.
#include <windows.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/profile_reader.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FilePath;
using win32::W;

namespace {

// The size of a file, when it can be asked.
bool FileSize(const wchar_t* path, std::uint64_t& size) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExW(path, GetFileExInfoStandard, &data)) return false;
  size = (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  return true;
}

// The system's profile calls take the file's full path in a MAX_PATH buffer
// and read nothing from a longer one, long-path opt-in or not. Such a file is
// read here with the reader the Linux host uses, which gives Wine's answers.
std::uint32_t ReadLongPathProfile(const WString& section, const WString& key, const WString& defaultValue,
                                  WString& value, std::uint32_t size, const FilePath& file) {
  // The sharing of the system's own reader: a file held without it cannot
  // be read.
  HANDLE handle =
      ::CreateFileW(file, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    // A missing file reads as an empty one; any other failure gives the
    // default as written, quotes and all.
    if (::GetLastError() == ERROR_FILE_NOT_FOUND) {
      return profile::ReadProfileString(std::string_view(), section, key, defaultValue, value, size);
    }
    return profile::UnreadableProfileDefault(defaultValue, value, size);
  }
  LARGE_INTEGER length{};
  bool ok = ::GetFileSizeEx(handle, &length) != 0;
  if (ok && static_cast<std::uint64_t>(length.QuadPart) > profile::kLargestProfileFile) {
    ok = false;
    ::SetLastError(ERROR_FILE_TOO_LARGE);
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
    ::SetLastError(error);
    return profile::UnreadableProfileDefault(defaultValue, value, size);
  }
  return profile::ReadProfileString(bytes, section, key, defaultValue, value, size);
}

}  // namespace

std::uint32_t GetPrivateProfileStringW(const WString& section, const WString& key, const WString& defaultValue,
                                       WString& value, std::uint32_t size, const WString& path) {
  QV_FAULT_POINT("GetPrivateProfileStringW", return profile::UnreadableProfileDefault(defaultValue, value, size),
                 section, key, path);
  // A bare file name is looked for in the Windows folder, and stays short.
  const bool named = path.find_first_of(u"\\/") != WString::npos;
  if (named && win32::FullPathName(std::wstring(W(path), path.size())).size() >= MAX_PATH) {
    return ReadLongPathProfile(section, key, defaultValue, value, size, FilePath(path));
  }
  // The system's reader would read a file of any size.
  std::uint64_t fileSize = 0;
  if (named && FileSize(W(path), fileSize) && fileSize > profile::kLargestProfileFile) {
    ::SetLastError(ERROR_FILE_TOO_LARGE);
    return profile::UnreadableProfileDefault(defaultValue, value, size);
  }
  std::vector<wchar_t> buffer(size, L'\0');
  DWORD n = ::GetPrivateProfileStringW(W(section), W(key), W(defaultValue), buffer.data(), size, W(path));
  value = win32::FromW(buffer.data(), n);
  return n;
}

bool FlushPrivateProfileCache(const WString& path) {
  QV_FAULT_POINT("WritePrivateProfileStringW", return false, path);
  return ::WritePrivateProfileStringW(nullptr, nullptr, nullptr, W(path)) != 0;
}

}  // namespace qv::platform
