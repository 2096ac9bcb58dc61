#include "platform/posix/proc_files.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/constants.h"
#include "platform/posix/host.h"

namespace qv::platform::posix {

std::string ProcessFolder(std::uint32_t processId) {
  if (processId == static_cast<std::uint32_t>(::getpid())) return "/proc/self";
  return ProcRoot() + "/" + std::to_string(processId);
}

namespace {

// Reads an open file to its end, or (with `stopAt`) until a read brings that
// byte.
bool ReadOpenFile(int fd, std::string& bytes, int& err, int stopAt) {
  bytes.clear();
  char buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      err = errno;
      return false;
    }
    if (n == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
    if (stopAt >= 0 && std::memchr(buffer, stopAt, static_cast<std::size_t>(n)) != nullptr) break;
  }
  return true;
}

// Opens `relative` below `folder` (the working folder for AT_FDCWD); when
// the descriptors run out and a batch holds some, the batch is closed and
// the open tried once more.
int OpenAt(int folder, const char* relative, DescriptorBatch* batch) {
  int fd = ::openat(folder, relative, O_RDONLY | O_CLOEXEC);
  if (fd < 0 && errno == EMFILE && batch != nullptr && batch->size() != 0) {
    batch->CloseAll();
    fd = ::openat(folder, relative, O_RDONLY | O_CLOEXEC);
  }
  return fd;
}

// Reads `relative` below `folder` as ReadOpenFile does, then closes it or
// hands it to `batch`.
bool ReadFileAt(int folder, const char* relative, std::string& bytes, int& err, int stopAt, DescriptorBatch* batch) {
  bytes.clear();
  const int fd = OpenAt(folder, relative, batch);
  if (fd < 0) {
    err = errno;
    return false;
  }
  const bool read = ReadOpenFile(fd, bytes, err, stopAt);
  if (batch != nullptr) {
    batch->Add(fd);
  } else {
    ::close(fd);
  }
  return read;
}

}  // namespace

void DescriptorBatch::Add(int fd) {
  if (!runs_.empty() && runs_.back().second + 1 == fd) {
    runs_.back().second = fd;
  } else {
    runs_.emplace_back(fd, fd);
  }
  if (++count_ >= kMax) CloseAll();
}

void DescriptorBatch::CloseAll() {
  for (const auto& [first, last] : runs_) {
    if (first == last || ::close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) != 0) {
      // A kernel without close_range: one at a time.
      for (int fd = first; fd <= last; ++fd) ::close(fd);
    }
  }
  runs_.clear();
  count_ = 0;
}

bool ReadWholeFile(const std::string& path, std::string& bytes, int& err) {
  return ReadFileAt(AT_FDCWD, path.c_str(), bytes, err, -1, nullptr);
}

bool ReadWholeFileAt(int folder, const char* relative, std::string& bytes, int& err) {
  return ReadFileAt(folder, relative, bytes, err, -1, nullptr);
}

bool ReadFirstArgumentAt(int folder, const char* relative, std::string& first, int& err, DescriptorBatch* batch) {
  if (!ReadFileAt(folder, relative, first, err, '\0', batch)) return false;
  first.resize(std::strlen(first.c_str()));
  return true;
}

std::string FirstArgument(const std::string& cmdline) { return cmdline.substr(0, cmdline.find('\0')); }

bool IsAbsoluteWindowsPath(std::string_view text) {
  if (text.size() < 3) return false;
  // A program started from a share: \\server\share\...
  if (text[0] == '\\' && text[1] == '\\' && text[2] != '\\' && text[2] != '/') return true;
  char letter = text[0];
  bool isLetter = (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z');
  return isLetter && text[1] == ':' && (text[2] == '\\' || text[2] == '/');
}

namespace {

// A decimal number of at most 32 bits, blanks and line ends around it allowed.
bool ParseUnsigned32(std::string_view text, std::uint32_t& value) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
  std::uint64_t number = 0;
  std::size_t digits = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    number = number * 10 + static_cast<std::uint64_t>(text[i] - '0');
    if (number > 0xFFFFFFFFull) return false;
    ++i;
    ++digits;
  }
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
  if (digits == 0 || i != text.size()) return false;
  value = static_cast<std::uint32_t>(number);
  return true;
}

bool FolderExists(const std::string& folder) {
  struct stat st;
  return ::stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

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

bool ParseRealUid(const std::string& status, std::uint32_t& uid) {
  std::size_t start = 0;
  while (start < status.size()) {
    std::size_t end = status.find('\n', start);
    if (end == std::string::npos) end = status.size();
    std::string_view line(status.data() + start, end - start);
    if (line.substr(0, 4) == "Uid:") {
      // "Uid:\treal\teffective\tsaved\tfilesystem"
      std::string_view rest = line.substr(4);
      std::size_t first = rest.find_first_not_of(" \t");
      if (first == std::string_view::npos) return false;
      rest = rest.substr(first);
      return ParseUnsigned32(rest.substr(0, rest.find_first_of(" \t")), uid);
    }
    start = end + 1;
  }
  return false;
}

bool LoadOpenedProcess(std::uint32_t processId, OpenedProcess& process, std::uint32_t& error) {
  std::string folder = ProcessFolder(processId);
  if (processId == 0 || !FolderExists(folder)) {
    error = kErrorInvalidParameter;
    return false;
  }
  std::string cmdline;
  std::string status;
  int err = 0;
  if (!ReadWholeFile(folder + "/cmdline", cmdline, err) || !ReadWholeFile(folder + "/status", status, err)) {
    // The entry may have gone between the two looks: that is a process that
    // no longer exists, as Windows reports it.
    error = FolderExists(folder) ? kErrorAccessDenied : kErrorInvalidParameter;
    return false;
  }
  process.processId = processId;
  process.firstArgument = FirstArgument(cmdline);
  if (!ParseRealUid(status, process.uid)) {
    error = kErrorAccessDenied;
    return false;
  }
  char target[PATH_MAX];
  ssize_t n = ::readlink((folder + "/exe").c_str(), target, sizeof target - 1);
  if (n < 0) {
    process.exeTarget.clear();
    process.exeError = errno;
  } else {
    process.exeTarget.assign(target, static_cast<std::size_t>(n));
    process.exeError = 0;
  }
  return true;
}

bool LiveProcessStartTime(int pid, std::uint64_t& startTime) {
  std::string stat;
  int err = 0;
  if (pid <= 0 || !ReadWholeFile("/proc/" + std::to_string(pid) + "/stat", stat, err)) return false;
  // "pid (comm) state ppid ...": comm may hold blanks and parentheses, so the
  // fields are counted from the last ')'.
  std::size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  std::string_view rest(stat.data() + close + 2, stat.size() - close - 2);
  // rest begins with field 3 (state); the start time is field 22.
  int field = 3;
  std::size_t pos = 0;
  while (field < 22) {
    if (field == 3 && (rest[pos] == 'Z' || rest[pos] == 'X' || rest[pos] == 'x')) return false;
    pos = rest.find(' ', pos);
    if (pos == std::string_view::npos) return false;
    ++pos;
    ++field;
  }
  std::string_view value = rest.substr(pos, rest.find(' ', pos) - pos);
  if (value.empty()) return false;
  std::uint64_t number = 0;
  for (char c : value) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + static_cast<std::uint64_t>(c - '0');
  }
  startTime = number;
  return true;
}

}  // namespace qv::platform::posix
