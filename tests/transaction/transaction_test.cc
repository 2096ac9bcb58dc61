// The transaction's parts on their own, in-process, against a temporary
// prefix whose C: drive is a folder: the list of profiles, the inventory
// merge, a run with a chosen transaction id, and the failure path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "paths/path_rules.h"
#include "support/scene.h"
#include "support/environment.h"
#include "support/scene.h"
#include "transaction/transaction.h"
#include "transaction/transaction_steps.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::ReadFile;
using test::SnapshotTree;
using test::TreeSnapshot;
using test::WriteFile;

FusionInstallation Installation(const char16_t* executable, const char16_t* appData) {
  return FusionInstallation{executable, appData};
}

TEST(UniqueAddInProfiles, FirstSpellingInOrderOfFirstAppearance) {
  const FusionInstallationList list = {
      Installation(u"C:\\a\\Fusion360.exe", u"C:\\Users\\Ann\\AppData\\Roaming"),
      Installation(u"C:\\b\\Fusion360.exe", u"C:\\P\\PortableData\\Roaming"),
      Installation(u"C:\\c\\Fusion360.exe", u"c:\\USERS\\ann\\appdata\\roaming"),
      Installation(u"C:\\d\\Fusion360.exe", u""),
      // Only A-Z fold: an accented capital is another profile.
      Installation(u"C:\\e\\Fusion360.exe", u"C:\\\u00C9"),
      Installation(u"C:\\f\\Fusion360.exe", u"C:\\\u00E9"),
      Installation(u"", u""),
      Installation(u"C:\\g\\Fusion360.exe", u"C:\\P\\PortableData\\Roaming"),
  };
  EXPECT_EQ(UniqueAddInProfiles(list),
            (std::vector<WString>{u"C:\\Users\\Ann\\AppData\\Roaming", u"C:\\P\\PortableData\\Roaming", u"",
                                  u"C:\\\u00C9", u"C:\\\u00E9"}));
  EXPECT_TRUE(UniqueAddInProfiles({}).empty());
}

TEST(MergeInventory, CurrentEntriesFirstThenSavedOnesForOtherExecutables) {
  const FusionInstallationList current = {Installation(u"C:\\A\\Fusion360.exe", u"C:\\New"),
                                          Installation(u"C:\\B\\Fusion360.exe", u"C:\\New")};
  const FusionInstallationList saved = {
      // The same executable in other ASCII case: current data wins, the
      // saved profile plays no part.
      Installation(u"c:\\a\\FUSION360.EXE", u"C:\\Old"),
      Installation(u"C:\\Gone\\Fusion360.exe", u"C:\\Old"),
      // Twice in the saved list: the first one is kept.
      Installation(u"C:\\Gone\\Fusion360.exe", u"C:\\Other"),
      Installation(u"C:\\\u00C5\\Fusion360.exe", u"C:\\Old"),
      Installation(u"C:\\\u00E5\\Fusion360.exe", u"C:\\Old"),
  };
  const FusionInstallationList merged = MergeInventory(current, saved);
  ASSERT_EQ(merged.size(), 5u);
  EXPECT_EQ(merged[0].executable, u"C:\\A\\Fusion360.exe");
  EXPECT_EQ(merged[0].appData, u"C:\\New");
  EXPECT_EQ(merged[1].executable, u"C:\\B\\Fusion360.exe");
  EXPECT_EQ(merged[2].executable, u"C:\\Gone\\Fusion360.exe");
  EXPECT_EQ(merged[2].appData, u"C:\\Old");
  EXPECT_EQ(merged[3].executable, u"C:\\\u00C5\\Fusion360.exe");
  EXPECT_EQ(merged[4].executable, u"C:\\\u00E5\\Fusion360.exe");
  EXPECT_TRUE(MergeInventory({}, {}).empty());
}

struct Captured {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs `body` in a child process with its standard output and error in
// files, so that what it writes can be compared whole.
Captured RunCaptured(const test::TempDir& dir, const std::function<int()>& body) {
  const std::string outPath = dir / "stdout";
  const std::string errPath = dir / "stderr";
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t child = ::fork();
  if (child == 0) {
    const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (out < 0 || err < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0) ::_exit(100);
    const int code = body();
    std::fflush(stdout);
    std::fflush(stderr);
    ::_exit(code);
  }
  Captured captured;
  int status = 0;
  if (child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status)) captured.exitCode = WEXITSTATUS(status);
  captured.out = ReadFile(outPath);
  captured.err = ReadFile(errPath);
  return captured;
}

