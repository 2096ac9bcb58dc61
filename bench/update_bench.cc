// An update of 4 profiles, each holding an add-in of 2,000 files and 50 MB,
// from a package of the same size, as users run it: Quorvane_Setup.exe under
// wine64 beside the floor (copy_floor.exe, the same copies with
// FindFirstFileW, CreateDirectoryW and CopyFileW alone) and Wine's xcopy
// making the same copies, and the native build beside cp -a. All work on the
// same trees, on the C: drive of a Wine prefix, so they meet the same disk
// (a prefix in /dev/shm leaves the disk out, and the calls count the more).
// Without sizes it runs 2,000 files / 50 MB, then 300 files / 10 MB.
//
//   update_bench <wine prefix made by wineboot> [files megabytes]...
//
// The .exe is build/windows/Quorvane_Setup.exe of this tree. With
// QUORVANE_BENCH_BASELINE_EXE set to another build of it (an older
// commit's), that one takes its turns as well.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
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
constexpr int kRounds = 11;
const std::string kExe = std::string(QUORVANE_SOURCE_DIR) + "/build/windows/Quorvane_Setup.exe";
const std::string kFloor = QUORVANE_COPY_FLOOR;
const std::string kAddInBelowProfile = "Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";

// `files` more files of `bytes` bytes in all below `folder`, in folders of
// 100 as a real add-in's resources lie, each tagged with `tag`: an add-in or a
// package of real size.
void AddBulkFiles(const std::string& folder, int files, long long bytes, const std::string& tag) {
  const std::size_t each = files > 0 ? static_cast<std::size_t>(bytes / files) : 0;
  for (int i = 0; i < files; ++i) {
    t::WriteFile(folder + "/lib/part" + std::to_string(i / 100) + "/file" + std::to_string(i) + ".dat",
                 std::string(each, static_cast<char>('a' + i % 26)) + tag);
  }
}

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
// Lines of a batch file. The add-in's path holds blanks ("Autodesk Fusion
// 360"): every path is quoted, or xcopy takes its first word for the source.
std::string XcopyCopies(const std::string& addIn, const std::string& package, const std::string& target) {
  const auto copy = [](const std::string& from, const std::string& to) {
    return "xcopy /E /I /Q /Y /H /K \"" + from + "\" \"" + to + "\" >nul\r\nif errorlevel 1 exit /b 1\r\n";
  };
  return copy(addIn, target) + copy(package + "\\AddIn", target) + copy(package + "\\Bin", target + "\\Bin");
}

double MedianOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// One contender's times over the rounds, failing the benchmark on a run
// that failed.
struct Contender {
  const char* name;
  std::vector<double> ms = {};
  long peakRssKb = 0;
  void Add(const ProcessFigures& f) {
    if (f.exitCode != 0) {
      std::fprintf(stderr, "%s ended with %d\n", name, f.exitCode);
      std::exit(1);
    }
    ms.push_back(f.wall.minMs);
    peakRssKb = std::max(peakRssKb, f.peakRssKb);
  }
  double Median() const { return MedianOf(ms); }
};

// The median of `a`'s times over `b`'s, round by round: the two ran close
// together, so work that comes and goes on the machine weighs on both.
double Ratio(const Contender& a, const Contender& b) {
  std::vector<double> ratios;
  for (std::size_t r = 0; r < a.ms.size() && r < b.ms.size(); ++r) ratios.push_back(a.ms[r] / b.ms[r]);
  return MedianOf(ratios);
}

