// Windows paths on the Linux host: the drive map of the Wine prefix, the
// normalisation of GetFullPathNameW and the case-insensitive lookup of path
// components.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/host.h"

namespace qv::platform::posix {
namespace {

bool IsDriveLetter(WChar c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }
WChar UpperLetter(WChar c) { return (c >= u'a' && c <= u'z') ? static_cast<WChar>(c - 32) : c; }

// Case folding for name lookup: each UTF-16 code unit upper-cased, as Wine
// compares names. No code unit above ASCII upper-cases to an ASCII letter.
std::u32string FoldedCodePoints(const std::string& utf8) {
  WString wide = Utf8ToWide(utf8);
  std::u32string out;
  out.reserve(wide.size());
  for (WChar c : wide) out.push_back(UpcaseCodeUnit(c));
  return out;
}

bool LexicallyAbsolute(const std::string& p) { return !p.empty() && p[0] == '/'; }

// Collapses "//", "." and ".." of a host path without touching the disk.
std::string NormaliseHostPath(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i <= path.size()) {
    std::size_t j = path.find('/', i);
    if (j == std::string::npos) j = path.size();
    std::string part = path.substr(i, j - i);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    i = j + 1;
  }
  std::string out;
  for (const std::string& part : parts) out += "/" + part;
  return out.empty() ? "/" : out;
}

std::string WorkingDirectory() {
  std::vector<char> buffer(PATH_MAX);
  while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
    if (errno != ERANGE) return "/";
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

// The host folder a drive letter maps to, or empty when the prefix does not
// map it. Z: is "/" unless the prefix maps it elsewhere.
std::string ReadDriveTarget(const std::string& devices, char lower) {
  std::string entry = devices + "/" + lower + ":";
  struct stat st;
  if (::lstat(entry.c_str(), &st) != 0) return lower == 'z' ? "/" : "";
  if (S_ISLNK(st.st_mode)) {
    std::vector<char> buffer(PATH_MAX + 1);
    ssize_t n = ::readlink(entry.c_str(), buffer.data(), PATH_MAX);
    if (n <= 0) return lower == 'z' ? "/" : "";
    std::string target(buffer.data(), static_cast<std::size_t>(n));
    if (!LexicallyAbsolute(target)) target = devices + "/" + target;
    return NormaliseHostPath(target);
  }
  if (S_ISDIR(st.st_mode)) return entry;
  return "";
}

// The drive map is read once per prefix and letter: every path of a run
// goes through it, and a prefix's drives do not change under a run.
std::string DriveTarget(WChar letter) {
  if (!IsDriveLetter(letter)) return "";
  const char lower = static_cast<char>(UpperLetter(letter) - u'A' + 'a');
  const std::string devices = PrefixDirectory() + "/dosdevices";
  static std::map<std::string, std::string>* cache = new std::map<std::string, std::string>;
  const std::string key = devices + "/" + lower;
  auto it = cache->find(key);
  if (it == cache->end()) it = cache->emplace(key, ReadDriveTarget(devices, lower)).first;
  return it->second;
}

bool IsAscii(const std::string& text) {
  for (char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

bool EqualIgnoringAsciiCase(const char* a, const std::string& b) {
  std::size_t k = 0;
  for (; a[k] != '\0' && k < b.size(); ++k) {
    char x = a[k];
    char y = b[k];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
    if (x != y) return false;
  }
  return a[k] == '\0' && k == b.size();
}

// The key under which a name is found without regard to case: its folded
// code points, as the comparison of a folder scan folds them.
std::u32string FoldKey(const std::string& name) {
  if (!IsAscii(name)) return FoldedCodePoints(name);
  std::u32string key(name.begin(), name.end());
  for (char32_t& c : key) {
    if (c >= U'a' && c <= U'z') c -= 32;
  }
  return key;
}

// Listings of folders, kept while the kernel reports every change to them.
//
// A name that does not exist as written must be looked for among all the
// entries of its folder, and a copy into a new tree asks that for every file
// it makes: reading the folder each time would cost a scan per file. Here a
// folder is read once, an inotify watch on it reports each entry that comes
// or goes, by whichever process, and those reports are applied before every
// answer, so an answer is as fresh as a scan. Only folders on local file
// systems are kept, where every change passes through this kernel; a queue
// that overflowed drops all listings.
class FolderListings {
 public:
  // Answers whether `folder` holds an entry named like `name`. False when no
  // listing can be had; the caller then scans the folder itself.
  bool Find(const std::string& folder, const struct stat& folderStatus, const std::string& name, bool& match,
            std::string& found) {
    if (!S_ISDIR(folderStatus.st_mode) || broken_) return false;
    ForgetParentsListings();
    if (!listings_.empty()) {
      Drain();
      if (broken_) return false;
    }
    Listing* listing = nullptr;
    const std::pair<dev_t, ino_t> identity{folderStatus.st_dev, folderStatus.st_ino};
    auto id = byIdentity_.find(identity);
    if (id != byIdentity_.end()) {
      listing = &listings_.at(id->second);
    } else {
      // A folder is kept from its second lookup on: one looked up once (the
      // folder of each installation, say) costs a plain scan, not a watch.
      if (lookedUpOnce_.size() >= kMaxLookedUpOnce) lookedUpOnce_.clear();
      if (lookedUpOnce_.insert(identity).second || !Ready()) return false;
      listing = Read(folder, folderStatus);
      if (listing == nullptr) return false;
    }
    listing->lastUse = ++clock_;
    auto it = listing->names.find(FoldKey(name));
    match = it != listing->names.end() && !it->second.empty();
    if (match) found = it->second.front();
    return true;
  }

 private:
  // At most this many folders are kept, and no folder with more entries.
  static constexpr std::size_t kMaxFolders = 256;
  static constexpr std::size_t kMaxEntries = 50000;
  // Folders looked up once and not kept are remembered up to this many.
  static constexpr std::size_t kMaxLookedUpOnce = 4096;

  struct Listing {
    dev_t device = 0;
    ino_t inode = 0;
    std::uint64_t lastUse = 0;
    // Folded name to the entries' own names, in the order they were seen.
    std::unordered_map<std::u32string, std::vector<std::string>> names;
  };

  static void Add(Listing& listing, const std::string& name) {
    std::vector<std::string>& same = listing.names[FoldKey(name)];
    for (const std::string& known : same) {
      if (known == name) return;
    }
    same.push_back(name);
  }

  static void Remove(Listing& listing, const std::string& name) {
    auto it = listing.names.find(FoldKey(name));
    if (it == listing.names.end()) return;
    std::vector<std::string>& same = it->second;
    for (auto k = same.begin(); k != same.end(); ++k) {
      if (*k == name) {
        same.erase(k);
        break;
      }
    }
    if (same.empty()) listing.names.erase(it);
  }

  // A child made by fork shares its parent's instance: it leaves that one
  // alone and starts afresh.
  void ForgetParentsListings() {
    if (!forked_) return;
    forked_ = false;
    listings_.clear();
    byIdentity_.clear();
    fd_ = -1;  // the parent's: not closed here, it still reads it
  }

  // Opens the inotify instance on first use.
  bool Ready() {
    if (broken_) return false;
    ForgetParentsListings();
    if (fd_ >= 0) return true;
    static const bool registered = ::pthread_atfork(nullptr, nullptr, [] { forked_ = true; }) == 0;
    if (!registered) {
      broken_ = true;
      return false;
    }
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
      broken_ = true;
      return false;
    }
    return true;
  }

  void DropAll() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    listings_.clear();
    byIdentity_.clear();
  }

  // Applies every change reported so far.
  void Drain() {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) return;
      if (n <= 0) {
        // The instance cannot be read: nothing it holds can be trusted.
        DropAll();
        broken_ = true;
        return;
      }
      // A read leaves room for the next event only when none was waiting.
      const bool emptied = sizeof buffer - static_cast<std::size_t>(n) >= sizeof(inotify_event) + NAME_MAX + 1;
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
          DropAll();
          return;
        }
        auto it = listings_.find(event->wd);
        if (it == listings_.end()) continue;
        if ((event->mask & IN_IGNORED) != 0) {
          // The folder is gone (or its file system): its identity may be
          // given to another folder.
          byIdentity_.erase({it->second.device, it->second.inode});
          listings_.erase(it);
          continue;
        }
        const std::string entryName = event->len > 0 ? std::string(event->name) : std::string();
        if (entryName.empty()) continue;
        if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) Add(it->second, entryName);
        if ((event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0) Remove(it->second, entryName);
      }
      if (emptied) return;
    }
  }

  static bool OnLocalFileSystem(int folderFd) {
    struct statfs fs;
    if (::fstatfs(folderFd, &fs) != 0) return false;
    switch (static_cast<unsigned long>(fs.f_type)) {
      case 0xEF53UL:      // ext2, ext3, ext4
      case 0x58465342UL:  // xfs
      case 0x9123683EUL:  // btrfs
      case 0x01021994UL:  // tmpfs
      case 0xF2F52010UL:  // f2fs
      case 0x794C7630UL:  // overlayfs
        return true;
      default:
        return false;
    }
  }

  // Watches the folder and reads it. The watch is set on the open folder
  // before it is read, so nothing that changes while it is read is missed.
  Listing* Read(const std::string& folder, const struct stat& folderStatus) {
    const int dirFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0) return nullptr;
    struct stat opened;
    if (::fstat(dirFd, &opened) != 0 || opened.st_dev != folderStatus.st_dev || opened.st_ino != folderStatus.st_ino ||
        !OnLocalFileSystem(dirFd)) {
      ::close(dirFd);
      return nullptr;
    }
    if (listings_.size() >= kMaxFolders) Evict();
    const std::string self = "/proc/self/fd/" + std::to_string(dirFd);
    const int wd = ::inotify_add_watch(fd_, self.c_str(),
                                       IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR);
    if (wd < 0) {
      ::close(dirFd);
      return nullptr;
    }
    DIR* dir = ::fdopendir(dirFd);
    if (dir == nullptr) {
      ::close(dirFd);
      ::inotify_rm_watch(fd_, wd);
      return nullptr;
    }
    Listing listing;
    listing.device = opened.st_dev;
    listing.inode = opened.st_ino;
    std::size_t count = 0;
    while (dirent* entry = ::readdir(dir)) {
      const char* name = entry->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
      if (++count > kMaxEntries) break;
      Add(listing, name);
    }
    ::closedir(dir);
    if (count > kMaxEntries) {
      ::inotify_rm_watch(fd_, wd);
      return nullptr;
    }
    byIdentity_[{listing.device, listing.inode}] = wd;
    listings_[wd] = std::move(listing);
    // Changes made while the folder was read are applied over the listing.
    Drain();
    auto it = listings_.find(wd);
    return it == listings_.end() ? nullptr : &it->second;
  }

  void Evict() {
    auto oldest = listings_.begin();
    for (auto it = listings_.begin(); it != listings_.end(); ++it) {
      if (it->second.lastUse < oldest->second.lastUse) oldest = it;
    }
    if (oldest == listings_.end()) return;
    ::inotify_rm_watch(fd_, oldest->first);
    byIdentity_.erase({oldest->second.device, oldest->second.inode});
    listings_.erase(oldest);
  }

  static inline bool forked_ = false;
  int fd_ = -1;
  bool broken_ = false;
  std::uint64_t clock_ = 0;
  std::unordered_map<int, Listing> listings_;  // by watch
  std::map<std::pair<dev_t, ino_t>, int> byIdentity_;
  std::set<std::pair<dev_t, ino_t>> lookedUpOnce_;
};

