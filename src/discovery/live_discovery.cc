#include "discovery/discovery.h"
#include "inventory/inventory.h"
#include "paths/path_rules.h"

namespace qv {

bool DiscoverFusionInstallations(const WString& appData, const WString& localAppData,
                                 FusionInstallationList& installations, WString& error) {
  // One found list for every scan, so that a path that an earlier scan
  // found is not entered again by a later one.
  ExecutableList found;
  ScanUninstallRegistry(platform::kHkeyCurrentUser, platform::kKeyWow64_32Key, found);
  ScanUninstallRegistry(platform::kHkeyCurrentUser, platform::kKeyWow64_64Key, found);
  ScanUninstallRegistry(platform::kHkeyLocalMachine, platform::kKeyWow64_32Key, found);
  ScanUninstallRegistry(platform::kHkeyLocalMachine, platform::kKeyWow64_64Key, found);
  ScanWebDeploy(JoinPath(localAppData, u"Autodesk\\webdeploy\\production"), found);

  ExecutableList running;
  if (!ListRunningFusionExecutables(running, error)) {
    installations.clear();
    return false;
  }
  FusionInstallationList saved;
  if (!LoadInventory(localAppData, saved, error)) {
    installations.clear();
    return false;
  }
  return ReconcileInstallations(found, running, saved, appData, installations, error);
}

}  // namespace qv
