// What makes an add-in complete: seven regular files, and nothing else.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "payload/payload.h"
#include "support/scene.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::WriteFile;

class AddInHealthTest : public test::PrefixCase {};

TEST_F(AddInHealthTest, AllSevenFilesAndOnlyThem) {
  EXPECT_FALSE(IsAddInHealthy(Win("nowhere/KELDARO_Quorvane")));

  test::MakeInstalledAddIn(Host("addIn"));
  EXPECT_TRUE(IsAddInHealthy(Win("addIn")));
  // The state file and extra files play no part.
  EXPECT_FALSE(test::Exists(Host("addIn/install-state.ini")));
  WriteFile(Host("addIn/extra.txt"), "x");
  EXPECT_TRUE(IsAddInHealthy(Win("addIn")));
  // A trailing separator on the folder gets no doubled one.
  EXPECT_TRUE(IsAddInHealthy(test::WinPath("addIn/")));

  for (const std::string& name : test::kAddInFiles) {
    const std::string path = Host("addIn/" + name);
    std::filesystem::rename(path, path + ".away");
    EXPECT_FALSE(IsAddInHealthy(Win("addIn"))) << name;
    // A folder in its place is no file.
    MakeDirs(path);
    EXPECT_FALSE(IsAddInHealthy(Win("addIn"))) << name;
    std::filesystem::remove(path);
    std::filesystem::rename(path + ".away", path);
  }

  // The helper belongs in Bin, not at the top.
  std::filesystem::rename(Host("addIn/Bin/Quorvane_Helper.exe"), Host("addIn/Quorvane_Helper.exe"));
  EXPECT_FALSE(IsAddInHealthy(Win("addIn")));
}

TEST_F(AddInHealthTest, NamesInAnotherCaseAreFound) {
  test::MakeInstalledAddIn(Host("addIn"));
  std::filesystem::rename(Host("addIn/save_policy.py"), Host("addIn/SAVE_POLICY.PY"));
  std::filesystem::rename(Host("addIn/Bin"), Host("addIn/bin"));
  EXPECT_TRUE(IsAddInHealthy(Win("addIn")));
}

}  // namespace
}  // namespace qv
