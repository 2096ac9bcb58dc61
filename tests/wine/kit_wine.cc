// The deployment kit under cmd in wine64: the wrappers' exit codes and log,
// the stamps, and detection as Intune and Configuration Manager read it,
// through a payload's whole life in one account: two runs at once against a
// held lock, an account without Fusion and then with one, failed runs with
// and without a running Fusion, installs, logon runs, a read-only package and
// a newer payload, an older payload after it, other stamped folders named by
// /package (one with & and % in every path), a log past its limit, and the
// uninstall.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <regex>
#include <thread>

#include "support/scene.h"

namespace qv::test {
namespace {

namespace fs = std::filesystem;

TEST_F(WinePrefix, DeploymentKitInstallsDetectsUpdatesAndUninstalls) {
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing);
  const std::string kit = fs::path(wine.binary).parent_path() / "Quorvane_Kit.exe";
  QV_SKIP_UNLESS(Exists(kit), "No Quorvane_Kit.exe beside " + wine.binary);
  const ProfileScene s(wine, 2);
  // The package's own programs and scripts read-only, as on a protected
  // share or an ISO: the kit's kept copies must not stay so.
  for (const char* name : {"Deploy", "Install", "Uninstall", "Logon"}) {
    fs::copy_file(std::string(QUORVANE_SOURCE_DIR) + "/deploy/Quorvane_" + name + ".cmd",
                  s.package + "/Quorvane_" + name + ".cmd");
  }
  fs::copy_file(wine.binary, s.package + "/Quorvane_Setup.exe");
  fs::copy_file(kit, s.package + "/Quorvane_Kit.exe");
  for (const char* name : {"Quorvane_Setup.exe", "Quorvane_Kit.exe", "Quorvane_Deploy.cmd"}) {
    fs::permissions(s.package + "/" + name, fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
  }
  // cmd gives a script's whole exit code where wine64 gives its low byte only.
  WriteFile(s.package + "/run.cmd", "@cmd /d /c %*\r\n@echo exit=%ERRORLEVEL%\r\n");

  // The account's local folder, where the kit logs and keeps detection.
  const std::string local = Wine({"cmd", "/d", "/c", "echo %LOCALAPPDATA%"}).out;
  const std::string mine =
      prefix + "/drive_c" + std::regex_replace(local.substr(2, local.size() - 3), std::regex(R"(\\)"), "/") + "/Quorvane";
  const std::string log = mine + "/Logs/Quorvane_Deploy.log";
  fs::remove_all(mine);
  Wine({"reg", "delete", R"(HKCU\Software\KELDARO\Quorvane)", "/f"});

  using Options = std::vector<std::string>;
  const Options options{"/test-appdata", s.Win(s.roaming), "/test-localappdata", s.Win(s.local)};
  // An account without Fusion; and one whose profile's path holds every
  // character cmd would split on.
  MakeDirs(s.machine.C("E/R"));
  MakeDirs(s.machine.C("E/L"));
  const Options noFusion{"/test-appdata", s.Win(s.machine.C("E/R")), "/test-localappdata", s.Win(s.machine.C("E/L"))};
  const std::string odd = s.machine.C("R & 100%!^ \u0394"), oddLocal = s.machine.C("L & 100%!^ \u0394");
  MakeFusionInstallation(oddLocal + "/Autodesk/webdeploy/production/0123abcd");
  MakeDirs(odd + "/Autodesk/Autodesk Fusion 360/API/AddIns");
  const Options oddProfile{"/test-appdata", s.Win(odd), "/test-localappdata", s.Win(oddLocal)};

  const auto command = [&](const std::string& path, const Options& args, const Options& given) {
    std::vector<std::string> line{"cmd", "/d", "/c", s.Win(s.package + "/run.cmd"), path};
    line.insert(line.end(), args.begin(), args.end());
    line.insert(line.end(), given.begin(), given.end());
    return line;
  };
  const auto exitOf = [](RunResult r) {
    const std::size_t at = r.out.rfind("exit=");
    EXPECT_NE(at, std::string::npos) << r.out << r.err;
    r.exitCode = at == std::string::npos ? -1 : std::stoi(r.out.substr(at + 5));
    r.out = r.out.substr(0, at) + r.err;
    return r;
  };
  const auto script = [&](const std::string& path, const Options& args, const Options& given, const EnvChanges& env) {
    return exitOf(RunUnderWine(prefix, command(path, args, given), env, 180000));
  };
  const auto stamp = [&](const std::string& package, const std::string& version) {
    const RunResult r = RunUnderWine(prefix, {kit, "stamp", s.Win(package), version});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::string id = ReadFile(package + "/AddIn/Quorvane_Payload.id").substr(0, 64);
    EXPECT_EQ(ReadFile(package + "/AddIn/Quorvane_Payload.id"), id + "\r\n" + version + "\r\n");
    EXPECT_NE(ReadFile(package + "/Quorvane_Detect.ps1").find("detect '" + id + "' '" + version + "'"),
              std::string::npos);
    return id;
  };
  // Detection as Quorvane_Detect.ps1 runs it: the kept copy, or not
  // installed when there is none; the package's copy before any install.
  const auto detect = [&](const std::string& id, const std::string& version, const Options& given) {
    Options line{Exists(mine + "/Kit") ? mine + "/Kit/Quorvane_Kit.exe" : s.package + "/Quorvane_Kit.exe", "detect", id,
                 version};
    line.insert(line.end(), given.begin(), given.end());
    const RunResult r = RunUnderWine(prefix, line);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    return r.out;
  };
  const auto installed = [](int profiles) { return " is installed; Add-In profiles: " + std::to_string(profiles); };

  struct Step {
    const char* what;
    std::function<void()> before;  // what changes before the run
    std::string script;            // a wrapper, or empty for Quorvane_Kit.exe itself
    Options args;
    const Options* options;
    EnvChanges env;
    int exit;
    std::string logged;   // searched in the log's new part
    std::size_t backups;  // transaction folders of profile 0 afterwards
  };
  std::string a, b, older, newer, oddId;
  const std::string olderPackage = s.machine.C("Pkg-1.0"), newerPackage = s.machine.C("Pkg-3.0"),
                    oddPackage = s.machine.C("Pkg & Co 100%!^");
  const std::string gate = s.machine.C("gate"), any = R"([\s\S]*)", id = "[0-9a-f]{64}";
  std::optional<Background> holder, first, fusion;
  const std::vector<Step> steps = {
      {"two runs at once against a held run lock: the second waits for the first",
       [&] { a = stamp(s.package, "1.5");
             EXPECT_EQ(script(s.Win(s.package + "/Quorvane_Deploy.cmd"), {"detect", a}, options, {}).out, "");
             WriteFile(gate, "");
             holder.emplace(s.machine.Start(wine.lockHolder, {s.Win(gate)}));
             ASSERT_TRUE(holder->WaitForOutput("held", 60000));
             const Options line = command(s.Win(s.package + "/Quorvane_Install.cmd"), {}, options);
             first.emplace(s.machine.Start("cmd", Options(line.begin() + 1, line.end())));
             for (int i = 0; i < 600 && !(Exists(log) && ReadFile(log).find("install start") != std::string::npos); ++i) {
               std::this_thread::sleep_for(std::chrono::milliseconds(100));
             } },
       "Install", {}, &options, {}, 1618,
       "Another Quorvane Setup is active" + any + "tool exit 7\n.*install end: exit 1618, elapsed.*\n.*install start: " +
           any + "Another Quorvane Setup is active" + any + "tool exit 7\n", 0},
      {"an account without Fusion is compliant",
       [&] { EXPECT_EQ(exitOf(first->Finish()).exitCode, 1618);
             fs::remove(gate); holder->Finish(); },
       "Install", {}, &noFusion, {}, 0, "no Fusion installation: nothing to install\n.*Recorded payload " + id + " version 1.5", 0},
      {"a transaction fails while Fusion runs: retry later",
       [&] { EXPECT_NE(detect(a, "1.5", noFusion).find(installed(0)), std::string::npos);
             // The same account once a Fusion appears without the add-in.
             EXPECT_EQ(detect(a, "1.5", options), "");
             fs::copy_file(QUORVANE_WINE_PROBE, s.machine.C("Fusion360.exe"));
             fusion.emplace(s.machine.Start(s.Win(s.machine.C("Fusion360.exe")), {}));
             ASSERT_TRUE(fusion->WaitForOutput("up")); },
       "Install", {}, &options, {{"QUORVANE_FAULTS", "MoveFileExW@4=5"}}, 1618,
       "Installed profiles restored.\n" + any + "Fusion is running", 1},
      {"rolled back", [&] { fusion.reset(); },
       "Install", {}, &options, {{"QUORVANE_FAULTS", "MoveFileExW@4=5"}}, 6, "Installed profiles restored.\n", 2},
      {"installed, the failed runs' prepared folders removed", [&] { EXPECT_EQ(detect(a, "1.5", options), ""); },
       "Install", {}, &options, {}, 0,
       "Quorvane installed/updated.\n" + any + "Recorded payload " + id + " version 1.5" + any +
           "Removed .*\\\\prepared: [1-9]\\d* bytes", 1},
      {"logon, nothing to do", [&] { EXPECT_NE(detect(a, "1.5", options).find(installed(2)), std::string::npos);
                                     // The kept copies are plain files, whatever the package's were.
                                     EXPECT_NE(fs::status(mine + "/Kit/Quorvane_Kit.exe").permissions() &
                                                   fs::perms::owner_write, fs::perms::none); },
       "Logon", {}, &options, {}, 0, "is installed; Add-In profiles: 2. Nothing to do.\n", 1},
      {"logon, a profile lost its add-in", [&] { fs::remove_all(s.AddIn(1)); EXPECT_EQ(detect(a, "1.5", options), ""); },
       "Logon", {}, &options, {}, 0, "Quorvane installed/updated.", 2},
      {"payload changed after its stamp", [&] { EXPECT_NE(detect(a, "1.5", options).find(installed(2)), std::string::npos);
                                                MakePackage(s.package, "newer"); },
       "Install", {}, &options, {}, 8, "changed after it was stamped", 2},
      {"a newer payload from the read-only package; the oldest backup pruned",
       [&] { b = stamp(s.package, "2.0"); EXPECT_NE(a, b); EXPECT_EQ(detect(b, "2.0", options), ""); },
       "Install", {}, &options, {}, 0, "Recorded payload " + id + " version 2.0" + any + "Removed .*: [1-9]\\d* bytes", 2},
      {"an older payload after a newer one changes nothing",
       [&] { EXPECT_NE(detect(b, "2.0", options).find(installed(2)), std::string::npos);
             EXPECT_EQ(ReadFile(s.AddIn(0) + "/KELDARO_Quorvane.py"), "newer:KELDARO_Quorvane.py");
             MakePackage(olderPackage, "older");
             older = stamp(olderPackage, "1.0"); },
       "Install", {"/package", s.Win(olderPackage)}, &options, {}, 0,
       "Nothing to do: payload version 1.0 is older than the recorded 2.0", 2},
      {"/package names another stamped folder",
       [&] { EXPECT_NE(detect(older, "1.0", options).find("by the newer payload " + b), std::string::npos);
             MakePackage(newerPackage, "third");
             // A payload holding a link is refused, not followed.
             fs::create_directory_symlink(s.machine.C("E"), newerPackage + "/AddIn/linked");
             const RunResult linked = RunUnderWine(prefix, {kit, "stamp", s.Win(newerPackage), "3.0"});
             EXPECT_EQ(linked.exitCode, 8);
             EXPECT_NE(linked.err.find("A link or junction: " + s.Win(newerPackage + "/AddIn/linked")), std::string::npos);
             fs::remove(newerPackage + "/AddIn/linked");
             newer = stamp(newerPackage, "3.0"); },
       "Install", {"/package", s.Win(newerPackage)}, &options, {}, 0, "Recorded payload " + id + " version 3.0", 2},
      {"& % ! ^ in the package's and the profile's paths",
       [&] { EXPECT_NE(detect(newer, "3.0", options).find(installed(2)), std::string::npos);
             EXPECT_NE(detect(b, "2.0", options).find("by the newer payload " + newer), std::string::npos);
             MakePackage(oddPackage, "odd");
             oddId = stamp(oddPackage, "3.1"); },
       "", {"install", "/package", s.Win(oddPackage)}, &oddProfile, {}, 0,
       "Profile: " + std::regex_replace(s.Win(odd), std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)") + ".*\n" + any +
           "Recorded payload " + id + " version 3.1", 2},
      {"a log past 1 MB is rotated",
       [&] { EXPECT_NE(detect(oddId, "3.1", oddProfile).find(installed(1)), std::string::npos);
             WriteFile(log, ReadFile(log) + std::string(1 << 20, '.') + "\r\n"); },
       "Logon", {}, &options, {}, 0, "older than the recorded 3.1", 2},
      {"uninstall", [&] { EXPECT_GT(fs::file_size(mine + "/Logs/Quorvane_Deploy.1.log"), 1u << 20);
                          EXPECT_LT(fs::file_size(log), 20000u); },
       "Uninstall", {}, &options, {}, 0, "Quorvane uninstalled." + any + "Removed the payload record", 3}};
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    if (step.env.count("QUORVANE_FAULTS") != 0 && !wine.faults) continue;
    step.before();
    const auto lines = [&] { return Exists(log) ? std::regex_replace(ReadFile(log), std::regex("\r"), "") : ""; };
    const std::size_t logged = lines().size();
    // The kit itself: the line cmd would run, without cmd.
    const Options direct = command(s.package + "/Quorvane_Kit.exe", step.args, *step.options);
    const RunResult r =
        step.script.empty()
            ? RunUnderWine(prefix, Options(direct.begin() + 4, direct.end()), step.env, 180000)
            : script(s.Win(s.package + "/Quorvane_" + step.script + ".cmd"), step.args, *step.options, step.env);
    EXPECT_EQ(r.exitCode, step.exit) << r.out << r.err;
    const std::string now = lines();
    const std::string added = now.size() >= logged ? now.substr(logged) : now;
    EXPECT_TRUE(std::regex_search(added, std::regex("(" + step.logged + ")[\\s\\S]*end: exit " +
                                                    std::to_string(step.exit) + R"(, elapsed \d+\.\d{3} s\n$)")))
        << added;
    // Every line names the time, the payload and its version.
    EXPECT_TRUE(std::regex_match(added, std::regex("(" + std::string(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )") +
                                                   R"(\[([0-9a-f]{64}|-) ([0-9.]+|-)\] [^\n]*\n)+)")))
        << added;
    EXPECT_EQ(s.TransactionDirectories(0).size(), step.backups);
  }
  EXPECT_EQ(detect(newer, "3.0", options), "");
  EXPECT_FALSE(Exists(mine + "/Kit"));
  fs::remove_all(mine);
}

}  // namespace
}  // namespace qv::test
