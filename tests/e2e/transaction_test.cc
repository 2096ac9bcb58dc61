// Transactions over several profiles, checked on the disk: what a run
// changes when it succeeds, what the plan refuses before anything is
// written, how a failure is undone and where the files are when an undo
// fails. Then sweeps: the same run repeated with each of its platform calls
// failing, or the process ending at its start, in turn; all profiles must
// end old or all new, never a mix.
#include <algorithm>
#include <filesystem>
#include <functional>

#include "support/scene.h"

namespace qv::test {
namespace {

constexpr char kUnsafeProfile[] = "Unsafe profile path or backup already exists.";
constexpr char kCannotSave[] = "Cannot save discovered Fusion installations.";
constexpr char kUnsafePackage[] = "Missing or unsafe package payload.";

class Transaction : public EndToEnd {};

TEST_P(Transaction, FirstInstallBesideUpdatesThenUninstallBesideAnEmptyProfile) {
  // Profile 1 has no add-in and not even an AddIns folder: its backup line
  // names a folder that never comes into being.
  ProfileScene s(tool(), 3, {true, false, true});
  std::filesystem::remove_all(s.AddIns(1));
  const Before old(s);
  ExpectCompleted(s, old, s.Tool("/install"), false);
  // Nothing to move in profile 0; every profile is reported all the same.
  std::filesystem::remove_all(s.AddIn(0));
  const Before installed(s);
  ExpectCompleted(s, installed, s.Tool("/uninstall"), true);
}

// Refusals of the plan: the failure, the recovery lines of the profiles that
// passed their checks, the closing line, and nothing on the C: drive changed.
TEST_P(Transaction, ThePlanRefusesBeforeAnythingIsWritten) {
  const auto linkAway = [](const std::string& folder, const std::string& elsewhere) {
    MakeDirs(folder);
    std::filesystem::rename(folder, elsewhere);
    MakeSymlink(elsewhere, folder);
  };
  struct Row {
    bool installOnly;
    std::function<void(const ProfileScene&)> spoil;
    std::string message;
    std::size_t passed;
  };
  const std::vector<Row> rows = {
      // Links on the way to an add-in, inside one, on the way to the backups.
      {false, [&](auto& s) { linkAway(s.AddIns(1), s.machine.C("Away")); }, kUnsafeProfile, 1},
      {false, [](auto& s) { MakeSymlink(s.AddIns(0), s.AddIn(2) + "/Bin/linked"); }, kUnsafeProfile, 2},
      {false, [&](auto& s) { linkAway(s.profiles[1] + "/KELDARO", s.machine.C("K")); }, kUnsafeProfile, 1},
      // The add-in's name taken by a file; a folder of its name without the
      // manifest is someone else's.
      {false, [](auto& s) { std::filesystem::remove_all(s.AddIn(0)), WriteFile(s.AddIn(0), "a file"); },
       kUnsafeProfile, 0},
      {false, [](auto& s) { std::filesystem::remove(s.AddIn(2) + "/KELDARO_Quorvane.manifest"); },
       "Unrecognized existing Add-In directory; nothing overwritten.", 2},
      // A link on the way to the inventory, which discovery still reads.
      {false, [&](auto& s) { linkAway(s.local + "/Quorvane", s.machine.C("Q")); }, "Unsafe installation record path.",
       0},
      // A package that is not one; an uninstall does not look at it.
      {true, [](auto& s) { MakeSymlink(s.AddIns(0), s.package + "/AddIn/extra"); }, kUnsafePackage, 0},
      {true, [&](auto& s) { linkAway(s.package + "/AddIn", s.machine.C("A")); }, kUnsafePackage, 0},
      {true, [](auto& s) { std::filesystem::remove(s.package + "/Bin/Quorvane_Helper.exe"); }, kUnsafePackage, 0},
  };
  for (const Row& row : rows) {
    for (const std::string action : {"/install", "/uninstall"}) {
      if (row.installOnly && action == "/uninstall") continue;
      SCOPED_TRACE("row " + std::to_string(&row - rows.data()) + ", " + action);
      ProfileScene s(tool());
      row.spoil(s);
      const TreeSnapshot drive = SnapshotTree(s.machine.C());
      const Before before(s);
      const RunResult r = s.Tool(action);
      EXPECT_EQ(r.err.substr(0, row.message.size() + 1), row.message + "\n");
      ExpectRolledBack(s, before, r, row.passed);
      // The passed profiles' lines name directories that were never made.
      ExpectTree(s.machine.C(), drive, "drive");
    }
  }
}

TEST_P(Transaction, TwoProfilesAreUndoneInReverseOrderWhereverTheRunStops) {
  QV_SKIP_UNLESS(tool().faults, "This build has no fault points");
  // The first copy into profile B (index 1) in a clean run.
  const ProfileScene clean(tool(), 2);
  const std::string log = clean.machine.C("calls.log"), b = clean.Win(clean.profiles[1]) + "\\";
  ASSERT_EQ(clean.Tool("/install", {{"QUORVANE_FAULTS_LOG", log}}).exitCode, 0);
  const std::vector<LoggedCall> calls = ReadCallLog(log);
  const auto firstCopyOfB = std::ranges::find_if(
      calls, [&](const LoggedCall& c) { return c.operation == "CopyFileW" && c.arguments.starts_with(b); });
  ASSERT_NE(firstCopyOfB, calls.end());
  // The inventory's temporary file is flushed right before it takes the
  // inventory's name: the last write before that rename.
  const auto inventoryRename = std::ranges::find_if(calls, [](const LoggedCall& c) {
    return c.operation == "MoveFileExW" && c.arguments.ends_with("\\Quorvane\\Installation.ini");
  });
  const auto lastWrite = std::find_if(std::make_reverse_iterator(inventoryRename), calls.rend(),
                                      [](const LoggedCall& c) { return IsWriteOperation(c.operation); });
  ASSERT_TRUE(inventoryRename != calls.end() && lastWrite != calls.rend());
  ASSERT_EQ(lastWrite->operation, "FlushFileBuffers");
  struct Row {
    std::string faults;
    std::string failure;  // empty: the rename of the swap's step `rename` (1 to 4)
    int rename;
    // Per profile, what the failed run leaves in prepared: c the complete new
    // add-in; b folders only, its stage having stopped at its first copy; -
    // no transaction directory, its stage not having begun.
    std::string prepared;
  };
  std::vector<Row> rows = {{"CopyFileW@1=5", "Cannot stage existing profile.", 0, "b-"},
                           {FaultAt(*firstCopyOfB, "5"), "Cannot stage existing profile.", 0, "cb"},
                           {FaultAt(*lastWrite, "5"), kCannotSave, 0, "cc"}};
  // The swap moves A's old add-in to before and A's prepared into its place,
  // then B's.
  for (int step = 1; step <= 4; ++step) rows.push_back({"MoveFileExW@" + std::to_string(step) + "=5", "", step, "cc"});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.faults);
    ProfileScene s(tool(), 2);
    const Before before(s);
    const RunResult r = s.Tool("/install", {{"QUORVANE_FAULTS", row.faults}});
    const std::string id = ExpectRolledBack(s, before, r, 2);
    std::string failure = row.failure;
    if (row.rename > 0) {
      const std::size_t i = (row.rename - 1) / 2;
      const std::string t = s.Backups(i) + "/" + id, from = row.rename % 2 ? s.AddIn(i) : t + "/prepared";
      const std::string to = row.rename % 2 ? t + "/before" : s.AddIn(i);
      failure = "rename: Access denied.: \"" + s.Win(from) + "\", \"" + s.Win(to) + "\"";
    }
    for (std::size_t i = 0; i < 2; ++i) {
      const std::string p = i == 0 ? "A" : "B", transaction = s.Backups(i) + "/" + id;
      const TreeSnapshot prepared = SnapshotTree(transaction + "/prepared");
      if (row.prepared[i] == 'c') ExpectTree(transaction + "/prepared", UpdatedAddIn(before.addIns[i]), p);
      const bool onlyFolders = std::ranges::all_of(prepared, [](auto& e) { return e.second == "<dir>"; });
      EXPECT_TRUE(row.prepared[i] != 'b' || (!prepared.empty() && onlyFolders)) << p;
      EXPECT_TRUE(row.prepared[i] != '-' || !Exists(transaction)) << p;
    }
    EXPECT_EQ(r.err.substr(0, failure.size() + 1), failure + "\n");
    // A retry under a new transaction id starts clean and succeeds.
    const Before retry(s);
    ExpectCompleted(s, retry, s.Tool("/install"), false);
  }
}

