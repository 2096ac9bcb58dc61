#include "platform/posix/processes.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/errors.h"
#include "platform/posix/host_handles.h"
#include "platform/posix/host_paths.h"
#include "platform/posix/host_roots.h"

namespace qv::platform::posix {
namespace {

// A decimal number of at most 32 bits, blanks and line ends around it allowed.
bool ParseUnsigned32(std::string_view text, std::uint32_t& value) {
  const std::size_t first = text.find_first_not_of(" \t");
  const std::size_t end = text.find_last_not_of(" \t\n");
  if (first == std::string_view::npos || end == std::string_view::npos) return false;
  std::uint64_t number = 0;
  for (char c : text.substr(first, end + 1 - first)) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
    if (number > 0xFFFFFFFFull) return false;
  }
  value = static_cast<std::uint32_t>(number);
  return true;
}

// The real uid of the "Uid:\treal\teffective\tsaved\tfilesystem" line of a
// status file.
bool ParseRealUid(const std::string& status, std::uint32_t& uid) {
  const std::size_t line = status.starts_with("Uid:") ? 0 : status.find("\nUid:");
  if (line == std::string::npos) return false;
  const std::size_t start = status.find_first_not_of(" \t", status.find(':', line) + 1);
  if (start == std::string::npos) return false;
  return ParseUnsigned32(std::string_view(status).substr(start, status.find_first_of(" \t\n", start) - start), uid);
}

bool FolderExists(const std::string& folder) {
  std::error_code error;
  return std::filesystem::is_directory(folder, error);
}

// <ProcRoot()>/<pid>, or /proc/self for the own pid.
std::string ProcessFolder(std::uint32_t processId) {
  if (processId == static_cast<std::uint32_t>(::getpid())) return "/proc/self";
  return ProcRoot() + "/" + std::to_string(processId);
}

// A whole file of the process table; false when it cannot be read.
bool ReadProcFile(const std::string& path, std::string& bytes) {
  std::uint32_t error = 0;
  return ReadFileBytes(path, bytes, error);
}

// "X:\\..." or "X:/...", the form Wine gives argv[0] of a Windows program, or
// "\\\\server\\share\\..." for one started from a network share.
bool IsAbsoluteWindowsPath(std::string_view text) {
  if (text.size() < 3) return false;
  if (text[0] == '\\' && text[1] == '\\') return text[2] != '\\' && text[2] != '/';
  return IsAsciiLetter(static_cast<unsigned char>(text[0])) && text[1] == ':' && (text[2] == '\\' || text[2] == '/');
}

// Reads the files of a process for OpenProcess. False with a Windows error:
// 87 when the process is not in the table, 5 when its cmdline or status is
// missing or unreadable.
bool LoadOpenedProcess(std::uint32_t processId, OpenedProcess& process, std::uint32_t& error) {
  const std::string folder = ProcessFolder(processId);
  if (processId == 0 || !FolderExists(folder)) {
    error = kErrorInvalidParameter;
    return false;
  }
  std::string cmdline;
  std::string status;
  if (!ReadProcFile(folder + "/cmdline", cmdline) || !ReadProcFile(folder + "/status", status) ||
      !ParseRealUid(status, process.uid)) {
    // The entry may have gone between the looks: a process that no longer
    // exists, as Windows reports it.
    error = FolderExists(folder) ? kErrorAccessDenied : kErrorInvalidParameter;
    return false;
  }
  process.firstArgument = cmdline.substr(0, cmdline.find('\0'));
  std::error_code exeError;
  process.exeTarget = std::filesystem::read_symlink(folder + "/exe", exeError).string();
  process.exeError = exeError.value();
  return true;
}

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
  const std::string folder = ProcRoot() + "/" + std::to_string(id);
  std::string text;
  if (ReadProcFile(folder + "/cmdline", text)) {
    const std::string first = text.substr(0, text.find('\0'));
    const std::string last = first.substr(first.find_last_of("\\/") + 1);
    if (IsAbsoluteWindowsPath(first) && !last.empty()) {
      name = Utf8ToWide(last);
      return true;
    }
  }
  if (!ReadProcFile(folder + "/comm", text)) return false;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  name = Utf8ToWide(text);
  return true;
}

