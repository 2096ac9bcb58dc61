// Live discovery over a real Wine system.reg with 2,000 more Uninstall
// subkeys (200 of them Fusion, each leading to a complete installation) and a
// process table of 1,000 processes.
//
//   discovery_bench <wine prefix made by wineboot> [--keep]
//
// With --keep the sandbox stays and its prefix and process table are
// printed, for profiling the tool on it by hand.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "bench_fixture.h"
#include "bench_support.h"

using namespace qv::bench;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <wine prefix made by wineboot> [--keep]\n", argv[0]);
    return 2;
  }
  std::ifstream in(std::string(argv[1]) + "/system.reg", std::ios::binary);
  std::stringstream real;
  real << in.rdbuf();
  std::string systemReg = real.str();
  if (systemReg.empty()) {
    std::fprintf(stderr, "no system.reg in %s\n", argv[1]);
    return 1;
  }
  Sandbox s = MakeSandbox("x");
  // The real file names the prefix's own account; point its profile at this
  // sandbox's user folder.
  for (int i = 0; i < 2000; ++i) {
    const std::string n = std::to_string(i);
    systemReg += "[Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Uninstall\\\\Bench" + n +
                 "] 1700000000\n#time=1da0000000000000\n";
    if (i % 10 == 0) {
      MakeFusion(s.C("Fusion/" + n));
      systemReg += "\"DisplayName\"=\"Autodesk Fusion\"\n\"InstallLocation\"=\"C:\\\\Fusion\\\\" + n + "\"\n";
    } else {
      systemReg += "\"DisplayName\"=\"Other Product " + n + "\"\n\"DisplayIcon\"=\"C:\\\\Program Files\\\\Other" +
                   n + "\\\\app.exe,0\"\n\"InstallLocation\"=\"C:\\\\Program Files\\\\Other" + n + "\"\n";
    }
    systemReg += "\n";
  }
  WriteFile(s.prefix + "/system.reg", systemReg);
  // The account's profile as the real prefix names it (C:\users\<its name>).
  MakeDirs(s.C("users/root/AppData/Roaming/Autodesk/Autodesk Fusion 360/API"));
  MakeDirs(s.C("users/root/AppData/Local"));
  MakeDirs(s.C("users/" + s.user + "/AppData/Roaming/Autodesk/Autodesk Fusion 360/API"));

  for (int pid = 1000; pid < 2000; ++pid) {
    const std::string dir = s.proc + "/" + std::to_string(pid);
    const std::string name = pid % 3 == 0 ? "explorer.exe" : "process" + std::to_string(pid) + ".exe";
    WriteFile(dir + "/cmdline", "C:\\windows\\system32\\" + name + std::string(1, '\0'));
    WriteFile(dir + "/comm", name.substr(0, 15) + "\n");
    WriteFile(dir + "/status", "Name:\t" + name + "\nUid:\t0\t0\t0\t0\n");
    WriteFile(dir + "/sessionid", "4294967295");
  }

  // The sandbox's thousands of new folders are written back first, and two
  // runs go untimed, so the figures are the tool's and not the writeback's.
  ::sync();
  const std::map<std::string, std::string> env{{"WINEPREFIX", s.prefix}, {"QUORVANE_PROC_ROOT", s.proc}};
  TimeProcess(2, QUORVANE_BINARY, {"/status"}, env);
  ProcessFigures status = TimeProcess(20, QUORVANE_BINARY, {"/status"}, env);
  Print("Quorvane_Setup /status, 2,000 Uninstall keys, 1,000 processes", status);
  if (argc > 2 && std::string(argv[2]) == "--keep") {
    std::printf("kept: WINEPREFIX=%s QUORVANE_PROC_ROOT=%s\n", s.prefix.c_str(), s.proc.c_str());
  } else {
    std::system(("rm -rf " + s.root).c_str());
  }
  return status.exitCode == 1 || status.exitCode == 0 ? 0 : 1;
}
