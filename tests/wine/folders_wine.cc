// Folders in the native build against Wine's own answers: the order of a
// listing, and links.
#include <gtest/gtest.h>

#include <sstream>

#include "platform/platform.h"
#include "platform/posix/host_paths.h"
#include "platform/wstring.h"
#include "support/scene.h"

namespace qv::test {
namespace {

using Listing = std::vector<std::pair<std::string, std::uint32_t>>;  // names and attributes

// A host folder as Wine lists it through the probe, and as the native build does.
std::pair<Listing, Listing> ListBothWays(const std::string& prefix, const std::string& folder) {
  WString pattern;
  EXPECT_TRUE(platform::posix::ToWindowsPath(folder, pattern));
  pattern += u"\\*";
  Listing wine, native;
  std::istringstream lines(RunUnderWine(prefix, {QUORVANE_WINE_PROBE, "list", WideToUtf8(pattern)}).out);
  for (std::string line; std::getline(lines, line);) {
    wine.emplace_back(line.substr(0, line.find('\t')), std::stoul(line.substr(line.find('\t') + 1), nullptr, 16));
  }
  platform::FindData found;
  platform::Handle search = platform::FindFirstFileW(pattern, found);
  EXPECT_NE(search, platform::kInvalidHandle);
  do native.emplace_back(WideToUtf8(found.fileName), found.attributes);
  while (search != platform::kInvalidHandle && platform::FindNextFileW(search, found));
  platform::FindClose(search);
  return {wine, native};
}

// Every code unit of the Basic Multilingual Plane as a one-letter name, so
// that each place in the order tests the upper case of one code unit, and
// names where digits, '_', accents, prefixes and case decide.
TEST_F(WinePrefix, FolderListingInWinesOrder) {
  TempDir dir;
  std::vector<std::string> names{"zeta", "Alpha", "Zulu", "_under", "10",   "a_b",
                                 "ab",   "Case",  "case", " lead",  "x.y", "\xC3\x89t\xC3\xA9"};
  for (char32_t c = 0x20; c <= 0xFFFF; ++c) {
    // Not surrogates, and not the characters that Windows forbids in names
    // (Wine shows them as other code units).
    if ((c < 0xD800 || c > 0xDFFF) && std::u32string_view(U"./\\:*?\"<>|").find(c) == std::u32string_view::npos) {
      names.push_back(WideToUtf8(std::u16string(1, static_cast<char16_t>(c))));
    }
  }
  for (const std::string& name : names) WriteFile(dir / name, "");
  const auto [wine, native] = ListBothWays(prefix, dir.path());
  ASSERT_EQ(wine.size(), names.size() + 2);
  ASSERT_EQ(native.size(), wine.size());
  for (std::size_t i = 0; i < wine.size(); ++i) ASSERT_EQ(native[i].first, wine[i].first) << "entry " << i;
}

// Where Wine 8 and Windows part, the native build answers as Windows does:
// Wine gives a link to a file no reparse attribute and leaves a dangling link
// out of a listing, and it gives the root of Z: (its link to /) the reparse
// attribute. The safety checks refuse links as reparse points; the native
// build refuses every link below a drive root, and takes a drive's root as
// a folder.
TEST_F(WinePrefix, LinksAsWineAndWindowsShowThem) {
  TempDir dir;
  WriteFile(dir / "file", "x");
  MakeDirs(dir / "folder");
  MakeSymlink(dir / "file", dir / "file-link");
  MakeSymlink(dir / "folder", dir / "folder-link");
  MakeSymlink(dir / "nowhere", dir / "dangling");
  const auto text = [](const Listing& entries) {
    std::string text;
    for (const auto& [name, attributes] : entries) {
      if (name != "." && name != "..")
        text += name + ((attributes & platform::kFileAttributeReparsePoint) ? " reparse\n" : "\n");
    }
    return text;
  };
  const auto [wine, native] = ListBothWays(prefix, dir.path());
  EXPECT_EQ(text(wine), "file\nfile-link\nfolder\nfolder-link reparse\n");
  EXPECT_EQ(text(native), "dangling reparse\nfile\nfile-link reparse\nfolder\nfolder-link reparse\n");

  const RunResult root = Wine({QUORVANE_WINE_PROBE, "attributes", "Z:\\"});
  EXPECT_NE(std::stoul(root.out, nullptr, 16) & platform::kFileAttributeReparsePoint, 0u) << root.out;
  EXPECT_EQ(platform::GetFileAttributesW(u"Z:\\") & platform::kFileAttributeReparsePoint, 0u);
}

}  // namespace
}  // namespace qv::test
