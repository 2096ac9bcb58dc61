#include "support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace qv::test {

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
  std::string bytes = "\xFF\xFE";
  for (char16_t c : text) {
    bytes.push_back(static_cast<char>(c & 0xFF));
    bytes.push_back(static_cast<char>(c >> 8));
  }
  return bytes;
}

RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::map<std::string, std::string>& env, const std::string& workingDirectory) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    auto eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [k, v] : env) {
    if (v.empty()) merged.erase(k);
    else merged[k] = v;
  }
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

  int outPipe[2], errPipe[2];
  if (::pipe(outPipe) != 0 || ::pipe(errPipe) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  posix_spawn_file_actions_addclose(&actions, outPipe[0]);
  posix_spawn_file_actions_addclose(&actions, errPipe[0]);
  int devnull = ::open("/dev/null", O_RDONLY);
  posix_spawn_file_actions_adddup2(&actions, devnull, 0);
  if (!workingDirectory.empty()) posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
  pid_t pid = 0;
  int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(devnull);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (rc != 0) {
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc));
  }
  RunResult result;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  int open = 2;
  char buffer[65536];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? result.out : result.err).append(buffer, static_cast<std::size_t>(n));
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

std::string ToolBinary() {
  if (const char* b = std::getenv("QUORVANE_BINARY"); b != nullptr && *b != '\0') return b;
  return QUORVANE_BINARY;
}

}  // namespace qv::test
