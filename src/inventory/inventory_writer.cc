#include <cstdint>
#include <string>

#include "inventory/inventory.h"
#include "paths/failure.h"
#include "paths/guarded_files.h"
#include "paths/path_rules.h"
#include "platform/platform.h"

namespace qv {

namespace {

// The whole file as one string: byte order mark, section, count, then the
// two keys of each record numbered from 0. Values go out bare; canonical
// paths hold no quote, CR or LF that could break a line.
WString InventoryText(const FusionInstallationList& records) {
  WString text = u"\uFEFF[Fusion]\r\nCount=" + DecimalText(records.size()) + u"\r\n";
  for (std::size_t i = 0; i < records.size(); ++i) {
    const WString index = DecimalText(i);
    text += u"Executable" + index + u"=" + records[i].executable + u"\r\nAppData" + index + u"=" +
            records[i].appData + u"\r\n";
  }
  return text;
}

// Creates the temporary file, which must not exist yet, and writes and
// flushes the whole content. False leaves no temporary file of this call.
bool WriteTemporary(const WString& temporary, const std::string& bytes) {
  const platform::Handle file = platform::CreateFileW(temporary, platform::kGenericWrite, 0, platform::kCreateNew,
                                                      platform::kFileAttributeNormal);
  // A leftover of the same name makes this fail; it is not ours to remove.
  if (file == platform::kInvalidHandle) return false;

  const auto size = static_cast<std::uint32_t>(bytes.size());
  std::uint32_t written = 0;
  const bool ok =
      platform::WriteFile(file, bytes.data(), size, written) && written == size && platform::FlushFileBuffers(file);
  platform::CloseHandle(file);
  if (!ok) platform::DeleteFileW(temporary);
  return ok;
}

}  // namespace

bool SaveInventory(const WString& localAppData, const FusionInstallationList& records) {
  if (records.size() > kInventoryLimit) return false;

  const WString inventory = InventoryPath(localAppData);
  const WString folder = PathParent(inventory);
  std::uint32_t code = 0;
  CreateDirectories(folder, code);
  if (code != 0) throw FilesystemFailure("create_directories", code, folder);

  // Beside the inventory, so that the rename stays on one volume; another
  // run has another process id and so another name.
  const WString temporary = inventory + u"." + DecimalText(platform::GetCurrentProcessId()) + u".tmp";
  const std::string bytes = Utf16LeBytes(InventoryText(records));

  // Only a complete, flushed and closed file takes the inventory's name, so
  // the inventory on disk is always either the old file or the new one.
  if (!WriteTemporary(temporary, bytes)) return false;
  if (!platform::MoveFileExW(temporary, inventory,
                             platform::kMoveFileReplaceExisting | platform::kMoveFileWriteThrough)) {
    platform::DeleteFileW(temporary);
    return false;
  }

  // Later profile reads in this process must see the new file, not a cached
  // copy of the old one.
  platform::FlushPrivateProfileCache(inventory);
  return true;
}

}  // namespace qv
