// Discovery on a fixture prefix: what makes a Fusion installation, the
// profile a candidate gets, and the merge of the sources. (The scans of the
// registry and of webdeploy trees run on a prefix Wine made: tests/wine.)
#include "discovery/discovery.h"

#include <filesystem>

#include "paths/path_rules.h"
#include "support/scene.h"

namespace qv::test {
namespace {

constexpr char16_t kDefault[] = u"C:\\Default";  // the account's profile; need not exist
const WString kMissing = u"error: Fusion executable or Electronics API files are missing: ";
const WString kNeedsApi = u"error: The selected Fusion profile must contain Autodesk\\Autodesk Fusion 360\\API.";
const WString kUnidentified = u"error: Fusion was found, but its Add-In profile cannot be identified automatically: ";
const WString kLacksApi = u"error: Running Fusion lacks the required Electronics API: ";

class DiscoveryTest : public PrefixCase {
 protected:
  // A complete installation in C:\<folder>; its executable.
  WString Fusion(const std::string& folder) {
    MakeFusionInstallation(Host(folder));
    return Win(folder.empty() ? "Fusion360.exe" : folder + "/Fusion360.exe");
  }
  // Fusion in C:\<root>\<bin> beside a PortableData tree with the parts asked for.
  WString Portable(const std::string& root, const std::string& bin, bool api = true, bool local = true) {
    const std::string base = root.empty() ? "" : root + "/";
    MakeDirs(Host(base + "PortableData/Roaming/Autodesk/Autodesk Fusion 360" + (api ? "/API" : "")));
    if (local) MakeDirs(Host(base + "PortableData/Local"));
    return Fusion(base + bin);
  }
};

TEST_F(DiscoveryTest, AnInstallationNeedsItsNameAndEveryApiFileOfItsKind) {
  // Each row writes the executable into a complete installation of its own,
  // then removes ("-") or turns into the other kind ("~") one of its parts.
  const struct { std::string executable, spoil; bool complete; } rows[] = {
      {"Fusion360.exe", "", true}, {"FUSION360.EXE", "", true}, {"FusionLauncher.exe", "", false},
      {"Fusion360.exe.old", "", false}, {"Fus\xC4\xB0on360.exe", "", false},  // only A-Z fold
      {"bin/Fusion360.exe", "", false},  // the API beside the parent folder
      {"Fusion360.exe", "~Fusion360.exe", false}, {"Fusion360.exe", "~API/Python/packages/adsk/core.py", false},
      {"Fusion360.exe", "-API/Python/packages/adsk/electron.py", false},
      {"Fusion360.exe", "~Applications/Electron/LibEagle", false},
      {"Fusion360.exe", "-Applications/Electron/LibEagle", false},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const std::string folder = "F" + std::to_string(i) + "/";
    MakeFusionInstallation(Host(folder));
    WriteFile(Host(folder + rows[i].executable), "MZ");
    if (!rows[i].spoil.empty()) {
      const std::string part = Host(folder + rows[i].spoil.substr(1));
      const bool wasFolder = std::filesystem::is_directory(part);
      std::filesystem::remove(part);
      if (rows[i].spoil[0] == '~') wasFolder ? WriteFile(part, "not a folder") : MakeDirs(part);
    }
    EXPECT_EQ(HasElectronicsApi(Win(folder + rows[i].executable)), rows[i].complete) << folder << rows[i].executable;
  }
  EXPECT_TRUE(HasElectronicsApi(u"C:/F0/Fusion360.exe"));
}

TEST_F(DiscoveryTest, ProfileComesFromTheSavedRecordThenThePortableLayoutThenTheDefault) {
  const WString plain = Fusion("Apps/Fusion");
  const WString portable = Portable("P", "bin");
  MakeDirs(Host("Profiles/Other/Autodesk/Autodesk Fusion 360/API"));
  // The expected profile, or "error: " and the message.
  const struct { WString executable, saved; bool scanned; WString appData, expected; } rows[] = {
      {u"C:\\gone\\.\\Fusion360.exe", u"", true, kDefault, kMissing + u"C:\\gone\\.\\Fusion360.exe"},
      {u"C:\\Apps\\x\\..\\Fusion\\Fusion360.exe", u"", true, kDefault, kDefault},
      // A saved record decides alone: the current profile in any ASCII case
      // even without the API folder, or another one with it.
      {portable, u"C:\\DEFAULT\\", false, kDefault, u"C:\\DEFAULT"},
      {portable, u"C:\\Profiles\\Other\\x\\..", false, kDefault, u"C:\\Profiles\\Other"},
      {portable, u"Profiles\\Other", true, kDefault, kNeedsApi},
      {portable, u"C:\\\u00C9t\u00E9", false, u"C:\\\u00E9t\u00E9", kNeedsApi},
      {plain, u"C:\\Profiles\\Other", false, u"", u"C:\\Profiles\\Other"},
      // The portable layout beats the default profile (found by a scan or in the
      // process table: left to the end-to-end runs).
      {portable, u"", false, u"", u"C:\\P\\PortableData\\Roaming"},
      {Portable("Q", "BIN"), u"", false, kDefault, u"C:\\Q\\PortableData\\Roaming"},
      {Portable("", "bin"), u"", false, kDefault, u"C:\\PortableData\\Roaming"},
      {Portable("App", "app"), u"", true, kDefault, kDefault},
      {Portable("App", "app"), u"", false, kDefault, kUnidentified + u"C:\\App\\app\\Fusion360.exe"},
      {Portable("NoLocal", "bin", true, false), u"", false, kDefault, kUnidentified + u"C:\\NoLocal\\bin\\Fusion360.exe"},
      {Portable("NoApi", "bin", false), u"", false, kDefault, kUnidentified + u"C:\\NoApi\\bin\\Fusion360.exe"},
      // On a drive root, beside that same PortableData tree: no install root.
      {Fusion(""), u"", true, kDefault, kDefault},
      {Fusion(""), u"", false, kDefault, kUnidentified + u"C:\\Fusion360.exe"},
      // The default profile must be of drive-letter shape.
      {plain, u"", true, u"", u"error: Fusion AppData is unavailable."},
      {plain, u"", true, u"\\\\server\\share\\Roaming", u"error: Fusion AppData is unavailable."},
  };
  for (const auto& row : rows) {
    FusionInstallation got{u"stale", u"stale"};
    WString error = u"stale";
    const bool ok = IdentifyAddInProfile(row.executable, row.saved, row.scanned ? row.executable : u"", row.appData,
                                         got, error);
    EXPECT_EQ(ok ? got.appData : u"error: " + error, row.expected) << WideToUtf8(row.executable);
    EXPECT_EQ(got.executable, ok ? CanonicalPath(row.executable) : u"");
    EXPECT_EQ(error.empty(), ok);
  }
}

TEST_F(DiscoveryTest, SourcesMergeIntoOneRecordPerExecutable) {
  const WString a = Fusion("wd/a"), b = Fusion("Prog/B"), good = Fusion("Good"), stray = Fusion("Stray");
  const WString port = Portable("Port", "bin"), savedOnly = Fusion("Saved/S");
  const WString upper = Fusion("\xC3\x84"), lower = Fusion("\xC3\xA4");  // Ä, ä
  const WString broken = Fusion("Broken");
  std::filesystem::remove(Host("Broken/API/Python/packages/adsk/electron.py"));
  MakeDirs(Host("Profiles/Bare"));
  const WString bare = Win("Profiles/Bare"), first = u"C:\\Default\\First", later = u"C:\\Default\\Later";
  for (const std::string profile : {"First", "Later"}) MakeDirs(Host("Default/" + profile + "/Autodesk/Autodesk Fusion 360/API"));
  const struct { ExecutableList found, running; FusionInstallationList saved; RecordPairs expected; WString error = {}; } rows[] = {
      // Found first, in their text; running-only before saved-only; the last
      // saved record of an executable decides; vanished ones are passed over.
      {{a, b}, {port, u"c:\\prog\\b\\FUSION360.EXE", a},
       {{u"C:\\PROG\\B\\fusion360.exe", first}, {savedOnly, kDefault}, {u"C:\\gone\\Fusion360.exe", kDefault},
        {u"C:\\prog\\B\\Fusion360.EXE", later}},
       {{a, kDefault}, {b, later}, {port, u"C:\\Port\\PortableData\\Roaming"}, {savedOnly, kDefault}}},
      {{}, {port}, {{port, first}}, {{port, first}}, u""},
      {{}, {}, {}, {}, u""},
      {{upper}, {lower}, {{lower, kDefault}}, {{upper, kDefault}, {lower, kDefault}}, u""},
      // A running Fusion without the API stops the run ahead of any profile
      // question; named only by the inventory it merely drops out.
      {{good}, {stray, broken, u""}, {}, {}, kLacksApi + broken},
      {{good}, {u""}, {}, {}, kLacksApi},
      {{good}, {}, {{broken, kDefault}}, {{good, kDefault}}, u""},
      // The found list is trusted as it stands; the profile step notices.
      {{good, broken}, {}, {}, {}, kMissing + broken},
      {{good}, {}, {{good, bare}, {good, kDefault}}, {{good, kDefault}}, u""},
  };
  for (const auto& row : rows) {
    FusionInstallationList installations{{u"stale", u"stale"}};
    WString error = u"stale";
    const bool ok = ReconcileInstallations(row.found, row.running, row.saved, kDefault, installations, error);
    EXPECT_EQ(Pairs(installations), row.expected) << WideToUtf8(row.error);
    EXPECT_EQ(ok ? u"" : u"error: " + error, row.error);
  }
}

}  // namespace
}  // namespace qv::test
