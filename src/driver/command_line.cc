#include "driver/command_line.h"

#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

bool ReadOptions(const std::vector<WString>& arguments, RunOptions& options, WString& error) {
  bool sawAppData = false;
  bool sawLocalAppData = false;
  for (std::size_t index = 2; index < arguments.size(); index += 2) {
    // A lone last argument lacks its value, whatever it says.
    if (index + 1 >= arguments.size()) {
      error = u"Missing option value.\n";
      return false;
    }
    const WString name = ToLowerCopy(arguments[index]);
    const WString& value = arguments[index + 1];
    if (name == u"/package") {
      options.packageRoot = value;
    } else if (name == u"/test-appdata") {
      options.appData = value;
      options.isolated = true;
      sawAppData = true;
    } else if (name == u"/test-localappdata") {
      options.localAppData = value;
      options.isolated = true;
      sawLocalAppData = true;
    } else {
      error = u"Unknown option.\n";
      return false;
    }
  }
  if (sawAppData != sawLocalAppData) {
    error = u"Both isolated test folders are required.\n";
    return false;
  }
  return true;
}

WString LocatePackageRoot() {
  WString path;
  std::uint32_t length = platform::GetModuleFileNameW(path, platform::kLongPathBuffer);
  // The length is taken as it comes, with no test for failure or truncation.
  if (length < path.size()) path.resize(length);
  return PathParent(path);
}

}  // namespace qv
