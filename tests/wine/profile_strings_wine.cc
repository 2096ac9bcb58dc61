// The INI reader of the Linux host against Wine's own GetPrivateProfileStringW,
// asked live the questions of tests/data/ini/queries.txt in one probe run.
#include <gtest/gtest.h>

#include "platform/posix/host_paths.h"
#include "platform/wstring.h"
#include "support/profile_answers.h"
#include "support/scene.h"

namespace qv::test {
namespace {

TEST_F(WinePrefix, ProfileStringsMatchWinesAnswers) {
  const std::string data = std::string(QUORVANE_TEST_DATA) + "/ini";
  TempDir dir;
  std::vector<std::string> command{QUORVANE_WINE_PROBE, "profile"};
  for (const std::string& path : {data, data + "/queries.txt", dir / "answers.txt"}) {
    WString windowsPath;
    ASSERT_TRUE(platform::posix::ToWindowsPath(path, windowsPath)) << path;
    command.push_back(WideToUtf8(windowsPath));
  }
  const RunResult run = Wine(command);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const std::vector<ProfileAnswer> answers = ParseProfileAnswers(ReadFile(dir / "answers.txt"));
  ASSERT_GT(answers.size(), 300u);
  ExpectSameProfileAnswers(answers, data);
}

}  // namespace
}  // namespace qv::test
