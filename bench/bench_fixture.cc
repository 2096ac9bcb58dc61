#include "bench_fixture.h"

#include <pwd.h>
#include <unistd.h>

#include <filesystem>

#include "bench_support.h"

namespace qv::bench {

Sandbox MakeSandbox(const std::string& systemReg) {
  Sandbox s;
  s.root = MakeTempDir();
  s.prefix = s.root + "/prefix";
  s.proc = s.root + "/proc";
  struct passwd* pw = ::getpwuid(::getuid());
  s.user = pw != nullptr ? pw->pw_name : "root";
  MakeDirs(s.proc);
  MakeDirs(s.prefix + "/dosdevices");
  MakeDirs(s.C("users/" + s.user + "/AppData/Roaming"));
  MakeDirs(s.C("users/" + s.user + "/AppData/Local"));
  std::filesystem::create_directory_symlink("../drive_c", s.prefix + "/dosdevices/c:");
  const std::string sid = "S-1-5-21-0-0-0-1000";
  WriteFile(s.prefix + "/system.reg",
            !systemReg.empty()
                ? systemReg
                : "WINE REGISTRY Version 2\n;; All keys relative to \\\\Machine\n\n#arch=win64\n\n"
                  "[Software\\\\Microsoft\\\\Windows NT\\\\CurrentVersion\\\\ProfileList\\\\" + sid +
                      "] 1700000000\n#time=1da0000000000000\n\"ProfileImagePath\"=\"C:\\\\users\\\\" + s.user + "\"\n\n");
  WriteFile(s.prefix + "/user.reg",
            "WINE REGISTRY Version 2\n;; All keys relative to REGISTRY\\\\User\\\\" + sid + "\n\n#arch=win64\n\n");
  return s;
}

void MakeFusion(const std::string& folder) {
  WriteFile(folder + "/Fusion360.exe", "MZ");
  WriteFile(folder + "/API/Python/packages/adsk/core.py", "#");
  WriteFile(folder + "/API/Python/packages/adsk/electron.py", "#");
  MakeDirs(folder + "/Applications/Electron/LibEagle");
}

namespace {
const char* kRequired[] = {"KELDARO_Quorvane.py", "archive_validation.py", "stackup_compat.py", "fusion_spacing.py",
                           "save_policy.py",      "KELDARO_Quorvane.manifest"};

void FillTree(const std::string& folder, int files, long long bytes, const std::string& tag, bool withHelper) {
  const long long each = files > 0 ? bytes / files : 0;
  int made = 0;
  for (const char* name : kRequired) {
    WriteFile(folder + "/" + name, std::string(static_cast<std::size_t>(each), 'r') + tag);
    ++made;
  }
  if (withHelper) {
    WriteFile(folder + "/Bin/Quorvane_Helper.exe", std::string(static_cast<std::size_t>(each), 'h') + tag);
    ++made;
  }
  for (int i = made; i < files; ++i) {
    // Spread the rest over folders of 100 files, as a real add-in's
    // resources and libraries are.
    WriteFile(folder + "/lib/part" + std::to_string(i / 100) + "/file" + std::to_string(i) + ".dat",
              std::string(static_cast<std::size_t>(each), static_cast<char>('a' + i % 26)) + tag);
  }
}
}  // namespace

void MakeAddIn(const std::string& folder, int files, long long bytes, const std::string& tag) {
  FillTree(folder, files, bytes, tag, true);
}

void MakePackage(const std::string& folder, int files, long long bytes) {
  FillTree(folder + "/AddIn", files - 1, bytes, "new", false);
  WriteFile(folder + "/Bin/Quorvane_Helper.exe", std::string(static_cast<std::size_t>(bytes / files), 'h'));
}

}  // namespace qv::bench
