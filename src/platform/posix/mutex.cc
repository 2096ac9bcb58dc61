// Named mutexes: a robust, process-shared pthread mutex in POSIX shared
// memory.
//
// The shared object's name carries the uid, the Windows session (unless the
// name is "Global\...") and a hash of the mutex name, so a "Local\" mutex is
// one per account and session, as on Windows.
//
// A Windows named mutex lives only while some process holds a handle to it.
// The segment therefore keeps a table of the processes that hold a handle (pid
// and start time, so a reused pid is not taken for its predecessor). Each
// open takes the segment's file lock, drops the holders that have ended, and
// when none is left makes the mutex anew: a run started after its holder died
// finds a free mutex, while a run that was already waiting when the holder
// died gets WAIT_ABANDONED from the robust mutex. The last handle closed
// removes the shared object.
//
// Ownership belongs to the process (the tool has one thread). A process that
// owns the mutex stays in the holder table even when it has closed its
// handles, as a Windows thread keeps owning a mutex after CloseHandle, so the
// mutex is not made anew under it; its end then abandons the mutex.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/handles.h"
#include "platform/posix/host.h"
#include "platform/posix/proc_files.h"

namespace qv::platform {
namespace {

constexpr std::uint32_t kErrorNotOwner = 288;
constexpr std::uint32_t kInfinite = 0xFFFFFFFFu;

constexpr std::uint32_t kSegmentMagic = 0x584D5651;  // "QVMX"
constexpr std::size_t kMaxHolders = 250;

struct Holder {
  std::int32_t pid;
  std::uint32_t reserved;
  std::uint64_t startTime;
};

struct Segment {
  std::uint32_t magic;
  std::uint32_t layoutSize;  // sizeof(Segment) of the writer
  std::uint32_t holderCount;
  std::uint32_t reserved;
  pthread_mutex_t mutex;
  Holder holders[kMaxHolders];
};

// One mapping of a segment per process, shared by its handles.
struct Mapping {
  std::string shmName;
  pid_t pid = 0;  // the process that mapped it; a forked child maps its own
  int fd = -1;
  Segment* segment = nullptr;
  std::uint32_t handles = 0;
  std::uint32_t ownership = 0;  // nested waits that this process owns
};

void ReleaseMappingIfUnused(Mapping* mapping);

// The object behind one handle; closing the handle destroys it.
struct MutexHandle {
  explicit MutexHandle(Mapping* m) : mapping(m) {}
  ~MutexHandle() {
    --mapping->handles;
    ReleaseMappingIfUnused(mapping);
  }
  MutexHandle(const MutexHandle&) = delete;
  MutexHandle& operator=(const MutexHandle&) = delete;
  Mapping* mapping;
};

std::mutex mappingsLock;
std::map<std::string, Mapping*>& Mappings() {
  static auto* mappings = new std::map<std::string, Mapping*>;
  return *mappings;
}

// FNV-1a over the name's UTF-16 code units.
std::uint64_t NameHash(const WString& name) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (char16_t unit : name) {
    for (int shift = 0; shift < 16; shift += 8) {
      hash ^= static_cast<std::uint8_t>(unit >> shift);
      hash *= 0x100000001b3ull;
    }
  }
  return hash;
}

bool SharedObjectName(const WString& name, std::string& shmName) {
  std::string scope = "global";
  if (name.rfind(u"Global\\", 0) != 0) {
    std::uint32_t session = 0;
    std::uint32_t error = 0;
    if (!posix::ReadSessionId("/proc/self", session, error)) {
      SetLastError(error);
      return false;
    }
    scope = std::to_string(session);
  }
  // Wine keeps named objects in the server of one prefix, so runs against
  // different prefixes never meet: the prefix is part of the object's name.
  const WString scoped = Utf8ToWide(posix::PrefixDirectory()) + u"|" + name;
  char hash[17];
  std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(NameHash(scoped)));
  shmName = "/quorvane-mutex-v1-" + std::to_string(::getuid()) + "-" + scope + "-" + hash;
  return true;
}

