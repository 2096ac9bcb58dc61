// The registry of the native build against a prefix made by wineboot: the
// account's ProfileList entry in both views, through the link Wine keeps in
// the 32-bit one. (Keys written by Wine's reg.exe are read in
// live_discovery_wine.cc.)
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "platform/posix/registry.h"
#include "platform/wstring.h"
#include "support/scene.h"

namespace qv::test {
namespace {

using namespace qv::platform;

// A value as the native build reads it: its type, then every code unit it
// holds, the terminating NUL included.
std::u16string ReadValue(const std::u16string& path, const std::u16string& name, std::uint32_t view) {
  RegKey key = 0;
  if (RegOpenKeyExW(kHkeyLocalMachine, path, 0, kKeyQueryValue | view, key) != 0) return u"(no key)";
  std::vector<std::uint8_t> data(65536, 0);
  std::uint32_t type = 0, size = 65536;
  std::u16string value = RegQueryValueExW(key, name, type, data.data(), size) == 0 ? u"" : u"(no value)";
  RegCloseKey(key);
  value += static_cast<char16_t>(u'0' + type);
  for (std::size_t i = 0; i + 1 < size; i += 2) value.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  return value;
}

// In the 32-bit view ProfileList is a link to the 64-bit key.
TEST_F(WinePrefix, ProfileListEntryOfTheAccountInBothViews) {
  WString sid;
  ASSERT_TRUE(posix::AccountSidFromUserReg(sid));
  EXPECT_TRUE(sid.starts_with(u"S-1-5-21-")) << WideToUtf8(sid);
  const std::u16string expected = u"1C:\\users\\" + Utf8ToWide(::getpwuid(::getuid())->pw_name) + u'\0';
  for (std::uint32_t view : {kKeyWow64_64Key, kKeyWow64_32Key}) {
    EXPECT_EQ(ReadValue(u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + sid, u"ProfileImagePath",
                        view),
              expected);
  }
}

}  // namespace
}  // namespace qv::test
