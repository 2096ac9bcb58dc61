// The whole content of a host file, for the calls that read a file whole
// (registry files, profile strings, version resources).
#pragma once

#include <cstdint>
#include <string>

namespace qv::platform::posix {

// False with the Windows error code: 2 for a missing file, 3 for a missing
// folder on the way, 5 for a folder or anything else that is no plain file.
bool ReadFileBytes(const std::string& hostPath, std::string& bytes, std::uint32_t& error);

}  // namespace qv::platform::posix
