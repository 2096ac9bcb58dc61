// The two per-user folders of the account the process runs under.
#pragma once

#include "platform/platform.h"

namespace qv {

// A REG_SZ value as it stands, or a REG_EXPAND_SZ value expanded, each up to
// its first NUL; empty for a value that is absent, of another type, of
// 65,536 bytes or more, or that expands to 32,768 characters or more.
WString ReadRegistryPathValue(platform::RegKey key, const WString& valueName);

// The profile folder of the process's account from the machine's profile
// list, or empty.
WString GetProfileRoot();

// The roaming (26) or local (28) application data folder, or empty: from the
// profile list, else as the owner of the session's shell sees it, else as the
// process's own account sees it.
WString GetUserFolder(int csidl);

}  // namespace qv
