// Reader of Wine's registry files (system.reg, user.reg): pure functions over
// the file's text, internal to the posix backend.
//
// What Wine's own loader does with the same file is the rule:
// - the file must begin "WINE REGISTRY Version 2", or it holds no keys;
// - a line that cannot be read (a bad header, a value with bad data, a value
//   before any header) is skipped, and a bad header drops the values below it;
// - a key named by several headers is one key, its values merged, a later
//   value of the same name replacing an earlier one;
// - a key exists when it has a header or when any key below it has one;
// - a "#link" line marks the key of its header as a link;
// - key and value names compare without regard to case (each code unit
//   upper-cased by the table that folder listings use).
//
// Raw bytes of 128 and above inside names and strings are read as UTF-8
// (Wine itself writes them as \x escapes, so only hand-made files have them).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "platform/wstring.h"

namespace qv::platform::posix {

struct WineRegistryValue {
  WString name;  // "" for the default value
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;
};

// One key of a file.
struct WineRegistryKey {
  WString name;  // in the case of the first header that names it; "" for the root
  // A header of the key carries "#link": the key stands for the one its
  // value "SymbolicLinkValue" names. The root is never a link.
  bool link = false;
  // The key's values, in order of first appearance, later data winning,
  // and their places by upper-cased name.
  std::vector<WineRegistryValue> values;
  std::map<WString, std::size_t> valueIndex;
  // The direct subkeys (places in WineRegistry::keys) in Wine's order: by
  // name in small letters, a name before any longer name it begins; and
  // the same by their names in that order's form (see FindWineRegistrySubkey).
  std::vector<std::size_t> subkeys;
  std::map<WString, std::size_t> subkeyIndex;
};

// A whole file, read in one pass.
struct WineRegistry {
  // keys[0] is the root, there even in an empty file; every other key
  // comes after its parent.
  std::vector<WineRegistryKey> keys;
  // The SID of a user.reg whose ";; All keys relative to" line names
  // "REGISTRY\User\<SID>" (or "\User\<SID>"); empty when it names none.
  WString userSid;
};

inline constexpr std::size_t kNoWineRegistryKey = static_cast<std::size_t>(-1);

WineRegistry ParseWineRegistry(std::string_view text);

// The place of the subkey `name` (in any case) of keys[parent], or
// kNoWineRegistryKey.
std::size_t FindWineRegistrySubkey(const WineRegistry& registry, std::size_t parent, WStringView name);

// The value `name` (in any case) of a key, or null.
const WineRegistryValue* FindWineRegistryValue(const WineRegistryKey& key, WStringView name);

}  // namespace qv::platform::posix
