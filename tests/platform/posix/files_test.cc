// The file operations of the Linux host against real folders, links and a
// prefix's drive map.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/scene.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using test::Exists;
using test::MakeDirs;
using test::MakeSymlink;
using test::ReadFile;
using test::TempDir;
using test::WriteFile;

// A prefix whose C: is drive_c and whose Z: is not mapped (so "/").
struct PrefixTest : test::PrefixCase {
  std::string C(const std::string& relative) const { return prefix_.C(relative); }
};

TEST_F(PrefixTest, DriveMapAndCaseInsensitiveLookup) {
  MakeDirs(C("homes/Root/AppData"));
  std::string host;
  std::uint32_t error = 0;
  ASSERT_TRUE(posix::ToHostPath(u"C:\\HOMES\\root\\appdata", host, error));
  EXPECT_EQ(host, C("homes/Root/AppData"));
  // Components that do not exist keep their text; the existing part still
  // resolves without regard to case.
  ASSERT_TRUE(posix::ToHostPath(u"c:/Homes/ROOT/New/Deeper", host, error));
  EXPECT_EQ(host, C("homes/Root/New/Deeper"));
  // Z: is the host's root when the prefix does not map it.
  ASSERT_TRUE(posix::ToHostPath(u"Z:\\tmp", host, error));
  EXPECT_EQ(host, "/tmp");
  // An unmapped drive and a network path have no host path.
  EXPECT_FALSE(posix::ToHostPath(u"D:\\x", host, error));
  EXPECT_EQ(error, kErrorPathNotFound);
  EXPECT_FALSE(posix::ToHostPath(u"\\\\server\\share\\x", host, error));
  EXPECT_EQ(GetFileAttributesW(u"D:\\x"), kInvalidFileAttributes);

  // Back from host to Windows form: the longest drive target wins, Z: last.
  WString windows;
  ASSERT_TRUE(posix::ToWindowsPath(C("users/Root"), windows));
  EXPECT_EQ(windows, u"C:\\users\\Root");
  ASSERT_TRUE(posix::ToWindowsPath("/usr/lib", windows));
  EXPECT_EQ(windows, u"Z:\\usr\\lib");
  ASSERT_TRUE(posix::ToWindowsPath(temp_ / "prefix/./drive_c/../drive_c", windows));
  EXPECT_EQ(windows, u"C:\\");
}

TEST_F(PrefixTest, DanglingDriveLinkAndMissingPrefix) {
  MakeSymlink("/nonexistent/elsewhere", temp_ / "prefix/dosdevices/e:");
  EXPECT_EQ(GetFileAttributesW(u"E:\\"), kInvalidFileAttributes);
  EXPECT_EQ(GetFileAttributesW(u"E:\\x"), kInvalidFileAttributes);
  ::setenv("WINEPREFIX", (temp_ / "no-such-prefix").c_str(), 1);
  std::string host;
  std::uint32_t error = 0;
  EXPECT_FALSE(posix::ToHostPath(u"C:\\users", host, error));
  EXPECT_TRUE(posix::ToHostPath(u"Z:\\", host, error));
}

TEST_F(PrefixTest, FullPathNameNormalises) {
  WString full;
  EXPECT_EQ(GetFullPathNameW(u"c:/Users/user/", 32768, full), 14u);
  EXPECT_EQ(full, u"c:\\Users\\user\\");
  GetFullPathNameW(u"C:\\a\\..\\b\\.\\c", 32768, full);
  EXPECT_EQ(full, u"C:\\b\\c");
  GetFullPathNameW(u"C:\\..\\..", 32768, full);
  EXPECT_EQ(full, u"C:\\");
  GetFullPathNameW(u"C:\\a\\\\b", 32768, full);
  EXPECT_EQ(full, u"C:\\a\\b");
  GetFullPathNameW(u"C:\\a\\name. . ", 32768, full);
  EXPECT_EQ(full, u"C:\\a\\name");
  // Relative forms resolve against the working directory's Windows form.
  char* cwdBuffer = ::getcwd(nullptr, 0);
  std::string cwd = cwdBuffer;
  std::free(cwdBuffer);
  ASSERT_EQ(::chdir(C("").c_str()), 0);
  GetFullPathNameW(u"sub\\x", 32768, full);
  EXPECT_EQ(full, u"C:\\sub\\x");
  GetFullPathNameW(u"\\rooted", 32768, full);
  EXPECT_EQ(full, u"C:\\rooted");
  GetFullPathNameW(u"C:rel", 32768, full);
  EXPECT_EQ(full, u"C:\\rel");
  ASSERT_EQ(::chdir(cwd.c_str()), 0);
  // A result that does not fit reports the size it needs.
  WString unchanged = u"kept";
  EXPECT_EQ(GetFullPathNameW(u"C:\\abcdef", 5, unchanged), 10u);
  EXPECT_EQ(unchanged, u"kept");
  EXPECT_EQ(GetFullPathNameW(u"", 32768, full), 0u);
}

