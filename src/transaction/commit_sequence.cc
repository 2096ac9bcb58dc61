// Stage, Swap and Report: every profile is staged before any is swapped, and
// one profile's swap is finished before the next one's begins.
#include "paths/failure.h"
#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "payload/payload.h"
#include "platform/platform.h"
#include "transaction/transaction_steps.h"

namespace qv {
namespace {

constexpr char kCannotStage[] = "Cannot stage existing profile.";
constexpr char kCannotPrepare[] = "Cannot prepare complete Add-In payload.";

void CreateDirectoriesOrRaise(const WString& path) {
  std::uint32_t error = 0;
  CreateDirectories(path, error);
  if (error != 0) throw FilesystemFailure("create_directories", error, path);
}

bool ExistsOrRaise(const WString& path) {
  std::uint32_t error = 0;
  const bool exists = PathExists(path, error);
  if (error != 0) throw FilesystemFailure("exists", error, path);
  return exists;
}

void RenameOrRaise(const WString& from, const WString& to) {
  const std::uint32_t error = RenamePath(from, to);
  if (error != 0) throw FilesystemFailure("rename", error, from, to);
}

}  // namespace

void StageProfiles(const WString& packageRoot, const ProfileChangeList& changes, bool uninstall) {
  for (const ProfileChange& change : changes) {
    CreateDirectoriesOrRaise(PathParent(change.before));
    if (uninstall) continue;

    // The operations' own messages are never shown: the fixed texts stand
    // for them.
    WString ignored;
    // The old add-in goes in first, so that files the package does not
    // replace carry over into the new one.
    if (ExistsOrRaise(change.addIn) && !CopyAddInPayload(change.addIn, change.prepared, ignored)) {
      throw TransactionFailure(kCannotStage);
    }
    if (!PrepareAddIn(packageRoot, change.prepared, ignored)) throw TransactionFailure(kCannotPrepare);
    if (!IsAddInHealthy(change.prepared)) throw TransactionFailure(kCannotPrepare);
  }
}

void SwapProfiles(ProfileChangeList& changes, bool uninstall) {
  for (ProfileChange& change : changes) {
    // Asked again rather than taken from Stage: the profile may have changed
    // since.
    if (ExistsOrRaise(change.addIn)) {
      RenameOrRaise(change.addIn, change.before);
      change.oldMovedAway = true;
    }
    if (uninstall) continue;

    // Makes AddIns on a profile that has none yet.
    CreateDirectoriesOrRaise(PathParent(change.addIn));
    RenameOrRaise(change.prepared, change.addIn);
    change.newMovedIn = true;
  }
}

void ReportProfiles(const ProfileChangeList& changes) {
  for (const ProfileChange& change : changes) {
    platform::WriteStdout(u"Profile: " + change.addIn + u"\nBackup: " + change.before + u"\n");
  }
}

}  // namespace qv
