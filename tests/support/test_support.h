// Helpers for tests: temporary folders, small file writers, and running the
// built binary with a chosen environment.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace qv::test {

// A fresh folder below $TMPDIR (or /tmp), removed with everything in it when
// the object goes (unless QUORVANE_KEEP_TEMP is set).
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// Writes bytes to a host file, making missing parent folders.
void WriteFile(const std::string& path, const std::string& bytes);
std::string ReadFile(const std::string& path);
void MakeDirs(const std::string& path);
void MakeSymlink(const std::string& target, const std::string& linkPath);
bool Exists(const std::string& path);

// UTF-16LE bytes with a BOM, as the Windows tools write text files.
std::string Utf16LeWithBom(const std::u16string& text);

struct RunResult {
  int exitCode = -1;  // -1 when killed by a signal
  int signal = 0;
  std::string out;
  std::string err;
};

// Runs a program with arguments. `env` entries replace or add variables of
// the current environment; an entry with an empty value removes it.
RunResult Run(const std::string& program, const std::vector<std::string>& args,
              const std::map<std::string, std::string>& env = {}, const std::string& workingDirectory = "");

// The built Quorvane_Setup.
std::string ToolBinary();

}  // namespace qv::test
