// The cost of starting a run: reading the account's ProfileList entry from a
// real system.reg, and a whole /install on a sandbox with no Fusion (code 5).
//
//   startup_bench <wine prefix made by wineboot>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_support.h"
#include "user/user_folders.h"

using namespace qv::bench;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <wine prefix made by wineboot>\n", argv[0]);
    return 2;
  }
  const std::string prefix = argv[1];
  ::setenv("WINEPREFIX", prefix.c_str(), 1);

  // Each call reads system.reg anew when the file has changed; a new process
  // reads it once. Time the first read in this process, then warm reads.
  qv::WString root;
  Figures first = Time(1, [&] { root = qv::GetProfileRoot(); });
  Print("ProfileList entry, first read of system.reg", first);
  if (root.empty()) {
    std::fprintf(stderr, "no ProfileList entry found in %s/system.reg\n", prefix.c_str());
    return 1;
  }
  Print("ProfileList entry, later reads", Time(50, [&] { root = qv::GetProfileRoot(); }));

  // A whole run on an empty sandbox: the copy of the real prefix's registry
  // with its folders, no Fusion anywhere, an empty process table.
  const std::string proc = MakeTempDir();
  ProcessFigures install =
      TimeProcess(30, QUORVANE_BINARY, {"/install"}, {{"WINEPREFIX", prefix}, {"QUORVANE_PROC_ROOT", proc}});
  Print("Quorvane_Setup /install, no Fusion (exit 5)", install);
  return 0;
}
