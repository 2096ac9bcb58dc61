// Fuzzes the version resource reader with arbitrary images: the resource it
// finds must lie within the image, and the fixed record parser must stay
// within any block it is given.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/posix/version_resource.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view image(reinterpret_cast<const char*>(data), size);
  qv::platform::posix::ResourceSpan span;
  qv::platform::FixedFileInfo info;
  if (qv::platform::posix::FindVersionResource(qv::platform::posix::MemoryImage(image), span)) {
    if (span.size == 0 || span.offset > size || span.size > size - span.offset) std::abort();
    (void)qv::platform::posix::ParseFixedFileInfo(data + span.offset, span.size, info);
  }
  (void)qv::platform::posix::ParseFixedFileInfo(data, size, info);
  return 0;
}
