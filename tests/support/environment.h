// The test's own surroundings: temporary folders, environment variables,
// files written byte for byte, UTF-16 text, and child processes (programs
// and forked code, run to their end or left running in the background).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace qv::test {

// A fresh folder below $TMPDIR (or /tmp), removed with everything in it when
// the object goes (unless QUORVANE_KEEP_TEMP is set).
class TempDir {
 public:
  TempDir();
  explicit TempDir(const std::string& parent);  // below `parent`, made if missing
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// Sets (or, with nullopt, removes) an environment variable and puts back
// what was there when the object goes.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, const std::optional<std::string>& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

// Writes bytes to a host file, making missing parent folders.
void WriteFile(const std::string& path, const std::string& bytes);
std::string ReadFile(const std::string& path);
void MakeDirs(const std::string& path);
void MakeSymlink(const std::string& target, const std::string& linkPath);
bool Exists(const std::string& path);  // lstat: a dangling link exists

// UTF-16LE bytes, as a registry value holds them: with the terminating NUL
// unless told not to.
std::vector<std::uint8_t> Utf16LeBytes(const std::u16string& text, bool terminate = true);

struct RunResult {
  int exitCode = -1;  // -1 when killed by a signal or past its time
  int signal = 0;
  std::string out;
  std::string err;
};

// A run's end as one value, for one expectation: exit code, standard
// output, standard error.
inline std::tuple<int, std::string, std::string> Ended(const RunResult& r) { return {r.exitCode, r.out, r.err}; }

// Environment changes for a child: entries replace or add variables of the
// current environment; an entry with an empty value removes the variable.
using EnvChanges = std::map<std::string, std::string>;

// A child process with standard input from /dev/null and both outputs read
// by the test. A test that fails early still kills and reaps it.
struct Background {
  Background() = default;
  Background(Background&& other) noexcept;
  Background& operator=(Background&&) = delete;
  ~Background() { Finish(9); }
  // Reads standard output until `text` has arrived (or the pipe ends, or the
  // time is up).
  bool WaitForOutput(const std::string& text, int timeoutMs = 30000);
  // Waits for the end (killing it first with `signal` when not 0) and gives
  // what it wrote. Output is read until the process ends, not until end of
  // file: a background program it started (Wine's) may hold the pipes open.
  // A child still running after `timeoutMs` is killed.
  RunResult Finish(int signal = 0, int timeoutMs = 120000);

  pid_t pid = -1;
  int out = -1, err = -1;
  std::string seen;  // standard output so far
};

// Starts a program (`program` is its path), left running or run to its end.
Background Spawn(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env = {});
inline RunResult Run(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env = {},
                     int timeoutMs = 120000) {
  return Spawn(program, args, env).Finish(0, timeoutMs);
}

// Runs `body` in a forked child to its end, which is body's result with no
// clean-up. `withoutRootPowers`: root gives up its powers in the child and
// runs as nobody, so that folder modes apply.
RunResult RunInChild(const std::function<int()>& body, bool withoutRootPowers = false);

}  // namespace qv::test