bool NextEntry(Handle snapshot, ProcessEntry& entry, bool first) {
  auto* state = LookUpHandle<Snapshot>(snapshot, HandleKind::Snapshot);
  if (state == nullptr) return Fail(kErrorInvalidHandle);
  if (first) state->next = 0;
  if (state->next >= state->entries.size()) return Fail(kErrorNoMoreFiles);
  entry = state->entries[state->next++];
  return true;
}

}  // namespace

bool ReadSessionId(std::uint32_t processId, std::uint32_t& session, std::uint32_t& error) {
  const std::string folder = ProcessFolder(processId);
  std::string text;
  if (!ReadFileBytes(folder + "/sessionid", text, error)) {
    if (error == kErrorFileNotFound) {
      session = 0;  // a kernel without audit sessions: every process is in session 0
      return true;
    }
    // The process has gone (its folder with it), or the file cannot be read.
    error = error == kErrorPathNotFound ? kErrorInvalidParameter : kErrorAccessDenied;
    return false;
  }
  error = kErrorAccessDenied;
  return ParseUnsigned32(text, session);
}

}  // namespace qv::platform::posix

namespace qv::platform {

Handle CreateToolhelp32Snapshot() {
  QV_FAULT_POINT("CreateToolhelp32Snapshot", return kInvalidHandle);
  DIR* table = ::opendir(posix::ProcRoot().c_str());
  if (table == nullptr) {
    SetLastError(posix::ErrnoToWinError(errno));
    return kInvalidHandle;
  }
  const std::vector<std::uint32_t> ids = posix::ProcessIds(table);
  ::closedir(table);
  // The names are read now: the snapshot is a picture of this moment, and a
  // process that ends before its files are read is simply not in it.
  auto snapshot = std::make_shared<posix::Snapshot>();
  for (std::uint32_t id : ids) {
    ProcessEntry entry{id, {}};
    if (posix::ExeFileName(id, entry.exeFile)) snapshot->entries.push_back(std::move(entry));
  }
  return posix::RegisterHandle(posix::HandleKind::Snapshot, snapshot);
}

bool Process32FirstW(Handle snapshot, ProcessEntry& entry) {
  QV_FAULT_POINT("Process32FirstW", return false);
  return posix::NextEntry(snapshot, entry, true);
}

bool Process32NextW(Handle snapshot, ProcessEntry& entry) {
  QV_FAULT_POINT("Process32NextW", return false);
  return posix::NextEntry(snapshot, entry, false);
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
  return (processId != 0 && posix::ReadSessionId(processId, sessionId, error)) || posix::Fail(error);
}

Handle OpenProcess(std::uint32_t /*desiredAccess*/, std::uint32_t processId) {
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
  std::uint32_t error = kErrorInvalidHandle;
  const posix::OpenedProcess* target =
      process == posix::kCurrentProcessHandle
          ? (posix::LoadOpenedProcess(static_cast<std::uint32_t>(::getpid()), own, error) ? &own : nullptr)
          : posix::LookUpHandle<posix::OpenedProcess>(process, posix::HandleKind::Process);
  if (target == nullptr) return posix::Fail(error);
  WString image;
  if (posix::IsAbsoluteWindowsPath(target->firstArgument)) {
    // Wine's argv[0]; the Win32 form separates with backslashes.
    image = Utf8ToWide(target->firstArgument);
    std::replace(image.begin(), image.end(), u'/', u'\\');
  } else if (target->exeError != 0) {
    return posix::Fail(posix::ErrnoToWinError(target->exeError));
  } else if (!posix::ToWindowsPath(target->exeTarget, image)) {
    return posix::Fail(kErrorPathNotFound);
  }
  if (image.size() + 1 > capacity) return posix::Fail(kErrorInsufficientBuffer);
  path = image;
  return true;
}

}  // namespace qv::platform
