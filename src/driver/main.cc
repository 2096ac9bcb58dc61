#include "driver/entry_point.h"
#include "platform/platform.h"

// On Windows the DLL search is limited to System32 before this runs
// (src/startup/startup.cc).
int main(int argc, char** argv) { return qv::RunSetup(qv::platform::CommandLineArguments(argc, argv)); }
