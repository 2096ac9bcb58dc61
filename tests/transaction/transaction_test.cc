// What a run of the binary cannot be driven into: profiles and saved records
// that match in ASCII case alone, and a transaction directory that an
// earlier run of the same id left behind.
#include "transaction/transaction.h"

#include "support/scene.h"
#include "transaction/transaction_steps.h"

namespace qv::test {
namespace {

TEST(TransactionLists, ProfilesAndSavedRecordsMatchInAsciiCaseOnlyAndKeepTheirFirstSpelling) {
  const FusionInstallationList installations = {
      {u"C:\\a\\Fusion360.exe", u"C:\\Users\\Ann"}, {u"C:\\b\\Fusion360.exe", u"C:\\P"},
      {u"C:\\c\\Fusion360.exe", u"c:\\USERS\\ann"}, {u"C:\\d\\Fusion360.exe", u""},
      {u"C:\\e\\Fusion360.exe", u"C:\\\u00C9"},      {u"C:\\f\\Fusion360.exe", u"C:\\\u00E9"},
      {u"", u""}};
  EXPECT_EQ(UniqueAddInProfiles(installations),
            (std::vector<WString>{u"C:\\Users\\Ann", u"C:\\P", u"", u"C:\\\u00C9", u"C:\\\u00E9"}));
  // A saved record stays behind the current ones unless the list, its saved
  // records included, already names its executable.
  const FusionInstallationList saved = {{u"c:\\A\\FUSION360.EXE", u"C:\\Old"}, {u"C:\\\u00C5\\Fusion360.exe", u"C:\\Old"},
                                        {u"C:\\\u00C5\\Fusion360.exe", u"C:\\Other"}, {u"C:\\\u00E5\\Fusion360.exe", u"C:\\Old"}};
  EXPECT_EQ(Pairs(MergeInventory({installations[0]}, saved)),
            (RecordPairs{{u"C:\\a\\Fusion360.exe", u"C:\\Users\\Ann"}, {u"C:\\\u00C5\\Fusion360.exe", u"C:\\Old"},
                         {u"C:\\\u00E5\\Fusion360.exe", u"C:\\Old"}}));
}

using TransactionTest = PrefixCase;

TEST_F(TransactionTest, ATransactionDirectoryLeftByARunOfTheSameIdIsRefused) {
  for (const std::string p : {"A", "B"}) MakeInstalledAddIn(Host(p + "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane"));
  MakePackage(Host("Pkg"));
  MakeDirs(Host("B/KELDARO/Quorvane/InstallBackups/77-5"));
  const TreeSnapshot drive = SnapshotTree(Host(""));
  for (bool uninstall : {false, true}) {
    const RunResult r = RunInChild([&] {
      return RunTransactionWithId(u"C:\\Pkg", u"C:\\L",
                                  {{u"C:\\F1\\Fusion360.exe", u"C:\\A"}, {u"C:\\F2\\Fusion360.exe", u"C:\\B"}},
                                  uninstall, u"77-5");
    });
    // The first profile passed: its line names a directory never made.
    EXPECT_EQ(Ended(r), std::make_tuple(6, "",
                                        "Unsafe profile path or backup already exists.\n"
                                        "Recovery directory: C:\\A\\KELDARO\\Quorvane\\InstallBackups\\77-5\n"
                                        "Installed profiles restored.\n"));
    EXPECT_EQ(SnapshotTree(Host("")), drive);
  }
}

}  // namespace
}  // namespace qv::test
