#include "support/prefix.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace qv::test {
namespace {

std::string Format(const char* format, unsigned value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

// Backslashes and `special` characters escaped by a backslash, others
// outside printable ASCII as \xXXXX, which Wine reads like its own forms.
std::string Escape(const std::u16string& text, const std::string& special = "") {
  std::string out;
  for (char16_t c : text) {
    if (c < 32 || c > 126) {
      out += Format("\\x%04x", c);
    } else {
      if (c == u'\\' || special.find(static_cast<char>(c)) != std::string::npos) out += '\\';
      out += static_cast<char>(c);
    }
  }
  return out;
}

// The shape Wine's server saves: headers with a time, "#time=", escaped
// names and strings, hex wrapped after the comma that passes column 76.
std::string WineRegText(const std::vector<RegFileKey>& keys, const std::u16string& relativeTo) {
  std::string out = "WINE REGISTRY Version 2\n;; All keys relative to " + Escape(relativeTo) + "\n\n#arch=win64\n";
  for (const RegFileKey& key : keys) {
    out += "\n[" + Escape(key.path, "[]") + "] 1795423466\n#time=1dd7b26d8da7df8\n";
    if (key.link) out += "#link\n";
    for (const RegFileValue& value : key.values) {
      out += (value.name.empty() ? "@=" : "\"" + Escape(value.name, "\"") + "\"=") + value.data + "\n";
    }
  }
  return out;
}

}  // namespace

RegFileValue SzValue(const std::u16string& name, const std::u16string& text) {
  return {name, "\"" + Escape(text, "\"") + "\""};
}

RegFileValue DwordValue(const std::u16string& name, std::uint32_t value) { return {name, Format("dword:%08x", value)}; }

RegFileValue TypedValue(const std::u16string& name, std::uint32_t type, const std::vector<std::uint8_t>& bytes) {
  std::string line = type == 3 ? "hex:" : Format("hex(%x):", type);
  // The name's part of the line counts towards the first wrap.
  for (std::size_t i = 0, column = Escape(name).size() + 3 + line.size(); i < bytes.size(); ++i) {
    if (i > 0 && column > 76) line += "\\\n  ", column = 2;
    line += Format(i + 1 < bytes.size() ? "%02x," : "%02x", bytes[i]);
    column += 3;
  }
  return {name, line};
}

RegFileKey LinkKey(const std::u16string& path, const std::u16string& target) {
  return {path, {TypedValue(u"SymbolicLinkValue", 6, Utf16LeBytes(target, false))}, true};
}

void FixturePrefix::WriteRegistry(const std::vector<RegFileKey>& machineKeys, const std::vector<RegFileKey>& userKeys,
                                  bool profileList) const {
  std::vector<RegFileKey> machine{{u"Software\\Microsoft\\Windows NT\\CurrentVersion", {SzValue(u"CurrentVersion", u"6.1")}}};
  if (profileList) {
    machine.push_back({u"Software\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\" + Utf8ToWide(sid),
                       {SzValue(u"ProfileImagePath", u"C:\\users\\" + Utf8ToWide(userName))}});
  }
  machine.insert(machine.end(), machineKeys.begin(), machineKeys.end());
  std::vector<RegFileKey> user{{u"Software\\Wine", {}}};
  user.insert(user.end(), userKeys.begin(), userKeys.end());
  WriteFile(root + "/system.reg", WineRegText(machine, u"REGISTRY\\Machine"));
  WriteFile(root + "/user.reg", WineRegText(user, u"REGISTRY\\User\\" + Utf8ToWide(sid)));
}

void FixturePrefix::AddProcess(int pid, const std::string& argv0, const std::string& comm, unsigned uid,
                               unsigned long session, const std::string& exeLink) const {
  const std::string dir = procRoot + "/" + std::to_string(pid);
  const std::string id = std::to_string(uid);
  WriteFile(dir + "/cmdline", argv0.empty() ? std::string() : argv0 + std::string(1, '\0'));
  WriteFile(dir + "/comm", comm + "\n");
  WriteFile(dir + "/status", "Name:\t" + comm + "\nUid:\t" + id + "\t" + id + "\t" + id + "\t" + id + "\n");
  WriteFile(dir + "/sessionid", std::to_string(session));
  if (!exeLink.empty()) MakeSymlink(exeLink, dir + "/exe");
}

FixturePrefix MakeFixturePrefix(const std::string& folder, bool profileList) {
  const passwd* pw = ::getpwuid(::getuid());
  const FixturePrefix prefix{folder + "/prefix", folder + "/proc", pw != nullptr ? pw->pw_name : "root",
                             "S-1-5-21-0-0-0-1000"};
  MakeDirs(prefix.procRoot);
  MakeDirs(prefix.RoamingHost());
  MakeDirs(prefix.LocalHost());
  MakeSymlink("../drive_c", prefix.root + "/dosdevices/c:");
  MakeSymlink("/", prefix.root + "/dosdevices/z:");
  prefix.WriteRegistry({}, {}, profileList);
  return prefix;
}

WString PrefixCase::Win(const std::string& relative) {
  std::string text = "C:\\" + relative;
  std::replace(text.begin(), text.end(), '/', '\\');
  return Utf8ToWide(text);
}

std::string InventoryText(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  const std::vector<std::uint8_t> bytes = Utf16LeBytes(u"\uFEFF" + Utf8ToWide(text), false);
  return std::string(bytes.begin(), bytes.end());
}

std::string InventoryBytes(const std::vector<std::pair<std::string, std::string>>& records) {
  std::vector<std::string> lines{"[Fusion]", "Count=" + std::to_string(records.size())};
  for (std::size_t i = 0; i < records.size(); ++i) {
    lines.push_back("Executable" + std::to_string(i) + "=" + records[i].first);
    lines.push_back("AppData" + std::to_string(i) + "=" + records[i].second);
  }
  return InventoryText(lines);
}

PrefixCase::PrefixCase() : prefix_(MakeFixturePrefix(temp_.path())), winePrefix_("WINEPREFIX", prefix_.root) {}

}  // namespace qv::test
