// Windows error codes for the Linux host's failures.
#pragma once

#include <cstdint>

namespace qv::platform::posix {

// The Windows error code for an errno value.
std::uint32_t ErrnoToWinError(int err);

}  // namespace qv::platform::posix
