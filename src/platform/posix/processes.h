// The Windows processes of the Linux host, read from the kernel's process
// table: ProcRoot(), so that tests can lay out a table of their own. The own
// process is always read from the real /proc/self, since its pid need not be
// in a test's table.
#pragma once

#include <cstdint>
#include <string>

namespace qv::platform::posix {

// The Windows session of a process: the number in its sessionid file (the
// audit login session) as it stands, 4294967295 included; 0 when the kernel
// keeps no sessions. False with a Windows error when the process has gone
// (87) or the file cannot be read or holds no number (5).
bool ReadSessionId(std::uint32_t processId, std::uint32_t& session, std::uint32_t& error);

// What OpenProcess read of a process, the object behind its handle: read
// when it was opened, so that a pid reused meanwhile cannot answer for it.
struct OpenedProcess {
  std::string firstArgument;  // argv[0]
  std::uint32_t uid = 0;      // real uid
  std::string exeTarget;      // target of the exe link
  int exeError = 0;           // errno of reading that link, 0 when read
};

}  // namespace qv::platform::posix
