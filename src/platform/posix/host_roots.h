// Where the Linux host finds the Windows machine it stands for: the Wine
// prefix (drives, registry, user folders) and the process table.
#pragma once

#include <string>

namespace qv::platform::posix {

// $WINEPREFIX, or $HOME/.wine; no trailing slash.
std::string PrefixDirectory();

// $QUORVANE_PROC_ROOT, or /proc; no trailing slash. Tests lay out process
// tables of their own there.
std::string ProcRoot();

}  // namespace qv::platform::posix
