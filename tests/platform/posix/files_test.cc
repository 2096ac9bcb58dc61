// File operations of the Linux host against real folders, links and a
// prefix's drive map, which it looks names up in without regard to case, with
// the answers Windows gives (also to root); and the version resources of
// programs on it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "driver/status_report.h"
#include "platform/platform.h"
#include "support/prefix.h"

namespace qv::platform {
namespace {

using test::MakeDirs;
using test::MakeSymlink;
using test::ReadFile;
using test::WriteFile;

using HostFiles = test::PrefixCase;

// A CreateFileW that is closed at once; whether it opened.
bool Opens(const WString& path, std::uint32_t access, std::uint32_t disposition) {
  return ScopedHandle(CreateFileW(path, access, 0, disposition, kFileAttributeNormal)).valid();
}

// Whether GetFileAttributesW finds the entry.
bool Found(const WString& path) { return GetFileAttributesW(path) != kInvalidFileAttributes; }

// Whether the status report reads the program's version as `expected`; when
// it reads none, false with the error of the call that failed.
bool ReadsVersion(const WString& path, const char16_t* expected) {
  const WString version = GetFileVersionText(path);
  return !version.empty() && version == expected;
}

// A program of the fuzz corpus with 32-bit words replaced at these offsets,
// and zero bytes added at its end.
std::string CorpusProgram(const std::string& name, const std::vector<std::pair<std::size_t, std::uint32_t>>& words = {},
                          std::size_t added = 0) {
  std::string bytes = ReadFile(std::string(QUORVANE_SOURCE_DIR) + "/tests/fuzz/corpus/version_resource_fuzz/" + name);
  for (const auto& [at, word] : words) {
    for (int k = 0; k < 4; ++k) bytes[at + k] = static_cast<char>(word >> (8 * k));
  }
  return bytes + std::string(added, '\0');
}

// A call of `f` with these arguments, made when the row runs.
template <typename F, typename... A>
std::function<bool()> Call(F f, A... args) {
  return [=] { return f(args...); };
}

// Rows run in order, each on what the rows before it left. Below a missing
// folder, a link or a file nothing is found on the way. A file whose mode
// grants no write is read-only, also to root.
TEST_F(HostFiles, MovesCopiesCreatesAndAttributesKeepWindowsOutcomes) {
  MakeDirs(Host("a/inner"));
  for (const char* folder : {"Upper", "Äpfel", "ΒΗΤΑ", "ёлка", "ґанок/її"}) MakeDirs(Host(folder));
  // tiny_version_1_2_3_4.exe: its version resource's data entry gives the
  // size at 0xE4C, its fixed record holds the version at 0xE88 and 0xE8C, and
  // its last section, .rsrc, gives its size in the file at 0x260.
  const std::string v = "v/";
  WriteFile(Host(v + "1234.exe"), CorpusProgram("tiny_version_1_2_3_4.exe"));
  WriteFile(Host(v + "65535.exe"), CorpusProgram("tiny_version_1_2_3_4.exe", {{0xE88, 0xFFFF0000}, {0xE8C, 0x7FFFF}}));
  WriteFile(Host(v + "none.exe"), CorpusProgram("tiny_no_version.exe"));
  // A resource of 64 KiB lies within the file, one byte more than any
  // version resource can use.
  WriteFile(Host(v + "huge.exe"), CorpusProgram("tiny_version_1_2_3_4.exe", {{0x260, 0x200 + 0x10000}, {0xE4C, 0x10000}},
                                                0x10000));
  for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::string>>{
           {"f1", "one"}, {"f2", "two"}, {"src", std::string(70000, 'g')}, {"dst", std::string(70000, 'g')},
           {"ro", "read-only"}, {"rw", "writable"}}) {
    WriteFile(Host(name), bytes);
  }
  MakeSymlink("gone", Host("dangling"));
  ::chmod(Host("dst").c_str(), 0640);
  ::chmod(Host("ro").c_str(), 0444);
  struct Row {
    const char* what;
    std::function<bool()> call;
    std::uint32_t error;  // 0: succeeds
  };
  const Row rows[] = {
      {"missing in a folder", Call(Found, u"C:\\a\\missing"), kErrorFileNotFound},
      {"missing below a missing folder", Call(Found, u"C:\\nothing\\missing"), kErrorPathNotFound},
      {"missing below a dangling link", Call(Found, u"C:\\dangling\\missing"), kErrorPathNotFound},
      {"missing below a file", Call(Found, u"C:\\f1\\missing"), kErrorPathNotFound},
      {"on a drive not mapped", Call(Found, u"D:\\x"), kErrorPathNotFound},
      {"names in another case, beyond ASCII too",
       [] { return Found(u"c:/UPPER") && Found(u"C:\\äPFEL") && Found(u"C:\\βητα") && Found(u"C:\\ЁЛКА"); }, 0},
      // Ґ and Ї lie in runs of the case table where every other code unit is
      // a capital.
      {"Cyrillic names in another case, on the way too", Call(Found, u"C:\\ҐАНОК\\ЇЇ"), 0},
      {"made below a folder named in another case", Call(CreateDirectoryW, u"C:\\upper\\New"), 0},
      // A folder at the target, in any case, is never replaced.
      {"folder onto a folder, replacing", Call(MoveFileExW, u"C:\\a", u"C:\\upper", kMoveFileReplaceExisting),
       kErrorAccessDenied},
      {"folder renamed", Call(MoveFileExW, u"C:\\a", u"C:\\moved", 3), 0},
      {"into a missing folder", Call(MoveFileExW, u"C:\\moved", u"C:\\no\\such", 3), kErrorPathNotFound},
      {"missing source", Call(MoveFileExW, u"C:\\moved\\absent", u"C:\\x", 3), kErrorFileNotFound},
      // A file is replaced only with MOVEFILE_REPLACE_EXISTING; a replaced
      // file holds the source's bytes alone and keeps its own mode.
      {"file onto a file", Call(MoveFileExW, u"C:\\f1", u"C:\\f2", 0), kErrorAlreadyExists},
      {"file onto a file, replacing",
       Call(MoveFileExW, u"C:\\f1", u"C:\\F2", kMoveFileReplaceExisting | kMoveFileWriteThrough), 0},
      {"copy onto a longer file", Call(CopyFileW, u"C:\\F2", u"C:\\DST", false), 0},
      {"copy onto a file, failing if it exists", Call(CopyFileW, u"C:\\src", u"C:\\dst", true), kErrorFileExists},
      // Something already there, even a dangling link, is never made anew.
      {"folder over a dangling link", Call(CreateDirectoryW, u"C:\\DANGLING"), kErrorAlreadyExists},
      {"folder in a missing folder", Call(CreateDirectoryW, u"C:\\no\\parent"), kErrorPathNotFound},
      {"file onto a read-only file, replacing", Call(MoveFileExW, u"C:\\rw", u"C:\\ro", kMoveFileReplaceExisting),
       kErrorAccessDenied},
      {"attributes of a read-only file",
       [] { return GetFileAttributesW(u"C:\\ro") == (kFileAttributeArchive | kFileAttributeReadonly); }, 0},
      {"copy onto it", Call(CopyFileW, u"C:\\src", u"C:\\ro", false), kErrorAccessDenied},
      {"CREATE_ALWAYS onto it", Call(Opens, u"C:\\ro", kGenericWrite, kCreateAlways), kErrorAccessDenied},
      {"CREATE_NEW finds it there", Call(Opens, u"C:\\RO", kGenericWrite, kCreateNew), kErrorFileExists},
      {"made plain, hidden asked for", Call(SetFileAttributesW, u"C:\\ro", kFileAttributeHidden), 0},
      {"attributes of a missing file", Call(SetFileAttributesW, u"C:\\absent", kFileAttributeNormal),
       kErrorFileNotFound},
      {"version of a program", Call(ReadsVersion, u"C:\\V\\1234.EXE", u"1.2.3.4"), 0},
      {"each field of the version its own", Call(ReadsVersion, u"C:\\v\\65535.exe", u"65535.0.7.65535"), 0},
      {"version of a program without one", Call(ReadsVersion, u"C:\\v\\none.exe", u""), 1812},
      {"version of a resource past 64 KiB", Call(ReadsVersion, u"C:\\v\\huge.exe", u""), 1812},
      {"version of a missing file", Call(ReadsVersion, u"C:\\v\\absent.exe", u""), kErrorFileNotFound},
      {"version below a missing folder", Call(ReadsVersion, u"C:\\absent\\x.exe", u""), kErrorPathNotFound},
      {"version of a folder", Call(ReadsVersion, u"C:\\v", u""), kErrorAccessDenied},
  };
  for (const Row& row : rows) {
    SetLastError(0xFFFFFFFFu);  // a check that fails without an error shows as this
    EXPECT_EQ(row.call() ? 0u : GetLastError(), row.error) << row.what;
  }
  struct stat st;
  EXPECT_TRUE(test::Exists(Host("Upper/New")));
  EXPECT_EQ(ReadFile(Host("dst")), "one");
  EXPECT_EQ(::stat(Host("dst").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0640u);
  // A hidden bit has no place on the host: the owner may write the file made
  // plain (copied over end to end in ReadOnlyPackageFiles), and nothing else
  // of its mode changed.
  EXPECT_EQ(::stat(Host("ro").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0644u);
}

}  // namespace
}  // namespace qv::platform
