#include "user/user_folders.h"

#include <memory>

#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {
namespace {

constexpr std::uint32_t kBufferCharacters = 32768;

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
  // The call fills only the `size` bytes it reports: the text is read from
  // those as from a zero-filled buffer, a missing last byte or terminator
  // being zero.
  std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[kBufferCharacters * 2]);
  std::uint32_t type = 0;
  std::uint32_t size = 65536;
  const std::int32_t result = platform::RegQueryValueExW(handle.get(), u"ProfileImagePath", type, buffer.get(), size);
  if (result != 0 || (type != platform::kRegSz && type != platform::kRegExpandSz)) return {};
  WString value;
  for (std::size_t i = 0; i < size && i < kBufferCharacters * 2; i += 2) {
    const std::uint8_t high = i + 1 < size ? buffer[i + 1] : 0;
    const WChar c = static_cast<WChar>(buffer[i] | (high << 8));
    if (c == 0) break;
    value.push_back(c);
  }
  if (value.empty()) return {};
  if (type == platform::kRegSz) return value;
  WString expanded;
  const std::uint32_t needed = platform::ExpandEnvironmentStringsW(value, expanded, kBufferCharacters);
  if (needed == 0 || needed >= kBufferCharacters) return {};
  return expanded;
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
