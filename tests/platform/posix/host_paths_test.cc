// Name lookup without regard to case on the Linux host, and the codes of the
// file calls for what the lookup finds missing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/test_support.h"

namespace qv::platform {
namespace {

using test::MakeDirs;
using test::MakeSymlink;
using test::TempDir;
using test::WriteFile;

class HostLookupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeDirs(dir_ / "prefix/drive_c");
    MakeSymlink("../drive_c", dir_ / "prefix/dosdevices/c:");
    ::setenv("WINEPREFIX", (dir_ / "prefix").c_str(), 1);
  }
  void TearDown() override { ::unsetenv("WINEPREFIX"); }
  std::string C(const std::string& relative) const { return dir_ / ("prefix/drive_c/" + relative); }

  // The host path of a Windows path, or "" when it has none.
  static std::string Host(const WString& windows) {
    std::string host;
    std::uint32_t error = 0;
    return posix::ToHostPath(windows, host, error) ? host : std::string();
  }

  TempDir dir_;
};

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
