// The kernel's per-process files, read as the Windows process list.
//
// The process table is $QUORVANE_PROC_ROOT (default /proc), so tests can lay
// out a table of their own. The own process is always read from the real
// /proc/self: its pid need not be in a test's table.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/platform.h"

namespace qv::platform::posix {

// GetCurrentProcess's pseudo-handle: (HANDLE)-1, as on Windows. It is in no
// handle table and needs no closing.
inline constexpr Handle kCurrentProcessHandle = kInvalidHandle;

// <ProcRoot()>/<pid>, or /proc/self for the own pid.
std::string ProcessFolder(std::uint32_t processId);

// Whole content of a file (the kernel's files report size 0, so this reads
// to the end). False with an errno value in `err`.
bool ReadWholeFile(const std::string& path, std::string& bytes, int& err);

// The same for a path relative to an open folder.
bool ReadWholeFileAt(int folder, const char* relative, std::string& bytes, int& err);

// Descriptors opened one after another and closed together: close_range(2)
// shuts a run of consecutive descriptors in one call, where closing each
// would cost a call of its own. A walk over a thousand processes opens a
// thousand files.
class DescriptorBatch {
 public:
  DescriptorBatch() = default;
  DescriptorBatch(const DescriptorBatch&) = delete;
  DescriptorBatch& operator=(const DescriptorBatch&) = delete;
  ~DescriptorBatch() { CloseAll(); }

  // Takes the descriptor over; closes what it holds once it holds kMax.
  void Add(int fd);
  void CloseAll();
  std::size_t size() const { return count_; }

  static constexpr std::size_t kMax = 256;

 private:
  std::vector<std::pair<int, int>> runs_;  // first and last of each run
  std::size_t count_ = 0;
};

// argv[0] of the cmdline file at `relative` below an open folder: its bytes up
// to the first NUL, read no further than that. False with an errno value.
// With `batch`, the file is left to the batch to close.
bool ReadFirstArgumentAt(int folder, const char* relative, std::string& first, int& err,
                         DescriptorBatch* batch = nullptr);

// argv[0] of a cmdline file: the bytes up to the first NUL.
std::string FirstArgument(const std::string& cmdline);

// "X:\..." or "X:/...", the form Wine gives argv[0] of a Windows program,
// or "\\server\share\..." for one started from a network share.
bool IsAbsoluteWindowsPath(std::string_view text);

// The Windows session of a process: the number in <folder>/sessionid as it
// stands (4294967295, no audit session, included), 0 when the file is
// missing. False with a Windows error when the process has gone (87) or the
// file cannot be read or holds no number (5).
bool ReadSessionId(const std::string& folder, std::uint32_t& session, std::uint32_t& error);

// The real uid of the "Uid:" line of a status file's text.
bool ParseRealUid(const std::string& status, std::uint32_t& uid);

// A process opened with OpenProcess: what the seam asks of it later, read
// when it was opened, so that a pid reused meanwhile cannot answer for it.
struct OpenedProcess {
  std::uint32_t processId = 0;
  std::string firstArgument;  // argv[0]
  std::uint32_t uid = 0;      // real uid
  std::string exeTarget;      // target of the exe link
  int exeError = 0;           // errno of reading that link, 0 when read
};

// Reads the files of an open process. False with a Windows error: 87 when
// the process is not in the table, 5 when its cmdline or status is missing
// or unreadable.
bool LoadOpenedProcess(std::uint32_t processId, OpenedProcess& process, std::uint32_t& error);

// Start time (field 22 of /proc/<pid>/stat, in clock ticks since boot) of a
// live process of this machine, read from the real /proc. False for a
// process that has gone or is a zombie.
bool LiveProcessStartTime(int pid, std::uint64_t& startTime);

}  // namespace qv::platform::posix
