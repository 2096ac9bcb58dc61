// The profile reader shared by the backends: the file is searched line by
// line, stopping as soon as the answer is known, so a huge one costs one pass.
#include "platform/profile_reader.h"

#include <algorithm>

namespace qv::platform::profile {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

// Windows-1252 from 0x80 to 0x9F; the five bytes it leaves undefined keep
// their value, as Wine's table has them. All other bytes are their own code.
constexpr char16_t kWindows1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

enum class Encoding { Ansi, Utf8, Utf16Le, Utf16Be };

// The code units of the file's text, one at a time.
class TextUnits {
 public:
  explicit TextUnits(std::string_view bytes) : bytes_(bytes) {
    if (StartsWith("\xEF\xBB\xBF")) {
      encoding_ = Encoding::Utf8;
      pos_ = 3;
    } else if (StartsWith("\xFF\xFE")) {
      encoding_ = Encoding::Utf16Le;
      pos_ = 2;
    } else if (StartsWith("\xFE\xFF")) {
      encoding_ = Encoding::Utf16Be;
      pos_ = 2;
    }
  }

  bool Next(char16_t& unit) {
    if (pendingLow_ != 0) {
      unit = pendingLow_;
      pendingLow_ = 0;
      return true;
    }
    std::size_t left = bytes_.size() - pos_;
    switch (encoding_) {
      case Encoding::Ansi: {
        if (left == 0) return false;
        auto byte = Byte(pos_++);
        unit = byte >= 0x80 && byte < 0xA0 ? kWindows1252High[byte - 0x80] : byte;
        return true;
      }
      case Encoding::Utf16Le:
      case Encoding::Utf16Be: {
        if (left < 2) return false;  // an odd last byte is no character
        char16_t low = Byte(pos_);
        char16_t high = Byte(pos_ + 1);
        if (encoding_ == Encoding::Utf16Be) std::swap(low, high);
        unit = static_cast<char16_t>(low | (high << 8));
        pos_ += 2;
        return true;
      }
      case Encoding::Utf8: {
        if (left == 0) return false;
        std::uint32_t code = DecodeUtf8();
        if (code > 0xFFFF) {
          code -= 0x10000;
          unit = static_cast<char16_t>(0xD800 + (code >> 10));
          pendingLow_ = static_cast<char16_t>(0xDC00 + (code & 0x3FF));
        } else {
          unit = static_cast<char16_t>(code);
        }
        return true;
      }
    }
    return false;
  }

 private:
  bool StartsWith(std::string_view mark) const { return bytes_.substr(0, mark.size()) == mark; }
  std::uint8_t Byte(std::size_t at) const { return static_cast<std::uint8_t>(bytes_[at]); }

  // One character of UTF-8, read as Wine reads it. The first byte sets the
  // length: C2-DF two bytes, E0-EF three, F0-F4 four; any other byte above
  // 7F is one U+FFFD by itself. A sequence cut by the end of the text is one
  // U+FFFD that takes the rest of the text with it. A bad continuation byte,
  // an overlong form, a surrogate or a value above U+10FFFF gives one U+FFFD
  // for the bytes accepted so far, and reading goes on behind them.
  std::uint32_t DecodeUtf8() {
    std::uint8_t first = Byte(pos_++);
    if (first < 0x80) return first;
    std::size_t follow = first >= 0xC2 && first <= 0xDF   ? 1
                         : first >= 0xE0 && first <= 0xEF ? 2
                         : first >= 0xF0 && first <= 0xF4 ? 3
                                                          : 0;
    if (follow == 0) return kReplacement;
    if (bytes_.size() - pos_ < follow) {
      pos_ = bytes_.size();
      return kReplacement;
    }
    std::uint32_t code = first & (0x7Fu >> (follow + 1));
    const std::size_t end = pos_ + follow;
    auto continuation = [&](std::size_t at, std::uint32_t& bits) {
      bits = Byte(at) ^ 0x80u;
      return bits < 0x40;
    };
    std::uint32_t bits = 0;
    if (follow == 3) {
      if (!continuation(end - 3, bits)) return kReplacement;
      code = (code << 6) | bits;
      ++pos_;
      if (code < 0x10) return kReplacement;
    }
    if (follow >= 2) {
      if (!continuation(end - 2, bits)) return kReplacement;
      code = (code << 6) | bits;
      if (code >= (0x110000 >> 6)) return kReplacement;
      ++pos_;
      if (code < 0x20) return kReplacement;
      if (code >= (0xD800 >> 6) && code <= (0xDFFF >> 6)) return kReplacement;
    }
    if (!continuation(end - 1, bits)) return kReplacement;
    code = (code << 6) | bits;
    ++pos_;
    if (code < 0x80) return kReplacement;
    return code;
  }

