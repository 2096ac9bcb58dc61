// Guarded file operations and the directory walk against real folders and
// real symbolic links in a temporary Wine-style prefix.
#include "paths/guarded_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "paths/directory_walk.h"
#include "paths/failure.h"
#include "platform/platform.h"
#include "support/environment.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::MakeSymlink;
using test::ReadFile;
using test::WriteFile;

// A prefix whose C: drive is a folder of the temporary directory; every
// Windows path "C:\x" of a test lands in drive_c/x.
class GuardedFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* old = std::getenv("WINEPREFIX")) savedPrefix_ = old;
    hadPrefix_ = std::getenv("WINEPREFIX") != nullptr;
    // Open to all, so that a child running as another account can reach it.
    ::chmod(temp_.path().c_str(), 0755);
    MakeDirs(temp_ / "drive_c");
    MakeDirs(temp_ / "prefix/dosdevices");
    MakeSymlink(temp_ / "drive_c", temp_ / "prefix/dosdevices/c:");
    ::setenv("WINEPREFIX", (temp_ / "prefix").c_str(), 1);
  }
  void TearDown() override {
    if (hadPrefix_) {
      ::setenv("WINEPREFIX", savedPrefix_.c_str(), 1);
    } else {
      ::unsetenv("WINEPREFIX");
    }
  }

  // Host path of "C:\<relative>", relative written with "/".
  std::string Host(const std::string& relative) const { return temp_ / ("drive_c/" + relative); }
  // Windows path "C:\<relative>".
  static WString Win(const std::string& relative) {
    std::string text = "C:\\" + relative;
    std::replace(text.begin(), text.end(), '/', '\\');
    return Utf8ToWide(text);
  }

  test::TempDir temp_;
  std::string savedPrefix_;
  bool hadPrefix_ = false;
};

// Runs `check` in a child process that folder modes apply to: root, which
// passes over them, gives up its powers there and runs as nobody, so that a
// folder of mode 0000 really cannot be read. Returns the child's exit code,
// or -1 when it did not exit.
int RunWithoutRootPowers(const std::function<int()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0) {
      const uid_t nobody = 65534;
      if (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0) ::_exit(100);
    }
    ::_exit(check());
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

struct SeenEntry {
  std::string relative;
  std::string path;
  bool reparse;
};

std::vector<SeenEntry> WalkAll(const WString& root, std::uint32_t& error) {
  std::vector<SeenEntry> seen;
  DirectoryWalk walk;
  for (bool on = OpenWalk(root, walk, error); on; on = AdvanceWalk(walk, error)) {
    seen.push_back({WideToUtf8(walk.entry.relative), WideToUtf8(walk.entry.path),
                    (walk.entry.attributes & platform::kFileAttributeReparsePoint) != 0});
  }
  return seen;
}

std::size_t IndexOf(const std::vector<SeenEntry>& seen, const std::string& relative) {
  for (std::size_t i = 0; i < seen.size(); ++i) {
    if (seen[i].relative == relative) return i;
  }
  return seen.size();
}

TEST_F(GuardedFilesTest, WalkDeliversEachEntryOnceFolderFirstAndStaysOutOfLinks) {
  WriteFile(Host("tree/a.txt"), "a");
  WriteFile(Host("tree/sub/b.txt"), "b");
  WriteFile(Host("tree/sub/deeper/c.txt"), "c");
  MakeDirs(Host("tree/empty"));
  WriteFile(Host("elsewhere/hidden.txt"), "x");
  MakeSymlink(Host("elsewhere"), Host("tree/sub/link"));

  std::uint32_t error = 99;
  const std::vector<SeenEntry> seen = WalkAll(Win("tree"), error);
  EXPECT_EQ(error, 0u);

  std::vector<std::string> names;
  for (const SeenEntry& e : seen) names.push_back(e.relative);
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (std::vector<std::string>{"a.txt", "empty", "sub", "sub\\b.txt", "sub\\deeper",
                                              "sub\\deeper\\c.txt", "sub\\link"}));
  EXPECT_LT(IndexOf(seen, "sub"), IndexOf(seen, "sub\\deeper"));
  EXPECT_LT(IndexOf(seen, "sub\\deeper"), IndexOf(seen, "sub\\deeper\\c.txt"));

  const SeenEntry& link = seen[IndexOf(seen, "sub\\link")];
  EXPECT_TRUE(link.reparse);
  EXPECT_EQ(link.path, "C:\\tree\\sub\\link");

  // A root given with its trailing separator gets no doubled one.
  const std::vector<SeenEntry> fromRoot = WalkAll(u"C:\\", error);
  EXPECT_EQ(error, 0u);
  ASSERT_LT(IndexOf(fromRoot, "tree"), fromRoot.size());
  EXPECT_EQ(fromRoot[IndexOf(fromRoot, "tree")].path, "C:\\tree");
}

