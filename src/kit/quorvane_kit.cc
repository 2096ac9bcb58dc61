// Quorvane_Kit.exe: the deployment kit. The wrappers Quorvane_Install.cmd,
// Quorvane_Uninstall.cmd, Quorvane_Logon.cmd and Quorvane_Deploy.cmd each
// call it with their verb; it runs Quorvane_Setup.exe of its own folder for
// the account that runs it, keeps a log, records the payload it installed,
// and detects whether every Add-In profile of the account holds a payload.
//
//   Quorvane_Kit.exe install|uninstall|logon [options]
//   Quorvane_Kit.exe detect <identity> [<version>] [options]
//   Quorvane_Kit.exe stamp <package> [<version>]   gives the package's payload its identity
//   Quorvane_Kit.exe check <package>               prints that identity if the payload still has it
//
// A payload's identity is the SHA-256 of its files: every file below
// <package>\AddIn (but the stamp itself) and <package>\Bin\Quorvane_Helper.exe,
// in the order of their names, each as its name, its size and its bytes. The
// stamp is <package>\AddIn\Quorvane_Payload.id (the identity, then the
// version if one was given), so the setup program copies it into every
// profile with the add-in, where detection finds it again.
//
// Every path the kit opens is in the extended-length form, so that nothing
// stops at MAX_PATH, and nothing it walks or removes is entered through a
// link or junction.
#include <windows.h>
#include <sddl.h>
#include <shlobj.h>
#include <shellapi.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "driver/exit_codes.h"
#include "kit/kit_rules.h"

namespace {

using namespace qv::kit;
using WString = std::wstring;

constexpr wchar_t kStampName[] = L"Quorvane_Payload.id";
constexpr wchar_t kRecordKey[] = L"Software\\KELDARO\\Quorvane";
constexpr char kRecordName[] = "HKCU\\Software\\KELDARO\\Quorvane";
constexpr DWORD kLockWaitMs = 60000;
constexpr std::uint64_t kLogLimit = 1u << 20;

struct Failure {
  std::string text;
  int code = kKitFailure;
};

// --- Text -------------------------------------------------------------------

std::string Utf8(const WString& text, UINT codePage = CP_UTF8) {
  if (text.empty()) return "";
  std::string out(text.size() * 3, '\0');
  out.resize(static_cast<std::size_t>(WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()),
                                                          out.data(), static_cast<int>(out.size()), nullptr, nullptr)));
  return out;
}

WString Wide(const std::string& text, UINT codePage = CP_UTF8) {
  if (text.empty()) return L"";
  WString out(text.size(), L'\0');
  out.resize(static_cast<std::size_t>(MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()),
                                                          out.data(), static_cast<int>(out.size()))));
  return out;
}

// A line as UTF-8: the setup program writes UTF-8, but the first line of a
// failed transaction carries its paths in the ANSI code page.
std::string AsUtf8(const std::string& line) { return IsUtf8(line) ? line : Utf8(Wide(line, CP_ACP)); }

// Text for a standard stream, which puts CR before every LF itself.
void Print(FILE* stream, std::string text) {
  std::erase(text, '\r');
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

// --- Paths and files --------------------------------------------------------

// The full path of `path` in the extended-length form (\\?\C:\..., \\?\UNC\...).
WString Long(const WString& path) {
  if (path.rfind(L"\\\\?\\", 0) == 0) return path;
  DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
  if (size == 0) throw Failure{"Not a usable path: " + Utf8(path)};
  WString full(size, L'\0');
  full.resize(GetFullPathNameW(path.c_str(), size, full.data(), nullptr));
  if (full.rfind(L"\\\\", 0) == 0) return L"\\\\?\\UNC\\" + full.substr(2);
  return L"\\\\?\\" + full;
}

// The path as users read it: without the extended-length prefix.
std::string Shown(const WString& path) {
  if (path.rfind(L"\\\\?\\UNC\\", 0) == 0) return "\\\\" + Utf8(path.substr(8));
  if (path.rfind(L"\\\\?\\", 0) == 0) return Utf8(path.substr(4));
  return Utf8(path);
}

WString Parent(const WString& path) { return path.substr(0, path.find_last_of(L'\\')); }

bool IsLink(DWORD attributes) {
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}
bool IsFolder(const WString& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) && !IsLink(attributes);
}
bool IsPlainFile(const WString& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY) && !IsLink(attributes);
}

