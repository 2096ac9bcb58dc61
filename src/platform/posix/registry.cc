// The registry of the Linux host: HKEY_LOCAL_MACHINE is the prefix's
// system.reg and HKEY_CURRENT_USER its user.reg, both read only.
//
// Each file is parsed once per process and kept; a later call reads it again
// when its size, modification time or inode changed, since Wine's server
// rewrites the files whole while programs run. The file is looked at no more
// than once a millisecond. A missing or unreadable file
// is an empty registry: every key below the root is absent.
//
// An open key is a number in a table of this file: the hive and the key's
// path after links and the 32-bit view were applied. It holds no file data,
// so a key stays valid across re-reads; its subkey list is taken when an
// enumeration starts at index 0 and kept until the next start, so indexes
// stay stable while the server rewrites the file.
#include <fcntl.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/host_roots.h"
#include "platform/posix/registry.h"
#include "platform/posix/wine_registry.h"

extern char** environ;

namespace qv::platform {

namespace {

using posix::WineRegistry;

enum class Hive { Machine, User };

// Larger files are taken as unreadable: a real system.reg is a few MB.
constexpr off_t kMaxRegistryFileSize = off_t{256} << 20;
// Links followed in one open before it gives up (a loop of links).
constexpr int kMaxLinks = 16;
constexpr RegKey kFirstKey = 0x40000000u;

struct CachedHive {
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = -1;
  struct timespec modified = {};
  struct timespec changed = {};
  std::shared_ptr<const WineRegistry> registry;
  std::chrono::steady_clock::time_point checked;  // when the file was last looked at
};

// How long a look at a file stands for. Wine's server rewrites the files
// only every 30 s, so they are always that far behind the live registry;
// a millisecond more changes nothing for a reader, and spares a stat for
// each of the thousands of calls that a scan of the Uninstall keys makes.
constexpr std::chrono::microseconds kFileLookValidFor{1000};

struct OpenKey {
  Hive hive = Hive::Machine;
  WString path;
  std::vector<WString> subkeys;
  // The key's place in the parse it was last looked up in: calls on the key
  // while the file is unchanged start from there instead of the root.
  std::weak_ptr<const WineRegistry> parsed;
  posix::WineKeySpan span;
};

std::mutex registryMutex;
CachedHive cachedHives[2];
std::map<RegKey, OpenKey> openKeys;
RegKey nextKey = kFirstKey;

const std::shared_ptr<const WineRegistry>& EmptyRegistry() {
  static const std::shared_ptr<const WineRegistry> empty = std::make_shared<const WineRegistry>();
  return empty;
}

// The bytes of a registry file, in memory of their own: a private copy, so
// that whatever happens to the file later cannot reach the parsed index.
// The pages are mapped and filled in one step (MAP_POPULATE): taking them
// one fault at a time costs more than reading the file.
class FileBytes {
 public:
  FileBytes() = default;
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  ~FileBytes() {
    if (data_ != nullptr) ::munmap(data_, capacity_);
  }

  bool Reserve(std::size_t capacity) {
    void* mapped = MAP_FAILED;
    if (data_ == nullptr) {
      mapped = ::mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    } else {
      mapped = ::mremap(data_, capacity_, capacity, MREMAP_MAYMOVE);
    }
    if (mapped == MAP_FAILED) return false;
    data_ = static_cast<char*>(mapped);
    capacity_ = capacity;
    return true;
  }
  char* data() const { return data_; }
  std::size_t capacity() const { return capacity_; }
  std::size_t size = 0;