FolderListings& Listings() {
  static FolderListings* listings = new FolderListings;
  return *listings;
}

// Reads the folder for an entry named like `name` without regard to case.
bool ScanFolderIgnoringCase(const std::string& folder, const std::string& name, std::string& found) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return false;
  const bool ascii = IsAscii(name);
  const std::u32string wanted = ascii ? std::u32string() : FoldedCodePoints(name);
  bool match = false;
  while (dirent* entry = ::readdir(dir)) {
    const char* candidate = entry->d_name;
    if (std::strcmp(candidate, ".") == 0 || std::strcmp(candidate, "..") == 0) continue;
    // An ASCII name can only match an entry of the same length that folds
    // to it byte for byte; others need the full folding.
    bool equal = false;
    const std::string text(candidate);
    if (ascii && IsAscii(text)) {
      equal = EqualIgnoringAsciiCase(candidate, name);
    } else {
      equal = FoldedCodePoints(text) == (ascii ? FoldedCodePoints(name) : wanted);
    }
    if (equal) {
      found = text;
      match = true;
      break;
    }
  }
  ::closedir(dir);
  return match;
}

// Finds an entry of `folder` named like `name` without regard to case, from
// the folder's kept listing when its status is at hand, else by a scan.
bool FindEntryIgnoringCase(const std::string& folder, const struct stat* folderStatus, const std::string& name,
                           std::string& found) {
  bool match = false;
  if (folderStatus != nullptr && Listings().Find(folder, *folderStatus, name, match, found)) return match;
  return ScanFolderIgnoringCase(folder, name, found);
}

