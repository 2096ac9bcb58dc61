// The command line, its messages and exit codes, driven through the built
// binary on a machine without Fusion.
#include <filesystem>

#include "support/scene.h"

namespace qv::test {
namespace {

constexpr char kNotDetected[] = "Autodesk Fusion was not detected. Start Fusion once, then retry.\n";
constexpr char kUninstalled[] = "Quorvane uninstalled. Settings and ODB++ outputs preserved.\n";
constexpr char kNoFolders[] = "Required per-user Windows folders are unavailable.\n";

struct Row {
  std::vector<std::string> args;
  int code;
  std::string out, err;
  EnvChanges env = {};
};

void ExpectRows(const Machine& machine, const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    const RunResult r = machine.Run(row.args, row.env);
    SCOPED_TRACE(::testing::PrintToString(row.args));
    EXPECT_EQ(Ended(r), std::tie(row.code, row.out, row.err));
  }
}

class CommandLine : public EndToEnd {};

TEST_P(CommandLine, ActionsAndOptions) {
  Machine m(tool());
  MakeDirs(m.C("Roaming"));
  MakeDirs(m.C("Local"));
  const std::string roaming = m.Win(m.C("Roaming")), local = m.Win(m.C("Local"));
  const std::string missing = "Missing option value.\n", unknown = "Unknown option.\n";
  const std::string both = "Both isolated test folders are required.\n";
  // Inventories one byte larger than the writer makes them, refused unread,
  // on a short path and on one past MAX_PATH (where the Windows build reads
  // the file itself).
  std::string big = "Big";
  for (const std::string element : {"", "/a", "/b", "/c", "/d", "/e", "/f"}) {
    big += element.empty() ? "" : element + std::string(39, element[1]);
    WriteFile(m.C(big + "/Quorvane/Installation.ini"), InventoryText({"[Fusion]", "Count=0"}));
    std::filesystem::resize_file(m.C(big + "/Quorvane/Installation.ini"), kLargestInventoryBytes + 1);
  }
  const std::string invalid = "Invalid saved Fusion installation list.\n";
  ExpectRows(m, {
                    {{}, 2, "", "Usage: Quorvane_Setup.exe /install|/update|/uninstall|/status\n"},
                    {{"/STATUS"}, 1, kEmptyReport, ""},
                    {{"/install"}, 5, "", kNotDetected},
                    {{"/Update"}, 5, "", kNotDetected},
                    // Uninstalling needs a discovery that succeeded, not a Fusion that was found.
                    {{"/uninstall"}, 0, kUninstalled, ""},
                    {{"/bogus"}, 2, "", "Unknown action.\n"},
                    {{""}, 2, "", "Unknown action.\n"},
                    // No action is ever taken from a prefix of the literal.
                    {{"/statusx"}, 2, "", "Unknown action.\n"},
                    // Options come in pairs, and their errors in this order.
                    {{"/install", "/package"}, 2, "", missing},
                    {{"/install", "/bogus"}, 2, "", missing},
                    {{"/install", "/bogus", "x"}, 2, "", unknown},
                    {{"/package", "x"}, 2, "", missing},
                    {{"/package", "x", "y"}, 2, "", unknown},
                    {{"/install", "/test-appdata", "a"}, 2, "", both},
                    {{"/install", "/test-appdata", "a", "/bogus", "x"}, 2, "", unknown},
                    {{"/install", "/test-localappdata", "a", "/package", "p", "/x"}, 2, "", missing},
                    // The value of an option may look like an option; the action stays.
                    {{"/status", "/package", "/uninstall"}, 1, kEmptyReport, ""},
                    {{"/status", "/PACKAGE", "C:\\Pkg", "/package", "D:\\Other"}, 1, kEmptyReport, ""},
                    // A bad package passes unnoticed where it is not used.
                    {{"/uninstall", "/package", "Q:\\nowhere"}, 0, kUninstalled, ""},
                    // An isolated run looks at the test folders alone; the last value counts.
                    {{"/Status", "/Test-AppData", roaming, "/TEST-LOCALAPPDATA", local}, 1, kEmptyReport, ""},
                    {{"/install", "/test-appdata", "a", "/test-appdata", roaming, "/test-localappdata", local}, 5, "",
                     kNotDetected},
                    {{"/status", "/test-appdata", roaming, "/test-localappdata", m.Win(m.C("Big"))}, 5, "", invalid},
                    {{"/status", "/test-appdata", roaming, "/test-localappdata", m.Win(m.C(big))}, 5, "", invalid},
                });
  if (tool().native()) {
    // Host paths and their Windows forms name the same folders; without a
    // prefix there are no folders. (Without a profile list entry the folders
    // come from the shell's owner or the process's own account: ShellOwner.)
    ExpectRows(m, {{{"/status", "/test-appdata", "Z:" + m.C("Roaming"), "/test-localappdata", m.C("Roaming")}, 1,
                    kEmptyReport, ""},
                   {{"/status"}, 3, "", kNoFolders, {{"WINEPREFIX", m.temp->path() + "/absent"}}}});
  }
  if (!tool().faults) return;
  // The account's folders cannot be found (neither its profile nor the shell
  // names the roaming one): every action but the usage ends with 3, before
  // its options are read.
  const EnvChanges noFolders{{"QUORVANE_FAULTS", "RegOpenKeyExW@1=2,SHGetFolderPathW@1=5,SHGetFolderPathW@2=5"}};
  ExpectRows(m, {{{"/status"}, 3, "", kNoFolders, noFolders},
                 {{"/bogus", "/bogus"}, 3, "", kNoFolders, noFolders},
                 {{"/status", "/test-appdata", roaming, "/test-localappdata", local}, 3, "", kNoFolders, noFolders}});
}

QV_E2E_SUITE(CommandLine);

}  // namespace
}  // namespace qv::test
