#include "platform/wstring.h"

namespace qv {

WString Utf8ToWide(std::string_view text) {
  WString out;
  out.reserve(text.size());
  std::size_t i = 0;
  const std::size_t n = text.size();
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  while (i < n) {
    unsigned char c = byte(i);
    std::uint32_t cp = 0;
    std::size_t len = 0;
    if (c < 0x80) {
      cp = c;
      len = 1;
    } else if ((c & 0xE0) == 0xC0 && c >= 0xC2) {
      cp = c & 0x1F;
      len = 2;
    } else if ((c & 0xF0) == 0xE0) {
      cp = c & 0x0F;
      len = 3;
    } else if ((c & 0xF8) == 0xF0 && c <= 0xF4) {
      cp = c & 0x07;
      len = 4;
    } else {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (i + len > n) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    bool ok = true;
    for (std::size_t k = 1; k < len; ++k) {
      unsigned char cc = byte(i + k);
      if ((cc & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (cc & 0x3F);
    }
    // Reject overlong forms, surrogates and values past U+10FFFF.
    if (ok && ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
               (cp >= 0xD800 && cp <= 0xDFFF))) {
      ok = false;
    }
    if (!ok) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<WChar>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<WChar>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<WChar>(cp));
    }
    i += len;
  }
  return out;
}

std::string WideToUtf8(WStringView text) {
  std::string out;
  out.reserve(text.size());
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n; ++i) {
    std::uint32_t cp = text[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

WString AsciiToWide(std::string_view text) {
  WString out;
  out.reserve(text.size());
  for (char c : text) out.push_back(static_cast<WChar>(static_cast<unsigned char>(c)));
  return out;
}

std::string Utf16LeBytes(WStringView text) {
  std::string bytes;
  bytes.reserve(text.size() * 2);
  for (const WChar unit : text) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

WString Utf16LeText(const std::uint8_t* bytes, std::size_t size) {
  WString text;
  for (std::size_t i = 0; i < size; i += 2) {
    const WChar unit = static_cast<WChar>(bytes[i] | ((i + 1 < size ? bytes[i + 1] : 0) << 8));
    if (unit == 0) break;
    text.push_back(unit);
  }
  return text;
}

WString DecimalText(std::uint64_t value) {
  WString out;
  do {
    out.insert(out.begin(), static_cast<WChar>(u'0' + value % 10));
    value /= 10;
  } while (value != 0);
  return out;
}

WString SignedDecimalText(std::int32_t value) {
  if (value >= 0) return DecimalText(static_cast<std::uint64_t>(value));
  std::uint64_t magnitude = static_cast<std::uint64_t>(-static_cast<std::int64_t>(value));
  return u"-" + DecimalText(magnitude);
}

}  // namespace qv
