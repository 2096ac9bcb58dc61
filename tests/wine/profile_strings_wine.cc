// The INI reader of the Linux host against Wine's own GetPrivateProfileStringW,
// asked live the questions of tests/data/ini/queries.txt in one probe run.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/posix/host.h"
#include "platform/wstring.h"
#include "support/profile_answers.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

TEST(WinePrefix, ProfileStringsMatchWinesAnswers) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  if (!Exists(QUORVANE_PROFILE_PROBE)) GTEST_SKIP() << "no profile probe: MinGW-w64 is not installed";
  const std::string data = std::string(QUORVANE_TEST_DATA) + "/ini";
  TempDir dir;
  const std::string out = dir / "answers.txt";
  WriteFile(out, "");
  // Wine's Z: is the host's root, as in the prefix that the reader uses below.
  ::setenv("WINEPREFIX", (dir / "no-drives").c_str(), 1);
  WString dataWin, queriesWin, outWin;
  ASSERT_TRUE(platform::posix::ToWindowsPath(data, dataWin));
  ASSERT_TRUE(platform::posix::ToWindowsPath(data + "/queries.txt", queriesWin));
  ASSERT_TRUE(platform::posix::ToWindowsPath(out, outWin));
  RunResult run = RunUnderWine(prefix, QUORVANE_PROFILE_PROBE,
                               {WideToUtf8(dataWin), WideToUtf8(queriesWin), WideToUtf8(outWin)});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  std::vector<ProfileAnswer> answers = ParseProfileAnswers(ReadFile(out));
  ASSERT_GT(answers.size(), 300u);
  ExpectSameProfileAnswers(answers, data);
  ::unsetenv("WINEPREFIX");
}

}  // namespace
}  // namespace qv::test
