// A program linked with the shipped programs' startup runtime and built with
// their hardening flags, to show under Wine what the runtime does:
//   startup_probe guard    prints the stack protector's guard
//   startup_probe dll      prints where the version.dll that a C++
//                          constructor loaded (by its bare name) came from
//   startup_probe smash    writes past a local array: the stack check fails
//   startup_probe overrun  copies past a buffer through the checked memcpy
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" std::uintptr_t __stack_chk_guard;

namespace {

// Loaded before main, where libssp's guard setup loaded its crypto provider.
struct LoadsVersionDll {
  wchar_t path[MAX_PATH] = L"(not loaded)";
  LoadsVersionDll() {
    if (HMODULE module = LoadLibraryW(L"version.dll")) GetModuleFileNameW(module, path, MAX_PATH);
  }
} constructed;

volatile int reach = 64;

__attribute__((noinline)) void Smash() {
  char local[16];
  for (int i = 0; i < reach; ++i) local[i] = 'x';
  std::printf("%s\n", local);
}

__attribute__((noinline)) void Overrun() {
  char target[16];
  char source[64];
  std::memset(source, 'x', sizeof source);
  std::memcpy(target, source, static_cast<std::size_t>(reach));
  std::printf("%.*s\n", 16, target);
}

}  // namespace

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  if (std::strcmp(mode, "guard") == 0) std::printf("%016llx\n", static_cast<unsigned long long>(__stack_chk_guard));
  if (std::strcmp(mode, "dll") == 0) std::printf("%ls\n", constructed.path);
  if (std::strcmp(mode, "smash") == 0) Smash();
  if (std::strcmp(mode, "overrun") == 0) Overrun();
  return 0;
}
