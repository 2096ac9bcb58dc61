// Fault injection for the platform seam, compiled into test builds only
// (QUORVANE_FAULT_INJECTION).
//
// QUORVANE_FAULTS holds a comma-separated list of "Operation@N=CODE" (the Nth
// call of that operation fails with Windows error CODE, counting from 1) and
// "Operation@N=crash" (the process ends at once at the start of that call).
// QUORVANE_FAULTS_LOG=FILE appends one line per platform call:
// "Operation arg...", so a test can count the calls and sweep every one.
// FILE is a path of the build's own system (a Windows path for the .exe).
// Both backends log the same operation names for the same calls, so one
// sweep serves both builds.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "platform/wstring.h"

namespace qv::platform {

#if defined(QUORVANE_FAULT_INJECTION)

// Logs the call and tells whether it must fail; `code` is then the error to
// report. Ends the process for a "crash" entry.
bool InjectFault(const char* operation, std::initializer_list<WStringView> args, std::uint32_t& code);

// Fails the enclosing seam function with the injected code:
//   QV_FAULT_POINT("CreateDirectoryW", return false, path);
#define QV_FAULT_POINT(operation, failure, ...)                                   \
  do {                                                                            \
    std::uint32_t qv_fault_code_ = 0;                                             \
    if (::qv::platform::InjectFault(operation, {__VA_ARGS__}, qv_fault_code_)) {  \
      ::qv::platform::SetLastError(qv_fault_code_);                               \
      failure;                                                                    \
    }                                                                             \
  } while (0)

// For calls whose result is the error code itself (the registry):
//   QV_FAULT_POINT_CODE("RegOpenKeyExW", subKey);
#define QV_FAULT_POINT_CODE(operation, ...)                                       \
  do {                                                                            \
    std::uint32_t qv_fault_code_ = 0;                                             \
    if (::qv::platform::InjectFault(operation, {__VA_ARGS__}, qv_fault_code_)) {  \
      ::qv::platform::SetLastError(qv_fault_code_);                               \
      return static_cast<std::int32_t>(qv_fault_code_);                           \
    }                                                                             \
  } while (0)

#else

#define QV_FAULT_POINT(operation, failure, ...) \
  do {                                          \
  } while (0)
#define QV_FAULT_POINT_CODE(operation, ...) \
  do {                                      \
  } while (0)

#endif

}  // namespace qv::platform
