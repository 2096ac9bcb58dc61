// /status over 128 installations from a full inventory, each add-in
// healthy, and LoadInventory of those 128 records.
//
//   status_bench
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_fixture.h"
#include "bench_support.h"
#include "inventory/inventory.h"

using namespace qv::bench;

int main() {
  Sandbox s = MakeSandbox();
  const std::string local = s.root + "/local";
  const std::string roaming = s.root + "/roaming";
  MakeDirs(local);
  MakeDirs(roaming);
  std::u16string ini = u"\xFEFF[Fusion]\r\nCount=128\r\n";
  for (int i = 0; i < 128; ++i) {
    const std::string n = std::to_string(i);
    MakeFusion(s.C("Fusion/" + n));
    const std::string profile = "Profiles/" + n;
    MakeAddIn(s.C(profile + "/Autodesk/Autodesk Fusion 360/API/AddIns/KELDARO_Quorvane"), 7, 7 * 64, "v1");
    std::u16string index(n.begin(), n.end());
    ini += u"Executable" + index + u"=C:\\Fusion\\" + index + u"\\Fusion360.exe\r\nAppData" + index +
           u"=C:\\Profiles\\" + index + u"\r\n";
  }
  std::string bytes;
  for (char16_t c : ini) {
    bytes.push_back(static_cast<char>(c & 0xFF));
    bytes.push_back(static_cast<char>(c >> 8));
  }
  WriteFile(local + "/Quorvane/Installation.ini", bytes);

  ::setenv("WINEPREFIX", s.prefix.c_str(), 1);
  const qv::WString localWin = u"Z:" + qv::Utf8ToWide(local);
  for (auto& c : const_cast<qv::WString&>(localWin)) {
    if (c == u'/') c = u'\\';
  }
  qv::FusionInstallationList saved;
  qv::WString error;
  Print("LoadInventory, 128 records", Time(50, [&] {
          saved.clear();
          if (!qv::LoadInventory(localWin, saved, error) || saved.size() != 128) std::abort();
        }));

  ProcessFigures status = TimeProcess(30, QUORVANE_BINARY,
                                      {"/status", "/test-appdata", roaming, "/test-localappdata", local},
                                      {{"WINEPREFIX", s.prefix}, {"QUORVANE_PROC_ROOT", s.proc}});
  Print("Quorvane_Setup /status, 128 healthy installations", status);
  if (status.exitCode != 0) std::fprintf(stderr, "unexpected exit code %d\n", status.exitCode);
  if (std::getenv("QUORVANE_BENCH_KEEP") == nullptr) std::system(("rm -rf " + s.root).c_str());
  else std::printf("sandbox kept: %s\n", s.root.c_str());
  return status.exitCode == 0 ? 0 : 1;
}
