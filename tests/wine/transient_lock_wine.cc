// Quorvane_Setup.exe under wine64 while another program holds a file of the
// run open: a hold that ends within the retries lets the run succeed, one
// that outlasts them fails the run, which then rolls every profile back.
#include <gtest/gtest.h>

#include "support/scene.h"

namespace qv::test {
namespace {

TEST_F(WinePrefix, BriefHoldsAreWaitedOutAndLastingOnesRollBack) {
  QV_SKIP_UNLESS(wine.missing.empty(), wine.missing);
  // Profile 0 is the default one, found in webdeploy; profile 1 comes from
  // the saved inventory and is swapped second.
  for (int i = 0; i < 4; ++i) {
    const ProfileScene s(wine, 2);
    const std::string inventory = s.InventoryFile(), addIn = s.AddIn(1);
    // What is held, the holder's share mode (0 none, 3 read and write), and
    // the Windows pattern after which a brief hold ends. A lasting hold fails
    // the run as any failed call does, which the fault sweeps check at every
    // call.
    const std::tuple<const char*, std::string, int, std::string> cases[] = {
        {"inventory replaced while briefly open", inventory, 3, s.Win(inventory) + ".*.tmp"},
        {"second add-in renamed while briefly open", addIn, 3, s.Win(s.Backups(0)) + "\\*\\before"},
        {"add-in file copied while briefly held unshared", addIn + "/save_policy.py", 0, s.Win(s.Backups(1)) + "\\*"},
        {"second add-in open past the bound", addIn, 3, ""}};
    const auto& [what, held, share, trigger] = cases[i];
    SCOPED_TRACE(what);
    const Before before(s);
    std::vector<std::string> holder{"hold", s.Win(held), std::to_string(share)};
    if (!trigger.empty()) holder.insert(holder.end(), {trigger, "300"});
    Background holding = s.machine.Start(QUORVANE_WINE_PROBE, holder);
    ASSERT_TRUE(holding.WaitForOutput("holding")) << "the probe ended without holding " << held;
    const RunResult r = s.Tool("/install");
    // Both profiles were staged when the run fails.
    if (trigger.empty()) ExpectRolledBack(s, before, r, 2);
    else ExpectCompleted(s, before, r, false);
  }
}

}  // namespace
}  // namespace qv::test