struct Handle {
  HANDLE value = INVALID_HANDLE_VALUE;
  explicit Handle(HANDLE h) : value(h) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() {
    if (value != INVALID_HANDLE_VALUE && value != nullptr) CloseHandle(value);
  }
  bool ok() const { return value != INVALID_HANDLE_VALUE && value != nullptr; }
};

// At most `limit` bytes of a file; false when it cannot be opened or read,
// or is longer.
bool ReadBounded(const WString& path, std::uint64_t limit, std::string& bytes) {
  Handle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                          nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  LARGE_INTEGER size{};
  if (!file.ok() || !GetFileSizeEx(file.value, &size) || static_cast<std::uint64_t>(size.QuadPart) > limit) {
    return false;
  }
  bytes.assign(static_cast<std::size_t>(size.QuadPart), '\0');
  std::size_t done = 0;
  while (done < bytes.size()) {
    DWORD got = 0;
    if (!ReadFile(file.value, bytes.data() + done, static_cast<DWORD>(bytes.size() - done), &got, nullptr)) {
      return false;
    }
    if (got == 0) break;
    done += got;
  }
  bytes.resize(done);
  return true;
}

void WriteWhole(const WString& path, const std::string& bytes) {
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  Handle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  if (!file.ok() || !WriteFile(file.value, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
      written != bytes.size()) {
    throw Failure{"Cannot write " + Shown(path)};
  }
}

// Makes `path` a folder unless it is one; a link there is refused.
void MakeFolder(const WString& path) {
  if (CreateDirectoryW(path.c_str(), nullptr) || IsFolder(path)) return;
  throw Failure{"Cannot make the folder " + Shown(path) + " (or a link or file stands there)"};
}

// The entries of a folder but "." and "..".
std::vector<WIN32_FIND_DATAW> List(const WString& folder) {
  std::vector<WIN32_FIND_DATAW> entries;
  WIN32_FIND_DATAW found;
  HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    if (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND) return entries;
    throw Failure{"Cannot list " + Shown(folder)};
  }
  do {
    const WString name = found.cFileName;
    if (name != L"." && name != L"..") entries.push_back(found);
  } while (FindNextFileW(search, &found));
  const DWORD error = GetLastError();
  FindClose(search);
  if (error != ERROR_NO_MORE_FILES) throw Failure{"Cannot list " + Shown(folder)};
  return entries;
}

// The files and folders below `folder` (itself first), never through a
// link: a link or junction anywhere in it is a failure. Sizes added to
// `bytes`. A list of folders still to open rather than a recursion, so that
// no depth of nesting exhausts the stack.
void Collect(const WString& folder, std::vector<WString>& files, std::vector<WString>& folders, std::uint64_t& bytes) {
  const std::size_t first = folders.size();
  folders.push_back(folder);
  for (std::size_t next = first; next < folders.size(); ++next) {
    const WString here = folders[next];
    for (const WIN32_FIND_DATAW& entry : List(here)) {
      const WString path = here + L"\\" + entry.cFileName;
      if (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) throw Failure{"A link or junction: " + Shown(path)};
      if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        folders.push_back(path);
      } else {
        files.push_back(path);
        bytes += (std::uint64_t{entry.nFileSizeHigh} << 32) | entry.nFileSizeLow;
      }
    }
  }
}

// Removes `folder` and everything below it and gives the bytes freed; a
// folder holding a link or junction is left whole.
std::uint64_t RemoveTree(const WString& folder) {
  std::vector<WString> files, folders;
  std::uint64_t bytes = 0;
  Collect(folder, files, folders, bytes);
  for (const WString& file : files) {
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(file.c_str())) throw Failure{"Cannot remove " + Shown(file)};
  }
  // Deeper folders come after the folders that hold them.
  for (auto it = folders.rbegin(); it != folders.rend(); ++it) {
    if (!RemoveDirectoryW(it->c_str())) throw Failure{"Cannot remove " + Shown(*it)};
  }
  return bytes;
}

// --- The payload's identity -------------------------------------------------

