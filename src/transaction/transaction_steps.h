// The phases of RunTransaction, one function each, so that tests can reach
// a run with a chosen transaction id and the failure path on its own.
#pragma once

#include <string>

#include "transaction/transaction.h"

namespace qv {

// The run's transaction id: the tick count, "-", the process id, both in
// plain decimal.
WString MakeTransactionId();

// RunTransaction with the transaction id given rather than computed.
int RunTransactionWithId(const WString& packageRoot, const WString& localAppData,
                         const FusionInstallationList& installations, bool uninstall, const WString& transactionId);

// Every check before the first change. Appends one record per profile as it
// passes, so that on a raised failure `changes` holds the profiles that had
// passed until then.
void PlanTransaction(const WString& packageRoot, const WString& localAppData, const std::vector<WString>& profiles,
                     bool uninstall, const WString& transactionId, ProfileChangeList& changes);

// Makes every transaction directory and, unless uninstalling, builds and
// judges every `prepared`.
void StageProfiles(const WString& packageRoot, const ProfileChangeList& changes, bool uninstall);

// Moves each old add-in to `before` and, unless uninstalling, `prepared` into
// its place, one profile after the other, setting each flag right after its
// rename.
void SwapProfiles(ProfileChangeList& changes, bool uninstall);

// The saved inventory merged behind the current installations: a saved entry
// stays only when no entry already in the list has the same executable.
FusionInstallationList MergeInventory(const FusionInstallationList& current, const FusionInstallationList& saved);

// Reads, merges and replaces the saved inventory.
void UpdateInventory(const WString& localAppData, const FusionInstallationList& installations);

// The "Profile:" and "Backup:" lines of every record.
void ReportProfiles(const ProfileChangeList& changes);

// The one failure path: shows `failureText`, undoes what the flags record
// from the last record to the first, names each transaction directory and
// closes with whether every undo succeeded. Returns 6.
int RollBack(const std::string& failureText, const ProfileChangeList& changes);

}  // namespace qv
