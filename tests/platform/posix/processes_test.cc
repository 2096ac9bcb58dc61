// The process table, image paths and account folders of the Linux host,
// read from process tables laid out in a fixture prefix.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "support/prefix.h"
#include "user/user_folders.h"

namespace qv::platform {
namespace {

using test::WriteFile;
using Names = std::vector<std::pair<std::uint32_t, std::string>>;

// A fixture prefix whose process table is the one the backend reads.
struct ProcessTable : test::PrefixCase {
  std::string Proc(const std::string& relative) const { return prefix_.procRoot + "/" + relative; }
  void Add(int pid, const std::string& argv0, const std::string& comm) const {
    prefix_.AddProcess(pid, argv0, comm, ::getuid(), 0);
  }
  test::ScopedEnv procRoot_{"QUORVANE_PROC_ROOT", prefix_.procRoot};
};

Names Walk(Handle snapshot) {
  Names seen;
  ProcessEntry entry;
  for (bool more = Process32FirstW(snapshot, entry); more; more = Process32NextW(snapshot, entry)) {
    seen.emplace_back(entry.processId, WideToUtf8(entry.exeFile));
  }
  return seen;
}

TEST_F(ProcessTable, SnapshotNamesComeFromWineArgv0OrComm) {
  Add(300, "C:\\Program Files\\Autodesk\\x\\FusionLauncher.exe", "FusionLauncher.");
  Add(42, "C:/windows/explorer.exe", "explorer.exe");
  Add(7, "", "kthreadd");                     // kernel thread: empty cmdline
  Add(55, "x\\Fusion360.exe", "Fusion360.ex");  // relative: not Wine's
  Add(9, "C:\\", "wine-preloader");           // no last element
  Add(12, "/usr/bin/wine64-preloader", "wine64-preloade");
  Add(13, "C:\\x\\old.exe", "old.exe");
  test::MakeDirs(Proc("800"));  // gone: no files left
  WriteFile(Proc("12x"), "");
  ScopedHandle first(CreateToolhelp32Snapshot());
  ASSERT_TRUE(first.valid());
  std::filesystem::remove_all(Proc("300"));  // names were read at creation
  const Names before = {{7, "kthreadd"}, {9, "wine-preloader"}, {12, "wine64-preloade"},
                        {13, "old.exe"}, {42, "explorer.exe"},  {55, "Fusion360.ex"},
                        {300, "FusionLauncher.exe"}};
  EXPECT_EQ(Walk(first.get()), before);
  EXPECT_EQ(Walk(first.get()), before);  // a second walk starts again
}

TEST_F(ProcessTable, ImagePathsInWindowsForm) {
  prefix_.AddProcess(30, "C:/Program Files/x/Fusion360.exe", "Fusion360.exe", ::getuid(), 0, "/usr/lib/wine/wine64");
  prefix_.AddProcess(31, "/opt/tool/bin/tool", "tool", ::getuid(), 0, "/opt/tool/bin/tool");
  // D: maps the folder of this test program: its own image is named through it.
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  test::MakeSymlink(std::filesystem::path(self).parent_path(), prefix_.root + "/dosdevices/d:");
  const WString selfWindows = u"D:\\" + Utf8ToWide(std::filesystem::path(self).filename().string());

  const auto image = [](Handle process, std::uint32_t capacity = 32768) {
    WString path = u"kept";
    return QueryFullProcessImageNameW(process, path, capacity) ? WideToUtf8(path) : "<" + WideToUtf8(path) + ">";
  };
  ScopedHandle wine(OpenProcess(kProcessQueryLimitedInformation, 30));
  ScopedHandle native(OpenProcess(kProcessQueryLimitedInformation, 31));
  EXPECT_EQ(image(wine.get()), "C:\\Program Files\\x\\Fusion360.exe");
  EXPECT_EQ(image(wine.get(), 32), "<kept>");  // no room for the terminator
  EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer);
  EXPECT_EQ(image(native.get()), "Z:\\opt\\tool\\bin\\tool");
  EXPECT_EQ(image(GetCurrentProcess()), WideToUtf8(selfWindows));
  WString path;
  EXPECT_EQ(GetModuleFileNameW(path, 32768), selfWindows.size());
  EXPECT_EQ(path, selfWindows);
  EXPECT_EQ(GetModuleFileNameW(path, 4), 4u);
  EXPECT_EQ(path, u"D:\\");
}

// The per-user folders when the profile list has no entry for the account:
// those of the account that owns the shell (explorer.exe) of this session.
TEST(ShellOwner, FoldersOfTheAccountThatOwnsTheShellOfThisSession) {
  const std::uint32_t own = static_cast<std::uint32_t>(::getuid());
  const passwd* account = ::getpwnam(own == 0 ? "nobody" : "root");  // another account, with a name
  ASSERT_NE(account, nullptr);
  const std::uint32_t other = account->pw_uid;
  const std::string otherName = account->pw_name;
  std::uint32_t session = 0;
  ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), session));
  // The shell process, and whose folders come back: the shell owner's, the
  // own account's, or those of the profile list's entry for the account
  // (named by the SID of user.reg), which comes before any shell.
  enum Whose { kOwner, kOwn, kProfile };
  struct Row {
    const char* what;
    const char* argv0;
    std::uint32_t session;
    bool ownerHasFolders;
    bool profileList;
    Whose whose;
  };
  const Row rows[] = {
      {"shell of this session", "C:\\windows\\explorer.exe", session, true, false, kOwner},
      {"name in another case", "C:\\WINDOWS\\EXPLORER.EXE", session, true, false, kOwner},
      {"shell of another session", "C:\\windows\\explorer.exe", session ^ 1u, true, false, kOwn},
      {"no shell", "C:\\windows\\notepad.exe", session, true, false, kOwn},
      {"owner without folders", "C:\\windows\\explorer.exe", session, false, false, kOwn},
      {"profile list entry", "C:\\windows\\explorer.exe", session, true, true, kProfile},
  };
  for (const Row& row : rows) {
    test::TempDir temp;
    const test::FixturePrefix prefix = test::MakeFixturePrefix(temp.path(), false);
    if (row.profileList) {
      prefix.WriteRegistry({{u"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + Utf8ToWide(prefix.sid),
                             {test::SzValue(u"ProfileImagePath", u"C:\\Profiles\\me")}}},
                           {}, false);
    }
    test::ScopedEnv winePrefix("WINEPREFIX", prefix.root);
    test::ScopedEnv procRoot("QUORVANE_PROC_ROOT", prefix.procRoot);
    prefix.AddProcess(500, row.argv0, "explorer.exe", other, row.session);
    // Owned by its real uid, whatever the effective one.
    const std::string ids = std::to_string(other) + "\t" + std::to_string(own) + "\t0\t0";
    WriteFile(prefix.procRoot + "/500/status", "Name:\texplorer.exe\nUid:\t" + ids + "\n");
    if (row.ownerHasFolders) test::MakeDirs(prefix.C("users/" + otherName + "/AppData/Roaming"));
    const std::string expected[] = {"C:\\users\\" + otherName + "\\AppData\\Roaming", prefix.RoamingWin(),
                                    "C:\\Profiles\\me\\AppData\\Roaming"};
    EXPECT_EQ(WideToUtf8(GetUserFolder(kCsidlAppData)), expected[row.whose]) << row.what;
  }
}

}  // namespace
}  // namespace qv::platform
