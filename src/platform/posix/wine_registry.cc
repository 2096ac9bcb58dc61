// Reader of Wine's registry files: the header index, the string and hex
// decoders, and the lookups over them.
#include "platform/posix/wine_registry.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace qv::platform::posix {

namespace {

constexpr std::string_view kSignature = "WINE REGISTRY Version 2";
constexpr std::string_view kRelativeTo = ";; All keys relative to ";

// One line of the file: its text without the line end (a CR before the LF
// goes too), and where the next line starts.
struct Line {
  std::string_view text;
  std::size_t begin = 0;
  std::size_t next = 0;
};

Line LineAt(std::string_view text, std::size_t pos, std::size_t end) {
  Line line;
  line.begin = pos;
  const char* start = text.data() + pos;
  const void* newline = std::memchr(start, '\n', end - pos);
  std::size_t stop = newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - text.data()) : end;
  line.next = newline != nullptr ? stop + 1 : end;
  if (stop > pos && text[stop - 1] == '\r') --stop;
  line.text = text.substr(pos, stop - pos);
  return line;
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::size_t SkipSpaces(std::string_view text, std::size_t pos) {
  while (pos < text.size() && IsSpace(text[pos])) ++pos;
  return pos;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Appends one code point as UTF-16.
void AppendCodePoint(WString& out, std::uint32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

// Decodes one UTF-8 sequence at `pos`; an invalid one is U+FFFD for its
// first byte.
void AppendUtf8(std::string_view text, std::size_t& pos, WString& out) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(pos);
  int length = 0;
  std::uint32_t cp = 0;
  std::uint32_t minimum = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07, minimum = 0x10000;
  }
  if (length == 0 || pos + length > text.size()) {
    out.push_back(u'\uFFFD');
    ++pos;
    return;
  }
  for (int i = 1; i < length; ++i) {
    unsigned char next = byte(pos + i);
    if ((next & 0xC0) != 0x80) {
      out.push_back(u'\uFFFD');
      ++pos;
      return;
    }
    cp = (cp << 6) | (next & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    out.push_back(u'\uFFFD');
    ++pos;
    return;
  }
  AppendCodePoint(out, cp);
  pos += length;
}

// The index's order: folded paths unit by unit, the separator before every
// other character. That is the order in which Wine's server saves its keys
// (a key, its subtree, then its next sibling), so a file Wine wrote needs no
// sorting.
bool PathLess(WStringView a, WStringView b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (a[i] == b[i]) continue;
    if (a[i] == u'\\') return true;
    if (b[i] == u'\\') return false;
    return a[i] < b[i];
  }
  return a.size() < b.size();
}

bool StartsWith(WStringView text, WStringView prefix) {
  return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

// Splits a decoded key name into its components; false for an empty one
// ("a\\\\b", a leading or trailing backslash).
bool SplitKeyName(WStringView name, std::vector<WStringView>& components) {
  components.clear();
  if (name.empty()) return true;
  std::size_t start = 0;
  while (true) {
    std::size_t stop = name.find(u'\\', start);
    WStringView part = name.substr(start, stop == WStringView::npos ? WStringView::npos : stop - start);
    if (part.empty()) return false;
    components.push_back(part);
    if (stop == WStringView::npos) return true;
    start = stop + 1;
  }
}

// Reads a header line's key name: false for a line that names no key, or a
// name with an empty component.
bool ReadHeaderName(std::string_view line, std::size_t bracket, WString& name) {
  std::size_t pos = bracket + 1;
  if (!DecodeRegistryString(line, pos, ']', name)) return false;
  if (name.empty()) return true;
  return name.front() != u'\\' && name.back() != u'\\' && name.find(u"\\\\") == WString::npos;
}

bool ParseHexNumber(std::string_view text, std::size_t& pos, std::uint32_t& value) {
  std::size_t start = pos;
  value = 0;
  while (pos < text.size() && HexDigit(text[pos]) >= 0) {
    if (pos - start >= 8) return false;
    value = value * 16 + static_cast<std::uint32_t>(HexDigit(text[pos]));
    ++pos;
  }
  return pos > start;
}

void AppendUtf16Le(std::vector<std::uint8_t>& data, WStringView text) {
  data.reserve(data.size() + text.size() * 2 + 2);
  for (char16_t c : text) {
    data.push_back(static_cast<std::uint8_t>(c & 0xFF));
    data.push_back(static_cast<std::uint8_t>(c >> 8));
  }
}

// Reads comma-separated hex bytes, going on to the next line of the section
// after a trailing backslash. `line` and `pos` move with it.
bool ParseHexData(std::string_view text, std::size_t sectionEnd, Line& line, std::size_t pos,
                  std::vector<std::uint8_t>& data) {
  while (true) {
    std::string_view t = line.text;
    while (pos < t.size() && HexDigit(t[pos]) >= 0) {
      // As strtoul reads it: every hex digit in a row, leading zeros allowed.
      std::uint32_t byte = 0;
      while (pos < t.size() && HexDigit(t[pos]) >= 0) {
        byte = byte * 16 + static_cast<std::uint32_t>(HexDigit(t[pos]));
        if (byte > 0xFF) return false;
        ++pos;
      }
      data.push_back(static_cast<std::uint8_t>(byte));
      pos = SkipSpaces(t, pos);
      if (pos < t.size() && t[pos] == ',') ++pos;
      pos = SkipSpaces(t, pos);
    }
    pos = SkipSpaces(t, pos);
    if (pos == t.size()) return true;
    if (t[pos] != '\\' || line.next >= sectionEnd) return false;
    line = LineAt(text, line.next, sectionEnd);
    pos = SkipSpaces(line.text, 0);
  }
}

// Reads the value line `line` (and its continuation lines): its name and
// data. `line` is left on the last line that the value used.
bool ParseValueLine(std::string_view text, std::size_t sectionEnd, Line& line, WString& name,
                    WineRegistryValue& value) {
  std::string_view t = line.text;
  std::size_t pos = SkipSpaces(t, 0);
  name.clear();
  if (pos < t.size() && t[pos] == '@') {
    ++pos;
  } else if (pos < t.size() && t[pos] == '"') {
    ++pos;
    if (!DecodeRegistryString(t, pos, '"', name)) return false;
  } else {
    return false;
  }
  pos = SkipSpaces(t, pos);
  if (pos >= t.size() || t[pos] != '=') return false;
  pos = SkipSpaces(t, pos + 1);
  std::string_view data = t.substr(pos);
  value.data.clear();

  std::uint32_t type = 0;
  bool isString = false;
  if (data.starts_with("\"")) {
    type = 1, isString = true, pos += 1;
  } else if (data.starts_with("str:\"")) {
    type = 1, isString = true, pos += 5;
  } else if (data.starts_with("str(")) {
    pos += 4;
    if (!ParseHexNumber(t, pos, type) || t.substr(pos, 3) != "):\"") return false;
    isString = true, pos += 3;
  } else if (data.starts_with("dword:")) {
    pos += 6;
    std::uint32_t dword = 0;
    if (!ParseHexNumber(t, pos, dword)) return false;
    value.type = 4;
    for (int i = 0; i < 4; ++i) value.data.push_back(static_cast<std::uint8_t>(dword >> (8 * i)));
    return true;
  } else if (data.starts_with("hex:")) {
    value.type = 3;
    return ParseHexData(text, sectionEnd, line, pos + 4, value.data);
  } else if (data.starts_with("hex(")) {
    pos += 4;
    if (!ParseHexNumber(t, pos, value.type) || t.substr(pos, 2) != "):") return false;
    return ParseHexData(text, sectionEnd, line, pos + 2, value.data);
  } else {
    return false;
  }
  if (isString) {
    WString textValue;
    if (!DecodeRegistryString(t, pos, '"', textValue)) return false;
    textValue.push_back(u'\0');
    value.type = type;
    AppendUtf16Le(value.data, textValue);
  }
  return true;
}

// The first entry whose folded path does not come before `path`.
std::vector<WineRegistryKeyEntry>::const_iterator LowerBound(const WineRegistry& registry, WStringView path) {
  return std::lower_bound(
      registry.keys.begin(), registry.keys.end(), path,
      [&registry](const WineRegistryKeyEntry& e, WStringView p) { return PathLess(FoldedPath(registry, e), p); });
}

// Calls `visit(name, value)` for each readable value line of the sections
// of one key, in file order.
template <typename Visit>
void ForEachValueLine(const WineRegistry& registry, WStringView foldedPath, Visit visit) {
  auto first = LowerBound(registry, foldedPath);
  std::string_view text = registry.text;
  WString name;
  WineRegistryValue value;
  for (auto it = first; it != registry.keys.end() && FoldedPath(registry, *it) == foldedPath; ++it) {
    std::size_t pos = it->bodyBegin;
    while (pos < it->bodyEnd) {
      Line line = LineAt(text, pos, it->bodyEnd);
      std::size_t i = SkipSpaces(line.text, 0);
      if (i < line.text.size() && (line.text[i] == '"' || line.text[i] == '@')) {
        if (ParseValueLine(text, it->bodyEnd, line, name, value)) visit(name, value);
      }
      pos = line.next;
    }
  }
}

}  // namespace

char16_t FoldRegistryChar(char16_t c) {
  if (c < 0x80) return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return static_cast<char16_t>(c + 32);
  if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return static_cast<char16_t>(c + 32);
  if (c >= 0x410 && c <= 0x42F) return static_cast<char16_t>(c + 32);
  if (c >= 0x400 && c <= 0x40F) return static_cast<char16_t>(c + 80);
  return c;
}

WString FoldRegistryName(WStringView name) {
  WString folded(name);
  for (char16_t& c : folded) c = FoldRegistryChar(c);
  return folded;
}

int CompareRegistryNames(WStringView a, WStringView b) {
  std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    char16_t x = FoldRegistryChar(a[i]);
    char16_t y = FoldRegistryChar(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

bool DecodeRegistryString(std::string_view line, std::size_t& pos, char terminator, WString& out) {
  out.clear();
  while (pos < line.size()) {
    // A run of plain ASCII, the bulk of every name, goes over in one step.
    std::size_t run = pos;
    while (run < line.size() && static_cast<unsigned char>(line[run]) < 0x80 && line[run] != '\\' &&
           line[run] != terminator) {
      ++run;
    }
    if (run != pos) {
      std::size_t filled = out.size();
      out.resize(filled + (run - pos));
      for (std::size_t i = pos; i < run; ++i) out[filled++] = static_cast<char16_t>(line[i]);
      pos = run;
      continue;
    }
    char c = line[pos];
    if (c == terminator) {
      ++pos;
      return true;
    }
    if (static_cast<unsigned char>(c) >= 0x80) {
      AppendUtf8(line, pos, out);
      continue;
    }
    if (c != '\\') {
      out.push_back(static_cast<char16_t>(c));
      ++pos;
      continue;
    }
    if (++pos >= line.size()) return false;
    char escape = line[pos++];
    switch (escape) {
      case 'a': out.push_back(u'\a'); break;
      case 'b': out.push_back(u'\b'); break;
      case 'e': out.push_back(u'\x1b'); break;
      case 'f': out.push_back(u'\f'); break;
      case 'n': out.push_back(u'\n'); break;
      case 'r': out.push_back(u'\r'); break;
      case 't': out.push_back(u'\t'); break;
      case 'v': out.push_back(u'\v'); break;
      case 'x': {
        // Up to four hex digits make one code unit; "\x" alone is an "x".
        if (pos >= line.size() || HexDigit(line[pos]) < 0) {
          out.push_back(u'x');
          break;
        }
        std::uint32_t unit = 0;
        for (int i = 0; i < 4 && pos < line.size() && HexDigit(line[pos]) >= 0; ++i, ++pos) {
          unit = unit * 16 + static_cast<std::uint32_t>(HexDigit(line[pos]));
        }
        out.push_back(static_cast<char16_t>(unit));
        break;
      }
      case '0': case '1': case '2': case '3': case '4': case '5': case '6': case '7': {
        std::uint32_t unit = static_cast<std::uint32_t>(escape - '0');
        for (int i = 0; i < 2 && pos < line.size() && line[pos] >= '0' && line[pos] <= '7'; ++i, ++pos) {
          unit = unit * 8 + static_cast<std::uint32_t>(line[pos] - '0');
        }
        out.push_back(static_cast<char16_t>(unit));
        break;
      }
      default:
        // Any other escaped character stands for itself ("\\", "\"", "\]").
        --pos;
        if (static_cast<unsigned char>(escape) >= 0x80) {
          AppendUtf8(line, pos, out);
        } else {
          out.push_back(static_cast<char16_t>(escape));
          ++pos;
        }
        break;
    }
  }
  // The line ended before the terminator: only a string that runs to the
  // line's end (terminator '\0') is complete.
  return terminator == '\0';
}

WineRegistry ParseWineRegistry(std::string bytes) {
  WineRegistry registry;
  registry.text = std::move(bytes);
  std::string_view text = registry.text;
  const std::size_t end = text.size();
  if (end == 0) return registry;

  Line first = LineAt(text, 0, end);
  if (first.text != kSignature) return registry;
  registry.signature = true;

  // Room for the index at once: a header line in Wine's files is well over 64
  // bytes with its "#time=" line, and paths are shorter than their lines.
  // Untouched room costs no memory.
  registry.keys.reserve(end / 64 + 16);
  registry.foldedPaths.reserve(end / 2 + 16);

  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t current = kNone;
  WString name;
  for (std::size_t pos = first.next; pos < end;) {
    Line line = LineAt(text, pos, end);
    std::size_t i = SkipSpaces(line.text, 0);
    if (i < line.text.size()) {
      char c = line.text[i];
      if (c == '[') {
        if (current != kNone) registry.keys[current].bodyEnd = line.begin;
        current = kNone;
        if (ReadHeaderName(line.text, i, name)) {
          WineRegistryKeyEntry entry;
          entry.pathBegin = registry.foldedPaths.size();
          entry.pathLength = name.size();
          registry.foldedPaths.resize(entry.pathBegin + name.size());
          char16_t* folded = registry.foldedPaths.data() + entry.pathBegin;
          for (char16_t unit : name) *folded++ = FoldRegistryChar(unit);
          entry.header = line.begin + i;
          entry.bodyBegin = line.next;
          entry.bodyEnd = end;
          entry.order = static_cast<std::uint32_t>(registry.keys.size());
          current = registry.keys.size();
          registry.keys.push_back(std::move(entry));
        }
      } else if (c == '#') {
        if (current != kNone && line.text.substr(i).starts_with("#link")) registry.keys[current].link = true;
      } else if (c == ';' && registry.keys.empty() && registry.relativeTo.empty() &&
                 line.text.substr(i).starts_with(kRelativeTo)) {
        std::size_t p = i + kRelativeTo.size();
        DecodeRegistryString(line.text, p, '\0', registry.relativeTo);
      }
    }
    pos = line.next;
  }
  const auto less = [&registry](const WineRegistryKeyEntry& a, const WineRegistryKeyEntry& b) {
    return PathLess(FoldedPath(registry, a), FoldedPath(registry, b));
  };
  if (!std::is_sorted(registry.keys.begin(), registry.keys.end(), less)) {
    std::stable_sort(registry.keys.begin(), registry.keys.end(), less);
  }
  return registry;
}

bool WineKeyExists(const WineRegistry& registry, WStringView path) {
  if (path.empty()) return true;
  WString folded = FoldRegistryName(path);
  auto it = LowerBound(registry, folded);
  if (it != registry.keys.end() && FoldedPath(registry, *it) == folded) return true;
  folded.push_back(u'\\');
  it = LowerBound(registry, folded);
  return it != registry.keys.end() && StartsWith(FoldedPath(registry, *it), folded);
}

bool WineKeyIsLink(const WineRegistry& registry, WStringView path) {
  WString folded = FoldRegistryName(path);
  for (auto it = LowerBound(registry, folded); it != registry.keys.end() && FoldedPath(registry, *it) == folded; ++it) {
    if (it->link) return true;
  }
  return false;
}

std::vector<WString> WineSubkeyNames(const WineRegistry& registry, WStringView path) {
  WString prefix = FoldRegistryName(path);
  std::size_t depth = 0;
  if (!prefix.empty()) {
    depth = static_cast<std::size_t>(std::count(prefix.begin(), prefix.end(), u'\\')) + 1;
    prefix.push_back(u'\\');
  }
  struct Child {
    WStringView folded;
    std::uint32_t order;
    std::size_t header;
  };
  std::vector<Child> children;
  for (auto it = LowerBound(registry, prefix);
       it != registry.keys.end() && StartsWith(FoldedPath(registry, *it), prefix); ++it) {
    if (it->pathLength == prefix.size()) continue;  // the root's own header
    WStringView rest = FoldedPath(registry, *it).substr(prefix.size());
    children.push_back({rest.substr(0, rest.find(u'\\')), it->order, it->header});
  }
  // Folded names in code-unit order are Wine's order; of one name, the
  // header that comes first in the file gives its case.
  std::sort(children.begin(), children.end(), [](const Child& a, const Child& b) {
    return a.folded != b.folded ? a.folded < b.folded : a.order < b.order;
  });
  children.erase(std::unique(children.begin(), children.end(),
                             [](const Child& a, const Child& b) { return a.folded == b.folded; }),
                 children.end());

  std::vector<WString> names;
  names.reserve(children.size());
  std::string_view text = registry.text;
  WString decoded;
  std::vector<WStringView> components;
  for (const Child& child : children) {
    Line line = LineAt(text, child.header, text.size());
    if (ReadHeaderName(line.text, 0, decoded) && SplitKeyName(decoded, components) && components.size() > depth) {
      names.emplace_back(components[depth]);
    } else {
      names.emplace_back(child.folded);  // not reached: the header was read once already
    }
  }
  return names;
}

bool FindWineValue(const WineRegistry& registry, WStringView path, WStringView name, WineRegistryValue& value) {
  WString foldedPath = FoldRegistryName(path);
  WString wanted = FoldRegistryName(name);
  bool found = false;
  ForEachValueLine(registry, foldedPath, [&](const WString& valueName, WineRegistryValue& lineValue) {
    if (valueName.size() != wanted.size() || FoldRegistryName(valueName) != wanted) return;
    value = lineValue;
    found = true;
  });
  return found;
}

std::vector<std::pair<WString, WineRegistryValue>> WineKeyValues(const WineRegistry& registry, WStringView path) {
  std::vector<std::pair<WString, WineRegistryValue>> values;
  std::unordered_map<WString, std::size_t> positions;
  ForEachValueLine(registry, FoldRegistryName(path), [&](const WString& name, WineRegistryValue& value) {
    auto [it, added] = positions.emplace(FoldRegistryName(name), values.size());
    if (added) {
      values.emplace_back(name, value);
    } else {
      values[it->second].second = value;
    }
  });
  return values;
}

bool UserRegSid(const WineRegistry& registry, WString& sid) {
  WString folded = FoldRegistryName(registry.relativeTo);
  std::size_t start = 0;
  if (StartsWith(folded, u"registry\\user\\")) {
    start = 14;
  } else if (StartsWith(folded, u"\\user\\")) {
    start = 6;
  } else {
    return false;
  }
  WStringView rest = WStringView(registry.relativeTo).substr(start);
  rest = rest.substr(0, rest.find(u'\\'));
  while (!rest.empty() && (rest.back() == u' ' || rest.back() == u'\t')) rest.remove_suffix(1);
  if (rest.empty()) return false;
  sid.assign(rest);
  return true;
}

}  // namespace qv::platform::posix
