// Building an add-in directory and judging it.
#pragma once

#include <cstdint>

#include "paths/installation.h"

namespace qv {

// Lays the tree of `source` over `target`.
bool CopyAddInPayload(const WString& source, const WString& target, WString& error);

// Copies a file into an add-in being built, replacing what is there: 0, or
// the code of the call that failed. The copy brings the source's attributes.
std::uint32_t CopyFileIntoAddIn(const WString& from, const WString& to);

// For a write into an add-in being built that failed with `code`: when the
// code is "access denied" and the file at `path` is read-only, hidden or
// system (as an earlier copy may have made it), clears those bits, so that
// the write can be tried once more. False when there was nothing to clear,
// `code` unchanged, or when clearing failed, `code` then its error.
bool MakeReplaceable(const WString& path, std::uint32_t& code);

// Lays the package's AddIn over `target`, adds the helper and the state file.
bool PrepareAddIn(const WString& packageRoot, const WString& target, WString& error);

// True when the seven files of a complete add-in are regular files.
bool IsAddInHealthy(const WString& addInDirectory);

// Widens the list for an uninstall with the saved and default profiles that
// still hold the add-in's manifest.
bool SelectUninstallTargets(const WString& appData, const WString& localAppData,
                            FusionInstallationList& installations, WString& error);

}  // namespace qv
