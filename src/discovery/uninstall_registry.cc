#include <vector>

#include "discovery/discovery.h"
#include "paths/path_rules.h"
#include "platform/platform.h"
#include "user/user_folders.h"

namespace qv {
namespace {

constexpr char16_t kUninstallKey[] = u"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
constexpr std::uint32_t kNameBufferCharacters = 512;

// RegEnumKeyExW is asked for ever higher indexes until it says there are no
// more. An error that repeats for every index (the Uninstall key deleted
// during the scan) would never say so: the scan gives up after this many
// failed indexes in a row. Real Uninstall keys hold a few hundred subkeys, so
// the bound leaves ample room for the odd unreadable entry.
constexpr std::uint32_t kMaxConsecutiveEnumFailures = 1024;

// The path part of a DisplayIcon value: the text between a leading pair of
// double quotes, else the text before the first comma.
WString IconPath(const WString& value) {
  if (!value.empty() && value[0] == u'"') {
    const std::size_t close = value.find(u'"', 1);
    if (close == WString::npos) return {};
    return value.substr(1, close - 1);
  }
  return value.substr(0, value.find(u','));
}

}  // namespace

void AddUniqueExecutable(ExecutableList& found, const WString& path) {
  const WString canonical = CanonicalPath(path);
  if (canonical.empty()) return;
  if (!HasElectronicsApi(canonical)) return;
  for (const WString& entry : found) {
    if (SamePath(entry, canonical)) return;
  }
  found.push_back(canonical);
}

void ScanUninstallRegistry(platform::RegKey root, std::uint32_t view, ExecutableList& found) {
  const std::uint32_t access = platform::kKeyRead | view;
  platform::ScopedRegKey uninstall;
  if (platform::RegOpenKeyExW(root, kUninstallKey, 0, access, *uninstall.out()) != 0) {
    *uninstall.out() = 0;
    return;
  }
  std::uint32_t failuresInARow = 0;
  for (std::uint32_t index = 0;; ++index) {
    WString name;
    const std::int32_t status = platform::RegEnumKeyExW(uninstall.get(), index, name, kNameBufferCharacters);
    if (status == static_cast<std::int32_t>(platform::kErrorNoMoreItems)) break;
    if (status != 0) {
      if (++failuresInARow >= kMaxConsecutiveEnumFailures) break;
      continue;
    }
    failuresInARow = 0;

    platform::ScopedRegKey subkey;
    if (platform::RegOpenKeyExW(uninstall.get(), name, 0, access, *subkey.out()) != 0) {
      *subkey.out() = 0;
      continue;
    }
    const WString displayName = ReadRegistryPathValue(subkey.get(), u"DisplayName");
    if (!SamePath(displayName, u"Autodesk Fusion") && !SamePath(displayName, u"Autodesk Fusion 360")) continue;

    const WString icon = IconPath(ReadRegistryPathValue(subkey.get(), u"DisplayIcon"));
    if (!icon.empty()) {
      AddUniqueExecutable(found, JoinPath(ParentPath(icon), u"Fusion360.exe"));
      // For an icon in a subfolder of the webdeploy tree this is the
      // production folder, so one entry leads to every build beside it.
      ScanWebDeploy(ParentPath(ParentPath(icon)), found);
    }
    const WString location = ReadRegistryPathValue(subkey.get(), u"InstallLocation");
    if (!location.empty()) {
      AddUniqueExecutable(found, JoinPath(location, u"Fusion360.exe"));
      AddUniqueExecutable(found, JoinPath(location, u"bin\\Fusion360.exe"));
    }
  }
}

}  // namespace qv
