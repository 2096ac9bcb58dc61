// GetPrivateProfileStringW on the Linux host: the shared profile reader over
// the file's bytes, read afresh at every call.
#include <string>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/host_paths.h"
#include "platform/profile_reader.h"

namespace qv::platform {

std::uint32_t GetPrivateProfileStringW(const WString& section, const WString& key, const WString& defaultValue,
                                       WString& value, std::uint32_t size, const WString& path) {
  QV_FAULT_POINT("GetPrivateProfileStringW", return profile::UnreadableProfileDefault(defaultValue, value, size),
                 section, key, path);
  std::string host;
  std::string bytes;
  std::uint32_t error = 0;
  if (!posix::ToHostPath(path, host, error) ||
      !posix::ReadFileBytes(host, bytes, error, profile::kLargestProfileFile)) {
    SetLastError(error);
    // A missing file reads as an empty one; any other failure gives the
    // default as written, quotes and all.
    if (error != kErrorFileNotFound) return profile::UnreadableProfileDefault(defaultValue, value, size);
  }
  return profile::ReadProfileString(bytes, section, key, defaultValue, value, size);
}

bool FlushPrivateProfileCache([[maybe_unused]] const WString& path) {
  QV_FAULT_POINT("WritePrivateProfileStringW", return false, path);
  // Nothing is kept between calls. Wine answers this call with FALSE and
  // leaves the last error as it was; so does this one. Callers ignore the
  // result.
  return false;
}

}  // namespace qv::platform
