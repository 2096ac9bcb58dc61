// The two per-user folders of the account the process runs under.
#pragma once

#include "platform/wstring.h"

namespace qv {

// The profile folder of the process's account from the machine's profile
// list, or empty.
WString GetProfileRoot();

// The roaming (26) or local (28) application data folder, or empty: from the
// profile list, else as the owner of the session's shell sees it, else as the
// process's own account sees it.
WString GetUserFolder(int csidl);

}  // namespace qv
