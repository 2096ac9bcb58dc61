#include "user/fusion_activity.h"

#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

bool IsFusionActive() {
  platform::ScopedHandle snapshot(platform::CreateToolhelp32Snapshot());
  if (!snapshot.valid()) return false;
  platform::ProcessEntry entry;
  if (!platform::Process32FirstW(snapshot.get(), entry)) return false;
  do {
    const WString name = ToLowerCopy(entry.exeFile);
    if (name == u"fusion360.exe" || name == u"fusionlauncher.exe") return true;
  } while (platform::Process32NextW(snapshot.get(), entry));
  return false;
}

}  // namespace qv
