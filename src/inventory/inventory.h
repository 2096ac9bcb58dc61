// The saved inventory: Quorvane\Installation.ini below the local folder.
#pragma once

#include "paths/installation.h"

namespace qv {

inline constexpr std::size_t kInventoryLimit = 128;

// The value of `key` in section Fusion of the file, or empty (also for a
// value that was cut).
WString ReadIniValue(const WString& path, const WString& key);

// Appends the saved records to `saved`. True with nothing appended when there
// is no file; false with `error` set when the file is unusable.
bool LoadInventory(const WString& localAppData, FusionInstallationList& saved, WString& error);

// Replaces the inventory with `records` in one step. False leaves the old
// file as it was.
bool SaveInventory(const WString& localAppData, const FusionInstallationList& records);

}  // namespace qv
