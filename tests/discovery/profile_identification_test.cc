// Which Add-In profile a candidate gets: a saved record, the portable
// layout, then the default profile of an executable that a scan reported.
#include "discovery/discovery.h"
#include "discovery/fixture_prefix_test.h"
#include "paths/path_rules.h"

namespace qv::test {
namespace {

constexpr char16_t kMissing[] = u"Fusion executable or Electronics API files are missing: ";
constexpr char16_t kNeedsApi[] = u"The selected Fusion profile must contain Autodesk\\Autodesk Fusion 360\\API.";
constexpr char16_t kUnidentified[] = u"Fusion was found, but its Add-In profile cannot be identified automatically: ";
constexpr char16_t kNoAppData[] = u"Fusion AppData is unavailable.";

class ProfileIdentificationTest : public FixturePrefixTest {
 protected:
  // A Fusion in C:\<root>\<bin>, with the PortableData tree beside its bin
  // folder as asked.
  WString Portable(const std::string& root, const std::string& bin, bool withLocal = true) {
    const std::string base = root.empty() ? "" : root + "/";
    const WString exe = Fusion(base + bin);
    MakeDirs(Host(base + "PortableData/Roaming/Autodesk/Autodesk Fusion 360/API"));
    if (withLocal) MakeDirs(Host(base + "PortableData/Local"));
    return exe;
  }

