// Processes of the seam in the Windows build.
#include <windows.h>
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

}  // namespace qv::platform
