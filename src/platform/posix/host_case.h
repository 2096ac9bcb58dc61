// The case table of the Linux host: how Windows compares and orders names,
// each UTF-16 code unit upper-cased by Wine's case table, then compared unit
// by unit. NTFS keeps a folder's
// names in that order, and Wine sorts its listings so, so FindFirstFileW and
// FindNextFileW give the entries in that order on either.
#pragma once

#include "platform/wstring.h"

namespace qv::platform::posix {

// The upper case of one UTF-16 code unit.
char16_t UpcaseCodeUnit(char16_t c);

// The name with each code unit upper-cased: two names are the same to
// Windows when these are equal.
WString UpcaseName(WString name);

// Whether two names are the same to Windows: file names, registry key and
// value names, environment variable names.
bool SameNameIgnoringCase(WStringView a, WStringView b);

// Whether `a` comes before `b` in a folder's listing: by the upper-cased
// code units, a name before the longer names it begins.
bool ListsBefore(const WString& a, const WString& b);

}  // namespace qv::platform::posix
