// The deployment kit's decisions on what it is given: the command line, the
// account, identities, counts and payload versions, the setup program's
// output, and which backups a pruning removes.
#include "kit/kit_rules.h"

#include <gtest/gtest.h>

namespace qv::kit {
namespace {

const std::string kId(64, 'a');

TEST(KitRules, WhatTheKitIsGivenIsDecidedBeforeAnythingRuns) {
  struct Row {
    std::vector<std::string> args;
    std::string error;  // the start of the usage error, or empty
    std::string package, version;
    std::vector<std::string> toolOptions;
    std::uint64_t kept = kDefaultKeptBackups;
  };
  const std::string usage = "Usage: ", badId = "A payload identity is 64", badVersion = "A payload version is",
                    badCount = "/keep-backups takes a number";
  const Row rows[] = {
      {{}, usage},
      {{"INSTALL", "/Package", "D:\\Pkg & Co 100%", "/test-appdata", "R"}, "", "D:\\Pkg & Co 100%", "",
       {"/Package", "D:\\Pkg & Co 100%", "/test-appdata", "R"}},
      {{"install", "/package", "a", "/package", "b"}, "", "b", "", {"/package", "a", "/package", "b"}},
      {{"logon", "/keep-backups", "0", "/bogus"}, "", "", "", {"/bogus"}, 0},
      {{"install", "/keep-backups", "1000"}, "", "", "", {}, 1000},
      {{"install", "/keep-backups", "1001"}, badCount},
      {{"install", "/keep-backups", "2x"}, badCount},
      {{"detect", kId, "2.3.1", "/test-appdata", "R"}, "", "", "2.3.1", {"/test-appdata", "R"}},
      {{"detect", std::string(64, 'F')}, ""},
      {{"detect", kId.substr(1)}, badId},
      {{"detect", kId.substr(1) + "g"}, badId},
      {{"detect", kId.substr(1) + "\"", "& calc"}, badId},
      {{"detect", kId, "2.x"}, badVersion},
      {{"detect", kId, "1.2.3.4.5"}, badVersion},
      {{"stamp", "P", "2.3.1"}, "", "", "2.3.1"},
      {{"stamp", "P", "2.3.1'"}, badVersion},
      {{"stamp", "P", "1", "x"}, usage},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    const KitCommand c = ParseKitCommand(row.args);
    EXPECT_EQ(c.error.substr(0, row.error.size()), row.error);
    EXPECT_EQ(c.error.empty(), row.error.empty()) << c.error;
    if (!row.error.empty()) continue;
    EXPECT_EQ(c.package, row.package);
    EXPECT_EQ(c.version, row.version);
    EXPECT_EQ(c.toolOptions, row.toolOptions);
    EXPECT_EQ(c.keptBackups, row.kept);
  }
  EXPECT_EQ(ParseKitCommand({"detect", std::string(64, 'F')}).identity, std::string(64, 'f'));

  // The service accounts are refused with the fix; users are not.
  for (const char* sid : {"S-1-5-18", "S-1-5-19", "S-1-5-20"}) {
    EXPECT_NE(RefusalFor(sid).find("set the install behaviour to User"), std::string::npos) << sid;
  }
  for (const char* sid : {"S-1-5-21-0-0-0-1000", "S-1-5-180", "S-1-5-1", ""}) EXPECT_EQ(RefusalFor(sid), "") << sid;

  // Payloads are ordered by their versions alone; an unversioned one by nothing.
  const std::string b(64, 'b');
  struct Ordered {
    Stamp recorded, mine;
    Order order;
  };
  const Ordered orders[] = {
      {{kId, "2.0"}, {kId, "1.0"}, Order::kSame},
      {{kId, "2.10"}, {b, "2.9"}, Order::kRecordedNewer},
      {{kId, "2.3.1"}, {b, "2.3"}, Order::kRecordedNewer},
      {{kId, "2.3"}, {b, "2.3.0"}, Order::kRecordedOlderOrUnordered},
      {{kId, ""}, {b, "1.0"}, Order::kRecordedOlderOrUnordered},
      {{kId, "3.0"}, {b, ""}, Order::kRecordedOlderOrUnordered},
  };
  for (const Ordered& o : orders) {
    EXPECT_EQ(Compare(o.recorded, o.mine), o.order) << o.recorded.version << " / " << o.mine.version;
  }
  Stamp stamp;
  EXPECT_TRUE(ParseStamp(StampText({kId, "2.3.1"}), stamp));
  EXPECT_EQ(stamp.version, "2.3.1");
  for (const std::string bad : {std::string(), kId + "\r\n2.x\r\n", kId + "\r\n1\r\n2\r\n", kId.substr(2) + "\r\n"}) {
    EXPECT_FALSE(ParseStamp(bad, stamp)) << bad;
  }

  // The status parse, the no-Fusion message and the Fusion-running flag are
  // read from the real setup program in the Wine scenario; here what it
  // cannot be driven into: lines past the bound, backups outside the
  // profile's root, text that is not UTF-8.
  const std::string addIn = "C:\\U\\a & 100%!\\Autodesk\\Autodesk Fusion 360\\API\\AddIns\\KELDARO_Quorvane";
  std::vector<std::string> lines;
  EXPECT_FALSE(SplitLines("a\n" + std::string(kMaxLine + 1, 'x'), lines));
  EXPECT_TRUE(SplitLines("a\r\n" + std::string(kMaxLine, 'x'), lines));

  // A profile's backups are found only where both lines name one AppData root.
  const std::string r = "C:\\U\\a & 100%!", backups = r + "\\KELDARO\\Quorvane\\InstallBackups";
  const std::vector<ChangedProfile> changed = ChangedProfiles(
      "Profile: " + addIn + "\nBackup: " + backups + "\\91-4\\before\n" +
      "Profile: " + addIn + "\nBackup: C:\\Other\\KELDARO\\Quorvane\\InstallBackups\\92-4\\before\n" +
      "Profile: " + addIn + "\nBackup: " + backups + "\\..\\before\nQuorvane installed/updated.\n");
  ASSERT_EQ(changed.size(), 1u);
  EXPECT_EQ(changed[0].installBackups, backups);
  EXPECT_EQ(changed[0].transaction, "91-4");

  EXPECT_TRUE(IsUtf8("Pr\xc3\xb3" "f\xc3\xadl \xce\x94"));
  for (const char* bad : {"\xf3" "f", "\xc0\xaf", "\xed\xa0\x80", "\xe0\x80\xaf", "\xf4\x90\x80\x80"}) {
    EXPECT_FALSE(IsUtf8(bad));
  }

  // Pruning, newest first: a run newer than this one, this one, then older
  // ones; the newest backups and this run's are kept, newer runs left alone.
  const std::vector<BackupFolder> folders = {
      {"newer", true, true}, {"this", true, false}, {"b1", true, false}, {"failed", false, true},
      {"b2", true, true},    {"empty", false, false}, {"b3", true, false}};
  const Pruning two = PlanPruning(folders, "this", 2);
  EXPECT_EQ(two.removeWhole, (std::vector<std::string>{"b2", "b3"}));
  EXPECT_EQ(two.removePrepared, (std::vector<std::string>{"failed"}));
  EXPECT_EQ(PlanPruning(folders, "this", 0).removeWhole, (std::vector<std::string>{"b1", "b2", "b3"}));
  const Pruning all = PlanPruning(folders, "this", 10);
  EXPECT_TRUE(all.removeWhole.empty());
  EXPECT_EQ(all.removePrepared, (std::vector<std::string>{"failed", "b2"}));
  EXPECT_TRUE(PlanPruning(folders, "gone", 0).removeWhole.empty());
}

}  // namespace
}  // namespace qv::kit