// Two profiles C:\A and C:\B with add-ins, a package C:\Pkg and the local
// folder C:\L, on a C: drive of a temporary prefix.
class TransactionRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* old = std::getenv("WINEPREFIX")) savedPrefix_ = old;
    hadPrefix_ = std::getenv("WINEPREFIX") != nullptr;
    MakeDirs(temp_ / "drive_c");
    test::MakeSymlink(temp_ / "drive_c", temp_ / "prefix/dosdevices/c:");
    ::setenv("WINEPREFIX", (temp_ / "prefix").c_str(), 1);
    for (const char* profile : {"A", "B"}) {
      test::MakeInstalledAddIn(Host(std::string(profile) + "/" + kAddIn));
    }
    test::MakePackage(Host("Pkg"));
    MakeDirs(Host("L"));
  }
  void TearDown() override {
    if (hadPrefix_) {
      ::setenv("WINEPREFIX", savedPrefix_.c_str(), 1);
    } else {
      ::unsetenv("WINEPREFIX");
    }
  }

  std::string Host(const std::string& relative) const { return temp_ / ("drive_c/" + relative); }
  static std::string Transaction(const std::string& profile) {
    return profile + "/KELDARO/Quorvane/InstallBackups/77-5";
  }

  Captured Run(const FusionInstallationList& installations, bool uninstall) {
    return RunCaptured(temp_, [&] {
      return RunTransactionWithId(u"C:\\Pkg", u"C:\\L", installations, uninstall, u"77-5");
    });
  }

  static constexpr char kAddIn[] = "Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";
  const FusionInstallationList twoProfiles_ = {Installation(u"C:\\F1\\Fusion360.exe", u"C:\\A"),
                                               Installation(u"C:\\F2\\Fusion360.exe", u"C:\\B"),
                                               Installation(u"C:\\F3\\Fusion360.exe", u"c:\\a")};
  test::TempDir temp_;
  std::string savedPrefix_;
  bool hadPrefix_ = false;
};

TEST_F(TransactionRunTest, ALeftoverTransactionDirectoryIsRefused) {
  // A run of the same process id that fell on the same tick left its
  // directory behind in the second profile.
  MakeDirs(Host(Transaction("B")));
  const TreeSnapshot drive = SnapshotTree(Host(""));
  for (bool uninstall : {false, true}) {
    const Captured r = Run(twoProfiles_, uninstall);
    EXPECT_EQ(r.exitCode, 6);
    EXPECT_EQ(r.out, "");
    // The first profile passed: its line names a directory never made.
    EXPECT_EQ(r.err,
              "Unsafe profile path or backup already exists.\n"
              "Recovery directory: C:\\A\\KELDARO\\Quorvane\\InstallBackups\\77-5\n"
              "Installed profiles restored.\n");
    EXPECT_EQ(SnapshotTree(Host("")), drive);
  }
}

TEST_F(TransactionRunTest, ReportNamesTheAddInAndTheBackupOfEachProfile) {
  const Captured r = Run(twoProfiles_, true);
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "Profile: C:\\A\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane\n"
            "Backup: C:\\A\\KELDARO\\Quorvane\\InstallBackups\\77-5\\before\n"
            "Profile: C:\\B\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane\n"
            "Backup: C:\\B\\KELDARO\\Quorvane\\InstallBackups\\77-5\\before\n");
  EXPECT_FALSE(test::Exists(Host(std::string("A/") + kAddIn)));
  EXPECT_TRUE(test::Exists(Host(Transaction("A") + "/before/KELDARO_Quorvane.manifest")));

  // Nothing to do is a success too, and says nothing.
  const Captured empty = Run({}, true);
  EXPECT_EQ(empty.exitCode, 0);
  EXPECT_EQ(empty.out + empty.err, "");
}

TEST_F(TransactionRunTest, AFailureBeforeAnyRecordPrintsNoRecoveryLine) {
  test::MakeSymlink(Host("L"), Host("L/Quorvane"));
  const Captured r = Run(twoProfiles_, false);
  EXPECT_EQ(r.exitCode, 6);
  EXPECT_EQ(r.err, "Unsafe installation record path.\nInstalled profiles restored.\n");
}

