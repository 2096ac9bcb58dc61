// The version functions of the seam on the Linux host: the resource is
// found in the PE file's bytes.
#include "platform/posix/version_resource.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/posix/file_bytes.h"

namespace qv::platform {
namespace posix {
namespace {

constexpr std::uint32_t kRtVersion = 16;
constexpr std::uint32_t kVsVersionInfo = 1;
constexpr std::uint16_t kPe32Magic = 0x10B;
constexpr std::uint16_t kPe32PlusMagic = 0x20B;
constexpr std::size_t kFixedFileInfoSize = 52;
// A VS_VERSIONINFO block counts its length in 16 bits; a resource far larger
// than that is taken for damage rather than read into memory.
constexpr std::uint32_t kMaxResourceSize = 1u << 20;
// No section table of a real image comes near this; it bounds the reading.
constexpr std::uint16_t kMaxSections = 96;

std::uint16_t U16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
std::uint32_t U32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

struct Section {
  std::uint32_t virtualAddress = 0;
  std::uint32_t rawSize = 0;
  std::uint32_t rawOffset = 0;
};

// `size` bytes at `offset` of `bytes`, or null when they are not all there.
const std::uint8_t* At(std::string_view bytes, std::uint64_t offset, std::size_t size) {
  if (offset > bytes.size() || size > bytes.size() - offset) return nullptr;
  return reinterpret_cast<const std::uint8_t*>(bytes.data()) + offset;
}

// The file's bytes from an RVA to the end of the section that holds it in
// its file data; false when no section does.
bool FromRva(std::string_view image, const std::vector<Section>& sections, std::uint32_t rva, std::string_view& out) {
  for (const Section& s : sections) {
    if (rva >= s.virtualAddress && rva - s.virtualAddress < s.rawSize) {
      const std::uint64_t offset = std::uint64_t{s.rawOffset} + (rva - s.virtualAddress);
      if (offset > image.size()) return false;
      out = image.substr(offset, s.rawSize - (rva - s.virtualAddress));
      return true;
    }
  }
  return false;
}

struct DirectoryEntry {
  std::uint32_t name = 0;    // high bit: a named entry
  std::uint32_t target = 0;  // high bit: a subdirectory
};

// The entries of the directory at `at` within the resource section.
bool ReadDirectory(std::string_view area, std::uint32_t at, std::vector<DirectoryEntry>& entries) {
  const std::uint8_t* header = At(area, at, 16);
  if (header == nullptr) return false;
  const std::uint32_t count = std::uint32_t{U16(header + 12)} + U16(header + 14);
  const std::uint8_t* raw = At(area, std::uint64_t{at} + 16, std::size_t{count} * 8);
  if (raw == nullptr) return false;
  entries.resize(count);
  for (std::uint32_t i = 0; i < count; ++i) entries[i] = {U32(raw + i * 8), U32(raw + i * 8 + 4)};
  return true;
}

// The subdirectory that the entry with this numeric id leads to.
bool FindSubdirectory(const std::vector<DirectoryEntry>& entries, std::uint32_t id, std::uint32_t& at) {
  for (const DirectoryEntry& e : entries) {
    if ((e.name & 0x80000000u) == 0 && e.name == id) {
      if ((e.target & 0x80000000u) == 0) return false;
      at = e.target & 0x7FFFFFFFu;
      return true;
    }
  }
  return false;
}

// The language entry that FindResourceW takes for a neutral request under an
// English locale: neutral forms first, then English, else the first listed.
const DirectoryEntry* PickLanguage(const std::vector<DirectoryEntry>& entries) {
  static constexpr std::array<std::uint32_t, 5> kPreferred = {0x0000, 0x0400, 0x0800, 0x0409, 0x0009};
  for (std::uint32_t language : kPreferred) {
    for (const DirectoryEntry& e : entries) {
      if (e.name == language) return &e;
    }
  }
  return entries.empty() ? nullptr : &entries.front();
}

}  // namespace

bool FindVersionResource(std::string_view image, std::string_view& resource) {
  const std::uint8_t* dos = At(image, 0, 64);
  if (dos == nullptr || dos[0] != 'M' || dos[1] != 'Z') return false;
  const std::uint64_t peOffset = U32(dos + 0x3C);

  // Signature and COFF header.
  const std::uint8_t* coff = At(image, peOffset, 24);
  if (coff == nullptr || std::memcmp(coff, "PE\0\0", 4) != 0) return false;
  const std::uint16_t sectionCount = U16(coff + 6);
  const std::uint16_t optionalSize = U16(coff + 20);
  if (sectionCount == 0 || sectionCount > kMaxSections) return false;

  // Optional header: the resource entry of the data directory.
  const std::uint8_t* optional = At(image, peOffset + 24, optionalSize);
  if (optional == nullptr || optionalSize < 2) return false;
  const std::uint16_t magic = U16(optional);
  std::size_t countAt = 0;
  if (magic == kPe32Magic) {
    countAt = 92;
  } else if (magic == kPe32PlusMagic) {
    countAt = 108;
  } else {
    return false;
  }
  const std::size_t resourceEntryAt = countAt + 4 + 2 * 8;
  if (optionalSize < resourceEntryAt + 8 || U32(optional + countAt) <= 2) return false;
  const std::uint32_t resourceRva = U32(optional + resourceEntryAt);
  if (resourceRva == 0 || U32(optional + resourceEntryAt + 4) == 0) return false;

  // Section table.
  const std::uint8_t* table = At(image, peOffset + 24 + optionalSize, std::size_t{sectionCount} * 40);
  if (table == nullptr) return false;
  std::vector<Section> sections(sectionCount);
  for (std::size_t i = 0; i < sectionCount; ++i) {
    sections[i] = {U32(table + i * 40 + 12), U32(table + i * 40 + 16), U32(table + i * 40 + 20)};
  }

  // Type, name, language: three levels, never more.
  std::string_view area;
  std::vector<DirectoryEntry> entries;
  std::uint32_t at = 0;
  if (!FromRva(image, sections, resourceRva, area)) return false;
  if (!ReadDirectory(area, 0, entries) || !FindSubdirectory(entries, kRtVersion, at)) return false;
  if (!ReadDirectory(area, at, entries) || !FindSubdirectory(entries, kVsVersionInfo, at)) return false;
  if (!ReadDirectory(area, at, entries)) return false;
  const DirectoryEntry* language = PickLanguage(entries);
  if (language == nullptr || (language->target & 0x80000000u) != 0) return false;

  // The data entry: the resource's RVA and size.
  const std::uint8_t* data = At(area, language->target, 16);
  if (data == nullptr) return false;
  const std::uint32_t dataSize = U32(data + 4);
  std::string_view section;
  if (dataSize == 0 || dataSize > kMaxResourceSize || !FromRva(image, sections, U32(data), section)) return false;
  if (dataSize > section.size()) return false;
  resource = section.substr(0, dataSize);
  return true;
}

bool ParseFixedFileInfo(const std::uint8_t* block, std::size_t size, FixedFileInfo& info) {
  if (block == nullptr || size < 6) return false;
  // The block's own length bounds it, as far as the buffer holds it.
  std::size_t length = U16(block);
  if (length > size) length = size;
  // In the 16-bit layout the key starts where wType stands in the 32-bit one.
  if (length < 6 || block[4] >= 0x20) return false;
  const std::size_t valueLength = U16(block + 2);
  std::size_t at = 6;
  while (at + 1 < length && U16(block + at) != 0) at += 2;
  if (at + 1 >= length) return false;  // the key has no end
  at = (at + 2 + 3) & ~static_cast<std::size_t>(3);
  if (valueLength < kFixedFileInfoSize || at + kFixedFileInfoSize > length) return false;
  info.signature = U32(block + at);
  info.fileVersionMS = U32(block + at + 8);
  info.fileVersionLS = U32(block + at + 12);
  return true;
}

}  // namespace posix

namespace {

// What Wine's version functions report for a file without a version
// resource, whether it is an executable or not.
constexpr std::uint32_t kErrorResourceDataNotFound = 1812;

// The file's bytes and its version resource within them; false with the
// Windows error code when there is none.
bool LocateVersion(const WString& path, std::string& image, std::string_view& resource, std::uint32_t& error) {
  if (!posix::ReadFileBytes(path, image, error)) return false;
  if (posix::FindVersionResource(image, resource)) return true;
  error = kErrorResourceDataNotFound;
  return false;
}

}  // namespace

std::uint32_t GetFileVersionInfoSizeW(const WString& path) {
  QV_FAULT_POINT("GetFileVersionInfoSizeW", return 0, path);
  std::string image;
  std::string_view resource;
  std::uint32_t error = 0;
  if (!LocateVersion(path, image, resource, error)) {
    SetLastError(error);
    return 0;
  }
  // As Windows and Wine do: twice the resource and four bytes, room they
  // keep for converted texts.
  return static_cast<std::uint32_t>(resource.size()) * 2 + 4;
}

bool GetFileVersionInfoW(const WString& path, std::uint32_t size, std::vector<std::uint8_t>& data) {
  QV_FAULT_POINT("GetFileVersionInfoW", return false, path);
  std::string image;
  std::string_view resource;
  std::uint32_t error = 0;
  if (!LocateVersion(path, image, resource, error)) {
    SetLastError(error);
    return false;
  }
  if (size == 0) {
    SetLastError(kErrorInsufficientBuffer);
    return false;
  }
  // As the Win32 call: the buffer holds `size` bytes, the resource as far as
  // it fits, zeros behind it.
  data.assign(size, 0);
  std::copy_n(resource.begin(), std::min<std::size_t>(resource.size(), size), data.begin());
  return true;
}

bool VerQueryValueRootW(const std::vector<std::uint8_t>& data, FixedFileInfo& info) {
  QV_FAULT_POINT("VerQueryValueW", return false, u"\\");
  if (!posix::ParseFixedFileInfo(data.data(), data.size(), info)) {
    SetLastError(kErrorResourceDataNotFound);
    return false;
  }
  return true;
}

}  // namespace qv::platform