bool IsValidComponent(const WString& component) {
  for (WChar c : component) {
    if (c < 0x20 || c == u'<' || c == u'>' || c == u':' || c == u'"' || c == u'|' || c == u'?' || c == u'*') {
      return false;
    }
  }
  return true;
}

}  // namespace

int OpenForReading(const std::string& hostPath, std::uint32_t& error) {
  const int fd = ::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) return fd;
  const int err = errno;
  error = ErrnoToWinError(err);
  if (err == ENOENT) {
    // A missing folder on the way is "path not found", as Windows says.
    const std::size_t slash = hostPath.find_last_of('/');
    const std::string parent = slash == std::string::npos || slash == 0 ? "/" : hostPath.substr(0, slash);
    struct stat st;
    if (::stat(parent.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) error = kErrorPathNotFound;
  }
  return -1;
}

WString CurrentDirectoryWindows() {
  WString windows;
  if (ToWindowsPath(WorkingDirectory(), windows)) return windows;
  return u"Z:\\";
}

bool FullPathName(const WString& name, WString& full, std::uint32_t& error) {
  if (name.empty()) {
    error = kErrorInvalidName;
    return false;
  }
  WString path = name;
  for (WChar& c : path) {
    if (c == u'/') c = u'\\';
  }
  // Split into a root and the rest, which is then resolved element by element.
  WString root;
  WString rest;
  if (path.size() >= 2 && path[0] == u'\\' && path[1] == u'\\') {
    // Device (\\?\, \\.\) and network (\\server\share) paths keep their root.
    if (path.size() >= 4 && (path[2] == u'?' || path[2] == u'.') && path[3] == u'\\') {
      root = path.substr(0, 4);
      rest = path.substr(4);
    } else {
      std::size_t server = path.find(u'\\', 2);
      std::size_t share = server == WString::npos ? WString::npos : path.find(u'\\', server + 1);
      root = share == WString::npos ? path : path.substr(0, share);
      rest = share == WString::npos ? WString() : path.substr(share + 1);
      root += u'\\';
    }
  } else if (path.size() >= 2 && path[1] == u':') {
    // Any character before the colon makes a drive, as Windows reads it;
    // only letters can be mapped to a folder later.
    // The drive letter keeps the case it was given.
    WString drive{path[0], u':'};
    if (path.size() >= 3 && path[2] == u'\\') {
      root = drive + u"\\";
      rest = path.substr(3);
    } else {
      // Drive-relative: against the current directory when it is on that
      // drive, else against the drive's root.
      WString cwd = CurrentDirectoryWindows();
      if (cwd.size() >= 2 && UpperLetter(cwd[0]) == UpperLetter(drive[0])) {
        root = cwd.substr(0, 3);
        rest = cwd.substr(3) + u"\\" + path.substr(2);
      } else {
        root = drive + u"\\";
        rest = path.substr(2);
      }
    }
  } else if (!path.empty() && path[0] == u'\\') {
    WString cwd = CurrentDirectoryWindows();
    root = cwd.substr(0, 3);
    rest = path.substr(1);
  } else {
    WString cwd = CurrentDirectoryWindows();
    root = cwd.substr(0, 3);
    rest = cwd.substr(3) + u"\\" + path;
  }

  bool trailingSeparator = !rest.empty() && rest.back() == u'\\';
  std::vector<WString> parts;
  std::size_t i = 0;
  while (i <= rest.size()) {
    std::size_t j = rest.find(u'\\', i);
    if (j == WString::npos) j = rest.size();
    WString part = rest.substr(i, j - i);
    if (part == u"..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != u".") {
      parts.push_back(part);
    }
    i = j + 1;
  }
  if (!parts.empty() && !trailingSeparator) {
    // Windows drops trailing dots and blanks of the last element.
    WString& last = parts.back();
    while (!last.empty() && (last.back() == u'.' || last.back() == u' ')) last.pop_back();
    if (last.empty()) parts.pop_back();
  }
  full = root;
  for (std::size_t k = 0; k < parts.size(); ++k) {
    if (k > 0) full += u'\\';
    full += parts[k];
  }
  if (trailingSeparator && !parts.empty()) full += u'\\';
  return true;
}

