#include "wine/wine_program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/environment.h"

extern char** environ;

namespace qv::test {

WineProgram::WineProgram(const std::string& prefix, const std::vector<std::string>& args) {
  std::vector<std::string> all{"/usr/lib/wine/wine64"};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<std::string> env{"WINEPREFIX=" + prefix, "WINEDEBUG=-all"};
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    if (entry.rfind("WINEPREFIX=", 0) != 0 && entry.rfind("WINEDEBUG=", 0) != 0) env.push_back(entry);
  }
  std::vector<char*> argv, envp;
  for (std::string& a : all) argv.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd = 0; fd < 3; ++fd) posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
  if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
}

WineProgram::~WineProgram() {
  if (!Running()) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

bool WineProgram::Running() {
  if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = -1;
  return pid_ > 0;
}

bool WineProgram::WaitFor(const std::string& path) {
  while (!Exists(path)) {
    if (!Running()) return Exists(path);
    ::usleep(1000);
  }
  return true;
}

}  // namespace qv::test
