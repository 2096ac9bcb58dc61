// ExpandEnvironmentStringsW on the Linux host: variables of the process
// environment, else those a fresh Wine prefix gives a program.
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/fault_injection.h"
#include "platform/platform.h"
#include "platform/posix/host_case.h"

extern char** environ;

namespace qv::platform {
namespace {

std::string LinuxUserName() {
  if (const struct passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_name != nullptr) {
    return entry->pw_name;
  }
  if (const char* user = std::getenv("USER"); user != nullptr && *user != '\0') return user;
  return "user";
}

bool SameName(std::string_view a, WStringView b) { return posix::SameNameIgnoringCase(Utf8ToWide(a), b); }

// What a fresh Wine prefix puts in a program's environment that a Linux
// shell does not have.
bool PrefixVariable(WStringView name, WString& value) {
  const std::string user = LinuxUserName();
  const std::string profile = "C:\\users\\" + user;
  const std::pair<const char*, std::string> variables[] = {
      {"ALLUSERSPROFILE", "C:\\ProgramData"},
      {"APPDATA", profile + "\\AppData\\Roaming"},
      {"CommonProgramFiles", "C:\\Program Files\\Common Files"},
      {"CommonProgramFiles(x86)", "C:\\Program Files (x86)\\Common Files"},
      {"CommonProgramW6432", "C:\\Program Files\\Common Files"},
      {"ComSpec", "C:\\windows\\system32\\cmd.exe"},
      {"HOMEDRIVE", "C:"},
      {"HOMEPATH", "\\users\\" + user},
      {"LOCALAPPDATA", profile + "\\AppData\\Local"},
      {"OS", "Windows_NT"},
      {"PATHEXT", ".com;.exe;.bat;.cmd;.vbs;.vbe;.js;.jse;.wsf;.wsh"},
      {"ProgramData", "C:\\ProgramData"},
      {"ProgramFiles", "C:\\Program Files"},
      {"ProgramFiles(x86)", "C:\\Program Files (x86)"},
      {"ProgramW6432", "C:\\Program Files"},
      {"PUBLIC", "C:\\users\\Public"},
      {"SystemDrive", "C:"},
      {"SystemRoot", "C:\\windows"},
      {"TEMP", profile + "\\Temp"},
      {"TMP", profile + "\\Temp"},
      {"USERNAME", user},
      {"USERPROFILE", profile},
      {"windir", "C:\\windows"},
      {"winsysdir", "C:\\windows\\system32"},
  };
  for (const auto& [variable, text] : variables) {
    if (SameName(variable, name)) {
      value = Utf8ToWide(text);
      return true;
    }
  }
  return false;
}

// A variable of the process environment (the first of that name without
// regard to case), else of the prefix.
bool LookUpVariable(WStringView name, WString& value) {
  if (name.empty()) return false;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view variable(*entry);
    const std::size_t equals = variable.find('=');
    if (equals != std::string_view::npos && SameName(variable.substr(0, equals), name)) {
      value = Utf8ToWide(variable.substr(equals + 1));
      return true;
    }
  }
  return PrefixVariable(name, value);
}

}  // namespace

// Wine's expansion: "%NAME%" of a known variable becomes its value; an
// unknown one is kept whole, percent signs included, and the scan goes on
// after it; a "%" with no closing one keeps the rest as written.
std::uint32_t ExpandEnvironmentStringsW(const WString& source, WString& destination, std::uint32_t capacity) {
  QV_FAULT_POINT("ExpandEnvironmentStringsW", return 0, source);
  // The string ends at an embedded NUL, as a C string would.
  WStringView text = WStringView(source).substr(0, source.find(u'\0'));
  WString expanded;
  WString value;
  while (!text.empty()) {
    const std::size_t percent = text.find(u'%');
    const std::size_t closing = percent == WStringView::npos ? percent : text.find(u'%', percent + 1);
    if (closing == WStringView::npos) {
      expanded += text;
      break;
    }
    expanded += text.substr(0, percent);
    if (LookUpVariable(text.substr(percent + 1, closing - percent - 1), value)) {
      expanded += value;
    } else {
      expanded += text.substr(percent, closing - percent + 1);
    }
    text.remove_prefix(closing + 1);
  }
  const auto needed = static_cast<std::uint32_t>(expanded.size() + 1);
  if (needed <= capacity) destination = std::move(expanded);
  return needed;
}

}  // namespace qv::platform
