#include "discovery/discovery.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

bool IsOffDrivePath(const WString& path) {
  const bool driveShape = path.size() >= 3 && path[1] == u':' && IsSeparator(path[2]);
  return !path.empty() && !driveShape;
}

bool IsOwnedByCurrentUser(platform::Handle process) {
  platform::Handle ownToken = platform::kNullHandle;
  if (!platform::OpenProcessToken(platform::GetCurrentProcess(), platform::kTokenQuery, ownToken)) return false;
  platform::ScopedHandle ownTokenHandle(ownToken);
  platform::Handle otherToken = platform::kNullHandle;
  if (!platform::OpenProcessToken(process, platform::kTokenQuery, otherToken)) return false;
  platform::ScopedHandle otherTokenHandle(otherToken);

  const std::uint32_t ownSize = platform::GetTokenUserSize(ownToken);
  if (ownSize == 0) return false;
  const std::uint32_t otherSize = platform::GetTokenUserSize(otherToken);
  if (otherSize == 0) return false;
  platform::Sid own;
  platform::Sid other;
  if (!platform::GetTokenUser(ownToken, ownSize, own)) return false;
  if (!platform::GetTokenUser(otherToken, otherSize, other)) return false;
  return platform::EqualSid(own, other);
}

bool ListRunningFusionExecutables(ExecutableList& running, WString& error) {
  if (!platform::LookUpQueryFullProcessImageNameW()) {
    error = u"Cannot query running Fusion installations.";
    return false;
  }
  std::uint32_t ownSession = 0;
  if (!platform::ProcessIdToSessionId(platform::GetCurrentProcessId(), ownSession)) {
    error = u"Cannot query running Fusion installations.";
    return false;
  }
  platform::ScopedHandle snapshot(platform::CreateToolhelp32Snapshot());
  if (!snapshot.valid()) {
    error = u"Cannot enumerate Fusion processes.";
    return false;
  }
  platform::ProcessEntry entry;
  if (!platform::Process32FirstW(snapshot.get(), entry)) return true;
  do {
    if (!SamePath(entry.exeFile, u"Fusion360.exe")) continue;
    std::uint32_t session = 0;
    if (!platform::ProcessIdToSessionId(entry.processId, session)) continue;
    if (session != ownSession) continue;
    platform::ScopedHandle process(
        platform::OpenProcess(platform::kProcessQueryLimitedInformation, entry.processId));
    if (!process.valid()) {
      error = u"Cannot read the running Fusion path. Close Fusion normally and retry.";
      return false;
    }
    if (!IsOwnedByCurrentUser(process.get())) continue;
    WString image;
    if (!platform::QueryFullProcessImageNameW(process.get(), image, platform::kLongPathBuffer)) {
      error = u"Cannot read the running Fusion path. Close Fusion normally and retry.";
      return false;
    }
    // A Fusion started from a network or device path has no canonical
    // path. Its path goes on as it is, so that reconciliation, which judges
    // every running entry, can name it; the listing goes on to the other
    // processes, whose failures come first. A drive path that cannot be
    // made canonical leaves an empty text.
    WString listed = CanonicalPath(image);
    if (listed.empty() && IsOffDrivePath(image)) listed = image;
    bool known = false;
    for (const WString& path : running) known = known || SamePath(path, listed);
    if (!known) running.push_back(listed);
  } while (platform::Process32NextW(snapshot.get(), entry));
  return true;
}

}  // namespace qv
