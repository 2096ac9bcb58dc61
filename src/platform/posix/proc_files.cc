#include "platform/posix/proc_files.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/constants.h"
#include "platform/posix/host_roots.h"

namespace qv::platform::posix {
namespace {

// A decimal number of at most 32 bits, blanks and line ends around it allowed.
bool ParseUnsigned32(std::string_view text, std::uint32_t& value) {
  const std::size_t first = text.find_first_not_of(" \t");
  const std::size_t end = text.find_last_not_of(" \t\n");
  if (first == std::string_view::npos || end == std::string_view::npos) return false;
  std::uint64_t number = 0;
  for (char c : text.substr(first, end + 1 - first)) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
    if (number > 0xFFFFFFFFull) return false;
  }
  value = static_cast<std::uint32_t>(number);
  return true;
}

// The real uid of the "Uid:\treal\teffective\tsaved\tfilesystem" line of a
// status file.
bool ParseRealUid(const std::string& status, std::uint32_t& uid) {
  const std::size_t line = status.starts_with("Uid:") ? 0 : status.find("\nUid:");
  if (line == std::string::npos) return false;
  const std::size_t start = status.find_first_not_of(" \t", status.find(':', line) + 1);
  if (start == std::string::npos) return false;
  return ParseUnsigned32(std::string_view(status).substr(start, status.find_first_of(" \t\n", start) - start), uid);
}

bool FolderExists(const std::string& folder) {
  struct stat st;
  return ::stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

std::string ProcessFolder(std::uint32_t processId) {
  if (processId == static_cast<std::uint32_t>(::getpid())) return "/proc/self";
  return ProcRoot() + "/" + std::to_string(processId);
}

bool ReadWholeFile(const std::string& path, std::string& bytes, int& err) {
  bytes.clear();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    err = errno;
    return false;
  }
  char buffer[4096];
  ssize_t n = 0;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) bytes.append(buffer, static_cast<std::size_t>(n));
  }
  err = errno;
  ::close(fd);
  return n == 0;
}

bool IsAbsoluteWindowsPath(std::string_view text) {
  if (text.size() < 3) return false;
  if (text[0] == '\\' && text[1] == '\\') return text[2] != '\\' && text[2] != '/';
  const char letter = text[0];
  const bool isLetter = (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z');
  return isLetter && text[1] == ':' && (text[2] == '\\' || text[2] == '/');
}

bool ReadSessionId(const std::string& folder, std::uint32_t& session, std::uint32_t& error) {
  std::string text;
  int err = 0;
  if (!ReadWholeFile(folder + "/sessionid", text, err)) {
    if (err == ENOENT && FolderExists(folder)) {
      // A kernel without audit sessions: every process is in session 0.
      session = 0;
      return true;
    }
    error = err == ENOENT || err == ENOTDIR ? kErrorInvalidParameter : kErrorAccessDenied;
    return false;
  }
  if (!ParseUnsigned32(text, session)) {
    error = kErrorAccessDenied;
    return false;
  }
  return true;
}

bool LoadOpenedProcess(std::uint32_t processId, OpenedProcess& process, std::uint32_t& error) {
  const std::string folder = ProcessFolder(processId);
  if (processId == 0 || !FolderExists(folder)) {
    error = kErrorInvalidParameter;
    return false;
  }
  std::string cmdline;
  std::string status;
  int err = 0;
  if (!ReadWholeFile(folder + "/cmdline", cmdline, err) || !ReadWholeFile(folder + "/status", status, err) ||
      !ParseRealUid(status, process.uid)) {
    // The entry may have gone between the looks: a process that no longer
    // exists, as Windows reports it.
    error = FolderExists(folder) ? kErrorAccessDenied : kErrorInvalidParameter;
    return false;
  }
  process.firstArgument = cmdline.substr(0, cmdline.find('\0'));
  char target[PATH_MAX];
  const ssize_t n = ::readlink((folder + "/exe").c_str(), target, sizeof target);
  process.exeError = n < 0 ? errno : 0;
  process.exeTarget.assign(target, n < 0 ? 0 : static_cast<std::size_t>(n));
  return true;
}

}  // namespace qv::platform::posix
