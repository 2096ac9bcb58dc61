#include "platform/posix/host_pe.h"

#include <algorithm>
#include <cstring>

namespace qv::platform {
namespace posix {
namespace {

constexpr std::uint32_t kRtVersion = 16;
constexpr std::uint32_t kVsVersionInfo = 1;
constexpr std::uint16_t kPe32Magic = 0x10B;
constexpr std::uint16_t kPe32PlusMagic = 0x20B;
constexpr std::size_t kFixedFileInfoSize = 52;

std::uint16_t U16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
std::uint32_t U32(const std::uint8_t* p) { return U16(p) | (std::uint32_t{U16(p + 2)} << 16); }

// `size` bytes at `offset` of `bytes`, or null when they are not all there.
const std::uint8_t* At(std::string_view bytes, std::uint64_t offset, std::size_t size) {
  if (offset > bytes.size() || size > bytes.size() - offset) return nullptr;
  return reinterpret_cast<const std::uint8_t*>(bytes.data()) + offset;
}

// The file's bytes from an RVA to the end of the section that holds it in
// its file data; false when no section of the table (40 bytes a section)
// does.
bool FromRva(std::string_view image, const std::uint8_t* sections, std::size_t count, std::uint32_t rva,
             std::string_view& out) {
  for (const std::uint8_t* s = sections; s < sections + count * 40; s += 40) {
    const std::uint32_t virtualAddress = U32(s + 12), rawSize = U32(s + 16), rawOffset = U32(s + 20);
    if (rva >= virtualAddress && rva - virtualAddress < rawSize) {
      const std::uint64_t offset = std::uint64_t{rawOffset} + (rva - virtualAddress);
      if (offset > image.size()) return false;
      out = image.substr(offset, rawSize - (rva - virtualAddress));
      return true;
    }
  }
  return false;
}

// The entries of the resource directory at `at`, 8 bytes each: the name or
// id (high bit: a name) and the target (high bit: a subdirectory).
std::string_view Entries(std::string_view area, std::uint32_t at) {
  const std::uint8_t* header = At(area, at, 16);
  if (header == nullptr) return {};
  const std::size_t size = (std::size_t{U16(header + 12)} + U16(header + 14)) * 8;
  return At(area, std::uint64_t{at} + 16, size) == nullptr ? std::string_view() : area.substr(at + 16, size);
}

std::uint32_t EntryName(std::string_view entries, std::size_t i) { return U32(At(entries, i * 8, 4)); }
std::uint32_t EntryTarget(std::string_view entries, std::size_t i) { return U32(At(entries, i * 8 + 4, 4)); }

// The subdirectory that the entry with this numeric id leads to.
bool FindSubdirectory(std::string_view entries, std::uint32_t id, std::uint32_t& at) {
  for (std::size_t i = 0; i < entries.size() / 8; ++i) {
    if (EntryName(entries, i) == id) {
      at = EntryTarget(entries, i) & 0x7FFFFFFFu;
      return (EntryTarget(entries, i) & 0x80000000u) != 0;
    }
  }
  return false;
}

// The data entry of the language that FindResourceW takes for a neutral
// request under an English locale: neutral forms first, then English, else
// the first listed. False when that entry is a subdirectory.
bool PickLanguage(std::string_view entries, std::uint32_t& at) {
  if (entries.empty()) return false;
  std::size_t pick = 0;  // the first listed, unless a wanted language is there
  for (std::uint32_t language : {0x0009u, 0x0409u, 0x0800u, 0x0400u, 0x0000u}) {  // the most wanted last
    for (std::size_t i = entries.size() / 8; i > 0; --i) {
      if (EntryName(entries, i - 1) == language) pick = i - 1;  // backwards: the first of them wins
    }
  }
  at = EntryTarget(entries, pick);
  return (at & 0x80000000u) == 0;
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
  if (sectionCount == 0) return false;

  // Optional header: the resource entry of the data directory.
  const std::uint8_t* optional = At(image, peOffset + 24, optionalSize);
  if (optional == nullptr || optionalSize < 2) return false;
  const std::uint16_t magic = U16(optional);
  // Where the count of data directory entries stands.
  const std::size_t countAt = magic == kPe32Magic ? 92 : magic == kPe32PlusMagic ? 108 : 0;
  if (countAt == 0) return false;
  const std::size_t resourceEntryAt = countAt + 4 + 2 * 8;
  if (optionalSize < resourceEntryAt + 8 || U32(optional + countAt) <= 2) return false;
  const std::uint32_t resourceRva = U32(optional + resourceEntryAt);
  if (resourceRva == 0 || U32(optional + resourceEntryAt + 4) == 0) return false;

  // Section table.
  const std::uint8_t* sections = At(image, peOffset + 24 + optionalSize, std::size_t{sectionCount} * 40);
  if (sections == nullptr) return false;

  // Type, name, language: three levels, never more.
  std::string_view area;
  std::uint32_t at = 0;
  if (!FromRva(image, sections, sectionCount, resourceRva, area)) return false;
  if (!FindSubdirectory(Entries(area, 0), kRtVersion, at) || !FindSubdirectory(Entries(area, at), kVsVersionInfo, at) ||
      !PickLanguage(Entries(area, at), at)) {
    return false;
  }

  // The data entry: the resource's RVA and size.
  const std::uint8_t* data = At(area, at, 16);
  if (data == nullptr) return false;
  const std::uint32_t dataSize = U32(data + 4);
  std::string_view section;
  if (dataSize == 0 || !FromRva(image, sections, sectionCount, U32(data), section)) return false;
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
}  // namespace qv::platform
