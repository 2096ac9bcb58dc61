// The failures raised inside the transaction. Each carries a finished narrow
// text for standard error; the transaction's one handler catches the base.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "platform/wstring.h"

namespace qv {

// A failure with a fixed text ("Missing or unsafe package payload.").
class TransactionFailure : public std::runtime_error {
 public:
  explicit TransactionFailure(const std::string& text) : std::runtime_error(text) {}
};

// A file operation that failed with a platform error code, on one or two
// paths. Its text reads
//   operation: <system message>: "path"[, "second path"]
class FilesystemFailure : public TransactionFailure {
 public:
  FilesystemFailure(std::string operation, std::uint32_t code, WString path, WString secondPath = {});

  const std::string& operation() const { return operation_; }
  std::uint32_t code() const { return code_; }
  const WString& path() const { return path_; }
  const WString& secondPath() const { return secondPath_; }

 private:
  std::string operation_;
  std::uint32_t code_;
  WString path_;
  WString secondPath_;
};

// The text a FilesystemFailure carries.
std::string FilesystemFailureText(const std::string& operation, std::uint32_t code, const WString& path,
                                  const WString& secondPath);

}  // namespace qv
