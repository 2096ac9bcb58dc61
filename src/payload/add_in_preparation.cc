#include <cstdint>
#include <string_view>

#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "payload/payload.h"
#include "platform/platform.h"

namespace qv {

namespace {

// The state file of an installed add-in: written, never read back. One byte
// per character, CR LF line ends, no byte order mark.
constexpr std::string_view kInstallState = "[Installation]\r\nVersion=" QUORVANE_VERSION "\r\n";

// Others may read and write the file while it is open, as with an ordinary
// file stream.
constexpr std::uint32_t kShareReadWrite = 0x1 | 0x2;

platform::Handle CreateStateFile(const WString& path) {
  return platform::CreateFileW(path, platform::kGenericWrite, kShareReadWrite, platform::kCreateAlways,
                               platform::kFileAttributeNormal);
}

// Creates or truncates the state file and writes it whole. False when it
// cannot be opened or written; the handle is closed either way. A state file
// that came read-only, hidden or system with the old add-in or the package
// is made plain first, as Windows does not truncate such a file.
bool WriteInstallState(const WString& path) {
  platform::Handle file = CreateStateFile(path);
  if (file == platform::kInvalidHandle) {
    std::uint32_t code = platform::GetLastError();
    if (!MakeReplaceable(path, code)) return false;
    file = CreateStateFile(path);
    if (file == platform::kInvalidHandle) return false;
  }
  const auto size = static_cast<std::uint32_t>(kInstallState.size());
  std::uint32_t written = 0;
  const bool ok = platform::WriteFile(file, kInstallState.data(), size, written) && written == size;
  // Judged before the close, which follows with no further test.
  platform::CloseHandle(file);
  return ok;
}

}  // namespace

bool PrepareAddIn(const WString& packageRoot, const WString& target, WString& error) {
  if (!CopyAddInPayload(PathAppend(packageRoot, u"AddIn"), target, error)) return false;

  const WString helper = PathAppend(PathAppend(packageRoot, u"Bin"), u"Quorvane_Helper.exe");
  if (!IsRegularFile(helper)) {
    error = u"Package helper is missing: " + helper;
    return false;
  }

  // A Bin folder that cannot be made is not reported here: the copy into it
  // then fails and its code speaks for both.
  const WString binFolder = PathAppend(target, u"Bin");
  std::uint32_t ignored = 0;
  CreateDirectories(binFolder, ignored);
  const std::uint32_t code = CopyFileIntoAddIn(helper, PathAppend(binFolder, u"Quorvane_Helper.exe"));
  if (code != 0) {
    error = u"Cannot install helper. Error " + SignedDecimalText(static_cast<std::int32_t>(code));
    return false;
  }

  return WriteInstallState(PathAppend(target, u"install-state.ini"));
}

}  // namespace qv
