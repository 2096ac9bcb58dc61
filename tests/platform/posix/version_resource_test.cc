// The version resource read from PE files: programs that MinGW-w64 built with
// known versions, images made here byte by byte, and damaged copies of both.
#include "platform/posix/version_resource.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/host.h"
#include "support/environment.h"

namespace qv::platform {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

std::string VersionText(const FixedFileInfo& info) {
  return std::to_string(info.fileVersionMS >> 16) + "." + std::to_string(info.fileVersionMS & 0xFFFF) + "." +
         std::to_string(info.fileVersionLS >> 16) + "." + std::to_string(info.fileVersionLS & 0xFFFF);
}

// The version of an image in memory, or "" when it has none.
std::string VersionOf(std::string_view bytes) {
  posix::ResourceSpan span;
  if (!posix::FindVersionResource(posix::MemoryImage(bytes), span)) return "";
  FixedFileInfo info;
  const auto* block = reinterpret_cast<const std::uint8_t*>(bytes.data()) + span.offset;
  if (!posix::ParseFixedFileInfo(block, span.size, info)) return "";
  return VersionText(info);
}

std::string BuiltProgram(const std::string& name) {
#if defined(QUORVANE_TEST_PE_DIR)
  return std::string(QUORVANE_TEST_PE_DIR) + "/" + name;
#else
  (void)name;
  return "";
#endif
}

#define REQUIRE_BUILT_PROGRAMS()                                                                 \
  do {                                                                                           \
    if (BuiltProgram("x").empty()) {                                                             \
      GTEST_SKIP() << "x86_64-w64-mingw32-g++-posix or -windres not found: no test executables"; \
    }                                                                                            \
  } while (0)

// Little-endian writer for images made in the tests.
struct Bytes {
  std::string b;
  void U16(std::uint32_t v) {
    b.push_back(static_cast<char>(v & 0xFF));
    b.push_back(static_cast<char>((v >> 8) & 0xFF));
  }
  void U32(std::uint32_t v) {
    U16(v & 0xFFFF);
    U16(v >> 16);
  }
  void PadTo(std::size_t size) { b.resize(std::max(b.size(), size), '\0'); }
  void Set32(std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  }
};

// A VS_VERSIONINFO block with its fixed record and nothing else.
std::string VersionBlock(std::uint32_t ms, std::uint32_t ls, std::uint16_t valueLength = 52) {
  Bytes v;
  v.U16(92);
  v.U16(valueLength);
  v.U16(0);
  for (char c : std::string("VS_VERSION_INFO")) v.U16(static_cast<unsigned char>(c));
  v.U16(0);
  v.PadTo(40);
  for (std::uint32_t d : {0xFEEF04BDu, 0x10000u, ms, ls, ms, ls, 0x3Fu, 0u, 0x40004u, 1u, 0u, 0u, 0u}) v.U32(d);
  return v.b;
}

constexpr std::uint32_t kSectionRva = 0x1000;

// A resource section at kSectionRva: type `typeId`, name `nameId`, and one
// language entry for each (language, block) pair, in that order.
std::string ResourceSection(const std::vector<std::pair<std::uint16_t, std::string>>& languages,
                            std::uint32_t typeId = 16, std::uint32_t nameId = 1) {
  Bytes s;
  auto directory = [&](std::size_t count) {
    s.U32(0), s.U32(0), s.U16(0), s.U16(0), s.U16(0), s.U16(static_cast<std::uint32_t>(count));
  };
  directory(1);
  s.U32(typeId);
  s.U32(0x80000000u | 0x18);
  directory(1);
  s.U32(nameId);
  s.U32(0x80000000u | 0x30);
  directory(languages.size());
  const std::size_t entries = 0x30 + 16 + 8 * languages.size();
  for (std::size_t i = 0; i < languages.size(); ++i) {
    s.U32(languages[i].first);
    s.U32(static_cast<std::uint32_t>(entries + 16 * i));
  }
  std::size_t blockAt = entries + 16 * languages.size();
  for (const auto& language : languages) {
    s.U32(static_cast<std::uint32_t>(kSectionRva + blockAt));
    s.U32(static_cast<std::uint32_t>(language.second.size()));
    s.U32(0);
    s.U32(0);
    blockAt += (language.second.size() + 3) & ~std::size_t{3};
  }
  for (const auto& language : languages) {
    s.b += language.second;
    s.PadTo((s.b.size() + 3) & ~std::size_t{3});
  }
  return s.b;
}

// A PE32 or PE32+ image with one section holding `section` at kSectionRva.
std::string Image(bool pe32, const std::string& section) {
  Bytes p;
  p.b = "MZ";
  p.PadTo(0x3C);
  p.U32(0x40);
  p.b += std::string("PE\0\0", 4);
  p.U16(pe32 ? 0x14C : 0x8664);
  p.U16(1);
  p.U32(0), p.U32(0), p.U32(0);
  const std::uint16_t optionalSize = pe32 ? 0xE0 : 0xF0;
  p.U16(optionalSize);
  p.U16(0x22);
  const std::size_t optional = p.b.size();
  p.U16(pe32 ? 0x10B : 0x20B);
  p.PadTo(optional + (pe32 ? 92 : 108));
  p.U32(16);
  p.PadTo(optional + (pe32 ? 96 : 112) + 16);
  p.U32(kSectionRva);
  p.U32(static_cast<std::uint32_t>(section.size()));
  p.PadTo(optional + optionalSize);
  p.b += std::string(".rsrc\0\0\0", 8);
  p.U32(static_cast<std::uint32_t>(section.size()));
  p.U32(kSectionRva);
  p.U32(static_cast<std::uint32_t>((section.size() + 0x1FF) & ~std::size_t{0x1FF}));
  p.U32(0x200);
  p.PadTo(0x200);
  p.b += section;
  p.PadTo((p.b.size() + 0x1FF) & ~std::size_t{0x1FF});
  return p.b;
}

// Z: is the host's root in a prefix that maps no drive.
class VersionResource : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("WINEPREFIX", (dir_ / "prefix").c_str(), 1); }
  void TearDown() override { ::unsetenv("WINEPREFIX"); }

  // The version through the seam, as the status report asks for it.
  std::string SeamVersion(const std::string& host, std::uint32_t* sizeOut = nullptr) {
    WString path;
    EXPECT_TRUE(posix::ToWindowsPath(host, path));
    std::uint32_t size = GetFileVersionInfoSizeW(path);
    if (sizeOut != nullptr) *sizeOut = size;
    if (size == 0) return "";
    std::vector<std::uint8_t> data;
    if (!GetFileVersionInfoW(path, size, data)) return "";
    EXPECT_EQ(data.size(), size);
    FixedFileInfo info;
    if (!VerQueryValueRootW(data, info)) return "";
    EXPECT_EQ(info.signature, 0xFEEF04BDu);
    return VersionText(info);
  }
  TempDir dir_;
};

