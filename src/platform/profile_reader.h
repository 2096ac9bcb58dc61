// Reading one value of an INI file the way GetPrivateProfileStringW does it
// under Wine, for the backends that cannot hand the question to the system:
// the Linux host always, the Windows build for a file whose path is too long
// for the system's profile calls. Pure functions over the file's bytes.
//
// The file's text:
// - FF FE starts UTF-16LE, FE FF UTF-16BE, EF BB BF UTF-8; anything else is
//   8-bit text in Windows-1252 (the code page Wine uses for an English or
//   C/POSIX host locale; the reader does not follow the host's locale).
//   Invalid UTF-8 becomes U+FFFD as Wine's decoder gives it; an odd last byte
//   of UTF-16 is dropped.
// - Lines end at CR or LF; blanks (TAB, LF, VT, FF, CR, space and the DOS end
//   of file 0x1A, nothing beyond) are removed at both ends of a line.
// - "[name]" opens a section: the name lies up to the line's last "]",
//   without blanks at its ends. Lines before the first header form a section
//   with the empty name. Only the first section of a name is looked at: a
//   later section of the same name is never searched.
// - Other lines are "key=value", split at the first "="; blanks around key and
//   value are removed. A line without "=" is a key without a value, which
//   gives the default. ";" starts no comment of its own: ";x=1" is the key
//   ";x", which no caller asks for.
// - Names and values end at their first NUL code unit.
// - Section and key compare with A-Z folded, nothing else.
// - A value enclosed in a pair of the same quote (" or ') loses them; the
//   default value loses its trailing spaces (keeping its first character)
//   and then any pair of quotes too.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/constants.h"
#include "platform/wstring.h"

namespace qv::platform::profile {

// GetPrivateProfileStringW over a file with these bytes, into a buffer of
// `size` characters: the value (cut to size - 1) or the default, and its
// length. A missing file reads as an empty one.
std::uint32_t ReadProfileString(std::string_view fileBytes, WStringView section, WStringView key,
                                WStringView defaultValue, WString& value, std::uint32_t size);

// The answer when the file exists but cannot be opened, or its folder is
// missing: the default value without its trailing spaces, quotes kept.
std::uint32_t UnreadableProfileDefault(WStringView defaultValue, WString& value, std::uint32_t size);

// The largest profile file the backends read, in bytes: the saved inventory
// at its largest, 128 records of two paths of 32,767 characters in UTF-16,
// each line with its key, "=" and CR LF (16 characters at most), and the
// header. A larger file is not read at all: the call answers as for a file
// that cannot be read (last error 223), which the inventory reader refuses as
// malformed, rather than spend a run reading gigabytes.
inline constexpr std::uint64_t kLargestProfileFile = 2 * (32 + 128 * 2 * ((kLongPathBuffer - 1) + 16));

}  // namespace qv::platform::profile
