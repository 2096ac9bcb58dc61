// The Windows process list and process queries from the kernel's process
// table.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/errors.h"
#include "platform/posix/handles.h"
#include "platform/posix/host_paths.h"
#include "platform/posix/host_roots.h"
#include "platform/posix/proc_files.h"

namespace qv::platform {
namespace {

struct Snapshot {
  std::vector<ProcessEntry> entries;
  std::size_t next = 0;
};

// The numeric folders of the process table, in ascending pid order.
std::vector<std::uint32_t> ProcessIds(DIR* table) {
  std::vector<std::uint32_t> ids;
  while (const dirent* entry = ::readdir(table)) {
    const std::string_view name(entry->d_name);
    if (name.empty() || name.size() > 10 || name.find_first_not_of("0123456789") != std::string_view::npos) continue;
    const std::uint64_t id = std::stoull(std::string(name));
    if (id <= 0xFFFFFFFFull) ids.push_back(static_cast<std::uint32_t>(id));
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

// szExeFile: the last element of argv[0] when Wine put a Windows path there,
// else the kernel's comm (the file name cut to 15 bytes). False for a
// process that has gone meanwhile.
bool ExeFileName(std::uint32_t id, WString& name) {
  const std::string folder = posix::ProcRoot() + "/" + std::to_string(id);
  std::string text;
  int err = 0;
  if (posix::ReadWholeFile(folder + "/cmdline", text, err)) {
    const std::string first = text.substr(0, text.find('\0'));
    const std::string last = first.substr(first.find_last_of("\\/") + 1);
    if (posix::IsAbsoluteWindowsPath(first) && !last.empty()) {
      name = Utf8ToWide(last);
      return true;
    }
  }
  if (!posix::ReadWholeFile(folder + "/comm", text, err)) return false;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  name = Utf8ToWide(text);
  return true;
}

bool NextEntry(Handle snapshot, ProcessEntry& entry, bool first) {
  auto* state = posix::LookUpHandle<Snapshot>(snapshot, posix::HandleKind::Snapshot);
  if (state == nullptr) {
    SetLastError(kErrorInvalidHandle);
    return false;
  }
  if (first) state->next = 0;
  if (state->next >= state->entries.size()) {
    SetLastError(kErrorNoMoreFiles);
    return false;
  }
  entry = state->entries[state->next++];
  return true;
}

}  // namespace

Handle CreateToolhelp32Snapshot() {
  QV_FAULT_POINT("CreateToolhelp32Snapshot", return kInvalidHandle);
  DIR* table = ::opendir(posix::ProcRoot().c_str());
  if (table == nullptr) {
    SetLastError(posix::ErrnoToWinError(errno));
    return kInvalidHandle;
  }
  const std::vector<std::uint32_t> ids = ProcessIds(table);
  ::closedir(table);
  // The names are read now: the snapshot is a picture of this moment, and a
  // process that ends before its files are read is simply not in it.
  auto snapshot = std::make_shared<Snapshot>();
  for (std::uint32_t id : ids) {
    ProcessEntry entry{id, {}};
    if (ExeFileName(id, entry.exeFile)) snapshot->entries.push_back(std::move(entry));
  }
  return posix::RegisterHandle(posix::HandleKind::Snapshot, snapshot);
}

bool Process32FirstW(Handle snapshot, ProcessEntry& entry) {
  QV_FAULT_POINT("Process32FirstW", return false);
  return NextEntry(snapshot, entry, true);
}

bool Process32NextW(Handle snapshot, ProcessEntry& entry) {
  QV_FAULT_POINT("Process32NextW", return false);
  return NextEntry(snapshot, entry, false);
}

std::uint32_t GetCurrentProcessId() {
  QV_FAULT_POINT("GetCurrentProcessId", return 0);
  return static_cast<std::uint32_t>(::getpid());
}

Handle GetCurrentProcess() {
  QV_FAULT_POINT("GetCurrentProcess", return posix::kCurrentProcessHandle);
  return posix::kCurrentProcessHandle;
}

bool ProcessIdToSessionId(std::uint32_t processId, std::uint32_t& sessionId) {
  QV_FAULT_POINT("ProcessIdToSessionId", return false, DecimalText(processId));
  // The own session comes from the real /proc even when the process table
  // is a test's own.
  std::uint32_t error = kErrorInvalidParameter;
  if (processId != 0 && posix::ReadSessionId(posix::ProcessFolder(processId), sessionId, error)) return true;
  SetLastError(error);
  return false;
}

Handle OpenProcess(std::uint32_t desiredAccess, std::uint32_t processId) {
  (void)desiredAccess;
  QV_FAULT_POINT("OpenProcess", return kNullHandle, DecimalText(processId));
  auto process = std::make_shared<posix::OpenedProcess>();
  std::uint32_t error = 0;
  if (!posix::LoadOpenedProcess(processId, *process, error)) {
    SetLastError(error);
    return kNullHandle;
  }
  return posix::RegisterHandle(posix::HandleKind::Process, process);
}

bool LookUpQueryFullProcessImageNameW() {
  QV_FAULT_POINT("GetProcAddress", return false, u"QueryFullProcessImageNameW");
  return true;
}

bool QueryFullProcessImageNameW(Handle process, WString& path, std::uint32_t capacity) {
  QV_FAULT_POINT("QueryFullProcessImageNameW", return false);
  posix::OpenedProcess own;
  const posix::OpenedProcess* target = nullptr;
  if (process == posix::kCurrentProcessHandle) {
    std::uint32_t error = 0;
    if (!posix::LoadOpenedProcess(static_cast<std::uint32_t>(::getpid()), own, error)) {
      SetLastError(error);
      return false;
    }
    target = &own;
  } else {
    target = posix::LookUpHandle<posix::OpenedProcess>(process, posix::HandleKind::Process);
    if (target == nullptr) {
      SetLastError(kErrorInvalidHandle);
      return false;
    }
  }
  WString image;
  if (posix::IsAbsoluteWindowsPath(target->firstArgument)) {
    // Wine's argv[0]; the Win32 form separates with backslashes.
    image = Utf8ToWide(target->firstArgument);
    std::replace(image.begin(), image.end(), u'/', u'\\');
  } else if (target->exeError != 0) {
    SetLastError(posix::ErrnoToWinError(target->exeError));
    return false;
  } else if (!posix::ToWindowsPath(target->exeTarget, image)) {
    SetLastError(kErrorPathNotFound);
    return false;
  }
  if (image.size() + 1 > capacity) {
    SetLastError(kErrorInsufficientBuffer);
    return false;
  }
  path = image;
  return true;
}

}  // namespace qv::platform
