// A version.dll such as a stranger could leave beside the program in a
// Downloads folder: its functions answer that no file has a version. Loaded
// in the program's place, it would blank every "Version:" of /status.
#include <cstdint>

extern "C" {
__declspec(dllimport) void __stdcall SetLastError(std::uint32_t code);
constexpr std::uint32_t kResourceTypeNotFound = 1813;

__declspec(dllexport) std::uint32_t __stdcall GetFileVersionInfoSizeW(const wchar_t*, std::uint32_t* handle) {
  if (handle != nullptr) *handle = 0;
  SetLastError(kResourceTypeNotFound);
  return 0;
}
__declspec(dllexport) int __stdcall GetFileVersionInfoW(const wchar_t*, std::uint32_t, std::uint32_t, void*) {
  SetLastError(kResourceTypeNotFound);
  return 0;
}
__declspec(dllexport) int __stdcall VerQueryValueW(const void*, const wchar_t*, void**, unsigned*) { return 0; }
}
