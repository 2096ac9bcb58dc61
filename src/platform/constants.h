// Windows constants the tool uses, under names that do not collide with the
// macros of <windows.h>.
#pragma once

#include <cstdint>

namespace qv::platform {

// The buffer, in wide characters, that the tool hands every call giving back
// a path or a value: room for the 32,767 characters of the longest path the
// file calls take, and the terminator.
inline constexpr std::uint32_t kLongPathBuffer = 32768;

// Error codes (winerror.h).
inline constexpr std::uint32_t kErrorSuccess = 0;
inline constexpr std::uint32_t kErrorFileNotFound = 2;
inline constexpr std::uint32_t kErrorPathNotFound = 3;
inline constexpr std::uint32_t kErrorAccessDenied = 5;
inline constexpr std::uint32_t kErrorInvalidHandle = 6;
inline constexpr std::uint32_t kErrorNotEnoughMemory = 8;
inline constexpr std::uint32_t kErrorNotSameDevice = 17;
inline constexpr std::uint32_t kErrorNoMoreFiles = 18;
inline constexpr std::uint32_t kErrorWriteFault = 29;
inline constexpr std::uint32_t kErrorReadFault = 30;
inline constexpr std::uint32_t kErrorSharingViolation = 32;
inline constexpr std::uint32_t kErrorBadNetPath = 53;
inline constexpr std::uint32_t kErrorFileExists = 80;
inline constexpr std::uint32_t kErrorInvalidParameter = 87;
inline constexpr std::uint32_t kErrorDiskFull = 112;
inline constexpr std::uint32_t kErrorInsufficientBuffer = 122;
inline constexpr std::uint32_t kErrorInvalidName = 123;
inline constexpr std::uint32_t kErrorDirNotEmpty = 145;
inline constexpr std::uint32_t kErrorAlreadyExists = 183;
inline constexpr std::uint32_t kErrorFilenameExcedRange = 206;
inline constexpr std::uint32_t kErrorFileTooLarge = 223;
inline constexpr std::uint32_t kErrorMoreData = 234;
inline constexpr std::uint32_t kErrorNoMoreItems = 259;
inline constexpr std::uint32_t kErrorTooManyLinks = 1142;
inline constexpr std::uint32_t kErrorCantResolveFilename = 1921;

// File attributes.
inline constexpr std::uint32_t kInvalidFileAttributes = 0xFFFFFFFFu;
inline constexpr std::uint32_t kFileAttributeReadonly = 0x1;
inline constexpr std::uint32_t kFileAttributeHidden = 0x2;
inline constexpr std::uint32_t kFileAttributeSystem = 0x4;
inline constexpr std::uint32_t kFileAttributeDirectory = 0x10;
inline constexpr std::uint32_t kFileAttributeArchive = 0x20;
inline constexpr std::uint32_t kFileAttributeDevice = 0x40;
inline constexpr std::uint32_t kFileAttributeNormal = 0x80;
inline constexpr std::uint32_t kFileAttributeReparsePoint = 0x400;

// MoveFileExW flags.
inline constexpr std::uint32_t kMoveFileReplaceExisting = 0x1;
inline constexpr std::uint32_t kMoveFileCopyAllowed = 0x2;
inline constexpr std::uint32_t kMoveFileWriteThrough = 0x8;

// CreateFileW.
inline constexpr std::uint32_t kGenericWrite = 0x40000000u;
inline constexpr std::uint32_t kCreateNew = 1;
inline constexpr std::uint32_t kCreateAlways = 2;

// Registry.
inline constexpr std::uint32_t kRegSz = 1;
inline constexpr std::uint32_t kRegExpandSz = 2;
inline constexpr std::uint32_t kRegBinary = 3;
inline constexpr std::uint32_t kKeyQueryValue = 0x0001;
inline constexpr std::uint32_t kKeyRead = 0x20019;
inline constexpr std::uint32_t kKeyWow64_64Key = 0x0100;
inline constexpr std::uint32_t kKeyWow64_32Key = 0x0200;

// Processes and tokens.
inline constexpr std::uint32_t kProcessQueryInformation = 0x0400;
inline constexpr std::uint32_t kProcessQueryLimitedInformation = 0x1000;
inline constexpr std::uint32_t kTokenImpersonate = 0x0004;
inline constexpr std::uint32_t kTokenQuery = 0x0008;

// Waits.
inline constexpr std::uint32_t kWaitObject0 = 0;
inline constexpr std::uint32_t kWaitAbandoned = 0x80;
inline constexpr std::uint32_t kWaitTimeout = 0x102;
inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFFu;

// Folders.
inline constexpr int kCsidlAppData = 26;
inline constexpr int kCsidlLocalAppData = 28;

}  // namespace qv::platform
