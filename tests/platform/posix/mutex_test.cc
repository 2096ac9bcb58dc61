// The named mutex between real processes: waiting and release, an owner
// that dies while another process holds a handle, and one that dies alone.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "platform/platform.h"

namespace qv::platform {
namespace {

constexpr std::uint32_t kLongWait = 60000;  // only reached when the test is broken

// Each test has its own mutex, so tests and parallel runs do not meet.
WString UniqueName(const std::string& test) {
  return AsciiToWide("Local\\QuorvaneMutexTest-" + std::to_string(::getpid()) + "-" + test);
}

// A child that opens the mutex and runs `body` on its handle, writing what
// happened to a pipe; it ends with no clean-up, owning what it owns.
struct Child {
  Child(const WString& name, const std::function<void(Handle, int)>& body) {
    EXPECT_EQ(::pipe(fds), 0);
    if ((pid = ::fork()) == 0) body(CreateMutexW(name), fds[1]), ::_exit(0);
    ::close(fds[1]);
  }
  ~Child() { ::close(fds[0]); }
  static void Send(int fd, std::uint32_t value) { (void)!::write(fd, &value, sizeof value); }
  std::uint32_t Receive() {
    std::uint32_t value = 0xDEAD;  // the child ended without a word
    return ::read(fds[0], &value, sizeof value) == sizeof value ? value : 0xDEAD;
  }
  // Waits for the child's end; one not reaped stays a zombie.
  void Ended(bool reap) {
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid), &info, reap ? WEXITED : WEXITED | WNOWAIT);
  }
  int fds[2] = {-1, -1};
  pid_t pid = -1;
};

TEST(PosixMutex, AWaiterGetsItOnReleaseAndItsDeathAbandonsIt) {
  const WString name = UniqueName("wait");
  ScopedHandle mutex(CreateMutexW(name));  // kept throughout: never made anew
  ASSERT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0);
  ASSERT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0);  // the owner may wait again
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
  Child waiter(name, [](Handle own, int fd) {
    Child::Send(fd, WaitForSingleObject(own, 0));
    Child::Send(fd, WaitForSingleObject(own, kLongWait));
    CloseHandle(own);  // as the run lock does after WAIT_ABANDONED: no release
  });
  EXPECT_EQ(waiter.Receive(), kWaitTimeout);  // still held once
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
  EXPECT_FALSE(ReleaseMutex(mutex.get()));  // no longer the owner
  EXPECT_EQ(waiter.Receive(), kWaitObject0);
  waiter.Ended(true);
  // The waiter ended owning it while this process held a handle: abandoned,
  // then an ordinary mutex again.
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitAbandoned);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
}

TEST(PosixMutex, AnOwnerThatDiedAloneLeavesAFreeMutex) {
  for (bool reaped : {false, true}) {
    const WString name = UniqueName(reaped ? "dead-reaped" : "dead-zombie");
    Child holder(name, [](Handle own, int fd) { Child::Send(fd, WaitForSingleObject(own, kLongWait)); });
    ASSERT_EQ(holder.Receive(), kWaitObject0);
    holder.Ended(reaped);  // a zombie holds no handle either
    ScopedHandle mutex(CreateMutexW(name));
    EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0) << (reaped ? "reaped" : "zombie");
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
    if (!reaped) holder.Ended(true);
  }
}

}  // namespace
}  // namespace qv::platform
