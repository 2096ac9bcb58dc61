#include "support/profile_scene.h"

#include <dirent.h>

#include <algorithm>

#include "platform/wstring.h"

namespace qv::test {

std::string InventoryBytes(const std::vector<std::pair<std::string, std::string>>& records) {
  std::string text = "[Fusion]\r\nCount=" + std::to_string(records.size()) + "\r\n";
  for (std::size_t i = 0; i < records.size(); ++i) {
    text += "Executable" + std::to_string(i) + "=" + records[i].first + "\r\n";
    text += "AppData" + std::to_string(i) + "=" + records[i].second + "\r\n";
  }
  return Utf16LeWithBom(Utf8ToWide(text));
}

TreeSnapshot UpdatedAddIn(const TreeSnapshot& old, const std::string& tag) {
  TreeSnapshot tree = old;
  tree["."] = "<dir>";
  for (const std::string& name : kAddInFiles) tree[name] = tag + ":" + name;
  tree["Bin"] = "<dir>";
  tree["Bin/Quorvane_Helper.exe"] = tag + ":helper";
  tree["install-state.ini"] = "[Installation]\r\nVersion=0.1.8\r\n";
  return tree;
}

bool IsHealthyTree(const TreeSnapshot& tree) {
  for (const std::string& name : kAddInFiles) {
    auto found = tree.find(name);
    if (found == tree.end() || found->second == "<dir>" || found->second.rfind("<link:", 0) == 0) return false;
  }
  auto helper = tree.find("Bin/Quorvane_Helper.exe");
  return helper != tree.end() && helper->second != "<dir>" && helper->second.rfind("<link:", 0) != 0;
}

ProfileScene::ProfileScene(const std::string& base, std::size_t profileCount, const std::vector<bool>& withAddIn)
    : folder(base) {
  prefix = MakeFixturePrefix(folder);
  roaming = prefix.C("R");
  local = prefix.C("L");
  package = prefix.C("Pkg");
  MakeDirs(roaming);
  MakeDirs(local);
  MakePackage(package);

  // The default profile: an installation that the webdeploy scan finds.
  const std::string webdeploy = local + "/Autodesk/webdeploy/production/0123abcd";
  MakeFusionInstallation(webdeploy);
  executables.push_back(webdeploy + "/Fusion360.exe");
  profiles.push_back(roaming);

  // The others: installations outside the scanned folder, known from the
  // saved inventory, which names their profiles. The third is also laid out
  // as a portable installation.
  std::vector<std::pair<std::string, std::string>> saved;
  if (profileCount >= 2) {
    MakeFusionInstallation(prefix.C("F2"));
    executables.push_back(prefix.C("F2/Fusion360.exe"));
    profiles.push_back(prefix.C("P2"));
    saved.emplace_back(Win(executables.back()), Win(profiles.back()));
  }
  if (profileCount >= 3) {
    MakeFusionInstallation(prefix.C("PP/bin"));
    MakeDirs(prefix.C("PP/PortableData/Local"));
    executables.push_back(prefix.C("PP/bin/Fusion360.exe"));
    profiles.push_back(prefix.C("PP/PortableData/Roaming"));
    saved.emplace_back(Win(executables.back()), Win(profiles.back()));
  }
  if (!saved.empty()) WriteFile(InventoryFile(), InventoryBytes(saved));

  for (std::size_t i = 0; i < profiles.size(); ++i) {
    MakeDirs(AddIns(i));
    if (i < withAddIn.size() && !withAddIn[i]) continue;
    MakeInstalledAddIn(AddIn(i), "old" + std::to_string(i));
    // A file of the user's that no package holds: it must survive updates.
    WriteFile(AddIn(i) + "/user-settings.json", "{\"profile\": " + std::to_string(i) + "}");
  }
}

std::string ProfileScene::Win(const std::string& hostPath) const {
  const std::string drive = prefix.C("");
  std::string text = hostPath.rfind(drive, 0) == 0 ? "C:\\" + hostPath.substr(drive.size()) : "Z:" + hostPath;
  std::replace(text.begin(), text.end(), '/', '\\');
  return text;
}

std::string ProfileScene::AddIns(std::size_t i) const {
  return profiles[i] + "/Autodesk/Autodesk Fusion 360/API/AddIns";
}

std::string ProfileScene::AddIn(std::size_t i) const { return AddIns(i) + "/KELDARO_Quorvane"; }

std::string ProfileScene::Backups(std::size_t i) const { return profiles[i] + "/KELDARO/Quorvane/InstallBackups"; }

std::vector<std::string> ProfileScene::TransactionDirectories(std::size_t i) const {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(Backups(i).c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

RunResult ProfileScene::Tool(const std::string& action, const std::map<std::string, std::string>& env) const {
  std::map<std::string, std::string> all = prefix.Env();
  for (const auto& [name, value] : env) all[name] = value;
  return Run(ToolBinary(), {action, "/test-appdata", roaming, "/test-localappdata", local, "/package", package}, all);
}

}  // namespace qv::test