class Sha256 {
 public:
  void Add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    length_ += size;
    for (std::size_t i = 0; i < size; ++i) {
      block_[used_++] = bytes[i];
      if (used_ == 64) Compress();
    }
  }
  void Add(const std::string& text) { Add(text.data(), text.size()); }

  std::string HexDigest() {
    const std::uint64_t bits = length_ * 8;
    const unsigned char pad = 0x80, zero = 0;
    Add(&pad, 1);
    while (used_ != 56) Add(&zero, 1);
    for (int shift = 56; shift >= 0; shift -= 8) {
      const auto byte = static_cast<unsigned char>(bits >> shift);
      Add(&byte, 1);
    }
    std::string hex;
    for (const std::uint32_t word : state_) {
      char part[9];
      std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(word));
      hex += part;
    }
    return hex;
  }

 private:
  static std::uint32_t Rotate(std::uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

  void Compress() {
    static constexpr std::uint32_t k[64] = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
        0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
        0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
        0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
        0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
        0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
        0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};
    std::uint32_t w[64];
    for (int i = 0; i < 16; ++i) {
      w[i] = std::uint32_t{block_[4 * i]} << 24 | std::uint32_t{block_[4 * i + 1]} << 16 |
             std::uint32_t{block_[4 * i + 2]} << 8 | block_[4 * i + 3];
    }
    for (int i = 16; i < 64; ++i) {
      const std::uint32_t s0 = Rotate(w[i - 15], 7) ^ Rotate(w[i - 15], 18) ^ (w[i - 15] >> 3);
      const std::uint32_t s1 = Rotate(w[i - 2], 17) ^ Rotate(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    std::array<std::uint32_t, 8> v = state_;
    for (int i = 0; i < 64; ++i) {
      const std::uint32_t s1 = Rotate(v[4], 6) ^ Rotate(v[4], 11) ^ Rotate(v[4], 25);
      const std::uint32_t t1 = v[7] + s1 + ((v[4] & v[5]) ^ (~v[4] & v[6])) + k[i] + w[i];
      const std::uint32_t s0 = Rotate(v[0], 2) ^ Rotate(v[0], 13) ^ Rotate(v[0], 22);
      const std::uint32_t t2 = s0 + ((v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]));
      std::copy_backward(v.begin(), v.end() - 1, v.end());
      v[4] += t1;
      v[0] = t1 + t2;
    }
    for (int i = 0; i < 8; ++i) state_[i] += v[i];
    used_ = 0;
  }

  std::array<std::uint32_t, 8> state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  unsigned char block_[64] = {};
  std::size_t used_ = 0;
  std::uint64_t length_ = 0;
};

// Hashes one file as its name, its size and its bytes.
void HashFile(Sha256& hash, const std::string& name, const WString& path) {
  Handle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                          FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  LARGE_INTEGER size{};
  if (!file.ok() || !GetFileSizeEx(file.value, &size)) throw Failure{"Cannot read " + Shown(path)};
  hash.Add(name.c_str(), name.size() + 1);
  hash.Add(std::to_string(size.QuadPart) + '\0');
  std::vector<char> buffer(1 << 16);
  std::uint64_t total = 0;
  for (DWORD got = 1; got != 0; total += got) {
    if (!ReadFile(file.value, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr)) {
      throw Failure{"Cannot read " + Shown(path)};
    }
    hash.Add(buffer.data(), got);
  }
  if (total != static_cast<std::uint64_t>(size.QuadPart)) throw Failure{"A file changed while read: " + Shown(path)};
}

std::string PayloadIdentity(const WString& package) {
  const WString addIn = package + L"\\AddIn", helper = package + L"\\Bin\\Quorvane_Helper.exe";
  for (const WString& folder : {package, addIn, package + L"\\Bin"}) {
    if (!IsFolder(folder)) throw Failure{"The package has no such plain folder: " + Shown(folder)};
  }
  if (!IsPlainFile(helper)) throw Failure{"The package has no helper: " + Shown(helper)};
  std::vector<WString> files, folders;
  std::uint64_t bytes = 0;
  try {
    Collect(addIn, files, folders, bytes);
  } catch (const Failure& failure) {
    throw Failure{"The package's payload is refused: " + failure.text};
  }
  // Names as the identity counts them: below the package, UTF-8, backslashes.
  std::vector<std::pair<std::string, WString>> named{{"Bin\\Quorvane_Helper.exe", helper}};
  const WString stamp = addIn + L"\\" + kStampName;
  for (const WString& file : files) {
    if (file != stamp) named.emplace_back(Utf8(file.substr(package.size() + 1)), file);
  }
  std::sort(named.begin(), named.end());
  Sha256 hash;
  for (const auto& [name, path] : named) HashFile(hash, name, path);
  return hash.HexDigest();
}

