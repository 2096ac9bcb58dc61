#include "kit/kit_rules.h"

#include <algorithm>

#include "driver/exit_codes.h"

namespace qv::kit {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string LowerCopy(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), Lower);
  return text;
}

bool StartsWith(const std::string& text, const std::string& head) { return text.compare(0, head.size(), head) == 0; }

// `path` with `tail` cut off its end, compared without regard to case as
// Windows compares names; false when it does not end so.
bool CutTail(const std::string& path, const std::string& tail, std::string& head) {
  if (path.size() <= tail.size() || LowerCopy(path.substr(path.size() - tail.size())) != LowerCopy(tail)) {
    return false;
  }
  head = path.substr(0, path.size() - tail.size());
  return true;
}

}  // namespace

bool IsIdentity(const std::string& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return IsDigit(c) || (Lower(c) >= 'a' && Lower(c) <= 'f');
         });
}

bool ParseCount(const std::string& text, std::uint64_t largest, std::uint64_t& value) {
  if (text.empty() || text.size() > 18 || !std::all_of(text.begin(), text.end(), IsDigit)) return false;
  std::uint64_t number = 0;
  for (const char c : text) number = number * 10 + static_cast<std::uint64_t>(c - '0');
  if (number > largest) return false;
  value = number;
  return true;
}

bool ParseVersion(const std::string& text, std::vector<std::uint32_t>& parts) {
  std::vector<std::uint32_t> numbers;
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = text.find('.', start);
    const std::string part = text.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    std::uint64_t number = 0;
    if (part.size() > 9 || !ParseCount(part, 999999999, number) || numbers.size() == 4) return false;
    numbers.push_back(static_cast<std::uint32_t>(number));
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  parts = numbers;
  return true;
}

bool VersionBefore(const std::string& a, const std::string& b) {
  std::vector<std::uint32_t> x, y;
  if (!ParseVersion(a, x) || !ParseVersion(b, y)) return false;
  return std::lexicographical_compare(x.begin(), x.end(), y.begin(), y.end());
}

std::string RefusalFor(const std::string& sid) {
  const char* names[][2] = {{"S-1-5-18", "LocalSystem"}, {"S-1-5-19", "LocalService"}, {"S-1-5-20", "NetworkService"}};
  for (const auto& [known, name] : names) {
    if (sid == known) {
      return std::string("The kit runs as ") + name +
             ", not as the user whose Fusion it serves: set the install behaviour to User (Intune), \"Install for "
             "user\" (Configuration Manager), or run it in the user's logon script.";
    }
  }
  return "";
}

KitCommand ParseKitCommand(const std::vector<std::string>& args) {
  KitCommand command;
  const std::string usage =
      "Usage: Quorvane_Kit.exe install|uninstall|logon [options] | detect <identity> [<version>] [options] | "
      "stamp <package> [<version>] | check <package>";
  command.verb = args.empty() ? "" : LowerCopy(args[0]);
  std::size_t at = 1;
  if (command.verb == "stamp" || command.verb == "check") {
    const std::size_t most = command.verb == "stamp" ? 3 : 2;
    if (args.size() < 2 || args.size() > most || args[1].empty()) {
      command.error = usage;
    } else {
      command.folder = args[1];
      command.version = args.size() == 3 ? args[2] : "";
    }
    std::vector<std::uint32_t> parts;
    if (command.error.empty() && !command.version.empty() && !ParseVersion(command.version, parts)) {
      command.error = "A payload version is one to four numbers joined by \".\", such as 2.3.1: " + command.version;
    }
    return command;
  }
  if (command.verb == "detect") {
    if (args.size() < 2 || !IsIdentity(args[1])) {
      command.error = args.size() < 2 ? usage : "A payload identity is 64 hexadecimal digits: " + args[1];
      return command;
    }
    command.identity = LowerCopy(args[1]);
    at = 2;
    std::vector<std::uint32_t> parts;
    if (at < args.size() && !StartsWith(args[at], "/")) {
      if (!ParseVersion(args[at], parts)) {
        command.error = "A payload version is one to four numbers joined by \".\", such as 2.3.1: " + args[at];
        return command;
      }
      command.version = args[at++];
    }
  } else if (command.verb != "install" && command.verb != "uninstall" && command.verb != "logon") {
    command.error = usage;
    return command;
  }
  for (; at < args.size(); at += 2) {
    const std::string name = LowerCopy(args[at]);
    if (at + 1 == args.size()) {
      // The setup program says what is wrong with a lone last argument.
      command.toolOptions.push_back(args[at]);
      break;
    }
    if (name == "/keep-backups") {
      if (!ParseCount(args[at + 1], 1000, command.keptBackups)) {
        command.error = "/keep-backups takes a number from 0 to 1000: " + args[at + 1];
        return command;
      }
      continue;
    }
    if (name == "/package") command.package = args[at + 1];
    command.toolOptions.push_back(args[at]);
    command.toolOptions.push_back(args[at + 1]);
  }
  return command;
}

std::string StampText(const Stamp& stamp) {
  return stamp.identity + "\r\n" + (stamp.version.empty() ? "" : stamp.version + "\r\n");
}

