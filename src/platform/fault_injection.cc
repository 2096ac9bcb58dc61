#include "platform/fault_injection.h"

#if defined(QUORVANE_FAULT_INJECTION)

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "platform/platform.h"

namespace qv::platform {
namespace {

// The two settings come from the environment. On Windows they are read as
// UTF-16 and the log is opened by its wide name, so that its path is a
// Windows path with any characters in it (under Wine, Z:\tmp\calls.log is
// /tmp/calls.log).
#if defined(_WIN32)
WString EnvironmentValue(const wchar_t* name) {
  DWORD size = ::GetEnvironmentVariableW(name, nullptr, 0);
  if (size == 0) return {};
  WString value(size, u'\0');
  DWORD length = ::GetEnvironmentVariableW(name, reinterpret_cast<wchar_t*>(value.data()), size);
  value.resize(length < size ? length : 0);
  return value;
}

std::string FaultRulesText() { return WideToUtf8(EnvironmentValue(L"QUORVANE_FAULTS")); }

std::FILE* OpenCallLog() {
  WString path = EnvironmentValue(L"QUORVANE_FAULTS_LOG");
  return path.empty() ? nullptr : ::_wfopen(reinterpret_cast<const wchar_t*>(path.c_str()), L"ab");
}
#else
std::string FaultRulesText() {
  const char* rules = std::getenv("QUORVANE_FAULTS");
  return rules != nullptr ? rules : "";
}

std::FILE* OpenCallLog() {
  const char* path = std::getenv("QUORVANE_FAULTS_LOG");
  return path != nullptr && *path != '\0' ? std::fopen(path, "ab") : nullptr;
}
#endif

struct FaultRule {
  std::string operation;
  std::uint64_t callNumber = 0;
  bool crash = false;
  std::uint32_t code = 0;
};

struct FaultState {
  std::vector<FaultRule> rules;
  std::map<std::string, std::uint64_t> calls;
  std::FILE* log = nullptr;
};

// Parses "Op@N=CODE,Op@N=crash". Malformed entries are ignored.
std::vector<FaultRule> ParseRules(const std::string& all) {
  std::vector<FaultRule> rules;
  if (all.empty()) return rules;
  std::size_t start = 0;
  while (start <= all.size()) {
    std::size_t end = all.find(',', start);
    if (end == std::string::npos) end = all.size();
    std::string item = all.substr(start, end - start);
    start = end + 1;
    std::size_t at = item.find('@');
    std::size_t eq = item.find('=', at == std::string::npos ? 0 : at);
    if (at == std::string::npos || eq == std::string::npos || at == 0) continue;
    FaultRule rule;
    rule.operation = item.substr(0, at);
    std::string number = item.substr(at + 1, eq - at - 1);
    std::string value = item.substr(eq + 1);
    char* stop = nullptr;
    rule.callNumber = std::strtoull(number.c_str(), &stop, 10);
    if (number.empty() || *stop != '\0' || rule.callNumber == 0) continue;
    if (value == "crash") {
      rule.crash = true;
    } else {
      unsigned long code = std::strtoul(value.c_str(), &stop, 0);
      if (value.empty() || *stop != '\0') continue;
      rule.code = static_cast<std::uint32_t>(code);
    }
    rules.push_back(rule);
  }
  return rules;
}

FaultState& State() {
  static FaultState* state = [] {
    auto* s = new FaultState;
    s->rules = ParseRules(FaultRulesText());
    s->log = OpenCallLog();
    return s;
  }();
  return *state;
}

}  // namespace

bool InjectFault(const char* operation, std::initializer_list<WStringView> args, std::uint32_t& code) {
  FaultState& state = State();
  std::uint64_t number = ++state.calls[operation];
  if (state.log != nullptr) {
    std::string line = operation;
    for (WStringView arg : args) {
      line += ' ';
      line += WideToUtf8(arg);
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), state.log);
    std::fflush(state.log);
  }
  for (const FaultRule& rule : state.rules) {
    if (rule.callNumber != number || rule.operation != operation) continue;
    if (rule.crash) TerminateNow();
    code = rule.code;
    return true;
  }
  return false;
}

}  // namespace qv::platform

#endif