bool ResolveHostEntry(const WString& windowsPath, HostEntry& entry, std::uint32_t& error) {
  entry.state = HostEntry::State::Unknown;
  entry.missingCode = 0;
  WString full;
  if (!FullPathName(windowsPath, full, error)) return false;
  if (full.size() < 3 || full[1] != u':' || !IsDriveLetter(full[0])) {
    error = kErrorBadNetPath;
    return false;
  }
  std::string current = DriveTarget(full[0]);
  if (current.empty()) {
    error = kErrorPathNotFound;
    return false;
  }
  std::vector<std::string> names;
  std::size_t i = 3;
  while (i < full.size()) {
    std::size_t j = full.find(u'\\', i);
    if (j == WString::npos) j = full.size();
    WString component = full.substr(i, j - i);
    i = j + 1;
    if (component.empty()) continue;
    if (!IsValidComponent(component)) {
      error = kErrorInvalidName;
      return false;
    }
    names.push_back(WideToUtf8(component));
  }
  entry.depth = names.size();
  const std::string root = current == "/" ? "" : current;
  auto join = [&root, &names](std::size_t count) {
    std::string path = root;
    for (std::size_t k = 0; k < count; ++k) path += "/" + names[k];
    return path.empty() ? std::string("/") : path;
  };

  if (names.empty()) {
    entry.path = current;
    return true;
  }
  // Most paths exist as written, or all but their last element do: one
  // lstat each settles those without reading any folder.
  std::string asWritten = join(names.size());
  struct stat st;
  if (::lstat(asWritten.c_str(), &st) == 0) {
    entry.path = std::move(asWritten);
    entry.state = HostEntry::State::Present;
    entry.status = st;
    return true;
  }
  // The deepest prefix that exists as written is found looking upward from
  // the path's folder: most missing paths lack only their last element or
  // two. Past a few steps the rest is halved instead, so a path missing from
  // near the drive root (another case there, say) costs a few lstat calls,
  // not one for each element. Existence as written runs down from the root
  // without a gap: an lstat that succeeds walked every folder above it.
  int missingError = errno;            // of the lstat of the shortest missing prefix
  std::size_t missing = names.size();  // elements in that prefix
  std::size_t known = 0;               // elements known to exist as written
  struct stat folder {};               // the lstat of those, when made
  bool haveFolder = false;
  constexpr std::size_t kUpwardSteps = 3;
  // Ends with `known` + 1 == `missing`.
  for (std::size_t step = 0; known + 1 < missing; ++step) {
    const std::size_t trial = step < kUpwardSteps ? missing - 1 : (known + missing) / 2;
    struct stat probe;
    if (::lstat(join(trial).c_str(), &probe) == 0) {
      known = trial;
      folder = probe;
      haveFolder = true;
    } else {
      missing = trial;
      missingError = errno;
    }
  }
  // The drive's root is looked into like any folder: with its status at
  // hand its listing can be kept, for the next name missing there.
  if (known == 0 && ::stat(join(0).c_str(), &folder) == 0) haveFolder = true;

  current = join(known);
  bool lookUp = true;
  for (std::size_t k = known; k < names.size(); ++k) {
    const bool last = k + 1 == names.size();
    std::string base = current == "/" ? "" : current;
    std::string candidate = base + "/" + names[k];
    if (lookUp) {
      // The element just below the deepest existing prefix has been asked.
      const bool asked = k == known;
      int err = missingError;
      bool exists = false;
      if (!asked) {
        exists = ::lstat(candidate.c_str(), &st) == 0;
        err = errno;
      }
      if (exists) {
        if (last) {
          entry.state = HostEntry::State::Present;
          entry.status = st;
        }
        folder = st;
        haveFolder = true;
      } else {
        std::string found;
        if (FindEntryIgnoringCase(current, haveFolder ? &folder : nullptr, names[k], found)) {
          candidate = base + "/" + found;
          haveFolder = false;
        } else {
          // Nothing by that name: later elements cannot exist either.
          lookUp = false;
          if (err == ENOENT) {
            entry.state = HostEntry::State::Absent;
            if (!last) {
              entry.missingCode = kErrorPathNotFound;
            } else if (haveFolder && S_ISDIR(folder.st_mode)) {
              entry.missingCode = kErrorFileNotFound;
            }
          }
        }
      }
    }
    current = std::move(candidate);
  }
  entry.path = std::move(current);
  return true;
}

