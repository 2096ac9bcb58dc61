#include "driver/entry_point.h"
#include "platform/platform.h"

#if defined(_WIN32)
#include <windows.h>
#endif

int main(int argc, char** argv) {
#if defined(_WIN32)
  // The program may run from a Downloads folder, beside files nobody checked.
  // Before anything else, every DLL loaded from here on, by the program or by
  // system DLLs on its behalf, comes from System32 only: neither the
  // program's folder nor the current folder is searched. The import table
  // names only KnownDLLs, which Windows maps from System32 anyway.
  ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  ::SetDllDirectoryW(L"");
#endif
  return qv::RunSetup(qv::platform::CommandLineArguments(argc, argv));
}
