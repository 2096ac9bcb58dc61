// File operations of the seam on the Linux host. Paths are Windows paths,
// resolved through the prefix's drive map; the outcomes and error codes are
// those of the Win32 calls (an existing folder at a rename's target fails
// with 5, CREATE_NEW on an existing file with 80, ...).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/errors.h"
#include "platform/posix/host_case.h"
#include "platform/posix/host_handles.h"
#include "platform/posix/host_paths.h"

namespace qv::platform {
namespace {

using posix::CodeForPath;
using posix::ErrnoToWinError;
using posix::Fail;

struct OpenFile {
  int fd = -1;
  ~OpenFile() { ::close(fd); }
};

struct Search {
  std::vector<FindData> entries;
  std::size_t next = 0;
};

// The host path of a Windows path; false with the last error set.
bool Resolve(const WString& path, std::string& host, std::size_t* depth = nullptr) {
  std::uint32_t error = 0;
  return posix::ToHostPath(path, host, error, depth) || Fail(error);
}

// A file whose mode grants no write to anyone is read-only, as Wine reports
// it. Windows refuses to replace or write such a file whoever asks, so it is
// refused here for root too, whom the kernel would let through.
bool IsReadOnlyFile(const struct stat& st) {
  return S_ISREG(st.st_mode) && (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

// The attributes of a host entry, kInvalidFileAttributes with the last error
// set when it is not there. A link is a reparse point, except the one at
// depth 0 that maps a drive: that is the drive's root. A pipe, socket or
// device node is a device, which no folder listing on Windows shows: a copy
// that took it for a file would wait on it for ever.
std::uint32_t AttributesOf(const std::string& host, std::size_t depth) {
  struct stat st;
  if (::lstat(host.c_str(), &st) != 0) return Fail(CodeForPath(errno, host)), kInvalidFileAttributes;
  struct stat target;
  const bool live = ::stat(host.c_str(), &target) == 0;
  if (S_ISLNK(st.st_mode) && depth > 0) {
    return kFileAttributeReparsePoint |
           (live && S_ISDIR(target.st_mode) ? kFileAttributeDirectory : kFileAttributeArchive);
  }
  if (S_ISLNK(st.st_mode) && !live) return Fail(kErrorPathNotFound), kInvalidFileAttributes;
  if (S_ISLNK(st.st_mode)) st = target;
  std::uint32_t attributes = S_ISDIR(st.st_mode)   ? kFileAttributeDirectory
                             : S_ISREG(st.st_mode) ? kFileAttributeArchive
                                                   : kFileAttributeDevice;
  if (IsReadOnlyFile(st)) attributes |= kFileAttributeReadonly;
  const std::string name = host.substr(host.find_last_of('/') + 1);
  if (name.starts_with('.') && name != "." && name != "..") attributes |= kFileAttributeHidden;
  return attributes;
}

// Syncs the folder that holds a host entry.
void SyncFolderOf(const std::string& host) {
  const int fd = ::open(std::filesystem::path(host).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

// Writes all of `data` to `fd`; false with errno set.
bool WriteAll(int fd, const char* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n < 0 && errno != EINTR) return false;
    if (n > 0) done += static_cast<std::size_t>(n);
  }
  return true;
}

// Copies a file's bytes over `to`, made with the source's mode when new, and
// keeps the source's last write time, as CopyFileW does. A copy that fails
// leaves what the truncating open and the bytes written so far left.
bool CopyFileBytes(const std::string& from, const std::string& to, std::uint32_t& error) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (in < 0 || ::fstat(in, &st) != 0) {
    error = CodeForPath(errno, from);
    if (in >= 0) ::close(in);
    return false;
  }
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 07777);
  if (out < 0) {
    error = CodeForPath(errno, to);
    ::close(in);
    return false;
  }
  std::vector<char> buffer(1 << 16);
  ssize_t n = 0;
  while ((n = ::read(in, buffer.data(), buffer.size())) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0 && !WriteAll(out, buffer.data(), static_cast<std::size_t>(n))) break;
  }
  bool ok = n == 0;
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  ok = ok && ::futimens(out, times) == 0;
  if (!ok) error = ErrnoToWinError(errno);
  if (::close(out) != 0 && ok) {
    error = ErrnoToWinError(errno);
    ok = false;
  }
  ::close(in);
  return ok;
}

}  // namespace

