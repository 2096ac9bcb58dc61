// Discovery on the machine itself: the Uninstall keys of the prefix's
// registry, the webdeploy folder, the process table and the saved inventory,
// driven through the built binary.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "support/scene.h"
#include "support/environment.h"

namespace qv::test {
namespace {

// A registry key in Wine's text format; values are given as their text
// behind the "=" (e.g. "\"Autodesk Fusion\"" or "str(2):\"%X%\\\\y\"").
std::string Key(const std::string& path, const std::vector<std::pair<std::string, std::string>>& values) {
  std::string escaped;
  for (char c : path) escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
  std::string text = "[" + escaped + "] 1700000000\n#time=1da0000000000000\n";
  for (const auto& [name, value] : values) text += "\"" + name + "\"=" + value + "\n";
  return text + "\n";
}

// A registry string value holding a Windows path.
std::string Sz(const std::string& text) {
  std::string out = "\"";
  for (char c : text) out += c == '\\' ? std::string("\\\\") : c == '"' ? std::string("\\\"") : std::string(1, c);
  return out + "\"";
}

std::string Uninstall(const std::string& name) { return "Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\" + name; }

// The "Path: " lines of a status report, in order.
std::vector<std::string> ReportedPaths(const std::string& report) {
  std::vector<std::string> paths;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Path: ", 0) == 0) paths.push_back(line.substr(6));
  }
  return paths;
}

unsigned long OwnSession() {
  std::string text = ReadFile("/proc/self/sessionid");
  return text.empty() ? 0 : std::stoul(text);
}

class LiveDiscoveryTest : public ::testing::Test {
 protected:
  void SetUp() override { prefix_ = MakeFixturePrefix(dir_.path()); }
  void SetRegistry(const std::string& machineKeys, const std::string& userKeys = "") {
    prefix_.WriteRegistry();
    WriteFile(prefix_.root + "/system.reg", ReadFile(prefix_.root + "/system.reg") + "\n" + machineKeys);
    WriteFile(prefix_.root + "/user.reg", ReadFile(prefix_.root + "/user.reg") + "\n" + userKeys);
  }
  RunResult Status() { return test::Run(NativeTool().binary, {"/status"}, prefix_.Env()); }
  std::string Webdeploy(const std::string& build) const {
    return prefix_.LocalHost() + "/Autodesk/webdeploy/production/" + build;
  }
  std::string WebdeployWin(const std::string& build) const {
    return prefix_.LocalWin() + "\\Autodesk\\webdeploy\\production\\" + build;
  }
  TempDir dir_;
  FixturePrefix prefix_;
};

TEST_F(LiveDiscoveryTest, UninstallValuesLeadToTheExecutableBesideThem) {
  // Each installation in a folder of its own: an icon also leads to a scan of
  // the folder two levels above it, which here holds only that installation.
  for (const char* folder : {"Quoted/Fusion", "Bare/Fusion", "Located/Fusion", "Binned/Fusion/bin", "Half/Fusion",
                             "Ignored/Fusion", "Expanded/Fusion"}) {
    MakeFusionInstallation(prefix_.C(folder));
  }
  MakeDirs(prefix_.RoamingHost() + "/Autodesk/Autodesk Fusion 360/API");
  SetRegistry(
      // The 32-bit view is scanned before the 64-bit one, so this text of
      // the entry is the one that stays; the same entry in the 64-bit view
      // adds nothing new.
      Key("Software\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\A",
          {{"DisplayName", Sz("Autodesk Fusion")}, {"DisplayIcon", Sz("C:\\QUOTED\\Fusion\\fusion.ico")}}) +
          // A quoted icon path with an index, an icon file beside the executable.
          Key(Uninstall("A"), {{"DisplayName", Sz("Autodesk Fusion")},
                               {"DisplayIcon", Sz("\"C:\\Quoted\\Fusion\\fusion.ico\",0")}}) +
          // Unquoted with an index; the display name in capitals.
          Key(Uninstall("B"), {{"DisplayName", Sz("AUTODESK FUSION 360")},
                               {"DisplayIcon", Sz("C:\\Bare\\Fusion\\Fusion360.exe,3")}}) +
          // An install location with a trailing separator; one whose
          // executable lies in bin adds only that one.
          Key(Uninstall("C"), {{"DisplayName", Sz("Autodesk Fusion")},
                               {"InstallLocation", Sz("C:\\Located\\Fusion\\")}}) +
          Key(Uninstall("D"), {{"DisplayName", Sz("Autodesk Fusion 360")},
                               {"InstallLocation", Sz("C:\\Binned\\Fusion")}}) +
          // A quote that does not close gives no icon path; the location
          // is read all the same.
          Key(Uninstall("E"), {{"DisplayName", Sz("Autodesk Fusion")},
                               {"DisplayIcon", Sz("\"C:\\Ignored\\Fusion\\Fusion360.exe")},
                               {"InstallLocation", Sz("C:\\Half\\Fusion")}}) +
          // Names with anything around them, and bare file names, lead
          // nowhere.
          Key(Uninstall("F"), {{"DisplayName", Sz("Autodesk Fusion 360 (Beta)")},
                               {"InstallLocation", Sz("C:\\Ignored\\Fusion")}}) +
          Key(Uninstall("G"), {{"DisplayName", Sz("Autodesk Fusion")}, {"DisplayIcon", Sz("Fusion360.exe")}}) +
          // REG_EXPAND_SZ is expanded in the setup's environment.
          Key(Uninstall("H"), {{"DisplayName", Sz("Autodesk Fusion")},
                               {"InstallLocation", "str(2):\"%QV_FUSION_ROOT%\\\\Fusion\""}}));
  auto env = prefix_.Env();
  env["QV_FUSION_ROOT"] = "C:\\Expanded";
  RunResult r = test::Run(NativeTool().binary, {"/status"}, env);
  ASSERT_EQ(r.err, "");
  EXPECT_EQ(ReportedPaths(r.out),
            (std::vector<std::string>{"C:\\QUOTED\\Fusion\\Fusion360.exe", "C:\\Bare\\Fusion\\Fusion360.exe",
                                      "C:\\Located\\Fusion\\Fusion360.exe", "C:\\Binned\\Fusion\\bin\\Fusion360.exe",
                                      "C:\\Half\\Fusion\\Fusion360.exe", "C:\\Expanded\\Fusion\\Fusion360.exe"}))
      << r.out;
}

TEST_F(LiveDiscoveryTest, IconInAWebdeployBuildLeadsToEveryBuildBesideIt) {
  for (const char* build : {"zz-second", "aa-first", "mm-third"}) MakeFusionInstallation(Webdeploy(build));
  SetRegistry("", Key(Uninstall("{fusion}"), {{"DisplayName", Sz("Autodesk Fusion")},
                                              {"DisplayIcon", Sz(WebdeployWin("mm-third") + "\\Fusion360.exe")}}));
  RunResult r = Status();
  std::vector<std::string> paths = ReportedPaths(r.out);
  ASSERT_EQ(paths.size(), 3u) << r.out << r.err;
  // The icon's own build comes first, whatever the file system's order.
  EXPECT_EQ(paths[0], WebdeployWin("mm-third") + "\\Fusion360.exe");
  EXPECT_EQ(r.exitCode, 1);
}

TEST_F(LiveDiscoveryTest, RunningProcessesOfThisSessionAndAccount) {
  const unsigned uid = ::getuid();
  const unsigned long session = OwnSession();
  // A portable Fusion that only the process table knows gets its own profile.
  MakeFusionInstallation(prefix_.C("Portable/bin"));
  MakeDirs(prefix_.C("Portable/PortableData/Roaming/Autodesk/Autodesk Fusion 360/API"));
  MakeDirs(prefix_.C("Portable/PortableData/Local"));
  prefix_.AddProcess(100, "C:\\Portable\\bin\\Fusion360.exe", "Fusion360.exe", uid, session);
  prefix_.AddProcess(101, "C:\\Portable\\BIN\\FUSION360.EXE", "FUSION360.EXE", uid, session);
  // Another session, and another account, are passed over.
  MakeFusionInstallation(prefix_.C("Elsewhere"));
  prefix_.AddProcess(102, "C:\\Elsewhere\\Fusion360.exe", "Fusion360.exe", uid, session + 1);
  prefix_.AddProcess(103, "C:\\Elsewhere\\Fusion360.exe", "Fusion360.exe", uid + 1, session);
  // The launcher alone makes Fusion count as running.
  prefix_.AddProcess(104, "C:\\Portable\\FusionLauncher.exe", "FusionLauncher.", uid, session);
  RunResult r = Status();
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "Quorvane v0.1.8\nAutodesk Fusion installations: 1\nPath: C:\\Portable\\bin\\Fusion360.exe\n"
                   "Version: \nAdd-In path: C:\\Portable\\PortableData\\Roaming\\Autodesk\\Autodesk Fusion 360\\API\\"
                   "AddIns\\KELDARO_Quorvane\nAdd-In: Not installed or incomplete\nFusion running: Yes\n");

