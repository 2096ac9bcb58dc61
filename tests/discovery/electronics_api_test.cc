// What makes a path a Fusion installation: the name, and the Electronics API
// files beside it, each of the right kind.
#include <filesystem>

#include "discovery/discovery.h"
#include "discovery/fixture_prefix_test.h"

namespace qv::test {
namespace {

using ElectronicsApiTest = FixturePrefixTest;

TEST_F(ElectronicsApiTest, NameIsJudgedFromTheTextAlone) {
  EXPECT_FALSE(HasElectronicsApi(u""));
  EXPECT_FALSE(HasElectronicsApi(u"Fusion360.exe"));

  const WString exe = Fusion("Fusion");
  EXPECT_TRUE(HasElectronicsApi(exe));
  EXPECT_TRUE(HasElectronicsApi(u"C:\\FUSION\\FUSION360.EXE"));
  EXPECT_TRUE(HasElectronicsApi(u"C:/Fusion/Fusion360.exe"));

  // Every file that the test would look at is there; only the name differs.
  WriteFile(Host("Fusion/FusionLauncher.exe"), "MZ");
  WriteFile(Host("Fusion/Fusion360.exe.old"), "MZ");
  EXPECT_FALSE(HasElectronicsApi(u"C:\\Fusion\\FusionLauncher.exe"));
  EXPECT_FALSE(HasElectronicsApi(u"C:\\Fusion\\Fusion360.exe.old"));
  // Only A-Z fold: a dotless capital I is another name.
  EXPECT_FALSE(HasElectronicsApi(u"C:\\Fusion\\Fus\u0130on360.exe"));
}

TEST_F(ElectronicsApiTest, EachFileMustBeThereAndOfItsKind) {
  // A folder in place of the executable.
  MakeFusionInstallation(Host("A"));
  std::filesystem::remove(Host("A/Fusion360.exe"));
  MakeDirs(Host("A/Fusion360.exe"));
  EXPECT_FALSE(HasElectronicsApi(Win("A/Fusion360.exe")));

  // A folder named core.py.
  MakeFusionInstallation(Host("B"));
  std::filesystem::remove(Host("B/API/Python/packages/adsk/core.py"));
  MakeDirs(Host("B/API/Python/packages/adsk/core.py"));
  EXPECT_FALSE(HasElectronicsApi(Win("B/Fusion360.exe")));

  // core.py without electron.py.
  MakeFusionInstallation(Host("C"));
  std::filesystem::remove(Host("C/API/Python/packages/adsk/electron.py"));
  EXPECT_FALSE(HasElectronicsApi(Win("C/Fusion360.exe")));

  // A file named LibEagle, and no LibEagle at all.
  MakeFusionInstallation(Host("D"));
  std::filesystem::remove(Host("D/Applications/Electron/LibEagle"));
  WriteFile(Host("D/Applications/Electron/LibEagle"), "not a folder");
  EXPECT_FALSE(HasElectronicsApi(Win("D/Fusion360.exe")));
  std::filesystem::remove(Host("D/Applications/Electron/LibEagle"));
  EXPECT_FALSE(HasElectronicsApi(Win("D/Fusion360.exe")));

  // The API beside the parent folder, not beside the executable.
  MakeFusionInstallation(Host("E"));
  WriteFile(Host("E/bin/Fusion360.exe"), "MZ");
  EXPECT_FALSE(HasElectronicsApi(Win("E/bin/Fusion360.exe")));
}

}  // namespace
}  // namespace qv::test
