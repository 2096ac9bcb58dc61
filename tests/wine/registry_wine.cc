// The registry of the native build against a prefix made by wineboot: the
// account's ProfileList entry, both views of the Uninstall key, and the
// order of subkeys as Wine's own `reg query` lists them.
//
// The suite adds keys to the shared prefix (HKCU\Software\QvRegistryOrder and
// Uninstall entries named QvRegistry*, none of them Fusion) and leaves them.
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "platform/wstring.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

using namespace qv::platform;

const std::u16string kUninstall = u"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

std::u16string TextOf(const std::vector<std::uint8_t>& data, std::uint32_t size) {
  std::u16string text;
  for (std::size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  while (!text.empty() && text.back() == u'\0') text.pop_back();
  return text;
}

std::vector<std::u16string> Subkeys(RegKey root, const std::u16string& path, std::uint32_t view) {
  std::vector<std::u16string> names;
  RegKey key = 0;
  if (RegOpenKeyExW(root, path, 0, kKeyRead | view, key) != 0) return names;
  WString name;
  for (std::uint32_t index = 0; RegEnumKeyExW(key, index, name, 512) == 0; ++index) names.push_back(name);
  RegCloseKey(key);
  return names;
}

class WineRegistry : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    prefix_ = new std::string(SharedWinePrefix());
    if (prefix_->empty()) return;
    // Keys added in an odd order, and an uninstall entry in each view.
    const std::string file = *prefix_ + "/drive_c/qv_registry_test.reg";
    WriteFile(file,
              "REGEDIT4\n\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\zeta]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\a_b]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\aB]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\_x]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\AA]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\a1]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\Z]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\a^]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\Ab]\n"
              "[HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\a]\n"
              "[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QvRegistry64]\n"
              "\"DisplayName\"=\"Sixty \\\"four\\\"\"\n"
              "[HKEY_LOCAL_MACHINE\\Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QvRegistry32]\n"
              "\"DisplayName\"=\"Thirty-two\"\n");
    RunUnderWine(*prefix_, "regedit", {"/S", "C:\\qv_registry_test.reg"});
    const RunResult query = RunUnderWine(*prefix_, "reg", {"query", "HKCU\\Software\\QvRegistryOrder"});
    wineOrder_ = new std::vector<std::u16string>();
    std::istringstream lines(query.out);
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      const std::string key = "HKEY_CURRENT_USER\\Software\\QvRegistryOrder\\";
      if (line.starts_with(key)) wineOrder_->push_back(Utf8ToWide(line.substr(key.size())));
    }
    WaitForWineServer(*prefix_);
  }

  static void TearDownTestSuite() {
    delete prefix_;
    delete wineOrder_;
    prefix_ = nullptr;
    wineOrder_ = nullptr;
  }

  void SetUp() override {
    if (prefix_->empty()) GTEST_SKIP() << "no Wine prefix: wine64 is missing or wineboot failed";
    ::setenv("WINEPREFIX", prefix_->c_str(), 1);
  }

  static std::string* prefix_;
  static std::vector<std::u16string>* wineOrder_;
};

std::string* WineRegistry::prefix_ = nullptr;
std::vector<std::u16string>* WineRegistry::wineOrder_ = nullptr;

TEST_F(WineRegistry, ProfileListEntryOfTheAccountInBothViews) {
  WString sid;
  ASSERT_TRUE(posix::AccountSidFromUserReg(sid));
  EXPECT_TRUE(sid.starts_with(u"S-1-5-21-")) << WideToUtf8(sid);
  const struct passwd* account = ::getpwuid(::getuid());
  ASSERT_NE(account, nullptr);
  // In the 32-bit view ProfileList is a link to the 64-bit key.
  for (std::uint32_t view : {kKeyWow64_64Key, kKeyWow64_32Key}) {
    RegKey key = 0;
    ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + sid,
                            0, kKeyQueryValue | view, key),
              0);
    std::vector<std::uint8_t> buffer(65536, 0);
    std::uint32_t type = 0;
    std::uint32_t size = 65536;
    ASSERT_EQ(RegQueryValueExW(key, u"ProfileImagePath", type, buffer.data(), size), 0);
    EXPECT_EQ(RegCloseKey(key), 0);
    EXPECT_EQ(type, kRegSz);
    EXPECT_EQ(WideToUtf8(TextOf(buffer, size)), std::string("C:\\users\\") + account->pw_name);
  }
}

TEST_F(WineRegistry, SubkeyOrderAndViewsMatchWine) {
  ASSERT_EQ(wineOrder_->size(), 9u) << "reg query listed other keys than were added";
  EXPECT_EQ(Subkeys(kHkeyCurrentUser, u"Software\\QvRegistryOrder", 0), *wineOrder_);

  const auto ours = [](std::uint32_t view) {
    std::vector<std::u16string> names;
    for (const auto& name : Subkeys(kHkeyLocalMachine, kUninstall, view)) {
      if (name.starts_with(u"QvRegistry")) names.push_back(name);
    }
    return names;
  };
  EXPECT_EQ(ours(kKeyWow64_64Key), std::vector<std::u16string>{u"QvRegistry64"});
  EXPECT_EQ(ours(kKeyWow64_32Key), std::vector<std::u16string>{u"QvRegistry32"});

  RegKey entry = 0;
  ASSERT_EQ(RegOpenKeyExW(kHkeyLocalMachine, kUninstall + u"\\qvregistry64", 0, kKeyRead | kKeyWow64_64Key, entry), 0);
  std::vector<std::uint8_t> buffer(65536, 0);
  std::uint32_t type = 0;
  std::uint32_t size = 65536;
  EXPECT_EQ(RegQueryValueExW(entry, u"displayname", type, buffer.data(), size), 0);
  EXPECT_EQ(TextOf(buffer, size), u"Sixty \"four\"");
  EXPECT_EQ(size, 2u * (std::u16string(u"Sixty \"four\"").size() + 1));
  RegCloseKey(entry);
}

}  // namespace
}  // namespace qv::test