bool MakeMutexAnew(Segment& segment) {
  pthread_mutexattr_t attributes;
  if (::pthread_mutexattr_init(&attributes) != 0) return false;
  bool made = ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
              ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
              ::pthread_mutex_init(&segment.mutex, &attributes) == 0;
  ::pthread_mutexattr_destroy(&attributes);
  return made;
}

// Keeps the holders that still run. Called under the segment's file lock.
void PruneHolders(Segment& segment) {
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < segment.holderCount && i < kMaxHolders; ++i) {
    std::uint64_t startTime = 0;
    const Holder& holder = segment.holders[i];
    if (posix::LiveProcessStartTime(holder.pid, startTime) && startTime == holder.startTime) {
      segment.holders[kept++] = holder;
    }
  }
  segment.holderCount = kept;
}

void RemoveHolder(Segment& segment, pid_t pid) {
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < segment.holderCount && i < kMaxHolders; ++i) {
    if (segment.holders[i].pid != pid) segment.holders[kept++] = segment.holders[i];
  }
  segment.holderCount = kept;
}

// Opens (or creates) the shared object and takes its file lock. An object
// that its last holder removed while this process waited for the lock is
// left for a new one.
bool OpenLockedObject(const std::string& shmName, int& fd, std::uint32_t& error) {
  for (;;) {
    fd = ::shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
      error = posix::ErrnoToWinError(errno);
      return false;
    }
    struct stat st;
    if (::flock(fd, LOCK_EX) != 0 || ::fstat(fd, &st) != 0) {
      error = posix::ErrnoToWinError(errno);
      ::close(fd);
      return false;
    }
    if (st.st_nlink > 0) {
      if (st.st_size < static_cast<off_t>(sizeof(Segment)) && ::ftruncate(fd, sizeof(Segment)) != 0) {
        error = posix::ErrnoToWinError(errno);
        ::close(fd);
        return false;
      }
      return true;
    }
    ::close(fd);
  }
}

// Maps the segment and enters this process as a holder.
Mapping* OpenMapping(const std::string& shmName, std::uint32_t& error) {
  std::uint64_t ownStart = 0;
  if (!posix::LiveProcessStartTime(::getpid(), ownStart)) {
    error = kErrorAccessDenied;
    return nullptr;
  }
  int fd = -1;
  if (!OpenLockedObject(shmName, fd, error)) return nullptr;
  void* address = ::mmap(nullptr, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (address == MAP_FAILED) {
    error = posix::ErrnoToWinError(errno);
    ::close(fd);
    return nullptr;
  }
  auto* segment = static_cast<Segment*>(address);
  if (segment->magic != kSegmentMagic || segment->layoutSize != sizeof(Segment)) {
    // A new object (all zero) or one laid out by another build: start over.
    segment->holderCount = 0;
    segment->layoutSize = sizeof(Segment);
    segment->magic = kSegmentMagic;
  }
  PruneHolders(*segment);
  bool ok = true;
  if (segment->holderCount == 0) {
    // Nobody holds a handle: the mutex no longer exists for Windows, and
    // whatever state its last owner left it in goes with it.
    ok = MakeMutexAnew(*segment);
    if (!ok) error = kErrorAccessDenied;
  } else if (segment->holderCount >= kMaxHolders) {
    ok = false;
    error = kErrorNotEnoughMemory;
  }
  if (ok) segment->holders[segment->holderCount++] = Holder{::getpid(), 0, ownStart};
  ::flock(fd, LOCK_UN);
  if (!ok) {
    ::munmap(address, sizeof(Segment));
    ::close(fd);
    return nullptr;
  }
  auto* mapping = new Mapping;
  mapping->shmName = shmName;
  mapping->pid = ::getpid();
  mapping->fd = fd;
  mapping->segment = segment;
  return mapping;
}

// Leaves the holder table once this process neither holds a handle nor owns
// the mutex, and removes the shared object when no holder remains.
void ReleaseMappingIfUnused(Mapping* mapping) {
  if (mapping->handles > 0 || mapping->ownership > 0) return;
  {
    std::lock_guard<std::mutex> guard(mappingsLock);
    auto it = Mappings().find(mapping->shmName);
    if (it != Mappings().end() && it->second == mapping) Mappings().erase(it);
  }
  ::flock(mapping->fd, LOCK_EX);
  RemoveHolder(*mapping->segment, mapping->pid);
  PruneHolders(*mapping->segment);
  if (mapping->segment->holderCount == 0) ::shm_unlink(mapping->shmName.c_str());
  ::flock(mapping->fd, LOCK_UN);
  ::munmap(mapping->segment, sizeof(Segment));
  ::close(mapping->fd);
  delete mapping;
}

}  // namespace

