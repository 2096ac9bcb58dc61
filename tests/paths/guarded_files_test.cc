// The guarded file operations and the directory walk against real folders
// and real symbolic links on a fixture prefix.
#include "paths/guarded_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "paths/directory_walk.h"
#include "paths/failure.h"
#include "payload/payload.h"
#include "support/prefix.h"

namespace qv::test {
namespace {

using GuardedFilesTest = PrefixCase;

// The walk's entries as "relative>path", with " reparse" on a reparse point,
// in the walk's order; the walk's closing code in `error`.
std::vector<std::string> WalkAll(const WString& root, std::uint32_t& error) {
  std::vector<std::string> seen;
  DirectoryWalk walk;
  for (bool on = OpenWalk(root, walk, error); on; on = AdvanceWalk(walk, error)) {
    const bool reparse = (walk.entry.attributes & platform::kFileAttributeReparsePoint) != 0;
    seen.push_back(WideToUtf8(walk.entry.relative + u">" + walk.entry.path) + (reparse ? " reparse" : ""));
  }
  return seen;
}

TEST_F(GuardedFilesTest, WalkDeliversEachEntryOnceFolderFirstAndStaysOutOfLinks) {
  WriteFile(Host("tree/a.txt"), "a");
  WriteFile(Host("tree/sub/deeper/c.txt"), "c");
  MakeDirs(Host("tree/empty"));
  WriteFile(Host("elsewhere/hidden.txt"), "x");
  MakeSymlink(Host("elsewhere"), Host("tree/sub/link"));
  std::uint32_t error = 99;
  std::vector<std::string> seen = WalkAll(Win("tree"), error);
  EXPECT_EQ(error, 0u);
  const auto at = [&](const std::string& relative) {
    return std::find_if(seen.begin(), seen.end(), [&](const std::string& e) { return e.rfind(relative + ">", 0) == 0; });
  };
  EXPECT_TRUE(at("sub") < at("sub\\deeper") && at("sub\\deeper") < at("sub\\deeper\\c.txt"));
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"a.txt>C:\\tree\\a.txt", "empty>C:\\tree\\empty", "sub>C:\\tree\\sub",
                                            "sub\\deeper>C:\\tree\\sub\\deeper",
                                            "sub\\deeper\\c.txt>C:\\tree\\sub\\deeper\\c.txt",
                                            "sub\\link>C:\\tree\\sub\\link reparse"}));
  // A root with its trailing separator gets no doubled one; an empty folder
  // ends at once, a missing one with its code.
  seen = WalkAll(u"C:\\", error);
  EXPECT_NE(std::find(seen.begin(), seen.end(), "tree>C:\\tree"), seen.end());
  EXPECT_TRUE(WalkAll(Win("tree/empty"), error).empty());
  EXPECT_EQ(error, 0u);
  WalkAll(Win("missing"), error);
  EXPECT_EQ(error, platform::kErrorPathNotFound);
}