// The inventory's rename fails, and so does one rename of the undo: the walk
// goes on with the other steps and profiles, and every file is where the
// rules say.
TEST_P(Transaction, AFailedUndoLeavesEachAddInInANamedPlace) {
  QV_SKIP_UNLESS(tool().faults, "This build has no fault points");
  // Six renames of the swap, the inventory's, then the undo: profile 2's two
  // steps, then profile 1's, then profile 0's.
  for (int undo = 0; undo < 6; ++undo) {
    SCOPED_TRACE(undo);
    ProfileScene s(tool());
    const Before before(s);
    const RunResult r =
        s.Tool("/install", {{"QUORVANE_FAULTS", "MoveFileExW@7=5,MoveFileExW@" + std::to_string(8 + undo) + "=5"}});
    const std::string id = ExpectRolledBack(s, before, r, 3, "ROLLBACK INCOMPLETE; inspect recovery directories.");
    EXPECT_EQ(r.err.rfind(std::string(kCannotSave) + "\n", 0), 0u);
    EXPECT_EQ(ReadFile(s.InventoryFile()), before.inventory);
    const std::size_t broken = 2 - static_cast<std::size_t>(undo / 2);
    const bool newAddInStuck = undo % 2 == 0;
    for (std::size_t i = 0; i < 3; ++i) {
      const TreeSnapshot old = before.addIns[i], updated = UpdatedAddIn(old);
      const std::string t = s.Backups(i) + "/" + id;
      // Where the new add-in could not leave, the old one could not return.
      const std::vector<TreeSnapshot> expected = i != broken     ? std::vector{old, {}, updated}
                                                 : newAddInStuck ? std::vector{updated, old, {}}
                                                                 : std::vector{{}, old, updated};
      ExpectTree(s.AddIn(i), expected[0], "add-in " + std::to_string(i));
      ExpectTree(t + "/before", expected[1], "before " + std::to_string(i));
      ExpectTree(t + "/prepared", expected[2], "prepared " + std::to_string(i));
    }
  }
}