 private:
  char* data_ = nullptr;
  std::size_t capacity_ = 0;
};

// Reads the file into one buffer of its size; a file that grew meanwhile
// is read to its end.
bool ReadWholeFile(int fd, off_t size, FileBytes& bytes) {
  if (!bytes.Reserve(static_cast<std::size_t>(size) + 1)) return false;
  while (true) {
    if (bytes.size == bytes.capacity()) {
      if (bytes.capacity() >= static_cast<std::size_t>(kMaxRegistryFileSize)) return false;
      if (!bytes.Reserve(bytes.capacity() * 2)) return false;
    }
    ssize_t n = ::read(fd, bytes.data() + bytes.size, bytes.capacity() - bytes.size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) break;
    bytes.size += static_cast<std::size_t>(n);
  }
  return true;
}

bool SameFile(const CachedHive& cached, const std::string& path, const struct stat& status) {
  return cached.registry && cached.path == path && cached.device == status.st_dev && cached.inode == status.st_ino &&
         cached.size == status.st_size && cached.modified.tv_sec == status.st_mtim.tv_sec &&
         cached.modified.tv_nsec == status.st_mtim.tv_nsec && cached.changed.tv_sec == status.st_ctim.tv_sec &&
         cached.changed.tv_nsec == status.st_ctim.tv_nsec;
}

// The parsed file of a hive; the caller holds registryMutex. A call looks
// at the file unless a call less than kFileLookValidFor ago did, so a
// rewrite is seen by the calls that follow it by more than that; an
// unchanged file costs one stat.
std::shared_ptr<const WineRegistry> LoadHive(Hive hive) {
  std::string path = posix::PrefixDirectory() + (hive == Hive::Machine ? "/system.reg" : "/user.reg");
  CachedHive& cached = cachedHives[hive == Hive::Machine ? 0 : 1];
  const auto now = std::chrono::steady_clock::now();
  if (cached.registry && cached.path == path && now - cached.checked < kFileLookValidFor) return cached.registry;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return EmptyRegistry();
  if (S_ISREG(status.st_mode) && SameFile(cached, path, status)) {
    cached.checked = now;
    return cached.registry;
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return EmptyRegistry();
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kMaxRegistryFileSize) {
    ::close(fd);
    return EmptyRegistry();
  }
  if (SameFile(cached, path, status)) {
    ::close(fd);
    return cached.registry;
  }
  auto bytes = std::make_shared<FileBytes>();
  bool read = ReadWholeFile(fd, status.st_size, *bytes);
  ::close(fd);
  if (!read) return EmptyRegistry();
  cached.path = path;
  cached.device = status.st_dev;
  cached.inode = status.st_ino;
  cached.size = status.st_size;
  cached.modified = status.st_mtim;
  cached.changed = status.st_ctim;
  cached.checked = now;
  const std::string_view text(bytes->data(), bytes->size);
  cached.registry = std::make_shared<const WineRegistry>(posix::ParseWineRegistry(std::move(bytes), text));
  return cached.registry;
}

bool IsPredefined(RegKey key) { return key == kHkeyLocalMachine || key == kHkeyCurrentUser; }

// Where a key handle points; false for a handle that is not open.
bool KeyLocation(RegKey key, Hive& hive, WString& path) {
  if (IsPredefined(key)) {
    hive = key == kHkeyLocalMachine ? Hive::Machine : Hive::User;
    path.clear();
    return true;
  }
  auto it = openKeys.find(key);
  if (it == openKeys.end()) return false;
  hive = it->second.hive;
  path = it->second.path;
  return true;
}

// Appends the components of a key path: one trailing backslash is allowed,
// an empty component elsewhere is not; `skipEmpty` drops them all instead.
bool AppendComponents(WStringView path, std::vector<WString>& parts, bool skipEmpty) {
  if (!skipEmpty && !path.empty() && path.back() == u'\\') path.remove_suffix(1);
  if (path.empty()) return true;
  std::size_t start = 0;
  while (true) {
    std::size_t stop = path.find(u'\\', start);
    WStringView part = path.substr(start, stop == WStringView::npos ? WStringView::npos : stop - start);
    if (!part.empty()) {
      parts.emplace_back(part);
    } else if (!skipEmpty) {
      return false;
    }
    if (stop == WStringView::npos) return true;
    start = stop + 1;
  }
}

WString JoinComponents(const std::vector<WString>& parts, std::size_t count) {
  WString path;
  for (std::size_t i = 0; i < count; ++i) {
    if (i != 0) path.push_back(u'\\');
    path += parts[i];
  }
  return path;
}

// The key a link points to: "\Registry\Machine\..." or
// "\Registry\User\<SID>\..." of this account.
bool LinkTarget(const WineRegistry& registry, const WString& path, Hive& hive, std::vector<WString>& parts) {
  posix::WineRegistryValue value;
  if (!posix::FindWineValue(registry, path, u"SymbolicLinkValue", value) || value.type != 6) return false;
  WString target;
  for (std::size_t i = 0; i + 1 < value.data.size(); i += 2) {
    char16_t c = static_cast<char16_t>(value.data[i] | (value.data[i + 1] << 8));
    if (c == 0) break;
    target.push_back(c);
  }
  std::vector<WString> components;
  AppendComponents(target, components, true);
  if (components.size() < 2 || posix::FoldRegistryName(components[0]) != u"registry") return false;
  WString root = posix::FoldRegistryName(components[1]);
  std::size_t rest = 2;
  if (root == u"machine") {
    hive = Hive::Machine;
  } else if (root == u"user" && components.size() >= 3) {
    WString sid;
    std::shared_ptr<const WineRegistry> user = LoadHive(Hive::User);
    if (!posix::UserRegSid(*user, sid) || posix::FoldRegistryName(sid) != posix::FoldRegistryName(components[2])) {
      return false;
    }
    hive = Hive::User;
    rest = 3;
  } else {
    return false;
  }
  parts.assign(components.begin() + static_cast<std::ptrdiff_t>(rest), components.end());
  return true;
}

bool SameParse(const std::weak_ptr<const WineRegistry>& kept, const std::shared_ptr<const WineRegistry>& current) {
  return !kept.owner_before(current) && !current.owner_before(kept) && !kept.expired();
}

// Walks the path one component at a time, following links as Wine's server
// does: every link on the way, and the last key's own link unless
// `followLast` is false. The first `resolved` components are the key `from`,
// which an earlier open already walked to (links followed): while the file
// is unchanged the walk starts at its place in the index, else at the root.
// After a link it starts again from the root of the target. `found` gets
// the key's place in the parse it was found in.
std::int32_t ResolveKey(Hive& hive, std::vector<WString>& parts, bool followLast, const OpenKey* from,
                        std::size_t resolved, std::shared_ptr<const WineRegistry>& registry,
                        posix::WineKeySpan& found) {
  // The root is never a link.
  const auto rootOf = [](const WineRegistry& parsed) {
    posix::WineKeySpan root = posix::WineRootSpan(parsed);
    root.link = false;
    return root;
  };
  registry = LoadHive(hive);
  posix::WineKeySpan span = rootOf(*registry);
  std::size_t i = 0;  // components walked so far
  if (from != nullptr && resolved > 0 && from->hive == hive && SameParse(from->parsed, registry)) {
    span = from->span;
    i = resolved;
  }
  int links = 0;
  while (true) {
    // Its own link, kept by REG_OPTION_OPEN_LINK, is followed on the way down.
    if (span.link && (i < parts.size() || followLast)) {
      std::vector<WString> target;
      if (++links > kMaxLinks || !LinkTarget(*registry, JoinComponents(parts, i), hive, target)) {
        return static_cast<std::int32_t>(kErrorFileNotFound);
      }
      target.insert(target.end(), parts.begin() + static_cast<std::ptrdiff_t>(i), parts.end());
      parts = std::move(target);
      registry = LoadHive(hive);
      span = rootOf(*registry);
      i = 0;
      continue;
    }
    if (i == parts.size()) break;
    span = posix::FindWineSubkeySpan(*registry, span, posix::FoldRegistryName(parts[i]));
    if (!span.exists) return static_cast<std::int32_t>(kErrorFileNotFound);
    ++i;
  }
  found = span;
  return 0;
}

// The place of an open key (or a predefined root) in the hive's current
// parse, kept in the open key for the calls that follow.
posix::WineKeySpan KeySpan(RegKey key, const WString& path, const std::shared_ptr<const WineRegistry>& registry) {
  auto open = openKeys.find(key);
  if (open == openKeys.end()) return posix::FindWineKeySpan(*registry, path);
  if (!SameParse(open->second.parsed, registry)) {
    open->second.span = posix::FindWineKeySpan(*registry, path);
    open->second.parsed = registry;
  }
  return open->second.span;
}

// ---------------------------------------------------------- environment --

std::string LinuxUserName() {
  if (const struct passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_name != nullptr) {
    return entry->pw_name;
  }
  if (const char* user = std::getenv("USER"); user != nullptr && *user != '\0') return user;
  return "user";
}

bool SameNameIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] + 32) : a[i];
    char y = b[i] >= 'A' && b[i] <= 'Z' ? static_cast<char>(b[i] + 32) : b[i];
    if (x != y) return false;
  }
  return true;
}

