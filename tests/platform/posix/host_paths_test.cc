// Name lookup without regard to case on the Linux host, when folders change
// between lookups: a folder's listing may be kept from one lookup to the
// next, so every answer must still be the one a fresh scan would give.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/scene.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using test::MakeDirs;
using test::MakeSymlink;
using test::TempDir;
using test::WriteFile;

class HostLookupTest : public test::PrefixCase {
 protected:
  std::string C(const std::string& relative) const { return prefix_.C(relative); }

  // The host path of a Windows path, or "" when it has none.
  static std::string Host(const WString& windows) {
    std::string host;
    std::uint32_t error = 0;
    return posix::ToHostPath(windows, host, error) ? host : std::string();
  }

  static void Touch(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    ::close(fd);
  }
};

TEST_F(HostLookupTest, EntriesThatComeAndGoAfterALookupAreSeen) {
  MakeDirs(C("box"));
  // Looked up before it exists: the name stays as written.
  EXPECT_EQ(Host(u"C:\\box\\NEW"), C("box/NEW"));
  // Made by someone else since: found in its own case.
  Touch(C("box/new"));
  EXPECT_EQ(Host(u"C:\\box\\NEW"), C("box/new"));
  // Renamed: the old name is gone, the new one is found in any case.
  ASSERT_EQ(::rename(C("box/new").c_str(), C("box/Other").c_str()), 0);
  EXPECT_EQ(Host(u"C:\\box\\NEW"), C("box/NEW"));
  EXPECT_EQ(Host(u"C:\\box\\other"), C("box/Other"));
  // Removed: as written again.
  ASSERT_EQ(::unlink(C("box/Other").c_str()), 0);
  EXPECT_EQ(Host(u"C:\\box\\OTHER"), C("box/OTHER"));
  // A folder made inside, and what is made inside that one.
  MakeDirs(C("box/Sub"));
  EXPECT_EQ(Host(u"C:\\box\\sub\\x"), C("box/Sub/x"));
  Touch(C("box/Sub/X"));
  EXPECT_EQ(Host(u"C:\\BOX\\SUB\\x"), C("box/Sub/X"));
  // Letters outside ASCII fold too.
  EXPECT_EQ(Host(u"C:\\box\\\u00c4pfel"), C("box/\xc3\x84pfel"));
  Touch(C("box/\xc3\xa4PFEL"));
  EXPECT_EQ(Host(u"C:\\box\\\u00c4pfel"), C("box/\xc3\xa4PFEL"));

  // The platform's own calls see the same.
  EXPECT_TRUE(CopyFileW(u"C:\\box\\sub\\x", u"C:\\box\\Copy", false));
  EXPECT_EQ(GetFileAttributesW(u"C:\\BOX\\COPY"), kFileAttributeArchive);
  EXPECT_TRUE(DeleteFileW(u"C:\\box\\copy"));
  EXPECT_EQ(GetFileAttributesW(u"C:\\BOX\\COPY"), kInvalidFileAttributes);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
}

TEST_F(HostLookupTest, AFolderReplacedAtItsPathIsReadAfresh) {
  MakeDirs(C("place"));
  Touch(C("place/old"));
  EXPECT_EQ(Host(u"C:\\place\\FILE"), C("place/FILE"));
  ASSERT_EQ(::rename(C("place").c_str(), C("moved").c_str()), 0);
  MakeDirs(C("place"));
  Touch(C("place/File"));
  EXPECT_EQ(Host(u"C:\\place\\FILE"), C("place/File"));
  EXPECT_EQ(Host(u"C:\\place\\OLD"), C("place/OLD"));
  // The folder that moved keeps what it holds.
  EXPECT_EQ(Host(u"C:\\moved\\OLD"), C("moved/old"));
  EXPECT_EQ(Host(u"C:\\moved\\FILE"), C("moved/FILE"));
  // Removed and made again, so that its number may be reused.
  ASSERT_EQ(std::system(("rm -rf '" + C("place") + "'").c_str()), 0);
  MakeDirs(C("place"));
  EXPECT_EQ(Host(u"C:\\place\\FILE"), C("place/FILE"));
  Touch(C("place/file"));
  EXPECT_EQ(Host(u"C:\\place\\FILE"), C("place/file"));
}

