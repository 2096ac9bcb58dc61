// Read-only files of a package: they travel into the add-in, and the next
// update, which copies over them, still succeeds.
#include <sys/stat.h>
#include <unistd.h>

#include "support/scene.h"

namespace qv::test {
namespace {

class ReadOnlyPackageFiles : public EndToEnd {};

TEST_P(ReadOnlyPackageFiles, InstallThenUpdateOverThem) {
  // As root, Wine gives a file without write bits no read-only attribute.
  QV_SKIP_UNLESS(tool().native() || ::geteuid() != 0, "Wine shows root no read-only files");
  // A package file made read-only, where it lands in the add-in, whether it
  // stays read-only there (the state file is rewritten plain), and the run
  // that meets it read-only in the add-in being built and clears it.
  struct Row {
    std::string packageFile, addInFile;
    bool staysReadOnly;
    std::string clearedBy;
  };
  for (const Row& row : std::vector<Row>{{"AddIn/KELDARO_Quorvane.py", "KELDARO_Quorvane.py", true, "/update"},
                                         {"Bin/Quorvane_Helper.exe", "Bin/Quorvane_Helper.exe", true, "/update"},
                                         {"AddIn/install-state.ini", "install-state.ini", false, "/install"}}) {
    ProfileScene s(tool(), 1, {false});
    const std::string packaged = s.package + "/" + row.packageFile;
    for (const std::string action : {"/install", "/update"}) {
      SCOPED_TRACE(row.packageFile + ", " + action);
      const std::string shipped = "shipped for " + action;
      ::chmod(packaged.c_str(), 0644);
      WriteFile(packaged, shipped);
      ::chmod(packaged.c_str(), 0444);
      // Clearing the attribute is a platform call that can fail like any.
      if (action == row.clearedBy && tool().faults) {
        const TreeSnapshot before = SnapshotTree(s.AddIn(0));
        const RunResult r = s.Tool(action, {{"QUORVANE_FAULTS", "SetFileAttributesW@1=5"}});
        EXPECT_EQ(r.exitCode, 6);
        EXPECT_TRUE(r.err.starts_with("Cannot prepare complete Add-In payload.\n")) << r.err;
        EXPECT_EQ(SnapshotTree(s.AddIn(0)), before);
      }
      ASSERT_EQ(s.Tool(action).exitCode, 0);
      const TreeSnapshot after = SnapshotTree(s.AddIn(0));
      EXPECT_EQ(after.at(row.addInFile), row.staysReadOnly ? shipped : kInstallState);
      struct stat info {};
      ::stat((s.AddIn(0) + "/" + row.addInFile).c_str(), &info);
      EXPECT_TRUE(action != "/install" || ((info.st_mode & 0222) == 0) == row.staysReadOnly);
    }
  }
}

QV_E2E_SUITE(ReadOnlyPackageFiles);

}  // namespace
}  // namespace qv::test
