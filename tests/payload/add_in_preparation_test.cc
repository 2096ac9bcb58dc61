// Turning a prepared folder into a complete add-in from a package folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "payload/payload.h"
#include "support/scene.h"

namespace qv {
namespace {

using test::MakeDirs;
using test::ReadFile;
using test::WriteFile;

constexpr char kInstallState[] = "[Installation]\r\nVersion=0.1.8\r\n";

class AddInPreparationTest : public test::PrefixCase {
 protected:
  bool Prepare(const std::string& package, const std::string& target) {
    return PrepareAddIn(Win(package), Win(target), error_);
  }
  WString error_ = u"untouched";
};

TEST_F(AddInPreparationTest, BuildsACompleteAddInOverWhatThePreparedFolderHolds) {
  test::MakePackage(Host("pkg"), "new");
  WriteFile(Host("pkg/AddIn/install-state.ini"), "from the package");
  WriteFile(Host("pkg/Bin/Other.dll"), "not read");
  test::MakeInstalledAddIn(Host("prepared"), "old");
  WriteFile(Host("prepared/install-state.ini"), std::string(200, 'x'));
  WriteFile(Host("prepared/old_only.py"), "carried over");

  ASSERT_TRUE(Prepare("pkg", "prepared"));
  EXPECT_EQ(error_, u"untouched");
  for (const std::string& name : test::kAddInFiles) EXPECT_EQ(ReadFile(Host("prepared/" + name)), "new:" + name);
  EXPECT_EQ(ReadFile(Host("prepared/Bin/Quorvane_Helper.exe")), "new:helper");
  EXPECT_FALSE(test::Exists(Host("prepared/Bin/Other.dll")));
  EXPECT_EQ(ReadFile(Host("prepared/old_only.py")), "carried over");
  EXPECT_EQ(ReadFile(Host("prepared/install-state.ini")), std::string(kInstallState));
  EXPECT_EQ(std::filesystem::file_size(Host("prepared/install-state.ini")), 31u);
  EXPECT_TRUE(IsAddInHealthy(Win("prepared")));

  // A fresh target: made, and complete as well.
  ASSERT_TRUE(Prepare("pkg", "fresh/prepared"));
  EXPECT_TRUE(IsAddInHealthy(Win("fresh/prepared")));
  EXPECT_EQ(ReadFile(Host("fresh/prepared/install-state.ini")), std::string(kInstallState));
}

TEST_F(AddInPreparationTest, MissingPartsOfThePackageAreNamed) {
  MakeDirs(Host("pkg"));
  EXPECT_FALSE(Prepare("pkg", "prepared"));
  EXPECT_EQ(error_, u"Package AddIn folder is missing: C:\\pkg\\AddIn");
  EXPECT_FALSE(test::Exists(Host("prepared")));

  // The helper inside AddIn\Bin travels with the payload but is not the
  // package's helper.
  WriteFile(Host("pkg/AddIn/KELDARO_Quorvane.py"), "py");
  WriteFile(Host("pkg/AddIn/Bin/Quorvane_Helper.exe"), "misplaced");
  EXPECT_FALSE(Prepare("pkg", "prepared"));
  EXPECT_EQ(error_, u"Package helper is missing: C:\\pkg\\Bin\\Quorvane_Helper.exe");
  EXPECT_EQ(ReadFile(Host("prepared/KELDARO_Quorvane.py")), "py");
  EXPECT_EQ(ReadFile(Host("prepared/Bin/Quorvane_Helper.exe")), "misplaced");
  EXPECT_FALSE(test::Exists(Host("prepared/install-state.ini")));

  // A folder in the helper's place is no helper either.
  MakeDirs(Host("pkg/Bin/Quorvane_Helper.exe"));
  error_.clear();
  EXPECT_FALSE(Prepare("pkg", "prepared"));
  EXPECT_EQ(error_, u"Package helper is missing: C:\\pkg\\Bin\\Quorvane_Helper.exe");
}

TEST_F(AddInPreparationTest, WhatCannotBeWrittenInThePreparedFolderFails) {
  test::MakePackage(Host("pkg"));

  // A file named Bin: its creation is not reported, the copy into it is.
  WriteFile(Host("binIsFile/Bin"), "file");
  EXPECT_FALSE(Prepare("pkg", "binIsFile"));
  EXPECT_EQ(error_, u"Cannot install helper. Error 3");
  EXPECT_EQ(ReadFile(Host("binIsFile/Bin")), "file");

  // A state file that cannot be opened fails without words.
  MakeDirs(Host("stateIsFolder/install-state.ini"));
  error_ = u"untouched";
  EXPECT_FALSE(Prepare("pkg", "stateIsFolder"));
  EXPECT_EQ(error_, u"untouched");
  EXPECT_EQ(ReadFile(Host("stateIsFolder/Bin/Quorvane_Helper.exe")), "new:helper");
}

#if defined(QUORVANE_FAULT_INJECTION)

TEST(AddInPreparationFaultTest, StateFileThatCannotBeWrittenFailsWithoutWords) {
  test::FreshProcessDeathTests fresh;
  EXPECT_EXIT(test::RunWithFaults("WriteFile@1=112",
                                  [](const test::FixturePrefix& prefix) {
                                    test::MakePackage(prefix.C("pkg"));
                                    WString error = u"untouched";
                                    if (PrepareAddIn(test::WinPath("pkg"), test::WinPath("prepared"), error)) return 1;
                                    if (error != u"untouched") return 2;
                                    // Payload and helper are in place before the state file.
                                    return IsAddInHealthy(test::WinPath("prepared")) ? 0 : 3;
                                  }),
              ::testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
}  // namespace qv
