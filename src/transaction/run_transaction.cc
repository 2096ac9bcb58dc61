// RunTransaction: Plan, Stage, Swap, Inventory and Report, with one handler
// for every failure from the first check on.
#include <exception>

#include "driver/exit_codes.h"
#include "transaction/transaction_steps.h"

namespace qv {

int RunTransactionWithId(const WString& packageRoot, const WString& localAppData,
                         const FusionInstallationList& installations, bool uninstall, const WString& transactionId) {
  const std::vector<WString> profiles = UniqueAddInProfiles(installations);
  ProfileChangeList changes;
  try {
    PlanTransaction(packageRoot, localAppData, profiles, uninstall, transactionId, changes);
    StageProfiles(packageRoot, changes, uninstall);
    SwapProfiles(changes, uninstall);
    // The inventory is written only once every profile is swapped, and an
    // uninstall leaves it alone.
    if (!uninstall) UpdateInventory(localAppData, installations);
    ReportProfiles(changes);
  } catch (const std::exception& failure) {
    // The transaction's own failures, the file failures and exhausted memory
    // share this base and its narrow text.
    return RollBack(failure.what(), changes);
  }
  return kExitSuccess;
}

int RunTransaction(const WString& packageRoot, const WString& localAppData,
                   const FusionInstallationList& installations, bool uninstall) {
  // The id and the list of profiles stand before the failure path; neither
  // touches the disk, so their order is not seen.
  return RunTransactionWithId(packageRoot, localAppData, installations, uninstall, MakeTransactionId());
}

}  // namespace qv