TEST_F(GuardedFilesTest, WalkEndsWithTheCodeOfWhatItCannotOpen) {
  MakeDirs(Host("empty"));
  std::uint32_t error = 99;
  EXPECT_TRUE(WalkAll(Win("empty"), error).empty());
  EXPECT_EQ(error, 0u);

  WalkAll(Win("missing"), error);
  EXPECT_EQ(error, platform::kErrorPathNotFound);

  // A folder it may not list is not skipped: the walk stops there with 5,
  // after delivering the folder itself.
  WriteFile(Host("tree/open/f.txt"), "f");
  WriteFile(Host("tree/closed/g.txt"), "g");
  ::chmod(Host("tree/closed").c_str(), 0000);
  const int code = RunWithoutRootPowers([&] {
    std::uint32_t childError = 0;
    const std::vector<SeenEntry> seen = WalkAll(Win("tree"), childError);
    if (IndexOf(seen, "closed") == seen.size()) return 1;
    if (IndexOf(seen, "closed\\g.txt") != seen.size()) return 2;
    return childError == platform::kErrorAccessDenied ? 0 : 3;
  });
  EXPECT_EQ(code, 0);
}

TEST_F(GuardedFilesTest, HasNoReparsePointLooksAtEveryAncestor) {
  MakeDirs(Host("real/inner"));
  MakeSymlink(Host("real"), Host("link"));
  MakeSymlink(Host("nowhere"), Host("dangling"));

  EXPECT_TRUE(HasNoReparsePoint(u""));
  EXPECT_TRUE(HasNoReparsePoint(u"C:\\"));
  EXPECT_TRUE(HasNoReparsePoint(Win("real/inner")));
  EXPECT_TRUE(HasNoReparsePoint(Win("real/missing/still/missing")));
  EXPECT_TRUE(HasNoReparsePoint(Win("real/inner/")));
  EXPECT_TRUE(HasNoReparsePoint(u"Q:\\unmapped\\drive"));

  EXPECT_FALSE(HasNoReparsePoint(Win("link")));
  EXPECT_FALSE(HasNoReparsePoint(Win("link/inner")));
  EXPECT_FALSE(HasNoReparsePoint(Win("link/missing/x")));
  EXPECT_FALSE(HasNoReparsePoint(Win("LINK/Missing")));
  EXPECT_FALSE(HasNoReparsePoint(Win("dangling/x")));
}

TEST_F(GuardedFilesTest, IsSafeDirectoryTreeRefusesLinksAndWhatItCannotSee) {
  MakeDirs(Host("empty"));
  WriteFile(Host("file.txt"), "x");
  WriteFile(Host("clean/a/b/c/d.txt"), "d");
  WriteFile(Host("withFileLink/a/b/target.txt"), "t");
  MakeSymlink(Host("withFileLink/a/b/target.txt"), Host("withFileLink/a/b/c/link.txt"));
  MakeDirs(Host("withFolderLink/a"));
  MakeSymlink(Host("clean"), Host("withFolderLink/a/link"));
  MakeSymlink(Host("clean"), Host("linkedClean"));

  EXPECT_TRUE(IsSafeDirectoryTree(Win("missing")));
  EXPECT_TRUE(IsSafeDirectoryTree(Win("missing/below")));
  EXPECT_TRUE(IsSafeDirectoryTree(Win("empty")));
  EXPECT_TRUE(IsSafeDirectoryTree(Win("clean")));
  EXPECT_FALSE(IsSafeDirectoryTree(Win("file.txt")));
  EXPECT_FALSE(IsSafeDirectoryTree(Win("withFileLink")));
  EXPECT_FALSE(IsSafeDirectoryTree(Win("withFolderLink")));
  EXPECT_FALSE(IsSafeDirectoryTree(Win("linkedClean")));
  EXPECT_FALSE(IsSafeDirectoryTree(Win("linkedClean/a")));
  EXPECT_FALSE(IsSafeDirectoryTree(Win("linkedClean/missing")));

  // A subfolder that may not be read, and a tree that may not be reached.
  WriteFile(Host("locked/open/f.txt"), "f");
  MakeDirs(Host("locked/closed/inner"));
  ::chmod(Host("locked/closed").c_str(), 0000);
  EXPECT_EQ(RunWithoutRootPowers([&] {
              if (IsSafeDirectoryTree(Win("locked"))) return 1;
              if (!IsSafeDirectoryTree(Win("locked/open"))) return 2;
              // Its status cannot be queried: neither missing nor safe.
              if (IsSafeDirectoryTree(Win("locked/closed/inner"))) return 3;
              return 0;
            }),
            0);
}

