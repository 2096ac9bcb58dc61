// The one place where paths take the extended-length form on their way to
// the system, and lose it on their way back.
#include <vector>

#include "platform/win32/win32_util.h"

namespace qv::platform::win32 {

namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool StartsWith(const std::wstring& text, const wchar_t* prefix) { return text.rfind(prefix, 0) == 0; }

// Device and extended-length paths go to the system as written.
bool IsDevicePath(const std::wstring& path) {
  return StartsWith(path, L"\\\\?\\") || StartsWith(path, L"\\\\.\\") || StartsWith(path, L"\\??\\");
}

// A drive path ("C:\x") or a network path ("\\server\share"): the current
// directory plays no part in what it names. The roots as the extended-length
// form needs them told apart, not as the tool's path rules define them.
bool IsFullyQualified(const std::wstring& path) {
  if (path.size() >= 3 && path[1] == L':' && IsSeparator(path[2])) return true;
  return path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1]);
}

}  // namespace

std::wstring FullPathName(const std::wstring& path) {
  std::vector<wchar_t> buffer(MAX_PATH);
  for (;;) {
    const DWORD n = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    if (n == 0) return {};
    if (n < buffer.size()) return std::wstring(buffer.data(), n);
    // Too small: n is the size needed, terminator included.
    buffer.assign(n, L'\0');
  }
}

FilePath::FilePath(const WString& path) : path_(W(path), path.size()) {
  // A short relative path can still name a long one below a deep current
  // directory, so only a short fully qualified path skips the full path.
  if (IsDevicePath(path_) || (path_.size() < kPlainPathLimit && IsFullyQualified(path_))) return;
  std::wstring full = FullPathName(path_);
  // The call itself reports what is wrong with a path that has no full form.
  if (full.size() < kPlainPathLimit || IsDevicePath(full)) return;
  path_ = IsSeparator(full[0]) && IsSeparator(full[1]) ? L"\\\\?\\UNC\\" + full.substr(2) : L"\\\\?\\" + full;
}

WString PlainPath(const WString& path) {
  static constexpr WStringView kUnc = u"\\\\?\\UNC\\";
  static constexpr WStringView kExtended = u"\\\\?\\";
  const WStringView text(path);
  if (text.substr(0, kUnc.size()) == kUnc) return u"\\\\" + WString(text.substr(kUnc.size()));
  // Only a drive path: \\?\Volume{...} and the like have no plain form.
  if (text.substr(0, kExtended.size()) == kExtended && text.size() >= kExtended.size() + 3 &&
      text[kExtended.size() + 1] == u':' && text[kExtended.size() + 2] == u'\\') {
    return WString(text.substr(kExtended.size()));
  }
  return path;
}

}  // namespace qv::platform::win32
