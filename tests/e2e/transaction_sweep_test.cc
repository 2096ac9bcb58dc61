// Fault and crash sweeps over an update and an uninstall of three profiles.
//
// A first run lists every platform call. Then the run is repeated on a fresh
// machine once for each call from the first change of the run on, with only
// that call failing or the process ending at its start, and the disk is
// checked: all profiles in the new state or all as they were, never a mix.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <regex>
#include <set>

#include "support/scene.h"
#include "support/scene.h"

namespace qv::test {
namespace {

constexpr char kRestored[] = "Installed profiles restored.";
constexpr char kInstalled[] = "Quorvane installed/updated.\n";
constexpr char kUninstalled[] = "Quorvane uninstalled. Settings and ODB++ outputs preserved.\n";
// Points whose checks failed before a sweep gives up, so that one systematic
// fault does not bury the report under hundreds of copies.
constexpr int kFailedPointLimit = 5;

// What a run may change, read before it.
struct MachineState {
  std::vector<TreeSnapshot> addIns;
  bool hasInventory = false;
  std::string inventory;
};

MachineState Capture(const ProfileScene& scene) {
  MachineState state;
  for (std::size_t i = 0; i < scene.profiles.size(); ++i) state.addIns.push_back(SnapshotTree(scene.AddIn(i)));
  state.hasInventory = Exists(scene.InventoryFile());
  state.inventory = ReadFile(scene.InventoryFile());
  return state;
}

// The inventory after a successful install: the installations of the run.
std::string InstalledInventory(const ProfileScene& scene) {
  std::vector<std::pair<std::string, std::string>> records;
  for (std::size_t i = 0; i < scene.profiles.size(); ++i) {
    records.emplace_back(scene.Win(scene.executables[i]), scene.Win(scene.profiles[i]));
  }
  return InventoryBytes(records);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start) + "<no line end>");
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// A fixed message of the transaction, or a file operation's failure.
bool IsFailureText(const std::string& line) {
  static const std::set<std::string> fixed = {
      "Cannot stage existing profile.", "Cannot prepare complete Add-In payload.",
      "Cannot read previous Fusion inventory.", "Cannot save discovered Fusion installations."};
  static const std::regex filesystem(R"re([a-z_:]+: [^\n]+: "C:\\[^"]*"(, "C:\\[^"]*")?)re");
  return fixed.count(line) != 0 || std::regex_match(line, filesystem);
}

// The single transaction directory of profile i after a run, or "".
std::string TransactionOf(const ProfileScene& scene, std::size_t i) {
  const std::vector<std::string> ids = scene.TransactionDirectories(i);
  return ids.size() == 1 ? scene.Backups(i) + "/" + ids[0] : std::string();
}

// Exit code 6, the failure, a recovery line per profile from the last to the
// first, the closing line; every add-in and the inventory as they were.
// `closing` is the expected last line.
void ExpectRolledBack(const ProfileScene& scene, const MachineState& before, const RunResult& r,
                      const std::string& closing = kRestored) {
  EXPECT_EQ(r.exitCode, 6) << r.err;
  EXPECT_EQ(r.out, "");
  const std::vector<std::string> lines = Lines(r.err);
  const std::size_t n = scene.profiles.size();
  ASSERT_EQ(lines.size(), n + 2) << r.err;
  EXPECT_TRUE(IsFailureText(lines[0])) << lines[0];
  std::string id;
  for (std::size_t k = 0; k < n; ++k) {
    const std::size_t i = n - 1 - k;
    const std::string head = "Recovery directory: " + scene.Win(scene.Backups(i)) + "\\";
    ASSERT_EQ(lines[1 + k].rfind(head, 0), 0u) << lines[1 + k];
    const std::string tail = lines[1 + k].substr(head.size());
    if (k == 0) id = tail;
    EXPECT_EQ(tail, id);
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9]+-[0-9]+"))) << id;
  }
  EXPECT_EQ(lines.back(), closing);
  if (closing != kRestored) return;
  for (std::size_t i = 0; i < n; ++i) {
    const TreeSnapshot now = SnapshotTree(scene.AddIn(i));
    EXPECT_EQ(now, before.addIns[i]) << "profile " << i << "\n" << DescribeTreeDifference(before.addIns[i], now);
    EXPECT_FALSE(Exists(scene.Backups(i) + "/" + id + "/before")) << "profile " << i;
  }
  EXPECT_EQ(Exists(scene.InventoryFile()), before.hasInventory);
  EXPECT_EQ(ReadFile(scene.InventoryFile()), before.inventory);
}

// Exit code 0, the report, every profile in the new state.
void ExpectCompleted(const ProfileScene& scene, const MachineState& before, const RunResult& r, bool uninstall) {
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::string report;
  for (std::size_t i = 0; i < scene.profiles.size(); ++i) {
    const std::string transaction = TransactionOf(scene, i);
    ASSERT_NE(transaction, "") << "profile " << i;
    report += "Profile: " + scene.Win(scene.AddIn(i)) + "\nBackup: " + scene.Win(transaction + "/before") + "\n";
    const TreeSnapshot expected = uninstall ? TreeSnapshot() : UpdatedAddIn(before.addIns[i]);
    const TreeSnapshot now = SnapshotTree(scene.AddIn(i));
    EXPECT_EQ(now, expected) << "profile " << i << "\n" << DescribeTreeDifference(expected, now);
    EXPECT_EQ(SnapshotTree(transaction + "/before"), before.addIns[i]) << "profile " << i;
    EXPECT_FALSE(Exists(transaction + "/prepared")) << "profile " << i;
  }
  EXPECT_EQ(r.out, report + (uninstall ? kUninstalled : kInstalled));
  EXPECT_EQ(ReadFile(scene.InventoryFile()), uninstall ? before.inventory : InstalledInventory(scene));
}

// Where a profile stands after a process died during a run.
enum class CrashState { Unchanged, OldMovedAway, Done };

CrashState ClassifyAfterCrash(const ProfileScene& scene, const MachineState& before, std::size_t i, bool uninstall) {
  const TreeSnapshot now = SnapshotTree(scene.AddIn(i));
  const std::string transaction = TransactionOf(scene, i);
  const TreeSnapshot backup = transaction.empty() ? TreeSnapshot() : SnapshotTree(transaction + "/before");
  if (now == before.addIns[i] && backup.empty()) return CrashState::Unchanged;
  EXPECT_EQ(backup, before.addIns[i]) << "profile " << i << ": the old add-in is neither in place nor in before";
  if (now.empty()) return uninstall ? CrashState::Done : CrashState::OldMovedAway;
  EXPECT_FALSE(uninstall) << "profile " << i;
  EXPECT_EQ(now, UpdatedAddIn(before.addIns[i])) << "profile " << i << "\n"
                                                 << DescribeTreeDifference(UpdatedAddIn(before.addIns[i]), now);
  return CrashState::Done;
}

// The states a killed run may leave: profiles done, at most one whose old
// add-in is moved away, then untouched ones, in the order of the run; the
// inventory rewritten only once every profile is done. Then a plain install
// must succeed and leave every profile complete.
void ExpectRecoverableAfterCrash(const ProfileScene& scene, const MachineState& before, const RunResult& r,
                                 bool uninstall) {
  EXPECT_EQ(r.signal, 9) << "exit " << r.exitCode << "\n" << r.err;
  std::vector<CrashState> states;
  for (std::size_t i = 0; i < scene.profiles.size(); ++i) states.push_back(ClassifyAfterCrash(scene, before, i, uninstall));
  for (std::size_t i = 1; i < states.size(); ++i) {
    EXPECT_LE(static_cast<int>(states[i]), static_cast<int>(states[i - 1])) << "profile " << i << " ran ahead";
    if (states[i - 1] == CrashState::OldMovedAway) EXPECT_EQ(states[i], CrashState::Unchanged);
  }
  const std::string inventory = ReadFile(scene.InventoryFile());
  bool allDone = true;
  for (CrashState state : states) allDone = allDone && state == CrashState::Done;
  if (inventory != before.inventory) {
    EXPECT_TRUE(allDone && !uninstall) << "inventory rewritten before every profile was done";
    EXPECT_EQ(inventory, InstalledInventory(scene));
  }

  RunResult again = scene.Tool("/install");
  // The killed run abandoned its run lock; a run started afterwards gets it
  // afresh.
  ASSERT_EQ(again.exitCode, 0) << again.err;
  for (std::size_t i = 0; i < scene.profiles.size(); ++i) {
    // A profile whose old add-in was moved away, or removed by the uninstall,
    // is installed afresh from the package alone.
    const TreeSnapshot origin = states[i] == CrashState::OldMovedAway || (uninstall && states[i] == CrashState::Done)
                                    ? TreeSnapshot()
                                    : before.addIns[i];
    const TreeSnapshot now = SnapshotTree(scene.AddIn(i));
    EXPECT_TRUE(IsHealthyTree(now)) << "profile " << i;
    EXPECT_EQ(now, UpdatedAddIn(origin)) << "profile " << i << "\n" << DescribeTreeDifference(UpdatedAddIn(origin), now);
  }
}


// A run on a fresh machine with the given faults, and its check.
using RunCheck = std::function<void(const ProfileScene&, const MachineState&, const RunResult&)>;

class TransactionSweep : public ::testing::Test {
 protected:
  // The calls of a clean run of `action` from its first change on: every
  // write when `writes` is set, and every `queryStride`-th status query
  // (none when it is 0).
  //
  // A CreateDirectoryW of a folder that already exists, on the way to a
  // deeper one (the next call makes the next element), is passed over when it
  // fails: those calls go to `intermediate`, to be failed many at a time.
  // With `crash`, they are left out altogether, since ending the process at
  // their start leaves the same disk as ending it at the next call.
  void ListPoints(const std::string& action, bool writes, int queryStride, bool crash,
                  std::vector<LoggedCall>& single, std::vector<LoggedCall>& intermediate) {
    TempDir dir;
    ProfileScene scene(dir.path());
    const std::string log = dir / "calls.log";
    const MachineState before = Capture(scene);
    RunResult r = scene.Tool(action, {{"QUORVANE_FAULTS_LOG", log}});
    ExpectCompleted(scene, before, r, action == "/uninstall");

    const std::vector<LoggedCall> calls = ReadCallLog(log);
    std::set<std::string> folders;  // made or found by an earlier call
    bool changing = false;
    int queries = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const LoggedCall& call = calls[i];
      changing = changing || call.operation == "CreateDirectoryW";
      if (!changing) continue;
      if (IsStatusQuery(call.operation)) {
        if (queryStride > 0 && queries++ % queryStride == 0) single.push_back(call);
        continue;
      }
      if (!writes || !IsWriteOperation(call.operation)) continue;
      if (call.operation == "CreateDirectoryW") {
        const bool existed = !folders.insert(call.arguments).second || FolderExistedBefore(scene, call.arguments);
        if (existed && crash) continue;
        if (existed && LeadsDeeper(calls, i)) {
          intermediate.push_back(call);
          continue;
        }
      }
      single.push_back(call);
    }
  }

