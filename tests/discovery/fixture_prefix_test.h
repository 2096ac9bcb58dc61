// A fixture prefix that the test process itself uses as its Windows
// machine: every "C:\x" of a test lands in the prefix's drive_c/x.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "paths/installation.h"
#include "platform/wstring.h"
#include "support/prefix.h"
#include "support/scene.h"
#include "support/environment.h"

namespace qv::test {

class FixturePrefixTest : public PrefixCase {
 protected:
  // A complete installation in C:\<folder>; its executable's Windows path.
  WString Fusion(const std::string& folder) {
    MakeFusionInstallation(Host(folder));
    return Win(folder.empty() ? "Fusion360.exe" : folder + "/Fusion360.exe");
  }
  // The account's per-user folders; the roaming one is the default profile.
  WString Roaming() const { return Utf8ToWide(prefix_.RoamingWin()); }
  WString Local() const { return Utf8ToWide(prefix_.LocalWin()); }
};

// The records as (executable, appData) pairs, for comparisons that print.
inline std::vector<std::pair<WString, WString>> Records(const FusionInstallationList& list) {
  std::vector<std::pair<WString, WString>> pairs;
  for (const FusionInstallation& record : list) pairs.emplace_back(record.executable, record.appData);
  return pairs;
}

}  // namespace qv::test
