// The account folders of the Linux host, read from process tables laid out
// in a fixture prefix.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <string>

#include "platform/platform.h"
#include "support/prefix.h"
#include "user/user_folders.h"

namespace qv::platform {
namespace {

// The per-user folders when the profile list has no entry for the account:
// those of the account that owns the shell (explorer.exe) of this session,
// else the own account's; the profile list's entry for the account (named by
// the SID of user.reg) comes before any shell.
TEST(ShellOwner, FoldersOfTheAccountThatOwnsTheShellOfThisSession) {
  const std::uint32_t own = static_cast<std::uint32_t>(::getuid());
  const passwd* account = ::getpwnam(own == 0 ? "nobody" : "root");  // another account, with a name
  ASSERT_NE(account, nullptr);
  const std::string otherName = account->pw_name;
  std::uint32_t session = 0;
  ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), session));
  const std::string owner = "C:\\users\\" + otherName + "\\AppData\\Roaming";
  const std::string profile = "C:\\Profiles\\me\\AppData\\Roaming";
  // The shell process's path and session; whether its owner has folders and
  // the account a profile list entry; whose folders come back ("" the own).
  const struct { const char* argv0; std::uint32_t session; bool folders, profileList; std::string whose; } rows[] = {
      {"C:\\windows\\explorer.exe", session, true, false, owner},
      {"C:\\WINDOWS\\EXPLORER.EXE", session, true, false, owner},
      {"C:\\windows\\explorer.exe", session ^ 1u, true, false, ""},
      {"C:\\windows\\notepad.exe", session, true, false, ""},
      {"C:\\windows\\explorer.exe", session, false, false, ""},
      {"C:\\windows\\explorer.exe", session, true, true, profile},
  };
  for (const auto& row : rows) {
    test::TempDir temp;
    const test::FixturePrefix prefix = test::MakeFixturePrefix(temp.path(), false);
    if (row.profileList) {
      prefix.WriteRegistry({{u"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + Utf8ToWide(prefix.sid),
                             {test::SzValue(u"ProfileImagePath", u"C:\\Profiles\\me")}}},
                           {}, false);
    }
    test::ScopedEnv winePrefix("WINEPREFIX", prefix.root);
    test::ScopedEnv procRoot("QUORVANE_PROC_ROOT", prefix.procRoot);
    prefix.AddProcess(500, row.argv0, "explorer.exe", account->pw_uid, row.session);
    // Owned by its real uid, whatever the effective one.
    const std::string ids = std::to_string(account->pw_uid) + "\t" + std::to_string(own) + "\t0\t0";
    test::WriteFile(prefix.procRoot + "/500/status", "Name:\texplorer.exe\nUid:\t" + ids + "\n");
    if (row.folders) test::MakeDirs(prefix.C("users/" + otherName + "/AppData/Roaming"));
    EXPECT_EQ(WideToUtf8(GetUserFolder(kCsidlAppData)), row.whose.empty() ? prefix.RoamingWin() : row.whose)
        << "row " << &row - rows;
  }
}

}  // namespace
}  // namespace qv::platform
