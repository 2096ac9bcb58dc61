// The run lock between real processes: a second run waits for the holder and
// goes on; a holder that dies while a run waits leaves the lock abandoned
// for that run; a holder that died alone leaves a fresh lock.
#include <signal.h>

#include <filesystem>
#include <future>
#include <thread>

#include "support/scene.h"

namespace qv::test {
namespace {

using namespace std::chrono_literals;

class RunLock : public EndToEnd {
 protected:
  // A holder of the lock on `m`, which keeps it while `gate` exists.
  Background Hold(const Machine& m, const std::string& gate) {
    WriteFile(gate, "");
    Background holder = m.Start(tool().lockHolder, {m.Win(gate)});
    EXPECT_TRUE(holder.WaitForOutput("held", 60000)) << holder.seen;
    return holder;
  }
  // A /status run started in the background, once it waits for the lock: the
  // call log shows its wait (a build without the log is given two seconds).
  std::future<RunResult> Waiting(const Machine& m) {
    const std::string log = m.C("waiting.log");
    EnvChanges env;
    if (tool().faults) env["QUORVANE_FAULTS_LOG"] = log;
    auto run = std::async(std::launch::async, [&m, env] { return m.Run({"/status"}, env); });
    for (int i = 0; i < 6000 && tool().faults && ReadFile(log).find("WaitForSingleObject") == std::string::npos; ++i) {
      std::this_thread::sleep_for(10ms);
    }
    if (!tool().faults) std::this_thread::sleep_for(2s);
    return run;
  }
};

TEST_P(RunLock, ASecondRunWaitsThenGoesOnOrFindsTheLockAbandoned) {
  Machine m(tool());
  Background holder = Hold(m, m.C("gate"));
  // No arguments: the usage line at once, no lock touched.
  EXPECT_EQ(m.Run({}).exitCode, 2);
  std::future<RunResult> waiting = Waiting(m);
  // However long it is given, it does not finish while the lock is held.
  EXPECT_EQ(waiting.wait_for(1s), std::future_status::timeout);
  if (tool().native()) {
    // The lock belongs to the prefix: a run on another one does not meet it.
    Machine other(tool());
    EXPECT_EQ(other.Run({"/status"}).exitCode, 1);
  }
  std::filesystem::remove(m.C("gate"));
  EXPECT_EQ(Ended(waiting.get()), std::make_tuple(1, kEmptyReport, ""));
  EXPECT_EQ(holder.Finish().exitCode, 0);

  // A holder killed while a run waits leaves the lock abandoned for that run.
  std::filesystem::remove(m.C("waiting.log"));
  Background killed = Hold(m, m.C("gate"));
  waiting = Waiting(m);
  killed.Finish(SIGKILL);
  const std::string active = "Another Quorvane Setup is active or was interrupted. Check its result and retry.\n";
  EXPECT_EQ(Ended(waiting.get()), std::make_tuple(7, "", active));
  // With no holder left, a run started afterwards finds the lock fresh; so
  // it does after a holder that died alone.
  EXPECT_EQ(m.Run({"/status"}).exitCode, 1);
  Hold(m, m.C("gate")).Finish(SIGKILL);
  EXPECT_EQ(Ended(m.Run({"/status"})), std::make_tuple(1, kEmptyReport, ""));
}

QV_E2E_SUITE(RunLock);

}  // namespace
}  // namespace qv::test
