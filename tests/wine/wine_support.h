// Running MinGW-built programs under Wine in the prefix the test run made
// once with wineboot ($QUORVANE_WINE_PREFIX).
#pragma once

#include <string>
#include <vector>

#include "support/environment.h"

namespace qv::test {

// The shared Wine prefix of this test run, or empty when Wine is not there.
std::string SharedWinePrefix();

// Runs a Windows program under wine64 in `prefix` and waits for the server
// to write the registry back.
RunResult RunUnderWine(const std::string& prefix, const std::string& program, const std::vector<std::string>& args);

// Waits until the prefix's wineserver has ended, so that system.reg and
// user.reg on disk are current.
void WaitForWineServer(const std::string& prefix);

}  // namespace qv::test