QV_E2E_SUITE(Transaction);

// --- Sweeps ------------------------------------------------------------------

// Where a profile stands after the process died during a run.
enum class CrashState { Unchanged, OldMovedAway, Done };

// The states a killed run may leave: profiles done, at most one whose old
// add-in is moved away, then untouched ones, in the order of the run; the
// inventory rewritten only once every profile is done. The killed run
// abandoned its run lock: the next run must obtain it afresh, and leave every
// profile complete.
void ExpectRecoverableAfterCrash(const ProfileScene& s, const Before& before, const RunResult& r, bool uninstall) {
  EXPECT_TRUE(s.machine.tool.Crashed(r)) << "exit " << r.exitCode << "\n" << r.err;
  std::vector<CrashState> states;
  for (std::size_t i = 0; i < s.profiles.size(); ++i) {
    // The old add-in in place, or in the backup with the new one (or,
    // uninstalling, none) in its place.
    const TreeSnapshot now = SnapshotTree(s.AddIn(i)), old = before.addIns[i];
    const std::vector<std::string> ids = s.TransactionDirectories(i);
    const TreeSnapshot backup = ids.size() == 1 ? SnapshotTree(s.Backups(i) + "/" + ids[0] + "/before") : TreeSnapshot();
    states.push_back(now == old && backup.empty() ? CrashState::Unchanged
                     : now.empty() && !uninstall  ? CrashState::OldMovedAway
                                                  : CrashState::Done);
    EXPECT_TRUE(states[i] == CrashState::Unchanged || backup == old) << i << ": the old add-in is lost";
    EXPECT_TRUE(states[i] != CrashState::Done || now == (uninstall ? TreeSnapshot() : UpdatedAddIn(old)))
        << i << ": the add-in is neither old nor new";
    EXPECT_TRUE(i == 0 || (states[i] <= states[i - 1] &&
                           (states[i - 1] != CrashState::OldMovedAway || states[i] == CrashState::Unchanged)))
        << "profile " << i << " ran ahead";
  }
  if (const std::string inventory = ReadFile(s.InventoryFile()); inventory != before.inventory) {
    EXPECT_TRUE(!uninstall && std::ranges::count(states, CrashState::Done) == static_cast<long>(states.size()))
        << "inventory rewritten before every profile was done";
    EXPECT_EQ(inventory, s.InstalledInventory());
  }
  ASSERT_EQ(s.Tool("/install").exitCode, 0);
  for (std::size_t i = 0; i < s.profiles.size(); ++i) {
    // A profile whose old add-in was moved away, or removed by the uninstall,
    // is installed afresh from the package alone.
    const bool fresh = states[i] == CrashState::OldMovedAway || (uninstall && states[i] == CrashState::Done);
    ExpectTree(s.AddIn(i), UpdatedAddIn(fresh ? TreeSnapshot() : before.addIns[i]), "profile " + std::to_string(i));
  }
}

