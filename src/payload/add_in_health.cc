#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "payload/payload.h"

namespace qv {

namespace {

// A required file: its folder below the add-in directory (null for the top)
// and its name.
struct RequiredFile {
  const char16_t* folder;
  const char16_t* name;
};

// The seven files of a complete add-in, in the order they are tested.
constexpr RequiredFile kRequiredFiles[] = {
    {nullptr, u"KELDARO_Quorvane.py"}, {nullptr, u"archive_validation.py"},
    {nullptr, u"stackup_compat.py"},   {nullptr, u"fusion_spacing.py"},
    {nullptr, u"save_policy.py"},      {nullptr, u"KELDARO_Quorvane.manifest"},
    {u"Bin", u"Quorvane_Helper.exe"},
};

}  // namespace

bool IsAddInHealthy(const WString& addInDirectory) {
  for (const RequiredFile& file : kRequiredFiles) {
    // One append per path element.
    WString path = addInDirectory;
    if (file.folder != nullptr) path = PathAppend(path, file.folder);
    path = PathAppend(path, file.name);
    if (!IsRegularFile(path)) return false;
  }
  return true;
}

}  // namespace qv
