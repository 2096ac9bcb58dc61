// A version.dll such as a stranger could leave beside the program in a
// Downloads folder: its functions answer that no file has a version. Loaded
// in the program's place, it would blank every "Version:" of /status.
extern "C" {
__declspec(dllexport) unsigned __stdcall GetFileVersionInfoSizeW(const wchar_t*, unsigned*) { return 0; }
__declspec(dllexport) int __stdcall GetFileVersionInfoW(const wchar_t*, unsigned, unsigned, void*) { return 0; }
__declspec(dllexport) int __stdcall VerQueryValueW(const void*, const wchar_t*, void**, unsigned*) { return 0; }
}