  static bool FolderExistedBefore(const ProfileScene& scene, const std::string& windowsPath) {
    if (windowsPath.rfind("C:\\", 0) != 0) return true;
    std::string relative = windowsPath.substr(3);
    std::replace(relative.begin(), relative.end(), '\\', '/');
    return Exists(scene.prefix.C(relative));
  }

  // Whether the next write after call i makes a folder one element below it.
  static bool LeadsDeeper(const std::vector<LoggedCall>& calls, std::size_t i) {
    for (std::size_t j = i + 1; j < calls.size(); ++j) {
      if (!IsWriteOperation(calls[j].operation)) continue;
      const std::string& path = calls[i].arguments;
      const std::string& next = calls[j].arguments;
      return calls[j].operation == "CreateDirectoryW" && next.size() > path.size() + 1 &&
             next.compare(0, path.size(), path) == 0 && next[path.size()] == '\\' &&
             next.find('\\', path.size() + 1) == std::string::npos;
    }
    return false;
  }

  // One run on a fresh machine; false when its checks failed.
  bool RunPoint(const std::string& action, const std::string& faults, const std::string& what, const RunCheck& check,
                int& exitCode) {
    SCOPED_TRACE(action + " with " + faults + " (" + what + ")");
    const auto* result = ::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int partsBefore = result->total_part_count();
    TempDir dir;
    ProfileScene scene(dir.path());
    const MachineState before = Capture(scene);
    // Leaks are looked for by the other tests; here the sanitizer's exit scan
    // would double the time of every run.
    RunResult r = scene.Tool(action, {{"QUORVANE_FAULTS", faults}, {"ASAN_OPTIONS", "detect_leaks=0"}});
    exitCode = r.exitCode;
    check(scene, before, r);
    return result->total_part_count() == partsBefore;
  }

