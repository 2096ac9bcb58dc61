#include "timing.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

extern char** environ;

namespace qv::bench {

namespace {
Figures Summarise(std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  Figures f;
  if (ms.empty()) return f;
  f.minMs = ms.front();
  f.maxMs = ms.back();
  f.medianMs = ms[ms.size() / 2];
  return f;
}
}  // namespace

Figures Time(int runs, const std::function<void()>& body) {
  std::vector<double> ms;
  for (int i = 0; i < runs; ++i) {
    auto start = std::chrono::steady_clock::now();
    body();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  return Summarise(ms);
}

ProcessFigures TimeProcess(int runs, const std::string& program, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& env) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    auto eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [k, v] : env) merged[k] = v;
  std::vector<std::string> envStrings;
  for (const auto& [k, v] : merged) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argStrings{program};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& s : argStrings) argv.push_back(s.data());
  argv.push_back(nullptr);

  ProcessFigures figures;
  std::vector<double> ms;
  for (int i = 0; i < runs; ++i) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) {
      std::perror("posix_spawn");
      std::exit(1);
    }
    int status = 0;
    struct rusage usage {};
    wait4(pid, &status, 0, &usage);
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    posix_spawn_file_actions_destroy(&actions);
    figures.peakRssKb = std::max(figures.peakRssKb, usage.ru_maxrss);
    figures.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  figures.wall = Summarise(ms);
  return figures;
}

void Print(const std::string& what, const Figures& f) {
  std::printf("%-58s min %8.3f ms  median %8.3f ms  max %8.3f ms\n", what.c_str(), f.minMs, f.medianMs, f.maxMs);
}

void Print(const std::string& what, const ProcessFigures& f) {
  std::printf("%-58s min %8.3f ms  median %8.3f ms  max %8.3f ms  peak RSS %6.1f MB  exit %d\n", what.c_str(),
              f.wall.minMs, f.wall.medianMs, f.wall.maxMs, f.peakRssKb / 1024.0, f.exitCode);
}

}  // namespace qv::bench
