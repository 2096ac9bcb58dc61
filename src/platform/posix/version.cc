// The version functions of the seam on the Linux host: the resource is
// found in the PE file's bytes.
#include <algorithm>
#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/posix/host_paths.h"
#include "platform/posix/host_pe.h"

namespace qv::platform {

namespace {

// What Wine's version functions report for a file without a version
// resource, whether it is an executable or not.
constexpr std::uint32_t kErrorResourceDataNotFound = 1812;

// The file's bytes and its version resource within them; false with the
// last error set when there is none.
bool LocateVersion(const WString& path, std::string& image, std::string_view& resource) {
  std::string host;
  std::uint32_t error = 0;
  const bool read = posix::ToHostPath(path, host, error) && posix::ReadFileBytes(host, image, error);
  if (read && posix::FindVersionResource(image, resource) && resource.size() * 2 + 4 <= kLargestVersionInfo) {
    return true;
  }
  SetLastError(read ? kErrorResourceDataNotFound : error);
  return false;
}

}  // namespace

std::uint32_t GetFileVersionInfoSizeW(const WString& path) {
  QV_FAULT_POINT("GetFileVersionInfoSizeW", return 0, path);
  std::string image;
  std::string_view resource;
  if (!LocateVersion(path, image, resource)) return 0;
  // As Windows and Wine do (kLargestVersionInfo).
  return static_cast<std::uint32_t>(resource.size()) * 2 + 4;
}

bool GetFileVersionInfoW(const WString& path, std::uint32_t size, std::vector<std::uint8_t>& data) {
  QV_FAULT_POINT("GetFileVersionInfoW", return false, path);
  std::string image;
  std::string_view resource;
  if (!LocateVersion(path, image, resource)) return false;
  if (size == 0) {
    SetLastError(kErrorInsufficientBuffer);
    return false;
  }
  // As the Win32 call: the buffer holds `size` bytes, the resource as far as
  // it fits, zeros behind it.
  data.assign(size, 0);
  std::copy_n(resource.begin(), std::min<std::size_t>(resource.size(), size), data.begin());
  return true;
}

bool VerQueryValueRootW(const std::vector<std::uint8_t>& data, FixedFileInfo& info) {
  QV_FAULT_POINT("VerQueryValueW", return false, u"\\");
  if (!posix::ParseFixedFileInfo(data.data(), data.size(), info)) {
    SetLastError(kErrorResourceDataNotFound);
    return false;
  }
  return true;
}

}  // namespace qv::platform
