#include <cstdint>

#include "paths/directory_walk.h"
#include "paths/failure.h"
#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "payload/payload.h"
#include "platform/platform.h"

namespace qv {

namespace {

WString CodeText(std::uint32_t code) { return SignedDecimalText(static_cast<std::int32_t>(code)); }

// Reproduces one entry of the source tree at `entryTarget`, whose folder is
// already laid down: the target itself, or a folder that the walk delivered,
// and this copy made, before what it holds. Returns the code of the operation
// that failed, 0 when the entry is done or passed over.
std::uint32_t LayEntry(const WalkEntry& entry, const WString& entryTarget) {
  // The listing tells a folder from a file. Only a link (or, on the Linux
  // host, a pipe, socket or device) needs its status: a link is followed
  // here, so that a link to a folder gives a real, empty folder (the walk
  // does not enter it), a link to a file gives a copy of the file, and a
  // link that leads nowhere counts as a vanished entry, as does anything
  // else that is neither.
  PathKind kind =
      (entry.attributes & platform::kFileAttributeDirectory) != 0 ? PathKind::Directory : PathKind::RegularFile;
  if ((entry.attributes & (platform::kFileAttributeReparsePoint | platform::kFileAttributeDevice)) != 0) {
    const PathStatus status = QueryPathStatus(entry.path);
    if (status.kind == PathKind::Unknown) throw FilesystemFailure("directory_entry::status", status.error, entry.path);
    kind = status.kind;
  }
  std::uint32_t code = 0;
  switch (kind) {
    case PathKind::Directory:
      MakeDirectory(entryTarget, code);
      return code;
    case PathKind::RegularFile:
      return CopyFileIntoAddIn(entry.path, entryTarget);
    case PathKind::Unknown:
    case PathKind::Missing:
    case PathKind::Other:
      break;
  }
  return 0;
}

}  // namespace

bool MakeReplaceable(const WString& path, std::uint32_t& code) {
  constexpr std::uint32_t kInTheWay =
      platform::kFileAttributeReadonly | platform::kFileAttributeHidden | platform::kFileAttributeSystem;
  if (code != platform::kErrorAccessDenied) return false;
  const std::uint32_t attributes = platform::GetFileAttributesW(path);
  if (attributes == platform::kInvalidFileAttributes || (attributes & kInTheWay) == 0 ||
      (attributes & (platform::kFileAttributeDirectory | platform::kFileAttributeReparsePoint)) != 0) {
    return false;
  }
  std::uint32_t plain = attributes & ~kInTheWay;
  if (plain == 0) plain = platform::kFileAttributeNormal;
  if (!platform::SetFileAttributesW(path, plain)) {
    code = platform::GetLastError();
    return false;
  }
  return true;
}

std::uint32_t CopyFileIntoAddIn(const WString& from, const WString& to) {
  // The add-in being built is the tool's own copy. Attributes travel with
  // each copy, so a file that an earlier copy made read-only or hidden there
  // (from a package on a CD, or from the old add-in) refuses the next one:
  // it is made plain, and the copy then brings the source's attributes.
  if (platform::CopyFileW(from, to, false)) return 0;
  std::uint32_t code = platform::GetLastError();
  if (!MakeReplaceable(to, code)) return code;
  return platform::CopyFileW(from, to, false) ? 0 : platform::GetLastError();
}

bool CopyAddInPayload(const WString& source, const WString& target, WString& error) {
  // Missing, a file, or a status that cannot be had: all the same to the
  // caller, and nothing is made in the target.
  if (QueryPathStatus(source).kind != PathKind::Directory) {
    error = u"Package AddIn folder is missing: " + source;
    return false;
  }

  std::uint32_t code = 0;
  CreateDirectories(target, code);
  if (code != 0) {
    error = u"Cannot create Add-In directory. Error " + CodeText(code);
    return false;
  }

  // The first code that comes up ends the walk; what was laid down so far
  // stays in the target.
  DirectoryWalk walk;
  for (bool on = OpenWalk(source, walk, code); on; on = AdvanceWalk(walk, code)) {
    code = LayEntry(walk.entry, PathAppend(target, walk.entry.relative));
    if (code != 0) {
      CloseWalk(walk);
      break;
    }
  }
  if (code != 0) {
    error = u"Cannot copy Add-In payload. Error " + CodeText(code);
    return false;
  }
  return true;
}

}  // namespace qv
