// Successful installs, updates and uninstalls over several profiles, checked
// on the disk.
#include <gtest/gtest.h>

#include "support/profile_scene.h"

namespace qv::test {
namespace {

TEST(TransactionInstall, UpdateOfThreeProfilesKeepsBackupsAndMergesTheInventory) {
  TempDir dir;
  ProfileScene scene(dir.path());
  std::vector<TreeSnapshot> old;
  for (std::size_t i = 0; i < 3; ++i) old.push_back(SnapshotTree(scene.AddIn(i)));

  RunResult r = scene.Tool("/install");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::string expectedOut;
  for (std::size_t i = 0; i < 3; ++i) {
    const std::vector<std::string> ids = scene.TransactionDirectories(i);
    ASSERT_EQ(ids.size(), 1u);
    const std::string transaction = scene.Backups(i) + "/" + ids[0];
    expectedOut += "Profile: " + scene.Win(scene.AddIn(i)) + "\nBackup: " + scene.Win(transaction + "/before") + "\n";
    EXPECT_EQ(SnapshotTree(scene.AddIn(i)), UpdatedAddIn(old[i])) << i;
    EXPECT_EQ(SnapshotTree(transaction + "/before"), old[i]) << i;
    // Only the backup is left in the transaction directory.
    TreeSnapshot rest = SnapshotTree(transaction);
    EXPECT_EQ(rest.count("prepared"), 0u);
  }
  EXPECT_EQ(r.out, expectedOut + "Quorvane installed/updated.\n");
  // The current installations replace the saved records of the same
  // executables; the default one comes first, as discovery listed it.
  EXPECT_EQ(ReadFile(scene.InventoryFolder() + "/Installation.ini"),
            InventoryBytes({{scene.Win(scene.executables[0]), scene.Win(scene.profiles[0])},
                            {scene.Win(scene.executables[1]), scene.Win(scene.profiles[1])},
                            {scene.Win(scene.executables[2]), scene.Win(scene.profiles[2])}}));
}

}  // namespace
}  // namespace qv::test
