// Fuzzes the reader of Wine's registry files: any bytes must parse, and the
// values and subkeys of the keys found must be readable, with no crash, no
// undefined behaviour and no hang.
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
  std::string bytes(reinterpret_cast<const char*>(data), size);
  if (!bytes.starts_with(kSignature)) bytes.insert(0, kSignature);

  const WineRegistry registry = ParseWineRegistry(std::move(bytes));
  qv::WString sid;
  UserRegSid(registry, sid);
  WineSubkeyNames(registry, u"");
  WineRegistryValue value;
  std::size_t visited = 0;
  for (const WineRegistryKeyEntry& entry : registry.keys) {
    if (++visited > 64) break;  // bounded work per input
    WineKeyExists(registry, FoldedPath(registry, entry));
    WineKeyIsLink(registry, FoldedPath(registry, entry));
    WineSubkeyNames(registry, FoldedPath(registry, entry));
    for (const auto& [name, found] : WineKeyValues(registry, FoldedPath(registry, entry))) {
      FindWineValue(registry, FoldedPath(registry, entry), name, value);
    }
  }
  return 0;
}
