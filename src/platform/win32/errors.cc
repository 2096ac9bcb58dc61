// Last error and error texts of the Windows build.
#include <windows.h>

#include <string>

#include "platform/win32/win32_util.h"

namespace qv::platform {

std::uint32_t GetLastError() { return ::GetLastError(); }
void SetLastError(std::uint32_t code) { ::SetLastError(code); }

std::string SystemErrorText(std::uint32_t code) {
  wchar_t* buffer = nullptr;
  DWORD n = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                             nullptr, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  std::wstring text = n != 0 && buffer != nullptr ? std::wstring(buffer, n) : std::wstring();
  if (buffer != nullptr) ::LocalFree(buffer);
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r')) text.pop_back();
  if (text.empty()) return "Unknown error " + std::to_string(code) + ".";
  int size = ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
  std::string out(size > 0 ? size - 1 : 0, '\0');
  if (size > 1) ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, out.data(), size, nullptr, nullptr);
  return out;
}

std::string NarrowPathText(const WString& path) {
  int size = ::WideCharToMultiByte(CP_ACP, 0, win32::W(path), -1, nullptr, 0, nullptr, nullptr);
  std::string out(size > 0 ? size - 1 : 0, '\0');
  if (size > 1) ::WideCharToMultiByte(CP_ACP, 0, win32::W(path), -1, out.data(), size, nullptr, nullptr);
  return out;
}

}  // namespace qv::platform
