// Fixture machines for end-to-end tests: a Wine prefix made as plain
// folders, an empty process table, Fusion installations and packages.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace qv::test {

struct FixturePrefix {
  std::string root;      // the prefix folder ($WINEPREFIX)
  std::string procRoot;  // $QUORVANE_PROC_ROOT: an empty process table unless filled
  std::string userName;  // the account's name in the prefix
  std::string sid;

  // drive_c/<relative>
  std::string C(const std::string& relative = "") const { return root + "/drive_c/" + relative; }
  std::string RoamingHost() const { return C("users/" + userName + "/AppData/Roaming"); }
  std::string LocalHost() const { return C("users/" + userName + "/AppData/Local"); }
  std::string RoamingWin() const { return "C:\\users\\" + userName + "\\AppData\\Roaming"; }
  std::string LocalWin() const { return "C:\\users\\" + userName + "\\AppData\\Local"; }

  // Environment for a run of the tool against this prefix.
  std::map<std::string, std::string> Env() const;
};

// A prefix with C: mapped to drive_c, the account's ProfileList entry in
// system.reg, user.reg naming the SID, and both AppData folders.
// `profileList` false leaves ProfileList out of system.reg.
FixturePrefix MakeFixturePrefix(const std::string& folder, bool profileList = true);

// system.reg / user.reg bodies with the headers Wine writes, and extra key
// text appended as it stands.
std::string SystemRegText(const std::string& sid, const std::string& profileImagePathValue,
                          const std::string& extraKeys = "");
std::string UserRegText(const std::string& sid, const std::string& extraKeys = "");

// A complete Fusion installation: Fusion360.exe with the Electronics API
// files beside it, in `folder` (a host path).
void MakeFusionInstallation(const std::string& folder);

// The six add-in files of a package's AddIn folder.
extern const std::vector<std::string> kAddInFiles;

// A package folder: AddIn with the six files (contents tagged with `tag`) and
// Bin\Quorvane_Helper.exe.
void MakePackage(const std::string& folder, const std::string& tag = "new");

// An installed add-in with all seven files (contents tagged with `tag`).
void MakeInstalledAddIn(const std::string& addInFolder, const std::string& tag = "old");

// The process entry of a fake process in a fixture process table.
void AddFixtureProcess(const std::string& procRoot, int pid, const std::string& argv0, const std::string& comm,
                       unsigned uid, unsigned long session = 4294967295UL, const std::string& exeLink = "");

}  // namespace qv::test
