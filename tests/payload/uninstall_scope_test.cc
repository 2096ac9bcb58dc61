// Widening the uninstall list with saved profiles and the run's own that
// still hold the add-in's manifest.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "payload/payload.h"
#include "support/scene.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::WriteFile;

// Relative to C:\ in the fixture prefix.
constexpr char kAddInBelowAppData[] = "Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";

class UninstallScopeTest : public test::PrefixCase {
 protected:
  // Gives the profile below C:\<appData> the add-in with its manifest.
  void PlaceAddIn(const std::string& appData) { test::MakeInstalledAddIn(Host(appData + "/" + kAddInBelowAppData)); }

  // The saved inventory below C:\local, entries as (executable, appData)
  // texts in Windows form.
  void SaveInventoryText(const std::u16string& entries, int count) {
    WriteFile(Host("local/Quorvane/Installation.ini"),
              test::Utf16LeWithBom(u"[Fusion]\r\nCount=" + AsciiToWide(std::to_string(count)) + u"\r\n" + entries));
  }

  bool Select(FusionInstallationList& list) { return SelectUninstallTargets(Win("roaming"), Win("local"), list, error_); }

  WString error_ = u"untouched";
};

TEST_F(UninstallScopeTest, TheRunsOwnProfileCountsOnlyWithTheManifest) {
  MakeDirs(Host("roaming"));
  FusionInstallationList list;
  ASSERT_TRUE(Select(list));
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(error_, u"untouched");

  // A folder of the manifest's name is no manifest.
  MakeDirs(Host(std::string("roaming/") + kAddInBelowAppData + "/KELDARO_Quorvane.manifest"));
  ASSERT_TRUE(Select(list));
  EXPECT_TRUE(list.empty());

  std::filesystem::remove_all(Host("roaming"));
  PlaceAddIn("roaming");
  ASSERT_TRUE(Select(list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].executable, u"");
  EXPECT_EQ(list[0].appData, u"C:\\roaming");
}

TEST_F(UninstallScopeTest, SavedProfilesJoinOncePerProfileBehindTheDiscovered) {
  PlaceAddIn("roaming");
  PlaceAddIn("profileB");
  PlaceAddIn("profileC");
  MakeDirs(Host(std::string("noManifest/") + kAddInBelowAppData));  // the add-in folder without its mark
  SaveInventoryText(
      u"Executable0=C:\\gone\\Fusion360.exe\r\nAppData0=C:\\vanished\r\n"
      u"Executable1=C:\\b1\\Fusion360.exe\r\nAppData1=C:\\profileB\r\n"
      u"Executable2=C:\\b2\\Fusion360.exe\r\nAppData2=C:\\PROFILEB\r\n"
      u"Executable3=C:\\n\\Fusion360.exe\r\nAppData3=C:\\noManifest\r\n"
      u"Executable4=C:\\c\\Fusion360.exe\r\nAppData4=C:\\ProfileC\r\n"
      u"Executable5=C:\\r\\Fusion360.exe\r\nAppData5=C:\\roaming\r\n",
      6);

  // Discovered: profile C in another case, and a profile without add-in.
  FusionInstallationList list = {{u"C:\\found\\Fusion360.exe", u"C:\\profilec"},
                                 {u"C:\\bare\\Fusion360.exe", u"C:\\bare"}};
  ASSERT_TRUE(Select(list));
  const FusionInstallationList expected = {{u"C:\\found\\Fusion360.exe", u"C:\\profilec"},
                                           {u"C:\\bare\\Fusion360.exe", u"C:\\bare"},
                                           {u"C:\\b1\\Fusion360.exe", u"C:\\profileB"},
                                           {u"C:\\r\\Fusion360.exe", u"C:\\roaming"}};
  ASSERT_EQ(list.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(list[i].executable, expected[i].executable) << i;
    EXPECT_EQ(list[i].appData, expected[i].appData) << i;
  }
  EXPECT_EQ(error_, u"untouched");
  EXPECT_TRUE(test::Exists(Host(std::string("noManifest/") + kAddInBelowAppData)));
}

TEST_F(UninstallScopeTest, AnUnreadableInventoryStopsWithItsWords) {
  PlaceAddIn("roaming");
  SaveInventoryText(u"Executable0=C:\\a\\Fusion360.exe\r\n", 1);
  FusionInstallationList list = {{u"C:\\found\\Fusion360.exe", u"C:\\profile"}};
  EXPECT_FALSE(Select(list));
  EXPECT_EQ(error_, u"Incomplete saved Fusion installation list.");
  ASSERT_EQ(list.size(), 1u);

  SaveInventoryText(u"", 129);
  EXPECT_FALSE(Select(list));
  EXPECT_EQ(error_, u"Invalid saved Fusion installation list.");
  EXPECT_EQ(list.size(), 1u);
}

TEST_F(UninstallScopeTest, AFolderOfNoDriveLetterFormNamesNoProfile) {
  // A manifest of that name in the working directory must not be taken for
  // the run's own profile.
  WriteFile(Host("work/KELDARO_Quorvane.manifest"), "stranger");
  const std::string saved = std::filesystem::current_path().string();
  ASSERT_EQ(::chdir(Host("work").c_str()), 0);
  FusionInstallationList list;
  const bool relative = SelectUninstallTargets(u"roaming", Win("local"), list, error_);
  const bool network = SelectUninstallTargets(u"\\\\server\\share\\roaming", Win("local"), list, error_);
  ASSERT_EQ(::chdir(saved.c_str()), 0);
  EXPECT_TRUE(relative);
  EXPECT_TRUE(network);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(error_, u"untouched");
}

}  // namespace
}  // namespace qv
