// Merging the found, running and saved executables into one list, and
// discovery from the test folders alone.
#include "discovery/discovery.h"
#include <filesystem>

#include "discovery/fixture_prefix_test.h"

namespace qv::test {
namespace {

using Pairs = std::vector<std::pair<WString, WString>>;

constexpr char16_t kLacksApi[] = u"Running Fusion lacks the required Electronics API: ";
constexpr char16_t kNeedsApi[] = u"The selected Fusion profile must contain Autodesk\\Autodesk Fusion 360\\API.";
constexpr char16_t kUnidentified[] = u"Fusion was found, but its Add-In profile cannot be identified automatically: ";

class ReconciliationTest : public FixturePrefixTest {
 protected:
  // A profile folder C:\Profiles\<name> holding the API folder.
  WString Profile(const std::string& name) {
    MakeDirs(Host("Profiles/" + name + "/Autodesk/Autodesk Fusion 360/API"));
    return Win("Profiles/" + name);
  }
  bool Reconcile(const ExecutableList& found, const ExecutableList& running, const FusionInstallationList& saved) {
    installations_ = {{u"stale", u"stale"}};
    error_ = u"stale";
    const bool ok = ReconcileInstallations(found, running, saved, Roaming(), installations_, error_);
    EXPECT_EQ(ok, error_.empty());
    if (!ok) {
      EXPECT_TRUE(installations_.empty());
    }
    return ok;
  }
  FusionInstallationList installations_;
  WString error_;
};

TEST_F(ReconciliationTest, OneExecutableFromThreeSourcesGivesOneRecord) {
  const WString a = Fusion("wd/a");
  const WString b = Fusion("Prog/B");
  const WString onlyRunning = Fusion("Port/bin");
  MakeDirs(Host("Port/PortableData/Roaming/Autodesk/Autodesk Fusion 360/API"));
  MakeDirs(Host("Port/PortableData/Local"));
  const WString onlySaved = Fusion("Saved/S");
  const WString first = Profile("First");
  const WString later = Profile("Later");

  const ExecutableList found{a, b};
  const ExecutableList running{onlyRunning, u"c:\\prog\\b\\FUSION360.EXE", a};
  const FusionInstallationList saved{{u"C:\\PROG\\B\\fusion360.exe", first},
                                     {onlySaved, Roaming()},
                                     {Win("gone/Fusion360.exe"), Roaming()},
                                     {u"C:\\prog\\B\\Fusion360.EXE", later}};
  ASSERT_TRUE(Reconcile(found, running, saved)) << WideToUtf8(error_);
  // Found entries first and in their text; running-only before saved-only;
  // the later saved record for B wins; the vanished one is passed over.
  EXPECT_EQ(Records(installations_), (Pairs{{a, Roaming()},
                                             {b, later},
                                             {onlyRunning, Win("Port/PortableData/Roaming")},
                                             {onlySaved, Roaming()}}));

  // A saved record beats the portable layout of a running executable.
  ASSERT_TRUE(Reconcile({}, {onlyRunning}, {{onlyRunning, first}}));
  EXPECT_EQ(Records(installations_), (Pairs{{onlyRunning, first}}));

  // Finding nothing is no failure.
  ASSERT_TRUE(Reconcile({}, {}, {}));
  EXPECT_TRUE(installations_.empty());
}

TEST_F(ReconciliationTest, OnlyAToZFold) {
  const WString upper = Fusion("Apps/\xC3\x84");  // Ä
  const WString lower = Fusion("Apps/\xC3\xA4");  // ä
  ASSERT_TRUE(Reconcile({upper}, {lower}, {{lower, Roaming()}}));
  EXPECT_EQ(Records(installations_), (Pairs{{upper, Roaming()}, {lower, Roaming()}}));
}

TEST_F(ReconciliationTest, FailuresEmptyTheListAndTheFirstDecides) {
  const WString good = Fusion("Good");
  const WString broken = Fusion("Broken");
  std::filesystem::remove(Host("Broken/API/Python/packages/adsk/electron.py"));
  const WString stray = Fusion("Stray");

  // A running Fusion without the API stops the run, ahead of any profile
  // question; the same folder merely drops out when only a scan or the
  // inventory names it.
  EXPECT_FALSE(Reconcile({good}, {stray, broken, u""}, {}));
  EXPECT_EQ(error_, WString(kLacksApi) + broken);
  EXPECT_FALSE(Reconcile({good}, {u""}, {}));
  EXPECT_EQ(error_, WString(kLacksApi));
  ASSERT_TRUE(Reconcile({good}, {}, {{broken, Roaming()}}));
  EXPECT_EQ(Records(installations_), (Pairs{{good, Roaming()}}));
  // The found list is trusted as it stands; files that vanish after the scan
  // are caught when the profile is looked for.
  EXPECT_FALSE(Reconcile({good, broken}, {}, {}));
  EXPECT_EQ(error_, u"Fusion executable or Electronics API files are missing: " + broken);

  // A running Fusion that nothing else knows, outside the portable layout,
  // ends discovery even though an earlier candidate had its profile.
  EXPECT_FALSE(Reconcile({good}, {stray}, {}));
  EXPECT_EQ(error_, WString(kUnidentified) + stray);
  // A saved record gives it one.
  ASSERT_TRUE(Reconcile({good}, {stray}, {{stray, Roaming()}}));
  EXPECT_EQ(installations_.size(), 2u);

  // A saved profile that lost its API folder stops discovery, unless it is
  // the current profile.
  MakeDirs(Host("Profiles/Bare"));
  EXPECT_FALSE(Reconcile({good}, {}, {{good, Win("Profiles/Bare")}}));
  EXPECT_EQ(error_, kNeedsApi);
  ASSERT_TRUE(Reconcile({good}, {}, {{good, Win("Profiles/Bare")}, {good, Roaming()}}));
  EXPECT_EQ(Records(installations_), (Pairs{{good, Roaming()}}));
}

TEST_F(ReconciliationTest, IsolatedDiscoveryReadsOnlyTheTestFolders) {
  const std::string local = "Test/Local";
  const WString roaming = Win("Test/Roaming");
  MakeDirs(Host(local));
  MakeDirs(Host("Test/Roaming"));

  FusionInstallationList installations{{u"stale", u"stale"}};
  WString error = u"stale";
  ASSERT_TRUE(DiscoverIsolatedInstallations(roaming, Win(local), installations, error));
  EXPECT_TRUE(installations.empty());
  EXPECT_TRUE(error.empty());

  // Three webdeploy folders share the test profile; a saved record adds its
  // own executable and profile.
  const WString one = Fusion(local + "/Autodesk/webdeploy/production/one");
  const WString two = Fusion(local + "/Autodesk/webdeploy/production/two");
  const WString three = Fusion(local + "/Autodesk/webdeploy/production/three");
  const WString savedExe = Fusion("Elsewhere");
  const WString savedProfile = Profile("Saved");
  WriteFile(Host(local + "/Quorvane/Installation.ini"),
            InventoryText({"[Fusion]", "Count=2", "Executable0=" + WideToUtf8(savedExe),
                           "AppData0=" + WideToUtf8(savedProfile), "Executable1=" + WideToUtf8(two),
                           "AppData1=" + WideToUtf8(savedProfile)}));
  ASSERT_TRUE(DiscoverIsolatedInstallations(roaming, Win(local), installations, error)) << WideToUtf8(error);
  ASSERT_EQ(installations.size(), 4u);
  Pairs records = Records(installations);
  EXPECT_EQ(records.back(), std::make_pair(savedExe, savedProfile));
  records.pop_back();
  std::sort(records.begin(), records.end());
  EXPECT_EQ(records, (Pairs{{one, roaming}, {three, roaming}, {two, savedProfile}}));

  // A malformed inventory ends it with its message.
  WriteFile(Host(local + "/Quorvane/Installation.ini"), InventoryText({"[Fusion]", "Count=x"}));
  EXPECT_FALSE(DiscoverIsolatedInstallations(roaming, Win(local), installations, error));
  EXPECT_TRUE(installations.empty());
  EXPECT_EQ(error, u"Invalid saved Fusion installation list.");
}

}  // namespace
}  // namespace qv::test
