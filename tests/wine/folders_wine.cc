// Folders in the native build against Wine's own answers in a real prefix
// made by wineboot: the per-user folders, and the order of a listing.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "platform/wstring.h"
#include "user/user_folders.h"
#include "wine/wine_support.h"

namespace qv::test {
namespace {

TEST(WinePrefix, UserFoldersMatchWinesShellFolders) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  RunResult probe = RunUnderWine(prefix, QUORVANE_FOLDER_PROBE, {});
  ASSERT_EQ(probe.exitCode, 0) << probe.err;
  std::istringstream lines(probe.out);
  ::setenv("WINEPREFIX", prefix.c_str(), 1);
  int checked = 0;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    int csidl = 0;
    long result = 0;
    fields >> csidl >> result;
    std::string path;
    std::getline(fields >> std::ws, path);
    // Wine's console output ends lines with CR LF.
    if (!path.empty() && path.back() == '\r') path.pop_back();
    ASSERT_EQ(result, 0) << line;
    EXPECT_EQ(WideToUtf8(GetUserFolder(csidl)), path) << "CSIDL " << csidl;
    ++checked;
  }
  EXPECT_EQ(checked, 2);
}

// Every code unit of the Basic Multilingual Plane as a one-letter name, so
// that each place in the order tests the upper case of one code unit, and
// names where digits, '_', accents, prefixes and case decide.
TEST(WinePrefix, FolderListingInWinesOrder) {
  const std::string prefix = SharedWinePrefix();
  if (prefix.empty()) GTEST_SKIP() << "no Wine prefix: wine64 could not be installed or wineboot failed";
  TempDir dir;
  std::vector<std::string> names{"zeta", "Alpha", "Zulu", "_under", "10",   "a_b",
                                 "ab",   "Case",  "case", " lead",  "x.y", "\xC3\x89t\xC3\xA9"};
  for (char32_t c = 0x20; c <= 0xFFFF; ++c) {
    // Not surrogates, and not the characters that Windows forbids in names
    // (Wine shows them as other code units).
    if ((c >= 0xD800 && c <= 0xDFFF) || std::u32string_view(U"./\\:*?\"<>|").find(c) != std::u32string_view::npos) {
      continue;
    }
    names.push_back(WideToUtf8(std::u16string(1, static_cast<char16_t>(c))));
  }
  for (const std::string& name : names) ::close(::open((dir / name).c_str(), O_CREAT | O_WRONLY, 0644));

  ::setenv("WINEPREFIX", prefix.c_str(), 1);
  WString folder;
  ASSERT_TRUE(platform::posix::ToWindowsPath(dir.path(), folder));
  RunResult probe = RunUnderWine(prefix, QUORVANE_FOLDER_PROBE, {WideToUtf8(folder + u"\\*")});
  ASSERT_EQ(probe.exitCode, 0) << probe.err;
  std::vector<std::string> wine;
  std::istringstream lines(probe.out);
  for (std::string line; std::getline(lines, line);) wine.push_back(line);

  std::vector<std::string> native;
  platform::FindData found;
  platform::Handle search = platform::FindFirstFileW(folder + u"\\*", found);
  ASSERT_NE(search, platform::kInvalidHandle);
  do native.push_back(WideToUtf8(found.fileName));
  while (platform::FindNextFileW(search, found));
  platform::FindClose(search);
  ::unsetenv("WINEPREFIX");

  ASSERT_EQ(wine.size(), names.size() + 2);
  ASSERT_EQ(native.size(), wine.size());
  for (std::size_t i = 0; i < wine.size(); ++i) ASSERT_EQ(native[i], wine[i]) << "entry " << i;
}

}  // namespace
}  // namespace qv::test
