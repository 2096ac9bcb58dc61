// The registry of the Linux host: HKEY_LOCAL_MACHINE is the prefix's
// system.reg and HKEY_CURRENT_USER its user.reg, both read only. A missing or
// unreadable file is an empty registry: every key below the root is absent.
//
// An open from a root reads and parses the file as Wine's server last saved
// it (the server writes a new file and renames it over the old one). The key
// it gives holds that parse, and every call on the key and every key opened
// below it answers from it: an enumeration by index sees one picture of the
// file, however often the server saves it meanwhile. A call on a root itself
// reads the file afresh.
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/host_case.h"
#include "platform/posix/host_handles.h"
#include "platform/posix/host_paths.h"
#include "platform/posix/host_roots.h"
#include "platform/posix/registry.h"
#include "platform/posix/wine_registry.h"

namespace qv::platform {
namespace {

enum class Hive { Machine, User };

using File = std::shared_ptr<const posix::WineRegistry>;

struct OpenKey {
  // The files as this key's open read them, by Hive; a file not needed yet
  // is null, and read when first needed.
  std::array<File, 2> files;
  Hive hive = Hive::Machine;
  std::vector<WString> path;  // after links and the 32-bit view, for the opens below it
  std::size_t key = 0;        // its place in files[hive]
};

// Links followed in one open before it gives up (a loop of links).
constexpr int kMaxLinks = 16;
constexpr std::uint32_t kRegLink = 6;

File ReadHive(Hive hive) {
  const std::string path = posix::PrefixDirectory() + (hive == Hive::Machine ? "/system.reg" : "/user.reg");
  std::string text;
  std::uint32_t error = 0;
  if (!posix::ReadFileBytes(path, text, error)) text.clear();
  return std::make_shared<const posix::WineRegistry>(posix::ParseWineRegistry(text));
}

const posix::WineRegistry& FileOf(OpenKey& key, Hive hive) {
  File& file = key.files[static_cast<std::size_t>(hive)];
  if (!file) file = ReadHive(hive);
  return *file;
}

std::int32_t Fail(std::uint32_t error) {
  SetLastError(error);
  return static_cast<std::int32_t>(error);
}

constexpr auto SameName = posix::SameNameIgnoringCase;

// Appends the components of a key path: one trailing backslash is allowed,
// an empty component elsewhere is not; `skipEmpty` drops them all instead.
bool AppendComponents(WStringView path, std::vector<WString>& parts, bool skipEmpty) {
  if (!skipEmpty && path.ends_with(u'\\')) path.remove_suffix(1);
  if (path.empty()) return true;
  for (std::size_t start = 0;;) {
    const std::size_t stop = path.find(u'\\', start);
    const WStringView part = path.substr(start, stop - start);
    if (part.empty() && !skipEmpty) return false;
    if (!part.empty()) parts.emplace_back(part);
    if (stop == WStringView::npos) return true;
    start = stop + 1;
  }
}

// The open key a handle names, or for a root a key in `root` that has read
// nothing yet; null for a handle that is no key.
OpenKey* KeyOf(RegKey handle, OpenKey& root) {
  if (handle == kHkeyLocalMachine || handle == kHkeyCurrentUser) {
    root.hive = handle == kHkeyLocalMachine ? Hive::Machine : Hive::User;
    return &root;
  }
  return posix::LookUpHandle<OpenKey>(handle, posix::HandleKind::RegistryKey);
}

// Points `key` at the target of a link ("\Registry\Machine\..." or
// "\Registry\User\<SID>\..." of this account), followed by `rest`.
bool FollowLink(const posix::WineRegistryKey& link, std::vector<WString> rest, OpenKey& key) {
  const posix::WineRegistryValue* value = posix::FindWineRegistryValue(link, u"SymbolicLinkValue");
  if (value == nullptr || value->type != kRegLink) return false;
  const WString target = Utf16LeText(value->data.data(), value->data.size());
  std::vector<WString> parts;
  AppendComponents(target, parts, true);
  std::size_t skip = 3;
  if (parts.size() >= 2 && SameName(parts[0], u"Registry") && SameName(parts[1], u"Machine")) {
    key.hive = Hive::Machine;
    skip = 2;
  } else if (parts.size() >= 3 && SameName(parts[0], u"Registry") && SameName(parts[1], u"User") &&
             SameName(FileOf(key, Hive::User).userSid, parts[2])) {
    key.hive = Hive::User;
  } else {
    return false;
  }
  key.path.assign(parts.begin() + static_cast<std::ptrdiff_t>(skip), parts.end());
  key.path.insert(key.path.end(), std::make_move_iterator(rest.begin()), std::make_move_iterator(rest.end()));
  return true;
}

}  // namespace

std::int32_t RegOpenKeyExW(RegKey root, const WString& subKey, std::uint32_t /*options*/, std::uint32_t samDesired,
                           RegKey& result) {
  QV_FAULT_POINT_CODE("RegOpenKeyExW", subKey);
  OpenKey rootKey;
  const OpenKey* parent = KeyOf(root, rootKey);
  if (parent == nullptr) return Fail(kErrorInvalidHandle);
  OpenKey key = *parent;
  if (!AppendComponents(subKey, key.path, false)) return Fail(kErrorFileNotFound);
  // The 32-bit view of the machine's Software lies in Software\Wow6432Node.
  std::vector<WString>& parts = key.path;
  if (key.hive == Hive::Machine && (samDesired & kKeyWow64_32Key) != 0 && parts.size() >= 2 &&
      SameName(parts[0], u"Software") && !SameName(parts[1], u"Wow6432Node")) {
    parts.insert(parts.begin() + 1, u"Wow6432Node");
  }
  // Down the path from the file's root; a link on the way, the key itself
  // included, starts the walk again at its target, as Wine's server does.
  for (int links = 0;; ++links) {
    const posix::WineRegistry& file = FileOf(key, key.hive);
    std::size_t place = 0, depth = 0;
    while (depth < parts.size() && !file.keys[place].link) {
      place = posix::FindWineRegistrySubkey(file, place, parts[depth++]);
      if (place == posix::kNoWineRegistryKey) return Fail(kErrorFileNotFound);
    }
    if (!file.keys[place].link) {
      key.key = place;
      break;
    }
    std::vector<WString> rest(parts.begin() + static_cast<std::ptrdiff_t>(depth), parts.end());
    if (links == kMaxLinks || !FollowLink(file.keys[place], std::move(rest), key)) return Fail(kErrorFileNotFound);
  }
  result = posix::RegisterHandle(posix::HandleKind::RegistryKey, std::make_shared<OpenKey>(std::move(key)));
  return 0;
}

std::int32_t RegEnumKeyExW(RegKey key, std::uint32_t index, WString& name, std::uint32_t nameCapacity) {
  QV_FAULT_POINT_CODE("RegEnumKeyExW", DecimalText(index));
  OpenKey rootKey;
  OpenKey* open = KeyOf(key, rootKey);
  if (open == nullptr) return Fail(kErrorInvalidHandle);
  const posix::WineRegistry& file = FileOf(*open, open->hive);
  const std::vector<std::size_t>& subkeys = file.keys[open->key].subkeys;
  if (index >= subkeys.size()) return Fail(kErrorNoMoreItems);
  const WString& subkey = file.keys[subkeys[index]].name;
  if (subkey.size() + 1 > nameCapacity) return Fail(kErrorMoreData);
  name = subkey;
  return 0;
}

std::int32_t RegQueryValueExW(RegKey key, const WString& valueName, std::uint32_t& type, std::uint8_t* data,
                              std::uint32_t& size) {
  QV_FAULT_POINT_CODE("RegQueryValueExW", valueName);
  OpenKey rootKey;
  OpenKey* open = KeyOf(key, rootKey);
  if (open == nullptr) return Fail(kErrorInvalidHandle);
  const posix::WineRegistryValue* value =
      posix::FindWineRegistryValue(FileOf(*open, open->hive).keys[open->key], valueName);
  if (value == nullptr) return Fail(kErrorFileNotFound);
  type = value->type;
  const auto needed = static_cast<std::uint32_t>(value->data.size());
  const bool fits = data == nullptr || size >= needed;
  if (data != nullptr && fits) std::copy(value->data.begin(), value->data.end(), data);
  size = needed;
  return fits ? 0 : Fail(kErrorMoreData);
}

std::int32_t RegCloseKey(RegKey key) {
  QV_FAULT_POINT_CODE("RegCloseKey", DecimalText(key));
  if (key == kHkeyLocalMachine || key == kHkeyCurrentUser) return 0;
  return posix::ReleaseHandleOfKind(key, posix::HandleKind::RegistryKey) ? 0 : Fail(kErrorInvalidHandle);
}

namespace posix {

bool AccountSidFromUserReg(WString& sidText) {
  const WString sid = ReadHive(Hive::User)->userSid;
  if (!sid.empty()) sidText = sid;
  return !sid.empty();
}

}  // namespace posix
}  // namespace qv::platform
