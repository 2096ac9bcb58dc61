// What the rest of the Linux host asks of the prefix's registry files.
#pragma once

#include "platform/wstring.h"

namespace qv::platform::posix {

// The account's SID as user.reg names it in its
// ";; All keys relative to REGISTRY\\User\\<SID>" line. False when user.reg
// is missing or names none.
bool AccountSidFromUserReg(WString& sidText);

}  // namespace qv::platform::posix
