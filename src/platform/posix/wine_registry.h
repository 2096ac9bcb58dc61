// Reader of Wine's registry files (system.reg, user.reg): pure functions over
// the file's bytes, internal to the posix backend.
//
// The file is kept as read. Parsing indexes the key headers only: each
// "[Key\\Path] time" line becomes an entry that points at the name's bytes in
// the file and at the span of lines below it, sorted by folded path. Names of
// plain ASCII whose only escapes are the doubled separators (nearly every name
// Wine writes) are compared straight from the file's bytes; only the other
// names are decoded and folded into a side buffer. A key's values are decoded
// when they are asked for, and of the value lines below it only those whose
// name matches. So looking up one value in a system.reg of 1.7 MB costs one
// pass over the line starts, and the memory is the file plus a small record
// per header.
//
// What Wine's own loader does with the same file is the rule:
// - the file must begin "WINE REGISTRY Version 2", or it holds no keys;
// - a line that cannot be read (a bad header, a value with bad data, a value
//   before any header) is skipped, and a bad header drops the values below it;
// - a key named by several headers is one key, its values merged, a later
//   value of the same name replacing an earlier one;
// - a key exists when it has a header or when any key below it has one;
// - key and value names compare without regard to case, and subkeys come in
//   the order of Wine's server: by name with case folded to lower, a name
//   before any longer name it begins.
//
// Case folding: A-Z, the Latin-1 capitals, basic Greek and basic Cyrillic
// fold to their small letters; other characters compare exactly. Wine folds
// with full Unicode tables; names outside these ranges are vanishingly rare
// in the keys this tool reads.
//
// Raw bytes of 128 and above inside names and strings are read as UTF-8
// (Wine itself writes them as \x escapes, so only hand-made files have them).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/wstring.h"

namespace qv::platform::posix {

// One header of the file and the lines below it, up to the next header.
// Offsets are into WineRegistry::text (files are far below 4 GB).
struct WineRegistryKeyEntry {
  std::uint32_t name = 0;           // first byte of the name, after the '['
  std::uint32_t nameLength = 0;     // bytes of the name, up to its ']'
  std::uint32_t bodyBegin = 0;      // first line after the header
  std::uint32_t bodyEnd = 0;        // start of the next header line, or the end
  std::uint32_t order = 0;          // position among the headers, in file order
  std::uint32_t foldedBegin = 0;    // a name that is not plain: its folded path
  std::uint32_t foldedLength = 0;   //   in WineRegistry::foldedPaths
  bool plain = false;               // ASCII, and its only escapes are "\\\\"
  bool link = false;                // the section carries "#link"
};

struct WineRegistry {
  // The file's bytes; `storage` keeps them alive.
  std::shared_ptr<const void> storage;
  std::string_view text;
  bool signature = false;  // first line is "WINE REGISTRY Version 2"
  // The ";; All keys relative to ..." line, unescaped ("REGISTRY\User\S-...").
  WString relativeTo;
  // Folded paths of the names that are not plain, components joined by '\'.
  WString foldedPaths;
  // Sorted by folded path, entries of one path in file order.
  std::vector<WineRegistryKeyEntry> keys;
};

// The key's path, folded, components joined by single backslashes.
WString FoldedPath(const WineRegistry& registry, const WineRegistryKeyEntry& entry);

struct WineRegistryValue {
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;
};

WineRegistry ParseWineRegistry(std::string bytes);
// The same over bytes that `storage` owns and keeps in place.
WineRegistry ParseWineRegistry(std::shared_ptr<const void> storage, std::string_view text);

// Wine's case folding of one character and of a name.
char16_t FoldRegistryChar(char16_t c);
WString FoldRegistryName(WStringView name);
// Wine's order of subkey names: negative, zero or positive.
int CompareRegistryNames(WStringView a, WStringView b);

// Paths below are relative to the file's root, components joined by single
// backslashes, in any case; the empty path is the root itself.

bool WineKeyExists(const WineRegistry& registry, WStringView path);
// Whether a header of the key carries "#link" (its target is the value
// "SymbolicLinkValue").
bool WineKeyIsLink(const WineRegistry& registry, WStringView path);
// Names of the key's direct subkeys, in Wine's order, each in the case of
// its first appearance in the file.
std::vector<WString> WineSubkeyNames(const WineRegistry& registry, WStringView path);
// The value of that name ("" for the default value), false when absent.
bool FindWineValue(const WineRegistry& registry, WStringView path, WStringView name, WineRegistryValue& value);

// A key's place in the index of one parse: keys[begin, own) are its own
// headers and keys[own, end) the headers below it. A caller that keeps it
// (an open key) looks up subkeys, values and subkey names without searching
// from the root, and compares only what follows the key's path. Valid only
// for the WineRegistry it was found in.
struct WineKeySpan {
  std::uint32_t begin = 0;
  std::uint32_t own = 0;
  std::uint32_t end = 0;
  std::uint32_t units = 0;       // length of the folded path
  std::uint32_t separators = 0;  // backslashes in it
  bool root = true;
  bool exists = false;
  bool link = false;  // one of its own headers carries "#link"
};
WineKeySpan WineRootSpan(const WineRegistry& registry);
// The key at `foldedRelative` (folded components joined by single
// backslashes) below `parent`; the empty path is `parent` itself.
WineKeySpan FindWineSubkeySpan(const WineRegistry& registry, const WineKeySpan& parent, WStringView foldedRelative);
WineKeySpan FindWineKeySpan(const WineRegistry& registry, WStringView path);
std::vector<WString> WineSubkeyNames(const WineRegistry& registry, const WineKeySpan& key);
bool FindWineValue(const WineRegistry& registry, const WineKeySpan& key, WStringView name, WineRegistryValue& value);
// All values of the key, in order of first appearance, later data winning.
std::vector<std::pair<WString, WineRegistryValue>> WineKeyValues(const WineRegistry& registry, WStringView path);

// The SID of a user.reg whose relativeTo names "REGISTRY\User\<SID>" (or
// "\User\<SID>"); false when it names none.
bool UserRegSid(const WineRegistry& registry, WString& sid);

// Decodes an escaped string of the file from `pos` up to the unescaped
// `terminator`, leaving `pos` just after it. False when the line ends first.
bool DecodeRegistryString(std::string_view line, std::size_t& pos, char terminator, WString& out);

}  // namespace qv::platform::posix
