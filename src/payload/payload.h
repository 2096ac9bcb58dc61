// Building an add-in directory and judging it.
#pragma once

#include "paths/installation.h"

namespace qv {

// Lays the tree of `source` over `target`.
bool CopyAddInPayload(const WString& source, const WString& target, WString& error);

// Lays the package's AddIn over `target`, adds the helper and the state file.
bool PrepareAddIn(const WString& packageRoot, const WString& target, WString& error);

// True when the seven files of a complete add-in are regular files.
bool IsAddInHealthy(const WString& addInDirectory);

// Widens the list for an uninstall with the saved and default profiles that
// still hold the add-in's manifest.
bool SelectUninstallTargets(const WString& appData, const WString& localAppData,
                            FusionInstallationList& installations, WString& error);

}  // namespace qv
