// The two builds side by side on one prefix: Quorvane_Setup.exe under wine64
// and the native Quorvane_Setup give the same lines, the same exit codes and
// the same add-in on the disk through a whole cycle, and, with fault points,
// log the same operations for an install, so that one sweep of fault points
// serves both.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/scene.h"

namespace qv::test {
namespace {

struct Cycle {
  std::vector<std::string> lines;  // exit code and output of each run
  TreeSnapshot installed;          // the add-in the install made
  std::vector<std::string> operations;
};

// Everything on C:, where Wine reports no reparse point at the drive's root
// (its Z: root carries the reparse bit, which would refuse packages there in
// the Windows build): two webdeploy builds, an installed add-in with a file
// of its own, and a package.
Cycle RunCycle(const Machine& machine) {
  const std::string base = machine.C("QvDiff");
  std::filesystem::remove_all(base);
  MakeFusionInstallation(base + "/local/Autodesk/webdeploy/production/b1");
  MakeFusionInstallation(base + "/local/Autodesk/webdeploy/production/b2");
  const std::string addIn = base + "/roaming/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";
  MakeInstalledAddIn(addIn, "old");
  WriteFile(addIn + "/kept.txt", "kept");
  MakePackage(base + "/package", "new");
  const std::vector<std::string> folders{"/test-appdata", "C:\\QvDiff\\roaming", "/test-localappdata",
                                         "C:\\QvDiff\\local"};
  const auto with = [&](std::vector<std::string> args) {
    args.insert(args.end(), folders.begin(), folders.end());
    return args;
  };
  TempDir logs;
  Cycle cycle;
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {"/bogus"}, {"/install", "/test-appdata", "x"}, with({"/status"}),
           with({"/install", "/package", "C:\\QvDiff\\package"}), with({"/status"}),
           with({"/install", "/package", "C:\\QvDiff\\nowhere"}), with({"/uninstall"}), with({"/status"})}) {
    const bool installs = args.size() > 2 && args[1] == "/package" && args[2].ends_with("package");
    const RunResult r = machine.Run(args, installs ? EnvChanges{{"QUORVANE_FAULTS_LOG", logs / "calls"}} : EnvChanges{});
    // Transaction ids (tick and process id) differ from run to run.
    cycle.lines.push_back(std::to_string(r.exitCode) + "\n" +
                          std::regex_replace(r.out + "\n" + r.err, std::regex("InstallBackups\\\\[0-9-]+"), "<id>"));
    if (installs) cycle.installed = SnapshotTree(addIn);
  }
  // The process walk is left out: Wine's table holds its own programs,
  // Linux's every process of the machine.
  for (const LoggedCall& call : ReadCallLog(logs / "calls")) {
    if (call.operation != "Process32NextW") cycle.operations.push_back(call.operation);
  }
  std::filesystem::remove_all(base);
  return cycle;
}

TEST_F(WinePrefix, BothBuildsAgreeOnAWholeCycle) {
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing);
  const Cycle windows = RunCycle(Machine(wine, prefix)), native = RunCycle(Machine(NativeTool(), prefix));
  EXPECT_EQ(windows.lines, native.lines);
  // What each build should do is proven by the end-to-end tests, which
  // run on both.
  EXPECT_EQ(windows.installed, native.installed);
  QV_SKIP_UNLESS(wine.faults && NativeTool().faults, "No fault points in a build: no call logs to compare");
  EXPECT_GT(native.operations.size(), 100u);
  EXPECT_EQ(windows.operations, native.operations);
}

}  // namespace
}  // namespace qv::test
