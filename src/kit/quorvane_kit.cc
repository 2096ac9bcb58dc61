// Quorvane_Kit.exe: the pieces of the deployment kit that a batch script
// cannot do on its own.
//
//   Quorvane_Kit.exe stamp <package>    gives the package's payload its identity
//   Quorvane_Kit.exe check <package>    prints that identity if the payload still has it
//   Quorvane_Kit.exe stamped <identity> <report>
//                                       whether every add-in of a /status report holds that stamp
//   Quorvane_Kit.exe clock              prints the local time and a millisecond count
//   Quorvane_Kit.exe elapsed <count> [<end count>]
//                                       prints the seconds from the one count to the other (or now)
//
// A payload's identity is the SHA-256 of its files: every file below
// <package>\AddIn (but the stamp itself) and <package>\Bin\Quorvane_Helper.exe,
// in the order of their names, each as its name, its size and its bytes. The
// stamp is <package>\AddIn\Quorvane_Payload.id, so the tool copies it into
// every profile with the add-in, where detection finds it again. Failures end
// with exit code 8, as the kit's own failures do.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#include <shellapi.h>
#endif

namespace {

namespace fs = std::filesystem;
constexpr int kKitFailure = 8;
constexpr char kStampName[] = "Quorvane_Payload.id";

class Sha256 {
 public:
  void Add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    length_ += size;
    for (std::size_t i = 0; i < size; ++i) {
      block_[used_++] = bytes[i];
      if (used_ == 64) Compress();
    }
  }
  void Add(const std::string& text) { Add(text.data(), text.size()); }

