#include "support/tree_snapshot.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "support/test_support.h"

namespace qv::test {
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

}  // namespace qv::test
