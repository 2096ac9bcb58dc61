// The exit codes of the tool, which belong to the entry point; a failed
// transaction and the status report hand theirs up to it.
#pragma once

namespace qv {

inline constexpr int kExitSuccess = 0;
// /status only: no installation, or an add-in missing or incomplete.
inline constexpr int kExitIncomplete = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoUserFolders = 3;
// Discovery failed, the uninstall targets could not be read, or no Fusion was
// found for /install.
inline constexpr int kExitNotFound = 5;
inline constexpr int kExitTransactionFailed = 6;
inline constexpr int kExitRunLockHeld = 7;

}  // namespace qv
