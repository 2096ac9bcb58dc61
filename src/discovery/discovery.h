// Finding the Fusion installations of the account and tying each to its
// Add-In profile.
#pragma once

#include <cstdint>

#include "paths/installation.h"
#include "platform/platform.h"

namespace qv {

// True when `executable` names a Fusion360.exe with the Electronics API
// beside it.
bool HasElectronicsApi(const WString& executable);

// Appends every complete installation in an immediate subfolder of `folder`.
void ScanWebDeploy(const WString& folder, ExecutableList& found);

// Whether the path is a folder (GetFileAttributesW with the folder bit).
bool DirectoryExists(const WString& path);

// Ties one candidate to its profile: saved record, portable layout, then the
// default profile of a found executable.
bool IdentifyAddInProfile(const WString& executable, const WString& savedAppData, const WString& discoveredExecutable,
                          const WString& appData, FusionInstallation& installation, WString& error);

// Merges the found, running and saved executables into one list of
// installations, each tied to its profile.
bool ReconcileInstallations(const ExecutableList& found, const ExecutableList& running,
                            const FusionInstallationList& saved, const WString& appData,
                            FusionInstallationList& installations, WString& error);

// Discovery from the two test folders alone.
bool DiscoverIsolatedInstallations(const WString& appData, const WString& localAppData,
                                   FusionInstallationList& installations, WString& error);

// The Uninstall keys of one root in one registry view.
void ScanUninstallRegistry(platform::RegKey root, std::uint32_t view, ExecutableList& found);
void AddUniqueExecutable(ExecutableList& found, const WString& path);

// The Fusion360.exe processes of this session and account: canonical paths,
// and the image path as it stands of one that runs off the drives.
bool ListRunningFusionExecutables(ExecutableList& running, WString& error);
// Whether a non-empty path lacks the drive-letter shape ("X:\..."): a network
// or device path, or a relative one.
bool IsOffDrivePath(const WString& path);
bool IsOwnedByCurrentUser(platform::Handle process);

// Discovery on the real machine, from all four sources.
bool DiscoverFusionInstallations(const WString& appData, const WString& localAppData,
                                 FusionInstallationList& installations, WString& error);

}  // namespace qv
