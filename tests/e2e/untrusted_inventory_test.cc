// A saved inventory that cannot be trusted ends every action with 5, before
// anything is changed. (The reader's other refusals are unit-tested; they
// reach the command line the same way.)
#include "support/scene.h"

namespace qv::test {
namespace {

class UntrustedInventory : public EndToEnd {};

TEST_P(UntrustedInventory, StopsEveryActionBeforeAnyChange) {
  const ProfileScene s(tool(), 2);
  WriteFile(s.InventoryFile(),
            InventoryText({"[Fusion]", "Count=2", "Executable0=C:\\A\\Fusion360.exe", "AppData0=C:\\A"}));
  const TreeSnapshot drive = SnapshotTree(s.machine.C());
  for (const std::string action : {"/status", "/install", "/uninstall"}) {
    const RunResult r = s.Tool(action);
    EXPECT_EQ(r.exitCode, 5) << action;
    EXPECT_EQ(r.out, "") << action;
    EXPECT_EQ(r.err, "Incomplete saved Fusion installation list.\n") << action;
  }
  EXPECT_EQ(SnapshotTree(s.machine.C()), drive);
}

QV_E2E_SUITE(UntrustedInventory);

}  // namespace
}  // namespace qv::test
