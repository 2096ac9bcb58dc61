// The version functions of the seam on the Linux host: the resource is
// found and read in the PE file, without loading the whole file.
#include "platform/posix/version_resource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/fault_injection.h"
#include "platform/posix/host_paths.h"

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

// File offset of an RVA through the section that holds it in its file data,
// and how many bytes of that section follow it.
bool RvaToOffset(const std::vector<Section>& sections, std::uint32_t rva, std::uint64_t& offset,
                 std::uint32_t& available) {
  for (const Section& s : sections) {
    if (rva >= s.virtualAddress && rva - s.virtualAddress < s.rawSize) {
      offset = static_cast<std::uint64_t>(s.rawOffset) + (rva - s.virtualAddress);
      available = s.rawSize - (rva - s.virtualAddress);
      return true;
    }
  }
  return false;
}

// The resource section as the tree sees it: its file offset and length.
struct ResourceArea {
  const ImageSource* image = nullptr;
  std::uint64_t base = 0;
  std::uint32_t size = 0;
};

bool ReadArea(const ResourceArea& area, std::uint32_t at, void* out, std::size_t size) {
  if (at > area.size || size > area.size - at) return false;
  return ReadImage(*area.image, area.base + at, out, size);
}

struct DirectoryEntry {
  std::uint32_t name = 0;    // high bit: a named entry
  std::uint32_t target = 0;  // high bit: a subdirectory
};

