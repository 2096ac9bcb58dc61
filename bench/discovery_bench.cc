// Live discovery over a real Wine system.reg with more Uninstall subkeys
// (500 unless told, one in ten of them Fusion, each leading to a complete
// installation) and a process table of 1,000 processes.
//
//   discovery_bench <wine prefix made by wineboot> [keys] [--keep]
//
// The Linux host parses system.reg once for each open from a root and
// answers the calls on the keys below from that parse, so the time grows
// with the size of the file: compare 500 and 2000 keys. With --keep the
// sandbox stays and its prefix and process table are printed, for profiling
// the tool on it by hand.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/environment.h"
#include "support/prefix.h"
#include "support/scene.h"
#include "timing.h"

using namespace qv::bench;
namespace t = qv::test;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <wine prefix made by wineboot> [keys] [--keep]\n", argv[0]);
    return 2;
  }
  std::string systemReg = t::ReadFile(std::string(argv[1]) + "/system.reg");
  if (systemReg.empty()) {
    std::fprintf(stderr, "no system.reg in %s\n", argv[1]);
    return 1;
  }
  const bool keep = std::string(argv[argc - 1]) == "--keep";
  const int keys = argc > 2 && !(argc == 3 && keep) ? std::atoi(argv[2]) : 500;
  if (keep) ::setenv("QUORVANE_KEEP_TEMP", "1", 1);
  const t::TempDir sandbox;
  const t::FixturePrefix prefix = t::MakeFixturePrefix(sandbox.path());
  // The real file names the account that made the prefix, which is the
  // account running the benchmark, so its profile is the sandbox's.
  for (int i = 0; i < keys; ++i) {
    const std::string n = std::to_string(i);
    systemReg += "[Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Uninstall\\\\Bench" + n +
                 "] 1700000000\n#time=1da0000000000000\n";
    if (i % 10 == 0) {
      t::MakeFusionInstallation(prefix.C("Fusion/" + n));
      systemReg += "\"DisplayName\"=\"Autodesk Fusion\"\n\"InstallLocation\"=\"C:\\\\Fusion\\\\" + n + "\"\n";
    } else {
      systemReg += "\"DisplayName\"=\"Other Product " + n + "\"\n\"DisplayIcon\"=\"C:\\\\Program Files\\\\Other" +
                   n + "\\\\app.exe,0\"\n\"InstallLocation\"=\"C:\\\\Program Files\\\\Other" + n + "\"\n";
    }
    systemReg += "\n";
  }
  t::WriteFile(prefix.root + "/system.reg", systemReg);
  t::MakeDirs(prefix.RoamingHost() + "/Autodesk/Autodesk Fusion 360/API");
  for (int pid = 1000; pid < 2000; ++pid) {
    const std::string name = pid % 3 == 0 ? "explorer.exe" : "process" + std::to_string(pid) + ".exe";
    prefix.AddProcess(pid, "C:\\windows\\system32\\" + name, name.substr(0, 15), ::getuid(), 4294967295UL);
  }

  // The sandbox's thousands of new folders are written back first, and two
  // runs go untimed, so the figures are the tool's and not the writeback's.
  ::sync();
  const std::map<std::string, std::string> env{{"WINEPREFIX", prefix.root}, {"QUORVANE_PROC_ROOT", prefix.procRoot}};
  TimeProcess(1, QUORVANE_BINARY, {"/status"}, env);
  ProcessFigures status = TimeProcess(5, QUORVANE_BINARY, {"/status"}, env);
  Print("Quorvane_Setup /status, " + std::to_string(keys) + " more Uninstall keys, 1,000 processes", status);
  if (keep) std::printf("kept: WINEPREFIX=%s QUORVANE_PROC_ROOT=%s\n", prefix.root.c_str(), prefix.procRoot.c_str());
  return status.exitCode == 1 || status.exitCode == 0 ? 0 : 1;
}
