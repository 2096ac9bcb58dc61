// File operations of the seam: the Win32 calls themselves, every path in the
// form FilePath gives it.
#include <windows.h>

#include <algorithm>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FilePath;
using win32::FromH;
using win32::H;

namespace {

// Antivirus scanners, the search indexer and backup agents open a newly
// written file for a moment. Meanwhile renaming its folder, copying onto it
// or replacing it fails with one of these codes, and the whole run would roll
// back for a lock that lasts milliseconds.
bool IsTransientLock(DWORD code) {
  return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION || code == ERROR_LOCK_VIOLATION;
}

// Waits between attempts: growing, and 1 s in all, after which the lock
// counts as lasting and the call fails with its code.
constexpr DWORD kLockRetryDelays[] = {1, 10, 20, 40, 80, 160, 320, 369};

// An access denial that no wait can lift: the target is a folder (a rename or
// copy never replaces one) or read-only, a copy's target is hidden, or a
// copy's source is a folder.
bool IsLastingDenial(DWORD code, const FilePath& from, const FilePath& to, bool copy) {
  if (code != ERROR_ACCESS_DENIED) return false;
  const DWORD lasting = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY | (copy ? FILE_ATTRIBUTE_HIDDEN : 0);
  const DWORD target = ::GetFileAttributesW(to);
  if (target != INVALID_FILE_ATTRIBUTES && (target & lasting) != 0) return true;
  if (!copy) return false;
  const DWORD source = ::GetFileAttributesW(from);
  return source != INVALID_FILE_ATTRIBUTES && (source & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Makes the call again while it fails on a transient lock, up to the delays
// above. It runs below the fault point: an injected failure is final.
template <typename Call>
bool RetryWhileLocked(const FilePath& from, const FilePath& to, bool copy, Call call) {
  for (std::size_t attempt = 0;; ++attempt) {
    if (call()) return true;
    const DWORD code = ::GetLastError();
    if (attempt == std::size(kLockRetryDelays) || !IsTransientLock(code) || IsLastingDenial(code, from, to, copy)) {
      ::SetLastError(code);
      return false;
    }
    ::Sleep(kLockRetryDelays[attempt]);
  }
}

}  // namespace

std::uint32_t GetFileAttributesW(const WString& path) {
  QV_FAULT_POINT("GetFileAttributesW", return kInvalidFileAttributes, path);
  return ::GetFileAttributesW(FilePath(path));
}

bool GetFileAttributesExW(const WString& path, NodeType& type) {
  QV_FAULT_POINT("GetFileAttributesExW", return false, path);
  const FilePath file(path);
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExW(file, GetFileExInfoStandard, &data)) return false;
  DWORD attributes = data.dwFileAttributes;
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
    // Follow the link: the target's own information decides.
    HANDLE target = ::CreateFileW(file, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (target == INVALID_HANDLE_VALUE) return false;
    FILE_BASIC_INFO info;
    BOOL ok = ::GetFileInformationByHandleEx(target, FileBasicInfo, &info, sizeof info);
    DWORD error = ::GetLastError();
    ::CloseHandle(target);
    if (!ok) {
      ::SetLastError(error);
      return false;
    }
    attributes = info.FileAttributes;
  }
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) type = NodeType::Directory;
  else if (attributes & FILE_ATTRIBUTE_DEVICE) type = NodeType::Other;
  else type = NodeType::RegularFile;
  return true;
}

bool SetFileAttributesW(const WString& path, std::uint32_t attributes) {
  QV_FAULT_POINT("SetFileAttributesW", return false, path);
  return ::SetFileAttributesW(win32::FilePath(path), attributes) != 0;
}

bool CreateDirectoryW(const WString& path) {
  QV_FAULT_POINT("CreateDirectoryW", return false, path);
  return ::CreateDirectoryW(FilePath(path), nullptr) != 0;
}

bool MoveFileExW(const WString& from, const WString& to, std::uint32_t flags) {
  QV_FAULT_POINT("MoveFileExW", return false, from, to);
  const FilePath source(from);
  const FilePath target(to);
  return RetryWhileLocked(source, target, false, [&] { return ::MoveFileExW(source, target, flags) != 0; });
}

