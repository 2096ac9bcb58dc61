// Console output, the command line and the end of the process on the Linux
// host: UTF-8 on both standard streams, and host paths in option values taken
// in Windows form.
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"

namespace qv::platform {

namespace {
void Write(std::FILE* stream, const std::string& bytes) { std::fwrite(bytes.data(), 1, bytes.size(), stream); }
}  // namespace

void WriteStdout(const WString& text) { Write(stdout, WideToUtf8(text)); }
void WriteStderr(const WString& text) { Write(stderr, WideToUtf8(text)); }
void WriteStderrNarrow(const std::string& text) { Write(stderr, text); }

std::vector<WString> CommandLineArguments(int argc, char** argv) {
  std::vector<WString> arguments;
  for (int i = 0; i < argc; ++i) {
    std::string raw = argv[i] != nullptr ? argv[i] : "";
    WString value = Utf8ToWide(raw);
    // Options come in pairs from index 2 on, so values stand at 3, 5, 7, ...
    // A value that is an absolute host path becomes its Windows form; the
    // action and the option names are never altered.
    if (i >= 3 && i % 2 == 1 && raw.size() >= 1 && raw[0] == '/' && !(raw.size() >= 2 && raw[1] == '/')) {
      WString windows;
      if (posix::ToWindowsPath(raw, windows)) value = windows;
    }
    arguments.push_back(value);
  }
  return arguments;
}

void TerminateNow() {
  ::kill(::getpid(), SIGKILL);
  ::_exit(137);
}

}  // namespace qv::platform
