// The INI reader of the Linux host against the answers that Wine's own
// GetPrivateProfileStringW gave for the files in tests/data/ini (recorded in
// expected.txt by tests/wine/profile_probe.cc), and against a live Wine run
// when one is set up.
#include "platform/posix/profile_strings.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/test_support.h"

namespace qv::platform {
namespace {

using test::ReadFile;
using test::TempDir;
using test::Utf16LeWithBom;
using test::WriteFile;

const std::string kIniData = std::string(QUORVANE_TEST_DATA) + "/ini";

// One question and Wine's answer: a line of the probe's output.
struct Answer {
  std::string line;  // the question as written, for messages
  std::string file;
  WString section, key, defaultValue;
  std::uint32_t size = 0;
  std::uint32_t result = 0;
  std::string units;  // the probe's notation of the code units
};

WString Unescape(const std::string& field) {
  WString out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field.compare(i, 2, "\\\\") == 0) {
      out.push_back(u'\\');
      ++i;
    } else if (field.compare(i, 2, "\\u") == 0 && i + 5 < field.size()) {
      out.push_back(static_cast<char16_t>(std::stoul(field.substr(i + 2, 4), nullptr, 16)));
      i += 5;
    } else {
      out.push_back(static_cast<unsigned char>(field[i]));
    }
  }
  return out;
}

std::vector<std::string> SplitTabs(const std::string& line) {
  std::vector<std::string> fields(1);
  for (char c : line) {
    if (c == '\t') {
      fields.emplace_back();
    } else {
      fields.back().push_back(c);
    }
  }
  return fields;
}

std::vector<Answer> ParseAnswers(const std::string& text) {
  std::vector<Answer> answers;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f = SplitTabs(line);
    if (f.size() != 7) {
      ADD_FAILURE() << "bad answer line: " << line.substr(0, 200);
      continue;
    }
    Answer a;
    a.line = line.size() > 200 ? line.substr(0, 200) + "..." : line;
    a.file = f[0];
    a.section = Unescape(f[1]);
    a.key = Unescape(f[2]);
    a.defaultValue = Unescape(f[3]);
    a.size = static_cast<std::uint32_t>(std::stoul(f[4]));
    a.result = static_cast<std::uint32_t>(std::stoul(f[5]));
    a.units = f[6];
    answers.push_back(a);
  }
  return answers;
}

// The probe's notation: four hex digits a unit, a run of four or more equal
// units as "XXXX*count".
std::string UnitsText(const WString& value) {
  std::string out;
  char text[32];
  for (std::size_t i = 0; i < value.size();) {
    std::size_t run = 1;
    while (i + run < value.size() && value[i + run] == value[i]) ++run;
    if (!out.empty()) out.push_back(' ');
    if (run >= 4) {
      std::snprintf(text, sizeof text, "%04X*%zu", static_cast<unsigned>(value[i]), run);
      i += run;
    } else {
      std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(value[i]));
      i += 1;
    }
    out += text;
  }
  return out;
}

// Asks the seam each question against the files of `folder` and compares.
void ExpectSameAnswers(const std::vector<Answer>& answers, const std::string& folder) {
  WString windowsFolder;
  ASSERT_TRUE(posix::ToWindowsPath(folder, windowsFolder));
  for (const Answer& a : answers) {
    WString value = u"stale";
    std::uint32_t result = GetPrivateProfileStringW(a.section, a.key, a.defaultValue, value, a.size,
                                                    windowsFolder + u"\\" + AsciiToWide(a.file));
    EXPECT_EQ(result, a.result) << a.line;
    EXPECT_EQ(value.size(), result) << a.line;
    EXPECT_EQ(UnitsText(value), a.units) << a.line;
  }
}

// Z: is the host's root in a prefix that maps no drive.
class ProfileStrings : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("WINEPREFIX", (dir_ / "prefix").c_str(), 1); }
  void TearDown() override { ::unsetenv("WINEPREFIX"); }
  TempDir dir_;
};

TEST_F(ProfileStrings, MatchesRecordedWineAnswers) {
  std::vector<Answer> answers = ParseAnswers(ReadFile(kIniData + "/expected.txt"));
  ASSERT_GT(answers.size(), 300u);
  ExpectSameAnswers(answers, kIniData);
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

// A live Wine run of the probe over the same questions, when the build made
// the probe (MinGW) and found Wine: `ctest -L wine` sets the variables.
TEST(ProfileStringsWine, LiveAnswersMatchReader) {
  const char* probe = std::getenv("QUORVANE_PROFILE_PROBE");
  const char* wine = std::getenv("QUORVANE_WINE");
  const char* prefix = std::getenv("QUORVANE_WINE_PREFIX");
  if (probe == nullptr || wine == nullptr || prefix == nullptr) {
    GTEST_SKIP() << "no Wine run: QUORVANE_PROFILE_PROBE, QUORVANE_WINE and QUORVANE_WINE_PREFIX are set by "
                    "the 'profile_strings.wine' ctest when MinGW and Wine are installed";
  }
  TempDir dir;
  WString dataWin, queriesWin, outWin;
  std::string out = dir / "answers.txt";
  WriteFile(out, "");
  ASSERT_TRUE(posix::ToWindowsPath(kIniData, dataWin));
  ASSERT_TRUE(posix::ToWindowsPath(kIniData + "/queries.txt", queriesWin));
  ASSERT_TRUE(posix::ToWindowsPath(out, outWin));
  test::RunResult run = test::Run(wine, {probe, WideToUtf8(dataWin), WideToUtf8(queriesWin), WideToUtf8(outWin)},
                                  {{"WINEPREFIX", prefix}, {"WINEDEBUG", "-all"}});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  std::vector<Answer> answers = ParseAnswers(ReadFile(out));
  ASSERT_GT(answers.size(), 300u);
  ::setenv("WINEPREFIX", (dir / "prefix").c_str(), 1);
  ExpectSameAnswers(answers, kIniData);
  ::unsetenv("WINEPREFIX");
}

}  // namespace
}  // namespace qv::platform
