// The record that ties one Fusion installation to its Add-In profile, and
// the lists that discovery, the inventory and the transaction pass around.
#pragma once

#include <vector>

#include "platform/wstring.h"

namespace qv {

struct FusionInstallation {
  // Canonical full path of the installation's Fusion360.exe; empty in a
  // record that names a profile alone.
  WString executable;
  // Canonical AppData root of the profile the installation uses.
  WString appData;
};

// Ordered as the sources gave them; holds no uniqueness by itself.
using FusionInstallationList = std::vector<FusionInstallation>;

// Canonical executable paths, no two equal under SamePath.
using ExecutableList = std::vector<WString>;

}  // namespace qv
