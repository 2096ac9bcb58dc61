// Running MinGW-built programs under Wine in the prefix the test run made
// once with wineboot ($QUORVANE_WINE_PREFIX).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/environment.h"

namespace qv::test {

// The shared Wine prefix of this test run, or empty when Wine is not there.
std::string SharedWinePrefix();

// Runs a Windows program under wine64 in `prefix`, with `env` added to the
// environment, until it ends, and returns what it wrote with Wine's CR LF
// turned into LF. Wine's background programs, started by the first program
// a server runs, inherit its output and may keep it open for long after.
RunResult RunUnderWine(const std::string& prefix, const std::string& program, const std::vector<std::string>& args,
                       const std::map<std::string, std::string>& env = {});

// Starts a Windows program under wine64 in `prefix` and returns once Wine
// has put its Windows path in the process's command line, as the native
// build reads it. Returns its pid, or -1 when it did not come up.
int StartUnderWine(const std::string& prefix, const std::string& windowsPath);

// Ends a process started so.
void StopProcess(int pid);

// Waits until the prefix's wineserver has ended, so that system.reg and
// user.reg on disk are current.
void WaitForWineServer(const std::string& prefix);

}  // namespace qv::test
