// Windows error codes for the Linux host's failures.
#pragma once

#include <cstdint>

#include "platform/platform.h"

namespace qv::platform::posix {

// The Windows error code for an errno value.
std::uint32_t ErrnoToWinError(int err);

// Sets the last error and answers false, for the calls that fail so.
inline bool Fail(std::uint32_t code) {
  SetLastError(code);
  return false;
}

}  // namespace qv::platform::posix
