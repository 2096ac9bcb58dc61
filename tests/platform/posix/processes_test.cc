// The process list, sessions, process handles and image paths, read from
// process tables laid out in a temporary folder.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using qv::test::TempDir;
using qv::test::WriteFile;

// Points the backend at a process table for the life of the object.
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

using Argv = std::optional<std::vector<std::string>>;
const Argv kNoCmdline = std::nullopt;

// One process folder: cmdline (NUL-separated argv; none without argv), comm
// (none when empty), status with its Uid line, sessionid, the exe link.
void AddProcess(const TempDir& root, std::uint32_t pid, const Argv& argv, const std::string& comm,
                std::optional<std::uint32_t> uid = std::nullopt, std::optional<std::string> sessionid = std::nullopt,
                std::optional<std::string> exe = std::nullopt) {
  std::string folder = root / std::to_string(pid);
  qv::test::MakeDirs(folder);
  if (argv) {
    std::string cmdline;
    for (const std::string& arg : *argv) cmdline += arg + '\0';
    WriteFile(folder + "/cmdline", cmdline);
  }
  if (!comm.empty()) WriteFile(folder + "/comm", comm + "\n");
  if (uid) {
    std::string text = std::to_string(*uid);
    WriteFile(folder + "/status", "Name:\t" + comm + "\nUmask:\t0022\nUid:\t" + text + "\t0\t0\t0\nGid:\t0\t0\t0\t0\n");
  }
  if (sessionid) WriteFile(folder + "/sessionid", *sessionid);
  if (exe) qv::test::MakeSymlink(*exe, folder + "/exe");
}

std::vector<std::pair<std::uint32_t, std::string>> Walk(Handle snapshot) {
  std::vector<std::pair<std::uint32_t, std::string>> seen;
  ProcessEntry entry;
  for (bool more = Process32FirstW(snapshot, entry); more; more = Process32NextW(snapshot, entry)) {
    seen.emplace_back(entry.processId, WideToUtf8(entry.exeFile));
  }
  return seen;
}

std::uint32_t OwnUid() { return static_cast<std::uint32_t>(::getuid()); }

TEST(PosixProcesses, SnapshotNamesComeFromWindowsArgv0OrComm) {
  TempDir root;
  AddProcess(root, 300, Argv({"C:\\Program Files\\Autodesk\\x\\FusionLauncher.exe", "-x"}), "FusionLauncher.");
  AddProcess(root, 42, Argv({"C:/windows/explorer.exe"}), "explorer.exe");
  AddProcess(root, 1000, Argv({"/usr/bin/bash", "-c", "true"}), "bash");
  AddProcess(root, 7, Argv(std::vector<std::string>{}), "kthreadd");  // kernel thread: empty cmdline
  AddProcess(root, 55, Argv({"x\\Fusion360.exe"}), "Fusion360.exe");  // relative: not a Windows path
  AddProcess(root, 56, kNoCmdline, "Fusion360.exe");                  // no cmdline file
  AddProcess(root, 9, Argv({"C:\\"}), "wine-preloader");              // no last element
  AddProcess(root, 800, Argv({"/bin/sleep"}), "");                    // gone: no comm left
  qv::test::MakeDirs(root / "self");
  qv::test::MakeDirs(root / "acpi");
  WriteFile(root / "12x", "");
  ScopedEnv env("QUORVANE_PROC_ROOT", root.path());

  ScopedHandle snapshot(CreateToolhelp32Snapshot());
  ASSERT_TRUE(snapshot.valid());
  // Taken at creation: later changes to the table do not show.
  std::filesystem::remove_all(root / "300");
  AddProcess(root, 400, Argv({"C:\\x\\late.exe"}), "late.exe");

  std::vector<std::pair<std::uint32_t, std::string>> expected = {
      {7, "kthreadd"},       {9, "wine-preloader"},       {42, "explorer.exe"}, {55, "Fusion360.exe"},
      {56, "Fusion360.exe"}, {300, "FusionLauncher.exe"}, {1000, "bash"}};
  EXPECT_EQ(Walk(snapshot.get()), expected);
  ProcessEntry entry;
  EXPECT_FALSE(Process32NextW(snapshot.get(), entry));
  EXPECT_EQ(GetLastError(), kErrorNoMoreFiles);
  // A second walk starts again at the first entry.
  EXPECT_EQ(Walk(snapshot.get()), expected);
}

