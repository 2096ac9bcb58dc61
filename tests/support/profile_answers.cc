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

}  // namespace

std::vector<ProfileAnswer> ParseProfileAnswers(const std::string& text) {
  std::vector<ProfileAnswer> answers;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f = SplitTabs(line);
    if (f.size() != 7) {
      ADD_FAILURE() << "bad answer line: " << line.substr(0, 200);
      continue;
    }
    ProfileAnswer a;
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

std::string ProfileUnitsText(const WString& value) {
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