  // The outcome: the profile, or the error text. The record is complete on
  // success and empty on failure, and the error is empty exactly on success.
  WString Identify(const WString& exe, const WString& saved, const WString& discovered, const WString& appData) {
    FusionInstallation installation{u"stale", u"stale"};
    WString error = u"stale";
    const bool ok = IdentifyAddInProfile(exe, saved, discovered, appData, installation, error);
    if (!ok) {
      EXPECT_TRUE(installation.executable.empty() && installation.appData.empty());
      EXPECT_FALSE(error.empty());
      return u"error: " + error;
    }
    EXPECT_TRUE(error.empty());
    EXPECT_EQ(installation.executable, CanonicalPath(exe));
    return installation.appData;
  }
};

TEST_F(ProfileIdentificationTest, VanishedFilesAreReportedWithThePathAsPassed) {
  const WString gone = u"C:\\gone\\.\\Fusion360.exe";
  EXPECT_EQ(Identify(gone, u"", gone, Roaming()), u"error: " + WString(kMissing) + gone);
  EXPECT_EQ(Identify(u"Fusion360.exe", Roaming(), u"", Roaming()),
            u"error: " + WString(kMissing) + u"Fusion360.exe");
  // The executable is made canonical on the way.
  const WString exe = Fusion("Apps/Fusion");
  EXPECT_EQ(Identify(u"C:\\Apps\\x\\..\\Fusion\\Fusion360.exe", u"", exe, Roaming()), Roaming());
}

TEST_F(ProfileIdentificationTest, SavedRecordDecidesAlone) {
  const WString exe = Portable("P", "bin");
  const WString other = Win("Profiles/Other");
  MakeDirs(Host("Profiles/Other/Autodesk/Autodesk Fusion 360/API"));
  MakeDirs(Host("Profiles/Bare"));

  // Equal to the current profile, in other case and with a trailing
  // separator, though no API folder lies under it: its own text, canonical.
  WString current = Roaming();
  for (WChar& c : current) c = (c >= u'a' && c <= u'z') ? static_cast<WChar>(c - 32) : c;
  EXPECT_EQ(Identify(exe, current + u"\\", u"", Roaming()), current);
  // Another folder with the API folder.
  EXPECT_EQ(Identify(exe, other + u"\\x\\..", u"", Roaming()), other);
  // Neither: the portable layout and a scan cannot rescue it.
  EXPECT_EQ(Identify(exe, Win("Profiles/Bare"), exe, Roaming()), u"error: " + WString(kNeedsApi));
  EXPECT_EQ(Identify(exe, u"Profiles\\Other", exe, Roaming()), u"error: " + WString(kNeedsApi));
  // A non-ASCII letter in other case makes another profile.
  EXPECT_EQ(Identify(exe, u"C:\\Profiles\\\u00C9t\u00E9", u"", u"C:\\Profiles\\\u00E9t\u00E9"),
            u"error: " + WString(kNeedsApi));
}

TEST_F(ProfileIdentificationTest, PortableLayoutBeatsTheDefaultProfile) {
  for (const std::string bin : {"bin", "BIN", "Bin"}) {
    const WString exe = Portable("Port" + bin, bin);
    const WString roaming = Win("Port" + bin + "/PortableData/Roaming");
    EXPECT_EQ(Identify(exe, u"", u"", Roaming()), roaming) << bin;
    EXPECT_EQ(Identify(exe, u"", exe, Roaming()), roaming) << bin;
  }
  // Another folder name beside a full PortableData tree is not portable.
  const WString app = Portable("App", "app");
  EXPECT_EQ(Identify(app, u"", app, Roaming()), Roaming());
  EXPECT_EQ(Identify(app, u"", u"", Roaming()), u"error: " + WString(kUnidentified) + app);
  // Without PortableData\Local neither.
  const WString noLocal = Portable("NoLocal", "bin", /*withLocal=*/false);
  EXPECT_EQ(Identify(noLocal, u"", noLocal, Roaming()), Roaming());
  EXPECT_EQ(Identify(noLocal, u"", u"", Roaming()), u"error: " + WString(kUnidentified) + noLocal);
  // A PortableData\Roaming without the API folder neither.
  const WString noApi = Fusion("NoApi/bin");
  MakeDirs(Host("NoApi/PortableData/Roaming/Autodesk/Autodesk Fusion 360"));
  MakeDirs(Host("NoApi/PortableData/Local"));
  EXPECT_EQ(Identify(noApi, u"", u"", Roaming()), u"error: " + WString(kUnidentified) + noApi);
}

TEST_F(ProfileIdentificationTest, BinOnADriveRootAndAnExecutableOnADriveRoot) {
  const WString rootBin = Portable("", "bin");
  EXPECT_EQ(rootBin, u"C:\\bin\\Fusion360.exe");
  EXPECT_EQ(Identify(rootBin, u"", u"", Roaming()), u"C:\\PortableData\\Roaming");

  // Directly on the drive, beside that same PortableData tree: no install
  // root, so no portable layout.
  const WString onRoot = Fusion("");
  EXPECT_EQ(onRoot, u"C:\\Fusion360.exe");
  EXPECT_EQ(Identify(onRoot, u"", onRoot, Roaming()), Roaming());
  EXPECT_EQ(Identify(onRoot, u"", u"", Roaming()), u"error: " + WString(kUnidentified) + onRoot);
}

TEST_F(ProfileIdentificationTest, DefaultProfileMustBeCanonical) {
  const WString exe = Fusion("Apps/Fusion");
  EXPECT_EQ(Identify(exe, u"", exe, u""), u"error: " + WString(kNoAppData));
  EXPECT_EQ(Identify(exe, u"", exe, u"\\\\server\\share\\Roaming"), u"error: " + WString(kNoAppData));
  // Not needed where the layout or a saved record decides.
  const WString portable = Portable("P", "bin");
  EXPECT_EQ(Identify(portable, u"", u"", u""), Win("P/PortableData/Roaming"));
  MakeDirs(Host("Saved/Autodesk/Autodesk Fusion 360/API"));
  EXPECT_EQ(Identify(exe, Win("Saved"), u"", u""), Win("Saved"));
}

TEST_F(ProfileIdentificationTest, DirectoryExistsWantsAFolder) {
  MakeDirs(Host("dir"));
  WriteFile(Host("file"), "x");
  EXPECT_TRUE(DirectoryExists(Win("dir")));
  EXPECT_TRUE(DirectoryExists(u"C:\\DIR"));
  EXPECT_FALSE(DirectoryExists(Win("file")));
  EXPECT_FALSE(DirectoryExists(Win("absent")));
  EXPECT_FALSE(DirectoryExists(u""));
}

}  // namespace
}  // namespace qv::test
