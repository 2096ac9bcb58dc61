// The run of one command line, from the usage test to the exit code.
#pragma once

#include <vector>

#include "platform/wstring.h"

namespace qv {

// Runs the tool with its arguments (argument 0 the program) and returns the
// process exit code.
int RunSetup(const std::vector<WString>& arguments);

}  // namespace qv