Handle CreateMutexW(const WString& name) {
  QV_FAULT_POINT("CreateMutexW", return kNullHandle, name);
  std::string shmName;
  if (!SharedObjectName(name, shmName)) return kNullHandle;
  Mapping* mapping = nullptr;
  {
    std::lock_guard<std::mutex> guard(mappingsLock);
    auto it = Mappings().find(shmName);
    if (it != Mappings().end() && it->second->pid == ::getpid()) {
      mapping = it->second;
      ++mapping->handles;
    }
  }
  if (mapping == nullptr) {
    std::uint32_t error = 0;
    mapping = OpenMapping(shmName, error);
    if (mapping == nullptr) {
      SetLastError(error);
      return kNullHandle;
    }
    mapping->handles = 1;
    std::lock_guard<std::mutex> guard(mappingsLock);
    // A mapping inherited through fork belongs to the parent and is replaced.
    Mappings()[shmName] = mapping;
  }
  return posix::RegisterHandle(posix::HandleKind::Mutex, std::make_shared<MutexHandle>(mapping));
}

std::uint32_t WaitForSingleObject(Handle handle, std::uint32_t milliseconds) {
  QV_FAULT_POINT("WaitForSingleObject", return kWaitFailed);
  auto* mutexHandle = posix::LookUpHandle<MutexHandle>(handle, posix::HandleKind::Mutex);
  if (mutexHandle == nullptr) {
    SetLastError(kErrorInvalidHandle);
    return kWaitFailed;
  }
  Mapping* mapping = mutexHandle->mapping;
  if (mapping->ownership > 0) {
    // The owner waits again: Windows counts the nested acquisition.
    ++mapping->ownership;
    return kWaitObject0;
  }
  pthread_mutex_t* mutex = &mapping->segment->mutex;
  int result = 0;
  if (milliseconds == kInfinite) {
    result = ::pthread_mutex_lock(mutex);
  } else if (milliseconds == 0) {
    result = ::pthread_mutex_trylock(mutex);
  } else {
    timespec deadline{};
    ::clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
    do {
      result = ::pthread_mutex_timedlock(mutex, &deadline);
    } while (result == EINTR);
  }
  switch (result) {
    case 0:
      mapping->ownership = 1;
      return kWaitObject0;
    case EOWNERDEAD:
      // The owner died holding it. This process owns it now, and marks it
      // consistent so that it never stays broken for later runs.
      ::pthread_mutex_consistent(mutex);
      mapping->ownership = 1;
      return kWaitAbandoned;
    case ETIMEDOUT:
    case EBUSY:
      return kWaitTimeout;
    default:
      SetLastError(posix::ErrnoToWinError(result));
      return kWaitFailed;
  }
}

bool ReleaseMutex(Handle handle) {
  QV_FAULT_POINT("ReleaseMutex", return false);
  auto* mutexHandle = posix::LookUpHandle<MutexHandle>(handle, posix::HandleKind::Mutex);
  if (mutexHandle == nullptr) {
    SetLastError(kErrorInvalidHandle);
    return false;
  }
  Mapping* mapping = mutexHandle->mapping;
  if (mapping->ownership == 0) {
    SetLastError(kErrorNotOwner);
    return false;
  }
  if (--mapping->ownership == 0) ::pthread_mutex_unlock(&mapping->segment->mutex);
  return true;
}

}  // namespace qv::platform