// What a fresh Wine prefix puts in a program's environment that a Linux
// shell does not have.
bool PrefixVariable(std::string_view name, std::string& value) {
  const std::string user = LinuxUserName();
  const std::string profile = "C:\\users\\" + user;
  const std::pair<const char*, std::string> variables[] = {
      {"ALLUSERSPROFILE", "C:\\ProgramData"},
      {"APPDATA", profile + "\\AppData\\Roaming"},
      {"CommonProgramFiles", "C:\\Program Files\\Common Files"},
      {"CommonProgramFiles(x86)", "C:\\Program Files (x86)\\Common Files"},
      {"CommonProgramW6432", "C:\\Program Files\\Common Files"},
      {"ComSpec", "C:\\windows\\system32\\cmd.exe"},
      {"HOMEDRIVE", "C:"},
      {"HOMEPATH", "\\users\\" + user},
      {"LOCALAPPDATA", profile + "\\AppData\\Local"},
      {"OS", "Windows_NT"},
      {"PATHEXT", ".com;.exe;.bat;.cmd;.vbs;.vbe;.js;.jse;.wsf;.wsh"},
      {"ProgramData", "C:\\ProgramData"},
      {"ProgramFiles", "C:\\Program Files"},
      {"ProgramFiles(x86)", "C:\\Program Files (x86)"},
      {"ProgramW6432", "C:\\Program Files"},
      {"PUBLIC", "C:\\users\\Public"},
      {"SystemDrive", "C:"},
      {"SystemRoot", "C:\\windows"},
      {"TEMP", profile + "\\Temp"},
      {"TMP", profile + "\\Temp"},
      {"USERNAME", user},
      {"USERPROFILE", profile},
      {"windir", "C:\\windows"},
      {"winsysdir", "C:\\windows\\system32"},
  };
  for (const auto& [variable, text] : variables) {
    if (SameNameIgnoringCase(variable, name)) {
      value = text;
      return true;
    }
  }
  return false;
}

