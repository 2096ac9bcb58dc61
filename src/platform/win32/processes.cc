// Processes, tokens and shell folders of the seam.
#include <windows.h>
#include <objbase.h>
#include <shlobj.h>
#include <tlhelp32.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::FromH;
using win32::H;

Handle CreateToolhelp32Snapshot() {
  QV_FAULT_POINT("CreateToolhelp32Snapshot", return kInvalidHandle);
  HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  return snapshot == INVALID_HANDLE_VALUE ? kInvalidHandle : FromH(snapshot);
}

namespace {
bool ProcessStep(Handle snapshot, ProcessEntry& entry, bool first) {
  PROCESSENTRY32W record{};
  record.dwSize = sizeof record;
  BOOL ok = first ? ::Process32FirstW(H(snapshot), &record) : ::Process32NextW(H(snapshot), &record);
  if (!ok) return false;
  entry.processId = record.th32ProcessID;
  entry.exeFile = win32::FromW(record.szExeFile);
  return true;
}
}  // namespace

bool Process32FirstW(Handle snapshot, ProcessEntry& entry) {
  QV_FAULT_POINT("Process32FirstW", return false);
  return ProcessStep(snapshot, entry, true);
}

bool Process32NextW(Handle snapshot, ProcessEntry& entry) {
  QV_FAULT_POINT("Process32NextW", return false);
  return ProcessStep(snapshot, entry, false);
}

std::uint32_t GetCurrentProcessId() {
  QV_FAULT_POINT("GetCurrentProcessId", return 0);
  return ::GetCurrentProcessId();
}

Handle GetCurrentProcess() {
  QV_FAULT_POINT("GetCurrentProcess", return FromH(::GetCurrentProcess()));
  return FromH(::GetCurrentProcess());
}

bool ProcessIdToSessionId(std::uint32_t processId, std::uint32_t& sessionId) {
  QV_FAULT_POINT("ProcessIdToSessionId", return false, DecimalText(processId));
  DWORD session = 0;
  if (!::ProcessIdToSessionId(processId, &session)) return false;
  sessionId = session;
  return true;
}

Handle OpenProcess(std::uint32_t desiredAccess, std::uint32_t processId) {
  QV_FAULT_POINT("OpenProcess", return kNullHandle, DecimalText(processId));
  return FromH(::OpenProcess(desiredAccess, FALSE, processId));
}

namespace {
using QueryImageName = BOOL(WINAPI*)(HANDLE, DWORD, LPWSTR, PDWORD);
QueryImageName LookUpQueryImageName() {
  HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
  if (kernel == nullptr) return nullptr;
  return reinterpret_cast<QueryImageName>(
      reinterpret_cast<void*>(::GetProcAddress(kernel, "QueryFullProcessImageNameW")));
}
}  // namespace

bool LookUpQueryFullProcessImageNameW() {
  QV_FAULT_POINT("GetProcAddress", return false, u"QueryFullProcessImageNameW");
  return LookUpQueryImageName() != nullptr;
}

bool QueryFullProcessImageNameW(Handle process, WString& path, std::uint32_t capacity) {
  QV_FAULT_POINT("QueryFullProcessImageNameW", return false);
  QueryImageName query = LookUpQueryImageName();
  if (query == nullptr) return false;
  std::vector<wchar_t> buffer(capacity, L'\0');
  DWORD size = capacity;
  if (!query(H(process), 0, buffer.data(), &size)) return false;
  path = win32::PlainPath(win32::FromW(buffer.data(), size));
  return true;
}

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

Handle CreateMutexW(const WString& name) {
  QV_FAULT_POINT("CreateMutexW", return kNullHandle, name);
  return FromH(::CreateMutexW(nullptr, FALSE, win32::W(name)));
}

std::uint32_t WaitForSingleObject(Handle handle, std::uint32_t milliseconds) {
  QV_FAULT_POINT("WaitForSingleObject", return kWaitFailed);
  return ::WaitForSingleObject(H(handle), milliseconds);
}

bool ReleaseMutex(Handle mutex) {
  QV_FAULT_POINT("ReleaseMutex", return false);
  return ::ReleaseMutex(H(mutex)) != 0;
}

}  // namespace qv::platform