bool ParseStamp(const std::string& text, Stamp& stamp) {
  std::vector<std::string> lines;
  std::vector<std::uint32_t> parts;
  if (!SplitLines(text, lines, 256) || lines.empty() || lines.size() > 2 || !IsIdentity(lines[0])) return false;
  Stamp read{LowerCopy(lines[0]), lines.size() == 2 ? lines[1] : ""};
  if (!read.version.empty() && !ParseVersion(read.version, parts)) return false;
  stamp = read;
  return true;
}

Order Compare(const Stamp& recorded, const Stamp& mine) {
  if (recorded.identity == mine.identity) return Order::kSame;
  return VersionBefore(mine.version, recorded.version) ? Order::kRecordedNewer : Order::kRecordedOlderOrUnordered;
}

bool SplitLines(const std::string& text, std::vector<std::string>& lines, std::size_t maxLine) {
  std::vector<std::string> found;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::size_t cut = end;
    if (cut > start && text[cut - 1] == '\r') --cut;
    if (cut - start > maxLine) return false;
    found.push_back(text.substr(start, cut - start));
    start = end + 1;
  }
  lines = std::move(found);
  return true;
}

bool IsUtf8(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    std::size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || i + length > text.size() || (length == 2 && c < 0xC2) || (length == 4 && c > 0xF4)) {
      return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    if (length == 3) {
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if ((c == 0xE0 && next < 0xA0) || (c == 0xED && next >= 0xA0)) return false;  // overlong, surrogate
    }
    if (length == 4) {
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if ((c == 0xF0 && next < 0x90) || (c == 0xF4 && next >= 0x90)) return false;
    }
    i += length;
  }
  return true;
}

StatusReport ParseStatusReport(const std::string& text) {
  StatusReport report;
  std::vector<std::string> lines;
  const std::string count = "Autodesk Fusion installations: ", addIn = "Add-In path: ", running = "Fusion running: ";
  if (!SplitLines(text, lines) || lines.size() < 3 || !StartsWith(lines[0], "Quorvane v") ||
      !StartsWith(lines[1], count) || !StartsWith(lines.back(), running)) {
    return report;
  }
  std::uint64_t installations = 0;
  if (!ParseCount(lines[1].substr(count.size()), 1u << 20, installations)) return report;
  for (const std::string& line : lines) {
    if (StartsWith(line, addIn)) report.addIns.push_back(line.substr(addIn.size()));
  }
  if (report.addIns.size() != installations) return report;
  report.installations = static_cast<std::size_t>(installations);
  report.fusionRunning = lines.back() == running + "Yes";
  report.valid = true;
  return report;
}

std::vector<ChangedProfile> ChangedProfiles(const std::string& output) {
  std::vector<ChangedProfile> changed;
  std::vector<std::string> lines;
  if (!SplitLines(output, lines)) return changed;
  const std::string profile = "Profile: ", backup = "Backup: ";
  const std::string addInTail = "\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane";
  const std::string backupsTail = "\\KELDARO\\Quorvane\\InstallBackups";
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    if (!StartsWith(lines[i], profile) || !StartsWith(lines[i + 1], backup)) continue;
    const std::string addIn = lines[i].substr(profile.size()), before = lines[i + 1].substr(backup.size());
    std::string root, transactionPath, backups;
    if (!CutTail(addIn, addInTail, root) || !CutTail(before, "\\before", transactionPath)) continue;
    const std::size_t slash = transactionPath.rfind('\\');
    if (slash == std::string::npos || !CutTail(transactionPath.substr(0, slash), backupsTail, backups)) continue;
    const std::string name = transactionPath.substr(slash + 1);
    if (LowerCopy(backups) != LowerCopy(root) || name.empty() || name == "." || name == "..") continue;
    changed.push_back({addIn, transactionPath.substr(0, slash), name});
  }
  return changed;
}

bool FoundNoFusion(int toolExit, const std::string& output) {
  std::vector<std::string> lines;
  return toolExit == kExitNotFound && SplitLines(output, lines) && lines.size() == 1 &&
         lines[0] == "Autodesk Fusion was not detected. Start Fusion once, then retry.";
}

Pruning PlanPruning(const std::vector<BackupFolder>& newestFirst, const std::string& current, std::uint64_t kept) {
  Pruning pruning;
  const auto at = std::find_if(newestFirst.begin(), newestFirst.end(),
                               [&](const BackupFolder& folder) { return folder.name == current; });
  if (at == newestFirst.end()) return pruning;
  std::uint64_t backups = at->hasBefore ? 1 : 0;
  // Folders newer than this run's belong to runs that this one knows
  // nothing of: left alone.
  for (auto folder = at + 1; folder != newestFirst.end(); ++folder) {
    if (folder->hasBefore && backups >= kept) {
      pruning.removeWhole.push_back(folder->name);
      continue;
    }
    if (folder->hasBefore) ++backups;
    if (folder->hasPrepared) pruning.removePrepared.push_back(folder->name);
  }
  return pruning;
}

}  // namespace qv::kit
