// The per-user folders of the native build against Wine's own answer in a
// real prefix made by wineboot.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "platform/wstring.h"
#include "user/user_folders.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

TEST(WinePrefix, UserFoldersMatchWinesShellFolders) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  RunResult probe = RunUnderWine(prefix, QUORVANE_FOLDER_PROBE, {});
  ASSERT_EQ(probe.exitCode, 0) << probe.err;
  std::istringstream lines(probe.out);
  ::setenv("WINEPREFIX", prefix.c_str(), 1);
  int checked = 0;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    int csidl = 0;
    long result = 0;
    fields >> csidl >> result;
    std::string path;
    std::getline(fields >> std::ws, path);
    // Wine's console output ends lines with CR LF.
    if (!path.empty() && path.back() == '\r') path.pop_back();
    ASSERT_EQ(result, 0) << line;
    EXPECT_EQ(WideToUtf8(GetUserFolder(csidl)), path) << "CSIDL " << csidl;
    ++checked;
  }
  EXPECT_EQ(checked, 2);
}

}  // namespace
}  // namespace qv::test
