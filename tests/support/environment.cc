#include "support/environment.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
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

#include "platform/wstring.h"

extern char** environ;

namespace qv::test {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

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

// Forks a child whose standard input is /dev/null and whose outputs go to
// pipes (their read ends do not block); the child ends with what `inChild`
// gives. Between fork and exec a child of a threaded process may only make
// async-signal-safe calls: `inChild` of a program makes no others.
Background StartChild(const std::function<int()>& inChild) {
  int out[2], err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);
  Background child;
  child.pid = ::fork();
  if (child.pid < 0) throw std::runtime_error("fork failed");
  if (child.pid == 0) {
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::_exit(inChild());
  }
  ::close(out[1]);
  ::close(err[1]);
  child.out = out[0];
  child.err = err[0];
  for (int fd : {out[0], err[0]}) ::fcntl(fd, F_SETFL, O_NONBLOCK);
  return child;
}

void SetEnv(const std::string& name, const std::optional<std::string>& value) {
  value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
}

}  // namespace

TempDir::TempDir() : TempDir(std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "/tmp") {}

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
  SetEnv(name_, value);
}

ScopedEnv::~ScopedEnv() { SetEnv(name_, saved_); }

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

std::vector<std::uint8_t> Utf16LeBytes(const std::u16string& text, bool terminate) {
  const std::string bytes = qv::Utf16LeBytes(terminate ? text + u'\0' : text);
  return {bytes.begin(), bytes.end()};
}

Background Spawn(const std::string& program, const std::vector<std::string>& args, const EnvChanges& env) {
  std::vector<std::string> envStrings, argStrings{program};
  for (char** e = environ; *e != nullptr; ++e) {
    if (!env.contains(std::string(*e).substr(0, std::string(*e).find('=')))) envStrings.push_back(*e);
  }
  for (const auto& [name, value] : env) {
    if (!value.empty()) envStrings.push_back(name + "=" + value);
  }
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::vector<char*> envp{nullptr}, argv{nullptr};
  for (std::string& s : envStrings) envp.insert(envp.end() - 1, s.data());
  for (std::string& s : argStrings) argv.insert(argv.end() - 1, s.data());
  return StartChild([&] {
    ::execve(program.c_str(), argv.data(), envp.data());
    return 127;
  });
}

RunResult RunInChild(const std::function<int()>& body, bool withoutRootPowers) {
  return StartChild([&] {
    const uid_t nobody = 65534;
    if (withoutRootPowers && ::geteuid() == 0 &&
        (::setresgid(nobody, nobody, nobody) != 0 || ::setresuid(nobody, nobody, nobody) != 0)) {
      return 100;
    }
    const int code = body();
    std::fflush(nullptr);
    return code;
  }).Finish();
}

Background::Background(Background&& other) noexcept
    : pid(other.pid), out(other.out), err(other.err), seen(std::move(other.seen)) {
  other.pid = other.out = other.err = -1;
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

RunResult Background::Finish(int signal, int timeoutMs) {
  RunResult result;
  if (pid > 0 && signal != 0) ::kill(pid, signal);
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  bool timedOut = false;
  for (bool ended = pid <= 0; !ended;) {
    ended = ::waitpid(pid, &status, WNOHANG) == pid;
    if (!ended && Clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      timedOut = ended = true;
    }
    pollfd fds[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    ::poll(fds, 2, ended ? 0 : 20);
    Drain(out, seen);
    Drain(err, result.err);
  }
  for (int fd : {out, err}) {
    if (fd >= 0) ::close(fd);
  }
  if (pid > 0 && !timedOut && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (pid > 0 && !timedOut && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.out = std::move(seen);
  pid = out = err = -1;
  return result;
}

}  // namespace qv::test
