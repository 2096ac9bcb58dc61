// The registry of the native build against a prefix made by wineboot: the
// account's ProfileList entry, both views of the Uninstall key, and the
// order of subkeys as Wine's own `reg query` lists them.
//
// The test adds keys to the shared prefix (HKCU\Software\QvRegistryOrder and
// Uninstall entries named QvRegistry*, none of them Fusion) and leaves them.
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <sstream>

#include "platform/platform.h"
#include "platform/posix/registry.h"
#include "platform/wstring.h"
#include "support/scene.h"

namespace qv::test {
namespace {

using namespace qv::platform;

const std::u16string kUninstall = u"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

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

std::vector<std::u16string> Subkeys(RegKey root, const std::u16string& path, std::uint32_t view,
                                    const std::u16string& prefix = u"") {
  std::vector<std::u16string> names;
  RegKey key = 0;
  if (RegOpenKeyExW(root, path, 0, kKeyRead | view, key) != 0) return names;
  WString name;
  for (std::uint32_t index = 0; RegEnumKeyExW(key, index, name, 512) == 0; ++index) {
    if (name.starts_with(prefix)) names.push_back(name);
  }
  RegCloseKey(key);
  return names;
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

TEST_F(WinePrefix, RegistrySubkeyOrderAndViewsMatchWine) {
  // Keys added in an odd order, and an uninstall entry in each view.
  std::string file = "REGEDIT4\n\n";
  for (const char* key : {"zeta", "a_b", "aB", "_x", "AA", "a1", "Z", "a^", "Ab", "a"}) {
    file += std::string("[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\") + key + "]\n";
  }
  file += "[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QvRegistry64]\n"
          "\"DisplayName\"=\"Sixty \\\"four\\\"\"\n"
          "[HKEY_LOCAL_MACHINE\\Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QvRegistry32]\n"
          "\"DisplayName\"=\"Thirty-two\"\n";
  WriteFile(prefix + "/drive_c/qv_registry_test.reg", file);
  ASSERT_EQ(Wine({"regedit", "/S", "C:\\qv_registry_test.reg"}).exitCode, 0);
  std::vector<std::u16string> wineOrder;
  std::istringstream lines(Wine({"reg", "query", "HKCU\\Software\\QvRegistryOrder"}).out);
  const std::string parent = "HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\";
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(parent)) wineOrder.push_back(Utf8ToWide(line.substr(parent.size())));
  }
  // The registry reaches its files when the server ends.
  test::Run("/usr/lib/wine/wineserver", {"-w"}, {{"WINEPREFIX", prefix}});

  ASSERT_EQ(wineOrder.size(), 9u) << "reg query listed other keys than were added";
  EXPECT_EQ(Subkeys(kHkeyCurrentUser, u"Software\\QvRegistryOrder", 0), wineOrder);
  EXPECT_EQ(Subkeys(kHkeyLocalMachine, kUninstall, kKeyWow64_64Key, u"QvRegistry"),
            std::vector<std::u16string>{u"QvRegistry64"});
  EXPECT_EQ(Subkeys(kHkeyLocalMachine, kUninstall, kKeyWow64_32Key, u"QvRegistry"),
            std::vector<std::u16string>{u"QvRegistry32"});
  EXPECT_EQ(ReadValue(kUninstall + u"\\qvregistry64", u"displayname", kKeyWow64_64Key),
            std::u16string(u"1Sixty \"four\"") + u'\0');
}

}  // namespace
}  // namespace qv::test
