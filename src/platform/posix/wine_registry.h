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
// - key and value names compare without regard to case (each code unit
//   upper-cased by the table that folder listings use).
//
// Raw bytes of 128 and above inside names and strings are read as UTF-8
// (Wine itself writes them as \x escapes, so only hand-made files have them).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/wstring.h"

namespace qv::platform::posix {

struct WineRegistryValue {
  WString name;  // "" for the default value
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;
};

// What a file says of one key.
struct WineRegistryKey {
  bool exists = false;
  // How many leading components of the path name the first key on the way
  // whose header carries "#link" (its target is the value
  // "SymbolicLinkValue"); 0 when none does. The root is never a link.
  std::size_t linkDepth = 0;
  // Names of the direct subkeys, each in the case of its first header, in
  // Wine's order: by name in small letters, a name before any longer name it
  // begins.
  std::vector<WString> subkeys;
  // The key's values, in order of first appearance, later data winning.
  std::vector<WineRegistryValue> values;
};

// The key at `path` (components joined by single backslashes, in any case;
// the empty path is the root) in the file `text`.
WineRegistryKey ReadWineRegistryKey(std::string_view text, WStringView path);

// The SID of a user.reg whose ";; All keys relative to" line names
// "REGISTRY\User\<SID>" (or "\User\<SID>"); false when it names none.
bool UserRegSid(std::string_view text, WString& sid);

}  // namespace qv::platform::posix
