#include "driver/entry_point.h"
#include "platform/platform.h"

int main(int argc, char** argv) { return qv::RunSetup(qv::platform::CommandLineArguments(argc, argv)); }
