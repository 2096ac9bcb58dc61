// A host folder tree as a map, so that tests can compare whole trees before
// and after a run, byte for byte.
#pragma once

#include <map>
#include <string>

namespace qv::test {

// Relative path ("a/b.txt") -> content. A folder maps to "<dir>", a symbolic
// link to "<link:target>", anything else to "<other>". The root itself is
// the entry "." ("<dir>" for a folder), so an empty folder and a missing one
// differ: a missing root gives an empty map.
using TreeSnapshot = std::map<std::string, std::string>;

TreeSnapshot SnapshotTree(const std::string& root);

// The entries that differ, one line each, for failure messages.
std::string DescribeTreeDifference(const TreeSnapshot& expected, const TreeSnapshot& actual);

}  // namespace qv::test
