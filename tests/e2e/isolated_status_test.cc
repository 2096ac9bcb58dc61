// /status of an isolated run: the installations that the webdeploy folder
// and the saved inventory name, each with its own profile.
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
}

TEST_P(IsolatedStatus, DiscoveryFailuresEndEveryActionWithCode5) {
  ProfileScene s(tool(), 1);
  MakeDirs(s.machine.C("Bare"));
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", "Invalid saved Fusion installation list."},
      {InventoryText({"[Fusion]", "Count=2", "Executable0=C:\\A\\Fusion360.exe", "AppData0=C:\\A"}),
       "Incomplete saved Fusion installation list."},
      // A saved profile without the API folder.
      {InventoryBytes({{s.Win(s.executables[0]), s.Win(s.machine.C("Bare"))}}),
       "The selected Fusion profile must contain Autodesk\\Autodesk Fusion 360\\API."},
  };
  for (const auto& [inventory, message] : rows) {
    WriteFile(s.InventoryFile(), inventory);
    for (const std::string action : {"/status", "/install", "/uninstall"}) {
      const RunResult r = s.Tool(action);
      EXPECT_EQ(r.exitCode, 5) << action << " " << message;
      EXPECT_EQ(r.out, "") << action;
      EXPECT_EQ(r.err, message + "\n") << action;
    }
  }
}

QV_E2E_SUITE(IsolatedStatus);

}  // namespace
}  // namespace qv::test
