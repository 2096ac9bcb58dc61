// Named mutexes on the Linux host: one lock file each in /dev/shm, named
// after the account, the Windows session and the prefix (Wine keeps named
// objects in the server of one prefix), so that other accounts, sessions or
// prefixes never meet. Three bytes of the file, with fcntl locks, which the
// kernel drops when their process ends however it ends:
//   byte 0  write-locked by the owner;
//   byte 1  read-locked by every process that holds a handle;
//   byte 2  not locked: 1 while an owner has not released the mutex.
// A process that takes byte 0 and finds byte 2 still 1 follows an owner that
// died owning it: WAIT_ABANDONED. A Windows named mutex lives only while some
// process holds a handle to it, so a process that opens the mutex and can
// write-lock byte 1 is alone with it, and clears byte 2: a run started after
// its holder died alone finds a fresh mutex, while a run that waited (and
// held a handle) meanwhile gets WAIT_ABANDONED.
//
// Ownership belongs to the process (the tool has one thread). As a Windows
// thread keeps owning a mutex after CloseHandle, the file stays open while
// the process owns it, and its end then abandons the mutex.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <thread>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/errors.h"
#include "platform/posix/host_handles.h"
#include "platform/posix/host_roots.h"
#include "platform/posix/processes.h"

namespace qv::platform {
namespace {

constexpr std::uint32_t kErrorNotOwner = 288;
constexpr off_t kOwnerByte = 0;
constexpr off_t kHandlesByte = 1;
constexpr off_t kHeldByte = 2;

// A lock of one byte; F_SETLKW waits for it, F_SETLK does not.
bool LockByte(int fd, int command, short type, off_t byte) {
  struct flock lock{.l_type = type, .l_whence = SEEK_SET, .l_start = byte, .l_len = 1, .l_pid = 0};
  int result = 0;
  while ((result = ::fcntl(fd, command, &lock)) != 0 && errno == EINTR) {
  }
  return result == 0;
}

void WriteHeld(int fd, char held) { (void)!::pwrite(fd, &held, 1, kHeldByte); }

// The mutex as this process has it open: one per name, shared by its handles.
struct OpenMutex {
  std::string file;
  pid_t pid = 0;  // the process that opened it: a child made by fork opens its own
  int fd = -1;
  std::uint32_t handles = 0;
  std::uint32_t ownership = 0;  // nested waits that this process owns
};

// Never destroyed: handles still open at exit close into it.
auto& openMutexes = *new std::map<std::string, std::unique_ptr<OpenMutex>>;

// Closes the file (dropping its locks) once the process neither holds a
// handle nor owns the mutex; the last process to hold a handle removes it.
void CloseIfUnused(OpenMutex* mutex) {
  if (mutex->handles > 0 || mutex->ownership > 0 || mutex->pid != ::getpid()) return;
  if (LockByte(mutex->fd, F_SETLK, F_WRLCK, kHandlesByte)) ::unlink(mutex->file.c_str());
  ::close(mutex->fd);
  openMutexes.erase(mutex->file);
}

// The object behind one handle; closing the handle destroys it.
struct MutexHandle {
  explicit MutexHandle(OpenMutex* m) : mutex(m) { ++mutex->handles; }
  ~MutexHandle() {
    --mutex->handles;
    CloseIfUnused(mutex);
  }
  OpenMutex* mutex;
};

bool LockFileName(const WString& name, std::string& file) {
  std::uint32_t session = 0;
  std::uint32_t error = 0;
  if (!posix::ReadSessionId(static_cast<std::uint32_t>(::getpid()), session, error)) return posix::Fail(error);
  const std::size_t hash = std::hash<WString>{}(Utf8ToWide(posix::PrefixDirectory()) + u"|" + name);
  file = "/dev/shm/quorvane-mutex-" + std::to_string(::getuid()) + "-" + std::to_string(session) + "-" +
         std::to_string(hash);
  return true;
}

// Opens the lock file and takes this process's read lock on byte 1,
// clearing byte 2 when no other process holds a handle. A file that its last
// holder removed before the lock was had is left for a new one.
OpenMutex* Open(const std::string& file) {
  for (;;) {
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return SetLastError(posix::ErrnoToWinError(errno)), nullptr;
    if (LockByte(fd, F_SETLK, F_WRLCK, kHandlesByte)) WriteHeld(fd, 0);
    // Turning the write lock into a read lock is one step for fcntl locks.
    struct stat st;
    if (!LockByte(fd, F_SETLKW, F_RDLCK, kHandlesByte) || ::fstat(fd, &st) != 0) {
      SetLastError(posix::ErrnoToWinError(errno));
      ::close(fd);
      return nullptr;
    }
    if (st.st_nlink > 0) {
      auto& opened = openMutexes[file] = std::make_unique<OpenMutex>(OpenMutex{file, ::getpid(), fd, 0, 0});
      return opened.get();
    }
    ::close(fd);
  }
}

// Takes byte 0 within `milliseconds` (INFINITE, 49 days, included).
bool LockOwnerByte(int fd, std::uint32_t milliseconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (!LockByte(fd, F_SETLK, F_WRLCK, kOwnerByte)) {
    if ((errno != EAGAIN && errno != EACCES) || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace

Handle CreateMutexW(const WString& name) {
  QV_FAULT_POINT("CreateMutexW", return kNullHandle, name);
  std::string file;
  if (!LockFileName(name, file)) return kNullHandle;
  auto it = openMutexes.find(file);
  if (it != openMutexes.end() && it->second->pid != ::getpid()) {
    // One inherited through fork is the parent's, with the parent's locks:
    // the child leaves it alone and opens the file anew.
    it->second.release();
    openMutexes.erase(it);
    it = openMutexes.end();
  }
  OpenMutex* mutex = it != openMutexes.end() ? it->second.get() : Open(file);
  if (mutex == nullptr) return kNullHandle;
  return posix::RegisterHandle(posix::HandleKind::Mutex, std::make_shared<MutexHandle>(mutex));
}

std::uint32_t WaitForSingleObject(Handle handle, std::uint32_t milliseconds) {
  QV_FAULT_POINT("WaitForSingleObject", return kWaitFailed);
  auto* mutexHandle = posix::LookUpHandle<MutexHandle>(handle, posix::HandleKind::Mutex);
  if (mutexHandle == nullptr) {
    SetLastError(kErrorInvalidHandle);
    return kWaitFailed;
  }
  OpenMutex* mutex = mutexHandle->mutex;
  if (mutex->ownership > 0) {
    // The owner waits again: Windows counts the nested acquisition.
    ++mutex->ownership;
    return kWaitObject0;
  }
  if (!LockOwnerByte(mutex->fd, milliseconds)) {
    if (errno == EAGAIN || errno == EACCES) return kWaitTimeout;
    SetLastError(posix::ErrnoToWinError(errno));
    return kWaitFailed;
  }
  char held = 0;
  const bool abandoned = ::pread(mutex->fd, &held, 1, kHeldByte) == 1 && held == 1;
  WriteHeld(mutex->fd, 1);
  mutex->ownership = 1;
  return abandoned ? kWaitAbandoned : kWaitObject0;
}

bool ReleaseMutex(Handle handle) {
  QV_FAULT_POINT("ReleaseMutex", return false);
  auto* mutexHandle = posix::LookUpHandle<MutexHandle>(handle, posix::HandleKind::Mutex);
  if (mutexHandle == nullptr) return posix::Fail(kErrorInvalidHandle);
  OpenMutex* mutex = mutexHandle->mutex;
  if (mutex->ownership == 0) return posix::Fail(kErrorNotOwner);
  if (--mutex->ownership == 0) {
    WriteHeld(mutex->fd, 0);
    LockByte(mutex->fd, F_SETLK, F_UNLCK, kOwnerByte);
    CloseIfUnused(mutex);
  }
  return true;
}

}  // namespace qv::platform