  struct Counts {
    int runs = 0;
    int points = 0;
    int rolledBack = 0;
    int completed = 0;
    int failedPoints = 0;
  };

  // Fails every call of `group` in one run. A run that does not complete is
  // checked and then split, until each call that stops the run has had a run
  // of its own.
  void SweepGroup(const std::string& action, const std::vector<std::pair<LoggedCall, std::string>>& group,
                  const RunCheck& check, Counts& counts) {
    if (group.empty() || counts.failedPoints >= kFailedPointLimit) return;
    std::string faults;
    for (const auto& [call, code] : group) faults += (faults.empty() ? "" : ",") + FaultAt(call, code);
    int exitCode = -1;
    ++counts.runs;
    const bool passed = RunPoint(action, faults, group.size() == 1 ? group[0].first.arguments : "several", check,
                                 exitCode);
    if (!passed && ++counts.failedPoints >= kFailedPointLimit) {
      ADD_FAILURE() << "giving up after " << counts.failedPoints << " failed points";
      return;
    }
    if (exitCode == 0 || group.size() == 1) {
      counts.points += static_cast<int>(group.size());
      (exitCode == 0 ? counts.completed : counts.rolledBack) += static_cast<int>(group.size());
      return;
    }
    const std::size_t half = group.size() / 2;
    SweepGroup(action, {group.begin(), group.begin() + half}, check, counts);
    SweepGroup(action, {group.begin() + half, group.end()}, check, counts);
  }

