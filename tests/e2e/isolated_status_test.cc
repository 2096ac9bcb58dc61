// /status of an isolated run: the installations that the webdeploy folder
// and the saved inventory name, each with its own profile; and every action
// stopped by an inventory it cannot trust.
#include "support/scene.h"

namespace qv::test {
namespace {

class IsolatedStatus : public EndToEnd {};

TEST_P(IsolatedStatus, ReportsEachInstallationWithItsProfile) {
  // Profile 1 has no add-in. The inventory also names an installation that
  // is gone, which the report leaves out.
  ProfileScene s(tool(), 3, {true, false, true});
  WriteFile(s.InventoryFile(), InventoryBytes({{s.Win(s.executables[1]), s.Win(s.profiles[1])},
                                               {s.Win(s.machine.C("Gone/Fusion360.exe")), s.Win(s.roaming)},
                                               {s.Win(s.executables[2]), s.Win(s.profiles[2])}}));
  const std::string inventory = ReadFile(s.InventoryFile());
  const auto report = [&](bool secondHealthy) {
    std::string text = "Quorvane v0.1.8\nAutodesk Fusion installations: 3\n";
    for (std::size_t i = 0; i < 3; ++i) {
      // No file here carries a version resource.
      text += "Path: " + s.Win(s.executables[i]) + "\nVersion: \nAdd-In path: " + s.Win(s.AddIn(i)) + "\nAdd-In: " +
              (i != 1 || secondHealthy ? "Healthy" : "Not installed or incomplete") + "\n";
    }
    return text + "Fusion running: No\n";
  };
  RunResult r = s.Tool("/status");
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.out, report(false));
  EXPECT_EQ(r.err, "");
  MakeInstalledAddIn(s.AddIn(1));
  r = s.Tool("/status");
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, report(true));
  // Reading changes nothing.
  EXPECT_EQ(ReadFile(s.InventoryFile()), inventory);

  // A saved inventory that cannot be trusted ends every action with 5, before
  // anything is changed. (The reader's and the profile step's other refusals
  // are unit-tested; they reach the command line the same way.)
  WriteFile(s.InventoryFile(),
            InventoryText({"[Fusion]", "Count=2", "Executable0=C:\\A\\Fusion360.exe", "AppData0=C:\\A"}));
  const TreeSnapshot drive = SnapshotTree(s.machine.C());
  for (const std::string action : {"/status", "/install", "/uninstall"}) {
    r = s.Tool(action);
    EXPECT_EQ(r.exitCode, 5) << action;
    EXPECT_EQ(r.out, "") << action;
    EXPECT_EQ(r.err, "Incomplete saved Fusion installation list.\n") << action;
  }
  EXPECT_EQ(SnapshotTree(s.machine.C()), drive);
}

QV_E2E_SUITE(IsolatedStatus);

}  // namespace
}  // namespace qv::test
