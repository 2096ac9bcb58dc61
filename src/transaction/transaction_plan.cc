// Plan: every check of the run, for every profile, before anything changes.
#include "paths/failure.h"
#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "transaction/transaction_steps.h"

namespace qv {
namespace {

constexpr char kUnsafeRecordPath[] = "Unsafe installation record path.";
constexpr char kUnsafePackage[] = "Missing or unsafe package payload.";
constexpr char kUnsafeProfile[] = "Unsafe profile path or backup already exists.";
constexpr char kForeignAddIn[] = "Unrecognized existing Add-In directory; nothing overwritten.";

void CheckInventoryPlace(const WString& localAppData) {
  if (!HasNoReparsePoint(PathAppend(localAppData, u"Quorvane")) || !HasNoReparsePoint(InventoryPath(localAppData))) {
    throw TransactionFailure(kUnsafeRecordPath);
  }
}

void CheckPackage(const WString& packageRoot) {
  // A package without AddIn passes here: a missing tree is a safe one, and
  // the preparation of Stage is what finds it incomplete.
  if (!IsSafeDirectoryTree(PathAppend(packageRoot, u"AddIn")) ||
      !IsRegularFile(PathAppend(PathAppend(packageRoot, u"Bin"), u"Quorvane_Helper.exe"))) {
    throw TransactionFailure(kUnsafePackage);
  }
}

ProfileChange PlanProfile(const WString& profile, const WString& transactionId) {
  ProfileChange change;
  change.addIn = AddInDirectory(FusionInstallation{WString(), profile});

  WString transactionDirectory = profile;
  for (const char16_t* element : {u"KELDARO", u"Quorvane", u"InstallBackups"}) {
    transactionDirectory = PathAppend(transactionDirectory, element);
  }
  transactionDirectory = PathAppend(transactionDirectory, transactionId);
  change.before = PathAppend(transactionDirectory, u"before");
  change.prepared = PathAppend(transactionDirectory, u"prepared");

  if (!IsSafeDirectoryTree(change.addIn)) throw TransactionFailure(kUnsafeProfile);
  if (!HasNoReparsePoint(transactionDirectory)) throw TransactionFailure(kUnsafeProfile);
  if (PathExists(transactionDirectory)) throw TransactionFailure(kUnsafeProfile);
  // The manifest's presence is the whole test of ownership; its content is
  // never read. An uninstall asks too, so a foreign folder of this name is
  // neither replaced nor moved.
  if (PathExists(change.addIn) && !IsRegularFile(PathAppend(change.addIn, u"KELDARO_Quorvane.manifest"))) {
    throw TransactionFailure(kForeignAddIn);
  }
  return change;
}

}  // namespace

void PlanTransaction(const WString& packageRoot, const WString& localAppData, const std::vector<WString>& profiles,
                     bool uninstall, const WString& transactionId, ProfileChangeList& changes) {
  CheckInventoryPlace(localAppData);
  if (!uninstall) CheckPackage(packageRoot);
  for (const WString& profile : profiles) changes.push_back(PlanProfile(profile, transactionId));
}

}  // namespace qv
