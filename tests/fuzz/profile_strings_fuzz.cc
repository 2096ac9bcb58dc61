// Fuzzes the INI reader with arbitrary file bytes and questions. Input: two
// bytes of buffer size, one byte each for the lengths of section and key (in
// code units), the section and key as UTF-16LE, then the file's bytes.
// The answer must fit the buffer.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/profile_reader.h"

namespace {

// The code units as they stand, NULs included.
qv::WString Units(const std::uint8_t* data, std::size_t count) {
  qv::WString text;
  for (std::size_t i = 0; i < count; ++i) text.push_back(static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8)));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  const std::uint32_t bufferSize = static_cast<std::uint32_t>(data[0] | (data[1] << 8));
  const std::size_t sectionLength = data[2];
  const std::size_t keyLength = data[3];
  if (size < 4 + 2 * (sectionLength + keyLength)) return 0;
  const qv::WString section = Units(data + 4, sectionLength);
  const qv::WString key = Units(data + 4 + 2 * sectionLength, keyLength);
  const std::string_view file(reinterpret_cast<const char*>(data) + 4 + 2 * (sectionLength + keyLength),
                              size - 4 - 2 * (sectionLength + keyLength));

  qv::WString value;
  std::uint32_t result = qv::platform::profile::ReadProfileString(file, section, key, u"default", value, bufferSize);
  if (result != value.size()) std::abort();
  if (bufferSize == 0 ? result != 0 : result > bufferSize - 1) std::abort();
  return 0;
}
