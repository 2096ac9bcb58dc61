// Live discovery against a real Wine prefix: an Uninstall key written by
// Wine's own reg.exe and a Windows process named Fusion360.exe running under
// wine64 from a portable layout.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/scene.h"
#include "wine/wine_support.h"

extern char** environ;

namespace qv::test {
namespace {

bool ProcessNamed(const std::string& name) {
  RunResult r = test::Run("/bin/sh", {"-c", "cat /proc/[0-9]*/comm 2>/dev/null"});
  return r.out.find(name + "\n") != std::string::npos;
}

TEST(WinePrefix, RegistryAndRunningFusionAreBothFound) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  const std::string drive = prefix + "/drive_c";

  // An installed Fusion that only the registry names, through a
  // REG_EXPAND_SZ location, and a portable one that only runs.
  MakeFusionInstallation(drive + "/Program Files/Autodesk/Fusion Test");
  MakeFusionInstallation(drive + "/PortableFusion/bin");
  MakeDirs(drive + "/PortableFusion/PortableData/Roaming/Autodesk/Autodesk Fusion 360/API");
  MakeDirs(drive + "/PortableFusion/PortableData/Local");
  test::Run("/bin/cp", {QUORVANE_FUSION_STUB, drive + "/PortableFusion/bin/Fusion360.exe"});

  RunResult reg = RunUnderWine(
      prefix, "reg",
      {"add", "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QuorvaneTestFusion", "/v",
       "InstallLocation", "/t", "REG_EXPAND_SZ", "/d", "%ProgramFiles%\\Autodesk\\Fusion Test", "/f"});
  ASSERT_EQ(reg.exitCode, 0) << reg.out << reg.err;
  reg = RunUnderWine(prefix, "reg",
                     {"add", "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QuorvaneTestFusion",
                      "/v", "DisplayName", "/t", "REG_SZ", "/d", "Autodesk Fusion", "/f"});
  ASSERT_EQ(reg.exitCode, 0) << reg.out << reg.err;
  WaitForWineServer(prefix);

  // Start the portable Fusion and wait until it shows in /proc.
  std::vector<std::string> args{"/usr/lib/wine/wine64", "C:\\PortableFusion\\bin\\Fusion360.exe"};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::string envPrefix = "WINEPREFIX=" + prefix;
  std::vector<char*> envp;
  for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
  envp.push_back(envPrefix.data());
  envp.push_back(const_cast<char*>("WINEDEBUG=-all"));
  envp.push_back(nullptr);
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp.data()), 0);
  for (int i = 0; i < 300 && !ProcessNamed("Fusion360.exe"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_TRUE(ProcessNamed("Fusion360.exe")) << "the Wine process did not come up";

  RunResult status = test::Run(NativeTool().binary, {"/status"}, {{"WINEPREFIX", prefix}, {"QUORVANE_PROC_ROOT", "/proc"}});
  test::Run("/usr/lib/wine/wineserver", {"-k"}, {{"WINEPREFIX", prefix}});
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);

  EXPECT_EQ(status.err, "");
  EXPECT_EQ(status.exitCode, 1);
  EXPECT_NE(status.out.find("Autodesk Fusion installations: 2\n"
                            "Path: C:\\Program Files\\Autodesk\\Fusion Test\\Fusion360.exe\n"),
            std::string::npos)
      << status.out;
  EXPECT_NE(status.out.find("Path: C:\\PortableFusion\\bin\\Fusion360.exe\nVersion: \n"
                            "Add-In path: C:\\PortableFusion\\PortableData\\Roaming\\Autodesk\\Autodesk Fusion 360\\"
                            "API\\AddIns\\KELDARO_Quorvane\n"),
            std::string::npos)
      << status.out;
  EXPECT_NE(status.out.find("Fusion running: Yes\n"), std::string::npos) << status.out;
}

}  // namespace
}  // namespace qv::test
