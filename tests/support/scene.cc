#include "support/scene.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <vector>

#include "platform/wstring.h"

namespace qv::test {

const std::vector<std::string> kAddInFiles = {"KELDARO_Quorvane.py", "archive_validation.py", "stackup_compat.py",
                                              "fusion_spacing.py",   "save_policy.py",        "KELDARO_Quorvane.manifest"};

void MakeFusionInstallation(const std::string& folder) {
  WriteFile(folder + "/Fusion360.exe", "MZ fusion");
  WriteFile(folder + "/API/Python/packages/adsk/core.py", "# core");
  WriteFile(folder + "/API/Python/packages/adsk/electron.py", "# electron");
  MakeDirs(folder + "/Applications/Electron/LibEagle");
}

namespace {

// The six files in `addInFolder`, the helper in `binParent`/Bin.
void WriteAddIn(const std::string& addInFolder, const std::string& binParent, const std::string& tag) {
  for (const std::string& name : kAddInFiles) WriteFile(addInFolder + "/" + name, tag + ":" + name);
  WriteFile(binParent + "/Bin/Quorvane_Helper.exe", tag + ":helper");
}

}  // namespace

void MakePackage(const std::string& folder, const std::string& tag) { WriteAddIn(folder + "/AddIn", folder, tag); }

void MakeInstalledAddIn(const std::string& addInFolder, const std::string& tag) {
  WriteAddIn(addInFolder, addInFolder, tag);
}

namespace {

void Walk(const std::string& root, const std::string& relative, TreeSnapshot& snapshot) {
  const std::string path = relative == "." ? root : root + "/" + relative;
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return;
  if (S_ISLNK(info.st_mode)) {
    std::vector<char> target(4096);
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    snapshot[relative] = "<link:" + std::string(target.data(), length > 0 ? length : 0) + ">";
    return;
  }
  if (S_ISREG(info.st_mode)) {
    snapshot[relative] = ReadFile(path);
    return;
  }
  if (!S_ISDIR(info.st_mode)) {
    snapshot[relative] = "<other>";
    return;
  }
  snapshot[relative] = "<dir>";
  DIR* folder = ::opendir(path.c_str());
  if (folder == nullptr) return;
  std::vector<std::string> names;
  while (dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(folder);
  for (const std::string& name : names) Walk(root, relative == "." ? name : relative + "/" + name, snapshot);
}

}  // namespace

TreeSnapshot SnapshotTree(const std::string& root) {
  TreeSnapshot snapshot;
  Walk(root, ".", snapshot);
  return snapshot;
}

std::string DescribeTreeDifference(const TreeSnapshot& expected, const TreeSnapshot& actual) {
  std::string text;
  for (const auto& [path, content] : expected) {
    auto found = actual.find(path);
    if (found == actual.end()) {
      text += "  missing: " + path + "\n";
    } else if (found->second != content) {
      text += "  differs: " + path + "\n";
    }
  }
  for (const auto& [path, content] : actual) {
    if (expected.find(path) == expected.end()) text += "  extra:   " + path + "\n";
  }
  return text;
}

std::vector<LoggedCall> ReadCallLog(const std::string& path) {
  std::vector<LoggedCall> calls;
  std::map<std::string, int> counts;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    LoggedCall call;
    const std::size_t space = line.find(' ');
    call.operation = line.substr(0, space);
    if (space != std::string::npos) call.arguments = line.substr(space + 1);
    call.number = ++counts[call.operation];
    calls.push_back(call);
  }
  return calls;
}

bool IsWriteOperation(const std::string& operation) {
  return operation == "CreateDirectoryW" || operation == "CopyFileW" || operation == "MoveFileExW" ||
         operation == "CreateFileW" || operation == "WriteFile" || operation == "FlushFileBuffers";
}

bool IsStatusQuery(const std::string& operation) {
  return operation == "GetFileAttributesW" || operation == "GetFileAttributesExW";
}

std::string FaultAt(const LoggedCall& call, const std::string& code) {
  return call.operation + "@" + std::to_string(call.number) + "=" + code;
}

ToolUnderTest NativeTool() {
  const char* override = std::getenv("QUORVANE_BINARY");
  return {"native", override != nullptr && *override != '\0' ? override : QUORVANE_BINARY};
}

RunResult ToolUnderTest::Run(const std::vector<std::string>& args, const EnvChanges& env, int timeoutMs) const {
  return test::Run(binary, args, env, "", timeoutMs);
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

ProfileScene::ProfileScene(const std::string& base, std::size_t profileCount, const std::vector<bool>& withAddIn,
                           ToolUnderTest tool)
    : folder(base), tool(std::move(tool)) {
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

std::string ProfileScene::InstalledInventory() const {
  std::vector<std::pair<std::string, std::string>> records;
  for (std::size_t i = 0; i < profiles.size(); ++i) records.emplace_back(Win(executables[i]), Win(profiles[i]));
  return InventoryBytes(records);
}

RunResult ProfileScene::Tool(const std::string& action, const EnvChanges& env) const {
  EnvChanges all = prefix.Env();
  for (const auto& [name, value] : env) all[name] = value;
  return tool.Run({action, "/test-appdata", Win(roaming), "/test-localappdata", Win(local), "/package", Win(package)},
                  all);
}

}  // namespace qv::test
