// What the tool works on and what a test checks afterwards: Fusion
// installations, packages and add-ins, profiles on a prefix's C: drive, the
// binary under test, tree snapshots and the platform-call log of a run.
#pragma once

#include <map>
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
// The entries that differ, one line each, for failure messages.
std::string DescribeTreeDifference(const TreeSnapshot& expected, const TreeSnapshot& actual);

// The add-in that a run builds from `old` and the package of MakePackage with
// `tag`: the old tree, the package's files over it, and the state file.
TreeSnapshot UpdatedAddIn(const TreeSnapshot& old, const std::string& tag = "new");
// The seven files of a complete add-in are regular files in the tree.
bool IsHealthyTree(const TreeSnapshot& tree);

// --- The platform-call log ------------------------------------------------

// One call as QUORVANE_FAULTS_LOG records it.
struct LoggedCall {
  std::string operation;
  std::string arguments;  // the rest of the line
  int number = 0;         // 1 for the first call of this operation, and so on
};
std::vector<LoggedCall> ReadCallLog(const std::string& path);
// The operations that change the disk, and the status queries.
bool IsWriteOperation(const std::string& operation);
bool IsStatusQuery(const std::string& operation);
// The QUORVANE_FAULTS value that makes exactly this call fail with `code`,
// or end the process when `code` is "crash": "Operation@N=code".
std::string FaultAt(const LoggedCall& call, const std::string& code);

// --- The binary under test ------------------------------------------------

// The build an end-to-end test drives.
struct ToolUnderTest {
  std::string name;    // names the build in test names: "native"
  std::string binary;  // the executable
  RunResult Run(const std::vector<std::string>& args, const EnvChanges& env = {}, int timeoutMs = 120000) const;
};
// The native build of this tree ($QUORVANE_BINARY overrides it).
ToolUnderTest NativeTool();

// --- Profiles -------------------------------------------------------------

// A machine for transaction tests: an isolated run whose discovery finds one
// installation in the webdeploy folder (the default profile) and further ones
// through a saved inventory that names other profiles, each holding the
// add-in. Everything lies on the prefix's C: drive under short names, which
// keeps the number of platform calls of a run, and so the fault sweeps, small.
struct ProfileScene {
  // `profileCount` 1 to 3. `withAddIn[i]` false leaves profile i without the
  // add-in (missing entries count as true).
  explicit ProfileScene(const std::string& folder, std::size_t profileCount = 3,
                        const std::vector<bool>& withAddIn = {}, ToolUnderTest tool = NativeTool());

  std::string folder;
  FixturePrefix prefix;
  ToolUnderTest tool;
  // The Windows path of a host path ("C:\\R\\x" on the C: drive).
  std::string Win(const std::string& hostPath) const;

  std::string roaming;   // value of /test-appdata, the default profile
  std::string local;     // value of /test-localappdata, holds the inventory
  std::string package;   // value of /package
  std::vector<std::string> profiles;     // AppData roots in the order of the run
  std::vector<std::string> executables;  // the executables the run discovers, in its order

  std::string AddIn(std::size_t i) const;
  std::string AddIns(std::size_t i) const;   // the folder that holds the add-in
  std::string Backups(std::size_t i) const;  // KELDARO/Quorvane/InstallBackups
  std::string InventoryFile() const { return local + "/Quorvane/Installation.ini"; }
  // The inventory after a successful install: the installations of the run.
  std::string InstalledInventory() const;

  // The transaction directories below Backups(i), by name.
  std::vector<std::string> TransactionDirectories(std::size_t i) const;

  // Runs the tool on this machine: `action` with the three folder options.
  RunResult Tool(const std::string& action, const EnvChanges& env = {}) const;
};

}  // namespace qv::test
