// Isolated runs: /status over the two test folders alone, with webdeploy
// builds, saved inventory records and the portable layout made as real
// folders, driven through the built binary.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "platform/wstring.h"
#include "support/scene.h"
#include "support/environment.h"

namespace qv::test {
namespace {

constexpr char kHeader[] = "Quorvane v0.1.8\n";
constexpr char kNotRunning[] = "Fusion running: No\n";
constexpr char kAddIn[] = "\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane";

// The four lines of one installation in the report; no file here carries a
// version resource.
std::string Entry(const std::string& executable, const std::string& appData, bool healthy) {
  return "Path: " + executable + "\nVersion: \nAdd-In path: " + appData + kAddIn +
         "\nAdd-In: " + (healthy ? "Healthy" : "Not installed or incomplete") + "\n";
}

// The report's installation blocks, sorted, for builds whose order is the
// file system's.
std::vector<std::string> Blocks(const std::string& report) {
  std::vector<std::string> blocks;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Path: ", 0) == 0) blocks.emplace_back();
    if (!blocks.empty() && line.rfind("Fusion running: ", 0) != 0) blocks.back() += line + "\n";
  }
  std::sort(blocks.begin(), blocks.end());
  return blocks;
}

// An inventory as the tool writes it: UTF-16LE with BOM, CR LF line ends.
std::string Inventory(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  return Utf16LeWithBom(Utf8ToWide(text));
}

class IsolatedStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    prefix_ = MakeFixturePrefix(dir_.path());
    MakeDirs(prefix_.C("Test/Roaming"));
    MakeDirs(prefix_.C("Test/Local"));
  }
  // The roaming folder is given as a host path, which reaches the run in its
  // Windows form through the drive map; the local one in Windows form.
  RunResult Tool(const std::string& action = "/status") {
    return test::Run(NativeTool().binary, {action, "/test-appdata", prefix_.C("Test/Roaming"), "/test-localappdata", kLocal},
               prefix_.Env());
  }
  std::string Production(const std::string& build) const {
    return prefix_.C("Test/Local/Autodesk/webdeploy/production/" + build);
  }
  void WriteInventory(const std::vector<std::string>& lines) {
    WriteFile(prefix_.C("Test/Local/Quorvane/Installation.ini"), Inventory(lines));
  }

  static constexpr char kRoaming[] = "C:\\Test\\Roaming";
  static constexpr char kLocal[] = "C:\\Test\\Local";
  static constexpr char kProduction[] = "C:\\Test\\Local\\Autodesk\\webdeploy\\production\\";
  TempDir dir_;
  FixturePrefix prefix_;
};

TEST_F(IsolatedStatusTest, WebdeployBuildsShareTheTestProfile) {
  MakeFusionInstallation(Production("b1"));
  RunResult r = Tool();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.out, kHeader + std::string("Autodesk Fusion installations: 1\n") +
                       Entry(kProduction + std::string("b1\\Fusion360.exe"), kRoaming, false) + kNotRunning);
  EXPECT_EQ(r.err, "");

  MakeInstalledAddIn(prefix_.C("Test/Roaming/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane"));
  r = Tool();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, kHeader + std::string("Autodesk Fusion installations: 1\n") +
                       Entry(kProduction + std::string("b1\\Fusion360.exe"), kRoaming, true) + kNotRunning);

  // More builds, beside folders that do not qualify: every complete one
  // reports the same healthy add-in.
  MakeFusionInstallation(Production("b2"));
  MakeFusionInstallation(Production("b3"));
  MakeFusionInstallation(Production(".b4"));
  MakeFusionInstallation(Production("nested/b5"));
  MakeDirs(Production("b6/API/Python/packages/adsk"));
  WriteFile(Production("b6/Fusion360.exe"), "MZ");
  r = Tool();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out.rfind(kHeader + std::string("Autodesk Fusion installations: 3\n"), 0), 0u) << r.out;
  EXPECT_EQ(Blocks(r.out), (std::vector<std::string>{
                               Entry(kProduction + std::string("b1\\Fusion360.exe"), kRoaming, true),
                               Entry(kProduction + std::string("b2\\Fusion360.exe"), kRoaming, true),
                               Entry(kProduction + std::string("b3\\Fusion360.exe"), kRoaming, true)}));
}

