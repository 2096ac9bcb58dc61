#include "platform/posix/host_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/errors.h"
#include "platform/posix/host_roots.h"
#include "platform/posix/host_case.h"

namespace qv::platform::posix {
namespace {

// The non-empty elements of a Windows path, with "." and ".." resolved.
std::vector<WString> Elements(const WString& path) {
  std::vector<WString> kept;
  for (std::size_t i = 0; i <= path.size();) {
    const std::size_t end = std::min(path.find(u'\\', i), path.size());
    const WString element = path.substr(i, end - i);
    if (element == u"..") {
      if (!kept.empty()) kept.pop_back();
    } else if (!element.empty() && element != u".") {
      kept.push_back(element);
    }
    i = end + 1;
  }
  return kept;
}

// An absolute host path with "//", "." and ".." collapsed, without touching
// the disk.
std::string NormalisedHostPath(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

std::string WorkingDirectory() {
  std::error_code error;
  const std::filesystem::path cwd = std::filesystem::current_path(error);
  return error ? "/" : cwd.string();
}

// The host folder a drive letter maps to, or empty when the prefix does not
// map it. Z: is "/" unless the prefix maps it elsewhere.
std::string DriveTarget(WChar letter) {
  if (!IsAsciiLetter(letter)) return "";
  const std::string devices = PrefixDirectory() + "/dosdevices";
  const char lower = static_cast<char>(AsciiLower(letter));
  const std::string entry = devices + "/" + lower + ":";
  const std::string unmapped = lower == 'z' ? "/" : "";
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::symlink_status(entry, error);
  if (!std::filesystem::exists(status)) return unmapped;
  if (std::filesystem::is_directory(status)) return entry;
  const std::string link = std::filesystem::read_symlink(entry, error).string();
  if (link.empty()) return "";
  return NormalisedHostPath(link[0] == '/' ? link : devices + "/" + link);
}

WString CurrentDirectory() {
  WString windows;
  return ToWindowsPath(WorkingDirectory(), windows) ? windows : u"Z:\\";
}

bool IsValidComponent(const WString& component) {
  for (WChar c : component) {
    if (c < 0x20 || c == u'<' || c == u'>' || c == u':' || c == u'"' || c == u'|' || c == u'?' || c == u'*') {
      return false;
    }
  }
  return true;
}

// The entry of a host folder named like `name` without regard to case.
bool FindIgnoringCase(const std::string& folder, const WString& name, std::string& found) {
  std::error_code error;
  for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    found = it->path().filename().string();
    if (SameNameIgnoringCase(Utf8ToWide(found), name)) return true;
  }
  return false;
}

// Whether `path` is `root` or lies below it; `rest` is what follows.
bool Below(const std::string& path, const std::string& root, std::string& rest) {
  if (root == "/") {
    rest = path.substr(1);
    return true;
  }
  if (path.compare(0, root.size(), root) != 0 || (path.size() > root.size() && path[root.size()] != '/')) {
    return false;
  }
  rest = path.size() > root.size() ? path.substr(root.size() + 1) : "";
  return true;
}

std::string RealPath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(path, error);
  return error ? path : real.string();
}

}  // namespace

bool FullPathName(const WString& name, WString& full, std::uint32_t& error) {
  if (name.empty()) {
    error = kErrorInvalidName;
    return false;
  }
  WString path = name;
  for (WChar& c : path) {
    if (c == u'/') c = u'\\';
  }
  // A root as GetFullPathNameW reads one (a device prefix, a server and
  // share, any character and a colon), and the rest resolved element by
  // element below it.
  WString root;
  WString rest;
  if (path.starts_with(u"\\\\?\\") || path.starts_with(u"\\\\.\\")) {
    root = path.substr(0, 4);
    rest = path.substr(4);
  } else if (path.starts_with(u"\\\\")) {
    // \\server\share keeps its root.
    const std::size_t server = path.find(u'\\', 2);
    const std::size_t share = server == WString::npos ? WString::npos : path.find(u'\\', server + 1);
    root = path.substr(0, share) + u"\\";
    rest = share == WString::npos ? WString() : path.substr(share + 1);
  } else if (path.size() >= 3 && path[1] == u':' && path[2] == u'\\') {
    // Any character before the colon makes a drive, as Windows reads it,
    // and keeps the case it was given.
    root = path.substr(0, 3);
    rest = path.substr(3);
  } else {
    // Relative to the current directory; "X:rest" to the root of another
    // drive, "\rest" to the current drive's root.
    const WString cwd = CurrentDirectory();
    const bool driveRelative = path.size() >= 2 && path[1] == u':';
    if (driveRelative && AsciiLower(cwd[0]) != AsciiLower(path[0])) {
      root = WString{path[0], u':', u'\\'};
      rest = path.substr(2);
    } else {
      root = cwd.substr(0, 3);
      rest = driveRelative ? cwd.substr(3) + u"\\" + path.substr(2)
             : path[0] == u'\\' ? path.substr(1)
                                : cwd.substr(3) + u"\\" + path;
    }
  }
  const bool trailingSeparator = !rest.empty() && rest.back() == u'\\';
  std::vector<WString> parts = Elements(rest);
  if (!parts.empty() && !trailingSeparator) {
    // Windows drops trailing dots and blanks of the last element.
    WString& last = parts.back();
    while (!last.empty() && (last.back() == u'.' || last.back() == u' ')) last.pop_back();
    if (last.empty()) parts.pop_back();
  }
  full = root;
  for (std::size_t k = 0; k < parts.size(); ++k) full += (k > 0 ? u"\\" : u"") + parts[k];
  if (trailingSeparator && !parts.empty()) full += u'\\';
  return true;
}