  // A running Fusion that nothing else names and that is not portable stops
  // discovery, even beside installations that are fine.
  prefix_.AddProcess(105, "C:\\Elsewhere\\Fusion360.exe", "Fusion360.exe", uid, session);
  r = Status();
  EXPECT_EQ(r.exitCode, 5);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "Fusion was found, but its Add-In profile cannot be identified automatically: C:\\Elsewhere\\Fusion360.exe\n");
  // Once a saved record holds it, it no longer does.
  WriteFile(prefix_.LocalHost() + "/Quorvane/Installation.ini",
            Utf16LeWithBom(u"[Fusion]\r\nCount=1\r\nExecutable0=C:\\Elsewhere\\Fusion360.exe\r\nAppData0=C:\\users\\" +
                           std::u16string(prefix_.userName.begin(), prefix_.userName.end()) +
                           u"\\AppData\\Roaming\r\n"));
  r = Status();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(ReportedPaths(r.out).size(), 2u);
}

TEST_F(LiveDiscoveryTest, ProcessFailuresStopDiscovery) {
  const unsigned uid = ::getuid();
  const unsigned long session = OwnSession();
  MakeFusionInstallation(prefix_.C("Good"));
  // A running Fusion without the Electronics API.
  WriteFile(prefix_.C("NoApi/Fusion360.exe"), "MZ");
  prefix_.AddProcess(200, "C:\\NoApi\\Fusion360.exe", "Fusion360.exe", uid, session);
  RunResult r = Status();
  EXPECT_EQ(r.exitCode, 5);
  EXPECT_EQ(r.err, "Running Fusion lacks the required Electronics API: C:\\NoApi\\Fusion360.exe\n");
  // A process of this session that cannot be opened (its status is gone),
  // even of another account.
  std::system(("rm -rf " + prefix_.procRoot + "/200").c_str());
  prefix_.AddProcess(201, "C:\\Good\\Fusion360.exe", "Fusion360.exe", uid + 7, session);
  ::unlink((prefix_.procRoot + "/201/status").c_str());
  r = Status();
  EXPECT_EQ(r.exitCode, 5);
  EXPECT_EQ(r.err, "Cannot read the running Fusion path. Close Fusion normally and retry.\n");
  // A Fusion run from a network path.
  std::system(("rm -rf " + prefix_.procRoot + "/201").c_str());
  prefix_.AddProcess(202, "\\\\server\\share\\Fusion\\Fusion360.exe", "Fusion360.exe", uid, session,
                    "/nonexistent");
  r = Status();
  EXPECT_EQ(r.exitCode, 5);
  EXPECT_EQ(r.err,
            "Running Fusion is not on a local drive, so its Add-In profile cannot be used: "
            "\\\\server\\share\\Fusion\\Fusion360.exe\n");
  // A process table that cannot be listed.
  std::map<std::string, std::string> env = prefix_.Env();
  env["QUORVANE_PROC_ROOT"] = dir_ / "no-such-proc";
  r = test::Run(NativeTool().binary, {"/status"}, env);
  EXPECT_EQ(r.exitCode, 5);
  EXPECT_EQ(r.err, "Cannot enumerate Fusion processes.\n");
}

