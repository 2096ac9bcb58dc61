// The command line, its messages and exit codes, driven through the built
// binary against fixture prefixes.
#include <gtest/gtest.h>

#include "support/scene.h"
#include "support/environment.h"

namespace qv::test {
namespace {

constexpr char kUsage[] = "Usage: Quorvane_Setup.exe /install|/update|/uninstall|/status\n";
constexpr char kEmptyReport[] = "Quorvane v0.1.8\nAutodesk Fusion installations: 0\nFusion running: No\n";
constexpr char kNotDetected[] = "Autodesk Fusion was not detected. Start Fusion once, then retry.\n";
constexpr char kUninstalled[] = "Quorvane uninstalled. Settings and ODB++ outputs preserved.\n";

class CommandLineTest : public ::testing::Test {
 protected:
  void SetUp() override { prefix_ = MakeFixturePrefix(dir_.path()); }
  RunResult Tool(const std::vector<std::string>& args) { return test::Run(NativeTool().binary, args, prefix_.Env()); }
  void Expect(const std::vector<std::string>& args, int code, const std::string& out, const std::string& err) {
    RunResult r = Tool(args);
    EXPECT_EQ(r.exitCode, code) << "args: " << ::testing::PrintToString(args) << "\nstderr: " << r.err;
    EXPECT_EQ(r.out, out) << ::testing::PrintToString(args);
    EXPECT_EQ(r.err, err) << ::testing::PrintToString(args);
  }
  TempDir dir_;
  FixturePrefix prefix_;
};

TEST_F(CommandLineTest, ActionsOnAMachineWithoutFusion) {
  Expect({}, 2, "", kUsage);
  Expect({"/status"}, 1, kEmptyReport, "");
  Expect({"/STATUS"}, 1, kEmptyReport, "");
  Expect({"/install"}, 5, "", kNotDetected);
  Expect({"/Update"}, 5, "", kNotDetected);
  // Uninstalling needs a discovery that succeeded, not a Fusion that was found.
  Expect({"/uninstall"}, 0, kUninstalled, "");
  Expect({"/bogus"}, 2, "", "Unknown action.\n");
  Expect({""}, 2, "", "Unknown action.\n");
  // No action is ever taken from a prefix of the literal.
  Expect({"/statusx"}, 2, "", "Unknown action.\n");
}

TEST_F(CommandLineTest, OptionErrorsComeInTheirOrder) {
  const std::string missing = "Missing option value.\n";
  const std::string unknown = "Unknown option.\n";
  const std::string both = "Both isolated test folders are required.\n";
  Expect({"/install", "/package"}, 2, "", missing);
  Expect({"/install", "/bogus"}, 2, "", missing);
  Expect({"/install", "/bogus", "x"}, 2, "", unknown);
  Expect({"/package", "x"}, 2, "", missing);
  Expect({"/package", "x", "y"}, 2, "", unknown);
  Expect({"/install", "/test-appdata", "a"}, 2, "", both);
  Expect({"/install", "/test-appdata", "a", "/bogus", "x"}, 2, "", unknown);
  Expect({"/install", "/test-localappdata", "a", "/package", "p", "/x"}, 2, "", missing);
  // The value of an option may look like an option; the action stays.
  Expect({"/status", "/package", "/uninstall"}, 1, kEmptyReport, "");
  Expect({"/status", "/PACKAGE", "C:\\Pkg", "/package", "D:\\Other"}, 1, kEmptyReport, "");
  // A bad package passes unnoticed where it is not used.
  Expect({"/uninstall", "/package", "Q:\\nowhere"}, 0, kUninstalled, "");
}

TEST_F(CommandLineTest, IsolatedRunsUseTheTestFolders) {
  MakeDirs(dir_ / "roaming");
  MakeDirs(dir_ / "local");
  const std::string roaming = dir_ / "roaming";
  const std::string local = dir_ / "local";
  Expect({"/status", "/test-appdata", roaming, "/test-localappdata", local}, 1, kEmptyReport, "");
  Expect({"/install", "/test-appdata", "a", "/test-appdata", roaming, "/test-localappdata", local}, 5, "", kNotDetected);
  // Host paths and their Windows forms name the same folders.
  Expect({"/status", "/Test-AppData", "Z:" + roaming, "/TEST-LOCALAPPDATA", local}, 1, kEmptyReport, "");
}

TEST(CommandLineFolders, MissingPerUserFoldersEndWithCode3) {
  TempDir dir;
  // A prefix that does not exist: no profile list, no C: drive, no folders.
  std::map<std::string, std::string> env{{"WINEPREFIX", dir / "absent"}, {"QUORVANE_PROC_ROOT", dir.path()}};
  const std::string message = "Required per-user Windows folders are unavailable.\n";
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"/status"}, {"/status", "/test-appdata", "a", "/test-localappdata", "b"},
        {"/bogus", "/bogus"}}) {
    RunResult r = test::Run(NativeTool().binary, args, env);
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.err, message);
    EXPECT_EQ(r.out, "");
  }
  // Garbage registry files read as an empty registry: the same answer.
  const char garbage[] = "\x00\xff[[[\\x\n\"=\n";
  WriteFile(dir / "garbage/system.reg", std::string(garbage, sizeof garbage - 1));
  WriteFile(dir / "garbage/user.reg", "WINE REGISTRY Version 2\n;; All keys relative to");
  RunResult r = test::Run(NativeTool().binary, {"/status"}, {{"WINEPREFIX", dir / "garbage"}, {"QUORVANE_PROC_ROOT", dir.path()}});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_EQ(r.err, message);
}

TEST(CommandLineFolders, FoldersFromTheShellOrTheOwnAccountWithoutAProfileList) {
  TempDir dir;
  FixturePrefix prefix = MakeFixturePrefix(dir.path(), /*profileList=*/false);
  // No ProfileList entry: the process's own account names the folders, and
  // they exist in the prefix, so the run goes on.
  RunResult r = test::Run(NativeTool().binary, {"/status"}, prefix.Env());
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.out, kEmptyReport);
}

}  // namespace
}  // namespace qv::test
