// Quorvane_Setup.exe under wine64 while another program holds a file of the
// run open: a hold that ends within the retries lets the run succeed, one
// that outlasts them fails the run, which then rolls every profile back.
#include <gtest/gtest.h>

#include <regex>

#include "support/scene.h"
#include "support/scene.h"
#include "wine/wine_program.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

const std::string kWindowsBinary = std::string(QUORVANE_SOURCE_DIR) + "/build/windows/Quorvane_Setup.exe";

struct LockCase {
  const char* what;
  const char* held;     // below the scene, host form
  int share;            // the holder's share mode
  const char* trigger;  // Windows pattern after which a brief hold ends; null: held past the bound
  const char* failure;  // how standard error begins when the run fails
};

// Profile 0 is the default one (C:\QvLock\R), found in webdeploy; profile 1
// (C:\QvLock\P2) comes from the saved inventory and is swapped second.
const LockCase kCases[] = {
    {"inventory replaced while briefly open", "L/Quorvane/Installation.ini", 3,
     "C:\\QvLock\\L\\Quorvane\\Installation.ini.*.tmp", nullptr},
    {"inventory open past the bound", "L/Quorvane/Installation.ini", 3, nullptr,
     "Cannot save discovered Fusion installations."},
    {"second add-in renamed while briefly open", "P2/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane", 3,
     "C:\\QvLock\\R\\KELDARO\\Quorvane\\InstallBackups\\*\\before", nullptr},
    {"second add-in open past the bound", "P2/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane", 3, nullptr,
     "rename: Sharing violation.: \"C:\\QvLock\\P2\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane\""},
    {"add-in file copied while briefly held unshared",
     "P2/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane/save_policy.py", 0,
     "C:\\QvLock\\P2\\KELDARO\\Quorvane\\InstallBackups\\*", nullptr},
    {"add-in file held unshared past the bound",
     "P2/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane/save_policy.py", 0, nullptr,
     "Cannot stage existing profile."},
};

TEST(WineTransientLock, BriefHoldsAreWaitedOutAndLastingOnesRollBack) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  if (!Exists(kWindowsBinary)) GTEST_SKIP() << "no Windows build at " << kWindowsBinary;
  if (!Exists(QUORVANE_HOLD_FILE)) GTEST_SKIP() << "no MinGW-built " << QUORVANE_HOLD_FILE;

  const std::string base = prefix + "/drive_c/QvLock";
  for (const LockCase& c : kCases) {
    SCOPED_TRACE(c.what);
    std::system(("rm -rf '" + base + "'").c_str());
    MakeFusionInstallation(base + "/L/Autodesk/webdeploy/production/b1");
    MakeFusionInstallation(base + "/F2");
    WriteFile(base + "/L/Quorvane/Installation.ini", InventoryBytes({{"C:\\QvLock\\F2\\Fusion360.exe", "C:\\QvLock\\P2"}}));
    const std::vector<std::string> addIns{base + "/R/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane",
                                          base + "/P2/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane"};
    for (const std::string& addIn : addIns) MakeInstalledAddIn(addIn, "old");
    MakePackage(base + "/Pkg", "new");
    const TreeSnapshot before = SnapshotTree(addIns[0]);
    const std::string inventory = ReadFile(base + "/L/Quorvane/Installation.ini");

    std::vector<std::string> holder{QUORVANE_HOLD_FILE, "C:\\QvLock\\" + std::string(c.held),
                                    std::to_string(c.share), "C:\\QvLock\\holding"};
    for (char& ch : holder[1]) ch = ch == '/' ? '\\' : ch;
    if (c.trigger != nullptr) holder.insert(holder.end(), {c.trigger, "300"});
    WineProgram holding(prefix, holder);
    ASSERT_TRUE(holding.WaitFor(base + "/holding")) << "hold_file.exe ended without holding " << c.held;

    RunResult r = RunUnderWine(prefix, kWindowsBinary,
                               {"/install", "/test-appdata", "C:\\QvLock\\R", "/test-localappdata", "C:\\QvLock\\L",
                                "/package", "C:\\QvLock\\Pkg"});
    r.err = std::regex_replace(r.err, std::regex("\r\n"), "\n");
    if (c.failure == nullptr) {
      EXPECT_EQ(r.exitCode, 0) << r.err;
      for (const std::string& addIn : addIns) EXPECT_EQ(SnapshotTree(addIn), UpdatedAddIn(before)) << addIn;
      EXPECT_NE(ReadFile(base + "/L/Quorvane/Installation.ini"), inventory);
    } else {
      EXPECT_EQ(r.exitCode, 6);
      EXPECT_EQ(r.err.rfind(c.failure, 0), 0u) << r.err;
      EXPECT_NE(r.err.find("\nInstalled profiles restored.\n"), std::string::npos) << r.err;
      for (const std::string& addIn : addIns) EXPECT_EQ(SnapshotTree(addIn), before) << addIn;
      EXPECT_EQ(ReadFile(base + "/L/Quorvane/Installation.ini"), inventory);
    }
  }
  std::system(("rm -rf '" + base + "'").c_str());
}

}  // namespace
}  // namespace qv::test
