#include "discovery/discovery.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {
namespace {

constexpr std::uint32_t kImageBufferCharacters = 32768;

bool TokenUserSid(platform::Handle process, platform::Sid& sid) {
  platform::Handle token = platform::kNullHandle;
  if (!platform::OpenProcessToken(process, platform::kTokenQuery, token)) return false;
  platform::ScopedHandle tokenHandle(token);
  const std::uint32_t size = platform::GetTokenUserSize(token);
  if (size == 0) return false;
  return platform::GetTokenUser(token, size, sid);
}

}  // namespace

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
    if (!platform::QueryFullProcessImageNameW(process.get(), image, kImageBufferCharacters)) {
      error = u"Cannot read the running Fusion path. Close Fusion normally and retry.";
      return false;
    }
    const WString canonical = CanonicalPath(image);
    if (canonical.empty()) {
      // A Fusion started from a network path or a device path has no
      // drive-letter path that the add-in profiles could be tied to. Say so
      // plainly instead of calling it an installation without its API.
      error = u"Running Fusion is not on a local drive, so its Add-In profile cannot be used: " + image;
      return false;
    }
    bool known = false;
    for (const WString& path : running) known = known || SamePath(path, canonical);
    if (!known) running.push_back(canonical);
  } while (platform::Process32NextW(snapshot.get(), entry));
  return true;
}

}  // namespace qv
