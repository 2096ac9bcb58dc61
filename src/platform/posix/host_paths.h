// Windows paths on the Linux host: GetFullPathNameW's normalisation, the
// prefix's drive map that turns a Windows path into a host path and back, and
// the reading of a whole host file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/wstring.h"

namespace qv::platform::posix {

// GetFullPathNameW's normalisation: "/" to "\", relative and rooted forms
// against the current directory (the working directory in Windows form), "."
// and ".." resolved, repeated separators collapsed, trailing dots and blanks
// of the last element dropped. A UNC or device path keeps its root. False
// (kErrorInvalidName) for an empty name.
bool FullPathName(const WString& name, WString& full, std::uint32_t& error);

// Resolves a Windows path to a host path: the full path's drive letter
// leads through $WINEPREFIX/dosdevices/<x>: (Z: is "/" unless mapped); each
// later component is tried as written, then matched without regard to case
// among its folder's entries, as Wine does; components that do not exist are
// kept as written. `depth`, when asked, counts the components below the
// drive root (0 for the root, whose link maps the drive: no reparse point).
// False with `error` set (3 for an unmapped drive, 53 for a network path,
// 123 for a name the host cannot hold) when there is no host path.
bool ToHostPath(const WString& windowsPath, std::string& hostPath, std::uint32_t& error,
                std::size_t* depth = nullptr);

// A host path in Windows form, through the drive whose target is its longest
// prefix, Z: last. False when no drive maps it.
bool ToWindowsPath(const std::string& hostPath, WString& windowsPath);

// The Windows code of a failed call on a host path: for ENOENT, "file not
// found" when the folder that would hold it exists and "path not found" when
// it does not, as Windows tells them apart.
std::uint32_t CodeForPath(int err, const std::string& hostPath);

// The whole content of a host file (registry files, profile files, version
// resources, the process table's files). False with the Windows error code:
// 2 for a missing file, 3 for a missing folder on the way, 5 for a folder or
// anything else that is no plain file, 223 for a file larger than `limit`
// bytes, which is not read.
bool ReadFileBytes(const std::string& hostPath, std::string& bytes, std::uint32_t& error,
                   std::uint64_t limit = UINT64_MAX);

}  // namespace qv::platform::posix
