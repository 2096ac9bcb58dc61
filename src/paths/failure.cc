#include "paths/failure.h"

#include <utility>

#include "platform/platform.h"

namespace qv {

std::string FilesystemFailureText(const std::string& operation, std::uint32_t code, const WString& path,
                                  const WString& secondPath) {
  std::string text = operation;
  text += ": ";
  text += platform::SystemErrorText(code);
  text += ": \"";
  text += platform::NarrowPathText(path);
  text += '"';
  if (!secondPath.empty()) {
    text += ", \"";
    text += platform::NarrowPathText(secondPath);
    text += '"';
  }
  return text;
}

FilesystemFailure::FilesystemFailure(std::string operation, std::uint32_t code, WString path, WString secondPath)
    : TransactionFailure(FilesystemFailureText(operation, code, path, secondPath)),
      operation_(std::move(operation)),
      code_(code),
      path_(std::move(path)),
      secondPath_(std::move(secondPath)) {}

}  // namespace qv
