// Holds a file or folder open as an antivirus scanner or backup agent does
// for a moment:
//   hold_file.exe PATH SHARE READY [TRIGGER DELAY_MS]
// Opens PATH with the share mode SHARE (0 none, 3 read and write), then
// creates the file READY. Without TRIGGER it holds PATH until it is ended;
// with one it closes PATH DELAY_MS after a path matching TRIGGER (wildcards
// allowed in any element) has come into being, and exits.
#include <windows.h>

#include <cwchar>
#include <string>
#include <vector>

namespace {

// Whether a path matching parts[i..] exists below `done`.
bool Matches(const std::wstring& done, const std::vector<std::wstring>& parts, std::size_t i) {
  if (i == parts.size()) return GetFileAttributesW(done.c_str()) != INVALID_FILE_ATTRIBUTES;
  if (parts[i].find_first_of(L"*?") == std::wstring::npos) return Matches(done + L"\\" + parts[i], parts, i + 1);
  WIN32_FIND_DATAW found;
  HANDLE search = FindFirstFileW((done + L"\\" + parts[i]).c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return false;
  bool matched = false;
  do {
    if (wcscmp(found.cFileName, L".") != 0 && wcscmp(found.cFileName, L"..") != 0) {
      matched = Matches(done + L"\\" + found.cFileName, parts, i + 1);
    }
  } while (!matched && FindNextFileW(search, &found));
  FindClose(search);
  return matched;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc != 4 && argc != 6) return 2;
  HANDLE held = CreateFileW(argv[1], GENERIC_READ, static_cast<DWORD>(_wtoi(argv[2])), nullptr, OPEN_EXISTING,
                            FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (held == INVALID_HANDLE_VALUE) return 3;
  CloseHandle(CreateFileW(argv[3], GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  if (argc == 4) Sleep(INFINITE);

  std::vector<std::wstring> parts;
  for (std::wstring rest = argv[4]; !rest.empty();) {
    const std::size_t cut = rest.find(L'\\');
    parts.push_back(rest.substr(0, cut));
    rest = cut == std::wstring::npos ? L"" : rest.substr(cut + 1);
  }
  while (!Matches(parts[0], parts, 1)) Sleep(1);
  Sleep(static_cast<DWORD>(_wtoi(argv[5])));
  CloseHandle(held);
  return 0;
}
