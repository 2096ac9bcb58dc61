// An update of 4 profiles, each holding an add-in of 2,000 files and 50 MB,
// from a package of the same size, as users run it: Quorvane_Setup.exe under
// wine64 beside Wine's xcopy making the same copies, and the native build
// beside cp -a. All four work on the same trees, on the C: drive of a Wine
// prefix, so they meet the same disk.
//
//   update_bench <wine prefix made by wineboot> [files] [megabytes]
//
// The .exe is build/windows/Quorvane_Setup.exe of this tree.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "support/environment.h"
#include "support/prefix.h"
#include "support/scene.h"
#include "timing.h"

using namespace qv::bench;
namespace t = qv::test;

namespace {

const std::string kWine = "/usr/lib/wine/wine64";
const std::string kServer = "/usr/lib/wine/wineserver";
constexpr int kProfiles = 4;
constexpr int kRounds = 3;
const std::string kAddInBelowProfile = "Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";

std::string Backslashes(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

// The copies an update makes for one profile: the old add-in into a new
// folder, then the package's AddIn and Bin over it.
std::string CpCopies(const std::string& addIn, const std::string& package, const std::string& target) {
  return "cp -a '" + addIn + "' '" + target + "' && cp -a '" + package + "/AddIn/.' '" + target + "/' && cp -a '" +
         package + "/Bin' '" + target + "/'";
}
std::string XcopyCopies(const std::string& addIn, const std::string& package, const std::string& target) {
  const std::string xcopy = "xcopy /E /I /Q /Y /H /K ";
  return xcopy + addIn + " " + target + " >nul && " + xcopy + package + "\\AddIn " + target + " >nul && " + xcopy +
         package + "\\Bin " + target + "\\Bin >nul";
}

// The fastest of the rounds, failing the benchmark on a run that failed.
struct Contender {
  const char* name;
  std::vector<double> ms;
  long peakRssKb = 0;
  void Add(const ProcessFigures& f) {
    if (f.exitCode != 0) {
      std::fprintf(stderr, "%s ended with %d\n", name, f.exitCode);
      std::exit(1);
    }
    ms.push_back(f.wall.minMs);
    peakRssKb = std::max(peakRssKb, f.peakRssKb);
  }
  double Best() const { return *std::min_element(ms.begin(), ms.end()); }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <wine prefix made by wineboot> [files] [megabytes]\n", argv[0]);
    return 2;
  }
  const std::string prefix = argv[1];
  const int files = argc > 2 ? std::atoi(argv[2]) : 2000;
  const long long bytes = (argc > 3 ? std::atoll(argv[3]) : 50) * 1024 * 1024;
  const std::string exe = std::string(QUORVANE_SOURCE_DIR) + "/build/windows/Quorvane_Setup.exe";
  if (!t::Exists(exe) || !t::Exists(kWine)) {
    std::fprintf(stderr, "needs %s and %s\n", exe.c_str(), kWine.c_str());
    return 1;
  }

  // The sandbox C:\quorvane-test-XXXXXX: a package, and four profiles each
  // named by a saved record of its own installation, every add-in (and the
  // package) of `files` files in all (the seven that make it complete among
  // them) and `bytes` bytes.
  const t::TempDir sandbox(prefix + "/drive_c");
  const std::string winRoot = "C:\\" + sandbox.path().substr(sandbox.path().rfind('/') + 1);
  auto win = [&](const std::string& relative) { return winRoot + "\\" + Backslashes(relative); };
  const int bulk = files - 7;
  t::MakePackage(sandbox / "package", "new");
  t::AddBulkFiles(sandbox / "package/AddIn", bulk, bytes, "new");
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < kProfiles; ++i) {
    const std::string n = std::to_string(i);
    t::MakeFusionInstallation(sandbox / ("fusion" + n));
    t::MakeInstalledAddIn(sandbox / ("profile" + n + "/" + kAddInBelowProfile), "old");
    t::AddBulkFiles(sandbox / ("profile" + n + "/" + kAddInBelowProfile), bulk, bytes, "old");
    records.emplace_back(win("fusion" + n + "/Fusion360.exe"), win("profile" + n));
  }
  t::WriteFile(sandbox / "local/Quorvane/Installation.ini", t::InventoryBytes(records));
  t::MakeDirs(sandbox / "roaming");
  t::MakeDirs(sandbox / "proc");
  const std::vector<std::string> update{"/update", "/test-appdata", win("roaming"), "/test-localappdata",
                                        win("local"),  "/package",      win("package")};

  // One wineserver for every Wine run, its services started before timing.
  const std::map<std::string, std::string> wineEnv{{"WINEPREFIX", prefix}, {"WINEDEBUG", "-all"}};
  TimeProcess(1, kServer, {"-p"}, wineEnv);
  TimeProcess(1, kWine, {"cmd", "/c", "exit"}, wineEnv);

  // Rounds of the four, in turn; an update of updated profiles does the same
  // work again. Each timed run starts after a sync, and nothing is deleted
  // before the end: on ext4 a mass deletion slows the creation of new files
  // for a while, which would weigh on whichever run came next.
  Contender cp{"cp -a", {}}, native{"native /update", {}}, xcopy{"xcopy under Wine", {}},
      wine{".exe /update under Wine", {}};
  for (int round = 0; round < kRounds; ++round) {
    std::string cpScript = "true", xcopyScript = "ver >nul";
    for (int i = 0; i < kProfiles; ++i) {
      const std::string n = std::to_string(i), target = "copies/" + std::to_string(round) + "-" + n;
      t::MakeDirs(sandbox / "copies");
      cpScript += " && " + CpCopies(sandbox / ("profile" + n + "/" + kAddInBelowProfile), sandbox / "package",
                                    sandbox / (target + "-cp"));
      xcopyScript += " && " + XcopyCopies(win("profile" + n + "/" + kAddInBelowProfile), win("package"),
                                          win(target + "-xcopy"));
    }
    ::sync();
    cp.Add(TimeProcess(1, "/bin/sh", {"-c", cpScript}, {}));
    ::sync();
    native.Add(TimeProcess(1, QUORVANE_BINARY, update, {{"WINEPREFIX", prefix}, {"QUORVANE_PROC_ROOT", sandbox / "proc"}}));
    ::sync();
    xcopy.Add(TimeProcess(1, kWine, {"cmd", "/c", xcopyScript}, wineEnv));
    ::sync();
    std::vector<std::string> exeArgs{exe};
    exeArgs.insert(exeArgs.end(), update.begin(), update.end());
    wine.Add(TimeProcess(1, kWine, exeArgs, wineEnv));
  }
  TimeProcess(1, kServer, {"-k"}, wineEnv);

  std::printf("update of %d profiles x %d files, %lld MB each; fastest of %d rounds\n", kProfiles, files,
              bytes / (1024 * 1024), kRounds);
  for (const Contender* c : {&xcopy, &wine, &cp, &native}) {
    std::printf("  %-26s %10.1f ms   peak RSS %6.1f MB   rounds:", c->name, c->Best(), c->peakRssKb / 1024.0);
    for (double ms : c->ms) std::printf(" %.0f", ms);
    std::printf("\n");
  }
  std::printf("  .exe / xcopy  %.2f\n  native / cp -a  %.2f\n", wine.Best() / xcopy.Best(), native.Best() / cp.Best());
  return 0;
}
