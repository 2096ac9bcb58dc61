// Where the Linux host finds the Windows machine: the Wine prefix and the
// kernel's process table.
#include <cstdlib>
#include <string>

#include "platform/posix/host.h"

namespace qv::platform::posix {
namespace {

// The variable's value, else `fallback`; no trailing slash either way.
std::string FolderFromEnvironment(const char* name, std::string fallback) {
  if (const char* value = std::getenv(name); value != nullptr && *value != '\0') fallback = value;
  while (fallback.size() > 1 && fallback.back() == '/') fallback.pop_back();
  return fallback;
}

}  // namespace

std::string PrefixDirectory() {
  const char* home = std::getenv("HOME");
  return FolderFromEnvironment("WINEPREFIX", std::string(home != nullptr ? home : "") + "/.wine");
}

std::string ProcRoot() { return FolderFromEnvironment("QUORVANE_PROC_ROOT", "/proc"); }

}  // namespace qv::platform::posix
