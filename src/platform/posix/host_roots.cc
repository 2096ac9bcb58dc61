#include "platform/posix/host_roots.h"

#include <cstdlib>

namespace qv::platform::posix {
namespace {

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::string PrefixDirectory() {
  if (const char* prefix = std::getenv("WINEPREFIX"); prefix != nullptr && *prefix != '\0') {
    return WithoutTrailingSlashes(prefix);
  }
  const char* home = std::getenv("HOME");
  return WithoutTrailingSlashes(std::string(home != nullptr ? home : "") + "/.wine");
}

std::string ProcRoot() {
  const char* root = std::getenv("QUORVANE_PROC_ROOT");
  return WithoutTrailingSlashes(root != nullptr && *root != '\0' ? root : "/proc");
}

}  // namespace qv::platform::posix
