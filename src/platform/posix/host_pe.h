// The PE walk of the Linux host: the version resource of a Windows
// executable, read from the file's bytes by pure functions.
//
// The walk: DOS header ("MZ", e_lfanew), "PE\0\0", the COFF header, the
// optional header (PE32 or PE32+) and its resource data directory, the
// section table to turn RVAs into file offsets, then the resource tree:
// type RT_VERSION (16), name VS_VERSION_INFO (1), one language (neutral
// first, then English, else the first listed, as Wine's FindResourceW picks
// under an English locale), and its data entry. The tree is always read at
// exactly these three levels, so a tree that points back into itself cannot
// make the walk loop; every offset is checked against the resource section
// and the file before it is read.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/platform.h"

namespace qv::platform::posix {

// The bytes of the version resource within `image`; false when the image is
// not a PE file with a version resource whose data lies within the file.
bool FindVersionResource(std::string_view image, std::string_view& resource);

// VerQueryValueW(block, "\\"): the root VS_FIXEDFILEINFO of a VS_VERSIONINFO
// block. The value follows the block's key ("VS_VERSION_INFO"), aligned to 32
// bits. False when the block is too short for its header, key and a 52-byte
// value, or is in the 16-bit layout. As VerQueryValueW, the signature is
// handed on, not judged.
bool ParseFixedFileInfo(const std::uint8_t* block, std::size_t size, FixedFileInfo& info);

}  // namespace qv::platform::posix
