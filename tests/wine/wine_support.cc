#include "wine/wine_support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <regex>
#include <thread>

extern char** environ;

namespace qv::test {
namespace {

// Starts wine64 with the program. Its output goes to files, not pipes: what
// Wine starts in the background (its server and services, started by the
// first program a server runs) inherits the program's handles and may keep
// them open long after the program has ended, so a pipe would not close.
int SpawnWine(const std::string& prefix, std::vector<std::string> args, const std::map<std::string, std::string>& env,
              const std::string& out, const std::string& err) {
  std::map<std::string, std::string> merged{{"WINEPREFIX", prefix}, {"WINEDEBUG", "-all"}};
  merged.insert(env.begin(), env.end());
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    merged.emplace(entry.substr(0, entry.find('=')), entry.substr(entry.find('=') + 1));
  }
  std::vector<std::string> strings;
  for (const auto& [name, value] : merged) strings.push_back(name + "=" + value);
  args.insert(args.begin(), "/usr/lib/wine/wine64");
  std::vector<char*> argv, envp;
  for (std::string& a : args) argv.push_back(a.data());
  for (std::string& s : strings) envp.push_back(s.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

}  // namespace

std::string SharedWinePrefix() {
  const char* prefix = std::getenv("QUORVANE_WINE_PREFIX");
  if (prefix == nullptr || *prefix == '\0' || !Exists(std::string(prefix) + "/system.reg")) return "";
  return prefix;
}

RunResult RunUnderWine(const std::string& prefix, const std::string& program, const std::vector<std::string>& args,
                       const std::map<std::string, std::string>& env) {
  TempDir dir;
  std::vector<std::string> all{program};
  all.insert(all.end(), args.begin(), args.end());
  const int pid = SpawnWine(prefix, all, env, dir / "out", dir / "err");
  RunResult result;
  int status = 0;
  while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (pid > 0 && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (pid > 0 && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  // Wine's console ends lines with CR LF.
  result.out = std::regex_replace(ReadFile(dir / "out"), std::regex("\r\n"), "\n");
  result.err = std::regex_replace(ReadFile(dir / "err"), std::regex("\r\n"), "\n");
  return result;
}

int StartUnderWine(const std::string& prefix, const std::string& windowsPath) {
  const int pid = SpawnWine(prefix, {windowsPath}, {}, "/dev/null", "/dev/null");
  // Wine puts the program's Windows path in place of the loader's command
  // line once the program is loaded.
  for (int i = 0; pid > 0 && i < 600; ++i) {
    if (ReadFile("/proc/" + std::to_string(pid) + "/cmdline").starts_with(windowsPath + '\0')) return pid;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  StopProcess(pid);
  return -1;
}

void StopProcess(int pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void WaitForWineServer(const std::string& prefix) { Run("/usr/lib/wine/wineserver", {"-w"}, {{"WINEPREFIX", prefix}}); }

}  // namespace qv::test
