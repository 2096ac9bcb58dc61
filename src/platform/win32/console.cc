// Console output, the command line and the end of the process in the
// Windows build.
#include <windows.h>
#include <shellapi.h>

#include <string>

#include "platform/win32/win32_util.h"

namespace qv::platform {

namespace {
// To a console the text goes as UTF-16 through WriteConsoleW, so that every
// character shows; redirected, it goes as UTF-8 bytes in one WriteFile. Not
// through the C runtime's streams: those write a byte at a time to a
// character device such as NUL, one system call per byte.
void WriteTo(DWORD which, const WString& text) {
  HANDLE out = ::GetStdHandle(which);
  if (out == INVALID_HANDLE_VALUE || out == nullptr) return;
  DWORD mode = 0;
  if (::GetConsoleMode(out, &mode)) {
    DWORD written = 0;
    ::WriteConsoleW(out, win32::W(text), static_cast<DWORD>(text.size()), &written, nullptr);
    return;
  }
  const std::string bytes = WideToUtf8(text);
  for (std::size_t done = 0; done < bytes.size();) {
    DWORD written = 0;
    if (!::WriteFile(out, bytes.data() + done, static_cast<DWORD>(bytes.size() - done), &written, nullptr) ||
        written == 0) {
      return;
    }
    done += written;
  }
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

void TerminateNow() { ::TerminateProcess(::GetCurrentProcess(), 137); for (;;) {} }

}  // namespace qv::platform
