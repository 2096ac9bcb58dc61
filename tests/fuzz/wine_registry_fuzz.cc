// Fuzzes the reader of Wine's registry files: any bytes must be readable as
// a file, its keys found again by their names, with no crash, no undefined
// behaviour and no hang.
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

  // Down the first subkey of each key, as far as the keys go, looking each
  // one up again by its name and reading its values by theirs.
  const WineRegistry file = ParseWineRegistry(text);
  for (std::size_t key = 0; !file.keys[key].subkeys.empty();) {
    const std::size_t first = file.keys[key].subkeys.front();
    if (FindWineRegistrySubkey(file, key, file.keys[first].name) != first) __builtin_trap();
    for (const WineRegistryValue& value : file.keys[first].values) {
      if (FindWineRegistryValue(file.keys[first], value.name) != &value) __builtin_trap();
    }
    key = first;
  }
  return 0;
}
