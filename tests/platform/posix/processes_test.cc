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
    test::WriteFile(prefix.procRoot + "/500/status", "Name:\texplorer.exe\nUid:\t" + ids + "\n");
    if (row.ownerHasFolders) test::MakeDirs(prefix.C("users/" + otherName + "/AppData/Roaming"));
    const std::string expected[] = {"C:\\users\\" + otherName + "\\AppData\\Roaming", prefix.RoamingWin(),
                                    "C:\\Profiles\\me\\AppData\\Roaming"};
    EXPECT_EQ(WideToUtf8(GetUserFolder(kCsidlAppData)), expected[row.whose]) << row.what;
  }
}

}  // namespace
}  // namespace qv::platform
