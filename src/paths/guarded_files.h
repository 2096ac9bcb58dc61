// The file operations the transaction and its neighbours rely on, with the
// exact meaning of their answers: the two reparse-point tests that every
// path the transaction moves or copies goes through, the path status, and
// directory creation and renaming.
#pragma once

#include <cstdint>

#include "platform/wstring.h"

namespace qv {

enum class PathKind { Missing, RegularFile, Directory, Other, Unknown };

// One query of a path with links followed. A query that fails because the
// path is not there (codes 2, 3, 53, 123) gives Missing with error 0; any
// other failure gives Unknown and keeps the code.
struct PathStatus {
  PathKind kind = PathKind::Unknown;
  std::uint32_t error = 0;
};

PathStatus QueryPathStatus(const WString& path);

// Whether a failed status query's code means only that the path is absent.
bool IsMissingPathError(std::uint32_t code);

// True when neither the path nor any ancestor is a reparse point. Components
// that are missing or cannot be queried are passed over, so a path whose last
// elements are yet to be made can be tested. Never fails.
bool HasNoReparsePoint(const WString& path);

// True when HasNoReparsePoint holds and the path is either missing or a
// directory in whose whole tree no entry is, or may be, a reparse point: a
// folder that cannot be listed counts against the tree. Never raises.
bool IsSafeDirectoryTree(const WString& path);

// Whether the path exists. An unknown status gives false and its code in
// `error`; otherwise `error` is 0.
bool PathExists(const WString& path, std::uint32_t& error);

// The same; an unknown status raises FilesystemFailure "exists".
bool PathExists(const WString& path);

// True only for a regular file; a missing path is false. An unknown status
// raises FilesystemFailure "status".
bool IsRegularFile(const WString& path);

// Makes one folder whose parent is there. True when this call made it;
// `error` is 0 when the path is a folder afterwards, made or found there,
// and otherwise the code of the call: 183 for anything else in its place,
// a link or junction to a folder included.
bool MakeDirectory(const WString& path, std::uint32_t& error);

// Makes the path and every missing directory above it, below its root, each
// element as MakeDirectory does. `error` is 0 when the last element is a
// folder afterwards;
// otherwise it is the last error on the way that is no missing-path code,
// or failing that the last element's. An empty path gives error 3. True only
// when this call made the last element.
bool CreateDirectories(const WString& path, std::uint32_t& error);

// Moves a file or a whole directory, replacing a file at `to` but never a
// directory, across volumes too. 0 on success, else the platform's code.
std::uint32_t RenamePath(const WString& from, const WString& to);

}  // namespace qv
