// The platform seam: one plain function for each operating-system call the
// tool makes, named after the Win32 call it stands for.
//
// Exactly one backend is linked into a binary: win32/ makes the real calls,
// posix/ answers them from a Wine prefix and the Linux kernel. Every function
// can fail where its Win32 counterpart can, and a failure leaves a Windows
// error code for GetLastError() in both builds. Nothing here names a POSIX or
// Windows type, so the code above the seam compiles for either.
//
// Every function starts with a fault point (fault_injection.h): test builds
// can make any call fail with a chosen code, or end the process at its start.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/wstring.h"

namespace qv::platform {

// Opaque handle: a process, token, file, search, snapshot or mutex.
using Handle = std::uintptr_t;
inline constexpr Handle kNullHandle = 0;
inline constexpr Handle kInvalidHandle = ~static_cast<Handle>(0);

// Registry key: an open key, or one of the predefined roots below.
using RegKey = std::uintptr_t;
inline constexpr RegKey kHkeyCurrentUser = 0x80000001u;
inline constexpr RegKey kHkeyLocalMachine = 0x80000002u;

// ---------------------------------------------------------------- errors --

std::uint32_t GetLastError();
void SetLastError(std::uint32_t code);

// The system's message for an error code, without a trailing line end
// ("Access denied.").
std::string SystemErrorText(std::uint32_t code);

// A path in the narrow code page that the platform's file functions use,
// unconvertible characters replaced.
std::string NarrowPathText(const WString& path);

// ----------------------------------------------------------------- files --

// Attributes of the entry itself; a link is not followed and carries
// kFileAttributeReparsePoint. kInvalidFileAttributes on failure.
std::uint32_t GetFileAttributesW(const WString& path);

enum class NodeType { RegularFile, Directory, Other };

// Status of a path with links followed (GetFileAttributesExW, and on a
// reparse point the target's information). False and a last error on failure.
bool GetFileAttributesExW(const WString& path, NodeType& type);

// Sets the read-only, hidden, system and archive bits of a file or folder
// (kFileAttributeNormal for none of them).
bool SetFileAttributesW(const WString& path, std::uint32_t attributes);

bool CreateDirectoryW(const WString& path);
bool MoveFileExW(const WString& from, const WString& to, std::uint32_t flags);
bool CopyFileW(const WString& from, const WString& to, bool failIfExists);
bool DeleteFileW(const WString& path);

// Creates a file to write it whole: CREATE_NEW or CREATE_ALWAYS, the only
// dispositions the tool asks for. kInvalidHandle on failure.
Handle CreateFileW(const WString& path, std::uint32_t desiredAccess, std::uint32_t shareMode,
                   std::uint32_t creationDisposition, std::uint32_t flagsAndAttributes);
bool WriteFile(Handle file, const void* data, std::uint32_t size, std::uint32_t& written);
bool FlushFileBuffers(Handle file);

// Closes any handle of this seam but searches (FindClose) and registry keys.
bool CloseHandle(Handle handle);

struct FindData {
  std::uint32_t attributes = 0;
  WString fileName;
};

// Searches a folder. The pattern is a folder joined with "*"; the entries
// "." and ".." come first, as on Windows. kInvalidHandle on failure.
Handle FindFirstFileW(const WString& pattern, FindData& data);
// False at the end (kErrorNoMoreFiles) or on failure.
bool FindNextFileW(Handle search, FindData& data);
bool FindClose(Handle search);

// Full path of a name, as GetFullPathNameW: the length without the
// terminator when it fits in bufferLength, the size needed (terminator
// included) when it does not, 0 on failure. result holds the path only when
// it fitted.
std::uint32_t GetFullPathNameW(const WString& fileName, std::uint32_t bufferLength, WString& result);

// Path of the running executable; returns its length, as GetModuleFileNameW
// into a buffer of `capacity` characters (cut to capacity - 1 when longer).
std::uint32_t GetModuleFileNameW(WString& path, std::uint32_t capacity);

// -------------------------------------------------------------- registry --
// Results are Windows error codes (0 is success).

std::int32_t RegOpenKeyExW(RegKey root, const WString& subKey, std::uint32_t options,
                           std::uint32_t samDesired, RegKey& result);
// Name of the subkey at `index`. kErrorMoreData when the name needs more than
// nameCapacity characters (terminator included); kErrorNoMoreItems past the end.
std::int32_t RegEnumKeyExW(RegKey key, std::uint32_t index, WString& name, std::uint32_t nameCapacity);
// As RegQueryValueExW: `size` is the buffer's size in bytes on entry and the
// value's size on return. With data null only the size is reported. A value
// larger than the buffer gives kErrorMoreData.
std::int32_t RegQueryValueExW(RegKey key, const WString& valueName, std::uint32_t& type,
                              std::uint8_t* data, std::uint32_t& size);
std::int32_t RegCloseKey(RegKey key);

// ----------------------------------------------------------- environment --

// Expands %NAME% references. Returns the size needed in characters,
// terminator included, or 0 on failure; `destination` holds the expansion
// only when that size is at most `capacity`.
std::uint32_t ExpandEnvironmentStringsW(const WString& source, WString& destination, std::uint32_t capacity);

// ------------------------------------------------------------- processes --

struct ProcessEntry {
  std::uint32_t processId = 0;
  WString exeFile;  // szExeFile: the bare file name
};

// CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0). kInvalidHandle on failure.
Handle CreateToolhelp32Snapshot();
bool Process32FirstW(Handle snapshot, ProcessEntry& entry);
bool Process32NextW(Handle snapshot, ProcessEntry& entry);

std::uint32_t GetCurrentProcessId();
// A pseudo-handle for the own process; needs no CloseHandle.
Handle GetCurrentProcess();
bool ProcessIdToSessionId(std::uint32_t processId, std::uint32_t& sessionId);
// kNullHandle on failure.
Handle OpenProcess(std::uint32_t desiredAccess, std::uint32_t processId);

// GetModuleHandleW("kernel32.dll") and GetProcAddress of
// "QueryFullProcessImageNameW": whether the call is available.
bool LookUpQueryFullProcessImageNameW();
// Win32 form of a process's image path into a buffer of `capacity` characters.
bool QueryFullProcessImageNameW(Handle process, WString& path, std::uint32_t capacity);

// -------------------------------------------------------------- accounts --

using Sid = std::vector<std::uint8_t>;

bool OpenProcessToken(Handle process, std::uint32_t desiredAccess, Handle& token);
// GetTokenInformation(TokenUser) without a buffer: the size it asks for.
// Returns that size (0 when the call gave none).
std::uint32_t GetTokenUserSize(Handle token);
// GetTokenInformation(TokenUser) into a buffer of `size` bytes: the user's SID.
bool GetTokenUser(Handle token, std::uint32_t size, Sid& sid);
bool EqualSid(const Sid& a, const Sid& b);
// ConvertSidToStringSidW, reached through LoadLibraryW("advapi32.dll") and
// GetProcAddress; false when the function or the conversion fails.
bool ConvertSidToStringSidW(const Sid& sid, WString& text);

// SHGetFolderPathW(NULL, csidl, token, SHGFP_TYPE_CURRENT, path[260]).
// token is kNullHandle for the caller's own account. An HRESULT: 0 or more
// is success.
std::int32_t SHGetFolderPathW(int csidl, Handle token, WString& path);

// ----------------------------------------------------------------- mutex --

// Creates or opens a named mutex without taking it. kNullHandle on failure.
Handle CreateMutexW(const WString& name);
// kWaitObject0, kWaitAbandoned, kWaitTimeout or kWaitFailed.
std::uint32_t WaitForSingleObject(Handle handle, std::uint32_t milliseconds);
bool ReleaseMutex(Handle mutex);

// --------------------------------------------------------------- version --

struct FixedFileInfo {
  std::uint32_t signature = 0;
  std::uint32_t fileVersionMS = 0;
  std::uint32_t fileVersionLS = 0;
};

// GetFileVersionInfoSizeW's answer for the largest version resource there can
// be: its length field has 16 bits, and the call asks for twice the resource
// and four bytes. Both backends answer a larger one as no version resource
// (1812), so no caller makes a buffer of a size that the file chose.
inline constexpr std::uint32_t kLargestVersionInfo = 2 * 0xFFFF + 4;

// Size of the buffer GetFileVersionInfoW needs for the file's version
// resource, 0 when it has none.
std::uint32_t GetFileVersionInfoSizeW(const WString& path);
bool GetFileVersionInfoW(const WString& path, std::uint32_t size, std::vector<std::uint8_t>& data);
// VerQueryValueW(data, "\\"): the root VS_FIXEDFILEINFO.
bool VerQueryValueRootW(const std::vector<std::uint8_t>& data, FixedFileInfo& info);

// --------------------------------------------------------------- profile --

// GetPrivateProfileStringW into a buffer of `size` characters: the number of
// characters placed in `value`, without the terminator; a value that does not
// fit is cut to size - 1.
std::uint32_t GetPrivateProfileStringW(const WString& section, const WString& key,
                                       const WString& defaultValue, WString& value,
                                       std::uint32_t size, const WString& path);
// WritePrivateProfileStringW(NULL, NULL, NULL, path): flushes the system's
// cached copy of the profile file.
bool FlushPrivateProfileCache(const WString& path);

// --------------------------------------------------------------- console --

void WriteStdout(const WString& text);
void WriteStderr(const WString& text);
void WriteStderrNarrow(const std::string& text);

// The command line as wide strings, argument 0 the program. On the Linux host
// an option value that is an absolute host path is given in its Windows form.
std::vector<WString> CommandLineArguments(int argc, char** argv);

// Ends the process at once, with no clean-up (fault injection's "crash").
[[noreturn]] void TerminateNow();

// ----------------------------------------------------------------- clock --

std::uint64_t GetTickCount64();

// RAII for the handles above.
class ScopedHandle {
 public:
  explicit ScopedHandle(Handle h = kNullHandle) : handle_(h) {}
  ~ScopedHandle() { Reset(); }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  Handle get() const { return handle_; }
  bool valid() const { return handle_ != kNullHandle && handle_ != kInvalidHandle; }
  void Reset() {
    if (valid()) CloseHandle(handle_);
    handle_ = kNullHandle;
  }

 private:
  Handle handle_;
};

class ScopedRegKey {
 public:
  explicit ScopedRegKey(RegKey k = 0) : key_(k) {}
  ~ScopedRegKey() {
    if (key_ != 0) RegCloseKey(key_);
  }
  ScopedRegKey(const ScopedRegKey&) = delete;
  ScopedRegKey& operator=(const ScopedRegKey&) = delete;
  RegKey get() const { return key_; }
  RegKey* out() { return &key_; }

 private:
  RegKey key_;
};

}  // namespace qv::platform
