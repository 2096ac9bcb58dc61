// File operations of the seam on the Linux host. Paths are Windows paths,
// resolved through the prefix's drive map; the outcomes and error codes are
// those of the Win32 calls (an existing folder at a rename's target fails
// with 5, CREATE_NEW on an existing file with 80, ...).
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/handles.h"
#include "platform/posix/host.h"

namespace qv::platform {
namespace {

using posix::ErrnoToWinError;

struct OpenFile {
  int fd = -1;
  ~OpenFile() {
    if (fd >= 0) ::close(fd);
  }
};

struct Search {
  std::vector<FindData> entries;
  std::size_t next = 0;
};

bool Resolve(const WString& path, posix::HostEntry& entry) {
  std::uint32_t error = 0;
  if (!posix::ResolveHostEntry(path, entry, error)) {
    SetLastError(error);
    return false;
  }
  return true;
}

bool Resolve(const WString& path, std::string& host, std::size_t& depth) {
  std::uint32_t error = 0;
  if (!posix::ResolveHostPath(path, host, depth, error)) {
    SetLastError(error);
    return false;
  }
  return true;
}

std::string HostParent(const std::string& host) {
  std::size_t slash = host.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return host.substr(0, slash);
}

// ENOENT says "file not found" when the folder that would hold the entry
// exists, and "path not found" when it does not, as Windows tells them apart.
std::uint32_t MissingCode(const std::string& host) {
  struct stat st;
  if (::stat(HostParent(host).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return kErrorFileNotFound;
  return kErrorPathNotFound;
}

std::uint32_t CodeFor(int err, const std::string& host) {
  if (err == ENOENT) return MissingCode(host);
  return ErrnoToWinError(err);
}

// The code for an entry the resolution found absent.
std::uint32_t MissingCode(const posix::HostEntry& entry) {
  return entry.missingCode != 0 ? entry.missingCode : MissingCode(entry.path);
}

// The lstat of a resolved entry: from the resolution when it made one, else
// asked now. False with errno set when there is none.
bool EntryLstat(const posix::HostEntry& entry, struct stat& st) {
  switch (entry.state) {
    case posix::HostEntry::State::Present:
      st = entry.status;
      return true;
    case posix::HostEntry::State::Absent:
      errno = ENOENT;
      return false;
    case posix::HostEntry::State::Unknown:
      break;
  }
  return ::lstat(entry.path.c_str(), &st) == 0;
}

// The same, following a link: the lstat stands for the stat of anything
// that is no link.
bool EntryStat(const posix::HostEntry& entry, struct stat& st) {
  if (entry.state == posix::HostEntry::State::Present && !S_ISLNK(entry.status.st_mode)) {
    st = entry.status;
    return true;
  }
  if (entry.state == posix::HostEntry::State::Absent) {
    errno = ENOENT;
    return false;
  }
  return ::stat(entry.path.c_str(), &st) == 0;
}

// The Windows code for a failed EntryLstat or EntryStat.
std::uint32_t EntryCode(int err, const posix::HostEntry& entry) {
  if (err == ENOENT) return entry.state == posix::HostEntry::State::Absent ? MissingCode(entry) : MissingCode(entry.path);
  return ErrnoToWinError(err);
}

bool Fail(std::uint32_t code) {
  SetLastError(code);
  return false;
}

// A file whose mode grants no write to anyone is read-only, as Wine reports
// it. Windows refuses to replace or write such a file whoever asks, so it is
// refused here for root too, whom the kernel would let through.
bool IsReadOnlyFile(const struct stat& st) {
  return S_ISREG(st.st_mode) && (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

// The attributes of an entry from its lstat.
std::uint32_t AttributesFrom(struct stat st, const std::string& host, std::size_t depth, const std::string& name,
                             bool& ok) {
  ok = false;
  std::uint32_t attributes = 0;
  if (S_ISLNK(st.st_mode)) {
    struct stat target;
    bool live = ::stat(host.c_str(), &target) == 0;
    if (depth == 0) {
      // The link that maps a drive is the drive's root, not a reparse point.
      if (!live) {
        SetLastError(kErrorPathNotFound);
        return kInvalidFileAttributes;
      }
      st = target;
    } else {
      attributes |= kFileAttributeReparsePoint;
      attributes |= (live && S_ISDIR(target.st_mode)) ? kFileAttributeDirectory : kFileAttributeArchive;
      ok = true;
      return attributes;
    }
  }
  attributes |= S_ISDIR(st.st_mode) ? kFileAttributeDirectory : kFileAttributeArchive;
  if (IsReadOnlyFile(st)) attributes |= kFileAttributeReadonly;
  if (!name.empty() && name[0] == '.' && name != "." && name != "..") attributes |= kFileAttributeHidden;
  ok = true;
  return attributes;
}

std::uint32_t AttributesOf(const std::string& host, std::size_t depth, const std::string& name, bool& ok) {
  ok = false;
  struct stat st;
  if (::lstat(host.c_str(), &st) != 0) {
    SetLastError(CodeFor(errno, host));
    return kInvalidFileAttributes;
  }
  return AttributesFrom(st, host, depth, name, ok);
}

std::string LastName(const std::string& host) {
  std::size_t slash = host.find_last_of('/');
  return slash == std::string::npos ? host : host.substr(slash + 1);
}

bool SyncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

// File systems that have refused a reflink: a copy onto them goes straight
// to copy_file_range.
std::vector<dev_t>& NoReflinkDevices() {
  static std::vector<dev_t>* devices = new std::vector<dev_t>;
  return *devices;
}

// A reflink needs both files on one file system, so a refusal for want of
// support (a copy across file systems is refused otherwise, with EXDEV) is
// remembered by the source's device.
bool TryReflink(int in, int out, dev_t sourceDevice) {
  std::vector<dev_t>& refused = NoReflinkDevices();
  for (dev_t device : refused) {
    if (device == sourceDevice) return false;
  }
  if (::ioctl(out, FICLONE, in) == 0) return true;
  if (errno == EOPNOTSUPP && refused.size() < 64) refused.push_back(sourceDevice);
  return false;
}

// Copies one regular file's bytes, by reflink where the file system has one,
// else by copy_file_range in the kernel, else by read and write, to the start
// of `out`. `size` and `sourceDevice` are the source's. `copied` tells how
// many bytes of the source lie at the start of `out`, also after a failure.
bool CopyBytes(int in, int out, off_t size, dev_t sourceDevice, off_t& copied, std::uint32_t& error) {
  copied = 0;
  if (TryReflink(in, out, sourceDevice)) {
    copied = size;
    return true;
  }
  bool fallback = false;
  while (copied < size) {
    ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, static_cast<std::size_t>(size - copied), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL) {
        fallback = true;
        break;
      }
      error = ErrnoToWinError(errno);
      return false;
    }
    if (n == 0) break;
    copied += n;
  }
  if (!fallback) return true;
  copied = 0;
  if (::lseek(in, 0, SEEK_SET) < 0 || ::ftruncate(out, 0) != 0 || ::lseek(out, 0, SEEK_SET) < 0) {
    error = ErrnoToWinError(errno);
    return false;
  }
  std::vector<char> buffer(1 << 16);
  for (;;) {
    ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      error = ErrnoToWinError(errno);
      return false;
    }
    if (n == 0) return true;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = ::write(out, buffer.data() + done, static_cast<std::size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR) continue;
        error = ErrnoToWinError(errno);
        return false;
      }
      done += w;
      copied += w;
    }
  }
}

// Copies a regular file over `to`. A new file is created. An existing one is
// written over in place and then cut to the copy's length: truncating it to
// nothing first would have ext4 start writing it back to the disk the moment
// it is closed (its guard for files that are rewritten without a sync), a
// wait for every replaced file that a copy does not need. Either way the
// file ends as the truncating open would leave it, also after a failure: the
// bytes copied so far and nothing else.
bool CopyRegularFile(const std::string& from, const std::string& to, bool replacing, std::uint32_t& error) {
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    error = CodeFor(errno, from);
    return false;
  }
  struct stat st;
  if (::fstat(in, &st) != 0) {
    error = ErrnoToWinError(errno);
    ::close(in);
    return false;
  }
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | (replacing ? 0 : O_TRUNC) | O_CLOEXEC, st.st_mode & 07777);
  if (out < 0) {
    error = CodeFor(errno, to);
    ::close(in);
    return false;
  }
  // The length the file had when opened: more than the copy brings is cut.
  off_t previous = 0;
  if (replacing) {
    struct stat opened;
    if (::fstat(out, &opened) != 0) {
      error = ErrnoToWinError(errno);
      ::close(out);
      ::close(in);
      return false;
    }
    previous = S_ISREG(opened.st_mode) ? opened.st_size : 0;
  }
  off_t copied = 0;
  bool ok = CopyBytes(in, out, st.st_size, st.st_dev, copied, error);
  if (previous > copied && ::ftruncate(out, copied) != 0 && ok) {
    error = ErrnoToWinError(errno);
    ok = false;
  }
  if (ok) {
    // CopyFileW keeps the last write time.
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::futimens(out, times);
  }
  if (::close(out) != 0 && ok) {
    error = ErrnoToWinError(errno);
    ok = false;
  }
  ::close(in);
  return ok;
}

