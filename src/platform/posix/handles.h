// The handle table of the posix backend: every Handle the seam gives out
// names an object here, and CloseHandle (or FindClose) frees it.
#pragma once

#include <memory>

#include "platform/platform.h"

namespace qv::platform::posix {

enum class HandleKind { File, Search, Snapshot, Process, Token, Mutex, RegistryKey };

// Stores the object and gives a new handle for it. The object is destroyed
// (closing whatever it holds) when the handle is released.
Handle RegisterHandle(HandleKind kind, std::shared_ptr<void> object);

// The object behind a handle of that kind, or null.
template <typename T>
T* LookUpHandle(Handle handle, HandleKind kind);

void* LookUpHandleObject(Handle handle, HandleKind kind);

template <typename T>
T* LookUpHandle(Handle handle, HandleKind kind) {
  return static_cast<T*>(LookUpHandleObject(handle, kind));
}

// Releases a handle of any kind; false for an unknown handle.
bool ReleaseHandle(Handle handle);
// Releases a handle only if it is of that kind.
bool ReleaseHandleOfKind(Handle handle, HandleKind kind);

}  // namespace qv::platform::posix
