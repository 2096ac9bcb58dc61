// What the plan refuses before anything is written: links on the way to or
// inside an add-in, the package or the inventory, a package that is not one,
// a folder of the add-in's name that is not the add-in's. And an inventory
// that would grow past its limit, which fails after every profile was swapped.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "support/scene.h"

namespace qv::test {
namespace {

constexpr char kRestored[] = "Installed profiles restored.\n";
constexpr char kUnsafeRecord[] = "Unsafe installation record path.";
constexpr char kUnsafePackage[] = "Missing or unsafe package payload.";
constexpr char kUnsafeProfile[] = "Unsafe profile path or backup already exists.";
constexpr char kForeign[] = "Unrecognized existing Add-In directory; nothing overwritten.";

// Runs `action` on a fresh three-profile machine prepared by `spoil`, and
// expects the refusal `message` after `passed` profiles passed their checks,
// with nothing on the C: drive changed.
void ExpectRefused(const std::string& action, const std::function<void(const ProfileScene&)>& spoil,
                   const std::string& message, std::size_t passed) {
  TempDir dir;
  ProfileScene scene(dir.path());
  spoil(scene);
  const TreeSnapshot drive = SnapshotTree(scene.prefix.C());
  RunResult r = scene.Tool(action);
  EXPECT_EQ(r.exitCode, 6) << r.err;
  EXPECT_EQ(r.out, "");
  std::string expected = message + "\n";
  if (passed > 0) {
    // The recovery lines name the transaction directory each passed profile
    // would have had; it was never made.
    const std::string head = expected + "Recovery directory: " + scene.Win(scene.Backups(passed - 1)) + "\\";
    ASSERT_EQ(r.err.rfind(head, 0), 0u) << r.err;
    const std::string id = r.err.substr(head.size(), r.err.find('\n', head.size()) - head.size());
    for (std::size_t i = passed; i-- > 0;) {
      expected += "Recovery directory: " + scene.Win(scene.Backups(i)) + "\\" + id + "\n";
    }
  }
  EXPECT_EQ(r.err, expected + kRestored);
  const TreeSnapshot after = SnapshotTree(scene.prefix.C());
  EXPECT_EQ(after, drive) << DescribeTreeDifference(drive, after);
}

TEST(TransactionRefusal, LinksOnTheWayToOrInsideAnAddIn) {
  for (const std::string action : {"/install", "/uninstall"}) {
    SCOPED_TRACE(action);
    // The second profile's AddIns folder is a link to a real one elsewhere.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          const std::string elsewhere = scene.prefix.C("Elsewhere/AddIns");
          MakeDirs(scene.prefix.C("Elsewhere"));
          ::rename(scene.AddIns(1).c_str(), elsewhere.c_str());
          MakeSymlink(elsewhere, scene.AddIns(1));
        },
        kUnsafeProfile, 1);
    // A link to a file deep inside the third profile's add-in.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          MakeSymlink(scene.AddIn(2) + "/save_policy.py", scene.AddIn(2) + "/Bin/policy-link.py");
        },
        kUnsafeProfile, 2);
    // A dangling link inside the first.
    ExpectRefused(
        action, [](const ProfileScene& scene) { MakeSymlink("/nowhere", scene.AddIn(0) + "/gone"); }, kUnsafeProfile,
        0);
    // The way to the transaction directory runs through a link.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          MakeDirs(scene.prefix.C("Elsewhere/KELDARO"));
          MakeSymlink(scene.prefix.C("Elsewhere/KELDARO"), scene.profiles[1] + "/KELDARO");
        },
        kUnsafeProfile, 1);
  }
}

TEST(TransactionRefusal, APackageThatIsNotOne) {
  ExpectRefused(
      "/install", [](const ProfileScene& scene) { MakeSymlink("/etc/hostname", scene.package + "/AddIn/extra.txt"); },
      kUnsafePackage, 0);
  ExpectRefused(
      "/install",
      [](const ProfileScene& scene) {
        const std::string real = scene.prefix.C("RealAddIn");
        ::rename((scene.package + "/AddIn").c_str(), real.c_str());
        MakeSymlink(real, scene.package + "/AddIn");
      },
      kUnsafePackage, 0);
  ExpectRefused(
      "/install",
      [](const ProfileScene& scene) {
        std::filesystem::remove_all(scene.package + "/AddIn");
        WriteFile(scene.package + "/AddIn", "not a folder");
      },
      kUnsafePackage, 0);
  ExpectRefused(
      "/install", [](const ProfileScene& scene) { ::unlink((scene.package + "/Bin/Quorvane_Helper.exe").c_str()); },
      kUnsafePackage, 0);
  ExpectRefused(
      "/install",
      [](const ProfileScene& scene) {
        ::unlink((scene.package + "/Bin/Quorvane_Helper.exe").c_str());
        MakeDirs(scene.package + "/Bin/Quorvane_Helper.exe");
      },
      kUnsafePackage, 0);

  // An uninstall does not look at the package at all.
  TempDir dir;
  ProfileScene scene(dir.path());
  std::filesystem::remove_all(scene.package);
  RunResult r = scene.Tool("/uninstall");
  EXPECT_EQ(r.exitCode, 0) << r.err;
  for (std::size_t i = 0; i < 3; ++i) EXPECT_FALSE(Exists(scene.AddIn(i)));
}

