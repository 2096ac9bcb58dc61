// The INI reader of the Linux host against the answers that Wine's own
// GetPrivateProfileStringW gave for the files in tests/data/ini (recorded in
// expected.txt by tests/wine/profile_probe.cc; tests/wine asks Wine live).
#include "platform/posix/profile_strings.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/profile_answers.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using test::ReadFile;
using test::TempDir;
using test::Utf16LeWithBom;
using test::WriteFile;

const std::string kIniData = std::string(QUORVANE_TEST_DATA) + "/ini";

// Z: is the host's root in a prefix that maps no drive.
class ProfileStrings : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("WINEPREFIX", (dir_ / "prefix").c_str(), 1); }
  void TearDown() override { ::unsetenv("WINEPREFIX"); }
  TempDir dir_;
};

// Through the seam, small files are answered from their index; the search
// line by line, which larger files get, must give the same answers.
TEST_F(ProfileStrings, MatchesRecordedWineAnswers) {
  std::vector<test::ProfileAnswer> answers = test::ParseProfileAnswers(ReadFile(kIniData + "/expected.txt"));
  ASSERT_GT(answers.size(), 300u);
  test::ExpectSameProfileAnswers(answers, kIniData);

  std::size_t searched = 0;
  for (const test::ProfileAnswer& a : answers) {
    const std::string file = kIniData + "/" + a.file;
    if (!std::filesystem::is_regular_file(file)) continue;
    WString value = u"stale";
    EXPECT_EQ(posix::ReadProfileString(ReadFile(file), a.section, a.key, a.defaultValue, value, a.size), a.result)
        << a.line;
    EXPECT_EQ(test::ProfileUnitsText(value), a.units) << a.line;
    ++searched;
  }
  EXPECT_GT(searched, 300u);
}

TEST_F(ProfileStrings, RewrittenFileReadsNewAndMissingFileGivesDefault) {
  std::string host = dir_ / "Quorvane/Installation.ini";
  WString path;
  WriteFile(host, Utf16LeWithBom(u"[Fusion]\r\nCount=1\r\n"));
  ASSERT_TRUE(posix::ToWindowsPath(host, path));
  WString value;
  EXPECT_EQ(GetPrivateProfileStringW(u"Fusion", u"Count", u"", value, 32768, path), 1u);
  EXPECT_EQ(value, u"1");
  WriteFile(host, Utf16LeWithBom(u"[Fusion]\r\nCount=12\r\n"));
  EXPECT_EQ(GetPrivateProfileStringW(u"Fusion", u"Count", u"", value, 32768, path), 2u);
  EXPECT_EQ(value, u"12");
  // As under Wine, the flush reports FALSE; it changes nothing here.
  EXPECT_FALSE(FlushPrivateProfileCache(path));

  // The same path in another case finds the file, as Windows does.
  WString upper = path;
  for (auto& c : upper) c = (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
  EXPECT_EQ(GetPrivateProfileStringW(u"fusion", u"count", u"", value, 32768, upper), 2u);

  // A missing file is an empty one: the default loses its quotes. A missing
  // folder cannot be opened at all: the default comes as written.
  EXPECT_EQ(GetPrivateProfileStringW(u"Fusion", u"Count", u"\"d\"", value, 32768, path + u"x"), 1u);
  EXPECT_EQ(value, u"d");
  EXPECT_EQ(GetPrivateProfileStringW(u"Fusion", u"Count", u"\"d\"", value, 32768, path + u"x\\y.ini"), 3u);
  EXPECT_EQ(value, u"\"d\"");
}

TEST(ProfileStringsReader, OddLastByteAndCutCharactersAreDropped) {
  WString value;
  // Wine reads the odd byte together with one from past its buffer; here it
  // is dropped.
  EXPECT_EQ(posix::ReadProfileString(Utf16LeWithBom(u"[S]\r\nB=x") + "A", u"S", u"B", u"", value, 100), 1u);
  EXPECT_EQ(value, u"x");
  const std::string loneHigh("\xFF\xFE[\x00S\x00]\x00\n\x00" "A\x00=\x00\x3D\xD8", 16);
  EXPECT_EQ(posix::ReadProfileString(loneHigh, u"S", u"A", u"d", value, 9), 1u);
  EXPECT_EQ(value, WString(1, 0xD83D));
  // Questions with NUL units stop there, like the C strings Wine gets.
  EXPECT_EQ(posix::ReadProfileString("[S]\nA=1", WString(u"S\0junk", 6), WString(u"A\0B", 3), u"", value, 9), 1u);
  // Size 0 writes nothing.
  EXPECT_EQ(posix::ReadProfileString("[S]\nA=1", u"S", u"A", u"", value, 0), 0u);
  EXPECT_TRUE(value.empty());
}

// A 100 MB file is read in one pass: a key at its very end, and a key that
// it does not have, both come back; a single line of 16 MB is cut.
TEST(ProfileStringsReader, LargeFiles) {
  std::string filler = "Key=some value of the filler lines that make the file big\r\n";
  while (filler.size() < 1'000'000) filler += filler;
  std::string text = "[Other]\r\n";
  text.reserve(101'000'000);
  while (text.size() < 50'000'000) text += filler;
  text += "[Fusion]\r\n";
  while (text.size() < 100'000'000) text += filler;
  text += "Count=7\r\n";
  WString value;
  EXPECT_EQ(posix::ReadProfileString(text, u"Fusion", u"Count", u"", value, 32768), 1u);
  EXPECT_EQ(value, u"7");
  EXPECT_EQ(posix::ReadProfileString(text, u"Fusion", u"Missing", u"none", value, 32768), 4u);
  EXPECT_EQ(posix::ReadProfileString(text, u"Absent", u"Count", u"none", value, 32768), 4u);
  text.clear();
  text.shrink_to_fit();

  std::string line = "[Fusion]\r\nExecutable0=" + std::string(16'000'000, 'x');
  EXPECT_EQ(posix::ReadProfileString(line, u"Fusion", u"Executable0", u"", value, 32768), 32767u);
  EXPECT_EQ(value, WString(32767, u'x'));
}

}  // namespace
}  // namespace qv::platform
