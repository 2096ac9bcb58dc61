// Writer of registry files in Wine's text format.
#include "support/prefix.h"

#include <cstdio>

#include "platform/wstring.h"

namespace qv::test {

namespace {

bool IsHexDigit(char16_t c) {
  return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
}

std::string Format(const char* format, unsigned value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

// Whether the data is a string Wine saves as str(N):"...": a whole number of
// UTF-16 units ending in one NUL.
bool IsPlainString(const RegFileValue& value) {
  const auto& d = value.data;
  return !value.hexForm && (value.type == 1 || value.type == 2 || value.type == 7) && d.size() >= 2 &&
         d.size() % 2 == 0 && d[d.size() - 1] == 0 && d[d.size() - 2] == 0;
}

std::u16string StringOf(const std::vector<std::uint8_t>& data) {
  std::u16string text;
  // Every unit but the closing NUL.
  for (std::size_t i = 0; i + 2 < data.size(); i += 2) {
    text.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  }
  return text;
}

// Hex bytes wrapped as Wine wraps them: a backslash after the comma once a
// line passes 76 columns, the next line indented by two blanks.
void AppendHex(std::string& out, std::size_t column, const std::vector<std::uint8_t>& data) {
  for (std::size_t i = 0; i < data.size(); ++i) {
    out += Format("%02x", data[i]);
    column += 2;
    if (i + 1 == data.size()) break;
    out += ',';
    ++column;
    if (column > 76) {
      out += "\\\n  ";
      column = 2;
    }
  }
}

std::string EscapeRegString(const std::u16string& text, const std::string& special) {
  static const char kEscapes[] = ".......abtnvfr.............e....";
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    const char16_t next = i + 1 < text.size() ? text[i + 1] : 0;
    if (c > 127) {
      out += Format(IsHexDigit(next) ? "\\x%04x" : "\\x%x", c);
    } else if (c < 32) {
      if (kEscapes[c] != '.') {
        out += '\\';
        out += kEscapes[c];
      } else {
        out += Format(next >= u'0' && next <= u'7' ? "\\%03o" : "\\%o", c);
      }
    } else if (c == u'\\' || special.find(static_cast<char>(c)) != std::string::npos) {
      out += '\\';
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace

RegFileValue SzValue(const std::u16string& name, const std::u16string& text) {
  return {name, 1, Utf16LeBytes(text), false};
}

RegFileValue ExpandSzValue(const std::u16string& name, const std::u16string& text, bool hexForm) {
  return {name, 2, Utf16LeBytes(text), hexForm};
}

RegFileValue DwordValue(const std::u16string& name, std::uint32_t value) {
  return {name, 4, {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                    static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)}, false};
}

RegFileValue BinaryValue(const std::u16string& name, const std::vector<std::uint8_t>& bytes) {
  return {name, 3, bytes, false};
}

RegFileValue TypedValue(const std::u16string& name, std::uint32_t type, const std::vector<std::uint8_t>& bytes) {
  return {name, type, bytes, true};
}

RegFileValue LinkValue(const std::u16string& target) {
  return {u"SymbolicLinkValue", 6, Utf16LeBytes(target, false), true};
}

std::string WineRegText(const std::vector<RegFileKey>& keys, const std::u16string& relativeTo) {
  std::string out = "WINE REGISTRY Version 2\n;; All keys relative to " + EscapeRegString(relativeTo, "") +
                    "\n\n#arch=win64\n";
  for (const RegFileKey& key : keys) {
    out += "\n[" + EscapeRegString(key.path, "[]") + "] 1795423466\n#time=1dd7b26d8da7df8\n";
    if (key.link) out += "#link\n";
    for (const RegFileValue& value : key.values) {
      std::string line = value.name.empty() ? "@=" : "\"" + EscapeRegString(value.name, "\"") + "\"=";
      if (IsPlainString(value)) {
        if (value.type != 1) line += Format("str(%x):", value.type);
        line += "\"" + EscapeRegString(StringOf(value.data), "\"") + "\"";
      } else if (value.type == 4 && value.data.size() == 4 && !value.hexForm) {
        line += Format("dword:%08x", value.data[0] | (value.data[1] << 8) | (value.data[2] << 16) |
                                         (static_cast<unsigned>(value.data[3]) << 24));
      } else {
        line += value.type == 3 ? std::string("hex:") : Format("hex(%x):", value.type);
        AppendHex(line, line.size(), value.data);
      }
      out += line + "\n";
    }
  }
  return out;
}

std::string SystemRegFile(const std::vector<RegFileKey>& keys) { return WineRegText(keys, u"REGISTRY\\Machine"); }

std::string UserRegFile(const std::vector<RegFileKey>& keys, const std::u16string& sid) {
  return WineRegText(keys, u"REGISTRY\\User\\" + sid);
}

}  // namespace qv::test