// Whether an entry is a folder to Windows: a folder, or a link to one.
bool IsFolder(const posix::HostEntry& entry, const struct stat& lstatOfEntry) {
  if (S_ISDIR(lstatOfEntry.st_mode)) return true;
  struct stat target;
  return S_ISLNK(lstatOfEntry.st_mode) && ::stat(entry.path.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
}

// Copies a file, or a link as a link, for a move across file systems.
bool CopyEntry(const std::string& from, const struct stat& st, const std::string& to, std::uint32_t& error) {
  if (!S_ISLNK(st.st_mode)) return CopyRegularFile(from, to, false, error);
  std::vector<char> buffer(PATH_MAX + 1);
  ssize_t n = ::readlink(from.c_str(), buffer.data(), PATH_MAX);
  if (n < 0 || ::symlink(std::string(buffer.data(), static_cast<std::size_t>(n)).c_str(), to.c_str()) != 0) {
    error = ErrnoToWinError(errno);
    return false;
  }
  return true;
}

// Matches a FindFirstFileW pattern ("*", "?") against a name, ignoring the
// case of ASCII letters.
bool MatchesPattern(const WString& pattern, const WString& name, std::size_t p = 0, std::size_t n = 0) {
  auto fold = [](WChar c) { return (c >= u'A' && c <= u'Z') ? static_cast<WChar>(c + 32) : c; };
  while (p < pattern.size()) {
    if (pattern[p] == u'*') {
      for (std::size_t k = n; k <= name.size(); ++k) {
        if (MatchesPattern(pattern, name, p + 1, k)) return true;
      }
      return false;
    }
    if (n >= name.size()) return false;
    if (pattern[p] != u'?' && fold(pattern[p]) != fold(name[n])) return false;
    ++p;
    ++n;
  }
  return n == name.size();
}

}  // namespace

