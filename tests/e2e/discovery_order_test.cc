// A running Fusion off the drives is refused where the running entries are
// judged, so the failures of the listing and of the inventory come first.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/scene.h"
#include "support/environment.h"

namespace qv::test {
namespace {

TEST(DiscoveryOrder, ARunningFusionOffTheDrivesHidesNoEarlierFailure) {
  constexpr char kOffDrive[] = "\\\\server\\share\\Fusion\\Fusion360.exe";
  constexpr char kNoApi[] = "C:\\NoApi\\Fusion360.exe";
  constexpr char kUnreadable[] = "C:\\Unreadable\\Fusion360.exe";
  struct Row {
    std::vector<const char*> processes;  // in the order of the process table
    bool malformedInventory;
    std::string error;
  };
  const Row rows[] = {
      {{kOffDrive, kUnreadable}, false, "Cannot read the running Fusion path. Close Fusion normally and retry.\n"},
      {{kOffDrive}, true, "Invalid saved Fusion installation list.\n"},
      {{kNoApi, kOffDrive}, false, std::string("Running Fusion lacks the required Electronics API: ") + kNoApi + "\n"},
      {{kOffDrive, kNoApi}, false,
       std::string("Running Fusion is not on a local drive, so its Add-In profile cannot be used: ") + kOffDrive +
           "\n"},
  };
  std::string own = ReadFile("/proc/self/sessionid");
  const unsigned long session = own.empty() ? 0 : std::stoul(own);
  for (const Row& row : rows) {
    TempDir dir;
    FixturePrefix prefix = MakeFixturePrefix(dir.path());
    WriteFile(prefix.C("NoApi/Fusion360.exe"), "MZ");
    int pid = 500;
    for (const std::string process : row.processes) {
      prefix.AddProcess(pid, process, "Fusion360.exe", ::getuid(), session, "/nonexistent");
      // A process whose status has gone cannot be opened.
      if (process == kUnreadable) ::unlink((prefix.procRoot + "/" + std::to_string(pid) + "/status").c_str());
      ++pid;
    }
    if (row.malformedInventory) {
      WriteFile(prefix.LocalHost() + "/Quorvane/Installation.ini", Utf16LeWithBom(u"[Fusion]\r\nCount=x\r\n"));
    }
    RunResult r = test::Run(NativeTool().binary, {"/status"}, prefix.Env());
    EXPECT_EQ(r.exitCode, 5) << row.error;
    EXPECT_EQ(r.err, row.error);
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace qv::test