std::uint32_t GetFileAttributesW(const WString& path) {
  QV_FAULT_POINT("GetFileAttributesW", return kInvalidFileAttributes, path);
  std::string host;
  std::size_t depth = 0;
  if (!Resolve(path, host, &depth)) return kInvalidFileAttributes;
  return AttributesOf(host, depth);
}

bool GetFileAttributesExW(const WString& path, NodeType& type) {
  QV_FAULT_POINT("GetFileAttributesExW", return false, path);
  std::string host;
  if (!Resolve(path, host)) return false;
  struct stat st;
  if (::stat(host.c_str(), &st) != 0) return Fail(CodeForPath(errno, host));
  type = S_ISDIR(st.st_mode) ? NodeType::Directory : S_ISREG(st.st_mode) ? NodeType::RegularFile : NodeType::Other;
  return true;
}

bool SetFileAttributesW(const WString& path, std::uint32_t attributes) {
  QV_FAULT_POINT("SetFileAttributesW", return false, path);
  std::string host;
  if (!Resolve(path, host)) return false;
  struct stat st;
  if (::lstat(host.c_str(), &st) != 0) return Fail(CodeForPath(errno, host));
  // Only a file's read-only bit has a place on the host, in its mode: taken
  // away, the owner may write; set, nobody may. Hidden comes from a name
  // beginning with a dot, and like system and archive it is not kept, as
  // with Wine on a file system without extended attributes.
  if (!S_ISREG(st.st_mode)) return true;
  const mode_t mode = st.st_mode & 07777;
  mode_t wanted = mode;
  if ((attributes & kFileAttributeReadonly) != 0) {
    wanted &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  } else if (IsReadOnlyFile(st)) {
    wanted |= S_IWUSR;
  }
  if (wanted != mode && ::chmod(host.c_str(), wanted) != 0) return Fail(CodeForPath(errno, host));
  return true;
}

bool CreateDirectoryW(const WString& path) {
  QV_FAULT_POINT("CreateDirectoryW", return false, path);
  std::string host;
  std::size_t depth = 0;
  if (!Resolve(path, host, &depth)) return false;
  if (depth == 0) return Fail(kErrorAccessDenied);
  // Whatever is there already, even a dangling link, makes mkdir fail so.
  if (::mkdir(host.c_str(), 0777) != 0) return Fail(errno == ENOENT ? kErrorPathNotFound : ErrnoToWinError(errno));
  return true;
}

bool MoveFileExW(const WString& from, const WString& to, std::uint32_t flags) {
  QV_FAULT_POINT("MoveFileExW", return false, from, to);
  std::string source;
  std::string target;
  if (!Resolve(from, source) || !Resolve(to, target)) return false;
  struct stat sourceStat;
  if (::lstat(source.c_str(), &sourceStat) != 0) return Fail(CodeForPath(errno, source));
  struct stat targetStat;
  // A folder at the target is never replaced, even when empty; a file is,
  // with MOVEFILE_REPLACE_EXISTING, unless it is read-only. Renaming an
  // entry onto itself (a change of case) is allowed.
  if (::lstat(target.c_str(), &targetStat) == 0 &&
      (sourceStat.st_dev != targetStat.st_dev || sourceStat.st_ino != targetStat.st_ino)) {
    if (S_ISDIR(targetStat.st_mode)) return Fail(kErrorAccessDenied);
    if ((flags & kMoveFileReplaceExisting) == 0) return Fail(kErrorAlreadyExists);
    if (S_ISDIR(sourceStat.st_mode) || IsReadOnlyFile(targetStat)) return Fail(kErrorAccessDenied);
  }
  if (::rename(source.c_str(), target.c_str()) != 0) {
    const int err = errno;
    if (err == ENOENT) return Fail(kErrorPathNotFound);
    if (err == ENOTDIR || err == EISDIR || err == ENOTEMPTY || err == EEXIST) return Fail(kErrorAccessDenied);
    // Another file system is another volume (EXDEV: 17), to which Windows
    // moves no folder; the tool moves files only within their folder.
    return Fail(ErrnoToWinError(err));
  }
  if ((flags & kMoveFileWriteThrough) != 0) {
    SyncFolderOf(target);
    SyncFolderOf(source);
  }
  return true;
}

