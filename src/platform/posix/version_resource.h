// The version resource of a Windows executable, read from the PE file itself
// on the Linux host. Internal to the posix backend; pure functions over a
// byte source, for tests and fuzzing.
//
// The walk: DOS header ("MZ", e_lfanew), "PE\0\0", the COFF header, the
// optional header (PE32 or PE32+) and its resource data directory, the
// section table to turn RVAs into file offsets, then the resource tree:
// type RT_VERSION (16), name VS_VERSION_INFO (1), one language (neutral
// first, then English, else the first listed, as Wine's FindResourceW picks
// under an English locale), and its data entry. The tree is always read at
// exactly these three levels, so a tree that points back into itself cannot
// make the walk loop; every offset is checked against the resource section
// and the file before it is read. Only the headers, the few directory
// entries on the way and the resource itself are read.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/platform.h"

namespace qv::platform::posix {

// Where the image's bytes come from: a buffer in memory, or an open file
// descriptor (fd >= 0) of `size` bytes read piece by piece.
struct ImageSource {
  std::string_view bytes;
  int fd = -1;
  std::uint64_t size = 0;
};

ImageSource MemoryImage(std::string_view bytes);

// The place of the version resource's data in the file.
struct ResourceSpan {
  std::uint64_t offset = 0;
  std::uint32_t size = 0;
};

// False when the source is not a PE file with a version resource whose data
// lies within the file.
bool FindVersionResource(const ImageSource& image, ResourceSpan& span);

// Reads `size` bytes at `offset`; false when they are not all in the source.
bool ReadImage(const ImageSource& image, std::uint64_t offset, void* out, std::size_t size);

// VerQueryValueW(block, "\\"): the root VS_FIXEDFILEINFO of a VS_VERSIONINFO
// block. The value follows the block's key ("VS_VERSION_INFO"), aligned to 32
// bits. False when the block is too short for its header, key and a 52-byte
// value, or is in the 16-bit layout. As VerQueryValueW, the signature is
// handed on, not judged.
bool ParseFixedFileInfo(const std::uint8_t* block, std::size_t size, FixedFileInfo& info);

}  // namespace qv::platform::posix
