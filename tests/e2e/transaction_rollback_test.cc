// The failure path over two and three profiles: what is undone, in which
// order, what each line names, and where the files are when an undo fails.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/scene.h"
#include "support/scene.h"

namespace qv::test {
namespace {

constexpr char kRestored[] = "Installed profiles restored.\n";
constexpr char kIncomplete[] = "ROLLBACK INCOMPLETE; inspect recovery directories.\n";

// The one transaction id of a run, from the directories it left.
std::string TransactionId(const ProfileScene& scene) {
  for (std::size_t i = 0; i < scene.profiles.size(); ++i) {
    const std::vector<std::string> ids = scene.TransactionDirectories(i);
    if (ids.size() == 1) return ids[0];
  }
  return "";
}

std::string RecoveryLine(const ProfileScene& scene, std::size_t i, const std::string& id) {
  return "Recovery directory: " + scene.Win(scene.Backups(i)) + "\\" + id + "\n";
}

// The number of the first call of `operation` whose arguments begin with
// `argumentPrefix`, in a clean install of a machine like `scene`.
int FirstCallOn(const std::string& operation, const std::string& argumentPrefix) {
  TempDir dir;
  ProfileScene scene(dir.path(), 2);
  RunResult r = scene.Tool("/install", {{"QUORVANE_FAULTS_LOG", dir / "calls.log"}});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  for (const LoggedCall& call : ReadCallLog(dir / "calls.log")) {
    if (call.operation == operation && call.arguments.rfind(argumentPrefix, 0) == 0) return call.number;
  }
  return 0;
}

TEST(TransactionRollback, TwoProfilesAreUndoneInReverseOrderWhereverTheRunStops) {
  // The profiles are A (index 0) and B (index 1), each with an add-in.
  const int firstCopyOfB = FirstCallOn("CopyFileW", "C:\\P2\\");
  ASSERT_GT(firstCopyOfB, 1);

  struct Case {
    std::string name;
    std::string faults;
    std::string failure;  // {A}, {B}: add-in of A, B; {A.before} ...: their paths
    bool stagedA;         // A's prepared is complete afterwards
    bool stagedB;
  };
  const std::vector<Case> cases = {
      {"stage of A", "CopyFileW@1=5", "Cannot stage existing profile.", false, false},
      {"stage of B", "CopyFileW@" + std::to_string(firstCopyOfB) + "=5", "Cannot stage existing profile.", true,
       false},
      {"swap of A, old add-in cannot move", "MoveFileExW@1=5", "rename: Access denied.: \"{A}\", \"{A.before}\"",
       true, true},
      {"swap of A, new add-in cannot move in", "MoveFileExW@2=5",
       "rename: Access denied.: \"{A.prepared}\", \"{A}\"", true, true},
      {"swap of B, old add-in cannot move", "MoveFileExW@3=5", "rename: Access denied.: \"{B}\", \"{B.before}\"",
       true, true},
      {"swap of B, new add-in cannot move in", "MoveFileExW@4=5",
       "rename: Access denied.: \"{B.prepared}\", \"{B}\"", true, true},
      {"inventory", "MoveFileExW@5=5", "Cannot save discovered Fusion installations.", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    ProfileScene scene(dir.path(), 2);
    const TreeSnapshot oldA = SnapshotTree(scene.AddIn(0));
    const TreeSnapshot oldB = SnapshotTree(scene.AddIn(1));
    const std::string inventory = ReadFile(scene.InventoryFile());

    RunResult r = scene.Tool("/install", {{"QUORVANE_FAULTS", c.faults}});
    EXPECT_EQ(r.exitCode, 6);
    EXPECT_EQ(r.out, "");
    const std::string id = TransactionId(scene);
    ASSERT_NE(id, "");
    std::string failure = c.failure;
    const std::vector<std::pair<std::string, std::string>> names = {
        {"{A}", scene.AddIn(0)},
        {"{B}", scene.AddIn(1)},
        {"{A.before}", scene.Backups(0) + "/" + id + "/before"},
        {"{B.before}", scene.Backups(1) + "/" + id + "/before"},
        {"{A.prepared}", scene.Backups(0) + "/" + id + "/prepared"},
        {"{B.prepared}", scene.Backups(1) + "/" + id + "/prepared"}};
    for (const auto& [name, path] : names) {
      const std::size_t at = failure.find(name);
      if (at != std::string::npos) failure.replace(at, name.size(), scene.Win(path));
    }
    EXPECT_EQ(r.err, failure + "\n" + RecoveryLine(scene, 1, id) + RecoveryLine(scene, 0, id) + kRestored);

    // Every add-in as it was, no backup left, the inventory untouched; what
    // was built stays in prepared, complete where its stage had finished.
    EXPECT_EQ(SnapshotTree(scene.AddIn(0)), oldA);
    EXPECT_EQ(SnapshotTree(scene.AddIn(1)), oldB);
    EXPECT_EQ(ReadFile(scene.InventoryFile()), inventory);
    for (std::size_t i = 0; i < 2; ++i) EXPECT_FALSE(Exists(scene.Backups(i) + "/" + id + "/before")) << i;
    const TreeSnapshot preparedA = SnapshotTree(scene.Backups(0) + "/" + id + "/prepared");
    const TreeSnapshot preparedB = SnapshotTree(scene.Backups(1) + "/" + id + "/prepared");
    if (c.stagedA) {
      EXPECT_EQ(preparedA, UpdatedAddIn(oldA));
    } else {
      EXPECT_NE(preparedA, UpdatedAddIn(oldA));
    }
    if (c.stagedB) {
      EXPECT_EQ(preparedB, UpdatedAddIn(oldB));
    } else {
      EXPECT_NE(preparedB, UpdatedAddIn(oldB));
      // B's stage had not begun when A's failed.
      EXPECT_EQ(Exists(scene.Backups(1) + "/" + id), c.stagedA);
    }

    // A retry under a new transaction id starts clean and succeeds.
    RunResult retry = scene.Tool("/install");
    EXPECT_EQ(retry.exitCode, 0) << retry.err;
    EXPECT_EQ(SnapshotTree(scene.AddIn(0)), UpdatedAddIn(oldA));
    EXPECT_EQ(SnapshotTree(scene.AddIn(1)), UpdatedAddIn(oldB));
  }
}

TEST(TransactionRollback, APlanRefusalPrintsOnlyTheProfilesThatPassed) {
  for (std::size_t foreign = 0; foreign < 2; ++foreign) {
    SCOPED_TRACE(foreign);
    TempDir dir;
    ProfileScene scene(dir.path(), 2);
    // An add-in folder without the manifest is someone else's.
    ::unlink((scene.AddIn(foreign) + "/KELDARO_Quorvane.manifest").c_str());
    const TreeSnapshot drive = SnapshotTree(scene.prefix.C());
    RunResult r = scene.Tool("/install");
    EXPECT_EQ(r.exitCode, 6);
    std::string expected = "Unrecognized existing Add-In directory; nothing overwritten.\n";
    if (foreign == 1) {
      // A passed; its line names a directory that was never made.
      const std::string head = expected + "Recovery directory: " + scene.Win(scene.Backups(0)) + "\\";
      ASSERT_EQ(r.err.rfind(head, 0), 0u) << r.err;
      const std::string id = r.err.substr(head.size(), r.err.find('\n', head.size()) - head.size());
      EXPECT_EQ(r.err, expected + RecoveryLine(scene, 0, id) + kRestored);
      EXPECT_FALSE(Exists(scene.Backups(0) + "/" + id));
    } else {
      EXPECT_EQ(r.err, expected + kRestored);
    }
    EXPECT_EQ(SnapshotTree(scene.prefix.C()), drive);
  }
}

// The inventory's rename fails, and so does one rename of the undo: the walk
// goes on with the other steps and profiles, and every file is where the
// rules say.
TEST(TransactionRollback, AFailedUndoLeavesEachAddInInANamedPlace) {
  // Six renames of the swap, the inventory's, then the undo: profile 2's two
  // steps, then profile 1's, then profile 0's.
  for (int undo = 0; undo < 6; ++undo) {
    SCOPED_TRACE(undo);
    TempDir dir;
    ProfileScene scene(dir.path(), 3);
    std::vector<TreeSnapshot> old;
    for (std::size_t i = 0; i < 3; ++i) old.push_back(SnapshotTree(scene.AddIn(i)));
    const std::string inventory = ReadFile(scene.InventoryFile());

    RunResult r = scene.Tool("/install", {{"QUORVANE_FAULTS", "MoveFileExW@7=5,MoveFileExW@" + std::to_string(8 + undo) + "=5"}});
    EXPECT_EQ(r.exitCode, 6);
    const std::string id = TransactionId(scene);
    ASSERT_NE(id, "");
    EXPECT_EQ(r.err, "Cannot save discovered Fusion installations.\n" + RecoveryLine(scene, 2, id) +
                         RecoveryLine(scene, 1, id) + RecoveryLine(scene, 0, id) + kIncomplete);
    EXPECT_EQ(ReadFile(scene.InventoryFile()), inventory);

    const std::size_t broken = 2 - static_cast<std::size_t>(undo / 2);
    const bool newAddInStuck = undo % 2 == 0;
    for (std::size_t i = 0; i < 3; ++i) {
      const std::string transaction = scene.Backups(i) + "/" + id;
      const TreeSnapshot addIn = SnapshotTree(scene.AddIn(i));
      const TreeSnapshot before = SnapshotTree(transaction + "/before");
      const TreeSnapshot prepared = SnapshotTree(transaction + "/prepared");
      if (i != broken) {
        EXPECT_EQ(addIn, old[i]) << i;
        EXPECT_TRUE(before.empty()) << i;
        EXPECT_EQ(prepared, UpdatedAddIn(old[i])) << i;
      } else if (newAddInStuck) {
        // The new add-in could not leave, so the old one could not return.
        EXPECT_EQ(addIn, UpdatedAddIn(old[i])) << i;
        EXPECT_EQ(before, old[i]) << i;
        EXPECT_TRUE(prepared.empty()) << i;
      } else {
        EXPECT_TRUE(addIn.empty()) << i;
        EXPECT_EQ(before, old[i]) << i;
        EXPECT_EQ(prepared, UpdatedAddIn(old[i])) << i;
      }
    }
  }
}

}  // namespace
}  // namespace qv::test
