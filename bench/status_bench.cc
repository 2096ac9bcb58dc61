// /status over 128 installations from a full inventory, each add-in
// healthy, and LoadInventory of those 128 records; and LoadInventory of 128
// records of paths of 300 characters, below a folder past MAX_PATH, where the
// Windows build reads the file itself with the profile reader: 257 questions,
// each read from the file afresh.
//
//   status_bench
#include <cstdio>
#include <cstdlib>
#include <string>

#include "inventory/inventory.h"
#include "support/environment.h"
#include "support/prefix.h"
#include "support/scene.h"
#include "timing.h"

using namespace qv::bench;
namespace t = qv::test;

int main() {
  const t::TempDir sandbox;
  const t::FixturePrefix prefix = t::MakeFixturePrefix(sandbox.path());
  std::vector<std::pair<std::string, std::string>> records;
  for (int i = 0; i < 128; ++i) {
    const std::string n = std::to_string(i);
    t::MakeFusionInstallation(prefix.C("Fusion/" + n));
    t::MakeInstalledAddIn(prefix.C("Profiles/" + n + "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane"));
    records.emplace_back("C:\\Fusion\\" + n + "\\Fusion360.exe", "C:\\Profiles\\" + n);
  }
  t::WriteFile(prefix.C("local/Quorvane/Installation.ini"), t::InventoryBytes(records));
  t::MakeDirs(prefix.C("roaming"));

  const t::ScopedEnv winePrefix("WINEPREFIX", prefix.root);
  qv::FusionInstallationList saved;
  qv::WString error;
  Print("LoadInventory, 128 records", Time(50, [&] {
          saved.clear();
          if (!qv::LoadInventory(u"C:\\local", saved, error) || saved.size() != 128) std::abort();
        }));

  std::string deep = "local";
  for (char c = 'a'; c < 'g'; ++c) deep += "/" + std::string(40, c);
  std::vector<std::pair<std::string, std::string>> longRecords;
  for (int i = 0; i < 128; ++i) {
    const std::string n = std::to_string(i) + std::string(290, 'x');
    longRecords.emplace_back("C:\\Fusion\\" + n + "\\Fusion360.exe", "C:\\Profiles\\" + n);
  }
  t::WriteFile(prefix.C(deep + "/Quorvane/Installation.ini"), t::InventoryBytes(longRecords));
  qv::WString deepWindows = u"C:\\" + qv::Utf8ToWide(deep);
  for (char16_t& c : deepWindows) c = c == u'/' ? u'\\' : c;
  Print("LoadInventory, 128 records of 300-character paths", Time(20, [&] {
          saved.clear();
          if (!qv::LoadInventory(deepWindows, saved, error) || saved.size() != 128) std::abort();
        }));

  ProcessFigures status =
      TimeProcess(30, QUORVANE_BINARY, {"/status", "/test-appdata", "C:\\roaming", "/test-localappdata", "C:\\local"},
                  {{"WINEPREFIX", prefix.root}, {"QUORVANE_PROC_ROOT", prefix.procRoot}});
  Print("Quorvane_Setup /status, 128 healthy installations", status);
  if (status.exitCode != 0) std::fprintf(stderr, "unexpected exit code %d\n", status.exitCode);
  return status.exitCode == 0 ? 0 : 1;
}
