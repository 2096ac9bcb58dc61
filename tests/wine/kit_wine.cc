// The deployment kit under cmd in wine64: the wrappers' exit codes and log,
// the stamps, and detection as Intune and Configuration Manager read it,
// through a payload's whole life in one account: before it, after failed and
// successful installs, after a profile lost its add-in, after an update to a
// newer payload and after the uninstall.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <regex>

#include "support/scene.h"

namespace qv::test {
namespace {

namespace fs = std::filesystem;

TEST_F(WinePrefix, DeploymentKitInstallsDetectsUpdatesAndUninstalls) {
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing);
  const std::string kit = fs::path(wine.binary).parent_path() / "Quorvane_Kit.exe";
  QV_SKIP_UNLESS(Exists(kit), "No Quorvane_Kit.exe beside " + wine.binary);
  const ProfileScene s(wine, 2);
  for (const char* name : {"Deploy", "Install", "Uninstall", "Logon"}) {
    fs::copy_file(std::string(QUORVANE_SOURCE_DIR) + "/deploy/Quorvane_" + name + ".cmd",
                  s.package + "/Quorvane_" + name + ".cmd");
  }
  fs::copy_file(wine.binary, s.package + "/Quorvane_Setup.exe");
  fs::copy_file(kit, s.package + "/Quorvane_Kit.exe");
  // cmd gives a script's whole exit code where wine64 gives its low byte only.
  WriteFile(s.package + "/run.cmd", "@cmd /d /c %*\r\n@echo exit=%ERRORLEVEL%\r\n");

  // The account's local folder, where the wrappers log and keep detection.
  const std::string local = Wine({"cmd", "/d", "/c", "echo %LOCALAPPDATA%"}).out;
  const std::string mine =
      prefix + "/drive_c" + std::regex_replace(local.substr(2, local.size() - 3), std::regex(R"(\\)"), "/") + "/Quorvane";
  const std::string log = mine + "/Logs/Quorvane_Deploy.log";
  fs::remove_all(mine);
  Wine({"reg", "delete", R"(HKCU\Software\KELDARO\Quorvane)", "/f"});

  const std::vector<std::string> options{"/test-appdata", s.Win(s.roaming), "/test-localappdata", s.Win(s.local)};
  const auto script = [&](const std::string& path, std::vector<std::string> args, const EnvChanges& env = {}) {
    std::vector<std::string> command{"cmd", "/d", "/c", s.Win(s.package + "/run.cmd"), path};
    command.insert(command.end(), args.begin(), args.end());
    command.insert(command.end(), options.begin(), options.end());
    RunResult r = RunUnderWine(prefix, command, env, 180000);
    const std::size_t at = r.out.rfind("exit=");
    EXPECT_NE(at, std::string::npos) << r.out << r.err;
    r.exitCode = at == std::string::npos ? -1 : std::stoi(r.out.substr(at + 5));
    r.out = r.out.substr(0, at) + r.err;
    return r;
  };
  const auto stamp = [&] {
    EXPECT_EQ(RunUnderWine(prefix, {kit, "stamp", s.Win(s.package)}).exitCode, 0);
    const std::string id = ReadFile(s.package + "/AddIn/Quorvane_Payload.id").substr(0, 64);
    EXPECT_NE(ReadFile(s.package + "/Quorvane_Detect.ps1").find("detect '" + id + "'"), std::string::npos);
    return id;
  };
  // Detection as the script of Quorvane_Detect.ps1 runs it: the kept copy, or
  // not installed when there is none; the package's copy before any install.
  const auto detect = [&](const std::string& id) {
    const bool kept = Exists(mine + "/Kit/Quorvane_Deploy.cmd");
    const RunResult r = script(s.Win(kept ? mine + "/Kit/Quorvane_Deploy.cmd" : s.package + "/Quorvane_Deploy.cmd"),
                               {"detect", id});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    return r.out;
  };
  const std::string installed = "is installed; Add-In profiles: 2.";