// A variable of the process environment (the name as written first, then
// without regard to case), else of the prefix.
bool LookUpVariable(WStringView wideName, WString& value) {
  if (wideName.empty()) return false;
  std::string name = WideToUtf8(wideName);
  if (name.find('=') != std::string::npos || name.find('\0') != std::string::npos) return false;
  if (const char* text = std::getenv(name.c_str()); text != nullptr) {
    value = Utf8ToWide(text);
    return true;
  }
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    std::string_view variable(*entry);
    std::size_t equals = variable.find('=');
    if (equals != std::string_view::npos && SameNameIgnoringCase(variable.substr(0, equals), name)) {
      value = Utf8ToWide(variable.substr(equals + 1));
      return true;
    }
  }
  std::string text;
  if (!PrefixVariable(name, text)) return false;
  value = Utf8ToWide(text);
  return true;
}

}  // namespace

std::int32_t RegOpenKeyExW(RegKey root, const WString& subKey, std::uint32_t options, std::uint32_t samDesired,
                           RegKey& result) {
  QV_FAULT_POINT_CODE("RegOpenKeyExW", subKey);
  std::lock_guard<std::mutex> lock(registryMutex);
  Hive hive;
  WString base;
  if (!KeyLocation(root, hive, base)) {
    SetLastError(kErrorInvalidHandle);
    return static_cast<std::int32_t>(kErrorInvalidHandle);
  }
  std::vector<WString> parts;
  AppendComponents(base, parts, true);
  // An open key's path was walked when it was opened: only what lies below
  // it needs walking now, from the key itself (whose own link, kept by
  // REG_OPTION_OPEN_LINK, is followed on the way down).
  std::size_t resolved = IsPredefined(root) ? 0 : parts.size();
  if (!AppendComponents(subKey, parts, false)) {
    SetLastError(kErrorFileNotFound);
    return static_cast<std::int32_t>(kErrorFileNotFound);
  }
  // The 32-bit view of the machine's Software lies in Software\Wow6432Node.
  if (hive == Hive::Machine && (samDesired & kKeyWow64_32Key) != 0 && parts.size() >= 2 &&
      posix::FoldRegistryName(parts[0]) == u"software" && posix::FoldRegistryName(parts[1]) != u"wow6432node") {
    parts.insert(parts.begin() + 1, u"Wow6432Node");
    resolved = 0;
  }
  constexpr std::uint32_t kOpenLink = 0x8;  // REG_OPTION_OPEN_LINK
  const auto from = IsPredefined(root) ? openKeys.end() : openKeys.find(root);
  std::shared_ptr<const WineRegistry> registry;
  posix::WineKeySpan span;
  if (std::int32_t error = ResolveKey(hive, parts, (options & kOpenLink) == 0,
                                      from == openKeys.end() ? nullptr : &from->second, resolved, registry, span);
      error != 0) {
    SetLastError(static_cast<std::uint32_t>(error));
    return error;
  }
  RegKey key = nextKey;
  nextKey += 4;
  openKeys[key] = OpenKey{hive, JoinComponents(parts, parts.size()), {}, registry, span};
  result = key;
  return 0;
}

