// What the tool works on and what a test checks afterwards: Fusion
// installations, packages and add-ins, the build under test and the machine
// it runs on, tree snapshots and the platform-call log of a run.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/environment.h"
#include "support/prefix.h"

namespace qv::test {

// --- Installations, packages, add-ins -------------------------------------

// A complete Fusion installation: Fusion360.exe with the Electronics API
// files beside it, in `folder` (a host path).
void MakeFusionInstallation(const std::string& folder);

// The six add-in files of a package's AddIn folder.
extern const std::vector<std::string> kAddInFiles;

// A package folder: AddIn with the six files (contents tagged with `tag`) and
// Bin\Quorvane_Helper.exe.
void MakePackage(const std::string& folder, const std::string& tag = "new");
// An installed add-in: the six files and Bin\Quorvane_Helper.exe.
void MakeInstalledAddIn(const std::string& addInFolder, const std::string& tag = "old");

// --- Trees ----------------------------------------------------------------

// A host folder tree as a map, so that tests can compare whole trees before
// and after a run, byte for byte. Relative path ("a/b.txt") -> content. A
// folder maps to "<dir>", a symbolic link to "<link:target>", anything else
// to "<other>". The root itself is the entry "." ("<dir>" for a folder), so
// an empty folder and a missing one differ: a missing root gives an empty map.
using TreeSnapshot = std::map<std::string, std::string>;
TreeSnapshot SnapshotTree(const std::string& root);
// The add-in that a run builds from `old` and the package of MakePackage with
// `tag`: the old tree, the package's files over it, and the state file.
TreeSnapshot UpdatedAddIn(const TreeSnapshot& old, const std::string& tag = "new");

// --- The platform-call log ------------------------------------------------

// One call as QUORVANE_FAULTS_LOG records it.
struct LoggedCall {
  std::string operation;
  std::string arguments;  // the rest of the line
  int number = 0;         // 1 for the first call of this operation, and so on
};
std::vector<LoggedCall> ReadCallLog(const std::string& path);
bool IsWriteOperation(const std::string& operation);  // changes the disk
// "Operation@N=code": exactly this call fails with `code`, or the process
// ends at its start when `code` is "crash".
std::string FaultAt(const LoggedCall& call, const std::string& code);

// --- The build under test and its machine ---------------------------------

// What /status prints on a machine without Fusion.
constexpr char kEmptyReport[] = "Quorvane v" QUORVANE_VERSION "\nAutodesk Fusion installations: 0\nFusion running: No\n";

// The state file that an install writes into the add-in.
constexpr char kInstallState[] = "[Installation]\r\nVersion=" QUORVANE_VERSION "\r\n";

// A build that the end-to-end tests drive: the native binary, or the .exe
// under wine64 in the Wine prefix of the test run.
struct ToolUnderTest {
  std::string name;        // "native" or "wine": names the build in test names
  std::string binary;      // the executable
  std::string winePrefix;  // the prefix the .exe runs in; empty for the native build
  std::string lockHolder;  // a program that holds the run lock (lock_holder.cc)
  bool faults = false;     // the fault points are compiled in
  std::string missing;     // why this build cannot be driven here, or empty

  bool native() const { return winePrefix.empty(); }
  // The run's end by a crash fault point.
  bool Crashed(const RunResult& r) const { return native() ? r.signal == 9 : r.exitCode == 137; }
};
// The native build of this tree.
ToolUnderTest NativeTool();
// The .exe of windows-dev (with fault points), else of windows, under wine64
// in the prefix that ctest made for the test ($QUORVANE_WINE_PREFIX).
ToolUnderTest WineTool();
inline void PrintTo(const ToolUnderTest& tool, std::ostream* out) { *out << tool.name; }
// Every build of this test run; see tests/CMakeLists.txt for where they come from.
std::vector<ToolUnderTest> ToolsUnderTest();

// One test's Windows machine. For the native build, a fixture prefix of its
// own, whose C: drive is the test's; for the .exe, a fresh folder on the C:
// drive of the shared Wine prefix, which the test then names C:\<folder>.
struct Machine {
  explicit Machine(const ToolUnderTest& tool);
  // The Wine prefix `winePrefix` itself, for either build: its C: drive and
  // registry, and the host's process table.
  Machine(const ToolUnderTest& tool, const std::string& winePrefix);
  ToolUnderTest tool;
  std::unique_ptr<TempDir> temp;
  FixturePrefix prefix;  // the native build's; for the .exe, only `root` is set
  std::string drive;     // host folder of the test's part of C:, ending in "/"

  std::string C(const std::string& relative = "") const { return drive + relative; }
  // The Windows name of a host path below the drive.
  std::string Win(const std::string& hostPath) const;
  // Runs the tool on this machine; "QUORVANE_FAULTS_LOG" is given as a host
  // path and reaches the .exe in its Windows form. CR LF becomes LF.
  RunResult Run(const std::vector<std::string>& args, EnvChanges env = {}, int timeoutMs = 120000) const;
  // Starts a program of this build (a Windows one under wine64) on this
  // machine, in the background.
  Background Start(const std::string& program, const std::vector<std::string>& args) const;

