// Last error, error texts and the Windows codes of errno values on the Linux
// host.
#include <cerrno>

#include "platform/platform.h"
#include "platform/posix/errors.h"

namespace qv::platform {

static thread_local std::uint32_t lastError = 0;

std::uint32_t GetLastError() { return lastError; }
void SetLastError(std::uint32_t code) { lastError = code; }

// The texts that the Windows build prints under Wine (FormatMessageW, without
// the trailing line end), so that both builds print the same lines.
std::string SystemErrorText(std::uint32_t code) {
  switch (code) {
    case 0: return "Success.";
    case 1: return "Invalid function.";
    case 2: return "File not found.";
    case 3: return "Path not found.";
    case 4: return "Too many open files.";
    case 5: return "Access denied.";
    case 6: return "Invalid handle.";
    case 8: return "Not enough memory.";
    case 13: return "Invalid data.";
    case 17: return "Not same device.";
    case 18: return "No more files.";
    case 19: return "Write protected.";
    case 21: return "Drive not ready.";
    case 29: return "Write fault.";
    case 30: return "Read fault.";
    case 31: return "General failure.";
    case 32: return "Sharing violation.";
    case 33: return "Lock violation.";
    case 38: return "End of file.";
    case 50: return "Request not supported.";
    case 53: return "Bad network path.";
    case 80: return "File exists.";
    case 87: return "Invalid parameter.";
    case 112: return "Disk full.";
    case 122: return "Buffer too small.";
    case 123: return "Invalid name.";
    case 145: return "Directory is not empty.";
    case 183: return "File already exists.";
    case 206: return "The file name or extension is too long.";
    case 234: return "More data is available.";
    case 259: return "No more items.";
    case 267: return "Invalid directory name.";
    case 1142: return "Too many links.";
    case 1921: return "The name of the file cannot be resolved by the system.";
    default: return "Unknown error " + std::to_string(code) + ".";
  }
}

std::string NarrowPathText(const WString& path) { return WideToUtf8(path); }

namespace posix {

std::uint32_t ErrnoToWinError(int err) {
  switch (err) {
    case 0: return kErrorSuccess;
    case ENOENT: return kErrorFileNotFound;
    case ENOTDIR: return kErrorPathNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
    case EBUSY:
    case EISDIR: return kErrorAccessDenied;
    case EEXIST: return kErrorAlreadyExists;
    case ENOTEMPTY: return kErrorDirNotEmpty;
    case ENOSPC:
    case EDQUOT: return kErrorDiskFull;
    case EXDEV: return kErrorNotSameDevice;
    case ENAMETOOLONG: return kErrorFilenameExcedRange;
    case ELOOP: return kErrorCantResolveFilename;
    case EMLINK: return kErrorTooManyLinks;
    case ENOMEM: return kErrorNotEnoughMemory;
    case EBADF: return kErrorInvalidHandle;
    case EINVAL: return kErrorInvalidParameter;
    case EIO: return kErrorWriteFault;
    case ETXTBSY: return kErrorSharingViolation;
    default: return kErrorAccessDenied;
  }
}

}  // namespace posix
}  // namespace qv::platform