TEST_F(HostLookupTest, AChildProcessLeavesItsParentsLookupsIntact) {
  MakeDirs(C("shared"));
  EXPECT_EQ(Host(u"C:\\shared\\A"), C("shared/A"));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child looks up and makes entries of its own in the same folder.
    bool ok = Host(u"C:\\shared\\A") == C("shared/A");
    const int fd = ::open(C("shared/fromchild").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
    ok = ok && Host(u"C:\\shared\\FROMCHILD") == C("shared/fromchild");
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  // What the child made, and what is made afterwards, the parent still sees.
  EXPECT_EQ(Host(u"C:\\shared\\FromChild"), C("shared/fromchild"));
  Touch(C("shared/a"));
  EXPECT_EQ(Host(u"C:\\shared\\A"), C("shared/a"));
}

TEST_F(HostLookupTest, MoreChangesThanTheKernelQueuesBetweenLookups) {
  MakeDirs(C("busy"));
  EXPECT_EQ(Host(u"C:\\busy\\F0"), C("busy/F0"));
  // More entries than the kernel's default queue of changes holds.
  for (int i = 0; i < 17000; ++i) Touch(C("busy/f" + std::to_string(i)));
  EXPECT_EQ(Host(u"C:\\busy\\F0"), C("busy/f0"));
  EXPECT_EQ(Host(u"C:\\busy\\F16999"), C("busy/f16999"));
  EXPECT_EQ(Host(u"C:\\busy\\F17000"), C("busy/F17000"));
}

TEST_F(HostLookupTest, ManyFoldersLookedUpInTurn) {
  // More folders than are kept at once: each answer stays right when the
  // listings of the first ones have been let go and read again.
  const int folders = 300;
  for (int i = 0; i < folders; ++i) {
    const std::string name = "d" + std::to_string(i);
    MakeDirs(C(name));
    EXPECT_EQ(Host(u"C:\\" + Utf8ToWide(name) + u"\\X"), C(name + "/X"));
  }
  for (int i = 0; i < folders; ++i) Touch(C("d" + std::to_string(i) + "/x"));
  for (int i = 0; i < folders; ++i) {
    const std::string name = "d" + std::to_string(i);
    EXPECT_EQ(Host(u"C:\\" + Utf8ToWide(name) + u"\\X"), C(name + "/x"));
  }
}

TEST_F(HostLookupTest, DeepPathsResolveWhereverTheirCaseOrTheirFoldersStop) {
  MakeDirs(C("Top/a/b/c/d/e/f/g"));
  const std::string exact[] = {"Top", "a", "b", "c", "d", "e", "f", "g"};
  const std::u16string upper[] = {u"TOP", u"A", u"B", u"C", u"D", u"E", u"F", u"G"};
  // Every depth at which the folders stop, and every depth at which the
  // case stops matching, with five missing elements below.
  for (int existing = 0; existing <= 8; ++existing) {
    for (int sameCase = 0; sameCase <= existing; ++sameCase) {
      std::u16string windows = u"C:";
      std::string host = C("");
      host.pop_back();
      for (int i = 0; i < existing; ++i) {
        windows += u"\\" + (i < sameCase ? Utf8ToWide(exact[i]) : upper[i]);
        host += "/" + exact[i];
      }
      for (int i = 0; i < 5; ++i) {
        windows += u"\\M" + Utf8ToWide(std::to_string(i));
        host += "/M" + std::to_string(i);
      }
      EXPECT_EQ(Host(windows), host) << existing << " " << sameCase;
      EXPECT_EQ(GetFileAttributesW(windows), kInvalidFileAttributes);
      EXPECT_EQ(GetLastError(), kErrorPathNotFound) << existing << " " << sameCase;
    }
  }
  // The last element alone missing, under folders in another case.
  EXPECT_EQ(GetFileAttributesW(u"C:\\TOP\\A\\B\\C\\D\\E\\F\\G\\file"), kInvalidFileAttributes);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_EQ(Host(u"C:\\top\\A\\b\\C\\d\\E\\f\\G"), C("Top/a/b/c/d/e/f/g"));
}

TEST_F(HostLookupTest, MissingEntriesTellAMissingFileFromAMissingFolder) {
  MakeDirs(C("Real/dir"));
  WriteFile(C("Real/file"), "x");
  MakeSymlink("Real/dir", C("linkdir"));
  MakeSymlink("gone", C("dangling"));
  NodeType type;
  // The folder exists in another case, or behind a link: a missing file.
  for (const char16_t* path : {u"C:\\real\\missing", u"C:\\REAL\\DIR\\missing", u"C:\\linkdir\\missing"}) {
    EXPECT_EQ(GetFileAttributesW(path), kInvalidFileAttributes) << Host(path);
    EXPECT_EQ(GetLastError(), kErrorFileNotFound) << Host(path);
    EXPECT_FALSE(GetFileAttributesExW(path, type));
    EXPECT_EQ(GetLastError(), kErrorFileNotFound) << Host(path);
  }
  // A folder on the way is missing, or is a file, or a dangling link.
  for (const char16_t* path : {u"C:\\nothing\\missing", u"C:\\real\\nothing\\missing", u"C:\\dangling\\missing",
                               u"C:\\real\\file\\missing"}) {
    EXPECT_EQ(GetFileAttributesW(path), kInvalidFileAttributes) << Host(path);
    EXPECT_EQ(GetLastError(), kErrorPathNotFound) << Host(path);
    EXPECT_FALSE(GetFileAttributesExW(path, type));
    EXPECT_EQ(GetLastError(), kErrorPathNotFound) << Host(path);
    EXPECT_FALSE(CopyFileW(u"C:\\real\\file", path, false));
    EXPECT_EQ(GetLastError(), kErrorPathNotFound) << Host(path);
  }
  EXPECT_FALSE(CopyFileW(u"C:\\real\\absent", u"C:\\real\\copy", false));
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_FALSE(MoveFileExW(u"C:\\REAL\\absent", u"C:\\real\\moved", 3));
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_FALSE(DeleteFileW(u"C:\\nothing\\absent"));
  EXPECT_EQ(GetLastError(), kErrorPathNotFound);
  // Something already there, even a dangling link, is never made anew.
  EXPECT_FALSE(CreateDirectoryW(u"C:\\DANGLING"));
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
  EXPECT_FALSE(CreateDirectoryW(u"C:\\real\\FILE"));
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
}

}  // namespace
}  // namespace qv::platform
