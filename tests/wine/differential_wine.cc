// The two builds side by side: Quorvane_Setup.exe under wine64 and the
// native Quorvane_Setup on the same prefix give the same lines, the same
// exit codes and the same add-in on the disk, and the builds with fault
// points log the same operations.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "support/scene.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

const std::string kWindowsBinary = std::string(QUORVANE_SOURCE_DIR) + "/build/windows/Quorvane_Setup.exe";
const std::string kWindowsFaultBinary = std::string(QUORVANE_SOURCE_DIR) + "/build/windows-dev/Quorvane_Setup.exe";

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Transaction ids (tick and process id) differ from run to run.
std::string Normalise(const std::string& text) {
  return std::regex_replace(text, std::regex("InstallBackups\\\\[0-9]+-[0-9]+"), "InstallBackups\\<id>");
}

// Everything on C:, where Wine reports no reparse point at the drive's root
// (its Z: root carries the reparse bit, which would refuse packages there in
// the Windows build): two webdeploy builds, an installed add-in with a file
// of its own, and a package.
void MakeScene(const std::string& base) {
  std::filesystem::remove_all(base);
  MakeFusionInstallation(base + "/local/Autodesk/webdeploy/production/b1");
  MakeFusionInstallation(base + "/local/Autodesk/webdeploy/production/b2");
  MakeInstalledAddIn(base + "/roaming/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane/", "old");
  WriteFile(base + "/roaming/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane/kept.txt", "kept");
  MakePackage(base + "/package", "new");
}

const std::vector<std::string> kIsolated{"/test-appdata", "C:\\QvDiff\\roaming", "/test-localappdata",
                                         "C:\\QvDiff\\local"};

Outcome RunWindows(const std::string& prefix, const std::vector<std::string>& args) {
  RunResult r = RunUnderWine(prefix, kWindowsBinary, args);
  return {r.exitCode, Normalise(r.out), Normalise(r.err)};
}

Outcome RunNative(const std::string& prefix, const std::vector<std::string>& args) {
  RunResult r = test::Run(NativeTool().binary, args, {{"WINEPREFIX", prefix}, {"QUORVANE_PROC_ROOT", "/proc"}});
  return {r.exitCode, Normalise(r.out), Normalise(r.err)};
}

void ExpectSame(const Outcome& windows, const Outcome& native, const std::string& what) {
  EXPECT_EQ(windows.exitCode, native.exitCode) << what;
  EXPECT_EQ(windows.out, native.out) << what;
  EXPECT_EQ(windows.err, native.err) << what;
}

TEST(WineDifferential, BothBuildsAgreeOnAWholeCycle) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  if (!Exists(kWindowsBinary)) GTEST_SKIP() << "no Windows build at " << kWindowsBinary;

  const std::string base = prefix + "/drive_c/QvDiff";
  std::map<std::string, std::vector<Outcome>> outcomes;
  std::map<std::string, TreeSnapshot> trees;
  for (const std::string build : {"windows", "native"}) {
    MakeScene(base);
    auto with = [&](std::vector<std::string> args, const std::vector<std::string>& more) {
      args.insert(args.end(), more.begin(), more.end());
      return args;
    };
    const std::vector<std::vector<std::string>> runs{
        {},
        {"/bogus"},
        {"/install", "/test-appdata", "x"},
        with({"/status"}, kIsolated),
        with(with({"/install"}, kIsolated), {"/package", "C:\\QvDiff\\package"}),
        with({"/status"}, kIsolated),
        with(with({"/install"}, kIsolated), {"/package", "C:\\QvDiff\\nowhere"}),
        with({"/uninstall"}, kIsolated),
        with({"/status"}, kIsolated),
    };
    for (const auto& args : runs) {
      outcomes[build].push_back(build == "windows" ? RunWindows(prefix, args) : RunNative(prefix, args));
      if (args.size() > 1 && args[0] == "/install" && outcomes[build].back().exitCode == 0) {
        trees[build] = SnapshotTree(base + "/roaming/Autodesk");
      }
    }
  }
  ASSERT_EQ(outcomes["windows"].size(), outcomes["native"].size());
  for (std::size_t i = 0; i < outcomes["windows"].size(); ++i) {
    ExpectSame(outcomes["windows"][i], outcomes["native"][i], "run " + std::to_string(i));
  }
  EXPECT_EQ(outcomes["native"][4].exitCode, 0) << outcomes["native"][4].err;
  EXPECT_EQ(outcomes["native"][5].exitCode, 0);
  EXPECT_FALSE(trees["native"].empty());
  EXPECT_EQ(trees["windows"], trees["native"]);
  std::filesystem::remove_all(base);
}

// So that one sweep of fault points serves both builds. The steps of the
// process walk are left out: Wine's table holds its own programs, Linux's
// every process of the machine.
TEST(WineDifferential, BothBuildsLogTheSameOperations) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  if (!Exists(kWindowsFaultBinary)) GTEST_SKIP() << "no Windows build with fault points at " << kWindowsFaultBinary;

  const std::string base = prefix + "/drive_c/QvDiff";
  TempDir logs;
  std::vector<std::string> args{"/install", "/package", "C:\\QvDiff\\package"};
  args.insert(args.end(), kIsolated.begin(), kIsolated.end());
  std::map<std::string, std::vector<std::string>> operations;
  for (const std::string build : {"windows", "native"}) {
    MakeScene(base);
    const std::string log = logs / (build + ".log");
    std::string windowsLog = "Z:" + log;
    std::replace(windowsLog.begin(), windowsLog.end(), '/', '\\');
    const RunResult run = build == "windows"
                              ? RunUnderWine(prefix, kWindowsFaultBinary, args, {{"QUORVANE_FAULTS_LOG", windowsLog}})
                              : test::Run(NativeTool().binary, args, {{"WINEPREFIX", prefix}, {"QUORVANE_FAULTS_LOG", log}});
    ASSERT_EQ(run.exitCode, 0) << build << ": " << run.out << run.err;
    for (const LoggedCall& call : ReadCallLog(log)) {
      if (call.operation != "Process32NextW") operations[build].push_back(call.operation);
    }
  }
  EXPECT_GT(operations["native"].size(), 100u);
  EXPECT_EQ(operations["windows"], operations["native"]);
  std::filesystem::remove_all(base);
}

}  // namespace
}  // namespace qv::test
