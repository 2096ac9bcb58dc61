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

// The walk's entries as "relative>path", in the walk's order; the walk's
// closing code in `error`.
std::vector<std::string> WalkAll(const WString& root, std::uint32_t& error) {
  std::vector<std::string> seen;
  DirectoryWalk walk;
  for (bool on = OpenWalk(root, walk, error); on; on = AdvanceWalk(walk, error)) {
    seen.push_back(WideToUtf8(walk.entry.relative + u">" + walk.entry.path));
  }
  return seen;
}

TEST_F(GuardedFilesTest, TheWalkAndTheReparseTestsStayOutOfLinksAndFoldersAreMadeOnce) {
  WriteFile(Host("tree/a.txt"), "a");
  WriteFile(Host("tree/sub/deeper/c.txt"), "c");
  WriteFile(Host("elsewhere/hidden.txt"), "x");
  MakeSymlink(Host("elsewhere"), Host("tree/sub/link"));
  MakeSymlink(Host("elsewhere"), Host("link"));
  MakeSymlink(Host("nowhere"), Host("dangling"));
  // What the walk delivers, links as entries it does not enter, is what the
  // payload copy lays down (its unit test). A root with its trailing
  // separator gets no doubled one; a missing one ends the walk with its code.
  std::uint32_t error = 99;
  const std::vector<std::string> seen = WalkAll(u"C:\\", error);
  EXPECT_NE(std::find(seen.begin(), seen.end(), "tree>C:\\tree"), seen.end());
  WalkAll(Win("missing"), error);
  EXPECT_EQ(error, platform::kErrorPathNotFound);

  // Links to and inside add-ins, packages and the inventory's folder are
  // left to the end-to-end refusals; here the edges of the two tests.
  const struct { std::string path; bool noReparsePoint, safeTree; } rows[] = {
      {"tree/sub/deeper", true, true}, {"tree/sub/deeper/", true, true}, {"tree/missing/still", true, true},
      {"tree/a.txt", true, false},     {"tree", true, false},            {"LINK/Missing", false, false},
      {"dangling/x", false, false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(HasNoReparsePoint(Win(row.path)), row.noReparsePoint) << row.path;
    EXPECT_EQ(IsSafeDirectoryTree(Win(row.path)), row.safeTree) << row.path;
  }
  EXPECT_TRUE(HasNoReparsePoint(u"") && HasNoReparsePoint(u"Q:\\unmapped\\drive"));

  // CreateDirectories, in order: whether the call made the last element, and
  // its code.
  WriteFile(Host("file.txt"), "x");
  const struct { WString path; bool made; std::uint32_t error; } createRows[] = {
      {Win("a/b/c"), true, 0}, {Win("a/b/c"), false, 0}, {Win("A/B/new/"), true, 0},
      {u"C:/a//slashes/", true, 0}, {u"C:\\", false, 0}, {u"", false, platform::kErrorPathNotFound},
      {u"Q:\\x\\y", false, platform::kErrorPathNotFound}, {Win("file.txt"), false, platform::kErrorAlreadyExists},
      // A file half way: the missing-path codes behind it do not hide its own.
      {Win("file.txt/x/y"), false, platform::kErrorAlreadyExists},
      // A link to a folder where a folder is expected is no folder.
      {Win("link"), false, platform::kErrorAlreadyExists},
  };
  for (const auto& row : createRows) {
    std::uint32_t error = 99;
    EXPECT_EQ(CreateDirectories(row.path, error), row.made) << WideToUtf8(row.path);
    EXPECT_EQ(error, row.error) << WideToUtf8(row.path);
  }
  EXPECT_TRUE(Exists(Host("a/b/new")) && Exists(Host("a/slashes")));
}

// Folders whose modes forbid the walk, a status query or a new folder; run
// as an ordinary account, since root passes over folder modes. The child
// writes what it saw, one line per operation.
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
        std::uint32_t error = 0;
        const std::vector<std::string> seen = WalkAll(Win("tree"), error);
        const bool delivered = std::count(seen.begin(), seen.end(), "closed>C:\\tree\\closed") == 1;
        std::printf("walk: %d %u\n", delivered, error);
        std::printf("safe: %d %d %d\n", IsSafeDirectoryTree(Win("tree")), IsSafeDirectoryTree(Win("tree/open")),
                    IsSafeDirectoryTree(Win("tree/closed/inner")));
        WString text;
        const bool copied = CopyAddInPayload(Win("tree"), Win("writable"), text);
        std::printf("copy: %d %s, %d\n", copied, WideToUtf8(text).c_str(), Exists(Host("writable/closed")));
        const WString inside = Win("tree/closed/inner");
        const bool exists = PathExists(inside, error);
        std::printf("exists: %d %u\n", exists, error);
        for (const std::function<void()>& raising : std::vector<std::function<void()>>{
                 [&] { PathExists(inside); }, [&] { IsRegularFile(inside); }}) {
          try {
            raising();
          } catch (const TransactionFailure& failure) {
            std::printf("%s\n", failure.what());
          }
        }
        const bool made = CreateDirectories(Win("readOnly/x/y"), error);
        std::printf("create: %d %u\n", made, error);
        return 0;
      },
      /*withoutRootPowers=*/true);
  EXPECT_EQ(r.exitCode, 0);
  // The walk delivers the folder, then stops with 5; the copy stops there
  // too with the folder made; a 5 on the way stands though the elements
  // behind it then fail as missing.
  EXPECT_EQ(r.out,
            "walk: 1 5\nsafe: 0 1 0\ncopy: 0 Cannot copy Add-In payload. Error 5, 1\nexists: 0 5\n"
            "exists: Access denied.: \"C:\\tree\\closed\\inner\"\n"
            "status: Access denied.: \"C:\\tree\\closed\\inner\"\ncreate: 0 5\n");
}

}  // namespace
}  // namespace qv::test
