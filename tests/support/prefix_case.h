// A test case on a fixture prefix of its own, and fresh child processes whose
// platform calls fail as a test chooses.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/wstring.h"
#include "support/fixtures.h"
#include "support/test_support.h"

namespace qv::test {

// Windows path "C:\<relative>", the relative part written with "/".
WString WinPath(const std::string& relative);

// Points WINEPREFIX at a fixture prefix for the life of the test and puts it
// back afterwards.
class PrefixCase : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Host path of "C:\<relative>".
  std::string Host(const std::string& relative) const { return prefix_.C(relative); }
  static WString Win(const std::string& relative) { return WinPath(relative); }

  TempDir temp_;
  FixturePrefix prefix_;

 private:
  std::string savedPrefix_;
  bool hadPrefix_ = false;
};

// For use as the statement of a death test in the "threadsafe" style, which
// starts the test binary afresh: sets QUORVANE_FAULTS to `faults` before the
// child's first platform call, makes a fixture prefix in a temporary folder,
// runs `body` on it and ends the child with body's result once the folder is
// gone. The fault rules are read once per process, hence the fresh process.
//
//   test::FreshProcessDeathTests fresh;
//   EXPECT_EXIT(RunWithFaults("MoveFileExW@1=5", body), ::testing::ExitedWithCode(0), "");
[[noreturn]] void RunWithFaults(const std::string& faults, const std::function<int(const FixturePrefix&)>& body);

// Makes the death tests of a scope start the test binary afresh ("threadsafe"
// style) and puts the previous style back when it goes.
class FreshProcessDeathTests {
 public:
  FreshProcessDeathTests() : saved_(GTEST_FLAG_GET(death_test_style)) { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~FreshProcessDeathTests() { GTEST_FLAG_SET(death_test_style, saved_); }
  FreshProcessDeathTests(const FreshProcessDeathTests&) = delete;
  FreshProcessDeathTests& operator=(const FreshProcessDeathTests&) = delete;

 private:
  std::string saved_;
};

}  // namespace qv::test