// The update at one size, every contender once per round, the first of each
// round taking turns: a machine shared with other work slows all of them
// alike, and the ratios of each round are compared.
void RunSize(const std::string& prefix, const std::string& baselineExe, int files, long long megabytes) {
  const long long bytes = megabytes * 1024 * 1024;
  // The sandbox C:\quorvane-test-XXXXXX: a package, and four profiles each
  // named by a saved record of its own installation, every add-in (and the
  // package) of `files` files in all (the seven that make it complete among
  // them) and `bytes` bytes.
  const t::TempDir sandbox(prefix + "/drive_c");
  const std::string winRoot = "C:\\" + sandbox.path().substr(sandbox.path().rfind('/') + 1);
  auto win = [&](const std::string& relative) { return winRoot + "\\" + Backslashes(relative); };
  const int bulk = files - 7;
  t::MakePackage(sandbox / "package", "new");
  AddBulkFiles(sandbox / "package/AddIn", bulk, bytes, "new");
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < kProfiles; ++i) {
    const std::string n = std::to_string(i);
    t::MakeFusionInstallation(sandbox / ("fusion" + n));
    t::MakeInstalledAddIn(sandbox / ("profile" + n + "/" + kAddInBelowProfile), "old");
    AddBulkFiles(sandbox / ("profile" + n + "/" + kAddInBelowProfile), bulk, bytes, "old");
    records.emplace_back(win("fusion" + n + "/Fusion360.exe"), win("profile" + n));
  }
  t::WriteFile(sandbox / "local/Quorvane/Installation.ini", t::InventoryBytes(records));
  t::MakeDirs(sandbox / "roaming");
  t::MakeDirs(sandbox / "proc");
  t::MakeDirs(sandbox / "copies");
  const std::vector<std::string> update{"/update", "/test-appdata", win("roaming"), "/test-localappdata",
                                        win("local"),  "/package",      win("package")};
  const std::map<std::string, std::string> wineEnv{{"WINEPREFIX", prefix}, {"WINEDEBUG", "-all"}};

  // One update before the rounds, so that every round copies the same trees:
  // an update of updated profiles does the same work again. Each timed run
  // starts after a sync. What a round made is counted, then deleted, so that
  // a prefix in memory (/dev/shm) holds one round at a time; on ext4 a mass
  // deletion slows the creation of new files for a while, which weighs on
  // whichever run comes first in the next round, a different one each time.
  Contender floor{"floor under Wine"}, xcopy{"xcopy under Wine"}, wine{".exe /update under Wine"},
      baseline{"baseline .exe /update"}, cp{"cp -a"}, native{"native /update"};
  const std::map<std::string, std::string> nativeEnv{{"WINEPREFIX", prefix}, {"QUORVANE_PROC_ROOT", sandbox / "proc"}};
  native.Add(TimeProcess(1, QUORVANE_BINARY, update, nativeEnv));
  native.ms.clear();
  const auto updateBy = [&](const std::string& exe) {
    std::vector<std::string> args{exe};
    args.insert(args.end(), update.begin(), update.end());
    return TimeProcess(1, kWine, args, wineEnv);
  };
  for (int round = 0; round < kRounds; ++round) {
    std::string cpScript = "true", xcopyScript = "@echo off\r\n";
    std::vector<std::string> floorArgs{kFloor};
    // Each copy goes to a folder as deep below the drive as the tool's
    // prepared folder: Wine looks up every element of a path that does not
    // exist yet, so a shallower target would make every file cheaper.
    const auto target = [&](const std::string& contender, int i) {
      const std::string parent = "copies/" + contender + "-" + std::to_string(i) + "/KELDARO/Quorvane/InstallBackups";
      t::MakeDirs(sandbox / parent);
      return parent + "/prepared";
    };
    for (int i = 0; i < kProfiles; ++i) {
      const std::string addIn = "profile" + std::to_string(i) + "/" + kAddInBelowProfile;
      cpScript += " && " + CpCopies(sandbox / addIn, sandbox / "package", sandbox / target("cp", i));
      xcopyScript += XcopyCopies(win(addIn), win("package"), win(target("xcopy", i)));
      const std::string floorTarget = win(target("floor", i));
      floorArgs.insert(floorArgs.end(), {win(addIn), floorTarget, win("package/AddIn"), floorTarget,
                                         win("package/Bin"), floorTarget + "\\Bin"});
    }
    t::WriteFile(sandbox / "xcopy.cmd", xcopyScript);
    // In a ring, so that the .exe runs beside the floor and the baseline.
    std::vector<std::function<void()>> runs = {
        [&] { floor.Add(TimeProcess(1, kWine, floorArgs, wineEnv)); },
        [&] { wine.Add(updateBy(kExe)); },
        [&] {
          // Wine's xcopy now and then ends with 1 ("no files found") over a
          // tree it copies the next time: that run is made once more.
          ProcessFigures run = TimeProcess(1, kWine, {"cmd", "/c", win("xcopy.cmd")}, wineEnv);
          if (run.exitCode == 1) run = TimeProcess(1, kWine, {"cmd", "/c", win("xcopy.cmd")}, wineEnv);
          xcopy.Add(run);
        },
        [&] { cp.Add(TimeProcess(1, "/bin/sh", {"-c", cpScript}, {})); },
        [&] { native.Add(TimeProcess(1, QUORVANE_BINARY, update, nativeEnv)); },
    };
    if (!baselineExe.empty()) runs.insert(runs.begin() + 2, [&] { baseline.Add(updateBy(baselineExe)); });
    for (std::size_t k = 0; k < runs.size(); ++k) {
      ::sync();
      runs[(round + k) % runs.size()]();
    }

    // A contender that copied less than the whole would look fast: every copy
    // must hold the updated add-in's files (its install-state.ini among them).
    for (const auto& copy : std::filesystem::directory_iterator(sandbox / "copies")) {
      const auto all = std::filesystem::recursive_directory_iterator(copy.path());
      const auto copied = std::count_if(begin(all), end(all), [](const auto& e) { return e.is_regular_file(); });
      if (copied != files + 1) {
        std::fprintf(stderr, "%s holds %ld files, not %d\n", copy.path().c_str(), static_cast<long>(copied), files + 1);
        std::exit(1);
      }
      std::filesystem::remove_all(copy.path());
    }
    for (int i = 0; i < kProfiles; ++i) {
      std::filesystem::remove_all(sandbox / ("profile" + std::to_string(i) + "/KELDARO/Quorvane/InstallBackups"));
    }
  }

  std::printf("update of %d profiles x %d files, %lld MB each; median of %d rounds\n", kProfiles, files, megabytes,
              kRounds);
  for (const Contender* c : {&floor, &xcopy, &wine, &baseline, &cp, &native}) {
    if (c->ms.empty()) continue;
    std::printf("  %-26s %10.1f ms   peak RSS %6.1f MB   rounds:", c->name, c->Median(), c->peakRssKb / 1024.0);
    for (double ms : c->ms) std::printf(" %.0f", ms);
    std::printf("\n");
  }
  std::printf("  median of the rounds' ratios:\n  .exe / floor  %.3f\n  .exe / xcopy  %.3f\n", Ratio(wine, floor),
              Ratio(wine, xcopy));
  if (!baseline.ms.empty()) {
    std::printf("  baseline / floor  %.3f\n  baseline / xcopy  %.3f\n", Ratio(baseline, floor), Ratio(baseline, xcopy));
  }
  std::printf("  native / cp -a  %.3f\n", Ratio(native, cp));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc % 2 != 0) {
    std::fprintf(stderr, "usage: %s <wine prefix made by wineboot> [files megabytes]...\n", argv[0]);
    return 2;
  }
  for (const std::string& needed : {kExe, kFloor, kWine}) {
    if (!t::Exists(needed)) {
      std::fprintf(stderr, "needs %s\n", needed.c_str());
      return 1;
    }
  }
  std::vector<std::pair<int, long long>> sizes;
  for (int i = 2; i + 1 < argc; i += 2) sizes.emplace_back(std::atoi(argv[i]), std::atoll(argv[i + 1]));
  if (sizes.empty()) sizes = {{2000, 50}, {300, 10}};

  // One wineserver for every Wine run, its services started before timing.
  const std::map<std::string, std::string> wineEnv{{"WINEPREFIX", argv[1]}, {"WINEDEBUG", "-all"}};
  TimeProcess(1, kServer, {"-p"}, wineEnv);
  TimeProcess(1, kWine, {"cmd", "/c", "exit"}, wineEnv);
  // Another build of the .exe (an older commit's) to set beside this one.
  const char* baseline = std::getenv("QUORVANE_BENCH_BASELINE_EXE");
  for (const auto& [files, megabytes] : sizes) RunSize(argv[1], baseline ? baseline : "", files, megabytes);
  TimeProcess(1, kServer, {"-k"}, wineEnv);
  return 0;
}