class Sweep : public EndToEnd {
 protected:
  // A clean run of `action` lists the calls. From its first change on, each
  // of these fails alone: every write when `writes` is set, and every
  // `queryStride`-th attribute query (none when 0). Writes fail with access
  // denied or a full disk in turn, queries with access denied; with `crash`,
  // the process ends at the start of the call instead.
  void RunSweep(const std::string& action, bool writes, int queryStride, bool crash) {
    QV_SKIP_UNLESS(tool().faults, "This build has no fault points");
    action_ = action;
    crash_ = crash;
    ProfileScene s(tool());
    const std::string log = s.machine.C("calls.log");
    const Before before(s);
    ExpectCompleted(s, before, s.Tool(action, {{"QUORVANE_FAULTS_LOG", log}}), action == "/uninstall");
    bool changing = false;
    std::size_t queries = 0;
    for (const LoggedCall& call : ReadCallLog(log)) {
      changing = changing || call.operation == "CreateDirectoryW";
      if (!changing) continue;
      if (call.operation == "GetFileAttributesW" || call.operation == "GetFileAttributesExW") {
        if (queryStride > 0 && queries++ % queryStride == 0) Fail(call);
      } else if (writes && IsWriteOperation(call.operation)) {
        Fail(call);
      }
    }
    EXPECT_GT(stopped_, 0);
  }

  // Fails `call` in one run on a fresh machine.
  void Fail(const LoggedCall& call) {
    const bool full = IsWriteOperation(call.operation) && call.number % 2 == 0;
    const std::string faults = FaultAt(call, crash_ ? "crash" : full ? "112" : "5");
    SCOPED_TRACE(action_ + " with " + faults + " (" + call.arguments + ")");
    ProfileScene s(tool());
    const Before before(s);
    // Leaks are looked for by the other tests; here the sanitizer's exit scan
    // would double the time of every run.
    const RunResult r = s.Tool(action_, {{"QUORVANE_FAULTS", faults}, {"ASAN_OPTIONS", "detect_leaks=0"}});
    if (crash_) {
      ExpectRecoverableAfterCrash(s, before, r, action_ == "/uninstall");
    } else if (r.exitCode == 0) {
      ExpectCompleted(s, before, r, action_ == "/uninstall");
    } else {
      ExpectRolledBack(s, before, r, s.profiles.size());
    }
    if (r.exitCode != 0) ++stopped_;
  }

  std::string action_;
  bool crash_ = false;
  std::size_t stopped_ = 0;
};

// Every write of an update is failed, and one attribute query in eight.
TEST_P(Sweep, UpdateFailsWholeOrPassesOverAtEveryWrite) { RunSweep("/install", true, 0, false); }
TEST_P(Sweep, UpdateFailsWholeOrPassesOverAtSampledQueries) { RunSweep("/install", false, 8, false); }
TEST_P(Sweep, UninstallFailsWholeOrPassesOverAtEveryWriteAndQuery) { RunSweep("/uninstall", true, 1, false); }
TEST_P(Sweep, UpdateKilledAtAnyChangeLeavesARecoverableDisk) { RunSweep("/install", true, 50, true); }
TEST_P(Sweep, UninstallKilledAtAnyChangeLeavesARecoverableDisk) { RunSweep("/uninstall", true, 1, true); }

QV_E2E_SUITE(Sweep);

}  // namespace
}  // namespace qv::test
