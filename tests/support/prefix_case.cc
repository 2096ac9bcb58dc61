#include "support/prefix_case.h"

#include <algorithm>
#include <cstdlib>

namespace qv::test {

WString WinPath(const std::string& relative) {
  std::string text = "C:\\" + relative;
  std::replace(text.begin(), text.end(), '/', '\\');
  return Utf8ToWide(text);
}

void PrefixCase::SetUp() {
  if (const char* old = std::getenv("WINEPREFIX")) {
    savedPrefix_ = old;
    hadPrefix_ = true;
  }
  prefix_ = MakeFixturePrefix(temp_.path());
  ::setenv("WINEPREFIX", prefix_.root.c_str(), 1);
}

void PrefixCase::TearDown() {
  if (hadPrefix_) {
    ::setenv("WINEPREFIX", savedPrefix_.c_str(), 1);
  } else {
    ::unsetenv("WINEPREFIX");
  }
}

void RunWithFaults(const std::string& faults, const std::function<int(const FixturePrefix&)>& body) {
  ::setenv("QUORVANE_FAULTS", faults.c_str(), 1);
  int code = 0;
  {
    TempDir temp;
    const FixturePrefix prefix = MakeFixturePrefix(temp.path());
    ::setenv("WINEPREFIX", prefix.root.c_str(), 1);
    code = body(prefix);
  }
  std::_Exit(code);
}

}  // namespace qv::test
