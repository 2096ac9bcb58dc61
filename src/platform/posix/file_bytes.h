// The whole content of a file named by a Windows path, for the calls that
// read a file through the seam (profile strings, version resources).
#pragma once

#include <cstdint>
#include <string>

#include "platform/wstring.h"

namespace qv::platform::posix {

// False with the Windows error code: 2 for a missing file, 3 for a missing
// folder on the way, 5 for a folder or anything else that is no plain file.
bool ReadFileBytes(const WString& path, std::string& bytes, std::uint32_t& error);

}  // namespace qv::platform::posix
