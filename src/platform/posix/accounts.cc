// Tokens, SIDs and the account's folders on the Linux host.
//
// A token stands for a Linux account (a uid). Its user SID is encoded as the
// binary SID S-1-5-21-0-0-0-<uid>, so two tokens compare equal exactly when
// their uids do. In text form the own account's SID is the one that user.reg
// names, since that is the key the prefix's profile list uses for it; every
// other account reads "S-1-5-21-0-0-0-<uid>".
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/errors.h"
#include "platform/posix/host_handles.h"
#include "platform/posix/host_paths.h"
#include "platform/posix/processes.h"
#include "platform/posix/registry.h"

namespace qv::platform {
namespace {

struct Token {
  std::uint32_t uid = 0;
};

// The binary SID layout: revision, count of sub-authorities, a 48-bit
// big-endian identifier authority, then 32-bit little-endian sub-authorities.
constexpr std::size_t kSidHeaderSize = 8;

Sid SidOfUid(std::uint32_t uid) {
  Sid sid = {1, 5, 0, 0, 0, 0, 0, 5};
  for (std::uint32_t value : {21u, 0u, 0u, 0u, uid}) {
    for (int shift = 0; shift < 32; shift += 8) sid.push_back(static_cast<std::uint8_t>(value >> shift));
  }
  return sid;
}

bool IsValidSid(const Sid& sid) {
  return sid.size() >= kSidHeaderSize && sid[0] == 1 && sid[1] <= 15 && sid.size() == kSidHeaderSize + 4u * sid[1];
}

// "S-1-<authority>-<sub>-<sub>...", the authority in decimal: every SID of
// this host has authority 5.
WString SidText(const Sid& sid) {
  std::uint64_t authority = 0;
  for (std::size_t i = 2; i < kSidHeaderSize; ++i) authority = (authority << 8) | sid[i];
  std::string text = "S-1-" + std::to_string(authority);
  for (std::size_t at = kSidHeaderSize; at < sid.size(); at += 4) {
    std::uint32_t value = 0;
    for (std::size_t k = 0; k < 4; ++k) value |= static_cast<std::uint32_t>(sid[at + k]) << (8 * k);
    text += "-" + std::to_string(value);
  }
  return AsciiToWide(text);
}

// TOKEN_USER as Windows lays it out on a 64-bit system: the SID_AND_ATTRIBUTES
// record (a pointer and a 32-bit attribute word, padded) followed by the SID.
std::uint32_t TokenUserSize(const Token& token) { return 16 + static_cast<std::uint32_t>(SidOfUid(token.uid).size()); }

std::int32_t HresultFromWin32(std::uint32_t code) {
  return code == 0 ? 0 : static_cast<std::int32_t>(0x80070000u | (code & 0xFFFFu));
}

// The token behind a handle; null with the last error set.
const Token* TokenOf(Handle handle) {
  const auto* token = posix::LookUpHandle<Token>(handle, posix::HandleKind::Token);
  if (token == nullptr) SetLastError(kErrorInvalidHandle);
  return token;
}

}  // namespace

bool OpenProcessToken(Handle process, std::uint32_t /*desiredAccess*/, Handle& token) {
  QV_FAULT_POINT("OpenProcessToken", return false);
  auto opened = std::make_shared<Token>();
  if (process == posix::kCurrentProcessHandle) {
    opened->uid = static_cast<std::uint32_t>(::getuid());
  } else if (const auto* target = posix::LookUpHandle<posix::OpenedProcess>(process, posix::HandleKind::Process)) {
    opened->uid = target->uid;
  } else {
    return posix::Fail(kErrorInvalidHandle);
  }
  token = posix::RegisterHandle(posix::HandleKind::Token, opened);
  return true;
}

std::uint32_t GetTokenUserSize(Handle token) {
  QV_FAULT_POINT("GetTokenInformation", return 0);
  const Token* opened = TokenOf(token);
  if (opened == nullptr) return 0;
  // The size query fails as on Windows, telling the size it needs.
  SetLastError(kErrorInsufficientBuffer);
  return TokenUserSize(*opened);
}

bool GetTokenUser(Handle token, std::uint32_t size, Sid& sid) {
  QV_FAULT_POINT("GetTokenInformation", return false);
  const Token* opened = TokenOf(token);
  if (opened == nullptr) return false;
  if (size < TokenUserSize(*opened)) return posix::Fail(kErrorInsufficientBuffer);
  sid = SidOfUid(opened->uid);
  return true;
}

bool EqualSid(const Sid& a, const Sid& b) {
  QV_FAULT_POINT("EqualSid", return false);
  if (!IsValidSid(a) || !IsValidSid(b)) return posix::Fail(kErrorInvalidParameter);
  SetLastError(kErrorSuccess);
  return a == b;
}

bool ConvertSidToStringSidW(const Sid& sid, WString& text) {
  QV_FAULT_POINT("LoadLibraryW", return false, u"advapi32.dll");
  QV_FAULT_POINT("GetProcAddress", return false, u"ConvertSidToStringSidW");
  QV_FAULT_POINT("ConvertSidToStringSidW", return false);
  if (!IsValidSid(sid)) return posix::Fail(kErrorInvalidParameter);
  // The own account is known to the prefix under the SID of its user.reg;
  // without one, it reads as any other account.
  if (sid == SidOfUid(static_cast<std::uint32_t>(::getuid())) && posix::AccountSidFromUserReg(text)) return true;
  text = SidText(sid);
  return true;
}

std::int32_t SHGetFolderPathW(int csidl, Handle token, WString& path) {
  QV_FAULT_POINT("SHGetFolderPathW", return HresultFromWin32(GetLastError()),
                 DecimalText(static_cast<std::uint32_t>(csidl)));
  const char16_t* suffix = nullptr;
  if (csidl == kCsidlAppData) {
    suffix = u"\\AppData\\Roaming";
  } else if (csidl == kCsidlLocalAppData) {
    suffix = u"\\AppData\\Local";
  } else {
    return HresultFromWin32(kErrorInvalidParameter);
  }
  std::uint32_t uid = static_cast<std::uint32_t>(::getuid());
  if (token != kNullHandle) {
    const auto* opened = posix::LookUpHandle<Token>(token, posix::HandleKind::Token);
    if (opened == nullptr) return HresultFromWin32(kErrorInvalidHandle);
    uid = opened->uid;
  }
  // Wine keeps every account's folders below C:\users\<Linux user name>; a
  // folder the prefix does not have gets no answer.
  const passwd* account = ::getpwuid(uid);
  if (account == nullptr || account->pw_name[0] == '\0') return HresultFromWin32(kErrorFileNotFound);
  const WString folder = u"C:\\users\\" + Utf8ToWide(account->pw_name) + suffix;
  std::string host;
  std::uint32_t error = 0;
  if (!posix::ToHostPath(folder, host, error)) return HresultFromWin32(error);
  struct stat st;
  if (::stat(host.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return HresultFromWin32(kErrorPathNotFound);
  // The caller's buffer holds 260 characters, terminator included.
  if (folder.size() >= 260) return HresultFromWin32(kErrorFilenameExcedRange);
  path = folder;
  return 0;
}

}  // namespace qv::platform
