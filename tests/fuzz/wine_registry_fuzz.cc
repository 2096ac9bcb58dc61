// Fuzzes the reader of Wine's registry files: any bytes must be readable as
// a file, the root's subkeys and the keys on the way to each of them with
// their values and links, with no crash, no undefined behaviour and no hang.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/posix/wine_registry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qv::platform::posix;
  // A file without Wine's first line is empty to the reader, so give every
  // input that line: the fuzzer's effort goes into the keys and values.
  constexpr std::string_view kSignature = "WINE REGISTRY Version 2\n";
  std::string text(reinterpret_cast<const char*>(data), size);
  if (!text.starts_with(kSignature)) text.insert(0, kSignature);

  qv::WString sid;
  UserRegSid(text, sid);
  // Down the first subkey of each key, as far as the keys go (bounded work
  // per input).
  qv::WString path;
  for (int depth = 0; depth < 16; ++depth) {
    const WineRegistryKey key = ReadWineRegistryKey(text, path);
    if (!key.exists || key.subkeys.empty()) break;
    path += (path.empty() ? u"" : u"\\") + key.subkeys.front();
  }
  return 0;
}
