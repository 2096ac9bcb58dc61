// Read-only files and moves across file systems on the Linux host: the
// answers Windows gives, also to root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/prefix.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

struct AttributesTest : test::PrefixCase {
  std::string C(const std::string& relative) const { return prefix_.C(relative); }
};

// A CreateFileW that is closed at once; whether it opened.
bool Opens(const WString& path, std::uint32_t access, std::uint32_t disposition) {
  ScopedHandle file(CreateFileW(path, access, 0, disposition, kFileAttributeNormal));
  return file.valid();
}

TEST_F(AttributesTest, ReadOnlyFilesRefuseWritesUntilTheirAttributeIsCleared) {
  constexpr std::uint32_t kGenericRead = 0x80000000u;
  constexpr std::uint32_t kOpenExisting = 3;
  struct Row {
    const char* what;
    std::function<bool()> call;
    bool succeeds;
    std::uint32_t error;  // GetLastError() of a failure
  };
  const Row rows[] = {
      {"attributes of a read-only file",
       [] { return GetFileAttributesW(u"C:\\ro") == (kFileAttributeArchive | kFileAttributeReadonly); }, true, 0},
      {"copy onto it", [] { return CopyFileW(u"C:\\src", u"C:\\ro", false); }, false, kErrorAccessDenied},
      {"CREATE_ALWAYS onto it", [] { return Opens(u"C:\\ro", kGenericWrite, kCreateAlways); }, false,
       kErrorAccessDenied},
      {"opened for writing", [] { return Opens(u"C:\\ro", kGenericWrite, kOpenExisting); }, false, kErrorAccessDenied},
      {"CREATE_NEW finds it there", [] { return Opens(u"C:\\ro", kGenericWrite, kCreateNew); }, false,
       kErrorFileExists},
      {"opened for reading", [] { return Opens(u"C:\\ro", kGenericRead, kOpenExisting); }, true, 0},
      {"made read-only", [] { return SetFileAttributesW(u"C:\\rw", kFileAttributeReadonly); }, true, 0},
      {"copy onto the file made read-only", [] { return CopyFileW(u"C:\\src", u"C:\\rw", false); }, false,
       kErrorAccessDenied},
      {"made plain, hidden asked for", [] { return SetFileAttributesW(u"C:\\ro", kFileAttributeHidden); }, true, 0},
      {"copy onto the file made plain", [] { return CopyFileW(u"C:\\src", u"C:\\ro", false); }, true, 0},
      {"CREATE_ALWAYS onto a writable file", [] { return Opens(u"C:\\ro", kGenericWrite, kCreateAlways); }, true, 0},
      {"attributes of a missing file", [] { return SetFileAttributesW(u"C:\\absent", kFileAttributeNormal); }, false,
       kErrorFileNotFound},
  };
  test::WriteFile(C("src"), "source");
  test::WriteFile(C("ro"), "read-only");
  test::WriteFile(C("rw"), "writable");
  ::chmod(C("ro").c_str(), 0444);
  for (const Row& row : rows) {
    SetLastError(0);
    EXPECT_EQ(row.call(), row.succeeds) << row.what;
    if (!row.succeeds) {
      EXPECT_EQ(GetLastError(), row.error) << row.what;
    }
  }
  // A hidden bit has no place on the host: the owner may write the file
  // made plain, and nothing else of its mode changed.
  struct stat st;
  ASSERT_EQ(::stat(C("ro").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(test::ReadFile(C("ro")), "");
}

TEST_F(AttributesTest, OnlyFilesMoveToAnotherFileSystem) {
  struct stat a, b;
  if (::stat("/dev/shm", &b) != 0 || ::stat(C("").c_str(), &a) != 0 || a.st_dev == b.st_dev) {
    GTEST_SKIP() << "no second file system at /dev/shm to move across";
  }
  const std::string shm = "/dev/shm/quorvane-attrs-" + std::to_string(::getpid());
  test::MakeDirs(shm);
  test::MakeDirs(C("tree/sub"));
  test::WriteFile(C("file"), "payload");
  WString folder;
  WString file;
  ASSERT_TRUE(posix::ToWindowsPath(shm + "/tree", folder));
  ASSERT_TRUE(posix::ToWindowsPath(shm + "/file", file));
  constexpr std::uint32_t kAll = kMoveFileReplaceExisting | kMoveFileCopyAllowed | kMoveFileWriteThrough;
  EXPECT_FALSE(MoveFileExW(u"C:\\tree", folder, kAll));
  EXPECT_EQ(GetLastError(), kErrorNotSameDevice);
  EXPECT_TRUE(test::Exists(C("tree/sub")));
  EXPECT_FALSE(test::Exists(shm + "/tree"));
  EXPECT_FALSE(MoveFileExW(u"C:\\file", file, kMoveFileReplaceExisting));
  EXPECT_EQ(GetLastError(), kErrorNotSameDevice);
  EXPECT_TRUE(MoveFileExW(u"C:\\file", file, kAll));
  EXPECT_EQ(test::ReadFile(shm + "/file"), "payload");
  EXPECT_FALSE(test::Exists(C("file")));
  std::system(("rm -rf " + shm).c_str());
}

}  // namespace
}  // namespace qv::platform