TEST(TransactionRefusal, LinksOnTheWayToTheInventory) {
  for (const std::string action : {"/install", "/uninstall"}) {
    SCOPED_TRACE(action);
    // The Quorvane folder of the local folder is a link; discovery still
    // reads the inventory through it.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          const std::string real = scene.prefix.C("RealRecord");
          ::rename((scene.local + "/Quorvane").c_str(), real.c_str());
          MakeSymlink(real, (scene.local + "/Quorvane"));
        },
        kUnsafeRecord, 0);
    // The inventory file itself is a link.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          const std::string real = scene.prefix.C("Installation.ini");
          ::rename(scene.InventoryFile().c_str(), real.c_str());
          MakeSymlink(real, scene.InventoryFile());
        },
        kUnsafeRecord, 0);
  }
}

TEST(TransactionRefusal, AFolderOfTheAddInsNameThatIsNotTheAddIns) {
  for (const std::string action : {"/install", "/uninstall"}) {
    SCOPED_TRACE(action);
    ExpectRefused(
        action, [](const ProfileScene& scene) { ::unlink((scene.AddIn(2) + "/KELDARO_Quorvane.manifest").c_str()); },
        kForeign, 2);
    // A manifest that is a folder marks nothing.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          ::unlink((scene.AddIn(1) + "/KELDARO_Quorvane.manifest").c_str());
          MakeDirs(scene.AddIn(1) + "/KELDARO_Quorvane.manifest");
        },
        kForeign, 1);
    // The add-in's name taken by a file.
    ExpectRefused(
        action,
        [](const ProfileScene& scene) {
          std::filesystem::remove_all(scene.AddIn(0));
          WriteFile(scene.AddIn(0), "a file");
        },
        kUnsafeProfile, 0);
  }
}

TEST(TransactionRefusal, AnInventoryPastItsLimitUndoesEveryProfile) {
  TempDir dir;
  ProfileScene scene(dir.path());
  // 128 saved records, the most a file may hold: the two that discovery
  // uses and 126 of installations that are gone. Merged behind the three of
  // this run they make 129, one too many to save.
  std::vector<std::pair<std::string, std::string>> records = {
      {scene.Win(scene.executables[1]), scene.Win(scene.profiles[1])},
      {scene.Win(scene.executables[2]), scene.Win(scene.profiles[2])}};
  for (int i = 0; records.size() < 128; ++i) {
    records.emplace_back("C:\\Gone\\" + std::to_string(i) + "\\Fusion360.exe", scene.Win(scene.roaming));
  }
  WriteFile(scene.InventoryFile(), InventoryBytes(records));
  std::vector<TreeSnapshot> old;
  for (std::size_t i = 0; i < 3; ++i) old.push_back(SnapshotTree(scene.AddIn(i)));
  const std::string inventory = ReadFile(scene.InventoryFile());

  RunResult r = scene.Tool("/install");
  EXPECT_EQ(r.exitCode, 6);
  EXPECT_EQ(r.out, "");
  const std::vector<std::string> ids = scene.TransactionDirectories(0);
  ASSERT_EQ(ids.size(), 1u);
  std::string expected = "Cannot save discovered Fusion installations.\n";
  for (std::size_t i = 3; i-- > 0;) {
    expected += "Recovery directory: " + scene.Win(scene.Backups(i)) + "\\" + ids[0] + "\n";
  }
  EXPECT_EQ(r.err, expected + kRestored);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(SnapshotTree(scene.AddIn(i)), old[i]) << i;
    // The new add-in went back to prepared, whole.
    EXPECT_EQ(SnapshotTree(scene.Backups(i) + "/" + ids[0] + "/prepared"), UpdatedAddIn(old[i])) << i;
    EXPECT_FALSE(Exists(scene.Backups(i) + "/" + ids[0] + "/before")) << i;
  }
  EXPECT_EQ(ReadFile(scene.InventoryFile()), inventory);

  // One record fewer and the same run goes through.
  records.pop_back();
  WriteFile(scene.InventoryFile(), InventoryBytes(records));
  r = scene.Tool("/install");
  EXPECT_EQ(r.exitCode, 0) << r.err;
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(SnapshotTree(scene.AddIn(i)), UpdatedAddIn(old[i])) << i;
}

}  // namespace
}  // namespace qv::test
