// The Windows process list from the kernel's process table.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/handles.h"
#include "platform/posix/host.h"
#include "platform/posix/proc_files.h"

namespace qv::platform {
namespace {

struct Snapshot {
  std::vector<ProcessEntry> entries;
  std::size_t next = 0;
};

// One numeric folder of the process table: the pid, and the inode that the
// listing gives for the folder. The kernel makes a new inode for each
// process, so a pid reused by another process comes with another inode.
struct TableEntry {
  std::uint32_t id = 0;
  ino_t inode = 0;
  bool operator<(const TableEntry& other) const { return id < other.id; }
};

// The numeric folders of the process table, in ascending pid order.
bool ListProcessIds(DIR* dir, std::vector<TableEntry>& ids) {
  while (const dirent* entry = ::readdir(dir)) {
    std::string_view name(entry->d_name);
    if (name.empty() || name.size() > 10) continue;
    std::uint64_t id = 0;
    bool digits = true;
    for (char c : name) {
      if (c < '0' || c > '9') {
        digits = false;
        break;
      }
      id = id * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (digits && id <= 0xFFFFFFFFull) ids.push_back({static_cast<std::uint32_t>(id), entry->d_ino});
  }
  std::sort(ids.begin(), ids.end());
  return true;
}

// szExeFile: the last element of argv[0] when Wine put a Windows path there
// (`fromWine` is then true), else the kernel's comm (the file name cut to 15
// bytes), which is read only then. False for an entry that has gone
// meanwhile. `table` is the process table's folder, open.
bool ExeFileName(int table, std::uint32_t id, WString& name, bool& fromWine, posix::DescriptorBatch& opened) {
  fromWine = false;
  char relative[32];
  const int length = std::snprintf(relative, sizeof relative, "%u/cmdline", id);
  std::string first;
  int err = 0;
  if (posix::ReadFirstArgumentAt(table, relative, first, err, &opened) && posix::IsAbsoluteWindowsPath(first)) {
    std::string_view last = std::string_view(first).substr(first.find_last_of("\\/") + 1);
    if (!last.empty()) {
      name = Utf8ToWide(last);
      fromWine = true;
      return true;
    }
  }
  std::snprintf(relative + length - 7, sizeof relative - static_cast<std::size_t>(length - 7), "comm");
  std::string comm;
  if (!posix::ReadWholeFileAt(table, relative, comm, err)) return false;
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  name = Utf8ToWide(comm);
  return true;
}

// Names that Wine gave its processes, kept from one snapshot to the next.
//
// A snapshot reads a file of each process, and a run takes two or three
// snapshots within a few milliseconds: the discovery's, the check for a
// running Fusion and the shell's. Wine sets a process's argv[0] to its
// Windows path once, at start; a name read from there stands for the same
// process (same pid, same inode of its folder) for kNameStandsFor. Names
// that came from comm are read every time: such a process may be a Wine
// program still starting. Processes that come or go are seen at once, since
// every snapshot lists the table afresh.
constexpr std::chrono::milliseconds kNameStandsFor{500};

struct KnownName {
  ino_t inode = 0;
  WString name;
  std::chrono::steady_clock::time_point read;
};

struct KnownNames {
  std::mutex mutex;
  std::string table;
  std::unordered_map<std::uint32_t, KnownName> byId;
};

KnownNames& Known() {
  static KnownNames* known = new KnownNames;
  return *known;
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

bool OwnSessionId(std::uint32_t& session) {
  std::uint32_t error = 0;
  if (posix::ReadSessionId("/proc/self", session, error)) return true;
  SetLastError(error);
  return false;
}

}  // namespace

Handle CreateToolhelp32Snapshot() {
  QV_FAULT_POINT("CreateToolhelp32Snapshot", return kInvalidHandle);
  const std::string root = posix::ProcRoot();
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) {
    SetLastError(posix::ErrnoToWinError(errno));
    return kInvalidHandle;
  }
  std::vector<TableEntry> ids;
  ListProcessIds(dir, ids);
  // The names are read now: the snapshot is a picture of this moment, and a
  // process that ends before its files are read is simply not in it.
  auto snapshot = std::make_shared<Snapshot>();
  snapshot->entries.reserve(ids.size());
  const int table = ::dirfd(dir);
  KnownNames& known = Known();
  {
    std::lock_guard<std::mutex> lock(known.mutex);
    if (known.table != root) {
      known.byId.clear();
      known.table = root;
    }
    const auto now = std::chrono::steady_clock::now();
    std::unordered_map<std::uint32_t, KnownName> kept;
    posix::DescriptorBatch opened;
    for (const TableEntry& id : ids) {
      ProcessEntry entry;
      entry.processId = id.id;
      auto earlier = known.byId.find(id.id);
      if (earlier != known.byId.end() && earlier->second.inode == id.inode &&
          now - earlier->second.read < kNameStandsFor) {
        entry.exeFile = earlier->second.name;
        kept.emplace(id.id, std::move(earlier->second));
        snapshot->entries.push_back(std::move(entry));
        continue;
      }
      bool fromWine = false;
      if (!ExeFileName(table, id.id, entry.exeFile, fromWine, opened)) continue;
      if (fromWine) kept.emplace(id.id, KnownName{id.inode, entry.exeFile, now});
      snapshot->entries.push_back(std::move(entry));
    }
    known.byId = std::move(kept);
  }
  ::closedir(dir);
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
  WString id = DecimalText(processId);
  QV_FAULT_POINT("ProcessIdToSessionId", return false, id);
  // The own session comes from the real /proc even when the process table
  // is a test's own.
  if (processId == static_cast<std::uint32_t>(::getpid())) return OwnSessionId(sessionId);
  std::uint32_t error = 0;
  if (processId == 0 || !posix::ReadSessionId(posix::ProcessFolder(processId), sessionId, error)) {
    SetLastError(processId == 0 ? kErrorInvalidParameter : error);
    return false;
  }
  return true;
}

Handle OpenProcess(std::uint32_t desiredAccess, std::uint32_t processId) {
  (void)desiredAccess;
  WString id = DecimalText(processId);
  QV_FAULT_POINT("OpenProcess", return kNullHandle, id);
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
