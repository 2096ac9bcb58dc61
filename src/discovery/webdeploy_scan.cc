#include "discovery/discovery.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

namespace {

// One search entry: a subfolder, not hidden behind a leading dot, whose
// Fusion360.exe is a complete installation not yet in the list.
void ConsiderEntry(const WString& folder, const platform::FindData& entry, ExecutableList& found) {
  // A junction or a link to a folder carries the folder bit and counts.
  if ((entry.attributes & platform::kFileAttributeDirectory) == 0) return;
  if (!entry.fileName.empty() && entry.fileName[0] == u'.') return;

  const WString candidate = CanonicalPath(JoinPath(JoinPath(folder, entry.fileName), u"Fusion360.exe"));
  if (candidate.empty() || !HasElectronicsApi(candidate)) return;
  for (const WString& known : found) {
    if (SamePath(known, candidate)) return;
  }
  found.push_back(candidate);
}

}  // namespace

void ScanWebDeploy(const WString& folder, ExecutableList& found) {
  platform::FindData entry;
  const platform::Handle search = platform::FindFirstFileW(JoinPath(folder, u"*"), entry);
  // Nothing to scan, whatever the reason.
  if (search == platform::kInvalidHandle) return;
  // The entries stay in the order the file system gives them; an error while
  // listing ends the scan like the last entry does.
  do {
    ConsiderEntry(folder, entry, found);
  } while (platform::FindNextFileW(search, entry));
  platform::FindClose(search);
}

}  // namespace qv