std::uint32_t GetFileAttributesW(const WString& path) {
  QV_FAULT_POINT("GetFileAttributesW", return kInvalidFileAttributes, path);
  posix::HostEntry entry;
  if (!Resolve(path, entry)) return kInvalidFileAttributes;
  struct stat st;
  if (!EntryLstat(entry, st)) {
    SetLastError(EntryCode(errno, entry));
    return kInvalidFileAttributes;
  }
  bool ok = false;
  std::uint32_t attributes = AttributesFrom(st, entry.path, entry.depth, LastName(entry.path), ok);
  return ok ? attributes : kInvalidFileAttributes;
}

bool GetFileAttributesExW(const WString& path, NodeType& type) {
  QV_FAULT_POINT("GetFileAttributesExW", return false, path);
  posix::HostEntry entry;
  if (!Resolve(path, entry)) return false;
  struct stat st;
  if (!EntryStat(entry, st)) return Fail(EntryCode(errno, entry));
  type = S_ISDIR(st.st_mode) ? NodeType::Directory : S_ISREG(st.st_mode) ? NodeType::RegularFile : NodeType::Other;
  return true;
}

bool SetFileAttributesW(const WString& path, std::uint32_t attributes) {
  QV_FAULT_POINT("SetFileAttributesW", return false, path);
  posix::HostEntry entry;
  if (!Resolve(path, entry)) return false;
  struct stat st;
  if (!EntryLstat(entry, st)) return Fail(EntryCode(errno, entry));
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
  if (wanted != mode && ::chmod(entry.path.c_str(), wanted) != 0) return Fail(CodeFor(errno, entry.path));
  return true;
}

