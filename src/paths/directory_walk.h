// A recursive walk of a directory tree in error-code form.
//
// Every entry below the root comes once, a folder before what it holds, "."
// and ".." left out. The walk does not descend into a reparse point (a link
// or junction to a folder is delivered but not entered), and it does not skip
// a folder that it may not list: that ends the walk with the folder's code.
//
//   DirectoryWalk walk;
//   std::uint32_t error = 0;
//   for (bool on = OpenWalk(root, walk, error); on; on = AdvanceWalk(walk, error)) {
//     ... walk.entry ...
//   }
//   if (error != 0) ...
//
// An entry is seen before the walk would enter it, so a caller can stop at an
// entry it does not like without the walk ever reading inside it.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "platform/wstring.h"

namespace qv {

struct WalkEntry {
  WString path;              // the root and the relative path, joined by "\"
  WString relative;          // below the root, elements joined by "\"
  std::uint32_t attributes;  // as the folder listing gave them
};

// An open search of one folder of the walk; closed when it goes.
class FolderSearch {
 public:
  FolderSearch(platform::Handle handle, WString directory, WString relative)
      : handle_(handle), directory_(std::move(directory)), relative_(std::move(relative)) {}
  ~FolderSearch() {
    if (handle_ != platform::kInvalidHandle && handle_ != platform::kNullHandle) platform::FindClose(handle_);
  }
  FolderSearch(FolderSearch&& other) noexcept
      : handle_(other.handle_), directory_(std::move(other.directory_)), relative_(std::move(other.relative_)) {
    other.handle_ = platform::kInvalidHandle;
  }
  FolderSearch& operator=(FolderSearch&&) = delete;
  FolderSearch(const FolderSearch&) = delete;
  FolderSearch& operator=(const FolderSearch&) = delete;

  platform::Handle handle() const { return handle_; }
  const WString& directory() const { return directory_; }
  const WString& relative() const { return relative_; }

 private:
  platform::Handle handle_;
  WString directory_;
  WString relative_;
};

struct DirectoryWalk {
  // The open searches, the root's first; empty once the walk has ended.
  std::vector<FolderSearch> folders;
  // The entry the walk stands on while it has not ended.
  WalkEntry entry{};
};

// Starts a walk of `root` and moves to its first entry. False when the tree
// is empty (error 0) or the root cannot be listed (error set).
bool OpenWalk(const WString& root, DirectoryWalk& walk, std::uint32_t& error);

// Moves to the next entry, first entering the current one when it is a folder
// and no reparse point. False at the end (error 0) or on a failure (error
// set); either way the walk has then released its searches.
bool AdvanceWalk(DirectoryWalk& walk, std::uint32_t& error);

// Ends a walk early and releases its searches.
void CloseWalk(DirectoryWalk& walk);

}  // namespace qv