  struct Step {
    const char* what;
    std::function<void()> before;  // what changes before the run
    std::string script;
    EnvChanges env;
    int exit;
    std::string logged;  // in the log's new part, after the start line
    int transactions;    // new transaction directories of profile 0
  };
  std::string a, b, gate = s.machine.C("gate");
  std::optional<Background> holder;
  const std::string any = R"([\s\S]*)";
  const std::vector<Step> steps = {
      {"held lock", [&] { a = stamp(); EXPECT_EQ(detect(a), "");
                          WriteFile(gate, "");
                          holder.emplace(s.machine.Start(wine.lockHolder, {s.Win(gate)}));
                          ASSERT_TRUE(holder->WaitForOutput("held", 60000)); },
       "Install", {}, 1618, "Another Quorvane Setup is active" + any + "tool exit 7, exit 1618", 0},
      {"rolled back", [&] { fs::remove(gate); holder->Finish(); EXPECT_EQ(detect(a), ""); },
       "Install", {{"QUORVANE_FAULTS", "MoveFileExW@4=5"}}, 6,
       "Installed profiles restored.\n" + any + "tool exit 6, exit 6", 1},
      {"installed", [&] { EXPECT_EQ(detect(a), ""); },
       "Install", {}, 0, "Quorvane installed/updated.\nRecorded payload [0-9a-f]{64}" + any + "tool exit 0, exit 0", 1},
      {"logon, nothing to do", [&] { EXPECT_NE(detect(a).find(installed), std::string::npos); },
       "Logon", {}, 0, "Nothing to do.\n" + any + "tool exit none, exit 0", 0},
      {"logon, a profile lost its add-in", [&] { fs::remove_all(s.AddIn(1)); EXPECT_EQ(detect(a), ""); },
       "Logon", {}, 0, "Quorvane installed/updated." + any + "tool exit 0, exit 0", 1},
      {"payload changed after its stamp", [&] { EXPECT_NE(detect(a).find(installed), std::string::npos);
                                                MakePackage(s.package, "newer"); },
       "Install", {}, 8, "changed after it was stamped" + any + "tool exit none, exit 8", 0},
      {"update", [&] { b = stamp(); EXPECT_NE(a, b); EXPECT_EQ(detect(b), ""); },
       "Install", {}, 0, "Recorded payload [0-9a-f]{64}" + any + "tool exit 0, exit 0", 1},
      {"uninstall", [&] { EXPECT_NE(detect(b).find(installed), std::string::npos); EXPECT_EQ(detect(a), "");
                          // A report's paths keep every character: it is read as UTF-8.
                          const std::string odd = s.machine.C("Pr\u00f3f\u00edl \u0394/KELDARO_Quorvane");
                          WriteFile(odd + "/Quorvane_Payload.id", b + "\r\n");
                          const std::string report = s.machine.C("report.txt");
                          WriteFile(report, "Add-In path: " + s.Win(s.AddIn(0)) + "\r\nAdd-In path: " + s.Win(odd));
                          EXPECT_EQ(RunUnderWine(prefix, {kit, "stamped", b, s.Win(report)}).out, "2\n");
                          // One profile given the older payload's stamp by hand.
                          WriteFile(s.AddIn(1) + "/Quorvane_Payload.id", a + "\r\n");
                          EXPECT_EQ(detect(b), ""); },
       "Uninstall", {}, 0,
       "Quorvane uninstalled." + any + "Removed the payload record" + any + "tool exit 0, exit 0", 1}};
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    if (step.env.count("QUORVANE_FAULTS") != 0 && !wine.faults) continue;
    step.before();
    const std::size_t logged = Exists(log) ? ReadFile(log).size() : 0;
    const std::size_t transactions = s.TransactionDirectories(0).size();
    const RunResult r = script(s.Win(s.package + "/Quorvane_" + step.script + ".cmd"), {}, step.env);
    EXPECT_EQ(r.exitCode, step.exit) << r.out;
    const std::string added = std::regex_replace(Exists(log) ? ReadFile(log).substr(logged) : "", std::regex("\r"), "");
    const std::string time = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";
    const std::string end = R"(, elapsed \d+\.\d{3} s\n)";
    EXPECT_TRUE(std::regex_match(added, std::regex(time + "\\w+ start: " + any + step.logged + end)))
        << added;
    EXPECT_EQ(s.TransactionDirectories(0).size(), transactions + step.transactions);
  }
  EXPECT_EQ(detect(b), "");
  EXPECT_FALSE(Exists(mine + "/Kit"));
  fs::remove_all(mine);
}

}  // namespace
}  // namespace qv::test