// The failure path on its own, over records whose flags say what happened.
class RollBackTest : public TransactionRunTest {
 protected:
  // Three profiles swapped in full: new add-in in place, old one in before.
  ProfileChangeList SwappedProfiles() {
    ProfileChangeList changes;
    for (const char* profile : {"A", "B", "C"}) {
      const std::string p = profile;
      std::filesystem::remove_all(Host(p + "/" + kAddIn));
      test::MakeInstalledAddIn(Host(p + "/" + kAddIn), "new");
      test::MakeInstalledAddIn(Host(Transaction(p) + "/before"), "old");
      const WString root = u"C:\\" + Utf8ToWide(p);
      ProfileChange change;
      change.addIn = AddInDirectory(FusionInstallation{u"", root});
      change.before = root + u"\\KELDARO\\Quorvane\\InstallBackups\\77-5\\before";
      change.prepared = root + u"\\KELDARO\\Quorvane\\InstallBackups\\77-5\\prepared";
      change.oldMovedAway = true;
      change.newMovedIn = true;
      changes.push_back(change);
    }
    return changes;
  }

  static constexpr char kLines[] =
      "Recovery directory: C:\\C\\KELDARO\\Quorvane\\InstallBackups\\77-5\n"
      "Recovery directory: C:\\B\\KELDARO\\Quorvane\\InstallBackups\\77-5\n"
      "Recovery directory: C:\\A\\KELDARO\\Quorvane\\InstallBackups\\77-5\n";
};

TEST_F(RollBackTest, UndoesEveryProfileFromTheLastToTheFirst) {
  ProfileChangeList changes = SwappedProfiles();
  // The middle profile only had its old add-in moved away.
  std::filesystem::rename(Host(std::string("B/") + kAddIn), Host(Transaction("B") + "/prepared"));
  changes[1].newMovedIn = false;
  const TreeSnapshot old = SnapshotTree(Host(Transaction("A") + "/before"));
  const TreeSnapshot fresh = SnapshotTree(Host(std::string("A/") + kAddIn));

  const Captured r = RunCaptured(temp_, [&] { return RollBack("Cannot save discovered Fusion installations.", changes); });
  EXPECT_EQ(r.exitCode, 6);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, std::string("Cannot save discovered Fusion installations.\n") + kLines + "Installed profiles restored.\n");
  for (const char* profile : {"A", "B", "C"}) {
    const std::string p = profile;
    EXPECT_EQ(SnapshotTree(Host(p + "/" + kAddIn)), old) << p;
    EXPECT_EQ(SnapshotTree(Host(Transaction(p) + "/prepared")), fresh) << p;
    EXPECT_FALSE(test::Exists(Host(Transaction(p) + "/before"))) << p;
  }
}

TEST_F(RollBackTest, AFailedUndoOfTheLastProfileStillUndoesTheOthers) {
  const ProfileChangeList changes = SwappedProfiles();
  // Something sits where the new add-in of C would go back to, so neither of
  // C's renames can succeed.
  MakeDirs(Host(Transaction("C") + "/prepared"));
  const TreeSnapshot old = SnapshotTree(Host(Transaction("A") + "/before"));
  const TreeSnapshot fresh = SnapshotTree(Host(std::string("A/") + kAddIn));

  const Captured r = RunCaptured(temp_, [&] { return RollBack("rename: Access denied.", changes); });
  EXPECT_EQ(r.exitCode, 6);
  EXPECT_EQ(r.err, std::string("rename: Access denied.\n") + kLines +
                       "ROLLBACK INCOMPLETE; inspect recovery directories.\n");
  EXPECT_EQ(SnapshotTree(Host(std::string("C/") + kAddIn)), fresh);
  EXPECT_EQ(SnapshotTree(Host(Transaction("C") + "/before")), old);
  for (const char* profile : {"A", "B"}) {
    const std::string p = profile;
    EXPECT_EQ(SnapshotTree(Host(p + "/" + kAddIn)), old) << p;
    EXPECT_EQ(SnapshotTree(Host(Transaction(p) + "/prepared")), fresh) << p;
  }
}

TEST_F(RollBackTest, RecordsWithoutFlagsOnlyGetTheirLine) {
  ProfileChangeList changes = SwappedProfiles();
  for (ProfileChange& change : changes) change.oldMovedAway = change.newMovedIn = false;
  const TreeSnapshot drive = SnapshotTree(Host(""));
  const Captured r = RunCaptured(temp_, [&] { return RollBack("std::bad_alloc", changes); });
  EXPECT_EQ(r.err, std::string("std::bad_alloc\n") + kLines + "Installed profiles restored.\n");
  EXPECT_EQ(SnapshotTree(Host("")), drive);
  // No record at all: the text and the closing line alone.
  const Captured none = RunCaptured(temp_, [&] { return RollBack("Cannot stage existing profile.", {}); });
  EXPECT_EQ(none.exitCode, 6);
  EXPECT_EQ(none.err, "Cannot stage existing profile.\nInstalled profiles restored.\n");
}

}  // namespace
}  // namespace qv
