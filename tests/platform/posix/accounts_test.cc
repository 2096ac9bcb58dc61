// Tokens, SIDs and the account folders of the Linux host.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "platform/platform.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using qv::test::TempDir;
using qv::test::WriteFile;

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (old_) {
      ::setenv(name_, old_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

void AddProcess(const TempDir& root, std::uint32_t pid, std::uint32_t realUid, std::uint32_t effectiveUid) {
  std::string folder = root / std::to_string(pid);
  WriteFile(folder + "/cmdline", std::string("C:\\windows\\explorer.exe") + '\0');
  WriteFile(folder + "/comm", "explorer.exe\n");
  WriteFile(folder + "/status",
            "Name:\texplorer.exe\nUid:\t" + std::to_string(realUid) + "\t" + std::to_string(effectiveUid) + "\t0\t0\n");
}

// The user SID behind a token, through the two-step query.
bool UserSid(Handle token, Sid& sid) {
  std::uint32_t size = GetTokenUserSize(token);
  return size != 0 && GetTokenUser(token, size, sid);
}

bool ProcessUserSid(std::uint32_t pid, Sid& sid) {
  ScopedHandle process(OpenProcess(kProcessQueryLimitedInformation, pid));
  Handle token = kNullHandle;
  if (!process.valid() || !OpenProcessToken(process.get(), kTokenQuery, token)) return false;
  ScopedHandle tokenHandle(token);
  return UserSid(token, sid);
}

std::string OwnName() {
  passwd* entry = ::getpwuid(::getuid());
  return entry != nullptr ? entry->pw_name : "";
}

TEST(PosixAccounts, OwnershipComparesRealUids) {
  TempDir root;
  const std::uint32_t own = static_cast<std::uint32_t>(::getuid());
  const std::uint32_t other = own + 4242;
  AddProcess(root, 100, own, other);  // the real uid counts, not the effective one
  AddProcess(root, 101, other, own);
  ScopedEnv env("QUORVANE_PROC_ROOT", root.path());

  Handle ownToken = kNullHandle;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), kTokenQuery, ownToken));
  ScopedHandle ownTokenHandle(ownToken);
  Sid ownSid;
  ASSERT_TRUE(UserSid(ownToken, ownSid));

  Sid sameSid;
  Sid otherSid;
  ASSERT_TRUE(ProcessUserSid(100, sameSid));
  ASSERT_TRUE(ProcessUserSid(101, otherSid));
  EXPECT_TRUE(EqualSid(ownSid, sameSid));
  EXPECT_FALSE(EqualSid(ownSid, otherSid));

  // Another account's SID reads as the uid below the fixed authority.
  WString text;
  ASSERT_TRUE(ConvertSidToStringSidW(otherSid, text));
  EXPECT_EQ(text, u"S-1-5-21-0-0-0-" + DecimalText(other));

  // A buffer smaller than asked for is refused; a bad SID compares unequal.
  Sid sid;
  EXPECT_FALSE(GetTokenUser(ownToken, GetTokenUserSize(ownToken) - 1, sid));
  EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer);
  EXPECT_FALSE(EqualSid(Sid{1, 2, 3}, Sid{1, 2, 3}));
  EXPECT_FALSE(ConvertSidToStringSidW(Sid{1, 2, 3}, text));
  Handle none = kNullHandle;
  EXPECT_FALSE(OpenProcessToken(0x7777, kTokenQuery, none));
  EXPECT_EQ(GetTokenUserSize(0x7777), 0u);
}

TEST(PosixAccounts, OwnSidTextIsTheOneOfUserReg) {
  TempDir prefix;
  ScopedEnv wine("WINEPREFIX", prefix.path());
  Handle token = kNullHandle;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), kTokenQuery, token));
  ScopedHandle tokenHandle(token);
  Sid sid;
  ASSERT_TRUE(UserSid(token, sid));

  WString text;
  // Without user.reg the own account reads as any other.
  ASSERT_TRUE(ConvertSidToStringSidW(sid, text));
  EXPECT_EQ(text, u"S-1-5-21-0-0-0-" + DecimalText(static_cast<std::uint32_t>(::getuid())));

  WriteFile(
      prefix / "user.reg",
      "WINE REGISTRY Version 2\n;; All keys relative to REGISTRY\\\\User\\\\S-1-5-21-0-0-0-1000\n\n#arch=win64\n");
  ASSERT_TRUE(ConvertSidToStringSidW(sid, text));
  EXPECT_EQ(text, u"S-1-5-21-0-0-0-1000");
}

TEST(PosixAccounts, FolderOfTheAccountOnlyWhenThePrefixHasIt) {
  std::string name = OwnName();
  ASSERT_FALSE(name.empty());
  TempDir prefix;
  ScopedEnv wine("WINEPREFIX", prefix.path());
  qv::test::MakeDirs(prefix / "drive_c");
  qv::test::MakeSymlink("../drive_c", prefix / "dosdevices/c:");
  qv::test::MakeDirs(prefix / ("drive_c/users/" + name + "/AppData/Roaming"));

  Handle token = kNullHandle;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), kTokenQuery | kTokenImpersonate, token));
  ScopedHandle tokenHandle(token);
  WString expected = u"C:\\users\\" + Utf8ToWide(name) + u"\\AppData\\Roaming";
  for (Handle who : {kNullHandle, token}) {
    WString path;
    EXPECT_EQ(SHGetFolderPathW(kCsidlAppData, who, path), 0);
    EXPECT_EQ(path, expected);
    WString local;
    EXPECT_LT(SHGetFolderPathW(kCsidlLocalAppData, who, local), 0);  // the prefix has no Local folder
    EXPECT_TRUE(local.empty());
  }
  WString other;
  EXPECT_LT(SHGetFolderPathW(5, kNullHandle, other), 0);
  EXPECT_LT(SHGetFolderPathW(kCsidlAppData, 0x7777, other), 0);

  qv::test::MakeDirs(prefix / ("drive_c/users/" + name + "/AppData/Local"));
  WString local;
  EXPECT_EQ(SHGetFolderPathW(kCsidlLocalAppData, kNullHandle, local), 0);
  EXPECT_EQ(local, u"C:\\users\\" + Utf8ToWide(name) + u"\\AppData\\Local");
}

}  // namespace
}  // namespace qv::platform
