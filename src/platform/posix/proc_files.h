// The kernel's files of one process, read as Windows tells of a process.
//
// The process table is ProcRoot(), so tests can lay out a table of their
// own; the own process is always read from the real /proc/self, since its
// pid need not be in a test's table.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qv::platform::posix {

// <ProcRoot()>/<pid>, or /proc/self for the own pid.
std::string ProcessFolder(std::uint32_t processId);

// A whole file (the kernel's files report size 0, so this reads to the
// end). False with the errno value in `err`.
bool ReadWholeFile(const std::string& path, std::string& bytes, int& err);

// "X:\..." or "X:/...", the form Wine gives argv[0] of a Windows program, or
// "\\server\share\..." for one started from a network share.
bool IsAbsoluteWindowsPath(std::string_view text);

// The Windows session of a process: the number in <folder>/sessionid (the
// audit login session) as it stands, 4294967295 included; 0 when the kernel
// keeps no sessions. False with a Windows error when the process has gone
// (87) or the file cannot be read or holds no number (5).
bool ReadSessionId(const std::string& folder, std::uint32_t& session, std::uint32_t& error);

// A process opened with OpenProcess: what the seam asks of it later, read
// when it was opened, so that a pid reused meanwhile cannot answer for it.
struct OpenedProcess {
  std::string firstArgument;  // argv[0]
  std::uint32_t uid = 0;      // real uid
  std::string exeTarget;      // target of the exe link
  int exeError = 0;           // errno of reading that link, 0 when read
};

// Reads the files of a process. False with a Windows error: 87 when the
// process is not in the table, 5 when its cmdline or status is missing or
// unreadable.
bool LoadOpenedProcess(std::uint32_t processId, OpenedProcess& process, std::uint32_t& error);

}  // namespace qv::platform::posix
