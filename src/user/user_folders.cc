#include "user/user_folders.h"

#include <memory>

#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {
namespace {

// A registry value's buffer: a path of 32,767 characters and its terminator.
constexpr std::uint32_t kValueBufferBytes = 2 * platform::kLongPathBuffer;

const char16_t* SuffixFor(int csidl) {
  return csidl == platform::kCsidlLocalAppData ? u"\\AppData\\Local" : u"\\AppData\\Roaming";
}

// The SID text of the process's own account, or empty.
WString OwnSidText() {
  platform::Handle token = platform::kNullHandle;
  if (!platform::OpenProcessToken(platform::GetCurrentProcess(), platform::kTokenQuery, token)) return {};
  platform::ScopedHandle tokenHandle(token);
  platform::Sid sid;
  bool haveSid = false;
  const std::uint32_t size = platform::GetTokenUserSize(token);
  if (size != 0) haveSid = platform::GetTokenUser(token, size, sid);
  WString text;
  if (haveSid && !platform::ConvertSidToStringSidW(sid, text)) text.clear();
  return text;
}

// The token of the first explorer.exe of this session whose token opens.
platform::Handle ShellToken() {
  std::uint32_t ownSession = 0;
  if (!platform::ProcessIdToSessionId(platform::GetCurrentProcessId(), ownSession)) return platform::kNullHandle;
  platform::ScopedHandle snapshot(platform::CreateToolhelp32Snapshot());
  if (!snapshot.valid()) return platform::kNullHandle;
  platform::ProcessEntry entry;
  if (!platform::Process32FirstW(snapshot.get(), entry)) return platform::kNullHandle;
  do {
    if (!SamePath(entry.exeFile, u"explorer.exe")) continue;
    std::uint32_t session = 0;
    if (!platform::ProcessIdToSessionId(entry.processId, session) || session != ownSession) continue;
    platform::ScopedHandle process(platform::OpenProcess(platform::kProcessQueryInformation, entry.processId));
    if (!process.valid()) continue;
    platform::Handle token = platform::kNullHandle;
    if (platform::OpenProcessToken(process.get(), platform::kTokenQuery | platform::kTokenImpersonate, token)) {
      return token;
    }
  } while (platform::Process32NextW(snapshot.get(), entry));
  return platform::kNullHandle;
}

}  // namespace

WString ReadRegistryPathValue(platform::RegKey key, const WString& valueName) {
  // The call fills only the `size` bytes it reports; the text is read from
  // those as from a zero-filled buffer, a missing last byte or terminator
  // being zero. Not filling 64 KB with zeros for each of thousands of values
  // keeps the scan of a large Uninstall key fast.
  std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[kValueBufferBytes]);
  std::uint32_t type = 0;
  std::uint32_t size = kValueBufferBytes;
  if (platform::RegQueryValueExW(key, valueName, type, buffer.get(), size) != 0) return {};
  if (type != platform::kRegSz && type != platform::kRegExpandSz) return {};
  if (size >= kValueBufferBytes) return {};
  const WString text = Utf16LeText(buffer.get(), size);
  if (type == platform::kRegSz) return text;
  WString expanded;
  const std::uint32_t needed = platform::ExpandEnvironmentStringsW(text, expanded, platform::kLongPathBuffer);
  if (needed == 0 || needed >= platform::kLongPathBuffer) return {};
  return expanded;
}

WString GetProfileRoot() {
  const WString sidText = OwnSidText();
  if (sidText.empty()) return {};
  const WString key = u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + sidText;
  platform::ScopedRegKey handle;
  if (platform::RegOpenKeyExW(platform::kHkeyLocalMachine, key, 0, platform::kKeyQueryValue | platform::kKeyWow64_64Key,
                              *handle.out()) != 0) {
    *handle.out() = 0;
    return {};
  }
  return ReadRegistryPathValue(handle.get(), u"ProfileImagePath");
}

WString GetUserFolder(int csidl) {
  if (WString root = GetProfileRoot(); !root.empty()) return root + SuffixFor(csidl);

  WString folder;
  if (platform::Handle token = ShellToken(); token != platform::kNullHandle) {
    platform::ScopedHandle tokenHandle(token);
    if (platform::SHGetFolderPathW(csidl, token, folder) >= 0 && !folder.empty()) return folder;
  }
  folder.clear();
  if (platform::SHGetFolderPathW(csidl, platform::kNullHandle, folder) >= 0 && !folder.empty()) return folder;
  return {};
}

}  // namespace qv
