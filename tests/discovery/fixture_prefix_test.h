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
#include "support/fixtures.h"
#include "support/test_support.h"

namespace qv::test {

class FixturePrefixTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("WINEPREFIX");
    hadPrefix_ = old != nullptr;
    if (hadPrefix_) savedPrefix_ = old;
    prefix_ = MakeFixturePrefix(temp_.path());
    ::setenv("WINEPREFIX", prefix_.root.c_str(), 1);
  }
  void TearDown() override {
    if (hadPrefix_) {
      ::setenv("WINEPREFIX", savedPrefix_.c_str(), 1);
    } else {
      ::unsetenv("WINEPREFIX");
    }
  }

  // Host path of "C:\<relative>", relative written with "/".
  std::string Host(const std::string& relative) const { return prefix_.C(relative); }
  // "C:\<relative>" in Windows form.
  static WString Win(const std::string& relative) {
    std::string text = "C:\\" + relative;
    std::replace(text.begin(), text.end(), '/', '\\');
    return Utf8ToWide(text);
  }
  // A complete installation in C:\<folder>; its executable's Windows path.
  WString Fusion(const std::string& folder) {
    MakeFusionInstallation(Host(folder));
    return Win(folder.empty() ? "Fusion360.exe" : folder + "/Fusion360.exe");
  }
  // The account's per-user folders; the roaming one is the default profile.
  WString Roaming() const { return Utf8ToWide(prefix_.RoamingWin()); }
  WString Local() const { return Utf8ToWide(prefix_.LocalWin()); }

  TempDir temp_;
  FixturePrefix prefix_;

 private:
  bool hadPrefix_ = false;
  std::string savedPrefix_;
};

// The records as (executable, appData) pairs, for comparisons that print.
inline std::vector<std::pair<WString, WString>> Records(const FusionInstallationList& list) {
  std::vector<std::pair<WString, WString>> pairs;
  for (const FusionInstallation& record : list) pairs.emplace_back(record.executable, record.appData);
  return pairs;
}

// An inventory file as the tool writes it: UTF-16LE with its byte order
// mark, every line ended by CR LF. Lines are given in UTF-8.
inline std::string InventoryText(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  return Utf16LeWithBom(Utf8ToWide(text));
}

}  // namespace qv::test
