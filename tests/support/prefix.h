// A Windows machine as the Linux host sees it: a Wine prefix made as plain
// folders, with its drive map, registry files in Wine's format, the
// account's folders, a saved inventory and a fake process table.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "paths/installation.h"
#include "platform/wstring.h"
#include "support/environment.h"

namespace qv::test {

// --- Registry files in Wine's text format -------------------------------
// The shape Wine's server saves (headers with a time, "#time=", escaped
// names and strings, wrapped hex), so the reader is tested against what
// Wine writes.

// A value as its line has it after "name=".
struct RegFileValue {
  std::u16string name;  // empty: the default value, written "@="
  std::string data;
};

struct RegFileKey {
  std::u16string path;  // relative to the file's root, single backslashes
  std::vector<RegFileValue> values;
  bool link = false;  // "#link": the key is a link to its "SymbolicLinkValue"
};

RegFileValue SzValue(const std::u16string& name, const std::u16string& text);
RegFileValue DwordValue(const std::u16string& name, std::uint32_t value);
// Any bytes as hex(N):, as Wine saves what is no whole string.
RegFileValue TypedValue(const std::u16string& name, std::uint32_t type, const std::vector<std::uint8_t>& bytes);
// A link key to `target` ("\Registry\Machine\..." or "\Registry\User\<SID>\..."), as
// Wine saves its own links: "#link" and the target as REG_LINK without a NUL.
RegFileKey LinkKey(const std::u16string& path, const std::u16string& target);

// --- The prefix ------------------------------------------------------------

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

  // Environment for a run of the tool against this prefix.
  EnvChanges Env() const { return {{"WINEPREFIX", root}, {"QUORVANE_PROC_ROOT", procRoot}}; }

  // Writes system.reg (the account's ProfileList entry, unless
  // `profileList` is false, then `machineKeys`) and user.reg (`userKeys`).
  void WriteRegistry(const std::vector<RegFileKey>& machineKeys = {}, const std::vector<RegFileKey>& userKeys = {},
                     bool profileList = true) const;

  // A process of a fixture table: `argv0` as Wine puts a Windows path there
  // (empty for none), `comm` the kernel's name, owner and login session.
  void AddProcess(int pid, const std::string& argv0, const std::string& comm, unsigned uid,
                  unsigned long session, const std::string& exeLink = "") const;
};

// A prefix in `folder`: C: mapped to drive_c, Z: to /, the registry of
// WriteRegistry(), both AppData folders of the account, an empty process
// table.
FixturePrefix MakeFixturePrefix(const std::string& folder, bool profileList = true);

// A saved inventory as the tool writes it: UTF-16LE with its byte order
// mark, every line ended by CR LF; lines given in UTF-8. InventoryBytes
// writes the file for (executable, appData) records, Windows paths as given.
std::string InventoryText(const std::vector<std::string>& lines);
// The largest inventory the writer can make: 128 records of two paths of
// 32,767 characters, at most 16 characters of key, "=" and line end each,
// and the header, in UTF-16. A larger file is refused unread.
inline constexpr std::uintmax_t kLargestInventoryBytes = 2 * (32 + 128 * 2 * (32767 + 16));
std::string InventoryBytes(const std::vector<std::pair<std::string, std::string>>& records);
// Records as (executable, appData) pairs, for comparisons that print.
using RecordPairs = std::vector<std::pair<WString, WString>>;
inline RecordPairs Pairs(const FusionInstallationList& records) {
  RecordPairs pairs;
  for (const FusionInstallation& record : records) pairs.emplace_back(record.executable, record.appData);
  return pairs;
}

// A test on a fixture prefix of its own: WINEPREFIX points at it for the
// life of the test, and is put back afterwards.
class PrefixCase : public ::testing::Test {
 protected:
  PrefixCase();

  // Host path of "C:\<relative>".
  std::string Host(const std::string& relative) const { return prefix_.C(relative); }
  // "C:\<relative>", the relative part written with "/".
  static WString Win(const std::string& relative);

  TempDir temp_;
  FixturePrefix prefix_;

 private:
  ScopedEnv winePrefix_;
};

}  // namespace qv::test
