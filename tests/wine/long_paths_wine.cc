// Paths past MAX_PATH: a whole cycle with test folders so deep that the
// saved inventory and every add-in path are longer than 260 characters, run
// by the native build and by Quorvane_Setup.exe under wine64; and the
// manifest of the Windows build, which declares it long-path aware.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>

#include "support/scene.h"
#include "support/scene.h"
#include "wine/wine_program.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

const std::string kWindowsBinary = std::string(QUORVANE_SOURCE_DIR) + "/build/windows/Quorvane_Setup.exe";

std::string Backslashes(std::string text) {
  for (char& c : text) c = c == '/' ? '\\' : c;
  return text;
}

class LongPathCycle : public ::testing::TestWithParam<std::string> {};

TEST_P(LongPathCycle, InstallStatusUpdateStatusUninstall) {
  TempDir dir;
  std::unique_ptr<WineProgram> keeper;
  std::string driveC;
  std::function<RunResult(const std::vector<std::string>&)> run;
  if (GetParam() == "windows") {
    const std::string prefix = SharedWinePrefix();
    if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
    if (!Exists(kWindowsBinary)) GTEST_SKIP() << "no Windows build at " << kWindowsBinary;
    driveC = prefix + "/drive_c";
    // A program that lives through the cycle keeps the server up, so each
    // run ends without waiting for it.
    keeper = std::make_unique<WineProgram>(prefix, std::vector<std::string>{QUORVANE_HOLD_FILE, "C:\\windows", "3",
                                                                            "C:\\QvLong.ready"});
    keeper->WaitFor(driveC + "/QvLong.ready");
    run = [prefix](const std::vector<std::string>& args) { return RunUnderWine(prefix, kWindowsBinary, args); };
  } else {
    const FixturePrefix fixture = MakeFixturePrefix(dir.path());
    driveC = fixture.root + "/drive_c";
    run = [fixture](const std::vector<std::string>& args) { return test::Run(NativeTool().binary, args, fixture.Env()); };
  }
  const std::string base = driveC + "/QvLong";
  std::system(("rm -rf '" + base + "'").c_str());

  // Six elements of 40 characters: each test folder is about 270 long.
  std::string deep;
  for (char c = 'a'; c < 'g'; ++c) deep += "/" + std::string(40, c);
  const std::string roaming = "QvLong/roaming" + deep;
  const std::string local = "QvLong/local" + deep;
  const std::string executable = local + "/Autodesk/webdeploy/production/b1/Fusion360.exe";
  const std::string addIn = roaming + "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";
  MakeFusionInstallation(driveC + "/" + local + "/Autodesk/webdeploy/production/b1");
  MakeDirs(driveC + "/" + roaming);
  MakePackage(base + "/package");
  // The local folder as a user might type it, with forward slashes and a "."
  // element, which the extended-length form would take literally.
  const std::vector<std::string> folders{"/test-appdata", "C:\\" + Backslashes(roaming), "/test-localappdata",
                                         "C:\\QvLong\\local/." + deep, "/package", "C:\\QvLong\\package"};

  const std::string healthy = "\nAdd-In path: C:\\" + Backslashes(addIn) + "\nAdd-In: Healthy\n";
  for (const auto& [action, expected] : std::vector<std::pair<std::string, std::string>>{
           {"/install", "Quorvane installed/updated.\n"},
           {"/status", healthy},
           {"/update", "Quorvane installed/updated.\n"},
           {"/status", healthy},
           {"/uninstall", "Quorvane uninstalled."}}) {
    std::vector<std::string> args{action};
    args.insert(args.end(), folders.begin(), folders.end());
    RunResult r = run(args);
    r.out = std::regex_replace(r.out, std::regex("\r\n"), "\n");
    EXPECT_EQ(r.exitCode, 0) << action << "\n" << r.err;
    EXPECT_NE(r.out.find(expected), std::string::npos) << action << "\n" << r.out;
  }
  EXPECT_FALSE(Exists(driveC + "/" + addIn));
  EXPECT_EQ(ReadFile(driveC + "/" + local + "/Quorvane/Installation.ini"),
            InventoryBytes({{"C:\\" + Backslashes(executable), "C:\\" + Backslashes(roaming)}}));
  std::system(("rm -rf '" + base + "' '" + driveC + "/QvLong.ready'").c_str());
}

INSTANTIATE_TEST_SUITE_P(Builds, LongPathCycle, ::testing::Values("native", "windows"),
                         [](const auto& info) { return info.param; });

TEST(WindowsManifest, DeclaresItsLevelAndLongPathAwareness) {
  if (!Exists(kWindowsBinary)) GTEST_SKIP() << "no Windows build at " << kWindowsBinary;
  if (!Exists(QUORVANE_WINDRES)) GTEST_SKIP() << "no MinGW windres";
  const RunResult r = test::Run(QUORVANE_WINDRES, {"-i", kWindowsBinary, "-O", "rc"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The RT_MANIFEST resource comes back as rc strings, quotes doubled.
  const std::size_t start = r.out.find("1 24 ");
  ASSERT_NE(start, std::string::npos) << r.out;
  std::string xml = r.out.substr(start, r.out.find("\nEND", start) - start);
  xml = std::regex_replace(std::regex_replace(xml, std::regex("\"\\s*\n\\s*\""), ""), std::regex("\"\""), "\"");
  for (const char* declaration : {R"(<requestedExecutionLevel level="asInvoker" uiAccess="false"/>)",
                                  R"(<longPathAware xmlns="http://schemas.microsoft.com/SMI/2016/WindowsSettings">true<)",
                                  R"(<supportedOS Id="{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"/>)"}) {
    EXPECT_NE(xml.find(declaration), std::string::npos) << declaration << "\n" << xml;
  }
}

}  // namespace
}  // namespace qv::test