bool ToHostPath(const WString& windowsPath, std::string& hostPath, std::uint32_t& error, std::size_t* depth) {
  WString full;
  if (!FullPathName(windowsPath, full, error)) return false;
  if (full.size() < 3 || full[1] != u':' || !IsAsciiLetter(full[0])) {
    error = kErrorBadNetPath;
    return false;
  }
  std::string path = DriveTarget(full[0]);
  if (path.empty()) {
    error = kErrorPathNotFound;
    return false;
  }
  const std::vector<WString> components = Elements(full.substr(3));
  // Once a component is missing, nothing below it can exist.
  bool present = true;
  for (const WString& component : components) {
    if (!IsValidComponent(component)) {
      error = kErrorInvalidName;
      return false;
    }
    const std::string folder = path == "/" ? "" : path;
    path = folder + "/" + WideToUtf8(component);
    struct stat st;
    if (!present || ::lstat(path.c_str(), &st) == 0) continue;
    std::string found;
    present = FindIgnoringCase(folder.empty() ? "/" : folder, component, found);
    if (present) path = folder + "/" + found;
  }
  if (depth != nullptr) *depth = components.size();
  hostPath = path;
  return true;
}

bool ToWindowsPath(const std::string& hostPath, WString& windowsPath) {
  const bool absolute = !hostPath.empty() && hostPath[0] == '/';
  const std::string lexical = NormalisedHostPath(absolute ? hostPath : WorkingDirectory() + "/" + hostPath);
  const std::string real = RealPath(lexical);
  // The drive whose target is the longest prefix of either form; Z: comes
  // last, so that a drive mapping the same folder wins over it.
  WChar drive = 0;
  std::size_t bestLength = 0;
  std::string bestRest;
  for (WChar letter = u'A'; letter <= u'Z'; ++letter) {
    const std::string target = DriveTarget(letter);
    if (target.empty()) continue;
    for (const std::string& root : {target, RealPath(target)}) {
      for (const std::string& path : {lexical, real}) {
        std::string rest;
        const std::size_t length = root == "/" ? 0 : root.size();
        if (!Below(path, root, rest) || (drive != 0 && length <= bestLength)) continue;
        drive = letter;
        bestLength = length;
        bestRest = rest;
      }
    }
  }
  if (drive == 0) return false;
  windowsPath = WString{drive, u':', u'\\'} + Utf8ToWide(bestRest);
  std::replace(windowsPath.begin(), windowsPath.end(), u'/', u'\\');
  return true;
}

std::uint32_t CodeForPath(int err, const std::string& hostPath) {
  if (err != ENOENT) return ErrnoToWinError(err);
  const std::size_t slash = hostPath.find_last_of('/');
  const std::string folder = slash == std::string::npos || slash == 0 ? "/" : hostPath.substr(0, slash);
  struct stat st;
  return ::stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? kErrorFileNotFound : kErrorPathNotFound;
}

bool ReadFileBytes(const std::string& hostPath, std::string& bytes, std::uint32_t& error, std::uint64_t limit) {
  const int fd = ::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = CodeForPath(errno, hostPath);
    return false;
  }
  struct stat st {};
  error = ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)     ? kErrorAccessDenied
          : static_cast<std::uint64_t>(st.st_size) > limit ? kErrorFileTooLarge
                                                            : 0;
  bytes.clear();
  char chunk[1 << 16];
  // The kernel's own files report size 0: read to the end, or past the
  // limit of a file that grows meanwhile.
  while (error == 0) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n == 0) break;
    if (n > 0) bytes.append(chunk, static_cast<std::size_t>(n));
    if (n < 0 && errno != EINTR) error = kErrorReadFault;
    if (bytes.size() > limit) error = kErrorFileTooLarge;
  }
  ::close(fd);
  return error == 0;
}

}  // namespace qv::platform::posix
