// Live discovery against a real Wine prefix, by both builds: Uninstall keys
// written by Wine's own reg.exe in each root and view, a per-user webdeploy
// tree, and Windows programs running under wine64 (a portable Fusion360.exe
// and the launcher). Quorvane_Setup.exe under Wine and the native build give
// the same lines on the same prefix, install the same add-ins, and log the
// same platform calls for the install, so that one sweep of fault points
// serves both builds.
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/scene.h"

namespace qv::test {
namespace {

TEST_F(WinePrefix, LiveDiscoveryGivesTheSameLinesInBothBuilds) {
  const Machine machine(wine, prefix);
  const std::string user = std::string("users/") + ::getpwuid(::getuid())->pw_name + "/AppData/";
  const std::string c = machine.C(), userWin = machine.Win(c + user);

  // HKCU names a folder through REG_EXPAND_SZ; HKLM's 32-bit view an icon in
  // a webdeploy tree of several builds, which are all scanned, the icon's
  // first; its 64-bit view an install location with Fusion in bin. The
  // entries named by a letter give icons in each form a value may take, each
  // beside an installation in a folder of its own.
  for (const std::string folder : {"Program Files/QvLive/User", "QvLive/Machine/bin", "QvLive/Quoted/Fusion",
                                   "QvLive/Bare/Fusion", "QvLive/Half/Fusion", "QvLive/Ignored/Fusion", "QvLive/Linked",
                                   "QvLive/Portable/bin"}) {
    MakeFusionInstallation(c + folder);
  }
  for (const char* build : {"b7", "10", "9", "Zulu", "_under"}) {
    MakeFusionInstallation(c + "QvLive/webdeploy/production/" + build);
  }
  // The account's webdeploy tree: builds, one behind a leading dot, a link
  // to a folder, which counts as one, and an installation in the scanned
  // folder itself, which does not.
  const std::string production = c + user + "Local/Autodesk/webdeploy/production";
  for (const char* build : {"x9", "X10", ".hidden", ""}) MakeFusionInstallation(production + "/" + build);
  MakeSymlink(c + "QvLive/Linked", production + "/linked");
  MakeDirs(c + "QvLive/Portable/PortableData/Roaming/Autodesk/Autodesk Fusion 360/API");
  MakeDirs(c + "QvLive/Portable/PortableData/Local");
  MakeDirs(c + user + "Roaming/Autodesk/Autodesk Fusion 360/API");
  MakePackage(c + "QvLive/package");
  std::filesystem::copy_file(QUORVANE_WINE_PROBE, c + "QvLive/Portable/bin/Fusion360.exe",
                             std::filesystem::copy_options::overwrite_existing);
  WriteFile(c + "QvLive/Launcher/fusionlauncher.exe", ReadFile(QUORVANE_WINE_PROBE));

  const std::string hkcu = "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QvLive";
  const std::string hklm = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\QvLive";
  // Each entry: its key and view, then its values as name, type and data.
  const std::string sz = "REG_SZ", expand = "REG_EXPAND_SZ", name = "DisplayName", icon = "DisplayIcon";
  const std::string location = "InstallLocation";
  for (const auto& v : std::vector<std::vector<std::string>>{
           {hkcu + "User", "/reg:64", name, sz, "Autodesk Fusion", location, expand, "%ProgramFiles%\\QvLive\\User"},
           {hklm + "32", "/reg:32", name, sz, "AUTODESK FUSION 360", icon, sz,
            "\"C:\\QvLive\\webdeploy\\production\\b7\\x.ico\",0"},
           {hklm + "64", "/reg:64", name, expand, "Autodesk Fusion", location, expand, "%SystemDrive%\\QvLive\\Machine\\"},
           // The 32-bit view is scanned first: its spelling of an entry in
           // both views stays.
           {hklm + "A", "/reg:32", name, sz, "Autodesk Fusion", icon, sz, "C:\\QvLive\\QUOTED\\Fusion\\fusion.ico"},
           {hklm + "A", "/reg:64", name, sz, "Autodesk Fusion", icon, sz, "\"C:\\QvLive\\Quoted\\Fusion\\fusion.ico\",0"},
           {hklm + "B", "/reg:64", name, sz, "Autodesk Fusion 360", icon, sz, "C:\\QvLive\\Bare\\Fusion\\Fusion360.exe,3"},
           // A quote that does not close gives no icon; the location is read
           // all the same. Names with anything around them, and bare file
           // names, lead nowhere.
           {hklm + "E", "/reg:64", name, sz, "Autodesk Fusion", icon, sz, "\"C:\\QvLive\\Ignored\\Fusion\\Fusion360.exe",
            location, sz, "C:\\QvLive\\Half\\Fusion"},
           {hklm + "F", "/reg:64", name, sz, "Autodesk Fusion 360 (Beta)", location, sz, "C:\\QvLive\\Ignored\\Fusion"},
           {hklm + "G", "/reg:64", name, sz, "Autodesk Fusion", icon, sz, "Fusion360.exe"}}) {
    for (std::size_t i = 2; i + 2 < v.size(); i += 3) {
      const RunResult reg = Wine({"reg", "add", v[0], "/v", v[i], "/t", v[i + 1], "/d", v[i + 2], "/f", v[1]});
      ASSERT_EQ(reg.exitCode, 0) << v[0] << " " << v[i] << ": " << reg.out << reg.err;
    }
  }
  // The registry reaches the files when the server ends; the one started
  // by the programs below serves the rest of the test.
  test::Run("/usr/lib/wine/wineserver", {"-w"}, {{"WINEPREFIX", prefix}});
  // Started by their Windows paths, as Fusion starts. The probe prints its
  // line once running, when Wine has put that path in its command line,
  // where the native build reads it.
  Background fusion = machine.Start("C:\\QvLive\\Portable\\bin\\Fusion360.exe", {});
  Background launcher = machine.Start("C:\\QvLive\\Launcher\\fusionlauncher.exe", {});
  ASSERT_TRUE(fusion.WaitForOutput("up")) << "the portable Fusion did not come up";
  ASSERT_TRUE(launcher.WaitForOutput("up")) << "the launcher did not come up";

  const std::string addIn = "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";
  const std::string addIns[] = {c + user + "Roaming" + addIn, c + "QvLive/Portable/PortableData/Roaming" + addIn};
  struct Outcome {
    std::vector<std::string> lines;  // exit code and output of each run
    std::vector<TreeSnapshot> installed;
    std::vector<std::string> operations;  // the install's, without the walk of the process table
  };
  std::map<std::string, Outcome> outcomes;
  TempDir logs;
  for (const ToolUnderTest& tool : {wine, NativeTool()}) {
    if (!tool.missing.empty()) continue;
    Outcome& outcome = outcomes[tool.name];
    // Each build starts from the same disk: no add-ins, backups or inventory.
    for (const std::string state : {"Roaming/KELDARO", "Local/Quorvane"}) std::filesystem::remove_all(c + user + state);
    std::filesystem::remove_all(c + "QvLive/Portable/PortableData/Roaming/KELDARO");
    for (const std::string& addIn : addIns) std::filesystem::remove_all(std::filesystem::path(addIn).parent_path());
    const std::string log = logs / tool.name;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"/status"}, {"/install", "/package", "C:\\QvLive\\package"}, {"/uninstall"}}) {
      const bool installs = args[0] == "/install";
      const RunResult r =
          Machine(tool, prefix).Run(args, installs ? EnvChanges{{"QUORVANE_FAULTS_LOG", log}} : EnvChanges{});
      // Transaction ids (tick and process id) differ from run to run.
      outcome.lines.push_back(std::to_string(r.exitCode) + "\n" +
                              std::regex_replace(r.out + r.err, std::regex("InstallBackups\\\\[0-9-]+"), "<id>"));
      if (installs) outcome.installed = {SnapshotTree(addIns[0]), SnapshotTree(addIns[1])};
    }
    for (const LoggedCall& call : ReadCallLog(log)) {
      if (call.operation != "Process32NextW") outcome.operations.push_back(call.operation);
    }
  }
  fusion.Finish(9);
  launcher.Finish(9);
  test::Run("/usr/lib/wine/wineserver", {"-k"}, {{"WINEPREFIX", prefix}});

  // Registry entries in the order of the scans (the icon's build before the
  // others beside it), then the account's webdeploy tree, then the running
  // portable Fusion with its own profile; webdeploy builds in Windows's order.
  const std::string tree = "C:\\QvLive\\webdeploy\\production\\";
  const std::string own = userWin + "Local\\Autodesk\\webdeploy\\production\\";
  std::string status = "1\nQuorvane v" QUORVANE_VERSION "\nAutodesk Fusion installations: 14\n";
  for (const std::string& folder : std::vector<std::string>{
           "C:\\Program Files\\QvLive\\User", tree + "b7", tree + "10", tree + "9", tree + "Zulu", tree + "_under",
           "C:\\QvLive\\QUOTED\\Fusion", "C:\\QvLive\\Machine\\bin", "C:\\QvLive\\Bare\\Fusion",
           "C:\\QvLive\\Half\\Fusion", own + "linked", own + "X10", own + "x9", "C:\\QvLive\\Portable\\bin"}) {
    const std::string profile = folder.starts_with("C:\\QvLive\\Portable") ? "C:\\QvLive\\Portable\\PortableData\\Roaming"
                                                                            : userWin + "Roaming";
    // The portable Fusion360.exe is the probe, whose file version is 1.2.3.4.
    const std::string version = profile.starts_with("C:\\QvLive") ? "1.2.3.4" : "";
    status += "Path: " + folder + "\\Fusion360.exe\nVersion: " + version + "\nAdd-In path: " + profile +
              "\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane\nAdd-In: Not installed or incomplete\n";
  }
  const Outcome& native = outcomes["native"];
  ASSERT_EQ(native.lines.size(), 3u);
  EXPECT_EQ(native.lines[0], status + "Fusion running: Yes\n");
  EXPECT_TRUE(native.lines[1].starts_with("0\n") &&
              native.lines[1].ends_with("\nRestart Autodesk Fusion to activate/update the Quorvane.\n"))
      << native.lines[1];
  EXPECT_TRUE(native.lines[2].starts_with("0\n") &&
              native.lines[2].ends_with("\nRestart Autodesk Fusion to complete removal.\n"))
      << native.lines[2];
  for (const TreeSnapshot& installed : native.installed) EXPECT_EQ(installed, UpdatedAddIn({}));
  for (const std::string& folder : std::vector<std::string>{"QvLive", "Program Files/QvLive", user + "Local/Autodesk/webdeploy"})
    std::filesystem::remove_all(c + folder);
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing << ": native build only");
  EXPECT_EQ(outcomes["wine"].lines, native.lines);
  EXPECT_EQ(outcomes["wine"].installed, native.installed);
  QV_SKIP_UNLESS(wine.faults && NativeTool().faults, "No fault points in a build: no call logs to compare");
  EXPECT_GT(native.operations.size(), 100u);
  EXPECT_EQ(outcomes["wine"].operations, native.operations);
}

}  // namespace
}  // namespace qv::test