bool ResolveHostPath(const WString& windowsPath, std::string& hostPath, std::size_t& depth, std::uint32_t& error) {
  HostEntry entry;
  if (!ResolveHostEntry(windowsPath, entry, error)) return false;
  hostPath = std::move(entry.path);
  depth = entry.depth;
  return true;
}

bool ToHostPath(const WString& windowsPath, std::string& hostPath, std::uint32_t& error) {
  std::size_t depth = 0;
  return ResolveHostPath(windowsPath, hostPath, depth, error);
}

bool ToWindowsPath(const std::string& hostPath, WString& windowsPath) {
  std::string path = hostPath;
  if (!LexicallyAbsolute(path)) path = WorkingDirectory() + "/" + path;
  std::string lexical = NormaliseHostPath(path);
  std::string real = lexical;
  if (char* resolved = ::realpath(lexical.c_str(), nullptr)) {
    real = resolved;
    std::free(resolved);
  }

  auto below = [](const std::string& p, const std::string& root, std::string& rest) {
    if (root == "/") {
      rest = p == "/" ? "" : p.substr(1);
      return true;
    }
    if (p == root) {
      rest.clear();
      return true;
    }
    if (p.size() > root.size() && p.compare(0, root.size(), root) == 0 && p[root.size()] == '/') {
      rest = p.substr(root.size() + 1);
      return true;
    }
    return false;
  };

  std::size_t bestLength = 0;
  bool found = false;
  WChar bestLetter = 0;
  std::string bestRest;
  // Z: comes last, so that a drive mapping the same folder wins over it.
  for (int k = 0; k < 26; ++k) {
    WChar letter = static_cast<WChar>(u'A' + k);
    std::string target = DriveTarget(letter);
    if (target.empty()) continue;
    std::vector<std::string> roots{target};
    if (char* resolved = ::realpath(target.c_str(), nullptr)) {
      if (target != resolved) roots.emplace_back(resolved);
      std::free(resolved);
    }
    for (const std::string& root : roots) {
      for (const std::string& p : {lexical, real}) {
        std::string rest;
        if (!below(p, root, rest)) continue;
        std::size_t length = root == "/" ? 0 : root.size();
        if (!found || length > bestLength) {
          found = true;
          bestLength = length;
          bestLetter = letter;
          bestRest = rest;
        }
      }
    }
  }
  if (!found) return false;
  windowsPath = WString{bestLetter, u':', u'\\'};
  WString rest = Utf8ToWide(bestRest);
  for (WChar& c : rest) {
    if (c == u'/') c = u'\\';
  }
  windowsPath += rest;
  return true;
}

int DepthBelowDriveRoot(const std::string& hostPath) {
  WString windows;
  if (!ToWindowsPath(hostPath, windows)) return -1;
  int depth = 0;
  for (std::size_t i = 3; i < windows.size(); ++i) {
    if (windows[i] == u'\\') ++depth;
  }
  return windows.size() > 3 ? depth + 1 : 0;
}

}  // namespace qv::platform::posix
