#include "wine/wine_support.h"

#include <cstdlib>

namespace qv::test {

std::string SharedWinePrefix() {
  const char* prefix = std::getenv("QUORVANE_WINE_PREFIX");
  if (prefix == nullptr || *prefix == '\0' || !Exists(std::string(prefix) + "/system.reg")) return "";
  return prefix;
}

RunResult RunUnderWine(const std::string& prefix, const std::string& program, const std::vector<std::string>& args) {
  std::vector<std::string> all{program};
  all.insert(all.end(), args.begin(), args.end());
  return Run("/usr/lib/wine/wine64", all, {{"WINEPREFIX", prefix}, {"WINEDEBUG", "-all"}});
}

void WaitForWineServer(const std::string& prefix) {
  Run("/usr/lib/wine/wineserver", {"-w"}, {{"WINEPREFIX", prefix}});
}

}  // namespace qv::test
