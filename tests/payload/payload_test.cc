// Building and judging add-ins on a fixture prefix: the payload copy, the
// health test and the uninstall targets. The preparation from a package is
// judged on whole runs (ExpectCompleted), over a scene whose package and
// add-ins hold what it must leave alone or write over.
#include "payload/payload.h"

#include <sys/stat.h>

#include <filesystem>

#include "support/scene.h"

namespace qv::test {
namespace {

using PayloadTest = PrefixCase;

TEST_F(PayloadTest, AnAddInIsCompleteWithItsSevenRegularFiles) {
  EXPECT_FALSE(IsAddInHealthy(Win("nowhere")));
  MakeInstalledAddIn(Host("addIn"));
  WriteFile(Host("addIn/extra.txt"), "x");
  std::vector<std::string> files = kAddInFiles;
  files.push_back("Bin/Quorvane_Helper.exe");
  for (const std::string& name : files) {
    const std::string path = Host("addIn/" + name);
    std::filesystem::rename(path, path + ".away");
    EXPECT_FALSE(IsAddInHealthy(Win("addIn"))) << name;
    MakeDirs(path);
    EXPECT_FALSE(IsAddInHealthy(Win("addIn"))) << name;
    std::filesystem::remove(path);
    std::filesystem::rename(path + ".away", path);
  }
  std::filesystem::rename(Host("addIn/save_policy.py"), Host("addIn/SAVE_POLICY.PY"));
  std::filesystem::rename(Host("addIn/Bin"), Host("addIn/bin"));
  EXPECT_TRUE(IsAddInHealthy(Win("addIn/")));
}

TEST_F(PayloadTest, CopyLaysTheTreeOverTheTargetAndFollowsLinksWithoutEnteringThem) {
  WriteFile(Host("src/a.py"), "new a");
  WriteFile(Host("src/sub/b.py"), "new b");
  MakeDirs(Host("src/sub/empty"));
  WriteFile(Host("elsewhere/folder/inside.txt"), "not to be copied");
  WriteFile(Host("elsewhere/file.txt"), "linked");
  MakeSymlink(Host("elsewhere/folder"), Host("src/toFolder"));
  MakeSymlink(Host("elsewhere/file.txt"), Host("src/toFile.txt"));
  MakeSymlink(Host("elsewhere/nothing"), Host("src/dangling"));
  // A pipe is neither folder nor file: passed over, never opened.
  ASSERT_EQ(::mkfifo(Host("src/pipe").c_str(), 0600), 0);
  WriteFile(Host("dst/a.py"), "old a, longer than the new one");
  WriteFile(Host("dst/keep.txt"), "kept");
  WriteFile(Host("dst/sub/c.py"), "old c");
  const TreeSnapshot expected = {{".", "<dir>"},         {"a.py", "new a"},       {"keep.txt", "kept"},
                                 {"sub", "<dir>"},       {"sub/b.py", "new b"},   {"sub/c.py", "old c"},
                                 {"sub/empty", "<dir>"}, {"toFile.txt", "linked"}, {"toFolder", "<dir>"}};
  for (int pass = 0; pass < 2; ++pass) {  // the second finds everything in place
    WString error = u"untouched";
    ASSERT_TRUE(CopyAddInPayload(Win("src"), Win("dst"), error));
    EXPECT_EQ(error, u"untouched");
    EXPECT_EQ(SnapshotTree(Host("dst")), expected);
  }

  // What stops the copy, with nothing made or overwritten.
  WriteFile(Host("file"), "x");
  WriteFile(Host("dst2/sub"), "a file where the source has a folder");
  MakeDirs(Host("src2/sub"));
  const TreeSnapshot drive = SnapshotTree(Host(""));
  const struct { std::string source, target; WString error; } rows[] = {
      {"file", "out/prepared", u"Package AddIn folder is missing: C:\\file"},
      {"src2", "file", u"Cannot create Add-In directory. Error 183"},
      {"src2", "dst2", u"Cannot copy Add-In payload. Error 183"},
  };
  for (const auto& row : rows) {
    WString error;
    EXPECT_FALSE(CopyAddInPayload(Win(row.source), Win(row.target), error)) << row.source;
    EXPECT_EQ(error, row.error);
  }
  EXPECT_EQ(SnapshotTree(Host("")), drive);
}

TEST_F(PayloadTest, UninstallTakesEachProfileThatHoldsTheManifestOnce) {
  const std::string addIn = "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane";
  for (const std::string profile : {"roaming", "profileB", "profileC"}) MakeInstalledAddIn(Host(profile + addIn));
  MakeDirs(Host("noManifest" + addIn));
  MakeDirs(Host("folderManifest" + addIn + "/KELDARO_Quorvane.manifest"));
  WriteFile(Host("local/Quorvane/Installation.ini"),
            InventoryBytes({{"C:\\gone\\Fusion360.exe", "C:\\vanished"}, {"C:\\b1\\Fusion360.exe", "C:\\profileB"},
                            {"C:\\b2\\Fusion360.exe", "C:\\PROFILEB"}, {"C:\\n\\Fusion360.exe", "C:\\noManifest"},
                            {"C:\\m\\Fusion360.exe", "C:\\folderManifest"}, {"C:\\c\\Fusion360.exe", "C:\\ProfileC"},
                            {"C:\\r\\Fusion360.exe", "C:\\roaming"}}));
  // Discovered: profile C in another case, and a profile without the add-in.
  FusionInstallationList list = {{u"C:\\f\\Fusion360.exe", u"C:\\profilec"}, {u"C:\\x\\Fusion360.exe", u"C:\\x"}};
  WString error = u"untouched";
  ASSERT_TRUE(SelectUninstallTargets(Win("roaming"), Win("local"), list, error));
  EXPECT_EQ(Pairs(list), (RecordPairs{{u"C:\\f\\Fusion360.exe", u"C:\\profilec"}, {u"C:\\x\\Fusion360.exe", u"C:\\x"},
                                      {u"C:\\b1\\Fusion360.exe", u"C:\\profileB"}, {u"C:\\r\\Fusion360.exe", u"C:\\roaming"}}));
  // The run's own profile joins without an executable when no record has it.
  list.clear();
  ASSERT_TRUE(SelectUninstallTargets(Win("profileC"), Win("nolocal"), list, error));
  EXPECT_EQ(Pairs(list), (RecordPairs{{u"", u"C:\\profileC"}}));

  // A folder of no drive-letter form names no profile: the manifest's name
  // alone must not be looked for in the working directory.
  WriteFile(Host("work/KELDARO_Quorvane.manifest"), "stranger");
  const std::filesystem::path saved = std::filesystem::current_path();
  std::filesystem::current_path(Host("work"));
  list.clear();
  EXPECT_TRUE(SelectUninstallTargets(u"roaming", Win("nolocal"), list, error));
  EXPECT_TRUE(SelectUninstallTargets(u"\\\\server\\share\\roaming", Win("nolocal"), list, error));
  std::filesystem::current_path(saved);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(error, u"untouched");
}

}  // namespace
}  // namespace qv::test
