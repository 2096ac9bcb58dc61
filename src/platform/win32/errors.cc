// Last error, error texts, the console and the command line of the Windows
// build.
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <string>

#include "platform/fault_injection.h"
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

void TerminateNow() { ::TerminateProcess(::GetCurrentProcess(), 137); for (;;) {} }

namespace {
// To a console the text goes as UTF-16 through WriteConsoleW, so that every
// character shows; redirected, it goes as UTF-8 bytes.
void WriteTo(DWORD which, const WString& text) {
  HANDLE out = ::GetStdHandle(which);
  DWORD mode = 0;
  if (out != INVALID_HANDLE_VALUE && ::GetConsoleMode(out, &mode)) {
    DWORD written = 0;
    ::WriteConsoleW(out, win32::W(text), static_cast<DWORD>(text.size()), &written, nullptr);
    return;
  }
  std::string bytes = WideToUtf8(text);
  std::fwrite(bytes.data(), 1, bytes.size(), which == STD_OUTPUT_HANDLE ? stdout : stderr);
  std::fflush(which == STD_OUTPUT_HANDLE ? stdout : stderr);
}
}  // namespace

void WriteStdout(const WString& text) { WriteTo(STD_OUTPUT_HANDLE, text); }
void WriteStderr(const WString& text) { WriteTo(STD_ERROR_HANDLE, text); }
void WriteStderrNarrow(const std::string& text) {
  // Narrow texts carry paths in the ANSI code page (NarrowPathText).
  int size = ::MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(size, L'\0');
  if (size > 0) ::MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), wide.data(), size);
  WriteTo(STD_ERROR_HANDLE, win32::FromW(wide.c_str(), wide.size()));
}

std::vector<WString> CommandLineArguments(int, char**) {
  std::vector<WString> arguments;
  int count = 0;
  wchar_t** list = ::CommandLineToArgvW(::GetCommandLineW(), &count);
  if (list == nullptr) return arguments;
  for (int i = 0; i < count; ++i) arguments.push_back(win32::FromW(list[i]));
  ::LocalFree(list);
  return arguments;
}

std::uint64_t GetTickCount64() {
  QV_FAULT_POINT("GetTickCount64", return 0);
  return ::GetTickCount64();
}

}  // namespace qv::platform