bool CreateDirectoryW(const WString& path) {
  QV_FAULT_POINT("CreateDirectoryW", return false, path);
  posix::HostEntry entry;
  if (!Resolve(path, entry)) return false;
  if (entry.depth == 0) return Fail(kErrorAccessDenied);
  // Whatever is there already, even a dangling link, makes mkdir fail so.
  if (entry.state == posix::HostEntry::State::Present) return Fail(kErrorAlreadyExists);
  if (::mkdir(entry.path.c_str(), 0777) != 0) {
    if (errno == ENOENT) return Fail(kErrorPathNotFound);
    return Fail(ErrnoToWinError(errno));
  }
  return true;
}

bool MoveFileExW(const WString& from, const WString& to, std::uint32_t flags) {
  QV_FAULT_POINT("MoveFileExW", return false, from, to);
  posix::HostEntry sourceEntry;
  posix::HostEntry targetEntry;
  if (!Resolve(from, sourceEntry) || !Resolve(to, targetEntry)) return false;
  const std::string& source = sourceEntry.path;
  const std::string& target = targetEntry.path;
  struct stat sourceStat;
  if (!EntryLstat(sourceEntry, sourceStat)) return Fail(EntryCode(errno, sourceEntry));
  struct stat targetStat;
  if (EntryLstat(targetEntry, targetStat)) {
    // A folder at the target is never replaced, even when empty; a file is,
    // but only with MOVEFILE_REPLACE_EXISTING. Renaming an entry onto itself
    // (a change of case) is allowed.
    bool same = sourceStat.st_dev == targetStat.st_dev && sourceStat.st_ino == targetStat.st_ino;
    if (!same) {
      if (S_ISDIR(targetStat.st_mode)) return Fail(kErrorAccessDenied);
      if ((flags & kMoveFileReplaceExisting) == 0) return Fail(kErrorAlreadyExists);
      if (S_ISDIR(sourceStat.st_mode)) return Fail(kErrorAccessDenied);
    }
  }
  if (::rename(source.c_str(), target.c_str()) != 0) {
    int err = errno;
    if (err != EXDEV) {
      if (err == ENOENT) return Fail(kErrorPathNotFound);
      if (err == ENOTDIR || err == EISDIR || err == ENOTEMPTY || err == EEXIST) return Fail(kErrorAccessDenied);
      return Fail(ErrnoToWinError(err));
    }
    // Windows moves no folder to another volume, whatever the flags; a
    // file it copies there and deletes when allowed to.
    if ((flags & kMoveFileCopyAllowed) == 0 || IsFolder(sourceEntry, sourceStat)) return Fail(kErrorNotSameDevice);
    // The copy goes to a name of its own first, so that one that fails
    // leaves the target as it was.
    std::string staging = target + ".qv-move-" + std::to_string(::getpid());
    std::uint32_t error = 0;
    if (!CopyEntry(source, sourceStat, staging, error)) {
      ::unlink(staging.c_str());
      return Fail(error);
    }
    if (::rename(staging.c_str(), target.c_str()) != 0) {
      std::uint32_t code = ErrnoToWinError(errno);
      ::unlink(staging.c_str());
      return Fail(code);
    }
    ::unlink(source.c_str());
  }
  if ((flags & kMoveFileWriteThrough) != 0) {
    SyncFolder(HostParent(target));
    if (HostParent(source) != HostParent(target)) SyncFolder(HostParent(source));
  }
  return true;
}

