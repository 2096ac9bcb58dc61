#include "discovery/discovery.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

namespace {

// The portable layout around a bin folder: bin\Fusion360.exe beside a
// PortableData tree with Roaming holding the API folder and a Local folder.
// Gives the Roaming folder, or empty when the layout is not there.
WString PortableProfile(const WString& canonicalExecutable) {
  const WString binFolder = ParentPath(canonicalExecutable);
  const WString installRoot = ParentPath(binFolder);
  const WString portableRoot = JoinPath(installRoot, u"PortableData");

  // The bin folder's last component is the text behind the install root and
  // one separator. An executable directly on a drive root has no install
  // root, and "C:" has nothing of the kind.
  if (installRoot.empty() || binFolder.size() <= installRoot.size() + 1) return {};
  if (!SamePath(binFolder.substr(installRoot.size() + 1), u"bin")) return {};

  const WString roaming = JoinPath(portableRoot, u"Roaming");
  if (!DirectoryExists(FusionApiRoot(roaming))) return {};
  if (!DirectoryExists(JoinPath(portableRoot, u"Local"))) return {};
  return roaming;
}

}  // namespace

bool DirectoryExists(const WString& path) {
  const std::uint32_t attributes = platform::GetFileAttributesW(path);
  return attributes != platform::kInvalidFileAttributes && (attributes & platform::kFileAttributeDirectory) != 0;
}

bool IdentifyAddInProfile(const WString& executable, const WString& savedAppData, const WString& discoveredExecutable,
                          const WString& appData, FusionInstallation& installation, WString& error) {
  installation.executable.clear();
  installation.appData.clear();

  // The candidate was tested by reconciliation already; its files may have
  // gone since.
  const WString canonicalExecutable = CanonicalPath(executable);
  if (canonicalExecutable.empty() || !HasElectronicsApi(canonicalExecutable)) {
    error = u"Fusion executable or Electronics API files are missing: " + executable;
    return false;
  }

  WString profile;
  if (!savedAppData.empty()) {
    // A saved record decides alone: its profile must be the current one or
    // hold the API folder, and nothing else can stand in for it.
    profile = CanonicalPath(savedAppData);
    const bool accepted =
        !profile.empty() && (SamePath(profile, CanonicalPath(appData)) || DirectoryExists(FusionApiRoot(profile)));
    if (!accepted) {
      error = u"The selected Fusion profile must contain Autodesk\\Autodesk Fusion 360\\API.";
      return false;
    }
  } else {
    // The portable layout beats the default profile; the default profile is
    // only for an executable that a scan reported.
    profile = PortableProfile(canonicalExecutable);
    if (profile.empty()) {
      if (discoveredExecutable.empty()) {
        error = u"Fusion was found, but its Add-In profile cannot be identified automatically: " + canonicalExecutable;
        return false;
      }
      profile = CanonicalPath(appData);
    }
  }

  if (profile.empty()) {
    error = u"Fusion AppData is unavailable.";
    return false;
  }
  installation.executable = canonicalExecutable;
  installation.appData = profile;
  error.clear();
  return true;
}

}  // namespace qv
