#include "paths/guarded_files.h"

#include <utility>

#include "paths/directory_walk.h"
#include "paths/failure.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

namespace {

// Moves replace an existing file and may cross volumes; nothing else.
constexpr std::uint32_t kMoveFlags = platform::kMoveFileReplaceExisting | platform::kMoveFileCopyAllowed;

bool IsReparsePoint(std::uint32_t attributes) {
  return attributes != platform::kInvalidFileAttributes && (attributes & platform::kFileAttributeReparsePoint) != 0;
}

// A folder of its own: a link or junction to one is not.
bool IsPlainFolder(std::uint32_t attributes) {
  return attributes != platform::kInvalidFileAttributes && (attributes & platform::kFileAttributeDirectory) != 0 &&
         (attributes & platform::kFileAttributeReparsePoint) == 0;
}

}  // namespace

bool IsMissingPathError(std::uint32_t code) {
  return code == platform::kErrorFileNotFound || code == platform::kErrorPathNotFound ||
         code == platform::kErrorBadNetPath || code == platform::kErrorInvalidName;
}

PathStatus QueryPathStatus(const WString& path) {
  platform::NodeType type = platform::NodeType::Other;
  if (!platform::GetFileAttributesExW(path, type)) {
    const std::uint32_t code = platform::GetLastError();
    if (IsMissingPathError(code)) return {PathKind::Missing, 0};
    return {PathKind::Unknown, code};
  }
  switch (type) {
    case platform::NodeType::RegularFile: return {PathKind::RegularFile, 0};
    case platform::NodeType::Directory: return {PathKind::Directory, 0};
    case platform::NodeType::Other: break;
  }
  return {PathKind::Other, 0};
}

bool HasNoReparsePoint(const WString& path) {
  WString current = path;
  while (!current.empty()) {
    // A failed query finds nothing: missing or unreadable components are
    // passed over, and only a reparse bit that was actually seen counts.
    if (IsReparsePoint(platform::GetFileAttributesW(current))) return false;
    WString parent = PathParent(current);
    // The root is its own parent, and has just been tested.
    if (parent == current) return true;
    current = std::move(parent);
  }
  return true;
}

bool IsSafeDirectoryTree(const WString& path) {
  if (!HasNoReparsePoint(path)) return false;

  std::uint32_t error = 0;
  if (!PathExists(path, error)) return error == 0;
  if (QueryPathStatus(path).kind != PathKind::Directory) return false;

  // Every entry is tested before the walk may enter it, so the walk never
  // reads through a link. The listing gives each entry's own attributes, as
  // a query of the entry would, and a folder that cannot be listed ends the
  // walk with its code, which counts against the tree.
  DirectoryWalk walk;
  for (bool on = OpenWalk(path, walk, error); on; on = AdvanceWalk(walk, error)) {
    if (IsReparsePoint(walk.entry.attributes)) {
      CloseWalk(walk);
      return false;
    }
  }
  return error == 0;
}

bool PathExists(const WString& path, std::uint32_t& error) {
  const PathStatus status = QueryPathStatus(path);
  error = status.kind == PathKind::Unknown ? status.error : 0;
  return status.kind != PathKind::Missing && status.kind != PathKind::Unknown;
}

bool PathExists(const WString& path) {
  std::uint32_t error = 0;
  const bool exists = PathExists(path, error);
  if (error != 0) throw FilesystemFailure("exists", error, path);
  return exists;
}

bool IsRegularFile(const WString& path) {
  const PathStatus status = QueryPathStatus(path);
  if (status.kind == PathKind::Unknown) throw FilesystemFailure("status", status.error, path);
  return status.kind == PathKind::RegularFile;
}

bool MakeDirectory(const WString& path, std::uint32_t& error) {
  error = 0;
  if (platform::CreateDirectoryW(path)) return true;
  error = platform::GetLastError();
  // Something already there will do only when it is a folder of its own: a
  // link or junction in its place leads elsewhere, and stays an error.
  if (error == platform::kErrorAlreadyExists && IsPlainFolder(platform::GetFileAttributesW(path))) error = 0;
  return false;
}

bool CreateDirectories(const WString& path, std::uint32_t& error) {
  if (path.empty()) {
    error = platform::kErrorPathNotFound;
    return false;
  }

  // A folder that is already there needs nothing made, and one whose parent
  // is there is made at once: either spares two calls for every element of
  // a deep path. The walk below would come to the same end.
  if (IsPlainFolder(platform::GetFileAttributesW(path))) {
    error = 0;
    return false;
  }
  if (MakeDirectory(path, error)) return true;

  // Each prefix of the path that ends in an element is made in turn; the
  // root is not. Errors on the way do not stop the walk, since a prefix that
  // cannot be made may still exist.
  std::uint32_t lastOtherError = 0;  // last error that is no missing-path code
  std::uint32_t lastElementError = 0;
  bool lastElementMade = false;
  bool anyElement = false;

  std::size_t position = RootNameLength(path);
  while (true) {
    while (position < path.size() && IsSeparator(path[position])) ++position;
    if (position == path.size()) break;
    std::size_t end = position;
    while (end < path.size() && !IsSeparator(path[end])) ++end;

    std::uint32_t code = 0;
    const bool made = MakeDirectory(path.substr(0, end), code);
    if (code != 0 && !IsMissingPathError(code)) lastOtherError = code;
    lastElementError = code;
    lastElementMade = made;
    anyElement = true;
    position = end;
  }

  if (!anyElement) {
    // A bare root: nothing to make, and it is there or it is not.
    const PathStatus status = QueryPathStatus(path);
    if (status.kind == PathKind::Directory) {
      error = 0;
    } else {
      error = status.error != 0 ? status.error : platform::kErrorPathNotFound;
    }
    return false;
  }

  if (lastElementError == 0) {
    error = 0;
    return lastElementMade;
  }
  error = lastOtherError != 0 ? lastOtherError : lastElementError;
  return false;
}

std::uint32_t RenamePath(const WString& from, const WString& to) {
  if (platform::MoveFileExW(from, to, kMoveFlags)) return 0;
  return platform::GetLastError();
}

}  // namespace qv