bool CopyFileW(const WString& from, const WString& to, bool failIfExists) {
  QV_FAULT_POINT("CopyFileW", return false, from, to);
  posix::HostEntry sourceEntry;
  posix::HostEntry targetEntry;
  if (!Resolve(from, sourceEntry) || !Resolve(to, targetEntry)) return false;
  const std::string& source = sourceEntry.path;
  const std::string& target = targetEntry.path;
  struct stat st;
  if (!EntryStat(sourceEntry, st)) return Fail(EntryCode(errno, sourceEntry));
  if (S_ISDIR(st.st_mode)) return Fail(kErrorAccessDenied);
  struct stat existing;
  bool replacing = false;
  if (EntryStat(targetEntry, existing)) {
    if (S_ISDIR(existing.st_mode)) return Fail(kErrorAccessDenied);
    if (failIfExists) return Fail(kErrorFileExists);
    if (existing.st_dev == st.st_dev && existing.st_ino == st.st_ino) return Fail(kErrorSharingViolation);
    if (IsReadOnlyFile(existing)) return Fail(kErrorAccessDenied);
    replacing = S_ISREG(existing.st_mode);
  }
  std::uint32_t error = 0;
  if (!CopyRegularFile(source, target, replacing, error)) return Fail(error);
  return true;
}

bool DeleteFileW(const WString& path) {
  QV_FAULT_POINT("DeleteFileW", return false, path);
  posix::HostEntry entry;
  if (!Resolve(path, entry)) return false;
  struct stat st;
  if (!EntryLstat(entry, st)) return Fail(EntryCode(errno, entry));
  if (S_ISDIR(st.st_mode)) return Fail(kErrorAccessDenied);
  if (::unlink(entry.path.c_str()) != 0) return Fail(CodeFor(errno, entry.path));
  return true;
}

Handle CreateFileW(const WString& path, std::uint32_t desiredAccess, std::uint32_t /*shareMode*/,
                   std::uint32_t creationDisposition, std::uint32_t /*flagsAndAttributes*/) {
  QV_FAULT_POINT("CreateFileW", return kInvalidHandle, path);
  posix::HostEntry entry;
  if (!Resolve(path, entry)) return kInvalidHandle;
  const std::string& host = entry.path;
  int flags = O_CLOEXEC;
  bool read = (desiredAccess & 0x80000000u) != 0;
  bool write = (desiredAccess & kGenericWrite) != 0;
  flags |= read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY;
  switch (creationDisposition) {
    case kCreateNew: flags |= O_CREAT | O_EXCL; break;
    case kCreateAlways: flags |= O_CREAT | O_TRUNC; break;
    case 3: break;                       // OPEN_EXISTING
    case 4: flags |= O_CREAT; break;     // OPEN_ALWAYS
    case 5: flags |= O_TRUNC; break;     // TRUNCATE_EXISTING
    default: SetLastError(kErrorInvalidParameter); return kInvalidHandle;
  }
  struct stat st;
  if (EntryStat(entry, st)) {
    // A folder is never opened so; a read-only file is not opened for
    // writing nor cut short (CREATE_NEW finds it there first).
    bool truncating = creationDisposition == kCreateAlways || creationDisposition == 5;
    if (S_ISDIR(st.st_mode) ||
        (creationDisposition != kCreateNew && IsReadOnlyFile(st) && (write || truncating))) {
      SetLastError(kErrorAccessDenied);
      return kInvalidHandle;
    }
  }
  int fd = ::open(host.c_str(), flags, 0666);
  if (fd < 0) {
    SetLastError(errno == EEXIST ? kErrorFileExists : CodeFor(errno, host));
    return kInvalidHandle;
  }
  auto file = std::make_shared<OpenFile>();
  file->fd = fd;
  return posix::RegisterHandle(posix::HandleKind::File, file);
}

