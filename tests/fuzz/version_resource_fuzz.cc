// Fuzzes the version resource reader with arbitrary images: the resource it
// finds must lie within the image, and the fixed record parser must stay
// within any block it is given.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/posix/host_pe.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view image(reinterpret_cast<const char*>(data), size);
  std::string_view resource;
  qv::platform::FixedFileInfo info;
  if (qv::platform::posix::FindVersionResource(image, resource)) {
    if (resource.empty() || resource.data() < image.data() ||
        resource.data() + resource.size() > image.data() + image.size()) {
      std::abort();
    }
    (void)qv::platform::posix::ParseFixedFileInfo(reinterpret_cast<const std::uint8_t*>(resource.data()),
                                                  resource.size(), info);
  }
  (void)qv::platform::posix::ParseFixedFileInfo(data, size, info);
  return 0;
}
