// Built with MinGW-w64 and run under Wine. Without arguments, prints what
// Wine's own SHGetFolderPathW gives for the roaming (26) and local (28)
// application data folders, one line each: "<csidl> <hresult> <path in UTF-8>".
// With a search pattern, prints the names that FindFirstFileW and
// FindNextFileW give for it, one a line, in UTF-8.
#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <string>

static std::string Utf8(const wchar_t* text) {
  int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  std::string out(size > 0 ? size - 1 : 0, '\0');
  if (size > 1) WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), size, nullptr, nullptr);
  return out;
}

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  if (argc > 1) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(argv[1], &found);
    if (search == INVALID_HANDLE_VALUE) return 1;
    do std::printf("%s\n", Utf8(found.cFileName).c_str());
    while (FindNextFileW(search, &found));
    FindClose(search);
    return 0;
  }
  for (int csidl : {26, 28}) {
    wchar_t path[MAX_PATH] = {0};
    HRESULT result = SHGetFolderPathW(nullptr, csidl, nullptr, 0, path);
    std::printf("%d %ld %s\n", csidl, static_cast<long>(result), Utf8(path).c_str());
  }
  return 0;
}
