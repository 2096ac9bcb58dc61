// The deployment kit's decisions, apart from the Windows calls that carry
// them out: what a command line asks, which accounts are refused, what an
// identity, a count and a payload version look like, how payloads are
// ordered, and what the setup program's output says. Text is UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qv::kit {

// Exit codes of the kit, beside those of the setup program that it passes on.
constexpr int kUsage = 2;
constexpr int kKitFailure = 8;
constexpr int kRefusedAccount = 9;
constexpr int kRetryLater = 1618;

// The longest line the kit reads from any file: a path of 32,767 UTF-16 units
// is at most three times as many bytes in UTF-8, with its label.
constexpr std::size_t kMaxLine = 3 * 32767 + 64;
// The most it reads of the setup program's output.
constexpr std::size_t kMaxOutput = 16u << 20;

// Backups kept per changed profile when the command line names no number.
constexpr unsigned kDefaultKeptBackups = 2;

// A payload's identity: 64 hexadecimal digits, either case.
bool IsIdentity(const std::string& text);
// A count: decimal digits only, at most `largest`.
bool ParseCount(const std::string& text, std::uint64_t largest, std::uint64_t& value);

// A payload version such as "2.3.1": one to four numbers of up to nine
// digits, joined by ".". Gives the numbers, or false.
bool ParseVersion(const std::string& text, std::vector<std::uint32_t>& parts);
// Whether version `a` comes before `b` ("2.3" before "2.3.1" before "2.10");
// false when either is empty: an unversioned payload is ordered by nothing.
bool VersionBefore(const std::string& a, const std::string& b);

// The refusal of the accounts the kit must not run as (LocalSystem,
// LocalService, NetworkService), by their SID; empty for any other.
std::string RefusalFor(const std::string& sid);

struct KitCommand {
  std::string verb;       // "install", "uninstall", "logon", "detect", "stamp", "check"
  std::string identity;   // detect: the payload asked for, lower-cased
  std::string version;    // detect, stamp: the payload's version, or empty
  std::string package;    // the value of /package, or empty
  std::string folder;     // stamp, check: the package folder
  std::uint64_t keptBackups = kDefaultKeptBackups;  // /keep-backups
  std::vector<std::string> toolOptions;             // handed on to the setup program
  std::string error;      // the usage error; empty when the line is good
};
// Reads the kit's arguments (without the program's own name):
//   install|uninstall|logon [options]
//   detect <identity> [<version>] [options]
//   stamp <package> [<version>]
//   check <package>
// Options are name and value pairs. /package is handed on and also names
// the payload the kit checks, records and detects; /keep-backups is the
// kit's own; every other pair goes to the setup program unread.
KitCommand ParseKitCommand(const std::vector<std::string>& args);

// What a stamp file holds: the identity on its first line, the version on
// its second (none for an unversioned payload).
struct Stamp {
  std::string identity;
  std::string version;
};
std::string StampText(const Stamp& stamp);
// False when the text is not a stamp: a bad identity or version.
bool ParseStamp(const std::string& text, Stamp& stamp);

// How a recorded payload stands to the one at hand.
enum class Order { kSame, kRecordedNewer, kRecordedOlderOrUnordered };
Order Compare(const Stamp& recorded, const Stamp& mine);

// The lines of `text`, without CR LF or LF; false when one is longer than
// `maxLine`.
bool SplitLines(const std::string& text, std::vector<std::string>& lines, std::size_t maxLine = kMaxLine);
bool IsUtf8(const std::string& text);

// A /status report of the setup program.
struct StatusReport {
  bool valid = false;                // the report's shape was recognised
  std::size_t installations = 0;     // its count line
  std::vector<std::string> addIns;   // its "Add-In path: " lines
  bool fusionRunning = false;        // "Fusion running: Yes"
};
StatusReport ParseStatusReport(const std::string& text);

// A profile that an install changed, from its "Profile: " and "Backup: "
// lines: the backups' folder and this run's transaction folder name. Pairs
// whose paths do not share the profile's AppData root are left out.
struct ChangedProfile {
  std::string addIn;          // R\Autodesk\Autodesk Fusion 360\API\AddIns\KELDARO_Quorvane
  std::string installBackups; // R\KELDARO\Quorvane\InstallBackups
  std::string transaction;    // this run's folder name below it
};
std::vector<ChangedProfile> ChangedProfiles(const std::string& output);

// The one message of an install that found no Fusion installation at all.
bool FoundNoFusion(int toolExit, const std::string& output);

// Which transaction folders of one profile a pruning removes whole (older
// backups past the newest `kept`), and which only lose their "prepared"
// folder. `folders` come newest first; the current run's is always kept.
struct BackupFolder {
  std::string name;
  bool hasBefore = false;
  bool hasPrepared = false;
};
struct Pruning {
  std::vector<std::string> removeWhole;
  std::vector<std::string> removePrepared;
};
Pruning PlanPruning(const std::vector<BackupFolder>& newestFirst, const std::string& current, std::uint64_t kept);

}  // namespace qv::kit
