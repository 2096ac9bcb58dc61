// Wide strings as the system holds them: UTF-16 code units in both builds.
//
// std::wstring is 32-bit on Linux and 16-bit on Windows; holding UTF-16 in
// std::u16string everywhere means both builds compare the same code units and
// surrogate pairs survive unchanged.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qv {

using WChar = char16_t;
using WString = std::u16string;
using WStringView = std::u16string_view;

// UTF-8 <-> UTF-16. Invalid UTF-8 bytes become U+FFFD; lone surrogates are
// written as U+FFFD on the way out, since UTF-8 cannot carry them.
WString Utf8ToWide(std::string_view text);
std::string WideToUtf8(WStringView text);

// Plain ASCII text to a wide string (for literals built at run time).
WString AsciiToWide(std::string_view text);

// The code units as little-endian bytes, two each, with no terminator; and
// back, up to the first NUL unit, a missing last byte read as zero.
std::string Utf16LeBytes(WStringView text);
WString Utf16LeText(const std::uint8_t* bytes, std::size_t size);

// A to Z and a to z: the letters of a drive, and the only ones that fold in
// the tool's own comparisons.
constexpr bool IsAsciiLetter(WChar c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }
// A to Z turned to a to z, every other code unit unchanged.
constexpr WChar AsciiLower(WChar c) { return c >= u'A' && c <= u'Z' ? static_cast<WChar>(c + (u'a' - u'A')) : c; }

// Decimal text of an unsigned number, as "%lu"/"%llu" would write it.
WString DecimalText(std::uint64_t value);
// Decimal text of a signed 32-bit value, with a leading "-" when negative.
WString SignedDecimalText(std::int32_t value);

}  // namespace qv
