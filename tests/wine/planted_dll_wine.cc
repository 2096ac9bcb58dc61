// A DLL planted beside the program, and what runs before the program's own
// code. version.dll is not one of Windows' KnownDLLs, so Windows looks for it
// in the program's folder first, as Wine does under the override
// version=n,b. With a stand-in there whose functions answer "no version",
// the Windows build, run from that folder, must still print the real version
// of a versioned Fusion360.exe. (Both builds import the same DLLs, all
// KnownDLLs: release.pe.)
//
// The startup runtime (src/startup), in a program of the tests' built with
// it: the stack protector's guard is seeded, differently at each start; a
// version.dll that a C++ constructor loads by its bare name comes from
// System32 although the stand-in lies beside the program; a smashed stack and
// an overrun of a checked memcpy end the process with
// STATUS_STACK_BUFFER_OVERRUN; and both shipped programs stop with exit code
// 10 and say why when the DLL search cannot be limited (through the fault
// point of the windows-dev build).
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "support/scene.h"

namespace qv::test {
namespace {

namespace fs = std::filesystem;

TEST_F(WinePrefix, NothingBesideTheProgramRunsInItsPlace) {
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing);
  QV_SKIP_UNLESS(Exists(QUORVANE_STARTUP_PROBE), "MinGW-w64 is not installed");
  // A Downloads folder on C: (Wine marks the root of Z: as a reparse point),
  // where a stranger left the stand-in version.dll.
  const TempDir downloads(prefix + "/drive_c");
  const std::string windows = "C:\\" + fs::path(downloads.path()).filename().string();
  fs::copy_file(QUORVANE_STAND_IN_VERSION_DLL, downloads / "version.dll");
  const EnvChanges override{{"WINEDLLOVERRIDES", "version=n,b"}};

  const std::string build = downloads / "local/Autodesk/webdeploy/production/b1";
  MakeFusionInstallation(build);
  // The probe carries file version 1.2.3.4.
  fs::copy_file(QUORVANE_WINE_PROBE, build + "/Fusion360.exe", fs::copy_options::overwrite_existing);
  fs::copy_file(wine.binary, downloads / "Quorvane_Setup.exe");
  const RunResult status = RunUnderWine(prefix,
                                        {downloads / "Quorvane_Setup.exe", "/status", "/test-appdata", windows,
                                         "/test-localappdata", windows + "\\local"},
                                        override);
  EXPECT_NE(status.out.find("\nVersion: 1.2.3.4\n"), std::string::npos) << status.out << status.err;

  fs::copy_file(QUORVANE_STARTUP_PROBE, downloads / "startup_probe.exe");
  // cmd gives the whole exit code where wine64 gives its low byte only.
  WriteFile(downloads / "run.cmd", "@cmd /d /c %*\r\n@echo exit=%ERRORLEVEL%\r\n");
  const auto probe = [&](const std::string& mode) {
    return RunUnderWine(prefix, {"cmd", "/d", "/c", windows + "\\run.cmd", windows + "\\startup_probe.exe", mode},
                        override);
  };

  std::set<std::string> guards;
  for (int start = 0; start < 3; ++start) {
    const RunResult r = probe("guard");
    ASSERT_EQ(r.out.size(), 24u) << r.out << r.err;
    EXPECT_EQ(r.out.substr(14), "00\nexit=0\n") << "the guard's low byte ends string copies";
    EXPECT_NE(r.out.substr(0, 16), "2b992ddfa23249d6") << "the guard was never seeded";
    guards.insert(r.out.substr(0, 16));
  }
  EXPECT_EQ(guards.size(), 3u) << "the same guard at two starts";
  EXPECT_EQ(probe("dll").out, "C:\\windows\\system32\\version.dll\nexit=0\n");
  for (const char* mode : {"smash", "overrun"}) {
    const std::string out = probe(mode).out;
    EXPECT_EQ(out.substr(out.rfind("exit=")), "exit=-1073740791\n") << mode << ": " << out;
  }

  QV_SKIP_UNLESS(wine.faults, "The fault points are compiled into the windows-dev preset only");
  for (const std::string& program : {wine.binary, (fs::path(wine.binary).parent_path() / "Quorvane_Kit.exe").string()}) {
    const RunResult r =
        RunUnderWine(prefix, {program, "/status"}, {{"QUORVANE_FAULTS", "SetDefaultDllDirectories@1=87"}});
    EXPECT_EQ(Ended(r), std::make_tuple(10, std::string(),
                                        std::string("The program cannot limit its DLL search to the System32 folder "
                                                    "(error 87); it has stopped without doing anything.\n")))
        << program;
  }
}

}  // namespace
}  // namespace qv::test