bool CopyFileW(const WString& from, const WString& to, bool failIfExists) {
  QV_FAULT_POINT("CopyFileW", return false, from, to);
  const FilePath source(from);
  const FilePath target(to);
  return RetryWhileLocked(source, target, true, [&] { return ::CopyFileW(source, target, failIfExists) != 0; });
}

bool DeleteFileW(const WString& path) {
  QV_FAULT_POINT("DeleteFileW", return false, path);
  return ::DeleteFileW(FilePath(path)) != 0;
}

Handle CreateFileW(const WString& path, std::uint32_t desiredAccess, std::uint32_t shareMode,
                   std::uint32_t creationDisposition, std::uint32_t flagsAndAttributes) {
  QV_FAULT_POINT("CreateFileW", return kInvalidHandle, path);
  HANDLE file = ::CreateFileW(FilePath(path), desiredAccess, shareMode, nullptr, creationDisposition, flagsAndAttributes,
                              nullptr);
  return file == INVALID_HANDLE_VALUE ? kInvalidHandle : FromH(file);
}

bool WriteFile(Handle file, const void* data, std::uint32_t size, std::uint32_t& written) {
  QV_FAULT_POINT("WriteFile", return false);
  DWORD count = 0;
  BOOL ok = ::WriteFile(H(file), data, size, &count, nullptr);
  written = count;
  return ok != 0;
}

bool FlushFileBuffers(Handle file) {
  QV_FAULT_POINT("FlushFileBuffers", return false);
  return ::FlushFileBuffers(H(file)) != 0;
}

bool CloseHandle(Handle handle) {
  QV_FAULT_POINT("CloseHandle", return false);
  return ::CloseHandle(H(handle)) != 0;
}

Handle FindFirstFileW(const WString& pattern, FindData& data) {
  QV_FAULT_POINT("FindFirstFileW", return kInvalidHandle, pattern);
  WIN32_FIND_DATAW found;
  HANDLE search = ::FindFirstFileW(FilePath(pattern), &found);
  if (search == INVALID_HANDLE_VALUE) return kInvalidHandle;
  data.attributes = found.dwFileAttributes;
  data.fileName = win32::FromW(found.cFileName);
  return FromH(search);
}

bool FindNextFileW(Handle search, FindData& data) {
  QV_FAULT_POINT("FindNextFileW", return false);
  WIN32_FIND_DATAW found;
  if (!::FindNextFileW(H(search), &found)) return false;
  data.attributes = found.dwFileAttributes;
  data.fileName = win32::FromW(found.cFileName);
  return true;
}

bool FindClose(Handle search) {
  QV_FAULT_POINT("FindClose", return false);
  return ::FindClose(H(search)) != 0;
}

std::uint32_t GetFullPathNameW(const WString& fileName, std::uint32_t bufferLength, WString& result) {
  QV_FAULT_POINT("GetFullPathNameW", return 0, fileName);
  std::vector<wchar_t> buffer(bufferLength, L'\0');
  DWORD n = ::GetFullPathNameW(win32::W(fileName), bufferLength, buffer.data(), nullptr);
  if (n != 0 && n < bufferLength) result = win32::FromW(buffer.data(), n);
  return n;
}

std::uint32_t GetModuleFileNameW(WString& path, std::uint32_t capacity) {
  QV_FAULT_POINT("GetModuleFileNameW", return 0);
  // The whole name first, in a buffer that grows; then as the call would
  // have filled `capacity` characters with the plain form of it.
  std::vector<wchar_t> buffer(MAX_PATH);
  DWORD n = 0;
  for (;;) {
    n = ::GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (n == 0) {
      path.clear();
      return 0;
    }
    if (n < buffer.size() || buffer.size() >= kLongPathBuffer) break;
    buffer.resize(buffer.size() * 2);
  }
  path = win32::PlainPath(win32::FromW(buffer.data(), std::min<std::size_t>(n, buffer.size() - 1)));
  if (path.size() < capacity) return static_cast<std::uint32_t>(path.size());
  path.resize(capacity > 0 ? capacity - 1 : 0);
  ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return capacity;
}

}  // namespace qv::platform