TEST(PosixProcesses, LaterSnapshotsSeeEveryProcessThatCameWentOrWasReplaced) {
  TempDir root;
  AddProcess(root, 10, Argv({"C:\\x\\Fusion360.exe"}), "Fusion360.exe");
  AddProcess(root, 11, Argv({"C:\\x\\gone.exe"}), "gone.exe");
  AddProcess(root, 12, Argv({"/usr/bin/wine64-preloader"}), "wine64-preloade");
  AddProcess(root, 13, Argv({"C:\\x\\old.exe"}), "old.exe");
  ScopedEnv env("QUORVANE_PROC_ROOT", root.path());
  {
    ScopedHandle first(CreateToolhelp32Snapshot());
    ASSERT_TRUE(first.valid());
  }
  // Right after: one process ended, one started, one (not yet a Windows
  // path, still starting) took its Windows name, and pid 13 went to another
  // process (a new folder, so a new inode).
  std::filesystem::remove_all(root / "11");
  AddProcess(root, 14, Argv({"C:\\x\\FusionLauncher.exe"}), "FusionLauncher.");
  WriteFile(root / "12/cmdline", std::string("C:\\x\\started.exe") + '\0');
  AddProcess(root, 99, Argv({"C:\\x\\new.exe"}), "new.exe");
  std::filesystem::rename(root / "13", root / "old13");
  std::filesystem::rename(root / "99", root / "13");
  const std::vector<std::pair<std::uint32_t, std::string>> expected = {
      {10, "Fusion360.exe"}, {12, "started.exe"}, {13, "new.exe"}, {14, "FusionLauncher.exe"}};
  ScopedHandle second(CreateToolhelp32Snapshot());
  ASSERT_TRUE(second.valid());
  EXPECT_EQ(Walk(second.get()), expected);

  // A Windows name read moments ago stands for its process; once that time
  // has passed the file is read again.
  WriteFile(root / "10/cmdline", std::string("C:\\x\\renamed.exe") + '\0');
  ::usleep(600 * 1000);
  ScopedHandle third(CreateToolhelp32Snapshot());
  EXPECT_EQ(Walk(third.get()).front(), (std::pair<std::uint32_t, std::string>{10, "renamed.exe"}));
}

TEST(PosixProcesses, SnapshotOfAnEmptyOrMissingTable) {
  TempDir root;
  {
    ScopedEnv env("QUORVANE_PROC_ROOT", root.path());
    ScopedHandle snapshot(CreateToolhelp32Snapshot());
    ASSERT_TRUE(snapshot.valid());
    ProcessEntry entry;
    EXPECT_FALSE(Process32FirstW(snapshot.get(), entry));
    EXPECT_EQ(GetLastError(), kErrorNoMoreFiles);
  }
  ScopedEnv env("QUORVANE_PROC_ROOT", root / "missing");
  EXPECT_EQ(CreateToolhelp32Snapshot(), kInvalidHandle);
  ProcessEntry entry;
  EXPECT_FALSE(Process32FirstW(0x7777, entry));
  EXPECT_EQ(GetLastError(), kErrorInvalidHandle);
}

TEST(PosixProcesses, SessionIsTheNumberAsItStands) {
  TempDir root;
  AddProcess(root, 10, Argv({"a"}), "a", 0, "4294967295");
  AddProcess(root, 11, Argv({"b"}), "b", 0, "2\n");
  AddProcess(root, 12, Argv({"c"}), "c", 0);
  AddProcess(root, 13, Argv({"d"}), "d", 0, "unset");
  ScopedEnv env("QUORVANE_PROC_ROOT", root.path());

  std::uint32_t session = 99;
  ASSERT_TRUE(ProcessIdToSessionId(10, session));
  EXPECT_EQ(session, 4294967295u);
  ASSERT_TRUE(ProcessIdToSessionId(11, session));
  EXPECT_EQ(session, 2u);
  ASSERT_TRUE(ProcessIdToSessionId(12, session));
  EXPECT_EQ(session, 0u);
  EXPECT_FALSE(ProcessIdToSessionId(13, session));
  EXPECT_FALSE(ProcessIdToSessionId(14, session));  // gone
  EXPECT_EQ(GetLastError(), kErrorInvalidParameter);

  // The own session is read from the real /proc, although the own pid is not
  // in this table.
  std::uint32_t expected = 0;
  if (qv::test::Exists("/proc/self/sessionid")) expected = std::stoul(qv::test::ReadFile("/proc/self/sessionid"));
  ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), session));
  EXPECT_EQ(session, expected);
  EXPECT_EQ(GetCurrentProcessId(), static_cast<std::uint32_t>(::getpid()));
}

