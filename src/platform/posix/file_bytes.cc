#include "platform/posix/file_bytes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"

namespace qv::platform::posix {

bool ReadFileBytes(const std::string& hostPath, std::string& bytes, std::uint32_t& error) {
  const int fd = OpenForReading(hostPath, error);
  if (fd < 0) return false;
  struct stat st {};
  error = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? 0 : kErrorAccessDenied;
  bytes.clear();
  char chunk[1 << 16];
  while (error == 0) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n == 0) break;
    if (n > 0) bytes.append(chunk, static_cast<std::size_t>(n));
    if (n < 0 && errno != EINTR) error = kErrorReadFault;
  }
  ::close(fd);
  return error == 0;
}

}  // namespace qv::platform::posix