std::int32_t RegEnumKeyExW(RegKey key, std::uint32_t index, WString& name, std::uint32_t nameCapacity) {
  QV_FAULT_POINT_CODE("RegEnumKeyExW", DecimalText(index));
  std::lock_guard<std::mutex> lock(registryMutex);
  Hive hive;
  WString path;
  if (!KeyLocation(key, hive, path)) {
    SetLastError(kErrorInvalidHandle);
    return static_cast<std::int32_t>(kErrorInvalidHandle);
  }
  std::vector<WString> fresh;
  const std::vector<WString>* subkeys = &fresh;
  auto open = openKeys.find(key);
  if (open == openKeys.end() || index == 0) {
    const std::shared_ptr<const WineRegistry> registry = LoadHive(hive);
    fresh = posix::WineSubkeyNames(*registry, KeySpan(key, path, registry));
    if (open != openKeys.end()) {
      open->second.subkeys = std::move(fresh);
      subkeys = &open->second.subkeys;
    }
  } else {
    subkeys = &open->second.subkeys;
  }
  if (index >= subkeys->size()) {
    SetLastError(kErrorNoMoreItems);
    return static_cast<std::int32_t>(kErrorNoMoreItems);
  }
  const WString& found = (*subkeys)[index];
  if (found.size() + 1 > nameCapacity) {
    SetLastError(kErrorMoreData);
    return static_cast<std::int32_t>(kErrorMoreData);
  }
  name = found;
  return 0;
}

std::int32_t RegQueryValueExW(RegKey key, const WString& valueName, std::uint32_t& type, std::uint8_t* data,
                              std::uint32_t& size) {
  QV_FAULT_POINT_CODE("RegQueryValueExW", valueName);
  std::lock_guard<std::mutex> lock(registryMutex);
  Hive hive;
  WString path;
  if (!KeyLocation(key, hive, path)) {
    SetLastError(kErrorInvalidHandle);
    return static_cast<std::int32_t>(kErrorInvalidHandle);
  }
  posix::WineRegistryValue value;
  const std::shared_ptr<const WineRegistry> registry = LoadHive(hive);
  if (!posix::FindWineValue(*registry, KeySpan(key, path, registry), valueName, value)) {
    SetLastError(kErrorFileNotFound);
    return static_cast<std::int32_t>(kErrorFileNotFound);
  }
  type = value.type;
  const auto needed = static_cast<std::uint32_t>(value.data.size());
  if (data == nullptr) {
    size = needed;
    return 0;
  }
  if (size < needed) {
    size = needed;
    SetLastError(kErrorMoreData);
    return static_cast<std::int32_t>(kErrorMoreData);
  }
  if (needed != 0) std::memcpy(data, value.data.data(), needed);
  size = needed;
  return 0;
}

std::int32_t RegCloseKey(RegKey key) {
  QV_FAULT_POINT_CODE("RegCloseKey", DecimalText(key));
  std::lock_guard<std::mutex> lock(registryMutex);
  if (IsPredefined(key)) return 0;
  if (openKeys.erase(key) == 0) {
    SetLastError(kErrorInvalidHandle);
    return static_cast<std::int32_t>(kErrorInvalidHandle);
  }
  return 0;
}

// Wine's expansion: "%NAME%" of a known variable becomes its value; an
// unknown one is kept whole, percent signs included, and the scan goes on
// after it; a "%" with no closing one keeps the rest as written.
std::uint32_t ExpandEnvironmentStringsW(const WString& source, WString& destination, std::uint32_t capacity) {
  QV_FAULT_POINT("ExpandEnvironmentStringsW", return 0, source);
  // The string ends at an embedded NUL, as a C string would.
  const WStringView text = WStringView(source).substr(0, source.find(u'\0'));
  WString expanded;
  WString value;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t percent = text.find(u'%', pos);
    if (percent != pos) {
      std::size_t stop = percent == WStringView::npos ? text.size() : percent;
      expanded.append(text.substr(pos, stop - pos));
      pos = stop;
      continue;
    }
    std::size_t closing = text.find(u'%', pos + 1);
    if (closing == WStringView::npos) {
      expanded.append(text.substr(pos));
      break;
    }
    if (LookUpVariable(text.substr(pos + 1, closing - pos - 1), value)) {
      expanded += value;
    } else {
      expanded.append(text.substr(pos, closing - pos + 1));
    }
    pos = closing + 1;
  }
  const auto needed = static_cast<std::uint32_t>(expanded.size() + 1);
  if (needed <= capacity) destination = std::move(expanded);
  return needed;
}

namespace posix {

bool AccountSidFromUserReg(WString& sidText) {
  std::lock_guard<std::mutex> lock(registryMutex);
  return UserRegSid(*LoadHive(Hive::User), sidText);
}

}  // namespace posix
}  // namespace qv::platform
