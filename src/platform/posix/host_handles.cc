#include "platform/posix/host_handles.h"

#include <map>

namespace qv::platform::posix {
namespace {

struct Entry {
  HandleKind kind;
  std::shared_ptr<void> object;
};

std::map<Handle, Entry> table;
Handle nextHandle = 0x100;

}  // namespace

Handle RegisterHandle(HandleKind kind, std::shared_ptr<void> object) {
  nextHandle += 4;
  table.emplace(nextHandle, Entry{kind, std::move(object)});
  return nextHandle;
}

void* LookUpHandleObject(Handle handle, HandleKind kind) {
  auto it = table.find(handle);
  if (it == table.end() || it->second.kind != kind) return nullptr;
  return it->second.object.get();
}

bool ReleaseHandle(Handle handle) {
  auto it = table.find(handle);
  if (it == table.end()) return false;
  // Destroyed outside the table, in case the object's clean-up looks at it.
  std::shared_ptr<void> object = std::move(it->second.object);
  table.erase(it);
  return true;
}

bool ReleaseHandleOfKind(Handle handle, HandleKind kind) {
  return LookUpHandleObject(handle, kind) != nullptr && ReleaseHandle(handle);
}

}  // namespace qv::platform::posix
