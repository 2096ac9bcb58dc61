// The options of a run: pairs of a name and a value behind the action.
#pragma once

#include <vector>

#include "platform/wstring.h"

namespace qv {

struct RunOptions {
  WString appData;
  WString localAppData;
  WString packageRoot;
  bool isolated = false;
};

// Reads the pairs from index 2 on into `options`, whose fields hold the
// defaults on entry. False with the message (with its line end) in `error`.
bool ReadOptions(const std::vector<WString>& arguments, RunOptions& options, WString& error);

// The folder of the running executable.
WString LocatePackageRoot();

}  // namespace qv
