#include "support/call_log.h"

#include <fstream>
#include <map>

namespace qv::test {

std::vector<LoggedCall> ReadCallLog(const std::string& path) {
  std::vector<LoggedCall> calls;
  std::map<std::string, int> counts;
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    LoggedCall call;
    const std::size_t space = line.find(' ');
    call.operation = line.substr(0, space);
    if (space != std::string::npos) call.arguments = line.substr(space + 1);
    call.number = ++counts[call.operation];
    calls.push_back(call);
  }
  return calls;
}

bool IsWriteOperation(const std::string& operation) {
  return operation == "CreateDirectoryW" || operation == "CopyFileW" || operation == "MoveFileExW" ||
         operation == "CreateFileW" || operation == "WriteFile" || operation == "FlushFileBuffers";
}

bool IsStatusQuery(const std::string& operation) {
  return operation == "GetFileAttributesW" || operation == "GetFileAttributesExW";
}

std::string FaultAt(const LoggedCall& call, const std::string& code) {
  return call.operation + "@" + std::to_string(call.number) + "=" + code;
}

}  // namespace qv::test