TEST(PosixProcesses, OpenProcessNeedsCmdlineAndStatus) {
  TempDir root;
  AddProcess(root, 20, Argv({"C:\\f\\Fusion360.exe"}), "Fusion360.exe", OwnUid());
  AddProcess(root, 21, kNoCmdline, "Fusion360.exe", OwnUid());            // no cmdline
  AddProcess(root, 22, Argv({"C:\\f\\Fusion360.exe"}), "Fusion360.exe");  // no status
  AddProcess(root, 23, kNoCmdline, "Fusion360.exe", OwnUid());
  qv::test::MakeDirs(root / "23/cmdline");  // there, but cannot be read
  AddProcess(root, 24, Argv({"C:\\f\\Fusion360.exe"}), "Fusion360.exe");
  WriteFile(root / "24/status", "Name:\tFusion360.exe\n");  // no Uid line
  ScopedEnv env("QUORVANE_PROC_ROOT", root.path());

  ScopedHandle opened(OpenProcess(kProcessQueryLimitedInformation, 20));
  EXPECT_TRUE(opened.valid());
  for (std::uint32_t pid : {21u, 22u, 23u, 24u}) {
    SetLastError(0);
    EXPECT_EQ(OpenProcess(kProcessQueryLimitedInformation, pid), kNullHandle) << pid;
    EXPECT_EQ(GetLastError(), kErrorAccessDenied) << pid;
  }
  EXPECT_EQ(OpenProcess(kProcessQueryLimitedInformation, 25), kNullHandle);
  EXPECT_EQ(GetLastError(), kErrorInvalidParameter);
  EXPECT_EQ(OpenProcess(kProcessQueryLimitedInformation, 0), kNullHandle);

  // Those that cannot be opened are still named in the snapshot, from comm.
  ScopedHandle snapshot(CreateToolhelp32Snapshot());
  auto walked = Walk(snapshot.get());
  ASSERT_EQ(walked.size(), 5u);
  EXPECT_EQ(walked[3], std::make_pair(23u, std::string("Fusion360.exe")));
}

TEST(PosixProcesses, ImagePathForms) {
  TempDir root;
  TempDir prefix;
  AddProcess(root, 30, Argv({"C:/Program Files/Autodesk/x/Fusion360.exe"}), "Fusion360.exe", OwnUid(), std::nullopt,
             "/usr/lib/wine/wine64");
  AddProcess(root, 31, Argv({"/opt/tool/bin/tool", "-v"}), "tool", OwnUid(), std::nullopt, "/opt/tool/bin/tool");
  AddProcess(root, 32, Argv({"tool"}), "tool", OwnUid());  // exe link unreadable
  ScopedEnv env("QUORVANE_PROC_ROOT", root.path());
  ScopedEnv wine("WINEPREFIX", prefix.path());
  qv::test::MakeSymlink("/", prefix / "dosdevices/z:");

  ASSERT_TRUE(LookUpQueryFullProcessImageNameW());
  WString path;
  ScopedHandle wineProcess(OpenProcess(kProcessQueryLimitedInformation, 30));
  ASSERT_TRUE(QueryFullProcessImageNameW(wineProcess.get(), path, 32768));
  EXPECT_EQ(path, u"C:\\Program Files\\Autodesk\\x\\Fusion360.exe");
  WString unchanged = u"kept";
  EXPECT_FALSE(QueryFullProcessImageNameW(wineProcess.get(), unchanged, 20));
  EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer);
  EXPECT_EQ(unchanged, u"kept");

  ScopedHandle nativeProcess(OpenProcess(kProcessQueryLimitedInformation, 31));
  ASSERT_TRUE(QueryFullProcessImageNameW(nativeProcess.get(), path, 32768));
  EXPECT_EQ(path, u"Z:\\opt\\tool\\bin\\tool");

  ScopedHandle noLink(OpenProcess(kProcessQueryLimitedInformation, 32));
  ASSERT_TRUE(noLink.valid());
  EXPECT_FALSE(QueryFullProcessImageNameW(noLink.get(), path, 32768));

  // The own process, through its pseudo-handle, whatever table is set.
  ASSERT_TRUE(QueryFullProcessImageNameW(GetCurrentProcess(), path, 32768));
  EXPECT_EQ(path.substr(0, 3), u"Z:\\");
  EXPECT_NE(path.find(u"unit_tests"), WString::npos);
}

}  // namespace
}  // namespace qv::platform