TEST_F(VersionResource, BuiltProgramsAndFilesWithoutVersion) {
  REQUIRE_BUILT_PROGRAMS();
  std::uint32_t size = 0;
  EXPECT_EQ(SeamVersion(BuiltProgram("program_1_2_3_4.exe"), &size), "1.2.3.4");
  // Wine asks for twice the resource and four bytes (748 for this one).
  posix::ResourceSpan span;
  ASSERT_TRUE(posix::FindVersionResource(posix::MemoryImage(ReadFile(BuiltProgram("program_1_2_3_4.exe"))), span));
  EXPECT_EQ(size, span.size * 2 + 4);
  EXPECT_EQ(SeamVersion(BuiltProgram("tiny_65535_0_7_65535.exe")), "65535.0.7.65535");

  EXPECT_EQ(SeamVersion(BuiltProgram("tiny_no_version.exe"), &size), "");
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(GetLastError(), 1812u);
  WriteFile(dir_ / "text.exe", "MZ but nothing else of an executable");
  WriteFile(dir_ / "empty.exe", "");
  WriteFile(dir_ / "plain.txt", "just text");
  test::MakeDirs(dir_ / "prefix");
  for (const char* name : {"text.exe", "empty.exe", "plain.txt", "missing.exe", "prefix"}) {
    EXPECT_EQ(SeamVersion(dir_ / name, &size), "") << name;
    EXPECT_EQ(size, 0u) << name;
  }
  // The codes Wine gives: a missing file, a missing folder, a folder.
  EXPECT_EQ(SeamVersion(dir_ / "missing.exe"), "");
  EXPECT_EQ(GetLastError(), kErrorFileNotFound);
  EXPECT_EQ(SeamVersion(dir_ / "missing/x.exe"), "");
  EXPECT_EQ(GetLastError(), kErrorPathNotFound);
  EXPECT_EQ(SeamVersion(dir_ / "prefix"), "");
  EXPECT_EQ(GetLastError(), kErrorAccessDenied);
}

