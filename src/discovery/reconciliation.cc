#include "discovery/discovery.h"
#include "inventory/inventory.h"
#include "paths/path_rules.h"

namespace qv {

namespace {

bool Contains(const ExecutableList& list, const WString& path) {
  for (const WString& entry : list) {
    if (SamePath(entry, path)) return true;
  }
  return false;
}

// Appends unless a SamePath-equal entry is there: the earliest source keeps
// its position and its text.
void AppendUnique(ExecutableList& list, const WString& path) {
  if (!Contains(list, path)) list.push_back(path);
}

}  // namespace

bool ReconcileInstallations(const ExecutableList& found, const ExecutableList& running,
                            const FusionInstallationList& saved, const WString& appData,
                            FusionInstallationList& installations, WString& error) {
  installations.clear();
  error.clear();

  // The scans tested their entries already.
  ExecutableList candidates = found;

  // A running Fusion without the API is not passed over: it stops the run.
  // One that runs from a network or device path has no profile to tie the
  // add-in to, and is named as such rather than as lacking the API.
  for (const WString& executable : running) {
    if (IsOffDrivePath(executable)) {
      error = u"Running Fusion is not on a local drive, so its Add-In profile cannot be used: " + executable;
      return false;
    }
    if (!HasElectronicsApi(executable)) {
      error = u"Running Fusion lacks the required Electronics API: " + executable;
      return false;
    }
    AppendUnique(candidates, executable);
  }

  // A saved executable that has gone, or lost its API, simply does not count
  // for this run; the inventory file is left as it is.
  for (const FusionInstallation& record : saved) {
    const WString executable = CanonicalPath(record.executable);
    if (executable.empty() || !HasElectronicsApi(executable)) continue;
    AppendUnique(candidates, executable);
  }

  for (const WString& candidate : candidates) {
    const WString discoveredExecutable = Contains(found, candidate) ? candidate : WString();
    // The last saved record for the executable decides.
    WString savedAppData;
    for (const FusionInstallation& record : saved) {
      if (SamePath(record.executable, candidate)) savedAppData = record.appData;
    }

    FusionInstallation installation;
    if (!IdentifyAddInProfile(candidate, savedAppData, discoveredExecutable, appData, installation, error)) {
      installations.clear();
      return false;
    }
    installations.push_back(installation);
  }
  return true;
}

bool DiscoverIsolatedInstallations(const WString& appData, const WString& localAppData,
                                   FusionInstallationList& installations, WString& error) {
  installations.clear();
  error.clear();

  // Neither the registry nor the processes: the webdeploy tree and the
  // inventory under the local test folder are the only sources.
  ExecutableList found;
  const ExecutableList running;
  FusionInstallationList saved;

  const WString root = PathAppend(PathAppend(PathAppend(localAppData, u"Autodesk"), u"webdeploy"), u"production");
  ScanWebDeploy(root, found);
  if (!LoadInventory(localAppData, saved, error)) return false;
  return ReconcileInstallations(found, running, saved, appData, installations, error);
}

}  // namespace qv