bool WriteFile(Handle file, const void* data, std::uint32_t size, std::uint32_t& written) {
  QV_FAULT_POINT("WriteFile", return false);
  written = 0;
  auto* open = posix::LookUpHandle<OpenFile>(file, posix::HandleKind::File);
  if (open == nullptr) return Fail(kErrorInvalidHandle);
  const char* bytes = static_cast<const char*>(data);
  while (written < size) {
    ssize_t n = ::write(open->fd, bytes + written, size - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return Fail(ErrnoToWinError(errno));
    }
    written += static_cast<std::uint32_t>(n);
  }
  return true;
}

bool FlushFileBuffers(Handle file) {
  QV_FAULT_POINT("FlushFileBuffers", return false);
  auto* open = posix::LookUpHandle<OpenFile>(file, posix::HandleKind::File);
  if (open == nullptr) return Fail(kErrorInvalidHandle);
  if (::fsync(open->fd) != 0) return Fail(ErrnoToWinError(errno));
  return true;
}

Handle FindFirstFileW(const WString& pattern, FindData& data) {
  QV_FAULT_POINT("FindFirstFileW", return kInvalidHandle, pattern);
  std::size_t cut = pattern.find_last_of(u"\\/");
  WString folder = cut == WString::npos ? WString(u".") : pattern.substr(0, cut + 1);
  WString mask = cut == WString::npos ? pattern : pattern.substr(cut + 1);
  if (mask.empty()) {
    SetLastError(kErrorFileNotFound);
    return kInvalidHandle;
  }
  std::string host;
  std::size_t depth = 0;
  if (!Resolve(folder, host, depth)) return kInvalidHandle;
  DIR* dir = ::opendir(host.c_str());
  if (dir == nullptr) {
    SetLastError(errno == ENOENT || errno == ENOTDIR ? kErrorPathNotFound : ErrnoToWinError(errno));
    return kInvalidHandle;
  }
  auto search = std::make_shared<Search>();
  // "." and ".." first, then the names in the order Windows lists them, not
  // the order of the Linux file system (a hash order on ext4).
  for (const char16_t* dots : {u".", u".."}) {
    if (MatchesPattern(mask, dots)) search->entries.push_back({kFileAttributeDirectory, dots});
  }
  std::vector<posix::ListedName> names;
  while (dirent* e = ::readdir(dir)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    WString wide = Utf8ToWide(name);
    if (MatchesPattern(mask, wide)) names.push_back({std::move(wide), std::move(name), {}});
  }
  ::closedir(dir);
  posix::SortAsListed(names);
  std::string base = host == "/" ? "" : host;
  for (posix::ListedName& name : names) {
    bool ok = false;
    std::uint32_t attributes = AttributesOf(base + "/" + name.host, depth + 1, name.host, ok);
    if (!ok) continue;  // vanished since the listing
    search->entries.push_back({attributes, std::move(name.name)});
  }
  if (search->entries.empty()) {
    SetLastError(kErrorFileNotFound);
    return kInvalidHandle;
  }
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
  if (!posix::FullPathName(fileName, full, error)) {
    SetLastError(error);
    return 0;
  }
  if (full.size() + 1 > bufferLength) return static_cast<std::uint32_t>(full.size() + 1);
  result = full;
  return static_cast<std::uint32_t>(full.size());
}

std::uint32_t GetModuleFileNameW(WString& path, std::uint32_t capacity) {
  QV_FAULT_POINT("GetModuleFileNameW", return 0);
  std::vector<char> buffer(PATH_MAX + 1);
  ssize_t n = ::readlink("/proc/self/exe", buffer.data(), PATH_MAX);
  if (n <= 0) {
    SetLastError(ErrnoToWinError(errno));
    return 0;
  }
  WString windows;
  if (!posix::ToWindowsPath(std::string(buffer.data(), static_cast<std::size_t>(n)), windows)) {
    SetLastError(kErrorPathNotFound);
    return 0;
  }
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
