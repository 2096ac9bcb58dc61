#include "discovery/discovery.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

namespace {

// Whether the path exists with the folder bit as asked. A path that cannot
// be examined counts as absent, access denied included.
bool ExistsAs(const WString& path, bool folder) {
  const std::uint32_t attributes = platform::GetFileAttributesW(path);
  if (attributes == platform::kInvalidFileAttributes) return false;
  return ((attributes & platform::kFileAttributeDirectory) != 0) == folder;
}

}  // namespace

bool HasElectronicsApi(const WString& executable) {
  // The name is judged from the text alone, before anything on the disk.
  const std::size_t separator = executable.find_last_of(u"\\/");
  if (separator == WString::npos) return false;
  if (!SamePath(executable.substr(separator + 1), u"Fusion360.exe")) return false;

  // The API and Applications folders are siblings of the executable.
  const WString folder = ParentPath(executable);
  return ExistsAs(executable, false) && ExistsAs(JoinPath(folder, u"API\\Python\\packages\\adsk\\core.py"), false) &&
         ExistsAs(JoinPath(folder, u"API\\Python\\packages\\adsk\\electron.py"), false) &&
         ExistsAs(JoinPath(folder, u"Applications\\Electron\\LibEagle"), true);
}

}  // namespace qv
