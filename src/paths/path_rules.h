// How paths are composed, made canonical and compared.
//
// Paths are UTF-16 strings in Windows form. Two families sit side by side on
// purpose and give different answers: JoinPath and ParentPath look only at
// characters, while PathAppend and PathParent know what a root is (a drive
// "C:", a device prefix "\\?\", a network name "\\host"). Apart from the one
// GetFullPathNameW call in CanonicalPath, nothing here touches the disk.
#pragma once

#include "paths/installation.h"
#include "platform/wstring.h"

namespace qv {

// The absolute, normalised form of a path of drive-letter shape ("X:\..." or
// "X:/..."), without trailing backslashes except on a bare drive root; empty
// for any other shape, for a path holding a double quote, CR or LF, and when
// the platform cannot resolve it within 32767 characters.
WString CanonicalPath(const WString& path);

// `base`, one "\" unless base is empty or already ends in "\", and
// `relative` as it stands.
WString JoinPath(const WString& base, const WString& relative);

// Everything before the last "\" or "/"; empty when there is none.
WString ParentPath(const WString& path);

// The Fusion API root of a profile's AppData root.
WString FusionApiRoot(const WString& appData);

// The add-in's directory in the installation's profile; empty when the
// profile is unknown. The executable plays no part.
WString AddInDirectory(const FusionInstallation& installation);

// The saved inventory file below the local per-user folder.
WString InventoryPath(const WString& localAppData);

// Appends a relative element, adding "\" where the path needs one: not after
// an empty path, a bare drive "C:" or a trailing separator; always after a
// bare network or device root name.
WString PathAppend(const WString& path, const WString& element);

// The path without its last element; a root ("C:", "C:\", "\\host\") is its
// own parent, and a single relative element has the empty parent.
WString PathParent(const WString& path);

// Equal length and equal code units once A-Z are folded to a-z; nothing else
// folds, and separators get no special treatment.
bool SamePath(const WString& a, const WString& b);

// A copy with A-Z turned to a-z and every other code unit unchanged, as
// towlower does in the C locale.
WString ToLowerCopy(const WString& text);

// Length of the root name at the start of `path` (0 when it has none): a
// drive letter and colon, a device prefix, or a network name.
std::size_t RootNameLength(const WString& path);

// Whether the code unit separates path elements ("\" or "/").
inline bool IsSeparator(WChar c) { return c == u'\\' || c == u'/'; }

}  // namespace qv
