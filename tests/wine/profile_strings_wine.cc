// The INI reader of the Linux host against Wine's own GetPrivateProfileStringW,
// asked live the questions of tests/data/ini/queries.txt in one probe run.
#include <gtest/gtest.h>

#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"
#include "support/scene.h"

namespace qv::test {
namespace {

// Code units written as four hex digits each.
WString FromHex(const std::string& hex) {
  WString text;
  for (std::size_t i = 0; i + 4 <= hex.size(); i += 4) {
    text.push_back(static_cast<char16_t>(std::stoul(hex.substr(i, 4), nullptr, 16)));
  }
  return text;
}

TEST_F(WinePrefix, ProfileStringsMatchWinesAnswers) {
  const std::string data = std::string(QUORVANE_TEST_DATA) + "/ini";
  TempDir dir;
  WString folder, queries, answers;
  ASSERT_TRUE(platform::posix::ToWindowsPath(data, folder) &&
              platform::posix::ToWindowsPath(data + "/queries.txt", queries) &&
              platform::posix::ToWindowsPath(dir / "answers.txt", answers));
  const std::vector<std::string> command{QUORVANE_WINE_PROBE, "profile", WideToUtf8(folder), WideToUtf8(queries),
                                         WideToUtf8(answers)};
  const RunResult run = Wine(command);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  // Each question asked of the native build too: file, section, key,
  // default, size, and Wine's result and value.
  std::istringstream lines(ReadFile(dir / "answers.txt"));
  std::size_t asked = 0;
  for (std::string line; std::getline(lines, line); ++asked) {
    std::vector<std::string> f;
    std::istringstream fields(line + "\t");  // the value may be empty
    for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
    ASSERT_EQ(f.size(), 7u) << line;
    WString value = u"stale";
    const std::uint32_t result = platform::GetPrivateProfileStringW(FromHex(f[1]), FromHex(f[2]), FromHex(f[3]), value,
                                                                    std::stoul(f[4]), folder + u"\\" + FromHex(f[0]));
    const std::string question = WideToUtf8(FromHex(f[0]) + u" [" + FromHex(f[1]) + u"] " + FromHex(f[2]));
    EXPECT_EQ(result, std::stoul(f[5])) << question;
    EXPECT_EQ(value, FromHex(f[6])) << question;
  }
  EXPECT_GT(asked, 300u);
}

}  // namespace
}  // namespace qv::test
