#include "support/profile_answers.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"

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
    WString value;
    std::istringstream units(f[6]);
    for (std::string unit; units >> unit;) {
      const std::size_t star = unit.find('*');
      value.append(star == std::string::npos ? 1 : std::stoul(unit.substr(star + 1)),
                   static_cast<char16_t>(std::stoul(unit.substr(0, 4), nullptr, 16)));
    }
    answers.push_back({line.substr(0, 200), f[0], Unescape(f[1]), Unescape(f[2]), Unescape(f[3]),
                       static_cast<std::uint32_t>(std::stoul(f[4])), static_cast<std::uint32_t>(std::stoul(f[5])),
                       value});
  }
  return answers;
}

void ExpectSameProfileAnswers(const std::vector<ProfileAnswer>& answers, const std::string& folder) {
  WString windowsFolder;
  ASSERT_TRUE(platform::posix::ToWindowsPath(folder, windowsFolder));
  for (const ProfileAnswer& a : answers) {
    WString value = u"stale";
    std::uint32_t result = platform::GetPrivateProfileStringW(a.section, a.key, a.defaultValue, value, a.size,
                                                              windowsFolder + u"\\" + AsciiToWide(a.file));
    EXPECT_EQ(result, a.result) << a.line;
    EXPECT_EQ(value, a.value) << a.line;
  }
}

}  // namespace qv::test
