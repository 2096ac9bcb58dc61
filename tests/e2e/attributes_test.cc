// Read-only files of a package: they travel into the add-in, and the next
// update, which copies over them, still succeeds.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/scene.h"

namespace qv::test {
namespace {

bool IsReadOnly(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && (st.st_mode & 0222) == 0;
}

TEST(ReadOnlyPackageFiles, InstallThenUpdateOverThem) {
  // A package file made read-only, where it lands in the add-in, whether it
  // stays read-only there (the state file is rewritten plain), and the run
  // that meets it read-only in the add-in being built and clears it.
  struct Row {
    std::string packageFile;
    std::string addInFile;
    bool staysReadOnly;
    std::string clearedBy;
  };
  const Row rows[] = {
      {"AddIn/KELDARO_Quorvane.py", "KELDARO_Quorvane.py", true, "/update"},
      {"AddIn/sub/notes.txt", "sub/notes.txt", true, "/update"},
      {"Bin/Quorvane_Helper.exe", "Bin/Quorvane_Helper.exe", true, "/update"},
      {"AddIn/install-state.ini", "install-state.ini", false, "/install"},
  };
  for (const Row& row : rows) {
    TempDir dir;
    ProfileScene scene(dir.path(), 1, {false});
    const std::string packaged = scene.package + "/" + row.packageFile;
    for (const std::string action : {"/install", "/update"}) {
      const std::string shipped = "shipped for " + action;
      ::chmod(packaged.c_str(), 0644);
      WriteFile(packaged, shipped);
      ::chmod(packaged.c_str(), 0444);
      const std::string where = row.packageFile + ", " + action;

      // Clearing the attribute is a platform call that can fail like any.
      if (action == row.clearedBy) {
        const TreeSnapshot before = SnapshotTree(scene.AddIn(0));
        RunResult r = scene.Tool(action, {{"QUORVANE_FAULTS", "SetFileAttributesW@1=5"}});
        EXPECT_EQ(r.exitCode, 6) << where;
        EXPECT_EQ(r.err.rfind("Cannot prepare complete Add-In payload.\n", 0), 0u) << where << "\n" << r.err;
        EXPECT_EQ(SnapshotTree(scene.AddIn(0)), before) << where;
      }

      RunResult r = scene.Tool(action);
      ASSERT_EQ(r.exitCode, 0) << where << "\n" << r.err;
      const TreeSnapshot after = SnapshotTree(scene.AddIn(0));
      EXPECT_TRUE(IsHealthyTree(after)) << where;
      EXPECT_EQ(after.at(row.addInFile), row.staysReadOnly ? shipped : "[Installation]\r\nVersion=0.1.8\r\n")
          << where;
      if (action == "/install") {
        EXPECT_EQ(IsReadOnly(scene.AddIn(0) + "/" + row.addInFile), row.staysReadOnly) << where;
      }
    }
  }
}

}  // namespace
}  // namespace qv::test
