#include "platform/posix/host_roots.h"

#include <cstdlib>

namespace qv::platform::posix {
namespace {

// The environment variable's value, else `fallback`; no trailing slash.
std::string FolderFromEnvironment(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  std::string folder = value != nullptr && *value != '\0' ? value : fallback;
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

}  // namespace

std::string PrefixDirectory() {
  const char* home = std::getenv("HOME");
  return FolderFromEnvironment("WINEPREFIX", std::string(home != nullptr ? home : "") + "/.wine");
}

std::string ProcRoot() { return FolderFromEnvironment("QUORVANE_PROC_ROOT", "/proc"); }

}  // namespace qv::platform::posix