TEST_F(IsolatedStatusTest, SavedRecordsAndThePortableLayoutBringTheirOwnProfiles) {
  // A build that the inventory ties to another profile, with the add-in
  // whole there; a saved-only executable in the test profile; a build in a
  // webdeploy folder named bin beside a PortableData tree.
  MakeFusionInstallation(Production("b1"));
  MakeFusionInstallation(prefix_.C("Apps/Fusion"));
  MakeFusionInstallation(Production("bin"));
  MakeDirs(Production("PortableData/Roaming/Autodesk/Autodesk Fusion 360/API"));
  MakeDirs(Production("PortableData/Local"));
  MakeDirs(prefix_.C("Profiles/Other/Autodesk/Autodesk Fusion 360/API"));
  MakeInstalledAddIn(prefix_.C("Profiles/Other/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane"));
  WriteInventory({"[Fusion]", "Count=3", "Executable0=C:\\Apps\\Fusion\\Fusion360.exe",
                  "AppData0=" + std::string(kRoaming), "Executable1=C:\\Gone\\Fusion360.exe",
                  "AppData1=C:\\Profiles\\Other", "Executable2=" + std::string(kProduction) + "B1\\FUSION360.EXE",
                  "AppData2=C:\\Profiles\\Other"});
  const std::string before = ReadFile(prefix_.C("Test/Local/Quorvane/Installation.ini"));

  RunResult r = Tool();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.err, "");
  // The saved-only executable comes last; the found ones keep their text.
  const std::string saved = Entry("C:\\Apps\\Fusion\\Fusion360.exe", kRoaming, false) + kNotRunning;
  ASSERT_GE(r.out.size(), saved.size());
  EXPECT_EQ(r.out.substr(r.out.size() - saved.size()), saved) << r.out;
  EXPECT_EQ(Blocks(r.out),
            (std::vector<std::string>{
                Entry("C:\\Apps\\Fusion\\Fusion360.exe", kRoaming, false),
                Entry(kProduction + std::string("b1\\Fusion360.exe"), "C:\\Profiles\\Other", true),
                Entry(kProduction + std::string("bin\\Fusion360.exe"),
                      kProduction + std::string("PortableData\\Roaming"), false)}));
  // Reading changes nothing.
  EXPECT_EQ(ReadFile(prefix_.C("Test/Local/Quorvane/Installation.ini")), before);
}

TEST_F(IsolatedStatusTest, StaleRecordsAloneGiveTheEmptyReport) {
  WriteInventory({"[Fusion]", "Count=1", "Executable0=C:\\Gone\\Fusion360.exe", "AppData0=C:\\Gone"});
  RunResult r = Tool();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.out, kHeader + std::string("Autodesk Fusion installations: 0\n") + kNotRunning);
  EXPECT_EQ(r.err, "");
}

TEST_F(IsolatedStatusTest, DiscoveryFailuresEndTheRunWithCode5) {
  MakeFusionInstallation(Production("b1"));
  const auto expectFailure = [&](const std::string& message) {
    for (const std::string action : {"/status", "/install", "/uninstall"}) {
      RunResult r = Tool(action);
      EXPECT_EQ(r.exitCode, 5) << action << " " << message;
      EXPECT_EQ(r.out, "") << action;
      EXPECT_EQ(r.err, message + "\n") << action;
    }
  };
  const std::string invalid = "Invalid saved Fusion installation list.";
  const std::string incomplete = "Incomplete saved Fusion installation list.";
  WriteFile(prefix_.C("Test/Local/Quorvane/Installation.ini"), "");
  expectFailure(invalid);
  WriteInventory({"[Fusion]", "Count=129"});
  expectFailure(invalid);
  WriteInventory({"[Fusion]", "Count=2", "Executable0=C:\\A\\Fusion360.exe", "AppData0=C:\\A"});
  expectFailure(incomplete);
  WriteInventory({"[Fusion]", "Count=1", "Executable0=Fusion360.exe", "AppData0=C:\\A"});
  expectFailure(incomplete);
  // A saved profile without the API folder stops discovery as well.
  MakeDirs(prefix_.C("Profiles/Bare"));
  WriteInventory({"[Fusion]", "Count=1", "Executable0=" + std::string(kProduction) + "b1\\Fusion360.exe",
                  "AppData0=C:\\Profiles\\Bare"});
  expectFailure("The selected Fusion profile must contain Autodesk\\Autodesk Fusion 360\\API.");
}

}  // namespace
}  // namespace qv::test
