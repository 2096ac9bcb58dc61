#include "support/profile_answers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host.h"

namespace qv::test {
namespace {

// \uXXXX for any code unit and \\ for a backslash; other bytes stand for
// themselves.
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

}  // namespace

std::vector<ProfileAnswer> ParseProfileAnswers(const std::string& text) {
  std::vector<ProfileAnswer> answers;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    std::istringstream fields(line + "\t");  // the last field may be empty
    for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
    if (f.size() != 7) {
      ADD_FAILURE() << "bad answer line: " << line.substr(0, 200);
      continue;
    }
    answers.push_back({line.substr(0, 200), f[0], Unescape(f[1]), Unescape(f[2]), Unescape(f[3]),
                       static_cast<std::uint32_t>(std::stoul(f[4])), static_cast<std::uint32_t>(std::stoul(f[5])),
                       f[6]});
  }
  return answers;
}

std::string ProfileUnitsText(const WString& value) {
  std::string out;
  char text[32];
  for (std::size_t i = 0, run = 1; i < value.size(); i += run, run = 1) {
    while (i + run < value.size() && value[i + run] == value[i]) ++run;
    if (run < 4) run = 1;
    std::snprintf(text, sizeof text, run >= 4 ? "%s%04X*%zu" : "%s%04X", out.empty() ? "" : " ",
                  static_cast<unsigned>(value[i]), run);
    out += text;
  }
  return out;
}

void ExpectSameProfileAnswers(const std::vector<ProfileAnswer>& answers, const std::string& folder) {
  WString windowsFolder;
  ASSERT_TRUE(platform::posix::ToWindowsPath(folder, windowsFolder));
  for (const ProfileAnswer& a : answers) {
    WString value = u"stale";
    std::uint32_t result = platform::GetPrivateProfileStringW(a.section, a.key, a.defaultValue, value, a.size,
                                                              windowsFolder + u"\\" + AsciiToWide(a.file));
    EXPECT_EQ(result, a.result) << a.line;
    EXPECT_EQ(value.size(), result) << a.line;
    EXPECT_EQ(ProfileUnitsText(value), a.units) << a.line;
  }
}

}  // namespace qv::test