TEST_F(GuardedFilesTest, StatusQueriesFollowLinksAndRaiseOnlyForRealErrors) {
  MakeDirs(Host("dir"));
  WriteFile(Host("file.txt"), "x");
  MakeSymlink(Host("file.txt"), Host("fileLink"));
  MakeSymlink(Host("nowhere"), Host("dangling"));

  std::uint32_t error = 99;
  EXPECT_TRUE(PathExists(Win("dir"), error));
  EXPECT_EQ(error, 0u);
  EXPECT_TRUE(PathExists(Win("FILE.TXT")));
  EXPECT_FALSE(PathExists(Win("missing/deeper"), error));
  EXPECT_EQ(error, 0u);
  // A link whose target is gone is missing: the query follows links.
  EXPECT_FALSE(PathExists(Win("dangling")));
  EXPECT_FALSE(PathExists(u"Q:\\unmapped"));
  EXPECT_EQ(QueryPathStatus(Win("fileLink")).kind, PathKind::RegularFile);

  EXPECT_TRUE(IsRegularFile(Win("file.txt")));
  EXPECT_TRUE(IsRegularFile(Win("fileLink")));
  EXPECT_FALSE(IsRegularFile(Win("dir")));
  EXPECT_FALSE(IsRegularFile(Win("missing")));
  EXPECT_FALSE(IsRegularFile(Win("dangling")));

  // Below a folder that may not be searched the query fails with 5: the
  // error-code form reports it, the raising forms raise.
  WriteFile(Host("closed/inside.txt"), "i");
  ::chmod(Host("closed").c_str(), 0000);
  EXPECT_EQ(RunWithoutRootPowers([&] {
              const WString inside = Win("closed/inside.txt");
              std::uint32_t childError = 0;
              if (PathExists(inside, childError) || childError != platform::kErrorAccessDenied) return 1;
              try {
                PathExists(inside);
                return 2;
              } catch (const FilesystemFailure& failure) {
                if (std::string(failure.what()) != "exists: Access denied.: \"C:\\closed\\inside.txt\"") return 3;
              }
              try {
                IsRegularFile(inside);
                return 4;
              } catch (const TransactionFailure& failure) {
                if (std::string(failure.what()) != "status: Access denied.: \"C:\\closed\\inside.txt\"") return 5;
              }
              return 0;
            }),
            0);
}

