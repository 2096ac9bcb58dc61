// Sandboxes for the benchmarks: a prefix made of plain folders, complete
// Fusion installations, installed add-ins and packages.
#pragma once

#include <string>

namespace qv::bench {

struct Sandbox {
  std::string root;    // the temporary folder
  std::string prefix;  // $WINEPREFIX
  std::string proc;    // an empty process table
  std::string user;
  std::string C(const std::string& relative) const { return prefix + "/drive_c/" + relative; }
};

// A prefix whose C: is drive_c; system.reg is `systemReg` (or a minimal one
// naming the account's profile when empty), with the account's folders.
Sandbox MakeSandbox(const std::string& systemReg = "");

void MakeFusion(const std::string& folder);
// An add-in of `files` files and `bytes` bytes in all, with the seven that
// make it complete among them.
void MakeAddIn(const std::string& folder, int files, long long bytes, const std::string& tag);
// A package: AddIn of `files` files and `bytes` bytes, and Bin\Quorvane_Helper.exe.
void MakePackage(const std::string& folder, int files, long long bytes);

}  // namespace qv::bench
