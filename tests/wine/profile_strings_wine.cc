// The INI reader of the Linux host against Wine's own GetPrivateProfileStringW,
// asked live the questions of tests/data/ini/queries.txt in one probe run.
#include <gtest/gtest.h>

#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"
#include "support/scene.h"

namespace qv::test {
namespace {

// A field of queries.txt: \uXXXX for any code unit and \\ for a backslash;
// other bytes stand for themselves.
WString Unescape(const std::string& field) {
  WString out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field.compare(i, 2, "\\\\") == 0) {
      out.push_back(u'\\'), ++i;
    } else if (field.compare(i, 2, "\\u") == 0 && i + 5 < field.size()) {
      out.push_back(static_cast<char16_t>(std::stoul(field.substr(i + 2, 4), nullptr, 16))), i += 5;
    } else {
      out.push_back(static_cast<unsigned char>(field[i]));
    }
  }
  return out;
}

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
  WString folder;
  ASSERT_TRUE(platform::posix::ToWindowsPath(data, folder));
  // Each question of the native build beside Wine's answer: the result, and
  // the units it placed in the buffer.
  std::istringstream questions(ReadFile(data + "/queries.txt")), answers(ReadFile(dir / "answers.txt"));
  std::size_t asked = 0;
  for (std::string question, answer; std::getline(questions, question);) {
    if (question.empty()) continue;
    ASSERT_TRUE(std::getline(answers, answer)) << "no answer to " << question;
    std::vector<std::string> f;
    std::istringstream fields(question);
    for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
    ASSERT_EQ(f.size(), 5u) << question;
    const std::size_t tab = answer.find('\t');
    WString expected;
    for (std::size_t i = tab + 1; i + 4 <= answer.size(); i += 4) {
      expected.push_back(static_cast<char16_t>(std::stoul(answer.substr(i, 4), nullptr, 16)));
    }
    WString value = u"stale";
    const std::uint32_t result = platform::GetPrivateProfileStringW(
        Unescape(f[1]), Unescape(f[2]), Unescape(f[3]), value, std::stoul(f[4]), folder + u"\\" + Utf8ToWide(f[0]));
    EXPECT_EQ(result, std::stoul(answer.substr(0, tab))) << question.substr(0, 200);
    EXPECT_EQ(value, expected) << question.substr(0, 200);
    ++asked;
  }
  EXPECT_GT(asked, 300u);
}

}  // namespace
}  // namespace qv::test