TEST_F(GuardedFilesTest, LinksAnywhereOnThePathOrInTheTreeAreRefused) {
  // Links to and inside add-ins, packages and the inventory's folder are
  // left to the end-to-end refusals; here the edges of the two tests.
  MakeDirs(Host("real/inner"));
  WriteFile(Host("file.txt"), "x");
  MakeSymlink(Host("real"), Host("tree/a/link"));
  MakeSymlink(Host("real"), Host("link"));
  MakeSymlink(Host("nowhere"), Host("dangling"));
  const struct { std::string path; bool noReparsePoint, safeTree; } rows[] = {
      {"real/inner", true, true}, {"real/inner/", true, true}, {"real/missing/still", true, true},
      {"file.txt", true, false},  {"tree", true, false},        {"LINK/Missing", false, false},
      {"dangling/x", false, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(HasNoReparsePoint(Win(row.path)), row.noReparsePoint) << row.path;
    EXPECT_EQ(IsSafeDirectoryTree(Win(row.path)), row.safeTree) << row.path;
  }
  EXPECT_TRUE(HasNoReparsePoint(u"") && HasNoReparsePoint(u"Q:\\unmapped\\drive"));
}

TEST_F(GuardedFilesTest, CreateDirectoriesSaysWhetherItMadeTheLastElementAndNamesTheRightCode) {
  WriteFile(Host("file.txt"), "x");
  // In order: whether the call made the last element, and its code.
  const struct { WString path; bool made; std::uint32_t error; } createRows[] = {
      {Win("a/b/c"), true, 0}, {Win("a/b/c"), false, 0}, {Win("A/B/new/"), true, 0},
      {u"C:/a//slashes/", true, 0}, {u"C:\\", false, 0}, {u"", false, platform::kErrorPathNotFound},
      {u"Q:\\x\\y", false, platform::kErrorPathNotFound}, {Win("file.txt"), false, platform::kErrorAlreadyExists},
      // A file half way: the missing-path codes behind it do not hide its own.
      {Win("file.txt/x/y"), false, platform::kErrorAlreadyExists},
  };
  for (const auto& row : createRows) {
    std::uint32_t error = 99;
    EXPECT_EQ(CreateDirectories(row.path, error), row.made) << WideToUtf8(row.path);
    EXPECT_EQ(error, row.error) << WideToUtf8(row.path);
  }
  EXPECT_TRUE(Exists(Host("a/b/new")) && Exists(Host("a/slashes")));
}

// Folders whose modes forbid the walk, a status query or a new folder; run
// as an ordinary account, since root passes over folder modes.
TEST_F(GuardedFilesTest, FoldersThatMayNotBeReadOrWrittenGiveTheirCode) {
  ::chmod(temp_.path().c_str(), 0755);
  WriteFile(Host("tree/open/f.txt"), "f");
  MakeDirs(Host("tree/closed/inner"));
  ::chmod(Host("tree/closed").c_str(), 0000);
  MakeDirs(Host("readOnly"));
  ::chmod(Host("readOnly").c_str(), 0555);
  MakeDirs(Host("writable"));
  ::chmod(Host("writable").c_str(), 0777);
  const RunResult r = RunInChild(
      [&] {
        const auto check = [](bool ok, const char* what) {
          if (!ok) std::printf("%s\n", what);
        };
        // The walk stops at the folder with 5, after delivering it.
        std::uint32_t error = 0;
        const std::vector<std::string> seen = WalkAll(Win("tree"), error);
        check(std::count(seen.begin(), seen.end(), "closed>C:\\tree\\closed") == 1, "walk: closed not delivered");
        check(error == platform::kErrorAccessDenied, "walk: not 5");
        check(!IsSafeDirectoryTree(Win("tree")) && IsSafeDirectoryTree(Win("tree/open")), "tree: unreadable part");
        check(!IsSafeDirectoryTree(Win("tree/closed/inner")), "tree: status unknown");
        // The payload copy ends there too, with the folder made.
        WString copy;
        check(!CopyAddInPayload(Win("tree"), Win("writable"), copy) && copy == u"Cannot copy Add-In payload. Error 5" &&
                  Exists(Host("writable/closed")), "copy: not 5");
        // The error-code form reports, the raising forms raise.
        const WString inside = Win("tree/closed/inner");
        check(!PathExists(inside, error) && error == platform::kErrorAccessDenied, "exists: not 5");
        const auto raised = [](const std::function<void()>& call) {
          try {
            call();
          } catch (const TransactionFailure& failure) {
            return std::string(failure.what());
          }
          return std::string("nothing raised");
        };
        const std::string text = raised([&] { PathExists(inside); });
        check(text == "exists: Access denied.: \"C:\\tree\\closed\\inner\"", text.c_str());
        const std::string status = raised([&] { IsRegularFile(inside); });
        check(status == "status: Access denied.: \"C:\\tree\\closed\\inner\"", status.c_str());
        // The 5 of a folder that may not be written stands, though the
        // elements behind it then fail as missing.
        check(!CreateDirectories(Win("readOnly/x/y"), error) && error == platform::kErrorAccessDenied, "create: not 5");
        return 0;
      },
      /*withoutRootPowers=*/true);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, "");
}

}  // namespace
}  // namespace qv::test