bool CopyFileW(const WString& from, const WString& to, bool failIfExists) {
  QV_FAULT_POINT("CopyFileW", return false, from, to);
  std::string source;
  std::string target;
  if (!Resolve(from, source) || !Resolve(to, target)) return false;
  struct stat st;
  if (::stat(source.c_str(), &st) != 0) return Fail(CodeForPath(errno, source));
  if (S_ISDIR(st.st_mode)) return Fail(kErrorAccessDenied);
  struct stat existing;
  if (::stat(target.c_str(), &existing) == 0) {
    if (S_ISDIR(existing.st_mode)) return Fail(kErrorAccessDenied);
    if (failIfExists) return Fail(kErrorFileExists);
    if (existing.st_dev == st.st_dev && existing.st_ino == st.st_ino) return Fail(kErrorSharingViolation);
    if (IsReadOnlyFile(existing)) return Fail(kErrorAccessDenied);
  }
  std::uint32_t error = 0;
  return CopyFileBytes(source, target, error) || Fail(error);
}

bool DeleteFileW(const WString& path) {
  QV_FAULT_POINT("DeleteFileW", return false, path);
  std::string host;
  if (!Resolve(path, host)) return false;
  struct stat st;
  if (::lstat(host.c_str(), &st) != 0) return Fail(CodeForPath(errno, host));
  if (S_ISDIR(st.st_mode)) return Fail(kErrorAccessDenied);
  if (::unlink(host.c_str()) != 0) return Fail(CodeForPath(errno, host));
  return true;
}

// The tool opens files only to write them whole: a new one (CREATE_NEW) or
// one made anew (CREATE_ALWAYS).
Handle CreateFileW(const WString& path, std::uint32_t /*desiredAccess*/, std::uint32_t /*shareMode*/,
                   std::uint32_t creationDisposition, std::uint32_t /*flagsAndAttributes*/) {
  QV_FAULT_POINT("CreateFileW", return kInvalidHandle, path);
  std::string host;
  if (!Resolve(path, host)) return kInvalidHandle;
  const bool createNew = creationDisposition == kCreateNew;
  if (!createNew && creationDisposition != kCreateAlways) return Fail(kErrorInvalidParameter), kInvalidHandle;
  // A folder is never opened so; a read-only file is not cut short
  // (CREATE_NEW finds it there first).
  struct stat st;
  if (::stat(host.c_str(), &st) == 0 && (S_ISDIR(st.st_mode) || (!createNew && IsReadOnlyFile(st)))) {
    return Fail(kErrorAccessDenied), kInvalidHandle;
  }
  const int fd = ::open(host.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (createNew ? O_EXCL : O_TRUNC), 0666);
  if (fd < 0) return Fail(errno == EEXIST ? kErrorFileExists : CodeForPath(errno, host)), kInvalidHandle;
  auto file = std::make_shared<OpenFile>();
  file->fd = fd;
  return posix::RegisterHandle(posix::HandleKind::File, file);
}

bool WriteFile(Handle file, const void* data, std::uint32_t size, std::uint32_t& written) {
  QV_FAULT_POINT("WriteFile", return false);
  written = 0;
  auto* open = posix::LookUpHandle<OpenFile>(file, posix::HandleKind::File);
  if (open == nullptr) return Fail(kErrorInvalidHandle);
  if (!WriteAll(open->fd, static_cast<const char*>(data), size)) return Fail(ErrnoToWinError(errno));
  written = size;
  return true;
}

bool FlushFileBuffers(Handle file) {
  QV_FAULT_POINT("FlushFileBuffers", return false);
  auto* open = posix::LookUpHandle<OpenFile>(file, posix::HandleKind::File);
  if (open == nullptr) return Fail(kErrorInvalidHandle);
  if (::fsync(open->fd) != 0) return Fail(ErrnoToWinError(errno));
  return true;
}

bool CloseHandle(Handle handle) {
  QV_FAULT_POINT("CloseHandle", return false);
  // The own process's pseudo-handle needs no closing.
  if (handle == posix::kCurrentProcessHandle) return true;
  return posix::ReleaseHandle(handle) || Fail(kErrorInvalidHandle);
}

