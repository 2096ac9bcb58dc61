// The run lock between real processes: a run waits for a holder and goes
// on, and a holder that dies while a run waits leaves the lock abandoned.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/scene.h"
#include "support/environment.h"

extern char** environ;

namespace qv::test {
namespace {

// A lock holder started in the background; its standard output is a pipe
// that says "held" once it has the lock.
struct Holder {
  pid_t pid = 0;
  int out = -1;
};

Holder StartHolder(const FixturePrefix& prefix, long holdMs) {
  int pipeFds[2];
  EXPECT_EQ(::pipe(pipeFds), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  std::string holdArg = std::to_string(holdMs);
  std::string program = QUORVANE_LOCK_HOLDER;
  std::vector<char*> argv{program.data(), holdArg.data(), nullptr};
  std::string envPrefix = "WINEPREFIX=" + prefix.root;
  std::vector<char*> envp;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::string(*e).rfind("WINEPREFIX=", 0) != 0) envp.push_back(*e);
  }
  envp.push_back(envPrefix.data());
  envp.push_back(nullptr);
  Holder holder;
  EXPECT_EQ(posix_spawn(&holder.pid, program.c_str(), &actions, nullptr, argv.data(), envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  holder.out = pipeFds[0];
  char buffer[16] = {};
  EXPECT_GT(::read(holder.out, buffer, sizeof buffer - 1), 0);
  EXPECT_EQ(std::string(buffer), "held\n");
  return holder;
}

int Finish(Holder& holder) {
  int status = 0;
  ::waitpid(holder.pid, &status, 0);
  ::close(holder.out);
  return status;
}

TEST(RunLock, ASecondRunWaitsThenGoesOn) {
  TempDir dir;
  FixturePrefix prefix = MakeFixturePrefix(dir.path());
  Holder holder = StartHolder(prefix, 1500);
  // No arguments: the usage line at once, no lock touched.
  RunResult usage = test::Run(NativeTool().binary, {}, prefix.Env());
  EXPECT_EQ(usage.exitCode, 2);
  const auto start = std::chrono::steady_clock::now();
  RunResult r = test::Run(NativeTool().binary, {"/status"}, prefix.Env());
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "Quorvane v0.1.8\nAutodesk Fusion installations: 0\nFusion running: No\n");
  // It ran only once the holder had let go (a lower bound, not a timing
  // expectation on the machine's speed).
  EXPECT_GE(waited, std::chrono::milliseconds(500));
  EXPECT_EQ(Finish(holder), 0);

  // Runs against another prefix do not meet this lock at all.
  TempDir otherDir;
  FixturePrefix other = MakeFixturePrefix(otherDir.path());
  Holder second = StartHolder(prefix, 60000);
  RunResult elsewhere = test::Run(NativeTool().binary, {"/status"}, other.Env());
  EXPECT_EQ(elsewhere.exitCode, 1) << elsewhere.err;
  ::kill(second.pid, SIGKILL);
  Finish(second);
}

TEST(RunLock, AHolderKilledWhileARunWaitsLeavesItAbandoned) {
  TempDir dir;
  FixturePrefix prefix = MakeFixturePrefix(dir.path());
  Holder holder = StartHolder(prefix, 60000);
  auto waiting = std::async(std::launch::async, [&] { return test::Run(NativeTool().binary, {"/status"}, prefix.Env()); });
  // Give the run time to start waiting, then kill the holder.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ::kill(holder.pid, SIGKILL);
  Finish(holder);
  RunResult r = waiting.get();
  EXPECT_EQ(r.exitCode, 7);
  EXPECT_EQ(r.err, "Another Quorvane Setup is active or was interrupted. Check its result and retry.\n");
  EXPECT_EQ(r.out, "");
  // A run started afterwards, with no holder left, finds the lock free.
  RunResult after = test::Run(NativeTool().binary, {"/status"}, prefix.Env());
  EXPECT_EQ(after.exitCode, 1) << after.err;
}

}  // namespace
}  // namespace qv::test
