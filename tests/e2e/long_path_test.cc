// Paths past MAX_PATH: a whole cycle with test folders so deep that the saved
// inventory and every add-in path are longer than 260 characters.
#include "support/scene.h"

namespace qv::test {
namespace {

class LongPaths : public EndToEnd {};

TEST_P(LongPaths, InstallStatusUpdateStatusUninstall) {
  const Machine machine(tool());
  // Six elements of 40 characters: each test folder is about 270 long.
  std::string deep;
  for (char c = 'a'; c < 'g'; ++c) deep += "/" + std::string(40, c);
  const std::string roaming = machine.C("roaming" + deep), local = machine.C("local" + deep);
  const std::string executable = local + "/Autodesk/webdeploy/production/b1/Fusion360.exe";
  const std::string addIn = roaming + "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";
  MakeFusionInstallation(local + "/Autodesk/webdeploy/production/b1");
  MakeDirs(roaming);
  MakePackage(machine.C("package"));
  // The local folder as a user might type it, with forward slashes and a "."
  // element, which the extended-length form would take literally.
  const std::vector<std::string> folders{"/test-appdata", machine.Win(roaming), "/test-localappdata",
                                         machine.Win(machine.C("local")) + "/." + deep, "/package",
                                         machine.Win(machine.C("package"))};
  const std::string healthy = "\nAdd-In path: " + machine.Win(addIn) + "\nAdd-In: Healthy\n";
  for (const auto& [action, expected] : std::vector<std::pair<std::string, std::string>>{
           {"/install", "Quorvane installed/updated.\n"},
           {"/status", healthy},
           {"/update", "Quorvane installed/updated.\n"},
           {"/status", healthy},
           {"/uninstall", "Quorvane uninstalled."}}) {
    std::vector<std::string> args{action};
    args.insert(args.end(), folders.begin(), folders.end());
    const RunResult r = machine.Run(args);
    EXPECT_EQ(r.exitCode, 0) << action << "\n" << r.err;
    EXPECT_NE(r.out.find(expected), std::string::npos) << action << "\n" << r.out;
  }
  EXPECT_FALSE(Exists(addIn));
  EXPECT_EQ(ReadFile(local + "/Quorvane/Installation.ini"),
            InventoryBytes({{machine.Win(executable), machine.Win(roaming)}}));
}

QV_E2E_SUITE(LongPaths);

}  // namespace
}  // namespace qv::test
