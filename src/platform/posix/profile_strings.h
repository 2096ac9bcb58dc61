// The Linux host answers GetPrivateProfileStringW with the shared profile
// reader (platform/profile_reader.h), under the names its tests know.
#pragma once

#include "platform/profile_reader.h"

namespace qv::platform::posix {

using profile::IndexProfile;
using profile::ProfileIndex;
using profile::ReadProfileString;
using profile::UnreadableProfileDefault;

}  // namespace qv::platform::posix
