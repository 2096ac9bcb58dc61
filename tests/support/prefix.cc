#include "support/prefix.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace qv::test {

void FixturePrefix::WriteRegistry(const std::vector<RegFileKey>& machineKeys, const std::vector<RegFileKey>& userKeys,
                                  bool profileList) const {
  std::vector<RegFileKey> machine{{u"Software\\Microsoft\\Windows NT\\CurrentVersion", {SzValue(u"CurrentVersion", u"6.1")}}};
  if (profileList) {
    machine.push_back({u"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + Utf8ToWide(sid),
                       {SzValue(u"ProfileImagePath", u"C:\\users\\" + Utf8ToWide(userName))}});
  }
  machine.insert(machine.end(), machineKeys.begin(), machineKeys.end());
  std::vector<RegFileKey> user{{u"Software\\Wine", {}}};
  user.insert(user.end(), userKeys.begin(), userKeys.end());
  WriteFile(root + "/system.reg", SystemRegFile(machine));
  WriteFile(root + "/user.reg", UserRegFile(user, Utf8ToWide(sid)));
}

void FixturePrefix::AddProcess(int pid, const std::string& argv0, const std::string& comm, unsigned uid,
                               unsigned long session, const std::string& exeLink) const {
  const std::string dir = procRoot + "/" + std::to_string(pid);
  const std::string id = std::to_string(uid);
  MakeDirs(dir);
  WriteFile(dir + "/cmdline", argv0.empty() ? std::string() : argv0 + std::string(1, '\0'));
  WriteFile(dir + "/comm", comm + "\n");
  WriteFile(dir + "/status", "Name:\t" + comm + "\nUid:\t" + id + "\t" + id + "\t" + id + "\t" + id + "\n");
  WriteFile(dir + "/sessionid", std::to_string(session));
  if (!exeLink.empty()) MakeSymlink(exeLink, dir + "/exe");
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
  prefix.WriteRegistry({}, {}, profileList);
  return prefix;
}

WString WinPath(const std::string& relative) {
  std::string text = "C:\\" + relative;
  std::replace(text.begin(), text.end(), '/', '\\');
  return Utf8ToWide(text);
}

std::string InventoryText(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  return Utf16LeWithBom(Utf8ToWide(text));
}

std::string InventoryBytes(const std::vector<std::pair<std::string, std::string>>& records) {
  std::vector<std::string> lines{"[Fusion]", "Count=" + std::to_string(records.size())};
  for (std::size_t i = 0; i < records.size(); ++i) {
    lines.push_back("Executable" + std::to_string(i) + "=" + records[i].first);
    lines.push_back("AppData" + std::to_string(i) + "=" + records[i].second);
  }
  return InventoryText(lines);
}

PrefixCase::PrefixCase() : prefix_(MakeFixturePrefix(temp_.path())), winePrefix_("WINEPREFIX", prefix_.root) {}

void RunWithFaults(const std::string& faults, const std::function<int(const FixturePrefix&)>& body) {
  ::setenv("QUORVANE_FAULTS", faults.c_str(), 1);
  int code = 0;
  {
    TempDir temp;
    const FixturePrefix prefix = MakeFixturePrefix(temp.path());
    ::setenv("WINEPREFIX", prefix.root.c_str(), 1);
    code = body(prefix);
  }
  std::_Exit(code);
}

}  // namespace qv::test
