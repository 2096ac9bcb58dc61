// The version resource of PE files through the seam: programs that MinGW-w64
// built with known versions, and files that have none.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"
#include "support/prefix.h"

namespace qv::platform {
namespace {

using VersionResource = test::PrefixCase;

// "a.b.c.d", or "<error N>" of the first call that failed.
std::string VersionOf(const WString& path) {
  const std::uint32_t size = GetFileVersionInfoSizeW(path);
  std::vector<std::uint8_t> data;
  FixedFileInfo info;
  if (size == 0 || !GetFileVersionInfoW(path, size, data) || !VerQueryValueRootW(data, info)) {
    return "<error " + std::to_string(GetLastError()) + ">";
  }
  return std::to_string(info.fileVersionMS >> 16) + "." + std::to_string(info.fileVersionMS & 0xFFFF) + "." +
         std::to_string(info.fileVersionLS >> 16) + "." + std::to_string(info.fileVersionLS & 0xFFFF);
}

TEST_F(VersionResource, VersionsOfBuiltProgramsAndOfFilesWithout) {
#ifndef QUORVANE_TEST_PE_DIR
  GTEST_SKIP() << "x86_64-w64-mingw32-g++-posix or -windres not found: no test executables";
#define QUORVANE_TEST_PE_DIR ""
#endif
  const std::string built = QUORVANE_TEST_PE_DIR;
  test::MakeDirs(Host("folder"));
  WString windowsBuilt;
  ASSERT_TRUE(posix::ToWindowsPath(built, windowsBuilt));
  const std::pair<WString, std::string> rows[] = {
      {windowsBuilt + u"\\program_1_2_3_4.exe", "1.2.3.4"},
      {windowsBuilt + u"\\tiny_65535_0_7_65535.exe", "65535.0.7.65535"},
      {windowsBuilt + u"\\tiny_no_version.exe", "<error 1812>"},
      {Win("missing.exe"), "<error 2>"},
      {Win("missing/x.exe"), "<error 3>"},
      {Win("folder"), "<error 5>"},
  };
  for (const auto& [path, version] : rows) EXPECT_EQ(VersionOf(path), version) << WideToUtf8(path);
}

}  // namespace
}  // namespace qv::platform
