// Host paths and file operations of the Linux host against real folders,
// links and a prefix's drive map, with the answers Windows gives (also to
// root).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"
#include "support/prefix.h"

namespace qv::platform {
namespace {

using test::MakeDirs;
using test::MakeSymlink;
using test::ReadFile;
using test::WriteFile;

struct HostFiles : test::PrefixCase {
  // The host path of a Windows path, or "" when it has none.
  static std::string HostOf(const WString& windows) {
    std::string host;
    std::uint32_t error = 0;
    return posix::ToHostPath(windows, host, error) ? host : std::string();
  }
  // 0 for success, else the Windows error it left.
  static std::uint32_t Outcome(bool ok) { return ok ? 0 : GetLastError(); }
};

TEST_F(HostFiles, NamesResolveThroughTheDriveMapWithoutRegardToCase) {
  for (const char* folder : {"homes/Root/AppData", "Top/a/b", "Äpfel", "αλφα", "ΒΗΤΑ", "Яблоко", "ёлка", "ЖУК"}) {
    MakeDirs(Host(folder));
  }
  struct Row {
    const char16_t* windows;
    std::string host;  // "" when there is none
  };
  const Row rows[] = {
      {u"C:\\HOMES\\root\\appdata", Host("homes/Root/AppData")},
      // Missing elements keep their text below the part that resolves.
      {u"c:/Homes/ROOT/New/Deeper", Host("homes/Root/New/Deeper")},
      {u"C:\\TOP\\A\\b\\M0\\M1", Host("Top/a/b/M0/M1")},
      {u"C:\\äPFEL", Host("Äpfel")},
      {u"C:\\ΑΛΦΑ", Host("αλφα")},
      {u"C:\\βητα", Host("ΒΗΤΑ")},
      {u"C:\\яБЛОКО", Host("Яблоко")},
      {u"C:\\ЁЛКА", Host("ёлка")},
      {u"C:\\жук", Host("ЖУК")},
      {u"Z:\\tmp", "/tmp"},  // Z: is the host's root unless mapped
      {u"D:\\x", ""},
      {u"\\\\server\\share\\x", ""},
  };
  for (const Row& row : rows) EXPECT_EQ(HostOf(row.windows), row.host) << WideToUtf8(row.windows);
}

TEST_F(HostFiles, LinksAreReparsePointsAndMissingFilesDifferFromMissingFolders) {
  MakeDirs(Host("real/dir"));
  MakeDirs(Host("Top/a/b"));
  WriteFile(Host("real/file"), "x");
  MakeSymlink("real/dir", Host("linkdir"));
  MakeSymlink("real/file", Host("linkfile"));
  MakeSymlink("gone", Host("dangling"));
  constexpr std::uint32_t kDir = kFileAttributeDirectory, kFile = kFileAttributeArchive;
  constexpr std::uint32_t kLink = kFileAttributeReparsePoint, kNone = kInvalidFileAttributes;
  struct Row {
    const char16_t* path;
    std::uint32_t attributes;
    std::uint32_t error;  // of a missing entry
  };
  for (const Row& row : {
           Row{u"C:\\", kDir, 0},  // the drive's own link is no reparse point
           Row{u"C:\\REAL\\FILE", kFile, 0},
           Row{u"C:\\linkdir", kDir | kLink, 0},
           Row{u"C:\\linkfile", kFile | kLink, 0},
           Row{u"C:\\dangling", kFile | kLink, 0},
           Row{u"C:\\real\\missing", kNone, kErrorFileNotFound},
           Row{u"C:\\linkdir\\missing", kNone, kErrorFileNotFound},
           Row{u"C:\\TOP\\A\\B\\missing", kNone, kErrorFileNotFound},
           Row{u"C:\\nothing\\missing", kNone, kErrorPathNotFound},
           Row{u"C:\\TOP\\A\\nothing\\missing", kNone, kErrorPathNotFound},
           Row{u"C:\\dangling\\missing", kNone, kErrorPathNotFound},
           Row{u"C:\\real\\file\\missing", kNone, kErrorPathNotFound},
           Row{u"D:\\x", kNone, kErrorPathNotFound},
       }) {
    EXPECT_EQ(GetFileAttributesW(row.path), row.attributes) << WideToUtf8(row.path);
    EXPECT_EQ(row.error == 0 ? 0u : GetLastError(), row.error) << WideToUtf8(row.path);
  }
}

// A CreateFileW that is closed at once; whether it opened.
bool Opens(const WString& path, std::uint32_t access, std::uint32_t disposition) {
  return ScopedHandle(CreateFileW(path, access, 0, disposition, kFileAttributeNormal)).valid();
}

// A call of `f` with these arguments, made when the row runs.
template <typename F, typename... A>
std::function<bool()> Call(F f, A... args) {
  return [=] { return f(args...); };
}

// Rows run in order, each on what the rows before it left. A file whose mode
// grants no write is read-only, also to root; a folder never moves to another
// file system (/dev/shm, when it is one).
TEST_F(HostFiles, MovesCopiesCreatesAndAttributesKeepWindowsOutcomes) {
  MakeDirs(Host("a/inner"));
  MakeDirs(Host("Upper"));
  MakeDirs(Host("tree/sub"));
  WriteFile(Host("f1"), "one");
  WriteFile(Host("f2"), "two");
  WriteFile(Host("src"), std::string(70000, 'g'));
  WriteFile(Host("dst"), std::string(70000, 'g'));
  WriteFile(Host("new.tmp"), "");
  WriteFile(Host("ro"), "read-only");
  WriteFile(Host("rw"), "writable");
  WriteFile(Host("file"), "payload");
  MakeSymlink("gone", Host("dangling"));
  ::chmod(Host("dst").c_str(), 0640);
  ::chmod(Host("ro").c_str(), 0444);
  const std::string shm = "/dev/shm/quorvane-files-" + std::to_string(::getpid());
  const WString shmWin = u"Z:\\dev\\shm\\quorvane-files-" + DecimalText(static_cast<std::uint32_t>(::getpid()));
  struct stat drive, other;
  const bool across = ::stat("/dev/shm", &other) == 0 && ::stat(Host("").c_str(), &drive) == 0 &&
                      drive.st_dev != other.st_dev && std::filesystem::create_directory(shm);
  constexpr std::uint32_t kRead = 0x80000000u, kOpenExisting = 3;
  constexpr std::uint32_t kAll = kMoveFileReplaceExisting | kMoveFileCopyAllowed | kMoveFileWriteThrough;
  struct Row {
    const char* what;
    std::function<bool()> call;
    std::uint32_t error;  // 0: succeeds
  };
  std::vector<Row> rows = {
      // A folder at the target is never replaced, even when empty or in another case.
      {"folder onto a folder", Call(MoveFileExW, u"C:\\a", u"C:\\upper", 0), kErrorAccessDenied},
      {"folder onto a folder, replacing",
       Call(MoveFileExW, u"C:\\a", u"C:\\upper", kMoveFileReplaceExisting), kErrorAccessDenied},
      {"folder renamed", Call(MoveFileExW, u"C:\\a", u"C:\\moved", 3), 0},
      {"into a missing folder", Call(MoveFileExW, u"C:\\moved", u"C:\\no\\such", 3), kErrorPathNotFound},
      {"missing source", Call(MoveFileExW, u"C:\\moved\\absent", u"C:\\x", 3), kErrorFileNotFound},
      // A file is replaced only with MOVEFILE_REPLACE_EXISTING; a replaced
      // file holds the source's bytes alone and keeps its own mode.
      {"file onto a file", Call(MoveFileExW, u"C:\\f1", u"C:\\f2", 0), kErrorAlreadyExists},
      {"file onto a file, replacing",
       Call(MoveFileExW, u"C:\\f1", u"C:\\F2", kMoveFileReplaceExisting | kMoveFileWriteThrough), 0},
      {"copy to a new file", Call(CopyFileW, u"C:\\src", u"C:\\copy", false), 0},
      {"copy onto a longer file", Call(CopyFileW, u"C:\\F2", u"C:\\DST", false), 0},
      {"copy onto a file, failing if it exists", Call(CopyFileW, u"C:\\src", u"C:\\dst", true), kErrorFileExists},
      {"delete in another case", Call(DeleteFileW, u"C:\\new.TMP"), 0},
      {"delete a missing file", Call(DeleteFileW, u"C:\\new.tmp"), kErrorFileNotFound},
      // Something already there, even a dangling link, is never made anew.
      {"folder over a dangling link", Call(CreateDirectoryW, u"C:\\DANGLING"), kErrorAlreadyExists},
      {"folder in a missing folder", Call(CreateDirectoryW, u"C:\\no\\parent"), kErrorPathNotFound},
      {"file onto a read-only file, replacing",
       Call(MoveFileExW, u"C:\\rw", u"C:\\ro", kMoveFileReplaceExisting), kErrorAccessDenied},
      {"attributes of a read-only file",
       [] { return GetFileAttributesW(u"C:\\ro") == (kFileAttributeArchive | kFileAttributeReadonly); }, 0},
      {"copy onto it", Call(CopyFileW, u"C:\\src", u"C:\\ro", false), kErrorAccessDenied},
      {"CREATE_ALWAYS onto it", Call(Opens, u"C:\\ro", kGenericWrite, kCreateAlways), kErrorAccessDenied},
      {"opened for writing", Call(Opens, u"C:\\ro", kGenericWrite, kOpenExisting), kErrorAccessDenied},
      {"CREATE_NEW finds it there", Call(Opens, u"C:\\RO", kGenericWrite, kCreateNew), kErrorFileExists},
      {"opened for reading", Call(Opens, u"C:\\ro", kRead, kOpenExisting), 0},
      {"made read-only", Call(SetFileAttributesW, u"C:\\rw", kFileAttributeReadonly), 0},
      {"copy onto the file made read-only", Call(CopyFileW, u"C:\\src", u"C:\\rw", false), kErrorAccessDenied},
      {"made plain, hidden asked for", Call(SetFileAttributesW, u"C:\\ro", kFileAttributeHidden), 0},
      {"copy onto the file made plain", Call(CopyFileW, u"C:\\src", u"C:\\ro", false), 0},
      {"CREATE_ALWAYS onto a writable file", Call(Opens, u"C:\\ro", kGenericWrite, kCreateAlways), 0},
      {"attributes of a missing file", Call(SetFileAttributesW, u"C:\\absent", kFileAttributeNormal),
       kErrorFileNotFound},
  };
  if (across) {
    rows.push_back({"folder to another file system",
                    [&] { return MoveFileExW(u"C:\\tree", shmWin + u"\\tree", kAll); }, kErrorNotSameDevice});
    rows.push_back({"file there, without copying",
                    [&] { return MoveFileExW(u"C:\\file", shmWin + u"\\file", 1); }, kErrorNotSameDevice});
    rows.push_back({"file there", [&] { return MoveFileExW(u"C:\\file", shmWin + u"\\file", kAll); }, 0});
  }
  for (const Row& row : rows) {
    SetLastError(0xFFFFFFFFu);  // a check that fails without an error shows as this
    EXPECT_EQ(Outcome(row.call()), row.error) << row.what;
  }
  struct stat st;
  EXPECT_EQ(ReadFile(Host("copy")), std::string(70000, 'g'));
  EXPECT_EQ(ReadFile(Host("dst")), "one");
  EXPECT_EQ(::stat(Host("dst").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0640u);
  // A hidden bit has no place on the host: the owner may write the file made
  // plain, and nothing else of its mode changed.
  EXPECT_EQ(ReadFile(Host("ro")), "");
  EXPECT_EQ(::stat(Host("ro").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0644u);
  if (!across) GTEST_SKIP() << "no second file system at /dev/shm to move across";
  EXPECT_TRUE(test::Exists(Host("tree/sub")));
  EXPECT_FALSE(test::Exists(shm + "/tree"));
  EXPECT_EQ(ReadFile(shm + "/file"), "payload");
  EXPECT_FALSE(test::Exists(Host("file")));
  std::filesystem::remove_all(shm);
}

}  // namespace
}  // namespace qv::platform
