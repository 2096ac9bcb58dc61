// The registry of the Linux host: HKEY_LOCAL_MACHINE is the prefix's
// system.reg and HKEY_CURRENT_USER its user.reg, both read only.
//
// Every call reads the file afresh: Wine's server rewrites it whole (a new
// file renamed over the old one) while programs run, so a call sees the
// registry as the server last saved it. A missing or unreadable file is an
// empty registry: every key below the root is absent.
//
// An open key is an entry of the backend's handle table holding the hive and
// the key's path after links and the 32-bit view were applied; each call on
// it looks the path up again in the file as it is then.
#include <algorithm>
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

struct OpenKey {
  Hive hive = Hive::Machine;
  std::vector<WString> path;
};

// Links followed in one open before it gives up (a loop of links).
constexpr int kMaxLinks = 16;
constexpr std::uint32_t kRegLink = 6;

std::string ReadHive(Hive hive) {
  const std::string path = posix::PrefixDirectory() + (hive == Hive::Machine ? "/system.reg" : "/user.reg");
  std::string text;
  std::uint32_t error = 0;
  return posix::ReadFileBytes(path, text, error) ? text : std::string();
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

// Where a key handle points; false for a handle that is not an open key.
bool KeyOf(RegKey handle, OpenKey& key) {
  if (handle == kHkeyLocalMachine || handle == kHkeyCurrentUser) {
    key = {handle == kHkeyLocalMachine ? Hive::Machine : Hive::User, {}};
    return true;
  }
  const auto* open = posix::LookUpHandle<OpenKey>(handle, posix::HandleKind::RegistryKey);
  if (open != nullptr) key = *open;
  return open != nullptr;
}

posix::WineRegistryKey ReadKey(const OpenKey& key) {
  WString path;
  for (const WString& part : key.path) path += (path.empty() ? u"" : u"\\") + part;
  return posix::ReadWineRegistryKey(ReadHive(key.hive), path);
}

// The key a link points to: "\Registry\Machine\..." or
// "\Registry\User\<SID>\..." of this account.
bool LinkTarget(const std::vector<WString>& link, OpenKey& key) {
  WString target;
  for (const posix::WineRegistryValue& value : ReadKey(OpenKey{key.hive, link}).values) {
    if (!SameName(value.name, u"SymbolicLinkValue") || value.type != kRegLink) continue;
    target = Utf16LeText(value.data.data(), value.data.size());
  }
  std::vector<WString> parts;
  AppendComponents(target, parts, true);
  WString sid;
  std::size_t rest = 3;
  if (parts.size() >= 2 && SameName(parts[0], u"Registry") && SameName(parts[1], u"Machine")) {
    key.hive = Hive::Machine;
    rest = 2;
  } else if (parts.size() >= 3 && SameName(parts[0], u"Registry") && SameName(parts[1], u"User") &&
             posix::UserRegSid(ReadHive(Hive::User), sid) && SameName(sid, parts[2])) {
    key.hive = Hive::User;
  } else {
    return false;
  }
  key.path.assign(parts.begin() + static_cast<std::ptrdiff_t>(rest), parts.end());
  return true;
}

}  // namespace

std::int32_t RegOpenKeyExW(RegKey root, const WString& subKey, std::uint32_t /*options*/, std::uint32_t samDesired,
                           RegKey& result) {
  QV_FAULT_POINT_CODE("RegOpenKeyExW", subKey);
  OpenKey key;
  if (!KeyOf(root, key)) return Fail(kErrorInvalidHandle);
  if (!AppendComponents(subKey, key.path, false)) return Fail(kErrorFileNotFound);
  // The 32-bit view of the machine's Software lies in Software\Wow6432Node.
  std::vector<WString>& parts = key.path;
  if (key.hive == Hive::Machine && (samDesired & kKeyWow64_32Key) != 0 && parts.size() >= 2 &&
      SameName(parts[0], u"Software") && !SameName(parts[1], u"Wow6432Node")) {
    parts.insert(parts.begin() + 1, u"Wow6432Node");
  }
  // Links on the way are followed as Wine's server follows them, the key's
  // own link too: the tool never asks for a link itself.
  for (int links = 0;; ++links) {
    const posix::WineRegistryKey found = ReadKey(key);
    const std::size_t depth = found.linkDepth;
    if (depth == 0) {
      if (!found.exists) return Fail(kErrorFileNotFound);
      break;
    }
    OpenKey target{key.hive, {}};
    const auto linkEnd = parts.begin() + static_cast<std::ptrdiff_t>(depth);
    if (links == kMaxLinks || !LinkTarget(std::vector<WString>(parts.begin(), linkEnd), target)) {
      return Fail(kErrorFileNotFound);
    }
    target.path.insert(target.path.end(), linkEnd, parts.end());
    key = std::move(target);
  }
  result = posix::RegisterHandle(posix::HandleKind::RegistryKey, std::make_shared<OpenKey>(std::move(key)));
  return 0;
}

std::int32_t RegEnumKeyExW(RegKey key, std::uint32_t index, WString& name, std::uint32_t nameCapacity) {
  QV_FAULT_POINT_CODE("RegEnumKeyExW", DecimalText(index));
  OpenKey open;
  if (!KeyOf(key, open)) return Fail(kErrorInvalidHandle);
  const std::vector<WString> subkeys = ReadKey(open).subkeys;
  if (index >= subkeys.size()) return Fail(kErrorNoMoreItems);
  if (subkeys[index].size() + 1 > nameCapacity) return Fail(kErrorMoreData);
  name = subkeys[index];
  return 0;
}

std::int32_t RegQueryValueExW(RegKey key, const WString& valueName, std::uint32_t& type, std::uint8_t* data,
                              std::uint32_t& size) {
  QV_FAULT_POINT_CODE("RegQueryValueExW", valueName);
  OpenKey open;
  if (!KeyOf(key, open)) return Fail(kErrorInvalidHandle);
  for (const posix::WineRegistryValue& value : ReadKey(open).values) {
    if (!SameName(value.name, valueName)) continue;
    type = value.type;
    const auto needed = static_cast<std::uint32_t>(value.data.size());
    const bool fits = data == nullptr || size >= needed;
    if (data != nullptr && fits) std::copy(value.data.begin(), value.data.end(), data);
    size = needed;
    return fits ? 0 : Fail(kErrorMoreData);
  }
  return Fail(kErrorFileNotFound);
}

std::int32_t RegCloseKey(RegKey key) {
  QV_FAULT_POINT_CODE("RegCloseKey", DecimalText(key));
  if (key == kHkeyLocalMachine || key == kHkeyCurrentUser) return 0;
  return posix::ReleaseHandleOfKind(key, posix::HandleKind::RegistryKey) ? 0 : Fail(kErrorInvalidHandle);
}

namespace posix {

bool AccountSidFromUserReg(WString& sidText) { return UserRegSid(ReadHive(Hive::User), sidText); }

}  // namespace posix
}  // namespace qv::platform