// The entries of the directory at `at` within the resource area.
bool ReadDirectory(const ResourceArea& area, std::uint32_t at, std::vector<DirectoryEntry>& entries) {
  std::uint8_t header[16];
  if (!ReadArea(area, at, header, sizeof header)) return false;
  std::uint32_t count = static_cast<std::uint32_t>(U16(header + 12)) + U16(header + 14);
  std::vector<std::uint8_t> raw(static_cast<std::size_t>(count) * 8);
  if (!ReadArea(area, at + 16, raw.data(), raw.size())) return false;
  entries.resize(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    entries[i].name = U32(&raw[i * 8]);
    entries[i].target = U32(&raw[i * 8 + 4]);
  }
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

ImageSource MemoryImage(std::string_view bytes) {
  ImageSource image;
  image.bytes = bytes;
  image.size = bytes.size();
  return image;
}

bool ReadImage(const ImageSource& image, std::uint64_t offset, void* out, std::size_t size) {
  if (offset > image.size || size > image.size - offset) return false;
  if (image.fd < 0) {
    if (size > 0) std::memcpy(out, image.bytes.data() + offset, size);
    return true;
  }
  auto* dest = static_cast<std::uint8_t*>(out);
  while (size > 0) {
    ssize_t n = ::pread(image.fd, dest, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;  // the file shrank, or cannot be read
    dest += n;
    offset += static_cast<std::uint64_t>(n);
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool FindVersionResource(const ImageSource& image, ResourceSpan& span) {
  std::uint8_t dos[64];
  if (!ReadImage(image, 0, dos, sizeof dos) || dos[0] != 'M' || dos[1] != 'Z') return false;
  const std::uint64_t peOffset = U32(dos + 0x3C);

  // Signature and COFF header.
  std::uint8_t coff[24];
  if (!ReadImage(image, peOffset, coff, sizeof coff) || std::memcmp(coff, "PE\0\0", 4) != 0) return false;
  const std::uint16_t sectionCount = U16(coff + 6);
  const std::uint16_t optionalSize = U16(coff + 20);
  if (sectionCount == 0 || sectionCount > kMaxSections) return false;

  // Optional header: the resource entry of the data directory.
  std::vector<std::uint8_t> optional(optionalSize);
  if (optionalSize < 2 || !ReadImage(image, peOffset + 24, optional.data(), optional.size())) return false;
  const std::uint16_t magic = U16(optional.data());
  std::size_t countAt = 0;
  if (magic == kPe32Magic) {
    countAt = 92;
  } else if (magic == kPe32PlusMagic) {
    countAt = 108;
  } else {
    return false;
  }
  const std::size_t resourceEntryAt = countAt + 4 + 2 * 8;
  if (optional.size() < resourceEntryAt + 8 || U32(&optional[countAt]) <= 2) return false;
  const std::uint32_t resourceRva = U32(&optional[resourceEntryAt]);
  if (resourceRva == 0 || U32(&optional[resourceEntryAt + 4]) == 0) return false;

  // Section table.
  std::vector<std::uint8_t> table(static_cast<std::size_t>(sectionCount) * 40);
  if (!ReadImage(image, peOffset + 24 + optionalSize, table.data(), table.size())) return false;
  std::vector<Section> sections(sectionCount);
  for (std::size_t i = 0; i < sectionCount; ++i) {
    const std::uint8_t* s = &table[i * 40];
    sections[i].virtualAddress = U32(s + 12);
    sections[i].rawSize = U32(s + 16);
    sections[i].rawOffset = U32(s + 20);
  }

  ResourceArea area;
  area.image = &image;
  if (!RvaToOffset(sections, resourceRva, area.base, area.size)) return false;

  // Type, name, language: three levels, never more.
  std::vector<DirectoryEntry> entries;
  std::uint32_t at = 0;
  if (!ReadDirectory(area, 0, entries) || !FindSubdirectory(entries, kRtVersion, at)) return false;
  if (!ReadDirectory(area, at, entries) || !FindSubdirectory(entries, kVsVersionInfo, at)) return false;
  if (!ReadDirectory(area, at, entries)) return false;
  const DirectoryEntry* language = PickLanguage(entries);
  if (language == nullptr || (language->target & 0x80000000u) != 0) return false;

  // The data entry: the resource's RVA and size.
  std::uint8_t data[16];
  if (!ReadArea(area, language->target, data, sizeof data)) return false;
  const std::uint32_t dataRva = U32(data);
  const std::uint32_t dataSize = U32(data + 4);
  std::uint64_t dataOffset = 0;
  std::uint32_t available = 0;
  if (dataSize == 0 || dataSize > kMaxResourceSize || !RvaToOffset(sections, dataRva, dataOffset, available) || dataSize > available) return false;
  if (dataOffset > image.size || dataSize > image.size - dataOffset) return false;
  span.offset = dataOffset;
  span.size = dataSize;
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

// The buffer size the call asks for: as Windows and Wine do, twice the
// resource and four bytes, room they keep for converted texts.
std::uint32_t BufferSizeFor(std::uint32_t resourceSize) { return resourceSize * 2 + 4; }

struct OpenImage {
  posix::ImageSource image;
  ~OpenImage() {
    if (image.fd >= 0) ::close(image.fd);
  }
};

// Opens the file and finds its version resource; false with the Windows
// error code when there is none.
bool LocateVersion(const WString& path, OpenImage& file, posix::ResourceSpan& span, std::uint32_t& error) {
  std::string host;
  if (!posix::ToHostPath(path, host, error)) return false;
  const int fd = posix::OpenForReading(host, error);
  if (fd < 0) return false;
  file.image.fd = fd;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    error = kErrorAccessDenied;
    return false;
  }
  file.image.size = static_cast<std::uint64_t>(st.st_size);
  if (!posix::FindVersionResource(file.image, span)) {
    error = kErrorResourceDataNotFound;
    return false;
  }
  return true;
}

}  // namespace

std::uint32_t GetFileVersionInfoSizeW(const WString& path) {
  QV_FAULT_POINT("GetFileVersionInfoSizeW", return 0, path);
  OpenImage file;
  posix::ResourceSpan span;
  std::uint32_t error = 0;
  if (!LocateVersion(path, file, span, error)) {
    SetLastError(error);
    return 0;
  }
  return BufferSizeFor(span.size);
}

bool GetFileVersionInfoW(const WString& path, std::uint32_t size, std::vector<std::uint8_t>& data) {
  QV_FAULT_POINT("GetFileVersionInfoW", return false, path);
  OpenImage file;
  posix::ResourceSpan span;
  std::uint32_t error = 0;
  if (!LocateVersion(path, file, span, error)) {
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
  std::uint32_t copied = span.size < size ? span.size : size;
  if (!posix::ReadImage(file.image, span.offset, data.data(), copied)) {
    SetLastError(kErrorReadFault);
    return false;
  }
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