Stamp ReadStamp(const WString& file) {
  std::string text;
  Stamp stamp;
  if (!ReadBounded(file, 1024, text) || !ParseStamp(text, stamp)) return {};
  return stamp;
}

// The package's stamp, checked against its payload.
Stamp CheckedStamp(const WString& package) {
  const Stamp stamp = ReadStamp(package + L"\\AddIn\\" + kStampName);
  if (stamp.identity.empty()) throw Failure{"The package is not stamped: run Quorvane_Kit.exe stamp on it."};
  const std::string identity = PayloadIdentity(package);
  if (stamp.identity != identity) {
    throw Failure{"The payload changed after it was stamped (stamp " + stamp.identity + ", payload " + identity +
                  "): stamp the package again and deploy its new detection script."};
  }
  return stamp;
}

// The detection script for Intune and Configuration Manager: it only calls
// the kit's detection, kept by the install below the local AppData folder
// (the package is gone when detection runs), and keeps its output only for
// "installed".
std::string DetectionScript(const Stamp& stamp) {
  const std::string version = stamp.version.empty() ? "" : " '" + stamp.version + "'";
  return "# Detection of the Quorvane payload " + stamp.identity + (stamp.version.empty() ? "" : " " + stamp.version) +
         " (written by Quorvane_Kit.exe stamp).\r\n"
         "# Installed: exit 0 with output. Not installed: exit 0 without output. Otherwise: not determined.\r\n"
         "$kit = Join-Path $env:LOCALAPPDATA 'Quorvane\\Kit\\Quorvane_Kit.exe'\r\n"
         "if (-not (Test-Path -LiteralPath $kit)) { exit 0 }\r\n"
         "$out = & $kit detect '" + stamp.identity + "'" + version + "\r\n"
         "$code = $LASTEXITCODE\r\n"
         "if ($code -eq 0 -and \"$out\" -match ' is installed') { $out }\r\n"
         "exit $code\r\n";
}

// --- The account ------------------------------------------------------------

std::string AccountSid() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) throw Failure{"Cannot read the account's token."};
  Handle owned(token);
  std::vector<unsigned char> buffer(512);
  DWORD size = 0;
  if (!GetTokenInformation(token, TokenUser, buffer.data(), static_cast<DWORD>(buffer.size()), &size)) {
    throw Failure{"Cannot read the account's SID."};
  }
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, &text)) {
    throw Failure{"Cannot read the account's SID."};
  }
  const std::string sid = Utf8(text);
  LocalFree(text);
  return sid;
}

std::string Variable(const wchar_t* name) {
  wchar_t value[256];
  const DWORD length = GetEnvironmentVariableW(name, value, 256);
  return length > 0 && length < 256 ? Utf8(value) : "";
}

WString LocalAppData() {
  wchar_t path[MAX_PATH];
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, path))) {
    throw Failure{"The account has no local AppData folder."};
  }
  return Long(path);
}

WString OwnProgram() {
  std::vector<wchar_t> path(32768);
  const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  if (length == 0 || length >= path.size()) throw Failure{"Cannot find the kit's own folder."};
  return Long(WString(path.data(), length));
}

// The record of the installed payload: HKCU\Software\KELDARO\Quorvane,
// PayloadId and PayloadVersion. Anything but a valid stamp reads as none.
Stamp ReadRecord() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kRecordKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) return {};
  const auto read = [&](const wchar_t* name) {
    wchar_t value[128] = {};
    DWORD type = 0, size = sizeof value - sizeof(wchar_t);
    if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(value), &size) != ERROR_SUCCESS ||
        type != REG_SZ) {
      return std::string();
    }
    return Utf8(WString(value, wcsnlen(value, size / sizeof(wchar_t))));
  };
  const std::string id = read(L"PayloadId"), version = read(L"PayloadVersion");
  RegCloseKey(key);
  Stamp stamp;
  if (!ParseStamp(id + (version.empty() ? "" : "\n" + version), stamp)) return {};
  return stamp;
}

void WriteRecord(const Stamp& stamp) {
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kRecordKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) !=
      ERROR_SUCCESS) {
    throw Failure{std::string("Cannot record the payload in ") + kRecordName};
  }
  const auto set = [&](const wchar_t* name, const std::string& text) {
    const WString value = Wide(text);
    return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
  };
  // The identity last: a record names its version whenever it names a payload.
  bool done = stamp.version.empty() ? (RegDeleteValueW(key, L"PayloadVersion"), true) : set(L"PayloadVersion", stamp.version);
  done = done && set(L"PayloadId", stamp.identity);
  RegCloseKey(key);
  if (!done) throw Failure{std::string("Cannot record the payload in ") + kRecordName};
}