// Every shorter copy of a real program: the version is there exactly when the
// resource's data is; a damaged file on disk gives none through the seam.
TEST_F(VersionResource, TruncatedCopies) {
  REQUIRE_BUILT_PROGRAMS();
  const std::string program = ReadFile(BuiltProgram("program_1_2_3_4.exe"));
  posix::ResourceSpan span;
  ASSERT_TRUE(posix::FindVersionResource(posix::MemoryImage(program), span));
  const std::size_t needed = span.offset + span.size;
  for (std::size_t cut = 0; cut <= program.size(); ++cut) {
    std::string version = VersionOf(std::string_view(program).substr(0, cut));
    if (cut < needed) {
      ASSERT_EQ(version, "") << "cut at " << cut;
    } else {
      ASSERT_EQ(version, "1.2.3.4") << "cut at " << cut;
    }
  }
  for (std::size_t cut : {std::size_t{2}, std::size_t{64}, std::size_t{0x100}, needed - 1}) {
    WriteFile(dir_ / "cut.exe", program.substr(0, cut));
    EXPECT_EQ(SeamVersion(dir_ / "cut.exe"), "") << cut;
  }
}

// Each byte of the headers flipped in turn: never a crash or a read outside
// the image; a broken signature always means no version.
TEST_F(VersionResource, FlippedHeaderBytes) {
  REQUIRE_BUILT_PROGRAMS();
  const std::string program = ReadFile(BuiltProgram("program_1_2_3_4.exe"));
  const std::size_t peOffset = static_cast<unsigned char>(program[0x3C]) | (static_cast<unsigned char>(program[0x3D]) << 8);
  const std::size_t headers = std::min<std::size_t>(program.size(), 0x400);
  for (std::size_t at = 0; at < headers; ++at) {
    for (unsigned char mask : {0x01, 0x80, 0xFF}) {
      std::string copy = program;
      copy[at] = static_cast<char>(copy[at] ^ mask);
      std::string version = VersionOf(copy);
      if (at < 2 || (at >= peOffset && at < peOffset + 4)) {
        EXPECT_EQ(version, "") << at;
      }
    }
  }
}

TEST_F(VersionResource, ImagesMadeByteByByte) {
  const std::string block = VersionBlock(0x00030001, 0x00040001);
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x409, block}}))), "3.1.4.1");
  EXPECT_EQ(VersionOf(Image(true, ResourceSection({{0x409, block}}))), "3.1.4.1");
  // The neutral language before English, English before the first listed.
  const std::string german = VersionBlock(0x00070000, 0);
  const std::string english = VersionBlock(0x00090000, 0);
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x407, german}, {0x409, english}}))), "9.0.0.0");
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x407, german}, {0x40C, english}}))), "7.0.0.0");
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x409, german}, {0x000, english}}))), "9.0.0.0");
  // Another type or resource name is no version resource.
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x409, block}}, 6))), "");
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x409, block}}, 16, 2))), "");
  // A block without its fixed record, or with a key that never ends.
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x409, VersionBlock(1, 2, 0)}}))), "");
  std::string endless = block;
  endless[0] = 36;  // wLength ends the block inside its key
  EXPECT_EQ(VersionOf(Image(false, ResourceSection({{0x409, endless}}))), "");

  // Trees that point back into themselves: the walk stops after three levels.
  Bytes loop{ResourceSection({{0x409, block}}, 1, 1)};
  loop.Set32(4 + 16, 0x80000000u);  // type 1 leads back to the root
  EXPECT_EQ(VersionOf(Image(false, loop.b)), "");
  Bytes self{ResourceSection({{0x409, block}})};
  self.Set32(0x18 + 16 + 4, 0x80000000u | 0x18);  // the name directory is its own child
  EXPECT_EQ(VersionOf(Image(false, self.b)), "");
  // Offsets past the section or the file.
  Bytes far{ResourceSection({{0x409, block}})};
  far.Set32(0x30 + 16 + 4, 0x7FFFFFF0u);  // data entry beyond the section
  EXPECT_EQ(VersionOf(Image(false, far.b)), "");
  Bytes huge{ResourceSection({{0x409, block}})};
  huge.Set32(0x30 + 16 + 8 + 4, 0xFFFFFFF0u);  // resource size beyond the file
  EXPECT_EQ(VersionOf(Image(false, huge.b)), "");
  Bytes many{ResourceSection({{0x409, block}})};
  many.Set32(12, 0xFFFFFFFFu);  // 131070 entries claimed in a small section
  EXPECT_EQ(VersionOf(Image(false, many.b)), "");
}

}  // namespace
}  // namespace qv::platform
