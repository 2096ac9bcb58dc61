// The handle table of the Linux host: every Handle the seam gives out names
// an object here, and CloseHandle (or FindClose, RegCloseKey) frees it.
#pragma once

#include <memory>

#include "platform/platform.h"

namespace qv::platform::posix {

enum class HandleKind { File, Search, Snapshot, Process, Token, Mutex, RegistryKey };

// GetCurrentProcess's pseudo-handle: (HANDLE)-1, as on Windows. It is in no
// table and needs no closing.
inline constexpr Handle kCurrentProcessHandle = kInvalidHandle;

// Stores the object and gives a new handle for it. The object is destroyed
// (closing whatever it holds) when the handle is released.
Handle RegisterHandle(HandleKind kind, std::shared_ptr<void> object);

// The object behind a handle of that kind, or null.
void* LookUpHandleObject(Handle handle, HandleKind kind);
template <typename T>
T* LookUpHandle(Handle handle, HandleKind kind) {
  return static_cast<T*>(LookUpHandleObject(handle, kind));
}

// Releases a handle (of any kind, or only of `kind`); false for an unknown
// handle.
bool ReleaseHandle(Handle handle);
bool ReleaseHandleOfKind(Handle handle, HandleKind kind);

}  // namespace qv::platform::posix
