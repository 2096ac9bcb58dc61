// Conversions between the seam's strings and handles and the Win32 types.
#pragma once

#include <windows.h>

#include "platform/platform.h"

namespace qv::platform::win32 {

inline const wchar_t* W(const WString& s) { return reinterpret_cast<const wchar_t*>(s.c_str()); }
inline WString FromW(const wchar_t* s) { return WString(reinterpret_cast<const char16_t*>(s)); }
inline WString FromW(const wchar_t* s, std::size_t n) { return WString(reinterpret_cast<const char16_t*>(s), n); }
inline HANDLE H(Handle h) { return reinterpret_cast<HANDLE>(h); }
inline Handle FromH(HANDLE h) { return reinterpret_cast<Handle>(h); }
inline HKEY K(RegKey k) { return reinterpret_cast<HKEY>(k); }

}  // namespace qv::platform::win32
