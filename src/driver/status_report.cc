#include "driver/status_report.h"

#include "driver/exit_codes.h"
#include "paths/failure.h"
#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "payload/payload.h"
#include "platform/platform.h"

namespace qv {

WString GetFileVersionText(const WString& path) {
  const std::uint32_t size = platform::GetFileVersionInfoSizeW(path);
  if (size == 0) return {};
  std::vector<std::uint8_t> buffer;
  if (!platform::GetFileVersionInfoW(path, size, buffer)) return {};
  platform::FixedFileInfo info;
  if (!platform::VerQueryValueRootW(buffer, info)) return {};
  return DecimalText(info.fileVersionMS >> 16) + u"." + DecimalText(info.fileVersionMS & 0xFFFF) + u"." +
         DecimalText(info.fileVersionLS >> 16) + u"." + DecimalText(info.fileVersionLS & 0xFFFF);
}

int ReportStatus(const FusionInstallationList& installations, bool fusionActive) {
  platform::WriteStdout(u"Quorvane v" QUORVANE_VERSION "\n");
  platform::WriteStdout(u"Autodesk Fusion installations: " + DecimalText(installations.size()) + u"\n");
  bool allHealthy = !installations.empty();
  for (const FusionInstallation& installation : installations) {
    const WString addIn = AddInDirectory(installation);
    bool healthy = false;
    try {
      healthy = IsAddInHealthy(addIn);
    } catch (const FilesystemFailure& failure) {
      // An add-in whose files cannot be examined is not known to be whole:
      // it is reported as incomplete, and the reason goes to the error
      // stream.
      platform::WriteStderrNarrow(std::string(failure.what()) + "\n");
    }
    if (!healthy) allHealthy = false;
    platform::WriteStdout(u"Path: " + installation.executable + u"\nVersion: " +
                          GetFileVersionText(installation.executable) + u"\nAdd-In path: " + addIn + u"\nAdd-In: " +
                          (healthy ? u"Healthy" : u"Not installed or incomplete") + u"\n");
  }
  platform::WriteStdout(WString(u"Fusion running: ") + (fusionActive ? u"Yes" : u"No") + u"\n");
  return allHealthy ? kExitSuccess : kExitIncomplete;
}

}  // namespace qv