void DeleteRecord() {
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kRecordKey, 0, KEY_SET_VALUE, &key) != ERROR_SUCCESS) return;
  RegDeleteValueW(key, L"PayloadId");
  RegDeleteValueW(key, L"PayloadVersion");
  RegCloseKey(key);
}

// --- One run ----------------------------------------------------------------

struct Run {
  KitCommand command;
  WString program;   // this Quorvane_Kit.exe
  WString home;      // its folder, which holds the setup program
  WString quorvane;  // %LOCALAPPDATA%\Quorvane
  WString work;      // this run's own folder below it
  Stamp payload;     // the payload this run is about, as far as known
  bool logging = false;

  WString Kit() const { return quorvane + L"\\Kit"; }
  WString LogFile() const { return quorvane + L"\\Logs\\Quorvane_Deploy.log"; }
};

std::string Now() {
  SYSTEMTIME t;
  GetLocalTime(&t);
  char text[40];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour,
                t.wMinute, t.wSecond, t.wMilliseconds);
  return text;
}

// Appends to the log, each line with the time and the payload's identity and
// version; past 1 MB the log becomes Quorvane_Deploy.1.log first.
void Log(const Run& run, const std::string& text) {
  if (!run.logging) return;
  const WString file = run.LogFile();
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data) &&
      ((std::uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow) >= kLogLimit) {
    MoveFileExW(file.c_str(), (run.quorvane + L"\\Logs\\Quorvane_Deploy.1.log").c_str(), MOVEFILE_REPLACE_EXISTING);
  }
  std::vector<std::string> lines;
  SplitLines(text, lines, kMaxOutput);
  const std::string head = Now() + " [" + (run.payload.identity.empty() ? "-" : run.payload.identity) + " " +
                           (run.payload.version.empty() ? "-" : run.payload.version) + "] ";
  std::string bytes;
  for (const std::string& line : lines) bytes += head + AsUtf8(line) + "\r\n";
  Handle log(CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD written = 0;
  if (log.ok()) WriteFile(log.value, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

// A message for the user, on standard error and in the log.
void Tell(const Run& run, const std::string& text) {
  Print(stderr, text + "\n");
  Log(run, text);
}

// A folder that this run has just made itself, below %LOCALAPPDATA%\Quorvane.
// The run holds the account's lock, so any other folder there was left by a
// run that was killed: it goes.
WString MakeWorkFolder(const WString& quorvane) {
  MakeFolder(quorvane + L"\\Work");
  for (const WIN32_FIND_DATAW& entry : List(quorvane + L"\\Work")) {
    if (!(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
      try {
        RemoveTree(quorvane + L"\\Work\\" + entry.cFileName);
      } catch (const Failure&) {
      }
    }
  }
  const WString base = quorvane + L"\\Work\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                       std::to_wstring(GetTickCount64());
  for (int attempt = 0; attempt < 100; ++attempt) {
    const WString folder = base + L"-" + std::to_wstring(attempt);
    if (CreateDirectoryW(folder.c_str(), nullptr)) return folder;
    if (GetLastError() != ERROR_ALREADY_EXISTS) break;
  }
  throw Failure{"Cannot make a work folder in " + Shown(quorvane + L"\\Work")};
}

// One argument of a command line, quoted as programs split them.
WString Quoted(const WString& argument) {
  if (!argument.empty() && argument.find_first_of(L" \t\"") == WString::npos) return argument;
  WString out = L"\"";
  std::size_t slashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++slashes;
      continue;
    }
    out.append(c == L'"' ? 2 * slashes + 1 : slashes, L'\\');
    slashes = 0;
    out += c;
  }
  out.append(2 * slashes, L'\\');
  return out + L"\"";
}

struct ToolRun {
  int exit = -1;       // -1: the setup program did not run
  std::string output;  // both its streams
};

// Runs the setup program beside this kit with `action` and the options of
// the command line, its output into a file of the work folder.
ToolRun RunTool(const Run& run, const std::string& action) {
  // Each run's output in a file of its own; the setup program gets its path
  // in the short form where that fits, as it takes its package folder from it.
  static int runs = 0;
  const WString tool = run.home + L"\\Quorvane_Setup.exe", shortTool = Wide(Shown(tool));
  const WString outputFile = run.work + L"\\" + std::to_wstring(++runs) + L".txt";
  const WString started = shortTool.size() < MAX_PATH ? shortTool : tool;
  WString line = Quoted(started) + L" " + Wide(action);
  for (const std::string& option : run.command.toolOptions) line += L" " + Quoted(Wide(option));
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  ToolRun result;
  {
    Handle output(CreateFileW(outputFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!output.ok()) throw Failure{"Cannot write " + Shown(outputFile)};
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output.value;
    startup.hStdError = output.value;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(started.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
      throw Failure{"Cannot start " + Shown(tool)};
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    result.exit = static_cast<int>(code);
  }
  if (!ReadBounded(outputFile, kMaxOutput, result.output)) throw Failure{"Cannot read " + Shown(outputFile)};
  return result;
}

// The wrapper's code for a failed transaction, or any other code of the
// setup program: Fusion holding the add-in, or the run lock, means retry.
int RetryOrCode(const Run& run, const ToolRun& tool) {
  if (tool.exit == qv::kExitRunLockHeld) return kRetryLater;
  if (tool.exit != qv::kExitTransactionFailed) return tool.exit;
  const ToolRun status = RunTool(run, "/status");
  if (!ParseStatusReport(status.output).fusionRunning) return qv::kExitTransactionFailed;
  Log(run, "Fusion is running and may hold a file of the add-in: retry later, or close Fusion.");
  return kRetryLater;
}

// The detection: "installed" when the record names this payload or a newer
// version of it, /status finds every add-in complete (or no Fusion at all),
// and every add-in holds the recorded payload's stamp.
int Detect(const Run& run, const Stamp& mine, std::string& found) {
  const Stamp recorded = ReadRecord();
  if (recorded.identity.empty() || Compare(recorded, mine) == Order::kRecordedOlderOrUnordered) return 0;
  const ToolRun status = RunTool(run, "/status");
  const StatusReport report = ParseStatusReport(status.output);
  if (status.exit != qv::kExitSuccess && status.exit != qv::kExitIncomplete) {
    Print(stderr, status.output);
    return status.exit;
  }
  if (!report.valid) {
    Print(stderr, "Cannot read the setup program's report:\n" + status.output);
    return kKitFailure;
  }
  if (status.exit == qv::kExitIncomplete && report.installations != 0) return 0;
  for (const std::string& addIn : report.addIns) {
    if (ReadStamp(Long(Wide(addIn)) + L"\\" + kStampName).identity != recorded.identity) return 0;
  }
  found = "Quorvane payload " + mine.identity + (mine.version.empty() ? "" : " version " + mine.version) +
          " is installed; Add-In profiles: " + std::to_string(report.installations) +
          (report.installations == 0 ? " (no Fusion installation)" : "") +
          (recorded.identity == mine.identity ? "" : "; by the newer payload " + recorded.identity + " version " +
                                                         recorded.version) + ".";
  return 0;
}

// Copies a program or script of the kit into the kept kit, as a plain file
// whatever attributes the package gave it.
void Keep(const WString& from, const WString& to) {
  if (_wcsicmp(from.c_str(), to.c_str()) == 0) return;
  SetFileAttributesW(to.c_str(), FILE_ATTRIBUTE_NORMAL);
  if (!CopyFileW(from.c_str(), to.c_str(), FALSE) || !SetFileAttributesW(to.c_str(), FILE_ATTRIBUTE_NORMAL)) {
    throw Failure{"Cannot keep " + Shown(from) + " as " + Shown(to)};
  }
}

// What detection needs once the package is gone, then the record of the
// payload, last, so that a record always has the pieces beside it.
void KeepAndRecord(const Run& run) {
  MakeFolder(run.Kit());
  Keep(run.home + L"\\Quorvane_Setup.exe", run.Kit() + L"\\Quorvane_Setup.exe");
  Keep(run.program, run.Kit() + L"\\Quorvane_Kit.exe");
  if (IsPlainFile(run.home + L"\\Quorvane_Deploy.cmd")) {
    Keep(run.home + L"\\Quorvane_Deploy.cmd", run.Kit() + L"\\Quorvane_Deploy.cmd");
  }
  WriteRecord(run.payload);
  Log(run, "Recorded payload " + run.payload.identity + (run.payload.version.empty() ? "" : " version " + run.payload.version) +
               " in " + kRecordName + "; detection kept in " + Shown(run.Kit()) + ".");
}

// The newest backups of each profile the install changed, and the prepared
// folders of failed runs before it; nothing else, and nothing through a link.
void Prune(const Run& run, const std::string& output) {
  std::uint64_t total = 0, removed = 0;
  for (const ChangedProfile& profile : ChangedProfiles(output)) {
    const WString backups = Long(Wide(profile.installBackups));
    const WString quorvane = Parent(backups), keldaro = Parent(quorvane);
    if (!IsFolder(keldaro) || !IsFolder(quorvane) || !IsFolder(backups)) {
      Log(run, "Backups left as they are (not plain folders): " + profile.installBackups);
      continue;
    }
    std::vector<std::pair<FILETIME, BackupFolder>> found;
    for (const WIN32_FIND_DATAW& entry : List(backups)) {
      if ((entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) || !(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
        continue;
      }
      const WString folder = backups + L"\\" + entry.cFileName;
      found.push_back({entry.ftCreationTime,
                       {Utf8(entry.cFileName), IsFolder(folder + L"\\before"), IsFolder(folder + L"\\prepared")}});
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
      const LONG order = CompareFileTime(&a.first, &b.first);
      return order != 0 ? order > 0 : a.second.name > b.second.name;
    });
    std::vector<BackupFolder> newestFirst;
    for (const auto& [time, folder] : found) newestFirst.push_back(folder);
    const Pruning pruning = PlanPruning(newestFirst, profile.transaction, run.command.keptBackups);
    const auto remove = [&](const WString& path) {
      try {
        const std::uint64_t bytes = RemoveTree(path);
        Log(run, "Removed " + Shown(path) + ": " + std::to_string(bytes) + " bytes.");
        total += bytes;
        ++removed;
      } catch (const Failure& failure) {
        Log(run, "Left " + Shown(path) + ": " + failure.text);
      }
    };
    for (const std::string& name : pruning.removeWhole) remove(backups + L"\\" + Wide(name));
    for (const std::string& name : pruning.removePrepared) {
      remove(backups + L"\\" + Wide(name) + L"\\prepared");
      RemoveDirectoryW((backups + L"\\" + Wide(name)).c_str());  // only when nothing else is left there
    }
  }
  Log(run, "Kept the newest " + std::to_string(run.command.keptBackups) + " backups of each changed profile; removed " +
               std::to_string(removed) + " folders, " + std::to_string(total) + " bytes.");
}

// The package folder: /package, else the kit's own folder.
WString PackageOf(const Run& run) {
  return run.command.package.empty() ? run.home : Long(Wide(run.command.package));
}

int Install(Run& run) {
  run.payload = CheckedStamp(PackageOf(run));
  const Stamp recorded = ReadRecord();
  if (!recorded.identity.empty() && Compare(recorded, run.payload) == Order::kRecordedNewer) {
    Log(run, "Nothing to do: payload version " + run.payload.version + " is older than the recorded " +
                 recorded.version + " (" + recorded.identity + ").");
    return 0;
  }
  const ToolRun tool = RunTool(run, "/install");
  Print(stdout, tool.output);
  Log(run, tool.output);
  Log(run, "tool exit " + std::to_string(tool.exit));
  if (FoundNoFusion(tool.exit, tool.output)) {
    Log(run, "no Fusion installation: nothing to install");
    KeepAndRecord(run);
    return 0;
  }
  if (tool.exit != 0) return RetryOrCode(run, tool);
  KeepAndRecord(run);
  // The install stands whatever the pruning meets: it only logs.
  try {
    Prune(run, tool.output);
  } catch (const Failure& failure) {
    Log(run, "Backups not pruned: " + failure.text);
  }
  return 0;
}

int Uninstall(Run& run) {
  const ToolRun tool = RunTool(run, "/uninstall");
  Print(stdout, tool.output);
  Log(run, tool.output);
  Log(run, "tool exit " + std::to_string(tool.exit));
  if (tool.exit != 0) return RetryOrCode(run, tool);
  DeleteRecord();
  // A kit run from the kept copy cannot remove its own program: it is left.
  for (const WIN32_FIND_DATAW& entry : List(run.Kit())) {
    const WString file = run.Kit() + L"\\" + entry.cFileName;
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !DeleteFileW(file.c_str())) {
      Log(run, "Left " + Shown(file) + " (in use).");
    }
  }
  RemoveDirectoryW(run.Kit().c_str());
  Log(run, "Removed the payload record and " + Shown(run.Kit()) + ".");
  return 0;
}

int Logon(Run& run) {
  if (!run.payload.identity.empty()) {
    std::string found;
    if (Detect(run, run.payload, found) == 0 && !found.empty()) {
      Log(run, found + " Nothing to do.");
      return 0;
    }
  }
  return Install(run);
}

int Main(const std::vector<std::string>& args) {
  Run run;
  run.command = ParseKitCommand(args);
  const KitCommand& command = run.command;
  if (!command.error.empty()) {
    Print(stderr, command.error + "\n");
    return kUsage;
  }
  if (command.verb == "stamp" || command.verb == "check") {
    const WString package = Long(Wide(command.folder)), stampFile = package + L"\\AddIn\\" + kStampName;
    if (command.verb == "check") {
      Print(stdout, CheckedStamp(package).identity + "\n");
      return 0;
    }
    const Stamp stamp{PayloadIdentity(package), command.version};
    WriteWhole(stampFile, StampText(stamp));
    WriteWhole(package + L"\\Quorvane_Detect.ps1", DetectionScript(stamp));
    Print(stdout, "Payload " + stamp.identity + "\n" + (stamp.version.empty() ? "" : "Version: " + stamp.version + "\n") +
                      "Stamp: " + Shown(stampFile) + "\nDetection script: " + Shown(package + L"\\Quorvane_Detect.ps1") +
                      "\n");
    return 0;
  }
  const std::string sid = AccountSid(), refusal = RefusalFor(sid);
  if (!refusal.empty()) {
    Print(stderr, refusal + "\n");
    return kRefusedAccount;
  }
  run.program = OwnProgram();
  run.home = Parent(run.program);
  run.quorvane = LocalAppData() + L"\\Quorvane";
  MakeFolder(run.quorvane);
  // One kit run per account at a time, in every session of it.
  Handle lock(CreateMutexW(nullptr, FALSE, (L"Global\\KELDARO_Quorvane_Kit_" + Wide(sid)).c_str()));
  const DWORD waited = lock.ok() ? WaitForSingleObject(lock.value, kLockWaitMs) : WAIT_FAILED;
  if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED) {
    Print(stderr, "Another run of the deployment kit for this account is active: retry later.\n");
    return kRetryLater;
  }
  int code = kKitFailure;
  const DWORD started = GetTickCount();
  try {
    run.work = MakeWorkFolder(run.quorvane);
    if (command.verb == "detect") {
      std::string found;
      code = Detect(run, Stamp{command.identity, command.version}, found);
      if (!found.empty()) Print(stdout, found + "\n");
    } else {
      MakeFolder(run.quorvane + L"\\Logs");
      run.logging = true;
      run.payload = command.verb == "uninstall" ? ReadRecord() : ReadStamp(PackageOf(run) + L"\\AddIn\\" + kStampName);
      Log(run, command.verb + " start: Quorvane_Kit " QUORVANE_VERSION " in " + Shown(run.home) + " for " +
                   Variable(L"USERDOMAIN") + "\\" + Variable(L"USERNAME") + " (" + sid + ")");
      code = command.verb == "install" ? Install(run) : command.verb == "logon" ? Logon(run) : Uninstall(run);
    }
  } catch (const Failure& failure) {
    Tell(run, failure.text);
    code = failure.code;
  }
  try {
    if (!run.work.empty()) RemoveTree(run.work);
  } catch (const Failure&) {
  }
  const DWORD elapsed = GetTickCount() - started;
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%lu.%03lu s", elapsed / 1000, elapsed % 1000);
  Log(run, command.verb + " end: exit " + std::to_string(code) + ", elapsed " + seconds);
  ReleaseMutex(lock.value);
  return code;
}

}  // namespace

// Arguments as the system gives them, so that a package path keeps every
// character whatever the code page.
int main() {
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> args;
  for (int i = 1; i < count; ++i) args.push_back(Utf8(wide[i]));
  LocalFree(wide);
  try {
    return Main(args);
  } catch (const Failure& failure) {
    Print(stderr, failure.text + "\n");
    return failure.code;
  } catch (const std::exception& failure) {
    Print(stderr, std::string(failure.what()) + "\n");
  }
  return kKitFailure;
}
