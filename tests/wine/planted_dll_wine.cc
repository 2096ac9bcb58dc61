// A DLL planted beside the program. version.dll is not one of Windows'
// KnownDLLs, so Windows looks for it in the program's folder first, as Wine
// does under the override version=n,b. With a stand-in there whose functions
// answer "no version", the Windows build, run from that folder, must still
// print the real version of a versioned Fusion360.exe. (Both builds import
// the same DLLs, all KnownDLLs: release.pe.)
#include <gtest/gtest.h>

#include <filesystem>

#include "support/scene.h"

namespace qv::test {
namespace {

namespace fs = std::filesystem;

TEST_F(WinePrefix, PlantedVersionDllIsNotLoaded) {
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing);
  QV_SKIP_UNLESS(Exists(QUORVANE_STAND_IN_VERSION_DLL), "MinGW-w64 is not installed");
  // A Downloads folder on C: (Wine marks the root of Z: as a reparse point).
  const TempDir downloads(prefix + "/drive_c");
  const std::string windows = "C:\\" + fs::path(downloads.path()).filename().string();
  const std::string build = downloads / "local/Autodesk/webdeploy/production/b1";
  MakeFusionInstallation(build);
  // The probe carries file version 1.2.3.4.
  fs::copy_file(QUORVANE_WINE_PROBE, build + "/Fusion360.exe", fs::copy_options::overwrite_existing);
  fs::copy_file(wine.binary, downloads / "Quorvane_Setup.exe");
  fs::copy_file(QUORVANE_STAND_IN_VERSION_DLL, downloads / "version.dll");
  const RunResult r = RunUnderWine(prefix,
                                   {downloads / "Quorvane_Setup.exe", "/status", "/test-appdata", windows,
                                    "/test-localappdata", windows + "\\local"},
                                   {{"WINEDLLOVERRIDES", "version=n,b"}});
  EXPECT_NE(r.out.find("\nVersion: 1.2.3.4\n"), std::string::npos) << r.out << r.err;
}

}  // namespace
}  // namespace qv::test
