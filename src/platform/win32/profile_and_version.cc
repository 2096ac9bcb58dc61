// Profile strings and the version resource of the seam.
#include <windows.h>

#include <vector>

#include "platform/fault_injection.h"
#include "platform/win32/win32_util.h"

namespace qv::platform {

using win32::W;

namespace {
// What GetPrivateProfileStringW gives for a file it cannot read: the default
// without its trailing blanks, cut to the buffer.
std::uint32_t UnreadableFileDefault(const WString& defaultValue, WString& value, std::uint32_t size) {
  value = defaultValue.substr(0, defaultValue.find_last_not_of(u' ') + 1);
  if (size == 0) value.clear();
  else if (value.size() >= size) value.resize(size - 1);
  return static_cast<std::uint32_t>(value.size());
}
}  // namespace

std::uint32_t GetPrivateProfileStringW(const WString& section, const WString& key, const WString& defaultValue,
                                       WString& value, std::uint32_t size, const WString& path) {
  QV_FAULT_POINT("GetPrivateProfileStringW", return UnreadableFileDefault(defaultValue, value, size), section, key,
                 path);
  std::vector<wchar_t> buffer(size, L'\0');
  DWORD n = ::GetPrivateProfileStringW(W(section), W(key), W(defaultValue), buffer.data(), size, W(path));
  value = win32::FromW(buffer.data(), n);
  return n;
}

bool FlushPrivateProfileCache(const WString& path) {
  QV_FAULT_POINT("WritePrivateProfileStringW", return false, path);
  return ::WritePrivateProfileStringW(nullptr, nullptr, nullptr, W(path)) != 0;
}

std::uint32_t GetFileVersionInfoSizeW(const WString& path) {
  QV_FAULT_POINT("GetFileVersionInfoSizeW", return 0, path);
  DWORD ignored = 0;
  return ::GetFileVersionInfoSizeW(W(path), &ignored);
}

bool GetFileVersionInfoW(const WString& path, std::uint32_t size, std::vector<std::uint8_t>& data) {
  QV_FAULT_POINT("GetFileVersionInfoW", return false, path);
  data.assign(size, 0);
  return ::GetFileVersionInfoW(W(path), 0, size, data.data()) != 0;
}

bool VerQueryValueRootW(const std::vector<std::uint8_t>& data, FixedFileInfo& info) {
  QV_FAULT_POINT("VerQueryValueW", return false, u"\\");
  void* block = nullptr;
  UINT length = 0;
  if (!::VerQueryValueW(data.data(), L"\\", &block, &length) || block == nullptr) return false;
  const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(block);
  info.signature = fixed->dwSignature;
  info.fileVersionMS = fixed->dwFileVersionMS;
  info.fileVersionLS = fixed->dwFileVersionLS;
  return true;
}

}  // namespace qv::platform
