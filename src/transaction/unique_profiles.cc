#include "paths/path_rules.h"
#include "transaction/transaction.h"

namespace qv {

std::vector<WString> UniqueAddInProfiles(const FusionInstallationList& installations) {
  std::vector<WString> profiles;
  for (const FusionInstallation& installation : installations) {
    bool known = false;
    for (const WString& profile : profiles) {
      if (SamePath(profile, installation.appData)) {
        known = true;
        break;
      }
    }
    // The first spelling of a root is the one kept; empty roots are not
    // filtered here.
    if (!known) profiles.push_back(installation.appData);
  }
  return profiles;
}

}  // namespace qv
