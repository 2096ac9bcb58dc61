// The two builds side by side: Quorvane_Setup.exe under wine64 and the
// native Quorvane_Setup on the same prefix give the same lines, the same
// exit codes and the same add-in on the disk.
#include <gtest/gtest.h>

#include <regex>

#include "support/scene.h"
#include "support/scene.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

const std::string kWindowsBinary = std::string(QUORVANE_SOURCE_DIR) + "/build/windows/Quorvane_Setup.exe";

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Transaction ids (tick and process id) differ from run to run; Wine ends
// console lines with CR LF.
std::string Normalise(std::string text) {
  text = std::regex_replace(text, std::regex("\r\n"), "\n");
  return std::regex_replace(text, std::regex("InstallBackups\\\\[0-9]+-[0-9]+"), "InstallBackups\\<id>");
}

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

  // Everything on C:, where Wine reports no reparse point at the drive's
  // root (its Z: root carries the reparse bit, which would refuse packages
  // there in the Windows build).
  const std::string base = prefix + "/drive_c/QvDiff";
  std::map<std::string, std::vector<Outcome>> outcomes;
  std::map<std::string, TreeSnapshot> trees;
  for (const std::string build : {"windows", "native"}) {
    std::system(("rm -rf '" + base + "'").c_str());
    MakeFusionInstallation(base + "/local/Autodesk/webdeploy/production/b1");
    MakeFusionInstallation(base + "/local/Autodesk/webdeploy/production/b2");
    MakeInstalledAddIn(base + "/roaming/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane/", "old");
    WriteFile(base + "/roaming/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane/kept.txt", "kept");
    MakePackage(base + "/package", "new");
    const std::vector<std::string> isolated{"/test-appdata", "C:\\QvDiff\\roaming", "/test-localappdata",
                                            "C:\\QvDiff\\local"};
    auto with = [&](std::vector<std::string> args, const std::vector<std::string>& more) {
      args.insert(args.end(), more.begin(), more.end());
      return args;
    };
    const std::vector<std::vector<std::string>> runs{
        {},
        {"/bogus"},
        {"/install", "/test-appdata", "x"},
        with({"/status"}, isolated),
        with(with({"/install"}, isolated), {"/package", "C:\\QvDiff\\package"}),
        with({"/status"}, isolated),
        with(with({"/install"}, isolated), {"/package", "C:\\QvDiff\\nowhere"}),
        with({"/uninstall"}, isolated),
        with({"/status"}, isolated),
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
  std::system(("rm -rf '" + base + "'").c_str());
}

}  // namespace
}  // namespace qv::test