  std::string_view bytes_;
  std::size_t pos_ = 0;
  Encoding encoding_ = Encoding::Ansi;
  char16_t pendingLow_ = 0;
};

bool IsBlank(char16_t c) { return (c >= 0x09 && c <= 0x0D) || c == 0x1A || c == 0x20; }

WStringView TrimLeft(WStringView text) {
  std::size_t start = 0;
  while (start < text.size() && IsBlank(text[start])) ++start;
  return text.substr(start);
}

WStringView TrimRight(WStringView text) {
  std::size_t end = text.size();
  while (end > 0 && IsBlank(text[end - 1])) --end;
  return text.substr(0, end);
}

WStringView Trim(WStringView text) { return TrimRight(TrimLeft(text)); }

WStringView CutAtNul(WStringView text) { return text.substr(0, text.find(u'\0')); }

bool SameName(WStringView a, WStringView b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char16_t x, char16_t y) {
           return AsciiLower(x) == AsciiLower(y);
         });
}

// Copies a value into a buffer of `size` characters: at most size - 1 of
// them. A value enclosed in a pair of the same quote loses the opening one,
// and the closing one is dropped after the copy, but only when the buffer
// could hold the value with it; with one place too few this drops one more
// character of the value, as Wine does.
std::uint32_t CopyEntry(WStringView text, WString& value, std::uint32_t size, bool stripQuotes) {
  value.clear();
  if (size == 0) return 0;
  bool quoted = false;
  if (stripQuotes && text.size() > 1 && (text[0] == u'"' || text[0] == u'\'') && text.back() == text[0]) {
    quoted = true;
    text.remove_prefix(1);
  }
  value.assign(text.substr(0, std::min<std::size_t>(text.size(), size - 1)));
  if (quoted && size >= text.size() && !value.empty()) value.pop_back();
  return static_cast<std::uint32_t>(value.size());
}

// The default value as the call takes it: up to its first NUL, without
// trailing spaces, though never shorter than one character.
WStringView PrepareDefault(WStringView defaultValue) {
  WStringView text = CutAtNul(defaultValue);
  std::size_t end = text.size();
  while (end > 1 && text[end - 1] == u' ') --end;
  return text.substr(0, end);
}

enum class LineOutcome { Continue, Found, Missing };

// The search for one key: follows the sections line by line.
struct Search {
  WStringView section;
  WStringView key;
  bool inSection = false;  // within the first section of the wanted name
  WStringView value;       // set with Found; null data for a key without "="
  bool hasValue = false;

  LineOutcome Line(WStringView line) {
    line = Trim(line);
    if (line.empty()) return LineOutcome::Continue;
    if (line[0] == u'[') {
      std::size_t close = line.rfind(u']');
      if (close != WStringView::npos && close > 0) {
        // A new header ends the wanted section; a later one of the same name
        // is never searched.
        if (inSection) return LineOutcome::Missing;
        inSection = SameName(CutAtNul(Trim(line.substr(1, close - 1))), section);
        return LineOutcome::Continue;
      }
    }
    if (!inSection) return LineOutcome::Continue;
    std::size_t equals = line.find(u'=');
    WStringView name = equals == WStringView::npos ? line : TrimRight(line.substr(0, equals));
    if (!SameName(CutAtNul(name), key)) return LineOutcome::Continue;
    hasValue = equals != WStringView::npos;
    if (hasValue) value = CutAtNul(TrimLeft(line.substr(equals + 1)));
    return LineOutcome::Found;
  }
};

// Hands each line of the file's text to `line` until it answers false.
template <typename LineFn>
void ForEachLine(std::string_view fileBytes, LineFn&& line) {
  TextUnits units(fileBytes);
  WString text;
  char16_t unit = 0;
  for (bool more = true; more;) {
    more = units.Next(unit);
    if (more && unit != u'\r' && unit != u'\n') {
      text.push_back(unit);
      continue;
    }
    if (!line(WStringView(text))) return;
    text.clear();
  }
}

}  // namespace

std::uint32_t ReadProfileString(std::string_view fileBytes, WStringView section, WStringView key,
                                WStringView defaultValue, WString& value, std::uint32_t size) {
  Search search;
  search.section = Trim(CutAtNul(section));
  search.key = Trim(CutAtNul(key));
  // Lines before the first header belong to the section without a name.
  search.inSection = search.section.empty();

  LineOutcome outcome = LineOutcome::Continue;
  WString found;
  ForEachLine(fileBytes, [&](WStringView line) {
    outcome = search.Line(line);
    // The line's text goes with the next one; the value is kept first.
    if (outcome == LineOutcome::Found && search.hasValue) found.assign(search.value);
    return outcome == LineOutcome::Continue;
  });
  if (outcome == LineOutcome::Found && search.hasValue) return CopyEntry(found, value, size, true);
  return CopyEntry(PrepareDefault(defaultValue), value, size, true);
}

std::uint32_t UnreadableProfileDefault(WStringView defaultValue, WString& value, std::uint32_t size) {
  return CopyEntry(PrepareDefault(defaultValue), value, size, false);
}

}  // namespace qv::platform::profile
