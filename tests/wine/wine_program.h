// A Windows program running under wine64 beside a test, such as one that
// holds a file open. Its output goes to /dev/null: Wine's background
// programs, started with the first program of a server, inherit it and keep
// it until the server ends, so runs made while it lives read their pipes to
// the end without waiting for the server to go.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qv::test {

class WineProgram {
 public:
  // `args` begins with the program's host path.
  WineProgram(const std::string& prefix, const std::vector<std::string>& args);
  ~WineProgram();  // ends it, if it still runs
  WineProgram(const WineProgram&) = delete;
  WineProgram& operator=(const WineProgram&) = delete;

  bool Running();
  // Waits until the host file `path` exists; false when the program ended
  // first.
  bool WaitFor(const std::string& path);

 private:
  pid_t pid_ = -1;
};

}  // namespace qv::test
