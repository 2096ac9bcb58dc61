// Laying a source tree over a target, on real folders, files and symbolic
// links of a fixture prefix.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "paths/failure.h"
#include "payload/payload.h"
#include "platform/platform.h"
#include "support/scene.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::MakeSymlink;
using test::ReadFile;
using test::WriteFile;

class PayloadCopyTest : public test::PrefixCase {
 protected:
  bool Copy(const std::string& source, const std::string& target) {
    return CopyAddInPayload(Win(source), Win(target), error_);
  }
  WString error_ = u"untouched";
};

// Every entry below `root` as relative path -> "dir", "link" or the file's
// content.
std::map<std::string, std::string> TreeOf(const std::string& root) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string relative = fs::relative(entry.path(), root).string();
    if (entry.is_symlink()) {
      tree[relative] = "link";
    } else if (entry.is_directory()) {
      tree[relative] = "dir";
    } else {
      tree[relative] = ReadFile(entry.path().string());
    }
  }
  return tree;
}

TEST_F(PayloadCopyTest, SourceThatIsNoFolderIsRefusedBeforeAnythingIsMade) {
  EXPECT_FALSE(Copy("pkg/AddIn", "out/prepared"));
  EXPECT_EQ(error_, u"Package AddIn folder is missing: C:\\pkg\\AddIn");
  EXPECT_FALSE(test::Exists(Host("out")));

  WriteFile(Host("pkg/AddIn"), "not a folder");
  error_.clear();
  EXPECT_FALSE(Copy("pkg/AddIn", "out/prepared"));
  EXPECT_EQ(error_, u"Package AddIn folder is missing: C:\\pkg\\AddIn");
  EXPECT_FALSE(test::Exists(Host("out")));
}

TEST_F(PayloadCopyTest, LaysTheTreeOverTheTargetAndKeepsWhatTheSourceLacks) {
  MakeDirs(Host("empty"));
  EXPECT_TRUE(Copy("empty", "out/fromEmpty"));
  EXPECT_TRUE(std::filesystem::is_directory(Host("out/fromEmpty")));
  EXPECT_EQ(error_, u"untouched");

  WriteFile(Host("src/a.py"), "new a");
  WriteFile(Host("src/sub/b.py"), "new b");
  MakeDirs(Host("src/sub/empty/emptier"));
  WriteFile(Host("dst/a.py"), "old a, longer than the new one");
  WriteFile(Host("dst/keep.txt"), "kept");
  WriteFile(Host("dst/sub/c.py"), "old c");

  ASSERT_TRUE(Copy("src", "dst"));
  const std::map<std::string, std::string> expected = {
      {"a.py", "new a"},       {"keep.txt", "kept"},   {"sub", "dir"},          {"sub/b.py", "new b"},
      {"sub/c.py", "old c"},   {"sub/empty", "dir"},   {"sub/empty/emptier", "dir"},
  };
  EXPECT_EQ(TreeOf(Host("dst")), expected);
  EXPECT_EQ(error_, u"untouched");

  // A second pass finds everything in place and changes nothing.
  ASSERT_TRUE(Copy("src", "dst"));
  EXPECT_EQ(TreeOf(Host("dst")), expected);
  EXPECT_EQ(TreeOf(Host("src")).size(), 5u);
}

TEST_F(PayloadCopyTest, FileInTheWayOfAFolderGivesItsCode) {
  WriteFile(Host("src/sub/b.py"), "b");
  WriteFile(Host("fileTarget"), "x");
  EXPECT_FALSE(Copy("src", "fileTarget"));
  EXPECT_EQ(error_, u"Cannot create Add-In directory. Error 183");
  EXPECT_EQ(ReadFile(Host("fileTarget")), "x");

  WriteFile(Host("dst/sub"), "a file where the source has a folder");
  EXPECT_FALSE(Copy("src", "dst"));
  EXPECT_EQ(error_, u"Cannot copy Add-In payload. Error 183");
  EXPECT_EQ(ReadFile(Host("dst/sub")), "a file where the source has a folder");
}

