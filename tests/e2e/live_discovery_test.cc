// Discovery on the machine itself: the process table and the saved
// inventory. These prefixes carry a process table written by the test, which
// only the native build reads; the Uninstall keys are read from a prefix Wine
// made (tests/wine).
#include <unistd.h>

#include <filesystem>

#include "support/scene.h"

namespace qv::test {
namespace {

// The login session of this process, as the tool reads its own; 0 where the
// kernel keeps none.
std::uint32_t OwnSession() {
  const std::string text = ReadFile("/proc/self/sessionid");
  return text.empty() ? 0 : static_cast<std::uint32_t>(std::stoul(text));
}

constexpr char kWhy[] = "Only the native build reads a process table written here";

void Process(const Machine& m, int pid, const std::string& argv0, const std::string& comm, unsigned uid = ::getuid(),
             std::uint32_t session = OwnSession()) {
  m.prefix.AddProcess(pid, argv0, comm, uid, session);
}

class LiveDiscovery : public EndToEnd {};

TEST_P(LiveDiscovery, RunningProcessesOfThisSessionAndAccount) {
  QV_SKIP_UNLESS(tool().native(), kWhy);
  Machine m(tool());
  // Sessions that fit in 32 bits whatever this one is (4294967295 where the
  // process has no login session).
  const std::uint32_t otherSession = OwnSession() + 1;
  // A portable Fusion that only the process table knows gets its own profile.
  MakeFusionInstallation(m.C("Portable/bin"));
  MakeDirs(m.C("Portable/PortableData/Roaming/Autodesk/Autodesk Fusion 360/API"));
  MakeDirs(m.C("Portable/PortableData/Local"));
  Process(m, 100, "C:\\Portable\\bin\\Fusion360.exe", "Fusion360.exe");
  Process(m, 101, "C:\\Portable\\BIN\\FUSION360.EXE", "FUSION360.EXE");
  // Another session, and another account, are passed over.
  MakeFusionInstallation(m.C("Elsewhere"));
  Process(m, 102, "C:\\Elsewhere\\Fusion360.exe", "Fusion360.exe", ::getuid(), otherSession);
  Process(m, 103, "C:\\Elsewhere\\Fusion360.exe", "Fusion360.exe", ::getuid() + 1);
  // The launcher alone makes Fusion count as running, even of another
  // account and session.
  Process(m, 104, "C:\\Portable\\FusionLauncher.exe", "FusionLauncher.", ::getuid() + 1, otherSession);
  const RunResult r = m.Run({"/status"});
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "Quorvane v" QUORVANE_VERSION "\nAutodesk Fusion installations: 1\nPath: C:\\Portable\\bin\\Fusion360.exe\n"
            "Version: \nAdd-In path: C:\\Portable\\PortableData\\Roaming\\Autodesk\\Autodesk Fusion 360\\API\\"
            "AddIns\\KELDARO_Quorvane\nAdd-In: Not installed or incomplete\nFusion running: Yes\n");
  // With the launcher alone left, Fusion still runs: the report says so and
  // an uninstall asks for a restart.
  for (int pid = 100; pid < 104; ++pid) std::filesystem::remove_all(m.prefix.procRoot + "/" + std::to_string(pid));
  for (const auto& [action, code, out] : std::vector<std::tuple<std::string, int, std::string>>{
           {"/status", 1, "Quorvane v0.1.8\nAutodesk Fusion installations: 0\nFusion running: Yes\n"},
           {"/uninstall", 0,
            "Quorvane uninstalled. Settings and ODB++ outputs preserved.\n"
            "Restart Autodesk Fusion to complete removal.\n"}}) {
    EXPECT_EQ(Ended(m.Run({action})), std::make_tuple(code, out, "")) << action;
  }
}

// A failure of the process listing or of the inventory stops discovery, and
// with it every action; a running Fusion off the drives is refused only where
// the running entries are judged, so it hides no earlier failure.
TEST_P(LiveDiscovery, ProcessFailuresStopDiscoveryInTheirOrder) {
  QV_SKIP_UNLESS(tool().native(), kWhy);
  const std::string offDrive = "\\\\server\\share\\Fusion360.exe", noApi = "C:\\NoApi\\Fusion360.exe";
  // A process whose status has gone cannot be opened, even of another account.
  const std::string unreadable = "C:\\Unreadable\\Fusion360.exe";
  struct Row {
    std::vector<std::string> processes;  // in the order of the process table; "" for a table that cannot be listed
    bool badInventory;
    std::string message;
  };
  for (const Row& row : std::vector<Row>{
           {{offDrive, unreadable}, false, "Cannot read the running Fusion path. Close Fusion normally and retry."},
           {{offDrive}, true, "Invalid saved Fusion installation list."},
           {{noApi, offDrive}, false, "Running Fusion lacks the required Electronics API: " + noApi},
           {{offDrive, noApi}, false, "Running Fusion is not on a local drive, so its Add-In profile cannot be used: " +
                                          offDrive},
           {{""}, false, "Cannot enumerate Fusion processes."}}) {
    Machine m(tool());
    WriteFile(m.C("NoApi/Fusion360.exe"), "MZ");
    for (std::size_t i = 0; i < row.processes.size(); ++i) {
      const std::string pid = std::to_string(500 + i), &process = row.processes[i];
      m.prefix.AddProcess(500 + i, process, "Fusion360.exe", ::getuid() + (process == unreadable), OwnSession(),
                          "/none");
      if (process == unreadable) std::filesystem::remove(m.prefix.procRoot + "/" + pid + "/status");
      if (process.empty()) std::filesystem::remove_all(m.prefix.procRoot);
    }
    if (row.badInventory)
      WriteFile(m.prefix.LocalHost() + "/Quorvane/Installation.ini", InventoryText({"[Fusion]", "Count=x"}));
    // Before any change: an uninstall stops where a report does.
    for (const std::string action : {"/status", "/uninstall"}) {
      EXPECT_EQ(Ended(m.Run({action})), std::make_tuple(5, "", row.message + "\n")) << action;
    }
  }
}

QV_E2E_SUITE(LiveDiscovery);

}  // namespace
}  // namespace qv::test
