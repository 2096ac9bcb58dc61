// Reader of Wine's registry files: one pass over the lines of the file,
// decoding every header and value into a tree of keys.
#include "platform/posix/wine_registry.h"

#include <algorithm>
#include <map>

#include "platform/posix/host_case.h"

namespace qv::platform::posix {
namespace {

constexpr std::string_view kSignature = "WINE REGISTRY Version 2";
constexpr std::string_view kRelativeTo = ";; All keys relative to ";

// Takes the first line off `rest`, without its line end (a CR before the
// LF goes too); false at the end.
bool NextLine(std::string_view& rest, std::string_view& line) {
  if (rest.empty()) return false;
  const std::size_t end = rest.find('\n');
  line = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return true;
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::size_t SkipSpaces(std::string_view text, std::size_t pos) {
  while (pos < text.size() && IsSpace(text[pos])) ++pos;
  return pos;
}

int HexDigit(char c) {
  const std::size_t digit = std::string_view("0123456789abcdef0123456789ABCDEF").find(c);
  return digit == std::string_view::npos ? -1 : static_cast<int>(digit % 16);
}

// Decodes an escaped string from `pos` up to the unescaped `terminator`,
// leaving `pos` just after it. False when the line ends first, unless the
// terminator is '\0' (the string runs to the line's end).
bool DecodeString(std::string_view line, std::size_t& pos, char terminator, WString& out) {
  out.clear();
  while (pos < line.size()) {
    const char c = line[pos];
    if (c == terminator) {
      ++pos;
      return true;
    }
    if (static_cast<unsigned char>(c) >= 0x80) {
      std::size_t end = pos;
      while (end < line.size() && static_cast<unsigned char>(line[end]) >= 0x80) ++end;
      out += Utf8ToWide(line.substr(pos, end - pos));
      pos = end;
      continue;
    }
    ++pos;
    if (c != '\\') {
      out.push_back(static_cast<char16_t>(c));
      continue;
    }
    if (pos >= line.size()) return false;
    const char escape = line[pos++];
    // The escapes of C's control characters, each letter before its character.
    constexpr std::string_view kControls = "a\ab\be\x1b" "f\fn\nr\rt\tv\v";
    const std::size_t control = kControls.find(escape);
    if (control != std::string_view::npos && control % 2 == 0) {
      out.push_back(static_cast<char16_t>(kControls[control + 1]));
    } else if (escape == 'x') {
      // Up to four hex digits make one code unit; "\x" alone is an "x".
      char16_t unit = 0;
      int digits = 0;
      for (; digits < 4 && pos < line.size() && HexDigit(line[pos]) >= 0; ++digits, ++pos) {
        unit = static_cast<char16_t>(unit * 16 + HexDigit(line[pos]));
      }
      out.push_back(digits == 0 ? u'x' : unit);
    } else if (escape >= '0' && escape <= '7') {
      // Up to three octal digits make one code unit.
      char16_t unit = static_cast<char16_t>(escape - '0');
      for (int i = 1; i < 3 && pos < line.size() && line[pos] >= '0' && line[pos] <= '7'; ++i, ++pos) {
        unit = static_cast<char16_t>(unit * 8 + (line[pos] - '0'));
      }
      out.push_back(unit);
    } else if (static_cast<unsigned char>(escape) < 0x80) {
      out.push_back(static_cast<char16_t>(escape));  // "\\", "\"", "\]": the character itself
    } else {
      --pos;  // a byte of UTF-8, read with what follows it
    }
  }
  return terminator == '\0';
}

// The key name of a header line ("[Name\\Path] time"): false for a line
// that names no key, or a name with an empty component.
bool ReadHeader(std::string_view line, WString& name) {
  std::size_t pos = 1;
  if (!DecodeString(line, pos, ']', name)) return false;
  if (name.empty()) return true;
  return name.front() != u'\\' && name.back() != u'\\' && name.find(u"\\\\") == WString::npos;
}

bool ParseHexNumber(std::string_view text, std::size_t& pos, std::uint32_t& value) {
  const std::size_t start = pos;
  value = 0;
  for (; pos < text.size() && HexDigit(text[pos]) >= 0; ++pos) {
    if (pos - start == 8) return false;
    value = value * 16 + static_cast<std::uint32_t>(HexDigit(text[pos]));
  }
  return pos > start;
}

// Comma-separated hex bytes from `pos`, going on to the next line after a
// trailing backslash (but never into the next header).
bool ParseHexData(std::string_view line, std::size_t pos, std::string_view& rest, std::vector<std::uint8_t>& data) {
  while (true) {
    while (pos < line.size() && HexDigit(line[pos]) >= 0) {
      // As strtoul reads it: every hex digit in a row, leading zeros allowed.
      std::uint32_t byte = 0;
      for (; pos < line.size() && HexDigit(line[pos]) >= 0; ++pos) {
        byte = byte * 16 + static_cast<std::uint32_t>(HexDigit(line[pos]));
        if (byte > 0xFF) return false;
      }
      data.push_back(static_cast<std::uint8_t>(byte));
      pos = SkipSpaces(line, pos);
      if (pos < line.size() && line[pos] == ',') pos = SkipSpaces(line, pos + 1);
    }
    pos = SkipSpaces(line, pos);
    if (pos == line.size()) return true;
    std::string_view after = rest;
    if (line[pos] != '\\' || !NextLine(after, line)) return false;
    pos = SkipSpaces(line, 0);
    if (line.substr(pos).starts_with('[')) return false;
    rest = after;
  }
}

// A value line ("Name"=data, or @=data for the default value), with its
// continuation lines; false for a line that holds no readable value.
bool ParseValue(std::string_view line, std::string_view& rest, WineRegistryValue& value) {
  std::size_t pos = SkipSpaces(line, 0);
  if (pos < line.size() && line[pos] == '"') {
    ++pos;
    if (!DecodeString(line, pos, '"', value.name)) return false;
  } else if (pos >= line.size() || line[pos++] != '@') {
    return false;
  }
  pos = SkipSpaces(line, pos);
  if (pos >= line.size() || line[pos] != '=') return false;
  pos = SkipSpaces(line, pos + 1);
  const std::string_view data = line.substr(pos);
  if (data.starts_with("hex:")) {
    value.type = 3;
    return ParseHexData(line, pos + 4, rest, value.data);
  }
  if (data.starts_with("hex(")) {
    pos += 4;
    if (!ParseHexNumber(line, pos, value.type) || line.substr(pos, 2) != "):") return false;
    return ParseHexData(line, pos + 2, rest, value.data);
  }
  if (data.starts_with("dword:")) {
    pos += 6;
    std::uint32_t dword = 0;
    if (!ParseHexNumber(line, pos, dword)) return false;
    value.type = 4;
    for (int i = 0; i < 4; ++i) value.data.push_back(static_cast<std::uint8_t>(dword >> (8 * i)));
    return true;
  }
  value.type = 1;
  if (data.starts_with("str:\"")) {
    pos += 5;
  } else if (data.starts_with("str(")) {
    pos += 4;
    if (!ParseHexNumber(line, pos, value.type) || line.substr(pos, 3) != "):\"") return false;
    pos += 3;
  } else if (data.starts_with("\"")) {
    pos += 1;
  } else {
    return false;
  }
  WString text;
  if (!DecodeString(line, pos, '"', text)) return false;
  text.push_back(u'\0');
  const std::string bytes = Utf16LeBytes(text);
  value.data.assign(bytes.begin(), bytes.end());
  return true;
}

// Calls `visit(line, rest)` for every line of a file with Wine's first line,
// with the line's first non-blank character first and the lines after it.
template <typename Visit>
void ForEachLine(std::string_view rest, Visit visit) {
  std::string_view line;
  if (!NextLine(rest, line) || line != kSignature) return;
  while (NextLine(rest, line)) {
    line.remove_prefix(SkipSpaces(line, 0));
    if (!line.empty()) visit(line, rest);
  }
}

// Wine's server orders subkeys by their names in small letters: so the
// upper-cased name's A-Z go back to a-z, after "_" and the like. Names that
// are the same to Windows have the same key.
WString OrderKey(WStringView name) {
  WString key = UpcaseName(WString(name));
  for (char16_t& c : key) c = AsciiLower(c);
  return key;
}

// The key a header names, made with every key on the way that is not there
// yet; `name` has no empty component.
std::size_t AddKey(WineRegistry& registry, WStringView name) {
  std::size_t key = 0;
  for (std::size_t start = 0; start < name.size();) {
    const std::size_t stop = std::min(name.find(u'\\', start), name.size());
    const WStringView part = name.substr(start, stop - start);
    const auto [place, added] = registry.keys[key].subkeyIndex.try_emplace(OrderKey(part), registry.keys.size());
    key = place->second;
    if (added) registry.keys.emplace_back().name = part;
    start = stop + 1;
  }
  return key;
}

// The SID of a ";; All keys relative to REGISTRY\User\<SID>" line's text.
WString UserSid(const WString& relativeTo) {
  const WString folded = UpcaseName(relativeTo);
  const std::size_t user = folded.starts_with(u"REGISTRY\\USER\\") ? 14 : folded.starts_with(u"\\USER\\") ? 6 : 0;
  if (user == 0) return {};
  WStringView rest = WStringView(relativeTo).substr(user);
  rest = rest.substr(0, rest.find(u'\\'));
  while (!rest.empty() && (rest.back() == u' ' || rest.back() == u'\t')) rest.remove_suffix(1);
  return WString(rest);
}

}  // namespace

WineRegistry ParseWineRegistry(std::string_view text) {
  WineRegistry registry;
  registry.keys.emplace_back();  // the root, even of an empty file
  std::size_t current = kNoWineRegistryKey;  // the key of the header above, if it was read
  bool headers = false;  // a header came: the SID's line stands only before the keys
  WString name, relativeTo;
  ForEachLine(text, [&](std::string_view line, std::string_view& rest) {
    if (line.front() == '[') {
      headers = true;
      current = ReadHeader(line, name) ? AddKey(registry, name) : kNoWineRegistryKey;
      return;
    }
    if (!headers && relativeTo.empty() && line.starts_with(kRelativeTo)) {
      std::size_t pos = kRelativeTo.size();
      DecodeString(line, pos, '\0', relativeTo);
    }
    if (current == kNoWineRegistryKey) return;
    WineRegistryKey& key = registry.keys[current];
    if (line.starts_with("#link")) key.link = current != 0;
    if (line.front() != '"' && line.front() != '@') return;
    WineRegistryValue value;
    if (!ParseValue(line, rest, value)) return;
    const auto [place, added] = key.valueIndex.try_emplace(UpcaseName(value.name), key.values.size());
    if (added) {
      key.values.push_back(std::move(value));
    } else {
      key.values[place->second].type = value.type;
      key.values[place->second].data = std::move(value.data);
    }
  });
  registry.userSid = UserSid(relativeTo);
  for (WineRegistryKey& key : registry.keys) {
    for (const auto& [order, subkey] : key.subkeyIndex) key.subkeys.push_back(subkey);
  }
  return registry;
}

std::size_t FindWineRegistrySubkey(const WineRegistry& registry, std::size_t parent, WStringView name) {
  const auto& index = registry.keys[parent].subkeyIndex;
  const auto found = index.find(OrderKey(name));
  return found == index.end() ? kNoWineRegistryKey : found->second;
}

const WineRegistryValue* FindWineRegistryValue(const WineRegistryKey& key, WStringView name) {
  const auto found = key.valueIndex.find(UpcaseName(WString(name)));
  return found == key.valueIndex.end() ? nullptr : &key.values[found->second];
}

}  // namespace qv::platform::posix
