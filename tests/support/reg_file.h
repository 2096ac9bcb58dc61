// Writer of registry files in Wine's text format, for test fixtures: the
// shape Wine's server saves (headers with a time, "#time=", escaped names and
// strings, wrapped hex), so the reader is tested against what Wine writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qv::test {

struct RegFileValue {
  std::u16string name;  // empty: the default value, written "@="
  std::uint32_t type = 1;
  std::vector<std::uint8_t> data;
  // Strings as hex(N): bytes instead of str(N):"...", as exported .reg files
  // have them.
  bool hexForm = false;
};

struct RegFileKey {
  std::u16string path;  // relative to the file's root, single backslashes
  std::vector<RegFileValue> values;
  bool link = false;    // "#link": the key's target is its SymbolicLinkValue
};

// UTF-16LE bytes of a text, with the terminating NUL unless `terminate` is false.
std::vector<std::uint8_t> Utf16LeBytes(const std::u16string& text, bool terminate = true);

RegFileValue SzValue(const std::u16string& name, const std::u16string& text);
RegFileValue ExpandSzValue(const std::u16string& name, const std::u16string& text, bool hexForm = false);
// The strings each with its NUL, then the closing NUL.
RegFileValue MultiSzValue(const std::u16string& name, const std::vector<std::u16string>& strings);
RegFileValue DwordValue(const std::u16string& name, std::uint32_t value);
RegFileValue BinaryValue(const std::u16string& name, const std::vector<std::uint8_t>& bytes);
RegFileValue TypedValue(const std::u16string& name, std::uint32_t type, const std::vector<std::uint8_t>& bytes);
// A link key's value: the target as "\Registry\Machine\..." (type 6, no NUL).
RegFileValue LinkValue(const std::u16string& target);

// A name or string as Wine escapes it; `special` lists the characters that
// take a backslash besides the backslash itself ("\"" for strings, "[]" for
// key names).
std::string EscapeRegString(const std::u16string& text, const std::string& special);

// The whole file: "WINE REGISTRY Version 2", the ";; All keys relative to"
// line naming `relativeTo` (unescaped, e.g. "REGISTRY\\Machine"), "#arch=win64",
// then each key in the order given.
std::string WineRegText(const std::vector<RegFileKey>& keys, const std::u16string& relativeTo);
std::string SystemRegFile(const std::vector<RegFileKey>& keys);
std::string UserRegFile(const std::vector<RegFileKey>& keys, const std::u16string& sid = u"S-1-5-21-0-0-0-1000");

}  // namespace qv::test
