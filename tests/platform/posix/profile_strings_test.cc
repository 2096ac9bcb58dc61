// The INI reader of the Linux host against the answers that Wine's own
// GetPrivateProfileStringW gave for the files in tests/data/ini (recorded in
// expected.txt by the profile command of tests/wine/wine_probe.cc; tests/wine asks Wine live).
#include "platform/profile_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "support/prefix.h"
#include "support/profile_answers.h"

namespace qv::platform {
namespace {

using ProfileStrings = test::PrefixCase;

const std::string kIniData = std::string(QUORVANE_TEST_DATA) + "/ini";

// Through the seam, small files are answered from their index; the search
// line by line, which larger files get, must give the same answers.
TEST_F(ProfileStrings, MatchRecordedWineAnswers) {
  const std::vector<test::ProfileAnswer> answers = test::ParseProfileAnswers(test::ReadFile(kIniData + "/expected.txt"));
  ASSERT_GT(answers.size(), 300u);
  test::ExpectSameProfileAnswers(answers, kIniData);
  std::size_t searched = 0;
  for (const test::ProfileAnswer& a : answers) {
    const std::string file = kIniData + "/" + a.file;
    if (!std::filesystem::is_regular_file(file)) continue;
    WString value = u"stale";
    EXPECT_EQ(profile::ReadProfileString(test::ReadFile(file), a.section, a.key, a.defaultValue, value, a.size), a.result)
        << a.line;
    EXPECT_EQ(value, a.value) << a.line;
    ++searched;
  }
  EXPECT_GT(searched, 300u);
}

// The file is kept in memory only while it is unchanged on disk.
TEST_F(ProfileStrings, FollowARewrittenFile) {
  const WString path = Win("Quorvane/Installation.ini");
  WString value;
  for (const char16_t* count : {u"1", u"12", u"3"}) {
    test::WriteFile(Host("Quorvane/Installation.ini"), test::Utf16LeWithBom(u"[Fusion]\r\nCount=" + WString(count) + u"\r\n"));
    EXPECT_EQ(GetPrivateProfileStringW(u"fusion", u"COUNT", u"", value, 32768, path), std::u16string_view(count).size());
    EXPECT_EQ(value, count);
  }
  // A missing file is an empty one: the default loses its quotes.
  EXPECT_EQ(GetPrivateProfileStringW(u"Fusion", u"Count", u"\"d\"", value, 32768, path + u"x"), 1u);
  EXPECT_EQ(value, u"d");
}

}  // namespace
}  // namespace qv::platform
