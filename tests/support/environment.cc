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
namespace fs = std::filesystem;

// A pipe whose read end does not block and is not inherited.
void MakePipe(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
}

// Appends what the pipe holds now; closes it at its end.
void Drain(int& fd, std::string& text) {
  char buffer[65536];
  while (fd >= 0) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      return;
    } else {
      ::close(fd);
      fd = -1;
    }
  }
}

// Reads both pipes until the child has ended, then takes what they already
// hold (a background program may keep them open), or kills it when the time
// is up.
RunResult Collect(pid_t pid, int out, int err, int timeoutMs) {
  RunResult result;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  for (bool ended = false; !ended;) {
    ended = ::waitpid(pid, &status, WNOHANG) == pid;
    if (!ended && Clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      result.timedOut = ended = true;
    }
    pollfd fds[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    ::poll(fds, 2, ended ? 0 : 20);
    Drain(out, result.out);
    Drain(err, result.err);
  }
  for (int fd : {out, err}) {
    if (fd >= 0) ::close(fd);
  }
  if (!result.timedOut && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (!result.timedOut && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

// Starts `program` with stdin from /dev/null, stdout into a pipe and stderr
// into another (when `err` is given); the read ends come back.
pid_t SpawnWithPipes(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env,
                     const std::string& workingDirectory, int& out, int* err) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    if (const std::size_t eq = entry.find('='); eq != std::string::npos)
      merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [name, value] : env) {
    if (value.empty())
      merged.erase(name);
    else
      merged[name] = value;
  }
  std::vector<std::string> envStrings, argStrings{program};
  for (const auto& [name, value] : merged) envStrings.push_back(name + "=" + value);
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> envp, argv;
  for (std::string& s : envStrings) envp.push_back(s.data());
  for (std::string& s : argStrings) argv.push_back(s.data());
  envp.push_back(nullptr);
  argv.push_back(nullptr);

  int outPipe[2], errPipe[2] = {-1, -1};
  MakePipe(outPipe);
  if (err != nullptr) MakePipe(errPipe);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  if (err != nullptr) posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  if (!workingDirectory.empty()) posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  for (int fd : {outPipe[1], errPipe[1]}) {
    if (fd >= 0) ::close(fd);
  }
  if (rc != 0) throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc));
  out = outPipe[0];
  if (err != nullptr) *err = errPipe[0];
  return pid;
}

const char* TempBase() {
  const char* base = std::getenv("TMPDIR");
  return base != nullptr && *base != '\0' ? base : "/tmp";
}

}  // namespace

TempDir::TempDir() : TempDir(TempBase()) {}

TempDir::TempDir(const std::string& parent) {
  fs::create_directories(parent);
  std::string pattern = parent + "/quorvane-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  if (std::getenv("QUORVANE_KEEP_TEMP") != nullptr) return;
  std::error_code ec;
  // Folders made unreadable by a test would stop the removal.
  ::chmod(path_.c_str(), 0755);
  for (auto it = fs::recursive_directory_iterator(path_, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
  }
  fs::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) saved_ = old;
  if (value)
    ::setenv(name_.c_str(), value->c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

ScopedEnv::~ScopedEnv() {
  if (saved_)
    ::setenv(name_.c_str(), saved_->c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

void MakeDirs(const std::string& path) { fs::create_directories(path); }

void WriteFile(const std::string& path, const std::string& bytes) {
  if (fs::path(path).has_parent_path()) fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())))
    throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void MakeSymlink(const std::string& target, const std::string& linkPath) {
  if (fs::path(linkPath).has_parent_path()) fs::create_directories(fs::path(linkPath).parent_path());
  if (::symlink(target.c_str(), linkPath.c_str()) != 0) throw std::runtime_error("symlink failed: " + linkPath);
}

bool Exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

std::string Utf16LeWithBom(const std::u16string& text) {
  const std::vector<std::uint8_t> units = Utf16LeBytes(text, false);
  return "\xFF\xFE" + std::string(units.begin(), units.end());
}

std::vector<std::uint8_t> Utf16LeBytes(const std::u16string& text, bool terminate) {
  std::vector<std::uint8_t> bytes;
  for (char16_t c : text)
    bytes.insert(bytes.end(), {static_cast<std::uint8_t>(c & 0xFF), static_cast<std::uint8_t>(c >> 8)});
  if (terminate) bytes.insert(bytes.end(), {0, 0});
  return bytes;
}

RunResult Run(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env,
              const std::string& workingDirectory, int timeoutMs) {
  int out = -1, err = -1;
  const pid_t pid = SpawnWithPipes(program, args, env, workingDirectory, out, &err);
  return Collect(pid, out, err, timeoutMs);
}

RunResult RunInChild(const std::function<int()>& body, bool withoutRootPowers) {
  int out[2], err[2];
  MakePipe(out);
  MakePipe(err);
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    const uid_t nobody = 65534;
    if (withoutRootPowers && ::geteuid() == 0 &&
        (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0)) {
      ::_exit(100);
    }
    const int code = body();
    std::fflush(nullptr);
    ::_exit(code);
  }
  ::close(out[1]);
  ::close(err[1]);
  return Collect(child, out[0], err[0], 120000);
}

Background::Background(Background&& other) noexcept : pid(other.pid), out(other.out), seen(std::move(other.seen)) {
  other.pid = other.out = -1;
}

bool Background::WaitForOutput(const std::string& text, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (seen.find(text) == std::string::npos && out >= 0 && Clock::now() < deadline) {
    pollfd fd{out, POLLIN, 0};
    ::poll(&fd, 1, 20);
    Drain(out, seen);
  }
  return seen.find(text) != std::string::npos;
}

int Background::Finish(int signal) {
  int status = 0;
  if (pid > 0) {
    if (signal != 0) ::kill(pid, signal);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (out >= 0) ::close(out);
  pid = out = -1;
  return status;
}

Background Spawn(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env) {
  Background background;
  background.pid = SpawnWithPipes(program, args, env, "", background.out, nullptr);
  return background;
}

}  // namespace qv::test
