// A Wine prefix in a temporary folder whose C: is drive_c and whose Z: is
// not mapped (so "/"), made the prefix of the test for its duration.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "support/test_support.h"

namespace qv::test {

class DriveCPrefixTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeDirs(dir_ / "prefix/drive_c");
    MakeSymlink("../drive_c", dir_ / "prefix/dosdevices/c:");
    ::setenv("WINEPREFIX", (dir_ / "prefix").c_str(), 1);
  }
  void TearDown() override { ::unsetenv("WINEPREFIX"); }
  std::string C(const std::string& relative) const { return dir_ / ("prefix/drive_c/" + relative); }
  TempDir dir_;
};

}  // namespace qv::test
