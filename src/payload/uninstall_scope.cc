#include <algorithm>
#include <cstdint>

#include "inventory/inventory.h"
#include "paths/path_rules.h"
#include "payload/payload.h"
#include "platform/platform.h"

namespace qv {

namespace {

// Whether the profile's add-in directory holds the add-in's manifest, the
// mark that the add-in there is this tool's.
bool HoldsManifest(const FusionInstallation& record) {
  const WString manifest = JoinPath(AddInDirectory(record), u"KELDARO_Quorvane.manifest");
  const std::uint32_t attributes = platform::GetFileAttributesW(manifest);
  return attributes != platform::kInvalidFileAttributes && (attributes & platform::kFileAttributeDirectory) == 0;
}

bool CoversProfile(const FusionInstallationList& installations, const WString& appData) {
  return std::any_of(installations.begin(), installations.end(),
                     [&](const FusionInstallation& known) { return SamePath(known.appData, appData); });
}

}  // namespace

bool SelectUninstallTargets(const WString& appData, const WString& localAppData,
                            FusionInstallationList& installations, WString& error) {
  FusionInstallationList saved;
  if (!LoadInventory(localAppData, saved, error)) return false;

  // The run's own profile comes last, so that a saved or discovered record of
  // the same profile keeps its executable.
  saved.push_back(FusionInstallation{WString(), CanonicalPath(appData)});

  for (const FusionInstallation& record : saved) {
    // A folder that is no absolute drive-letter path (a relative folder, a
    // network path) names no add-in directory; probing the bare manifest
    // name against the working directory would only find a stranger's file.
    if (record.appData.empty()) continue;
    if (!HoldsManifest(record)) continue;
    // The list grows as records are added: one target per profile, the
    // first record of it wins.
    if (CoversProfile(installations, record.appData)) continue;
    installations.push_back(record);
  }
  return true;
}

}  // namespace qv
