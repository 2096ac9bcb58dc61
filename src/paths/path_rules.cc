#include "paths/path_rules.h"

#include "platform/platform.h"

namespace qv {

// GetFullPathNameW's buffer: the longest accepted result has one character
// less, for the terminator.
using platform::kLongPathBuffer;

WString CanonicalPath(const WString& path) {
  // Only "X:\" and "X:/" shapes go on: drive-relative, rooted-without-drive,
  // relative, network and device paths are refused here. The character at
  // index 0 is left to the platform.
  if (path.size() < 3) return {};
  if (path[1] != u':') return {};
  if (!IsSeparator(path[2])) return {};
  for (WChar c : path) {
    if (c == u'"' || c == u'\r' || c == u'\n') return {};
  }

  WString full;
  const std::uint32_t length = platform::GetFullPathNameW(path, kLongPathBuffer, full);
  if (length == 0 || length >= kLongPathBuffer) return {};
  full.resize(length);

  // A bare drive root keeps its separator; any longer path loses them all.
  while (full.size() > 3 && full.back() == u'\\') full.pop_back();
  return full;
}

WString JoinPath(const WString& base, const WString& relative) {
  WString result = base;
  if (!base.empty() && base.back() != u'\\') result.push_back(u'\\');
  result += relative;
  return result;
}

WString ParentPath(const WString& path) {
  const std::size_t last = path.find_last_of(u"\\/");
  if (last == WString::npos) return {};
  return path.substr(0, last);
}

WString FusionApiRoot(const WString& appData) { return JoinPath(appData, u"Autodesk\\Autodesk Fusion 360\\API"); }

WString AddInDirectory(const FusionInstallation& installation) {
  if (installation.appData.empty()) return {};
  return JoinPath(FusionApiRoot(installation.appData), u"AddIns\\KELDARO_Quorvane");
}

WString InventoryPath(const WString& localAppData) { return JoinPath(localAppData, u"Quorvane\\Installation.ini"); }

// The root name as the tool's own path rules define it (drive, device
// prefix, network name), not as GetFullPathNameW or the long-path form read it.
std::size_t RootNameLength(const WString& path) {
  const std::size_t n = path.size();
  if (n >= 2 && IsAsciiLetter(path[0]) && path[1] == u':') return 2;
  if (n < 2 || !IsSeparator(path[0])) return 0;

  // "\\?\", "\\.\" and "\??\" with either separator; the root name is their
  // first three characters, and only when no separator follows the fourth.
  if (n >= 4 && IsSeparator(path[3]) && (n == 4 || !IsSeparator(path[4])) &&
      ((IsSeparator(path[1]) && (path[2] == u'?' || path[2] == u'.')) || (path[1] == u'?' && path[2] == u'?'))) {
    return 3;
  }

  // "\\name", up to the next separator or the end.
  if (n >= 3 && IsSeparator(path[1]) && !IsSeparator(path[2])) {
    std::size_t end = 3;
    while (end < n && !IsSeparator(path[end])) ++end;
    return end;
  }
  return 0;
}

WString PathAppend(const WString& path, const WString& element) {
  WString result = path;
  const std::size_t rootName = RootNameLength(path);
  bool separator;
  if (rootName == path.size()) {
    // Empty, a bare drive "C:", or a bare network or device root name: only
    // the last kind needs a separator to keep the element out of the name.
    separator = rootName >= 3;
  } else {
    separator = !IsSeparator(path.back());
  }
  if (separator) result.push_back(u'\\');
  result += element;
  return result;
}

WString PathParent(const WString& path) {
  const std::size_t rootName = RootNameLength(path);
  std::size_t relativeStart = rootName;
  while (relativeStart < path.size() && IsSeparator(path[relativeStart])) ++relativeStart;

  std::size_t end = path.size();
  // A root alone, with or without separators, is its own parent.
  if (relativeStart == end) return path;

  // Drop the last element (empty when the path ends in a separator) ...
  while (end > relativeStart && !IsSeparator(path[end - 1])) --end;
  // ... and the separators in front of it, but never the root's.
  while (end > relativeStart && IsSeparator(path[end - 1])) --end;
  return path.substr(0, end);
}

bool SamePath(const WString& a, const WString& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  }
  return true;
}

WString ToLowerCopy(const WString& text) {
  WString result = text;
  for (WChar& c : result) c = AsciiLower(c);
  return result;
}

}  // namespace qv
