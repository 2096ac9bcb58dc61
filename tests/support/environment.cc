#include "support/environment.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace qv::test {
namespace {

using Clock = std::chrono::steady_clock;

// The current environment with `changes` applied, as envp strings.
std::vector<std::string> MergedEnvironment(const EnvChanges& changes) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    auto eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [k, v] : changes) {
    if (v.empty()) merged.erase(k);
    else merged[k] = v;
  }
  std::vector<std::string> strings;
  for (const auto& [k, v] : merged) strings.push_back(k + "=" + v);
  return strings;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (auto& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Starts `program` with stdin from /dev/null and stdout (and stderr, when
// `errFd` is not -1) into pipes whose read ends come back.
pid_t SpawnWithPipes(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env,
                     const std::string& workingDirectory, int& outFd, int* errFd) {
  std::vector<std::string> envStrings = MergedEnvironment(env);
  std::vector<char*> envp = Pointers(envStrings);
  std::vector<std::string> argStrings{program};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> argv = Pointers(argStrings);

  int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1};
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || (errFd != nullptr && ::pipe2(errPipe, O_CLOEXEC) != 0)) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  if (errFd != nullptr) posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  if (!workingDirectory.empty()) posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
  pid_t pid = 0;
  int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  if (errFd != nullptr) ::close(errPipe[1]);
  if (rc != 0) {
    ::close(outPipe[0]);
    if (errFd != nullptr) ::close(errPipe[0]);
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc));
  }
  outFd = outPipe[0];
  if (errFd != nullptr) *errFd = errPipe[0];
  return pid;
}

// Reads both pipes until the child `pid` has ended (then drains what is
// already there) or the time is up (then kills it).
RunResult Collect(pid_t pid, int outFd, int errFd, int timeoutMs) {
  RunResult result;
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  bool ended = false;
  char buffer[65536];
  auto drain = [&](int i, bool block) {
    for (;;) {
      if (!block) {
        pollfd one{fds[i].fd, POLLIN, 0};
        if (::poll(&one, 1, 0) <= 0) return;
      }
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n <= 0) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        return;
      }
      (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
      if (block) return;
    }
  };
  while (!ended) {
    if (fds[0].fd >= 0 || fds[1].fd >= 0) {
      int n = ::poll(fds, 2, 50);
      if (n < 0 && errno != EINTR) break;
      for (int i = 0; i < 2 && n > 0; ++i) {
        if (fds[i].fd >= 0 && fds[i].revents != 0) drain(i, true);
      }
    } else {
      ::usleep(5000);
    }
    pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      ended = true;
    } else if (Clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      result.timedOut = true;
      ended = true;
    }
  }
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd >= 0) drain(i, false);
    if (fds[i].fd >= 0) ::close(fds[i].fd);
  }
  if (!result.timedOut && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (!result.timedOut && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/quorvane-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  if (std::getenv("QUORVANE_KEEP_TEMP") != nullptr) return;
  std::error_code ec;
  // Folders made unreadable by a test would stop the removal.
  for (auto it = std::filesystem::recursive_directory_iterator(
           path_, std::filesystem::directory_options::skip_permission_denied, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
  }
  ::chmod(path_.c_str(), 0755);
  std::filesystem::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) saved_ = old;
  if (value) ::setenv(name_.c_str(), value->c_str(), 1);
  else ::unsetenv(name_.c_str());
}

ScopedEnv::~ScopedEnv() {
  if (saved_) ::setenv(name_.c_str(), saved_->c_str(), 1);
  else ::unsetenv(name_.c_str());
}

void MakeDirs(const std::string& path) { std::filesystem::create_directories(path); }

void WriteFile(const std::string& path, const std::string& bytes) {
  std::filesystem::path p(path);
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void MakeSymlink(const std::string& target, const std::string& linkPath) {
  std::filesystem::path p(linkPath);
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
  if (::symlink(target.c_str(), linkPath.c_str()) != 0) throw std::runtime_error("symlink failed: " + linkPath);
}

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::string Utf16LeWithBom(const std::u16string& text) {
  std::vector<std::uint8_t> units = Utf16LeBytes(text, false);
  return "\xFF\xFE" + std::string(units.begin(), units.end());
}

std::vector<std::uint8_t> Utf16LeBytes(const std::u16string& text, bool terminate) {
  std::vector<std::uint8_t> bytes;
  for (char16_t c : text) {
    bytes.push_back(static_cast<std::uint8_t>(c & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(c >> 8));
  }
  if (terminate) bytes.insert(bytes.end(), {0, 0});
  return bytes;
}

RunResult Run(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env,
              const std::string& workingDirectory, int timeoutMs) {
  int outFd = -1, errFd = -1;
  pid_t pid = SpawnWithPipes(program, args, env, workingDirectory, outFd, &errFd);
  return Collect(pid, outFd, errFd, timeoutMs);
}

RunResult RunInChild(const std::function<int()>& body, bool withoutRootPowers) {
  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    ::dup2(outPipe[1], 1);
    ::dup2(errPipe[1], 2);
    if (withoutRootPowers && ::geteuid() == 0) {
      const uid_t nobody = 65534;
      if (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0) ::_exit(100);
    }
    const int code = body();
    std::fflush(stdout);
    std::fflush(stderr);
    ::_exit(code);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  return Collect(child, outPipe[0], errPipe[0], 120000);
}

Background::Background(Background&& other) noexcept
    : pid(other.pid), out(other.out), seen(std::move(other.seen)) {
  other.pid = -1;
  other.out = -1;
}

bool Background::WaitForOutput(const std::string& text, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[4096];
  while (seen.find(text) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (out < 0 || left <= 0) return false;
    pollfd fd{out, POLLIN, 0};
    if (::poll(&fd, 1, static_cast<int>(left)) <= 0) continue;
    ssize_t n = ::read(out, buffer, sizeof buffer);
    if (n <= 0) return seen.find(text) != std::string::npos;
    seen.append(buffer, static_cast<std::size_t>(n));
  }
  return true;
}

int Background::Finish(int signal) {
  int status = 0;
  if (pid > 0) {
    if (signal != 0) ::kill(pid, signal);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
  }
  if (out >= 0) ::close(out);
  out = -1;
  return status;
}

Background Spawn(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env) {
  Background background;
  background.pid = SpawnWithPipes(program, args, env, "", background.out, nullptr);
  return background;
}

}  // namespace qv::test