  // The failing call fails with access denied or a full disk, in turn for
  // writes; status queries are denied. `batch` calls of `intermediate` fail
  // together.
  Counts SweepPoints(const std::string& action, const std::vector<LoggedCall>& single,
                     const std::vector<LoggedCall>& intermediate, const std::string& crashOrEmpty,
                     std::size_t batch, const RunCheck& check) {
    auto code = [&](const LoggedCall& call) {
      if (!crashOrEmpty.empty()) return crashOrEmpty;
      if (!IsWriteOperation(call.operation)) return std::string("5");
      return std::string(call.number % 2 == 0 ? "112" : "5");
    };
    Counts counts;
    for (const LoggedCall& call : single) SweepGroup(action, {{call, code(call)}}, check, counts);
    for (std::size_t start = 0; start < intermediate.size(); start += batch) {
      std::vector<std::pair<LoggedCall, std::string>> group;
      for (std::size_t i = start; i < std::min(intermediate.size(), start + batch); ++i) {
        group.emplace_back(intermediate[i], code(intermediate[i]));
      }
      SweepGroup(action, group, check, counts);
    }
    return counts;
  }

  void FaultSweep(const std::string& action, bool writes, int queryStride) {
    const bool uninstall = action == "/uninstall";
    std::vector<LoggedCall> single;
    std::vector<LoggedCall> intermediate;
    ListPoints(action, writes, queryStride, false, single, intermediate);
    ASSERT_FALSE(single.empty());
    const Counts counts =
        SweepPoints(action, single, intermediate, "", 32,
                    [&](const ProfileScene& scene, const MachineState& before, const RunResult& r) {
                      if (r.exitCode == 0) {
                        ExpectCompleted(scene, before, r, uninstall);
                      } else {
                        ExpectRolledBack(scene, before, r);
                      }
                    });
    std::cout << "[ sweep    ] " << action << " faults: " << counts.points << " calls failed in " << counts.runs
              << " runs; " << counts.rolledBack << " rolled back, " << counts.completed << " passed over\n";
    EXPECT_GT(counts.rolledBack, 0);
  }

  void CrashSweep(const std::string& action, int queryStride) {
    const bool uninstall = action == "/uninstall";
    std::vector<LoggedCall> single;
    std::vector<LoggedCall> intermediate;
    ListPoints(action, true, queryStride, true, single, intermediate);
    ASSERT_FALSE(single.empty());
    const Counts counts =
        SweepPoints(action, single, {}, "crash", 1,
                    [&](const ProfileScene& scene, const MachineState& before, const RunResult& r) {
                      ExpectRecoverableAfterCrash(scene, before, r, uninstall);
                    });
    std::cout << "[ sweep    ] " << action << " crashes: " << counts.runs << " runs\n";
  }
};

// An update makes about 470 writes, most of them folders on the way to a
// file that already exist, and about 500 status queries: every write is
// failed, and one query in eight.
TEST_F(TransactionSweep, UpdateFailsWholeOrPassesOverAtEveryWrite) { FaultSweep("/install", true, 0); }

TEST_F(TransactionSweep, UpdateFailsWholeOrPassesOverAtSampledStatusQueries) { FaultSweep("/install", false, 8); }

TEST_F(TransactionSweep, UninstallFailsWholeOrPassesOverAtEveryWriteAndQuery) { FaultSweep("/uninstall", true, 1); }

TEST_F(TransactionSweep, UpdateKilledAtAnyChangeLeavesARecoverableDisk) { CrashSweep("/install", 50); }

TEST_F(TransactionSweep, UninstallKilledAtAnyChangeLeavesARecoverableDisk) { CrashSweep("/uninstall", 1); }

}  // namespace
}  // namespace qv::test
