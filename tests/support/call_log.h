// The platform calls of one run, as QUORVANE_FAULTS_LOG records them, and the
// fault points that a sweep makes of them.
#pragma once

#include <string>
#include <vector>

namespace qv::test {

struct LoggedCall {
  std::string operation;
  std::string arguments;  // the rest of the line
  int number = 0;         // 1 for the first call of this operation, and so on
};

std::vector<LoggedCall> ReadCallLog(const std::string& path);

// The operations that change the disk, and the status queries.
bool IsWriteOperation(const std::string& operation);
bool IsStatusQuery(const std::string& operation);

// The environment value that makes exactly this call fail with `code`, or
// end the process when `code` is "crash": "Operation@N=code".
std::string FaultAt(const LoggedCall& call, const std::string& code);

}  // namespace qv::test