TEST_F(LiveDiscoveryTest, OneExecutableFromThreeSourcesIsOneRecord) {
  const unsigned uid = ::getuid();
  MakeFusionInstallation(prefix_.C("Program Files/Autodesk/Fusion"));
  MakeFusionInstallation(Webdeploy("build1"));
  const std::string savedProfile = "C:\\Profiles\\Saved";
  MakeDirs(prefix_.C("Profiles/Saved/Autodesk/Autodesk Fusion 360/API"));
  SetRegistry(Key(Uninstall("Fusion"), {{"DisplayName", Sz("Autodesk Fusion")},
                                        {"InstallLocation", Sz("C:\\Program Files\\Autodesk\\Fusion")}}));
  prefix_.AddProcess(300, "c:\\program files\\autodesk\\fusion\\fusion360.exe", "fusion360.exe", uid,
                    OwnSession());
  WriteFile(prefix_.LocalHost() + "/Quorvane/Installation.ini",
            Utf16LeWithBom(u"[Fusion]\r\nCount=1\r\nExecutable0=C:\\PROGRAM FILES\\AUTODESK\\FUSION\\FUSION360.EXE\r\n"
                           u"AppData0=C:\\Profiles\\Saved\r\n"));
  RunResult r = Status();
  ASSERT_EQ(r.err, "");
  EXPECT_EQ(ReportedPaths(r.out), (std::vector<std::string>{"C:\\Program Files\\Autodesk\\Fusion\\Fusion360.exe",
                                                            WebdeployWin("build1") + "\\Fusion360.exe"}));
  EXPECT_NE(r.out.find("Add-In path: " + savedProfile + "\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane"),
            std::string::npos)
      << r.out;
}

TEST_F(LiveDiscoveryTest, RestartNotesFollowARunningFusion) {
  MakeFusionInstallation(Webdeploy("build1"));
  MakePackage(dir_ / "package");
  prefix_.AddProcess(400, "C:\\x\\FusionLauncher.exe", "FusionLauncher.", ::getuid() + 1, 12345);
  RunResult r = test::Run(NativeTool().binary, {"/install", "/package", dir_ / "package"}, prefix_.Env());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("Quorvane installed/updated.\nRestart Autodesk Fusion to activate/update the Quorvane.\n"),
            std::string::npos)
      << r.out;
  r = test::Run(NativeTool().binary, {"/uninstall"}, prefix_.Env());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("Quorvane uninstalled. Settings and ODB++ outputs preserved.\n"
                       "Restart Autodesk Fusion to complete removal.\n"),
            std::string::npos)
      << r.out;
  // Without the launcher, no notes.
  std::system(("rm -rf " + prefix_.procRoot + "/400").c_str());
  r = test::Run(NativeTool().binary, {"/install", "/package", dir_ / "package"}, prefix_.Env());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out.find("Restart"), std::string::npos);
}

}  // namespace
}  // namespace qv::test