TEST_F(PayloadCopyTest, LinksInTheTreeAreFollowedButNeverEntered) {
  WriteFile(Host("elsewhere/folder/inside.txt"), "not to be copied");
  WriteFile(Host("elsewhere/file.txt"), "linked file");
  WriteFile(Host("src/plain.txt"), "plain");
  MakeSymlink(Host("elsewhere/folder"), Host("src/toFolder"));
  MakeSymlink(Host("elsewhere/file.txt"), Host("src/toFile.txt"));
  MakeSymlink(Host("elsewhere/nothing"), Host("src/dangling"));

  ASSERT_TRUE(Copy("src", "dst"));
  // A real folder, empty; a real file with the linked content; nothing for
  // the dangling link.
  const std::map<std::string, std::string> expected = {
      {"plain.txt", "plain"}, {"toFile.txt", "linked file"}, {"toFolder", "dir"}};
  EXPECT_EQ(TreeOf(Host("dst")), expected);
}

TEST_F(PayloadCopyTest, FolderThatCannotBeListedEndsTheCopyWithItsCode) {
  WriteFile(Host("src/closed/secret.txt"), "s");
  ::chmod(Host("src/closed").c_str(), 0000);
  // Open to the account the child takes on.
  ::chmod(temp_.path().c_str(), 0755);
  MakeDirs(Host("dst"));
  ::chmod(Host("dst").c_str(), 0777);

  // Root reads every folder whatever its mode, so the check runs as an
  // ordinary account.
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0) {
      const uid_t nobody = 65534;
      if (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0) ::_exit(100);
    }
    WString error;
    if (CopyAddInPayload(Win("src"), Win("dst/prepared"), error)) ::_exit(1);
    if (error != u"Cannot copy Add-In payload. Error 5") ::_exit(2);
    // The folder itself came before its listing failed.
    ::_exit(std::filesystem::is_directory(Host("dst/prepared/closed")) ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

#if defined(QUORVANE_FAULT_INJECTION)

TEST(PayloadCopyFaultTest, FailedCopyGivesItsCodeAsSignedNumber) {
  test::FreshProcessDeathTests fresh;
  EXPECT_EXIT(test::RunWithFaults("CopyFileW@2=0x80070005",
                                  [](const test::FixturePrefix& prefix) {
                                    WriteFile(prefix.C("src/a.txt"), "a");
                                    WriteFile(prefix.C("src/b.txt"), "b");
                                    WString error;
                                    if (CopyAddInPayload(test::WinPath("src"), test::WinPath("dst"), error)) return 1;
                                    if (error != u"Cannot copy Add-In payload. Error -2147024891") return 2;
                                    // One file made it before the failure, and stays.
                                    return TreeOf(prefix.C("dst")).size() == 1 ? 0 : 3;
                                  }),
              ::testing::ExitedWithCode(0), "");
}

TEST(PayloadCopyFaultTest, EntryWhoseStatusCannotBeHadIsRaised) {
  test::FreshProcessDeathTests fresh;
  // The first status query is the source's, the second asks whether the
  // target is already there; the third is the entry's.
  EXPECT_EXIT(test::RunWithFaults("GetFileAttributesExW@3=5",
                                  [](const test::FixturePrefix& prefix) {
                                    WriteFile(prefix.C("src/a.txt"), "a");
                                    WString error = u"untouched";
                                    try {
                                      CopyAddInPayload(test::WinPath("src"), test::WinPath("dst"), error);
                                    } catch (const FilesystemFailure& failure) {
                                      if (failure.operation() != "directory_entry::status") return 1;
                                      if (failure.code() != 5) return 2;
                                      if (failure.path() != u"C:\\src\\a.txt") return 3;
                                      return error == u"untouched" ? 0 : 4;
                                    }
                                    return 5;
                                  }),
              ::testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
}  // namespace qv
