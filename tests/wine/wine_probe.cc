// Built with MinGW-w64 and run under Wine, to ask Wine's own functions what
// the native build must answer alike. Output is UTF-8, one answer a line.
//   wine_probe.exe                     stays up, a stand-in for Fusion: "up"
//   wine_probe.exe list PATTERN        "<name>\t<attributes in hex>" from FindFirstFileW/FindNextFileW
//   wine_probe.exe attributes PATH     GetFileAttributesW in hex
//   wine_probe.exe hold PATH SHARE [TRIGGER DELAY_MS]
//       opens PATH with the share mode SHARE (0 none, 3 read and write) as a
//       scanner or backup agent does, prints "holding", and holds it until
//       ended; or, with TRIGGER, until DELAY_MS after a path matching TRIGGER
//       (wildcards in any element) has come into being
//   wine_probe.exe profile DATA_DIR QUERIES OUTPUT
//       asks GetPrivateProfileStringW each question of QUERIES (file, section,
//       key, default, buffer size, tab-separated; \uXXXX for a code unit, \\ for
//       a backslash; the file relative to DATA_DIR) and writes a line for each:
//       file, section, key, default, size, result and the units placed in the
//       buffer, tab-separated, text as its code units in four hex digits each
#include <windows.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

std::string Utf8(const std::wstring& text) {
  std::string out(text.size() * 3, '\0');
  out.resize(WideCharToMultiByte(CP_UTF8, 0, text.data(), int(text.size()), out.data(), int(out.size()), 0, 0));
  return out;
}

std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator) {
  std::vector<std::wstring> parts(1);
  for (wchar_t c : text) {
    if (c == separator) parts.emplace_back();
    else parts.back().push_back(c);
  }
  return parts;
}

// Whether a path matching parts[i..] exists below `done`.
bool Matches(const std::wstring& done, const std::vector<std::wstring>& parts, std::size_t i) {
  if (i == parts.size()) return GetFileAttributesW(done.c_str()) != INVALID_FILE_ATTRIBUTES;
  WIN32_FIND_DATAW found;
  HANDLE search = FindFirstFileW((done + L"\\" + parts[i]).c_str(), &found);
  bool matched = false;
  while (search != INVALID_HANDLE_VALUE && !matched) {
    const std::wstring name = found.cFileName;
    matched = name != L"." && name != L".." && Matches(done + L"\\" + name, parts, i + 1);
    if (!FindNextFileW(search, &found)) break;
  }
  if (search != INVALID_HANDLE_VALUE) FindClose(search);
  return matched;
}

std::wstring Unescape(const std::wstring& field) {
  std::wstring out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field.compare(i, 2, L"\\\\") == 0) {
      out += L'\\', ++i;
    } else if (field.compare(i, 2, L"\\u") == 0 && i + 5 < field.size()) {
      out += wchar_t(std::stoul(field.substr(i + 2, 4), nullptr, 16)), i += 5;
    } else {
      out += field[i];
    }
  }
  return out;
}

std::string Hex(const wchar_t* units, std::size_t count) {
  std::string out;
  char unit[8];
  for (std::size_t i = 0; i < count; ++i) {
    std::snprintf(unit, sizeof unit, "%04X", unsigned(units[i]));
    out += unit;
  }
  return out;
}

int Profile(const std::wstring& data, const std::wstring& queries, const std::wstring& output) {
  std::ifstream in(Utf8(queries), std::ios::binary);
  std::ofstream out(Utf8(output), std::ios::binary);
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    std::wstring wide;
    for (unsigned char c : line) wide += wchar_t(c);
    std::vector<std::wstring> f = Split(wide, L'\t');
    if (f.size() != 5) return 2;
    for (std::size_t i = 0; i < 4; ++i) {
      f[i] = Unescape(f[i]);
      out << Hex(f[i].data(), f[i].size()) << '\t';
    }
    const DWORD size = std::stoul(f[4]);
    std::vector<wchar_t> buffer(size + 1);
    const DWORD result = GetPrivateProfileStringW(f[1].c_str(), f[2].c_str(), f[3].c_str(), buffer.data(), size,
                                                  (data + L"\\" + f[0]).c_str());
    out << size << '\t' << result << '\t' << Hex(buffer.data(), result < size ? result : size) << '\n';
  }
  return 0;
}

}  // namespace

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  const std::wstring command = argc > 1 ? argv[1] : L"";
  if (command == L"list" && argc == 3) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(argv[2], &found);
    if (search == INVALID_HANDLE_VALUE) return 1;
    do std::printf("%s\t%lx\n", Utf8(found.cFileName).c_str(), found.dwFileAttributes);
    while (FindNextFileW(search, &found));
    FindClose(search);
  } else if (command == L"attributes" && argc == 3) {
    std::printf("%lx\n", GetFileAttributesW(argv[2]));
  } else if (command == L"hold" && (argc == 4 || argc == 6)) {
    HANDLE held = CreateFileW(argv[2], GENERIC_READ, DWORD(_wtoi(argv[3])), nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (held == INVALID_HANDLE_VALUE) return 3;
    std::printf("holding\n");
    std::fflush(stdout);
    if (argc == 4) Sleep(INFINITE);
    const std::vector<std::wstring> parts = Split(argv[4], L'\\');
    while (!Matches(parts[0], parts, 1)) Sleep(1);
    Sleep(DWORD(_wtoi(argv[5])));
    CloseHandle(held);
  } else if (command == L"profile" && argc == 5) {
    return Profile(argv[2], argv[3], argv[4]);
  } else if (argc == 1) {
    std::printf("up\n");
    std::fflush(stdout);
    Sleep(60000);
  } else {
    return 2;
  }
  return 0;
}
