// What runs first in both Windows programs, before the C runtime starts and
// before any C++ constructor: a TLS callback that the loader calls once the
// import table's DLLs (all KnownDLLs, mapped from System32) are in.
//
// 1. Every DLL loaded from then on, by the program or by a system DLL on its
//    behalf, comes from System32 only: neither the program's folder (often a
//    Downloads folder) nor the current folder is searched. If that cannot be
//    set, the program says so on standard error and ends with exit code
//    kStartupFailure before any of its own code has run.
// 2. The stack protector's guard gets its value, from kernel32 and the
//    processor alone. This file replaces libssp's guard and failure
//    functions, whose setup is a constructor that calls into advapi32's
//    crypto provider (which loads DLLs that are not KnownDLLs) while the
//    program's folder is still searched.
//
// A failed stack check or a failed checked string or memory call ends the
// process at once with __fastfail: no handler, no unwinding, nothing that a
// corrupted stack could redirect.
//
// Nothing here may be stack-protected: the guard changes while these frames
// are live.
#include <windows.h>

#include <cpuid.h>
#include <cstdint>

namespace {

// The exit code of a program that could not restrict its DLL search.
constexpr UINT kStartupFailure = 10;

// The guard until the callback runs: the value a program that never ran it
// would carry. The callback never leaves it in place.
constexpr std::uintptr_t kUnseededGuard = 0x2B992DDFA23249D6ull;

}  // namespace

extern "C" {

std::uintptr_t __stack_chk_guard = kUnseededGuard;

[[noreturn]] void __stack_chk_fail() {
  __asm__ volatile("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE) : "memory");
  __builtin_unreachable();
}

// Called by the checked string and memory functions (__memcpy_chk and the
// others) when a copy would overrun its destination.
[[noreturn]] void __chk_fail() {
  __asm__ volatile("int $0x29" : : "c"(FAST_FAIL_RANGE_CHECK_FAILURE) : "memory");
  __builtin_unreachable();
}

}  // extern "C"

namespace {

#if defined(QUORVANE_FAULT_INJECTION)
// Test builds: QUORVANE_FAULTS="SetDefaultDllDirectories@1=CODE" makes the
// restriction fail with CODE, so the tests can see the stop.
__attribute__((no_stack_protector)) DWORD InjectedRestrictionFault() {
  wchar_t faults[512];
  const DWORD length = GetEnvironmentVariableW(L"QUORVANE_FAULTS", faults, 512);
  if (length == 0 || length >= 512) return 0;
  constexpr wchar_t kEntry[] = L"SetDefaultDllDirectories@1=";
  for (const wchar_t* at = faults; *at != L'\0'; ++at) {
    int matched = 0;
    while (kEntry[matched] != L'\0' && at[matched] == kEntry[matched]) ++matched;
    if (kEntry[matched] != L'\0') continue;
    DWORD code = 0;
    for (const wchar_t* digit = at + matched; *digit >= L'0' && *digit <= L'9'; ++digit) {
      code = code * 10 + static_cast<DWORD>(*digit - L'0');
    }
    return code;
  }
  return 0;
}
#endif

// Says why the program stops, on standard error, and ends it.
__attribute__((no_stack_protector)) [[noreturn]] void StopStartup(DWORD error) {
  char text[160] = "The program cannot limit its DLL search to the System32 folder (error ";
  int length = 0;
  while (text[length] != '\0') ++length;
  char digits[10];
  int count = 0;
  do {
    digits[count++] = static_cast<char>('0' + error % 10);
    error /= 10;
  } while (error != 0);
  while (count > 0) text[length++] = digits[--count];
  for (const char* rest = "); it has stopped without doing anything.\r\n"; *rest != '\0'; ++rest) {
    text[length++] = *rest;
  }
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
  TerminateProcess(GetCurrentProcess(), kStartupFailure);
  __builtin_unreachable();
}

__attribute__((no_stack_protector)) void RestrictDllSearch() {
  DWORD error = 0;
#if defined(QUORVANE_FAULT_INJECTION)
  error = InjectedRestrictionFault();
#endif
  if (error == 0 && !SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32)) error = GetLastError();
  if (error == 0 && !SetDllDirectoryW(L"")) error = GetLastError();
  if (error != 0) StopStartup(error);
}

// A 64-bit finaliser: every input bit reaches every output bit.
__attribute__((no_stack_protector)) std::uint64_t Mix(std::uint64_t state, std::uint64_t input) {
  std::uint64_t x = state ^ (input + 0x9E3779B97F4A7C15ull);
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// The sources the platform's own compilers use for their cookie, plus the
// processor's counter and random number generator where there is one.
__attribute__((no_stack_protector)) void SeedStackGuard() {
  std::uint64_t seed = 0;
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  seed = Mix(seed, static_cast<std::uint64_t>(counter.QuadPart));
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  seed = Mix(seed, (static_cast<std::uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
  seed = Mix(seed, (static_cast<std::uint64_t>(GetCurrentProcessId()) << 32) | GetCurrentThreadId());
  seed = Mix(seed, __builtin_ia32_rdtsc());
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_RDRND) != 0) {
    for (int attempt = 0; attempt < 10; ++attempt) {
      std::uint64_t value = 0;
      unsigned char ok = 0;
      __asm__ volatile("rdrand %0; setc %1" : "=r"(value), "=qm"(ok) : : "cc");
      if (ok != 0) {
        seed = Mix(seed, value);
        break;
      }
    }
  }
  // Where address-space randomisation put this stack, this image, the
  // thread's environment block and kernel32.
  seed = Mix(seed, reinterpret_cast<std::uintptr_t>(&counter));
  seed = Mix(seed, reinterpret_cast<std::uintptr_t>(&__stack_chk_guard));
  std::uintptr_t threadBlock = 0;
  __asm__("movq %%gs:0x30, %0" : "=r"(threadBlock));
  seed = Mix(seed, threadBlock);
  seed = Mix(seed, reinterpret_cast<std::uintptr_t>(&QueryPerformanceCounter));
  // A zero low byte ends a string copy that runs into the guard before it
  // can read or write past it.
  seed &= ~std::uint64_t{0xFF};
  if (seed == 0) seed = kUnseededGuard & ~std::uint64_t{0xFF};
  __stack_chk_guard = seed;
}

__attribute__((no_stack_protector)) void NTAPI StartUp(PVOID, DWORD reason, PVOID) {
  static bool done = false;
  if (reason != DLL_PROCESS_ATTACH || done) return;
  done = true;
  RestrictDllSearch();
  SeedStackGuard();
}

}  // namespace

// The loader calls the callbacks between .CRT$XLA and .CRT$XLZ in the order
// of their section names; the C runtime's own begin at .CRT$XLC. The TLS
// directory that makes it call them comes with the reference to _tls_used.
extern "C" const IMAGE_TLS_DIRECTORY _tls_used;
__attribute__((section(".CRT$XLB"), used)) const PIMAGE_TLS_CALLBACK quorvane_startup_callback = StartUp;
__attribute__((used)) const void* const quorvane_tls_directory = &_tls_used;
