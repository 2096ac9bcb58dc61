// The named mutex between real processes: waiting, release, a holder that
// dies while another waits, a holder that dies alone, and time-outs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "platform/platform.h"

namespace qv::platform {
namespace {

constexpr std::uint32_t kLongWait = 60000;  // only reached when the test is broken
constexpr std::uint32_t kNoAnswer = 0xDEADu;

// Each test has its own mutex, so tests and parallel runs do not meet.
WString UniqueName(const std::string& test) {
  static int counter = 0;
  return AsciiToWide("Local\\QuorvaneMutexTest-" + std::to_string(::getpid()) + "-" + test + "-" +
                     std::to_string(++counter));
}

// A pipe from a child to the parent, carrying 32-bit results.
class Channel {
 public:
  Channel() { EXPECT_EQ(::pipe(fds_), 0); }
  ~Channel() {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  void Send(std::uint32_t value) { (void)!::write(fds_[1], &value, sizeof value); }
  // kNoAnswer when the child ended without sending.
  std::uint32_t Receive() {
    std::uint32_t value = 0;
    return ::read(fds_[0], &value, sizeof value) == sizeof value ? value : kNoAnswer;
  }
  void CloseWriteEnd() {
    ::close(fds_[1]);
    fds_[1] = -1;
  }

 private:
  int fds_[2] = {-1, -1};
};

// Runs `body` in a child process that ends with _exit and no clean-up.
pid_t Fork(const std::function<void()>& body) {
  pid_t pid = ::fork();
  if (pid == 0) {
    body();
    ::_exit(0);
  }
  return pid;
}

int Reap(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

TEST(PosixMutex, SecondOpenerWaitsUntilReleased) {
  WString name = UniqueName("release");
  ScopedHandle mutex(CreateMutexW(name));
  ASSERT_TRUE(mutex.valid());
  ASSERT_EQ(WaitForSingleObject(mutex.get(), kLongWait), kWaitObject0);

  Channel channel;
  pid_t waiter = Fork([&] {
    Handle own = CreateMutexW(name);
    channel.Send(WaitForSingleObject(own, 0));
    channel.Send(WaitForSingleObject(own, kLongWait));
    channel.Send(ReleaseMutex(own) ? 1 : 0);
    CloseHandle(own);
  });
  EXPECT_EQ(channel.Receive(), kWaitTimeout);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
  EXPECT_EQ(channel.Receive(), kWaitObject0);
  EXPECT_EQ(channel.Receive(), 1u);
  Reap(waiter);
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
}

TEST(PosixMutex, HolderKilledWhileAnotherWaitsIsAbandoned) {
  WString name = UniqueName("killed");
  // The parent keeps a handle throughout, so the mutex is never made anew.
  ScopedHandle mutex(CreateMutexW(name));
  ASSERT_TRUE(mutex.valid());

  Channel fromHolder;
  pid_t holder = Fork([&] {
    Handle own = CreateMutexW(name);
    fromHolder.Send(WaitForSingleObject(own, kLongWait));
    ::pause();
  });
  ASSERT_EQ(fromHolder.Receive(), kWaitObject0);

  Channel fromWaiter;
  pid_t waiter = Fork([&] {
    Handle own = CreateMutexW(name);
    fromWaiter.Send(WaitForSingleObject(own, 0));
    fromWaiter.Send(WaitForSingleObject(own, kLongWait));
    // As the run lock does after WAIT_ABANDONED: no release, the handle
    // closed, the process ends owning the mutex.
    CloseHandle(own);
  });
  EXPECT_EQ(fromWaiter.Receive(), kWaitTimeout);
  ::kill(holder, SIGKILL);
  Reap(holder);
  EXPECT_EQ(fromWaiter.Receive(), kWaitAbandoned);
  Reap(waiter);

  // The waiter ended owning it: abandoned again for the parent, who can
  // release it, and then it is an ordinary free mutex.
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitAbandoned);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
}

TEST(PosixMutex, HolderThatDiedAloneLeavesAFreeMutex) {
  for (bool reaped : {false, true}) {
    WString name = UniqueName(reaped ? "dead-reaped" : "dead-zombie");
    Channel channel;
    pid_t holder = Fork([&] {
      Handle own = CreateMutexW(name);
      channel.Send(WaitForSingleObject(own, kLongWait));
      // Ends owning the mutex, its handle never closed.
    });
    ASSERT_EQ(channel.Receive(), kWaitObject0);
    siginfo_t info{};
    if (reaped) {
      Reap(holder);
    } else {
      // Ended but not yet reaped: a zombie holds no handle either.
      ::waitid(P_PID, static_cast<id_t>(holder), &info, WEXITED | WNOWAIT);
    }
    ScopedHandle mutex(CreateMutexW(name));
    ASSERT_TRUE(mutex.valid());
    EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitObject0) << (reaped ? "reaped" : "zombie");
    EXPECT_TRUE(ReleaseMutex(mutex.get()));
    if (!reaped) Reap(holder);
  }
}

TEST(PosixMutex, TimeOutWhileHeldElsewhere) {
  WString name = UniqueName("timeout");
  Channel channel;
  pid_t holder = Fork([&] {
    Handle own = CreateMutexW(name);
    channel.Send(WaitForSingleObject(own, kLongWait));
    ::pause();
  });
  ASSERT_EQ(channel.Receive(), kWaitObject0);
  ScopedHandle mutex(CreateMutexW(name));
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 200), kWaitTimeout);
  EXPECT_FALSE(ReleaseMutex(mutex.get()));  // not the owner
  ::kill(holder, SIGKILL);
  Reap(holder);
  // This process held a handle when the holder died.
  EXPECT_EQ(WaitForSingleObject(mutex.get(), 0), kWaitAbandoned);
  EXPECT_TRUE(ReleaseMutex(mutex.get()));
}

TEST(PosixMutex, NamesHandlesAndNesting) {
  WString name = UniqueName("nesting");
  ScopedHandle first(CreateMutexW(name));
  ScopedHandle second(CreateMutexW(name));  // the same mutex
  ScopedHandle other(CreateMutexW(UniqueName("other")));
  ASSERT_TRUE(first.valid() && second.valid() && other.valid());
  ASSERT_EQ(WaitForSingleObject(first.get(), 0), kWaitObject0);
  EXPECT_EQ(WaitForSingleObject(other.get(), 0), kWaitObject0);  // another name is another mutex
  EXPECT_TRUE(ReleaseMutex(other.get()));

  // The owner may wait again, and releases as often as it waited.
  EXPECT_EQ(WaitForSingleObject(second.get(), 0), kWaitObject0);
  EXPECT_TRUE(ReleaseMutex(first.get()));
  Channel channel;
  pid_t probe = Fork([&] {
    Handle own = CreateMutexW(name);
    channel.Send(WaitForSingleObject(own, 0));
  });
  EXPECT_EQ(channel.Receive(), kWaitTimeout);  // still held once
  Reap(probe);
  EXPECT_TRUE(ReleaseMutex(second.get()));
  EXPECT_FALSE(ReleaseMutex(second.get()));

  EXPECT_EQ(WaitForSingleObject(0x7777, 0), kWaitFailed);
  EXPECT_EQ(GetLastError(), kErrorInvalidHandle);
}

}  // namespace
}  // namespace qv::platform