// Lists a whole folder ("folder\*"), or finds one name in it without regard
// to case: the tool asks nothing else, and other wildcards match no name.
Handle FindFirstFileW(const WString& pattern, FindData& data) {
  QV_FAULT_POINT("FindFirstFileW", return kInvalidHandle, pattern);
  const std::size_t cut = pattern.find_last_of(u"\\/");
  const WString folder = cut == WString::npos ? WString(u".") : pattern.substr(0, cut + 1);
  const WString mask = cut == WString::npos ? pattern : pattern.substr(cut + 1);
  std::string host;
  std::size_t depth = 0;
  if (mask.empty()) return Fail(kErrorFileNotFound), kInvalidHandle;
  if (!Resolve(folder, host, &depth)) return kInvalidHandle;
  DIR* dir = ::opendir(host.c_str());
  if (dir == nullptr) {
    return Fail(errno == ENOENT || errno == ENOTDIR ? kErrorPathNotFound : ErrnoToWinError(errno)), kInvalidHandle;
  }
  // "." and ".." first, then the names in the order Windows lists them, not
  // that of the Linux file system (a hash order on ext4).
  std::vector<std::pair<WString, std::string>> names;
  while (const dirent* entry = ::readdir(dir)) {
    const WString name = Utf8ToWide(entry->d_name);
    if (name == u"." || name == u"..") continue;
    if (mask == u"*" || posix::SameNameIgnoringCase(name, mask)) names.emplace_back(name, entry->d_name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end(),
            [](const auto& a, const auto& b) { return posix::ListsBefore(a.first, b.first); });
  auto search = std::make_shared<Search>();
  if (mask == u"*") search->entries = {{kFileAttributeDirectory, u"."}, {kFileAttributeDirectory, u".."}};
  const std::string base = host == "/" ? "" : host;
  for (const auto& [name, hostName] : names) {
    const std::uint32_t attributes = AttributesOf(base + "/" + hostName, depth + 1);
    // One that vanished since the listing is left out.
    if (attributes != kInvalidFileAttributes) search->entries.push_back({attributes, name});
  }
  if (search->entries.empty()) return Fail(kErrorFileNotFound), kInvalidHandle;
  data = search->entries[0];
  search->next = 1;
  return posix::RegisterHandle(posix::HandleKind::Search, search);
}

bool FindNextFileW(Handle handle, FindData& data) {
  QV_FAULT_POINT("FindNextFileW", return false);
  auto* search = posix::LookUpHandle<Search>(handle, posix::HandleKind::Search);
  if (search == nullptr) return Fail(kErrorInvalidHandle);
  if (search->next >= search->entries.size()) return Fail(kErrorNoMoreFiles);
  data = search->entries[search->next++];
  return true;
}

bool FindClose(Handle handle) {
  QV_FAULT_POINT("FindClose", return false);
  if (!posix::ReleaseHandleOfKind(handle, posix::HandleKind::Search)) return Fail(kErrorInvalidHandle);
  return true;
}

std::uint32_t GetFullPathNameW(const WString& fileName, std::uint32_t bufferLength, WString& result) {
  QV_FAULT_POINT("GetFullPathNameW", return 0, fileName);
  WString full;
  std::uint32_t error = 0;
  if (!posix::FullPathName(fileName, full, error)) return Fail(error), 0;
  if (full.size() + 1 > bufferLength) return static_cast<std::uint32_t>(full.size() + 1);
  result = full;
  return static_cast<std::uint32_t>(full.size());
}

std::uint32_t GetModuleFileNameW(WString& path, std::uint32_t capacity) {
  QV_FAULT_POINT("GetModuleFileNameW", return 0);
  std::error_code error;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe", error).string();
  if (error) return Fail(ErrnoToWinError(error.value())), 0;
  WString windows;
  if (!posix::ToWindowsPath(self, windows)) return Fail(kErrorPathNotFound), 0;
  if (capacity == 0) return 0;
  if (windows.size() >= capacity) {
    path = windows.substr(0, capacity - 1);
    SetLastError(kErrorInsufficientBuffer);
    return capacity;
  }
  path = windows;
  return static_cast<std::uint32_t>(windows.size());
}

}  // namespace qv::platform
