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

// Reads the data of the value line `line` (and its continuation lines) from
// `pos`, just after the name. `line` is left on the last line that the value
// used.
bool ParseValueData(std::string_view text, std::size_t sectionEnd, Line& line, std::size_t pos,
                    WineRegistryValue& value) {
  std::string_view t = line.text;
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

enum class Match { Whole, PrefixAndSeparator };

// Where the comparison of an entry starts: the first `folded` units of its
// path (`raw` bytes of a plain name, whose separators take two) are known
// to be the same in every entry compared, and are not looked at again.
struct Skip {
  std::size_t folded = 0;
  std::size_t raw = 0;
};

// The index's order between one entry's folded path, from `skip` on, and
// `query`: negative, zero or positive. With Match::PrefixAndSeparator an
// entry that begins with the query and a separator compares equal (any
// non-empty path, for an empty query).
int CompareEntry(const WineRegistry& registry, const WineRegistryKeyEntry& entry, WStringView query,
                 Match match = Match::Whole, Skip skip = {}) {
  std::size_t j = 0;
  const std::size_t n = query.size();
  const auto differ = [](char16_t a, char16_t b) {
    if (a == u'\\') return -1;
    if (b == u'\\') return 1;
    return a < b ? -1 : 1;
  };
  bool more = false;
  char16_t first = 0;  // the entry's unit just past the query
  if (entry.plain) {
    if (skip.raw > entry.nameLength) return -1;
    const char* raw = registry.text.data() + entry.name + skip.raw;
    const char* end = registry.text.data() + entry.name + entry.nameLength;
    while (raw < end && j < n) {
      char16_t unit = static_cast<unsigned char>(*raw);
      if (unit == u'\\') {
        raw += 2;
      } else {
        if (unit >= u'A' && unit <= u'Z') unit = static_cast<char16_t>(unit + 32);
        ++raw;
      }
      if (unit != query[j]) return differ(unit, query[j]);
      ++j;
    }
    more = raw < end;
    if (more) first = *raw == '\\' ? u'\\' : u'x';
  } else {
    if (skip.folded > entry.foldedLength) return -1;
    const char16_t* folded = registry.foldedPaths.data() + entry.foldedBegin + skip.folded;
    const char16_t* end = registry.foldedPaths.data() + entry.foldedBegin + entry.foldedLength;
    while (folded < end && j < n) {
      if (*folded != query[j]) return differ(*folded, query[j]);
      ++folded;
      ++j;
    }
    more = folded < end;
    if (more) first = *folded == u'\\' ? u'\\' : u'x';
  }
  if (j < n) return -1;  // the entry's path ended first
  if (!more) return match == Match::PrefixAndSeparator ? -1 : 0;
  if (match == Match::PrefixAndSeparator) {
    if (n == 0 || first == u'\\') return 0;
    return 1;
  }
  return 1;
}

// What the entries below a key share: its path and one separator.
Skip SkipBelow(const WineKeySpan& key) {
  if (key.root) return {};
  return {key.units + 1u, std::size_t{key.units} + key.separators + 2u};
}

// Reads the name of the value line `line` into `name`, leaving `pos` after
// it; false for a line that is not a value.
bool ParseValueName(std::string_view t, std::size_t& pos, WString& name) {
  pos = SkipSpaces(t, 0);
  name.clear();
  if (pos < t.size() && t[pos] == '@') {
    ++pos;
    return true;
  }
  if (pos < t.size() && t[pos] == '"') {
    ++pos;
    return DecodeRegistryString(t, pos, '"', name);
  }
  return false;
}

// Calls `visit(name, line, pos, sectionEnd)` for each value line of the key's
// own sections, in file order, with `pos` just after the value's name;
// `visit` may move `line` on to continuation lines.
template <typename Visit>
void ForEachValueName(const WineRegistry& registry, const WineKeySpan& key, Visit visit) {
  std::string_view text = registry.text;
  WString name;
  for (std::uint32_t k = key.begin; k < key.own; ++k) {
    const WineRegistryKeyEntry& entry = registry.keys[k];
    std::size_t pos = entry.bodyBegin;
    while (pos < entry.bodyEnd) {
      Line line = LineAt(text, pos, entry.bodyEnd);
      std::size_t i = SkipSpaces(line.text, 0);
      if (i < line.text.size() && (line.text[i] == '"' || line.text[i] == '@')) {
        std::size_t after = 0;
        if (ParseValueName(line.text, after, name)) visit(name, line, after, entry.bodyEnd);
      }
      pos = line.next;
    }
  }
}

// Whether the data of a value line, from just after its name, is in a hex
// form ("hex:" or "hex(N):"), the only form that can go on to further lines.
bool HasHexData(std::string_view t, std::size_t pos) {
  pos = SkipSpaces(t, pos);
  if (pos >= t.size() || t[pos] != '=') return false;
  return t.substr(SkipSpaces(t, pos + 1)).starts_with("hex");
}

// Whether a folded value name equals `wanted` (already folded).
bool SameFoldedName(const WString& name, const WString& wanted) {
  if (name.size() != wanted.size()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (FoldRegistryChar(name[i]) != wanted[i]) return false;
  }
  return true;
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

WString FoldedPath(const WineRegistry& registry, const WineRegistryKeyEntry& entry) {
  if (!entry.plain) return WString(WStringView(registry.foldedPaths).substr(entry.foldedBegin, entry.foldedLength));
  WString path;
  path.reserve(entry.nameLength);
  const char* raw = registry.text.data() + entry.name;
  const char* end = raw + entry.nameLength;
  while (raw < end) {
    char16_t unit = static_cast<unsigned char>(*raw);
    raw += unit == u'\\' ? 2 : 1;
    path.push_back(FoldRegistryChar(unit));
  }
  return path;
}

WineRegistry ParseWineRegistry(std::string bytes) {
  auto storage = std::make_shared<std::string>(std::move(bytes));
  std::string_view text = *storage;
  return ParseWineRegistry(std::move(storage), text);
}

namespace {

// Reads the header whose '[' is at `bracket` in `line` into `entry`: false
// for a line that names no key, or a name with an empty component. A plain
// name (ASCII, its only escapes the doubled separators) is checked where it
// stands; any other is decoded and its folded path kept in `foldedPaths`.
bool IndexHeader(std::string_view text, const Line& line, std::size_t bracket, WString& scratch,
                 WString& foldedPaths, WineRegistryKeyEntry& entry) {
  const char* start = line.text.data() + bracket + 1;
  const char* end = line.text.data() + line.text.size();
  const char* p = start;
  bool plain = true;
  bool separatorLast = false;  // of a plain name: the last thing read was a separator
  bool emptyComponent = false;
  while (p < end && *p != ']') {
    const auto c = static_cast<unsigned char>(*p);
    if (c == '\\') {
      if (p + 1 >= end) return false;  // the line ends inside an escape
      if (p[1] == '\\') {
        if (p == start || separatorLast) emptyComponent = true;
        separatorLast = true;
      } else {
        plain = false;
      }
      p += 2;
      continue;
    }
    if (c >= 0x80) plain = false;
    separatorLast = false;
    ++p;
  }
  if (p >= end) return false;  // no closing bracket
  entry.name = static_cast<std::uint32_t>(start - text.data());
  entry.nameLength = static_cast<std::uint32_t>(p - start);
  entry.plain = plain;
  if (plain) return !emptyComponent && !separatorLast;
  if (!ReadHeaderName(line.text, bracket, scratch)) return false;
  entry.foldedBegin = static_cast<std::uint32_t>(foldedPaths.size());
  entry.foldedLength = static_cast<std::uint32_t>(scratch.size());
  for (char16_t unit : scratch) foldedPaths.push_back(FoldRegistryChar(unit));
  return true;
}

// The order of two entries; plain names are compared where they stand.
bool EntryLess(const WineRegistry& registry, const WineRegistryKeyEntry& a, const WineRegistryKeyEntry& b) {
  if (!a.plain || !b.plain) return PathLess(FoldedPath(registry, a), FoldedPath(registry, b));
  const char* x = registry.text.data() + a.name;
  const char* xEnd = x + a.nameLength;
  const char* y = registry.text.data() + b.name;
  const char* yEnd = y + b.nameLength;
  // Both names advance alike while they agree: a separator is the same two
  // bytes in each. Neighbours in the index share long prefixes, passed over
  // eight bytes at a time while the bytes are the same.
  const std::size_t both = static_cast<std::size_t>(std::min(xEnd - x, yEnd - y));
  std::size_t same = 0;
  for (std::uint64_t a = 0, b = 0; same + 8 <= both; same += 8) {
    std::memcpy(&a, x + same, 8);
    std::memcpy(&b, y + same, 8);
    if (a != b) break;
  }
  x += same;
  y += same;
  for (; x < xEnd && y < yEnd; ++x, ++y) {
    char cx = *x >= 'A' && *x <= 'Z' ? static_cast<char>(*x + 32) : *x;
    char cy = *y >= 'A' && *y <= 'Z' ? static_cast<char>(*y + 32) : *y;
    if (cx == cy) continue;
    if (cx == '\\') return true;
    if (cy == '\\') return false;
    return static_cast<unsigned char>(cx) < static_cast<unsigned char>(cy);
  }
  return x == xEnd && y != yEnd;
}

}  // namespace

WineRegistry ParseWineRegistry(std::shared_ptr<const void> storage, std::string_view text) {
  WineRegistry registry;
  registry.storage = std::move(storage);
  registry.text = text;
  const std::size_t end = text.size();
  if (end == 0 || end > 0xFFFFFFFFu) return registry;

  Line first = LineAt(text, 0, end);
  if (first.text != kSignature) return registry;
  registry.signature = true;

  // Room for the index at once: a header line in Wine's files is well over 64
  // bytes with its "#time=" line. Untouched room costs no memory.
  registry.keys.reserve(end / 64 + 16);

  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t current = kNone;
  WString scratch;
  for (std::size_t pos = first.next; pos < end;) {
    // Most lines are values or "#time=": only the first character decides,
    // and the line's end is found with one memchr.
    std::size_t i = pos;
    while (i < end && IsSpace(text[i])) ++i;
    const char c = i < end ? text[i] : '\n';
    if (c != '[' && c != '#' && c != ';') {
      const void* newline = c == '\n' ? text.data() + i : std::memchr(text.data() + i, '\n', end - i);
      pos = newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - text.data()) + 1 : end;
      continue;
    }
    Line line = LineAt(text, pos, end);
    i -= pos;
    if (i >= line.text.size()) {  // a line of blanks and a CR
      pos = line.next;
      continue;
    }
    if (c == '[') {
      if (current != kNone) registry.keys[current].bodyEnd = static_cast<std::uint32_t>(line.begin);
      current = kNone;
      WineRegistryKeyEntry entry;
      if (IndexHeader(text, line, i, scratch, registry.foldedPaths, entry)) {
        entry.bodyBegin = static_cast<std::uint32_t>(line.next);
        entry.bodyEnd = static_cast<std::uint32_t>(end);
        entry.order = static_cast<std::uint32_t>(registry.keys.size());
        current = registry.keys.size();
        registry.keys.push_back(entry);
      }
    } else if (c == '#') {
      if (current != kNone && line.text.substr(i).starts_with("#link")) registry.keys[current].link = true;
    } else if (registry.keys.empty() && registry.relativeTo.empty() && line.text.substr(i).starts_with(kRelativeTo)) {
      std::size_t p = i + kRelativeTo.size();
      DecodeRegistryString(line.text, p, '\0', registry.relativeTo);
    }
    pos = line.next;
  }
  const auto less = [&registry](const WineRegistryKeyEntry& a, const WineRegistryKeyEntry& b) {
    return EntryLess(registry, a, b);
  };
  // A file Wine wrote is in order; one with keys added by hand at its end
  // is an ordered run and a short tail: sort the tail and merge the two.
  const auto tail = std::is_sorted_until(registry.keys.begin(), registry.keys.end(), less);
  if (tail != registry.keys.end()) {
    std::stable_sort(tail, registry.keys.end(), less);
    std::inplace_merge(registry.keys.begin(), tail, registry.keys.end(), less);
  }
  return registry;
}

WineKeySpan WineRootSpan(const WineRegistry& registry) {
  WineKeySpan root;
  root.exists = true;
  // Headers with an empty name, if any, are the root's own and sort first.
  const auto own = std::partition_point(registry.keys.begin(), registry.keys.end(), [&](const WineRegistryKeyEntry& e) {
    return CompareEntry(registry, e, {}) == 0;
  });
  root.own = static_cast<std::uint32_t>(own - registry.keys.begin());
  root.end = static_cast<std::uint32_t>(registry.keys.size());
  for (std::uint32_t k = 0; k < root.own; ++k) root.link = root.link || registry.keys[k].link;
  return root;
}

WineKeySpan FindWineSubkeySpan(const WineRegistry& registry, const WineKeySpan& parent, WStringView foldedRelative) {
  if (foldedRelative.empty()) return parent;
  WineKeySpan key;
  key.root = false;
  const auto separators = static_cast<std::size_t>(std::count(foldedRelative.begin(), foldedRelative.end(), u'\\'));
  // Below a key, its path and one separator come first.
  const std::size_t above = parent.root ? 0 : std::size_t{parent.units} + 1;
  const std::size_t separatorsAbove = parent.root ? 0 : std::size_t{parent.separators} + 1;
  key.units = static_cast<std::uint32_t>(above + foldedRelative.size());
  key.separators = static_cast<std::uint32_t>(separatorsAbove + separators);
  // Every entry below the parent begins with the parent's path: only what
  // follows it is compared.
  const Skip skip = SkipBelow(parent);
  const auto below = registry.keys.begin() + parent.own;
  const auto last = registry.keys.begin() + parent.end;
  const auto begin = std::partition_point(below, last, [&](const WineRegistryKeyEntry& e) {
    return CompareEntry(registry, e, foldedRelative, Match::Whole, skip) < 0;
  });
  // The key's own headers come first, then the headers below it: a separator
  // sorts before every other character.
  auto own = begin;
  for (; own != last && CompareEntry(registry, *own, foldedRelative, Match::Whole, skip) == 0; ++own) {
    key.link = key.link || own->link;
  }
  const auto end = std::partition_point(own, last, [&](const WineRegistryKeyEntry& e) {
    return CompareEntry(registry, e, foldedRelative, Match::PrefixAndSeparator, skip) == 0;
  });
  key.begin = static_cast<std::uint32_t>(begin - registry.keys.begin());
  key.own = static_cast<std::uint32_t>(own - registry.keys.begin());
  key.end = static_cast<std::uint32_t>(end - registry.keys.begin());
  key.exists = key.begin != key.end;
  return key;
}

WineKeySpan FindWineKeySpan(const WineRegistry& registry, WStringView path) {
  return FindWineSubkeySpan(registry, WineRootSpan(registry), FoldRegistryName(path));
}

bool WineKeyExists(const WineRegistry& registry, WStringView path) { return FindWineKeySpan(registry, path).exists; }

bool WineKeyIsLink(const WineRegistry& registry, WStringView path) { return FindWineKeySpan(registry, path).link; }

std::vector<WString> WineSubkeyNames(const WineRegistry& registry, const WineKeySpan& key) {
  const std::size_t depth = key.root ? 0 : std::size_t{key.separators} + 1;
  struct Child {
    WString folded;
    std::uint32_t order;
    const WineRegistryKeyEntry* entry;
  };
  std::vector<Child> children;
  const std::size_t skip = SkipBelow(key).folded;
  WString folded;
  const auto last = registry.keys.begin() + key.end;
  for (auto it = registry.keys.begin() + key.own; it != last; ++it) {
    folded = FoldedPath(registry, *it);
    WStringView rest = WStringView(folded).substr(skip);
    WStringView name = rest.substr(0, rest.find(u'\\'));
    // Headers of one child lie together (its own, then its subtree's): only
    // the first of a run is kept, the rest told apart by file order below.
    if (!children.empty() && children.back().folded == name) {
      if (it->order < children.back().order) {
        children.back().order = it->order;
        children.back().entry = &*it;
      }
      continue;
    }
    children.push_back({WString(name), it->order, &*it});
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
    const WineRegistryKeyEntry& entry = *child.entry;
    if (entry.plain) {
      // The component as written: the bytes between its separators.
      std::string_view raw = text.substr(entry.name, entry.nameLength);
      std::size_t start = 0;
      for (std::size_t d = 0; d < depth; ++d) start = raw.find("\\\\", start) + 2;
      std::size_t stop = raw.find("\\\\", start);
      std::string_view component = raw.substr(start, stop == std::string_view::npos ? raw.npos : stop - start);
      names.emplace_back(component.begin(), component.end());
      continue;
    }
    Line line = LineAt(text, entry.name - 1, text.size());
    if (ReadHeaderName(line.text, 0, decoded) && SplitKeyName(decoded, components) && components.size() > depth) {
      names.emplace_back(components[depth]);
    } else {
      names.emplace_back(child.folded);  // not reached: the header was read once already
    }
  }
  return names;
}

std::vector<WString> WineSubkeyNames(const WineRegistry& registry, WStringView path) {
  return WineSubkeyNames(registry, FindWineKeySpan(registry, path));
}

bool FindWineValue(const WineRegistry& registry, const WineKeySpan& key, WStringView name, WineRegistryValue& value) {
  const WString wanted = FoldRegistryName(name);
  bool found = false;
  WineRegistryValue lineValue;
  ForEachValueName(registry, key, [&](const WString& valueName, Line& line, std::size_t pos, std::size_t sectionEnd) {
    if (!SameFoldedName(valueName, wanted)) {
      // Only hex data runs on over several lines: read it to pass its
      // continuation lines, as for any value.
      if (HasHexData(line.text, pos)) ParseValueData(registry.text, sectionEnd, line, pos, lineValue);
      return;
    }
    if (!ParseValueData(registry.text, sectionEnd, line, pos, lineValue)) return;
    value = lineValue;
    found = true;
  });
  return found;
}

bool FindWineValue(const WineRegistry& registry, WStringView path, WStringView name, WineRegistryValue& value) {
  return FindWineValue(registry, FindWineKeySpan(registry, path), name, value);
}

std::vector<std::pair<WString, WineRegistryValue>> WineKeyValues(const WineRegistry& registry, WStringView path) {
  std::vector<std::pair<WString, WineRegistryValue>> values;
  std::unordered_map<WString, std::size_t> positions;
  WineRegistryValue value;
  ForEachValueName(registry, FindWineKeySpan(registry, path),
                   [&](const WString& name, Line& line, std::size_t pos, std::size_t sectionEnd) {
                     if (!ParseValueData(registry.text, sectionEnd, line, pos, value)) return;
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