TEST_F(GuardedFilesTest, CreateDirectoriesMakesWhatIsMissingAndNamesTheRightError) {
  std::uint32_t error = 99;
  EXPECT_TRUE(CreateDirectories(Win("a/b/c"), error));
  EXPECT_EQ(error, 0u);
  EXPECT_TRUE(test::Exists(Host("a/b/c")));

  // Everything there already: success, but nothing made.
  error = 99;
  EXPECT_FALSE(CreateDirectories(Win("a/b/c"), error));
  EXPECT_EQ(error, 0u);
  EXPECT_TRUE(CreateDirectories(Win("A/B/new/"), error));
  EXPECT_EQ(error, 0u);
  EXPECT_TRUE(test::Exists(Host("a/b/new")));
  EXPECT_TRUE(CreateDirectories(u"C:/a//slashes/", error));
  EXPECT_EQ(error, 0u);
  EXPECT_TRUE(test::Exists(Host("a/slashes")));
  EXPECT_FALSE(CreateDirectories(u"C:\\", error));
  EXPECT_EQ(error, 0u);

  EXPECT_FALSE(CreateDirectories(u"", error));
  EXPECT_EQ(error, platform::kErrorPathNotFound);

  // A file at the last element.
  WriteFile(Host("a/file"), "x");
  EXPECT_FALSE(CreateDirectories(Win("a/file"), error));
  EXPECT_EQ(error, platform::kErrorAlreadyExists);

  // A file half way: the elements behind it fail with missing-path codes,
  // and the file's own 183 is the one handed back.
  EXPECT_FALSE(CreateDirectories(Win("a/file/x/y"), error));
  EXPECT_EQ(error, platform::kErrorAlreadyExists);
  EXPECT_EQ(ReadFile(Host("a/file")), "x");

  // Only missing-path codes on the way: the last element's.
  EXPECT_FALSE(CreateDirectories(u"Q:\\x\\y", error));
  EXPECT_EQ(error, platform::kErrorPathNotFound);

  // A folder that may not be written: its 5 stands even though the
  // elements behind it then fail as missing.
  MakeDirs(Host("closed"));
  ::chmod(Host("closed").c_str(), 0555);
  EXPECT_EQ(RunWithoutRootPowers([&] {
              std::uint32_t childError = 0;
              if (CreateDirectories(Win("closed/x/y"), childError)) return 1;
              return childError == platform::kErrorAccessDenied ? 0 : 2;
            }),
            0);
  EXPECT_FALSE(test::Exists(Host("closed/x")));
}

TEST_F(GuardedFilesTest, RenamePathNeverReplacesADirectory) {
  WriteFile(Host("from/f.txt"), "from");
  WriteFile(Host("to/g.txt"), "to");
  MakeDirs(Host("emptyTarget"));

  EXPECT_EQ(RenamePath(Win("from"), Win("to")), platform::kErrorAccessDenied);
  EXPECT_EQ(RenamePath(Win("from"), Win("emptyTarget")), platform::kErrorAccessDenied);
  EXPECT_EQ(ReadFile(Host("from/f.txt")), "from");
  EXPECT_EQ(ReadFile(Host("to/g.txt")), "to");
  EXPECT_TRUE(test::Exists(Host("emptyTarget")));

  // A file at the target is replaced; a directory moves whole to a new name.
  WriteFile(Host("one.txt"), "one");
  WriteFile(Host("two.txt"), "two");
  EXPECT_EQ(RenamePath(Win("one.txt"), Win("two.txt")), 0u);
  EXPECT_EQ(ReadFile(Host("two.txt")), "one");
  EXPECT_FALSE(test::Exists(Host("one.txt")));
  EXPECT_EQ(RenamePath(Win("from"), Win("moved")), 0u);
  EXPECT_EQ(ReadFile(Host("moved/f.txt")), "from");

  EXPECT_NE(RenamePath(Win("from"), Win("again")), 0u);
}

TEST(FilesystemFailureTest, TextNamesOperationMessageAndPaths) {
  const FilesystemFailure one("rename", platform::kErrorAccessDenied, u"C:\\a\\\u00c4rger");
  EXPECT_STREQ(one.what(), "rename: Access denied.: \"C:\\a\\\xc3\x84rger\"");
  EXPECT_EQ(one.operation(), "rename");
  EXPECT_EQ(one.code(), platform::kErrorAccessDenied);

  try {
    throw FilesystemFailure("rename", platform::kErrorAlreadyExists, u"C:\\from", u"C:\\to");
  } catch (const TransactionFailure& failure) {
    EXPECT_STREQ(failure.what(), "rename: File already exists.: \"C:\\from\", \"C:\\to\"");
  }
  const FilesystemFailure walk("directory_entry::status", platform::kErrorPathNotFound, u"C:\\x");
  EXPECT_STREQ(walk.what(), "directory_entry::status: Path not found.: \"C:\\x\"");
}

}  // namespace
}  // namespace qv
