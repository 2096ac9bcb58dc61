// The webdeploy scan over real folders: which subfolders give an entry, and
// that nothing enters the list twice.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "discovery/discovery.h"
#include "discovery/fixture_prefix_test.h"

namespace qv::test {
namespace {

using WebDeployScanTest = FixturePrefixTest;

TEST_F(WebDeployScanTest, OnlyCompleteInstallationsInImmediateSubfolders) {
  const WString production = Win("wd/production");
  ExecutableList found{u"C:\\Elsewhere\\Fusion360.exe"};

  // No folder: nothing, and no trouble.
  ScanWebDeploy(production, found);
  EXPECT_EQ(found, ExecutableList{u"C:\\Elsewhere\\Fusion360.exe"});

  const WString a = Fusion("wd/production/a1b2");
  const WString b = Fusion("wd/production/c3d4");
  Fusion("wd/production/.staging");                 // hidden behind its dot
  Fusion("wd/production/deeper/e5f6");              // two levels down
  MakeFusionInstallation(Host("wd/production"));    // in the scanned folder itself
  MakeFusionInstallation(Host("wd/production/partial"));
  ::unlink(Host("wd/production/partial/API/Python/packages/adsk/electron.py").c_str());
  // A link to a folder counts as a folder.
  const WString outside = Fusion("outside/g7h8");
  MakeSymlink(Host("outside/g7h8"), Host("wd/production/linked"));

  ScanWebDeploy(production, found);
  ASSERT_EQ(found.size(), 4u) << ::testing::PrintToString(found);
  // Earlier entries stay in front; the new ones come in the order of the
  // folder listing, which the test does not fix.
  EXPECT_EQ(found[0], u"C:\\Elsewhere\\Fusion360.exe");
  ExecutableList added(found.begin() + 1, found.end());
  std::sort(added.begin(), added.end());
  EXPECT_EQ(added, (ExecutableList{a, b, Win("wd/production/linked/Fusion360.exe")}));

  // The same folder in other case, and with a trailing separator: nothing new.
  ScanWebDeploy(u"C:\\WD\\PRODUCTION", found);
  ScanWebDeploy(production + u"\\", found);
  EXPECT_EQ(found.size(), 4u);
}

TEST_F(WebDeployScanTest, EntriesAlreadyListedInOtherCaseAreNotAddedAgain) {
  Fusion("wd/Alpha");
  const WString beta = Fusion("wd/Beta");
  ExecutableList found{u"c:\\WD\\alpha\\FUSION360.EXE"};
  ScanWebDeploy(Win("wd"), found);
  EXPECT_EQ(found, (ExecutableList{u"c:\\WD\\alpha\\FUSION360.EXE", beta}));
}

TEST_F(WebDeployScanTest, EmptyFolderScansTheCurrentFolderAndAddsNothing) {
  // The current folder holds a complete installation in a subfolder, but its
  // candidates are relative paths, which are never canonical.
  Fusion("cwd/sub");
  const std::string previous = std::filesystem::current_path();
  ASSERT_EQ(::chdir(Host("cwd").c_str()), 0);
  ExecutableList found;
  ScanWebDeploy(u"", found);
  ASSERT_EQ(::chdir(previous.c_str()), 0);
  EXPECT_TRUE(found.empty()) << ::testing::PrintToString(found);
}

}  // namespace
}  // namespace qv::test
