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

// Reproduces one entry of the source tree at `entryTarget`. Returns the code
// of the operation that failed, 0 when the entry is done or passed over.
std::uint32_t LayEntry(const WalkEntry& entry, const WString& entryTarget) {
  // Links are followed here: a link to a folder gives a real, empty folder
  // (the walk does not enter it), a link to a file gives a copy of the file,
  // and a link that leads nowhere counts as a vanished entry.
  const PathStatus status = QueryPathStatus(entry.path);
  std::uint32_t code = 0;
  switch (status.kind) {
    case PathKind::Directory:
      CreateDirectories(entryTarget, code);
      return code;
    case PathKind::RegularFile:
      CreateDirectories(PathParent(entryTarget), code);
      if (code != 0) return code;
      if (!platform::CopyFileW(entry.path, entryTarget, false)) return platform::GetLastError();
      return 0;
    case PathKind::Unknown:
      throw FilesystemFailure("directory_entry::status", status.error, entry.path);
    case PathKind::Missing:
    case PathKind::Other:
      break;
  }
  return 0;
}

}  // namespace

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
