// The failure path of the transaction. It trusts the two flags of each record
// alone, never the disk, and deletes nothing.
#include "driver/exit_codes.h"
#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "platform/platform.h"
#include "transaction/transaction_steps.h"

namespace qv {

int RollBack(const std::string& failureText, const ProfileChangeList& changes) {
  platform::WriteStderrNarrow(failureText + "\n");
  bool restored = true;
  for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
    // A failed undo does not stop the walk: the old add-in is still tried,
    // and so are the remaining profiles.
    if (change->newMovedIn && RenamePath(change->addIn, change->prepared) != 0) restored = false;
    if (change->oldMovedAway && RenamePath(change->before, change->addIn) != 0) restored = false;
    platform::WriteStderr(u"Recovery directory: " + PathParent(change->before) + u"\n");
  }
  platform::WriteStderrNarrow(restored ? "Installed profiles restored.\n"
                                       : "ROLLBACK INCOMPLETE; inspect recovery directories.\n");
  return kExitTransactionFailed;
}

}  // namespace qv
