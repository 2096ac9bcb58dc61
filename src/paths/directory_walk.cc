#include "paths/directory_walk.h"

#include "paths/path_rules.h"

namespace qv {

namespace {

bool IsDotEntry(const WString& name) { return name == u"." || name == u".."; }

// Fills walk.entry from a listing record of the innermost folder.
void TakeEntry(DirectoryWalk& walk, const platform::FindData& data) {
  const FolderSearch& folder = walk.folders.back();
  walk.entry.path = JoinPath(folder.directory(), data.fileName);
  walk.entry.relative = folder.relative().empty() ? data.fileName : folder.relative() + u"\\" + data.fileName;
  walk.entry.attributes = data.attributes;
}

// Opens a search of `directory` and pushes it. On success `data` holds the
// folder's first listing record.
bool PushFolder(DirectoryWalk& walk, const WString& directory, const WString& relative, platform::FindData& data,
                std::uint32_t& error) {
  const platform::Handle search = platform::FindFirstFileW(JoinPath(directory, u"*"), data);
  if (search == platform::kInvalidHandle) {
    error = platform::GetLastError();
    return false;
  }
  walk.folders.emplace_back(search, directory, relative);
  return true;
}

// Moves to the next entry that is not "." or "..", starting with `data` when
// `haveData` and going up out of folders that are done.
bool SettleOnEntry(DirectoryWalk& walk, platform::FindData& data, bool haveData, std::uint32_t& error) {
  while (!walk.folders.empty()) {
    if (!haveData) {
      if (!platform::FindNextFileW(walk.folders.back().handle(), data)) {
        const std::uint32_t code = platform::GetLastError();
        if (code != platform::kErrorNoMoreFiles) {
          error = code;
          CloseWalk(walk);
          return false;
        }
        walk.folders.pop_back();
        continue;
      }
    }
    haveData = false;
    if (IsDotEntry(data.fileName)) continue;
    TakeEntry(walk, data);
    return true;
  }
  return false;
}

}  // namespace

bool OpenWalk(const WString& root, DirectoryWalk& walk, std::uint32_t& error) {
  CloseWalk(walk);
  error = 0;
  platform::FindData data;
  if (!PushFolder(walk, root, WString(), data, error)) return false;
  return SettleOnEntry(walk, data, true, error);
}

bool AdvanceWalk(DirectoryWalk& walk, std::uint32_t& error) {
  error = 0;
  if (walk.folders.empty()) return false;

  platform::FindData data;
  const std::uint32_t attributes = walk.entry.attributes;
  if ((attributes & platform::kFileAttributeDirectory) != 0 &&
      (attributes & platform::kFileAttributeReparsePoint) == 0) {
    // A folder that cannot be listed is not skipped: it ends the walk.
    const WString directory = walk.entry.path;
    const WString relative = walk.entry.relative;
    if (!PushFolder(walk, directory, relative, data, error)) {
      CloseWalk(walk);
      return false;
    }
    return SettleOnEntry(walk, data, true, error);
  }
  return SettleOnEntry(walk, data, false, error);
}

void CloseWalk(DirectoryWalk& walk) { walk.folders.clear(); }

}  // namespace qv
