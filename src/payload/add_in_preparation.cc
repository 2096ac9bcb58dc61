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
constexpr std::string_view kInstallState = "[Installation]\r\nVersion=0.1.8\r\n";

// Others may read and write the file while it is open, as with an ordinary
// file stream.
constexpr std::uint32_t kShareReadWrite = 0x1 | 0x2;

// Creates or truncates the state file and writes it whole. False when it
// cannot be opened or written; the handle is closed either way.
bool WriteInstallState(const WString& path) {
  const platform::Handle file = platform::CreateFileW(path, platform::kGenericWrite, kShareReadWrite,
                                                      platform::kCreateAlways, platform::kFileAttributeNormal);
  if (file == platform::kInvalidHandle) return false;
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
  if (!platform::CopyFileW(helper, PathAppend(binFolder, u"Quorvane_Helper.exe"), false)) {
    error = u"Cannot install helper. Error " + SignedDecimalText(static_cast<std::int32_t>(platform::GetLastError()));
    return false;
  }

  return WriteInstallState(PathAppend(target, u"install-state.ini"));
}

}  // namespace qv
