#include "driver/entry_point.h"

#include <exception>
#include <string>

#include "discovery/discovery.h"
#include "driver/command_line.h"
#include "driver/exit_codes.h"
#include "driver/run_lock.h"
#include "driver/status_report.h"
#include "paths/path_rules.h"
#include "payload/payload.h"
#include "platform/platform.h"
#include "transaction/transaction.h"
#include "user/fusion_activity.h"
#include "user/user_folders.h"

namespace qv {
namespace {

void Err(const WString& text) { platform::WriteStderr(text); }
void Out(const WString& text) { platform::WriteStdout(text); }

// Everything between taking and releasing the run lock.
int RunLocked(const std::vector<WString>& arguments) {
  RunOptions options;
  // Both folders are asked for before either is tested.
  options.appData = GetUserFolder(platform::kCsidlAppData);
  options.localAppData = GetUserFolder(platform::kCsidlLocalAppData);
  if (options.appData.empty() || options.localAppData.empty()) {
    Err(u"Required per-user Windows folders are unavailable.\n");
    return kExitNoUserFolders;
  }
  options.packageRoot = LocatePackageRoot();

  WString error;
  if (!ReadOptions(arguments, options, error)) {
    Err(error);
    return kExitUsage;
  }

  FusionInstallationList installations;
  error.clear();
  const bool discovered =
      options.isolated
          ? DiscoverIsolatedInstallations(options.appData, options.localAppData, installations, error)
          : DiscoverFusionInstallations(options.appData, options.localAppData, installations, error);
  if (!discovered) {
    Err(error + u"\n");
    return kExitNotFound;
  }

  const WString action = ToLowerCopy(arguments[1]);
  const bool fusionActive = IsFusionActive();

  if (action == u"/status") return ReportStatus(installations, fusionActive);

  if (action == u"/uninstall") {
    if (!SelectUninstallTargets(options.appData, options.localAppData, installations, error)) {
      Err(error + u"\n");
      return kExitNotFound;
    }
    const int result = RunTransaction(options.packageRoot, options.localAppData, installations, true);
    if (result != kExitSuccess) return result;
    Out(u"Quorvane uninstalled. Settings and ODB++ outputs preserved.\n");
    if (fusionActive) Out(u"Restart Autodesk Fusion to complete removal.\n");
    return kExitSuccess;
  }

  if (action != u"/install" && action != u"/update") {
    Err(u"Unknown action.\n");
    return kExitUsage;
  }
  if (installations.empty()) {
    Err(u"Autodesk Fusion was not detected. Start Fusion once, then retry.\n");
    return kExitNotFound;
  }
  const int result = RunTransaction(options.packageRoot, options.localAppData, installations, false);
  if (result != kExitSuccess) return result;
  Out(u"Quorvane installed/updated.\n");
  if (fusionActive) Out(u"Restart Autodesk Fusion to activate/update the Quorvane.\n");
  return kExitSuccess;
}

}  // namespace

int RunSetup(const std::vector<WString>& arguments) {
  if (arguments.size() < 2) {
    Err(u"Usage: Quorvane_Setup.exe /install|/update|/uninstall|/status\n");
    return kExitUsage;
  }
  RunLock lock = AcquireRunLock();
  if (!lock.held) {
    Err(u"Another Quorvane Setup is active or was interrupted. Check its result and retry.\n");
    ReleaseRunLock(lock);
    return kExitRunLockHeld;
  }
  int code = kExitTransactionFailed;
  try {
    code = RunLocked(arguments);
  } catch (const std::exception& failure) {
    // Only exhausted memory can get here: the operations of a run report
    // their failures themselves. Stop with the text rather than leave the
    // lock abandoned for the next run.
    platform::WriteStderrNarrow(std::string(failure.what()) + "\n");
  }
  ReleaseRunLock(lock);
  return code;
}

}  // namespace qv
