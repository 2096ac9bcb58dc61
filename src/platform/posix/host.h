// The Linux host as the Windows machine: a Wine prefix, its drive map and the
// kernel's process table. Internal to the posix backend.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/wstring.h"

namespace qv::platform::posix {

// $WINEPREFIX, or $HOME/.wine; no trailing slash.
std::string PrefixDirectory();

// $QUORVANE_PROC_ROOT, or /proc; no trailing slash.
std::string ProcRoot();

// Windows error code for an errno value.
std::uint32_t ErrnoToWinError(int err);

// Opens a host file for reading. -1 with the Windows code when it cannot be
// opened: a missing file is 2, a missing folder on the way 3.
int OpenForReading(const std::string& hostPath, std::uint32_t& error);

// Resolves a Windows path to a host path through the prefix's drive map.
//
// The path is first made absolute and normalised as GetFullPathNameW does
// (against the current directory, which is the working directory in its
// Windows form). The drive letter leads through $WINEPREFIX/dosdevices/<x>:
// (Z: is "/" when the prefix does not map it); each later component is tried
// as written, then matched without regard to case against the folder's
// entries. Components that do not exist are kept as written, so the result
// names where a new file would go.
//
// False with `error` set (kErrorPathNotFound for an unmapped drive or a
// network path, kErrorInvalidName for a name the host cannot hold) when there
// is no host path.
bool ToHostPath(const WString& windowsPath, std::string& hostPath, std::uint32_t& error);

// The same, also telling how many components lie below the drive root (0 for
// the root itself): a link at depth 0 maps a drive and is no reparse point.
bool ResolveHostPath(const WString& windowsPath, std::string& hostPath, std::size_t& depth, std::uint32_t& error);

// A resolved path with what the resolution learnt of its last element on the
// way, so that a caller need not ask the file system again.
struct HostEntry {
  enum class State {
    Present,  // lstat of `path` succeeded: `status` holds it
    Absent,   // lstat of `path` failed with ENOENT
    Unknown,  // not asked, or failed otherwise: the caller asks itself
  };
  std::string path;
  std::size_t depth = 0;
  State state = State::Unknown;
  struct stat status {};
  // For an absent entry, the Windows code of its absence when the resolution
  // knows it: 2 when the folder that would hold it is there, 3 when a folder
  // on the way is missing; 0 when the caller must find out.
  std::uint32_t missingCode = 0;
};

// ResolveHostPath, keeping the lstat of the last element when it was made.
bool ResolveHostEntry(const WString& windowsPath, HostEntry& entry, std::uint32_t& error);

// GetFullPathNameW's normalisation: "/" to "\", relative and rooted forms
// against the current directory, "." and ".." resolved, repeated separators
// collapsed, trailing dots and blanks of the last element dropped. A UNC or
// device path keeps its root. False (kErrorInvalidName) for an empty name.
bool FullPathName(const WString& name, WString& full, std::uint32_t& error);

// Whether the host path lies at or below a drive root, and how deep: 0 for
// the root itself. Links at depth 0 map drives and are not reparse points.
// -1 when no drive maps the path.
int DepthBelowDriveRoot(const std::string& hostPath);

// A host path in Windows form, through the drive whose target is its longest
// prefix, Z: last. False when no drive maps it.
bool ToWindowsPath(const std::string& hostPath, WString& windowsPath);

// The account's SID as user.reg names it in its
// ";; All keys relative to REGISTRY\\User\\<SID>" line. False when user.reg
// is missing or names none.
bool AccountSidFromUserReg(WString& sidText);

// The process's working directory in Windows form ("Z:\\home\\x").
WString CurrentDirectoryWindows();

// The upper case of one UTF-16 code unit, as Wine's case table gives it.
char16_t UpcaseCodeUnit(char16_t c);

// An entry of a folder listing: its Windows name, its host name, and the key
// SortAsListed fills in.
struct ListedName {
  WString name;
  std::string host;
  WString key;
};

// Sorts entries as Windows lists a folder (NTFS keeps this order, and Wine
// sorts its listings so): by the names' code units upper-cased one by one,
// a name before the longer names it begins.
void SortAsListed(std::vector<ListedName>& names);

}  // namespace qv::platform::posix