 private:
  std::string winDrive_;  // "C:\" or "C:\e2e\<folder>\"
};

// The base of the end-to-end tests, one instantiation per build: a build
// that cannot be driven here skips every test.
class EndToEnd : public ::testing::TestWithParam<ToolUnderTest> {
 protected:
  void SetUp() override {
    if (!tool().missing.empty()) GTEST_SKIP() << tool().missing;
  }
  const ToolUnderTest& tool() const { return GetParam(); }
};
// Runs a Windows program (`command` begins with its host path, or names one
// of Wine's own) under wine64 in `prefix` to its end. CR LF becomes LF.
RunResult RunUnderWine(const std::string& prefix, const std::vector<std::string>& command, EnvChanges env = {},
                       int timeoutMs = 120000);

// A check against Wine itself, on the prefix that ctest made with wineboot;
// skipped without one. $WINEPREFIX names it for the test's own platform calls.
class WinePrefix : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Exists(prefix + "/system.reg")) GTEST_SKIP() << "No Wine prefix: run through ctest (wine.prefix)";
  }
  RunResult Wine(const std::vector<std::string>& command) const { return RunUnderWine(prefix, command); }
  const ToolUnderTest wine = WineTool();
  const std::string prefix = wine.winePrefix;
  ScopedEnv winePrefix_{"WINEPREFIX", prefix};
};

#define QV_E2E_SUITE(suite)                                                \
  INSTANTIATE_TEST_SUITE_P(, suite, ::testing::ValuesIn(ToolsUnderTest()), \
                           [](const auto& info) { return info.param.name; })
// Ends the test as skipped, saying why, where the build cannot be driven
// into its case.
#define QV_SKIP_UNLESS(condition, why) \
  if (!(condition)) GTEST_SKIP() << why

// --- Profiles -------------------------------------------------------------

// A machine for transaction tests: an isolated run whose discovery finds one
// installation in the webdeploy folder (the default profile) and further ones
// through a saved inventory that names other profiles, each holding the
// add-in. Everything lies on the machine's C: drive under short names, which
// keeps the number of platform calls of a run, and so the fault sweeps, small.
struct ProfileScene {
  // `profileCount` 1 to 3. `withAddIn[i]` false leaves profile i without the
  // add-in (missing entries count as true).
  explicit ProfileScene(const ToolUnderTest& tool, std::size_t profileCount = 3,
                        const std::vector<bool>& withAddIn = {});

  Machine machine;
  std::string Win(const std::string& hostPath) const { return machine.Win(hostPath); }

  std::string roaming;                   // value of /test-appdata, the default profile
  std::string local;                     // value of /test-localappdata, holds the inventory
  std::string package;                   // value of /package
  std::vector<std::string> profiles;     // AppData roots in the order of the run
  std::vector<std::string> executables;  // the executables the run discovers, in its order

  std::string AddIn(std::size_t i) const { return AddIns(i) + "/KELDARO_Quorvane"; }
  std::string AddIns(std::size_t i) const { return profiles[i] + "/Autodesk/Autodesk Fusion 360/API/AddIns"; }
  std::string Backups(std::size_t i) const { return profiles[i] + "/KELDARO/Quorvane/InstallBackups"; }
  std::string InventoryFile() const { return local + "/Quorvane/Installation.ini"; }
  // The inventory after a successful install: the installations of the run
  // from the `from`-th on.
  std::string InstalledInventory(std::size_t from = 0) const;
  // The transaction directories below Backups(i), by name.
  std::vector<std::string> TransactionDirectories(std::size_t i) const;

  // Runs the tool on this machine: `action` with the three folder options.
  RunResult Tool(const std::string& action, const EnvChanges& env = {}) const;
};

// --- Outcomes of a transaction --------------------------------------------

// What a run may change, read before it.
struct Before {
  explicit Before(const ProfileScene& s);
  std::vector<TreeSnapshot> addIns;
  std::vector<std::vector<std::string>> transactions;  // directories below Backups(i)
  std::string inventory;
  TreeSnapshot inventoryFolder;  // the inventory's folder, where its writer puts its temporary file
};

// The tree at `root` is `expected`; `what` names it in the failure.
void ExpectTree(const std::string& root, const TreeSnapshot& expected, const std::string& what);

// Exit code 0, a pair of lines per profile naming its add-in and the backup
// of this run, every add-in new (or gone, uninstalling), the old one in the
// backup, no prepared add-in left, and the inventory merged (or, uninstalling,
// as it was).
void ExpectCompleted(const ProfileScene& s, const Before& before, const RunResult& r, bool uninstall);

// Exit code 6, nothing on standard output; on standard error the failure, a
// recovery line for each of the first `passed` profiles from the last to the
// first, and `closing`. When restored, every add-in and the inventory's
// folder are as they were and no backup is left. Gives the transaction id.
std::string ExpectRolledBack(const ProfileScene& s, const Before& before, const RunResult& r, std::size_t passed,
                             const std::string& closing = "Installed profiles restored.");

}  // namespace qv::test