TEST_F(PrefixTest, AttributesSeeLinksAsReparsePoints) {
  MakeDirs(C("real/dir"));
  WriteFile(C("real/file"), "x");
  MakeSymlink("real/dir", C("linkdir"));
  MakeSymlink("real/file", C("linkfile"));
  MakeSymlink("gone", C("dangling"));

  EXPECT_EQ(GetFileAttributesW(u"C:\\"), kFileAttributeDirectory);  // the drive's own link is no reparse point
  EXPECT_EQ(GetFileAttributesW(u"C:\\real\\dir"), kFileAttributeDirectory);
  EXPECT_EQ(GetFileAttributesW(u"C:\\real\\file"), kFileAttributeArchive);
  EXPECT_EQ(GetFileAttributesW(u"C:\\linkdir"), kFileAttributeDirectory | kFileAttributeReparsePoint);
  EXPECT_EQ(GetFileAttributesW(u"C:\\linkfile"), kFileAttributeArchive | kFileAttributeReparsePoint);
  EXPECT_EQ(GetFileAttributesW(u"C:\\dangling"), kFileAttributeArchive | kFileAttributeReparsePoint);

  EXPECT_EQ(GetFileAttributesW(u"C:\\real\\missing"), kInvalidFileAttributes);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_EQ(GetFileAttributesW(u"C:\\nothing\\missing"), kInvalidFileAttributes);
  EXPECT_EQ(GetLastError(), kErrorPathNotFound);

  // The status query follows links.
  NodeType type;
  ASSERT_TRUE(GetFileAttributesExW(u"C:\\linkdir", type));
  EXPECT_EQ(type, NodeType::Directory);
  ASSERT_TRUE(GetFileAttributesExW(u"C:\\LINKFILE", type));
  EXPECT_EQ(type, NodeType::RegularFile);
  EXPECT_FALSE(GetFileAttributesExW(u"C:\\dangling", type));
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
}

TEST_F(PrefixTest, MoveKeepsWindowsOutcomes) {
  MakeDirs(C("a/inner"));
  WriteFile(C("a/inner/f"), "old");
  MakeDirs(C("b"));
  // An existing folder at the target is never replaced, even when empty.
  EXPECT_FALSE(MoveFileExW(u"C:\\a", u"C:\\b", kMoveFileReplaceExisting | kMoveFileCopyAllowed));
  EXPECT_EQ(GetLastError(), kErrorAccessDenied);
  EXPECT_TRUE(Exists(C("a/inner/f")));
  EXPECT_TRUE(Exists(C("b")));
  // The same folder in another case is still an existing folder.
  MakeDirs(C("Upper"));
  EXPECT_FALSE(MoveFileExW(u"C:\\a", u"C:\\upper", 3));
  // A whole tree moves; a missing parent of the target fails with 3.
  ASSERT_TRUE(MoveFileExW(u"C:\\a", u"C:\\moved", 3));
  EXPECT_EQ(ReadFile(C("moved/inner/f")), "old");
  EXPECT_FALSE(MoveFileExW(u"C:\\moved", u"C:\\no\\such\\place", 3));
  EXPECT_EQ(GetLastError(), kErrorPathNotFound);
  EXPECT_FALSE(MoveFileExW(u"C:\\absent", u"C:\\x", 3));
  // A file at the target is replaced only with MOVEFILE_REPLACE_EXISTING.
  WriteFile(C("f1"), "one");
  WriteFile(C("f2"), "two");
  EXPECT_FALSE(MoveFileExW(u"C:\\f1", u"C:\\f2", 0));
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
  ASSERT_TRUE(MoveFileExW(u"C:\\f1", u"C:\\f2", kMoveFileReplaceExisting | kMoveFileWriteThrough));
  EXPECT_EQ(ReadFile(C("f2")), "one");
  EXPECT_FALSE(Exists(C("f1")));
}

