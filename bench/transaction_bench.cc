// An update of 4 profiles, each holding an add-in of 2,000 files and 50 MB,
// from a package of the same size; set beside `cp -a` doing the same copies
// on the same disk. Also how long each profile is without an add-in (between
// its two renames) and the tool's peak memory.
//
//   transaction_bench [files] [megabytes]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench_fixture.h"
#include "bench_support.h"

using namespace qv::bench;

namespace {

int Shell(const std::string& command) { return std::system(command.c_str()); }

std::string Win(const std::string& host) {
  std::string out = "Z:" + host;
  for (char& c : out) {
    if (c == '/') c = '\\';
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const int files = argc > 2 ? std::atoi(argv[2]) : 2000;
  const long long bytes = (argc > 3 ? std::atoll(argv[3]) : 50) * 1024 * 1024;
  Sandbox s = MakeSandbox();
  const std::string local = s.root + "/local";
  const std::string roaming = s.root + "/roaming";
  const std::string package = s.root + "/package";
  MakeDirs(local);
  MakeDirs(roaming);
  MakePackage(package, files, bytes);

  // Four profiles, each named by a saved record of its own installation.
  std::vector<std::string> addIns;
  std::string ini = "\xFF\xFE";
  auto put = [&ini](const std::string& text) {
    for (char c : text) {
      ini.push_back(c);
      ini.push_back('\0');
    }
  };
  put("[Fusion]\r\nCount=4\r\n");
  for (int i = 0; i < 4; ++i) {
    const std::string n = std::to_string(i);
    MakeFusion(s.root + "/fusion" + n);
    const std::string profile = s.root + "/profile" + n;
    addIns.push_back(profile + "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane");
    MakeAddIn(addIns.back(), files, bytes, "old");
    put("Executable" + n + "=" + Win(s.root + "/fusion" + n + "/Fusion360.exe") + "\r\nAppData" + n + "=" +
        Win(profile) + "\r\n");
  }
  WriteFile(local + "/Quorvane/Installation.ini", ini);
  Shell("sync");

  // Rounds of the same copies with cp -a (the old add-in into a new folder,
  // then the package's AddIn and helper over it, for each profile) and of the
  // update, in turn; an update of the updated profiles does the same work
  // again. Each timed run starts after a sync, and nothing is deleted before
  // the last one: on ext4 a mass deletion makes new files slow to create for
  // a minute after, which would weigh on whichever run came next.
  const int rounds = 3;
  std::vector<double> cpMs;
  std::vector<double> toolMs;
  long peakRssKb = 0;
  // For each profile, the longest it was without its add-in in any round.
  std::vector<double> withoutMs;
  for (int round = 0; round < rounds; ++round) {
    Shell("sync");
    Figures f = Time(1, [&] {
      for (int i = 0; i < 4; ++i) {
        const std::string target = s.root + "/cp-prepared" + std::to_string(round) + "-" + std::to_string(i);
        Shell("cp -a '" + addIns[i] + "' '" + target + "' && cp -a '" + package + "/AddIn/.' '" + target +
              "/' && mkdir -p '" + target + "/Bin' && cp -a '" + package + "/Bin/Quorvane_Helper.exe' '" + target +
              "/Bin/'");
      }
    });
    cpMs.push_back(f.minMs);

    Shell("sync");
    const std::string renameLog = s.root + "/renames" + std::to_string(round) + ".log";
    ProcessFigures tool = TimeProcess(
        1, QUORVANE_BINARY, {"/update", "/test-appdata", roaming, "/test-localappdata", local, "/package", package},
        {{"WINEPREFIX", s.prefix},
         {"QUORVANE_PROC_ROOT", s.proc},
         {"LD_PRELOAD", RENAME_TIMER},
         {"QUORVANE_RENAME_LOG", renameLog}});
    if (tool.exitCode != 0) {
      std::fprintf(stderr, "the update failed with code %d\n", tool.exitCode);
      return 1;
    }
    toolMs.push_back(tool.wall.minMs);
    peakRssKb = std::max(peakRssKb, tool.peakRssKb);

    // Each profile's add-in renames: to "before", then "prepared" into place.
    std::ifstream log(renameLog);
    std::vector<std::pair<double, std::string>> renames;
    for (std::string line; std::getline(log, line);) {
      std::istringstream fields(line);
      double time = 0;
      int result = 0;
      fields >> time >> result;
      std::string rest;
      std::getline(fields, rest);
      if (result == 0) renames.emplace_back(time, rest);
    }
    std::size_t profile = 0;
    for (std::size_t i = 0; i + 1 < renames.size(); ++i) {
      if (renames[i].second.find("/before") == std::string::npos) continue;
      if (renames[i + 1].second.find("/prepared ->") == std::string::npos) continue;
      const double ms = (renames[i + 1].first - renames[i].first) * 1000.0;
      if (withoutMs.size() <= profile) withoutMs.push_back(0);
      withoutMs[profile] = std::max(withoutMs[profile], ms);
      ++profile;
    }
  }

  const double cp = *std::min_element(cpMs.begin(), cpMs.end());
  const double update = *std::min_element(toolMs.begin(), toolMs.end());
  std::printf("update of 4 profiles x %d files, %lld MB each; fastest of %d rounds\n", files,
              bytes / (1024 * 1024), rounds);
  std::printf("  cp -a, same copies        %10.1f ms\n", cp);
  std::printf("  Quorvane_Setup /update    %10.1f ms   ratio %.2f   peak RSS %.1f MB\n", update, update / cp,
              peakRssKb / 1024.0);
  std::printf("  rounds (cp, update):");
  for (int round = 0; round < rounds; ++round) std::printf("  %.0f, %.0f", cpMs[round], toolMs[round]);
  std::printf(" ms\n");
  for (double ms : withoutMs) std::printf("  profile without its add-in %9.3f ms (longest of the rounds)\n", ms);
  std::system(("rm -rf " + s.root).c_str());
  return 0;
}
