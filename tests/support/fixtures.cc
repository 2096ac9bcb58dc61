#include "support/fixtures.h"

#include <pwd.h>
#include <unistd.h>

namespace qv::test {

const std::vector<std::string> kAddInFiles = {"KELDARO_Quorvane.py", "archive_validation.py", "stackup_compat.py",
                                              "fusion_spacing.py",   "save_policy.py",        "KELDARO_Quorvane.manifest"};

std::map<std::string, std::string> FixturePrefix::Env() const {
  return {{"WINEPREFIX", root}, {"QUORVANE_PROC_ROOT", procRoot}};
}

std::string SystemRegText(const std::string& sid, const std::string& profileImagePathValue,
                          const std::string& extraKeys) {
  std::string text =
      "WINE REGISTRY Version 2\n;; All keys relative to \\\\Machine\n\n#arch=win64\n\n"
      "[Software\\\\Microsoft\\\\Windows NT\\\\CurrentVersion] 1700000000\n#time=1da0000000000000\n"
      "\"CurrentVersion\"=\"6.1\"\n\n";
  if (!profileImagePathValue.empty()) {
    text += "[Software\\\\Microsoft\\\\Windows NT\\\\CurrentVersion\\\\ProfileList\\\\" + sid +
            "] 1700000000\n#time=1da0000000000000\n\"ProfileImagePath\"=" + profileImagePathValue + "\n\n";
  }
  return text + extraKeys;
}

std::string UserRegText(const std::string& sid, const std::string& extraKeys) {
  return "WINE REGISTRY Version 2\n;; All keys relative to REGISTRY\\\\User\\\\" + sid +
         "\n\n#arch=win64\n\n[Software\\\\Wine] 1700000000\n#time=1da0000000000000\n\n" + extraKeys;
}

FixturePrefix MakeFixturePrefix(const std::string& folder, bool profileList) {
  FixturePrefix prefix;
  prefix.root = folder + "/prefix";
  prefix.procRoot = folder + "/proc";
  prefix.sid = "S-1-5-21-0-0-0-1000";
  struct passwd* pw = ::getpwuid(::getuid());
  prefix.userName = pw != nullptr ? pw->pw_name : "root";
  MakeDirs(prefix.procRoot);
  MakeDirs(prefix.RoamingHost());
  MakeDirs(prefix.LocalHost());
  MakeSymlink("../drive_c", prefix.root + "/dosdevices/c:");
  MakeSymlink("/", prefix.root + "/dosdevices/z:");
  WriteFile(prefix.root + "/system.reg",
            SystemRegText(prefix.sid, profileList ? "\"C:\\\\users\\\\" + prefix.userName + "\"" : ""));
  WriteFile(prefix.root + "/user.reg", UserRegText(prefix.sid));
  return prefix;
}

void MakeFusionInstallation(const std::string& folder) {
  WriteFile(folder + "/Fusion360.exe", "MZ fusion");
  WriteFile(folder + "/API/Python/packages/adsk/core.py", "# core");
  WriteFile(folder + "/API/Python/packages/adsk/electron.py", "# electron");
  MakeDirs(folder + "/Applications/Electron/LibEagle");
}

void MakePackage(const std::string& folder, const std::string& tag) {
  for (const std::string& name : kAddInFiles) WriteFile(folder + "/AddIn/" + name, tag + ":" + name);
  WriteFile(folder + "/Bin/Quorvane_Helper.exe", tag + ":helper");
}

void MakeInstalledAddIn(const std::string& addInFolder, const std::string& tag) {
  for (const std::string& name : kAddInFiles) WriteFile(addInFolder + "/" + name, tag + ":" + name);
  WriteFile(addInFolder + "/Bin/Quorvane_Helper.exe", tag + ":helper");
}

void AddFixtureProcess(const std::string& procRoot, int pid, const std::string& argv0, const std::string& comm,
                       unsigned uid, unsigned long session, const std::string& exeLink) {
  const std::string dir = procRoot + "/" + std::to_string(pid);
  MakeDirs(dir);
  WriteFile(dir + "/cmdline", argv0.empty() ? std::string() : argv0 + std::string(1, '\0'));
  WriteFile(dir + "/comm", comm + "\n");
  WriteFile(dir + "/status", "Name:\t" + comm + "\nUid:\t" + std::to_string(uid) + "\t" + std::to_string(uid) +
                                 "\t" + std::to_string(uid) + "\t" + std::to_string(uid) + "\n");
  WriteFile(dir + "/sessionid", std::to_string(session));
  if (!exeLink.empty()) MakeSymlink(exeLink, dir + "/exe");
}

}  // namespace qv::test