TEST_F(PrefixTest, CopyCreateWriteDelete) {
  WriteFile(C("src"), std::string(200000, 'q'));
  ::chmod(C("src").c_str(), 0750);
  ASSERT_TRUE(CopyFileW(u"C:\\src", u"C:\\dst", false));
  EXPECT_EQ(ReadFile(C("dst")), std::string(200000, 'q'));
  struct stat st;
  ::stat(C("dst").c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0750u);
  WriteFile(C("src"), "short");
  ASSERT_TRUE(CopyFileW(u"C:\\src", u"C:\\DST", false));
  EXPECT_EQ(ReadFile(C("dst")), "short");
  // A replaced file holds the source's bytes alone, whether it was longer,
  // as long, or shorter, and keeps its own permissions.
  ::chmod(C("dst").c_str(), 0640);
  WriteFile(C("src"), "SHORT");
  ASSERT_TRUE(CopyFileW(u"C:\\src", u"C:\\dst", false));
  EXPECT_EQ(ReadFile(C("dst")), "SHORT");
  WriteFile(C("src"), std::string(70000, 'g'));
  ASSERT_TRUE(CopyFileW(u"C:\\src", u"C:\\dst", false));
  EXPECT_EQ(ReadFile(C("dst")), std::string(70000, 'g'));
  WriteFile(C("src"), "");
  ASSERT_TRUE(CopyFileW(u"C:\\src", u"C:\\dst", false));
  EXPECT_EQ(ReadFile(C("dst")), "");
  ::stat(C("dst").c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  WriteFile(C("src"), "short");
  EXPECT_FALSE(CopyFileW(u"C:\\src", u"C:\\dst", true));
  EXPECT_EQ(GetLastError(), kErrorFileExists);
  MakeDirs(C("folder"));
  EXPECT_FALSE(CopyFileW(u"C:\\src", u"C:\\folder", false));
  EXPECT_EQ(GetLastError(), kErrorAccessDenied);
  EXPECT_FALSE(CopyFileW(u"C:\\missing", u"C:\\x", false));
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);

  Handle file = CreateFileW(u"C:\\new.tmp", kGenericWrite, 0, kCreateNew, kFileAttributeNormal);
  ASSERT_NE(file, kInvalidHandle);
  std::uint32_t written = 0;
  ASSERT_TRUE(::qv::platform::WriteFile(file, "abc", 3, written));
  EXPECT_EQ(written, 3u);
  EXPECT_TRUE(FlushFileBuffers(file));
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_FALSE(CloseHandle(file));
  EXPECT_EQ(ReadFile(C("new.tmp")), "abc");
  EXPECT_EQ(CreateFileW(u"C:\\NEW.tmp", kGenericWrite, 0, kCreateNew, kFileAttributeNormal), kInvalidHandle);
  EXPECT_EQ(GetLastError(), kErrorFileExists);
  EXPECT_EQ(CreateFileW(u"C:\\folder", kGenericWrite, 0, kCreateAlways, kFileAttributeNormal), kInvalidHandle);

  EXPECT_TRUE(DeleteFileW(u"C:\\new.tmp"));
  EXPECT_FALSE(DeleteFileW(u"C:\\new.tmp"));
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_FALSE(DeleteFileW(u"C:\\folder"));

  EXPECT_TRUE(CreateDirectoryW(u"C:\\made"));
  EXPECT_FALSE(CreateDirectoryW(u"C:\\MADE"));
  EXPECT_EQ(GetLastError(), kErrorAlreadyExists);
  EXPECT_FALSE(CreateDirectoryW(u"C:\\no\\parent"));
  EXPECT_EQ(GetLastError(), kErrorPathNotFound);
}

TEST_F(PrefixTest, FindListsDotsFirstAndMarksLinks) {
  MakeDirs(C("scan/Sub"));
  WriteFile(C("scan/file.txt"), "x");
  MakeSymlink("Sub", C("scan/link"));
  FindData data;
  Handle search = FindFirstFileW(u"C:\\SCAN\\*", data);
  ASSERT_NE(search, kInvalidHandle);
  std::vector<FindData> entries{data};
  while (FindNextFileW(search, data)) entries.push_back(data);
  EXPECT_EQ(GetLastError(), kErrorNoMoreFiles);
  EXPECT_TRUE(FindClose(search));
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_EQ(entries[0].fileName, u".");
  EXPECT_EQ(entries[1].fileName, u"..");
  for (const FindData& entry : entries) {
    if (entry.fileName == u"Sub") EXPECT_EQ(entry.attributes, kFileAttributeDirectory);
    if (entry.fileName == u"file.txt") EXPECT_EQ(entry.attributes, kFileAttributeArchive);
    if (entry.fileName == u"link") EXPECT_EQ(entry.attributes, kFileAttributeDirectory | kFileAttributeReparsePoint);
  }
  EXPECT_EQ(FindFirstFileW(u"C:\\absent\\*", data), kInvalidHandle);
  EXPECT_EQ(GetLastError(), kErrorPathNotFound);
  EXPECT_EQ(FindFirstFileW(u"C:\\scan\\*.none", data), kInvalidHandle);
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
}

TEST(HostModule, ModuleFileNameIsAWindowsPath) {
  WString path;
  std::uint32_t length = GetModuleFileNameW(path, 32768);
  ASSERT_GT(length, 3u);
  EXPECT_EQ(path.size(), length);
  EXPECT_EQ(path.substr(1, 2), u":\\");
  WString cut;
  EXPECT_EQ(GetModuleFileNameW(cut, 4), 4u);
  EXPECT_EQ(cut.size(), 3u);
}

}  // namespace
}  // namespace qv::platform
