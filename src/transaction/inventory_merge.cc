// The Inventory phase: the installations of this run first, then every saved
// entry whose executable they do not name.
#include "inventory/inventory.h"
#include "paths/failure.h"
#include "paths/path_rules.h"
#include "transaction/transaction_steps.h"

namespace qv {

FusionInstallationList MergeInventory(const FusionInstallationList& current, const FusionInstallationList& saved) {
  FusionInstallationList merged = current;
  for (const FusionInstallation& entry : saved) {
    bool named = false;
    // Compared with every entry now in the list, saved ones included, and by
    // executable alone: a profile change of a known executable is current
    // data and wins.
    for (const FusionInstallation& kept : merged) {
      if (SamePath(kept.executable, entry.executable)) {
        named = true;
        break;
      }
    }
    if (!named) merged.push_back(entry);
  }
  return merged;
}

void UpdateInventory(const WString& localAppData, const FusionInstallationList& installations) {
  FusionInstallationList saved;
  WString ignored;
  if (!LoadInventory(localAppData, saved, ignored)) throw TransactionFailure("Cannot read previous Fusion inventory.");
  if (!SaveInventory(localAppData, MergeInventory(installations, saved))) {
    throw TransactionFailure("Cannot save discovered Fusion installations.");
  }
}

}  // namespace qv
