// The floor of an update's copies, for update_bench: each FROM tree laid over
// its TO folder with FindFirstFileW, CreateDirectoryW and CopyFileW alone,
// nothing asked that these calls do not answer by themselves.
//
//   copy_floor.exe FROM TO [FROM TO ...]
//
// Exit code 0 when every tree was laid, 1 on the first call that failed.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {

bool LayTree(const std::wstring& from, const std::wstring& to) {
  if (!::CreateDirectoryW(to.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS) return false;
  WIN32_FIND_DATAW data;
  const HANDLE search = ::FindFirstFileW((from + L"\\*").c_str(), &data);
  if (search == INVALID_HANDLE_VALUE) return false;
  bool laid = true;
  do {
    const std::wstring name = data.cFileName;
    if (name == L"." || name == L"..") continue;
    laid = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0
               ? LayTree(from + L"\\" + name, to + L"\\" + name)
               : ::CopyFileW((from + L"\\" + name).c_str(), (to + L"\\" + name).c_str(), FALSE) != 0;
  } while (laid && ::FindNextFileW(search, &data));
  const bool ended = !laid || ::GetLastError() == ERROR_NO_MORE_FILES;
  ::FindClose(search);
  return laid && ended;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 3 || argc % 2 == 0) {
    std::fprintf(stderr, "usage: copy_floor FROM TO [FROM TO ...]\n");
    return 2;
  }
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!LayTree(argv[i], argv[i + 1])) {
      std::fprintf(stderr, "%ls -> %ls failed with %lu\n", argv[i], argv[i + 1], ::GetLastError());
      return 1;
    }
  }
  return 0;
}
