// The all-or-nothing change of the add-in over every profile of a run.
#pragma once

#include <vector>

#include "paths/installation.h"

namespace qv {

struct ProfileChange {
  WString addIn;
  WString before;
  WString prepared;
  bool oldMovedAway = false;
  bool newMovedIn = false;
};

using ProfileChangeList = std::vector<ProfileChange>;

// The AppData roots of the installations, each once, in order of first
// appearance.
std::vector<WString> UniqueAddInProfiles(const FusionInstallationList& installations);

// Plan, Stage, Swap, Inventory and Report. 0 on success, 6 on any failure.
int RunTransaction(const WString& packageRoot, const WString& localAppData,
                   const FusionInstallationList& installations, bool uninstall);

}  // namespace qv
