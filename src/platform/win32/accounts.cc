// Tokens, SIDs and the account's folders in the Windows build.
#include <windows.h>
#include <objbase.h>
#include <shlobj.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FromH;
using win32::H;

bool OpenProcessToken(Handle process, std::uint32_t desiredAccess, Handle& token) {
  QV_FAULT_POINT("OpenProcessToken", return false);
  HANDLE result = nullptr;
  if (!::OpenProcessToken(H(process), desiredAccess, &result)) return false;
  token = FromH(result);
  return true;
}

std::uint32_t GetTokenUserSize(Handle token) {
  QV_FAULT_POINT("GetTokenInformation", return 0);
  DWORD needed = 0;
  ::GetTokenInformation(H(token), TokenUser, nullptr, 0, &needed);
  return needed;
}

bool GetTokenUser(Handle token, std::uint32_t size, Sid& sid) {
  QV_FAULT_POINT("GetTokenInformation", return false);
  std::vector<BYTE> buffer(size);
  DWORD needed = 0;
  if (!::GetTokenInformation(H(token), TokenUser, buffer.data(), size, &needed)) return false;
  PSID user = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
  DWORD length = ::GetLengthSid(user);
  const BYTE* bytes = static_cast<const BYTE*>(user);
  sid.assign(bytes, bytes + length);
  return true;
}

bool EqualSid(const Sid& a, const Sid& b) {
  QV_FAULT_POINT("EqualSid", return false);
  if (a.empty() || b.empty()) return false;
  return ::EqualSid(const_cast<BYTE*>(a.data()), const_cast<BYTE*>(b.data())) != 0;
}

bool ConvertSidToStringSidW(const Sid& sid, WString& text) {
  QV_FAULT_POINT("LoadLibraryW", return false, u"advapi32.dll");
  QV_FAULT_POINT("GetProcAddress", return false, u"ConvertSidToStringSidW");
  QV_FAULT_POINT("ConvertSidToStringSidW", return false);
  if (sid.empty()) return false;
  HMODULE advapi = ::LoadLibraryExW(L"advapi32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (advapi == nullptr) return false;
  using Convert = BOOL(WINAPI*)(PSID, LPWSTR*);
  auto convert = reinterpret_cast<Convert>(reinterpret_cast<void*>(::GetProcAddress(advapi, "ConvertSidToStringSidW")));
  bool ok = false;
  if (convert != nullptr) {
    wchar_t* buffer = nullptr;
    if (convert(const_cast<BYTE*>(sid.data()), &buffer) && buffer != nullptr) {
      text = win32::FromW(buffer);
      ::LocalFree(buffer);
      ok = true;
    }
  }
  ::FreeLibrary(advapi);
  return ok;
}

namespace {
// The known folders behind the two CSIDLs the tool asks for.
constexpr GUID kRoamingAppData = {0x3eb685db, 0x65f9, 0x4cf6, {0xa0, 0x3a, 0xe3, 0xef, 0x65, 0x72, 0x9f, 0x3d}};
constexpr GUID kLocalAppData = {0xf1b32785, 0x6fba, 0x4fcf, {0x9d, 0x55, 0x7b, 0x8e, 0x7f, 0x15, 0x70, 0x91}};
}  // namespace

std::int32_t SHGetFolderPathW(int csidl, Handle token, WString& path) {
  QV_FAULT_POINT("SHGetFolderPathW", return static_cast<std::int32_t>(HRESULT_FROM_WIN32(::GetLastError())),
                 DecimalText(static_cast<std::uint32_t>(csidl)));
  wchar_t buffer[MAX_PATH] = {0};
  HRESULT result = ::SHGetFolderPathW(nullptr, csidl, H(token), SHGFP_TYPE_CURRENT, buffer);
  path = win32::FromW(buffer);
  if (SUCCEEDED(result) || (csidl != CSIDL_APPDATA && csidl != CSIDL_LOCAL_APPDATA)) return result;
  // The call fails for a folder whose path does not fit its MAX_PATH buffer
  // (a redirected or deep profile); the known-folder call allocates what the
  // path needs.
  wchar_t* known = nullptr;
  if (SUCCEEDED(::SHGetKnownFolderPath(csidl == CSIDL_APPDATA ? kRoamingAppData : kLocalAppData, 0, H(token),
                                       &known)) &&
      known != nullptr) {
    path = win32::PlainPath(win32::FromW(known));
    result = S_OK;
  }
  ::CoTaskMemFree(known);
  return result;
}

}  // namespace qv::platform
