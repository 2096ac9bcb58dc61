// Successful installs, updates and uninstalls over several profiles, checked
// on the disk.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/scene.h"

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
  EXPECT_EQ(ReadFile((scene.local + "/Quorvane") + "/Installation.ini"),
            InventoryBytes({{scene.Win(scene.executables[0]), scene.Win(scene.profiles[0])},
                            {scene.Win(scene.executables[1]), scene.Win(scene.profiles[1])},
                            {scene.Win(scene.executables[2]), scene.Win(scene.profiles[2])}}));
}

TEST(TransactionInstall, FirstInstallationBesideAnUpdateAndAnUninstallBesideAnEmptyProfile) {
  TempDir dir;
  // The second profile has no add-in and not even an AddIns folder.
  ProfileScene scene(dir.path(), 2, {true, false});
  std::filesystem::remove_all(scene.AddIns(1));
  const TreeSnapshot old = SnapshotTree(scene.AddIn(0));

  RunResult r = scene.Tool("/install");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::vector<std::string> ids = scene.TransactionDirectories(1);
  ASSERT_EQ(ids.size(), 1u);
  const std::string transaction = scene.Backups(1) + "/" + ids[0];
  // The backup line names a folder that never came into being, and the
  // transaction directory of a first installation is left empty.
  EXPECT_NE(r.out.find("Backup: " + scene.Win(transaction + "/before") + "\n"), std::string::npos) << r.out;
  EXPECT_EQ(SnapshotTree(transaction), TreeSnapshot({{".", "<dir>"}}));
  EXPECT_EQ(SnapshotTree(scene.AddIn(1)), UpdatedAddIn({}));
  EXPECT_EQ(SnapshotTree(scene.AddIn(0)), UpdatedAddIn(old));

  // Uninstall, with the first profile now empty: nothing moves there, both
  // are reported, and the inventory stays as the install left it.
  std::filesystem::remove_all(scene.AddIn(0));
  const TreeSnapshot installed = SnapshotTree(scene.AddIn(1));
  const std::string inventory = ReadFile(scene.InventoryFile());
  r = scene.Tool("/uninstall");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string report;
  for (std::size_t i = 0; i < 2; ++i) {
    const std::vector<std::string> all = scene.TransactionDirectories(i);
    ASSERT_EQ(all.size(), 2u) << i;
    const std::string latest = all[0] == ids[0] ? all[1] : all[0];
    report += "Profile: " + scene.Win(scene.AddIn(i)) + "\nBackup: " + scene.Win(scene.Backups(i) + "/" + latest + "/before") + "\n";
    EXPECT_FALSE(Exists(scene.AddIn(i))) << i;
    if (i == 0) EXPECT_EQ(SnapshotTree(scene.Backups(i) + "/" + latest), TreeSnapshot({{".", "<dir>"}}));
    if (i == 1) EXPECT_EQ(SnapshotTree(scene.Backups(i) + "/" + latest + "/before"), installed);
  }
  EXPECT_EQ(r.out, report + "Quorvane uninstalled. Settings and ODB++ outputs preserved.\n");
  EXPECT_EQ(ReadFile(scene.InventoryFile()), inventory);
}

}  // namespace
}  // namespace qv::test
