// GetPrivateProfileStringW on the Linux host: the shared profile reader over
// the file's bytes, kept while the file on disk stays the same.
#include "platform/profile_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/host_paths.h"

namespace qv::platform {

namespace {

// The whole file and its status as it was opened; false with the Windows
// error code when it cannot be read.
bool ReadWholeFile(const std::string& host, std::string& bytes, struct stat& st, std::uint32_t& error) {
  int fd = posix::OpenForReading(host, error);
  if (fd < 0) return false;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    error = kErrorAccessDenied;
    return false;
  }
  bytes.clear();
  if (st.st_size > 0) bytes.reserve(static_cast<std::size_t>(st.st_size));
  char chunk[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = kErrorReadFault;
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    bytes.append(chunk, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return true;
}

profile::CachedProfile& Cache() {
  static profile::CachedProfile* cache = new profile::CachedProfile;
  return *cache;
}

// The same file, unchanged: a rewrite or a rename onto it (a new inode)
// gives another version.
profile::FileVersion VersionOf(const std::string& host, const struct stat& st) {
  return {host, static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
          static_cast<std::uint64_t>(st.st_size),
          static_cast<std::uint64_t>(st.st_mtim.tv_sec) * 1000000000u + static_cast<std::uint64_t>(st.st_mtim.tv_nsec)};
}

}  // namespace

std::uint32_t GetPrivateProfileStringW(const WString& section, const WString& key, const WString& defaultValue,
                                       WString& value, std::uint32_t size, const WString& path) {
  QV_FAULT_POINT("GetPrivateProfileStringW", return profile::UnreadableProfileDefault(defaultValue, value, size),
                 section, key, path);
  std::uint32_t error = 0;
  profile::CachedProfile& cache = Cache();
  std::string host;
  const bool resolved = posix::ToHostPath(path, host, error);
  struct stat st;
  if (resolved && ::stat(host.c_str(), &st) == 0 && S_ISREG(st.st_mode) && cache.Holds(VersionOf(host, st))) {
    return cache.Answer(section, key, defaultValue, value, size);
  }
  cache.Clear();
  std::string bytes;
  if (host.empty() || !ReadWholeFile(host, bytes, st, error)) {
    SetLastError(error);
    // A missing file reads as an empty one; any other failure gives the
    // default as written, quotes and all.
    if (error != kErrorFileNotFound) return profile::UnreadableProfileDefault(defaultValue, value, size);
    return profile::ReadProfileString(std::string_view(), section, key, defaultValue, value, size);
  }
  cache.Store(VersionOf(host, st), std::move(bytes));
  return cache.Answer(section, key, defaultValue, value, size);
}

bool FlushPrivateProfileCache([[maybe_unused]] const WString& path) {
  QV_FAULT_POINT("WritePrivateProfileStringW", return false, path);
  Cache().Clear();
  // Wine answers this call with FALSE
  // and leaves the last error as it was; so does this one. Callers ignore
  // the result.
  return false;
}

}  // namespace qv::platform