  std::string HexDigest() {
    const std::uint64_t bits = length_ * 8;
    const unsigned char pad = 0x80, zero = 0;
    Add(&pad, 1);
    while (used_ != 56) Add(&zero, 1);
    for (int shift = 56; shift >= 0; shift -= 8) {
      const auto byte = static_cast<unsigned char>(bits >> shift);
      Add(&byte, 1);
    }
    std::string hex;
    for (const std::uint32_t word : state_) {
      char part[9];
      std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(word));
      hex += part;
    }
    return hex;
  }

 private:
  static std::uint32_t Rotate(std::uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

  void Compress() {
    static constexpr std::uint32_t k[64] = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
        0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
        0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
        0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
        0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
        0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
        0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};
    std::uint32_t w[64];
    for (int i = 0; i < 16; ++i) {
      w[i] = std::uint32_t{block_[4 * i]} << 24 | std::uint32_t{block_[4 * i + 1]} << 16 |
             std::uint32_t{block_[4 * i + 2]} << 8 | block_[4 * i + 3];
    }
    for (int i = 16; i < 64; ++i) {
      const std::uint32_t s0 = Rotate(w[i - 15], 7) ^ Rotate(w[i - 15], 18) ^ (w[i - 15] >> 3);
      const std::uint32_t s1 = Rotate(w[i - 2], 17) ^ Rotate(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    std::array<std::uint32_t, 8> v = state_;
    for (int i = 0; i < 64; ++i) {
      const std::uint32_t s1 = Rotate(v[4], 6) ^ Rotate(v[4], 11) ^ Rotate(v[4], 25);
      const std::uint32_t t1 = v[7] + s1 + ((v[4] & v[5]) ^ (~v[4] & v[6])) + k[i] + w[i];
      const std::uint32_t s0 = Rotate(v[0], 2) ^ Rotate(v[0], 13) ^ Rotate(v[0], 22);
      const std::uint32_t t2 = s0 + ((v[0] & v[1]) ^ (v[0] & v[2]) ^ (v[1] & v[2]));
      std::copy_backward(v.begin(), v.end() - 1, v.end());
      v[4] += t1;
      v[0] = t1 + t2;
    }
    for (int i = 0; i < 8; ++i) state_[i] += v[i];
    used_ = 0;
  }

  std::array<std::uint32_t, 8> state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  unsigned char block_[64] = {};
  std::size_t used_ = 0;
  std::uint64_t length_ = 0;
};

struct Failure {
  std::string text;
};

fs::path PathOf(const std::string& utf8) { return fs::path(std::u8string(utf8.begin(), utf8.end())); }

std::string Utf8(const fs::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

// The name of `file` below `package` as the identity counts it: UTF-8, with
// backslashes.
std::string PayloadName(const fs::path& package, const fs::path& file) {
  std::string name = Utf8(file.lexically_relative(package));
  std::replace(name.begin(), name.end(), '/', '\\');
  return name;
}

std::string PayloadIdentity(const fs::path& package) {
  const fs::path addIn = package / "AddIn", helper = package / "Bin" / "Quorvane_Helper.exe";
  std::error_code error;
  if (!fs::is_directory(addIn, error)) throw Failure{"The package has no AddIn folder: " + Utf8(addIn)};
  if (!fs::is_regular_file(helper, error)) throw Failure{"The package has no helper: " + Utf8(helper)};
  std::vector<std::pair<std::string, fs::path>> files{{PayloadName(package, helper), helper}};
  for (fs::recursive_directory_iterator it(addIn, error), end; it != end; it.increment(error)) {
    if (error) break;
    if (it->is_regular_file(error) && it->path() != addIn / kStampName) {
      files.emplace_back(PayloadName(package, it->path()), it->path());
    }
  }
  if (error) throw Failure{"Cannot list the package's AddIn folder: " + error.message()};
  std::sort(files.begin(), files.end());
  Sha256 hash;
  std::vector<char> buffer(1 << 16);
  for (const auto& [name, path] : files) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure{"Cannot read " + Utf8(path)};
    hash.Add(name.c_str(), name.size() + 1);
    hash.Add(std::to_string(fs::file_size(path, error)) + '\0');
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
      hash.Add(buffer.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (in.bad()) throw Failure{"Cannot read " + Utf8(path)};
  }
  return hash.HexDigest();
}

void WriteText(const fs::path& file, const std::string& text) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw Failure{"Cannot write " + Utf8(file)};
}

// The detection script for Intune and Configuration Manager: it only calls the
// kit's detection, kept by the install wrapper below the local AppData folder
// (the package is gone when detection runs), and keeps its output only for
// "installed".
std::string DetectionScript(const std::string& identity) {
  return "# Detection of the Quorvane payload " + identity +
         " (written by Quorvane_Kit.exe stamp).\r\n"
         "# Installed: exit 0 with output. Not installed: exit 0 without output. Otherwise: not determined.\r\n"
         "$deploy = Join-Path $env:LOCALAPPDATA 'Quorvane\\Kit\\Quorvane_Deploy.cmd'\r\n"
         "if (-not (Test-Path -LiteralPath $deploy)) { exit 0 }\r\n"
         "$out = & $deploy detect '" + identity + "'\r\n"
         "$code = $LASTEXITCODE\r\n"
         "if ($code -eq 0 -and \"$out\" -match ' is installed') { $out }\r\n"
         "exit $code\r\n";
}

// The first line of `file`, without its line end; empty when there is none.
std::string FirstLine(const fs::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::int64_t NowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int Run(const std::vector<std::string>& args) {
  const std::string command = args.empty() ? "" : args[0];
  if (command == "clock" && args.size() == 1) {
    const std::int64_t now = NowMilliseconds();
    const std::time_t seconds = static_cast<std::time_t>(now / 1000);
    std::tm local{};
#ifdef _WIN32
    localtime_s(&local, &seconds);
#else
    localtime_r(&seconds, &local);
#endif
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::printf("%s.%03d %lld\n", text, static_cast<int>(now % 1000), static_cast<long long>(now));
    return 0;
  }
  if (command == "elapsed" && (args.size() == 2 || args.size() == 3)) {
    const std::int64_t until = args.size() == 3 ? std::stoll(args[2]) : NowMilliseconds();
    const std::int64_t span = until - std::stoll(args[1]);
    std::printf("%lld.%03d s\n", static_cast<long long>(span / 1000), static_cast<int>(span % 1000));
    return 0;
  }
  if (command == "stamped" && args.size() == 3) {
    // The report as the tool writes it to a file: UTF-8, so every character
    // of a path survives, which cmd's reading of it would not promise.
    std::ifstream report(PathOf(args[2]));
    if (!report) throw Failure{"Cannot read " + args[2]};
    const std::string label = "Add-In path: ";
    int holding = 0;
    for (std::string line; std::getline(report, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.rfind(label, 0) != 0) continue;
      const std::string addIn = line.substr(label.size());
      if (FirstLine(PathOf(addIn) / kStampName) != args[1]) {
        std::printf("%s\n", addIn.c_str());
        return 1;
      }
      ++holding;
    }
    std::printf("%d\n", holding);
    return holding > 0 ? 0 : 1;
  }
  if ((command == "stamp" || command == "check") && args.size() == 2) {
    const fs::path package = PathOf(args[1]);
    const std::string identity = PayloadIdentity(package);
    if (command == "stamp") {
      WriteText(package / "AddIn" / kStampName, identity + "\r\n");
      WriteText(package / "Quorvane_Detect.ps1", DetectionScript(identity));
      std::printf("Payload %s\nStamp: %s\nDetection script: %s\n", identity.c_str(),
                  Utf8(package / "AddIn" / kStampName).c_str(),
                  Utf8(package / "Quorvane_Detect.ps1").c_str());
      return 0;
    }
    const std::string stamped = FirstLine(package / "AddIn" / kStampName);
    if (stamped.empty()) throw Failure{"The package is not stamped: run Quorvane_Kit.exe stamp on it."};
    if (stamped != identity) {
      throw Failure{"The payload changed after it was stamped (stamp " + stamped + ", payload " + identity +
                    "): stamp the package again and deploy its new detection script."};
    }
    std::printf("%s\n", identity.c_str());
    return 0;
  }
  throw Failure{"Usage: Quorvane_Kit.exe stamp|check <package folder> | stamped <identity> <report> | clock |"
                " elapsed <count> [<end count>]"};
}

}  // namespace

#ifdef _WIN32
// Arguments as the system gives them, so that a package path keeps every
// character whatever the code page.
int main() {
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> args;
  for (int i = 1; i < count; ++i) args.push_back(Utf8(fs::path(wide[i])));
  LocalFree(wide);
#else
int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
#endif
  try {
    return Run(args);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "%s\n", failure.text.c_str());
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
  }
  return kKitFailure;
}
