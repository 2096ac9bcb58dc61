// Conversions between the seam's strings and handles and the Win32 types,
// and the form in which paths reach the file calls.
#pragma once

#include <windows.h>

#include <string>

#include "platform/platform.h"

namespace qv::platform::win32 {

inline const wchar_t* W(const WString& s) { return reinterpret_cast<const wchar_t*>(s.c_str()); }
inline WString FromW(const wchar_t* s) { return WString(reinterpret_cast<const char16_t*>(s)); }
inline WString FromW(const wchar_t* s, std::size_t n) { return WString(reinterpret_cast<const char16_t*>(s), n); }
inline HANDLE H(Handle h) { return reinterpret_cast<HANDLE>(h); }
inline Handle FromH(HANDLE h) { return reinterpret_cast<Handle>(h); }
inline HKEY K(RegKey k) { return reinterpret_cast<HKEY>(k); }

// Without the long-path opt-in, the plain file calls take paths shorter than
// MAX_PATH, and CreateDirectoryW 12 characters less (room for an 8.3 name).
inline constexpr std::size_t kPlainPathLimit = MAX_PATH - 12;

// GetFullPathNameW with a buffer that grows to the length it needs: `/`
// turned into `\`, `.` and `..` resolved, trailing dots and blanks of the
// last element dropped, as the file calls do it. Empty on failure.
std::wstring FullPathName(const std::wstring& path);

// A path as every file call of this backend hands it to the system: as given
// while it is shorter than kPlainPathLimit, otherwise its full path in the
// extended-length form (\\?\C:\... or \\?\UNC\server\share\...), which the
// file calls take up to 32,767 characters whatever the system's long-path
// setting. That form skips the system's own normalisation, so the full path
// is made first.
class FilePath {
 public:
  explicit FilePath(const WString& path);
  operator const wchar_t*() const { return path_.c_str(); }
  const std::wstring& text() const { return path_; }

 private:
  std::wstring path_;
};

// A path that a call gave back in the extended-length form, in the plain form
// the rest of the tool works with; any other path unchanged.
WString PlainPath(const WString& path);

}  // namespace qv::platform::win32
