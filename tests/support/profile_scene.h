// A machine for transaction tests: an isolated run whose discovery finds one
// installation in the webdeploy folder (the default profile) and further ones
// through a saved inventory that names other profiles, each holding the
// add-in. Everything lies on the prefix's C: drive under short names, which
// keeps the number of platform calls of a run, and so the fault sweeps, small.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/fixtures.h"
#include "support/test_support.h"
#include "support/tree_snapshot.h"

namespace qv::test {

// The saved inventory's bytes for (executable, appData) records, Windows
// paths as given.
std::string InventoryBytes(const std::vector<std::pair<std::string, std::string>>& records);

// The add-in that a run builds from `old` and the package of MakePackage with
// `tag`: the old tree, the package's files over it, and the state file.
TreeSnapshot UpdatedAddIn(const TreeSnapshot& old, const std::string& tag = "new");

// The seven files of a complete add-in are regular files in the tree.
bool IsHealthyTree(const TreeSnapshot& tree);

struct ProfileScene {
  // `profileCount` 1 to 3. `withAddIn[i]` false leaves profile i without the
  // add-in (missing entries count as true).
  explicit ProfileScene(const std::string& folder, std::size_t profileCount = 3,
                        const std::vector<bool>& withAddIn = {});

  std::string folder;
  FixturePrefix prefix;
  // The Windows path of a host path on the C: drive ("C:\\R\\x").
  std::string Win(const std::string& hostPath) const;

  std::string roaming;   // value of /test-appdata, the default profile
  std::string local;     // value of /test-localappdata, holds the inventory
  std::string package;   // value of /package
  std::vector<std::string> profiles;  // AppData roots in the order of the run

  std::string AddIn(std::size_t i) const;
  std::string AddIns(std::size_t i) const;   // the folder that holds the add-in
  std::string Backups(std::size_t i) const;  // KELDARO/Quorvane/InstallBackups
  std::string InventoryFolder() const { return local + "/Quorvane"; }
  std::string InventoryFile() const { return local + "/Quorvane/Installation.ini"; }
  // The executables the run discovers, in its order.
  std::vector<std::string> executables;

  // The transaction directories below Backups(i), by name.
  std::vector<std::string> TransactionDirectories(std::size_t i) const;

  // Runs the tool on this machine: `action` with the three folder options.
  RunResult Tool(const std::string& action, const std::map<std::string, std::string>& env = {}) const;
};

}  // namespace qv::test
